#pragma once
#include "Core/ErrorCode.h"

namespace Platform::Interfaces {

// One loaded shared library with a cache of the symbols looked up in it.
struct IDll : Core::IObject {
    virtual const char* GetName() = 0;
    virtual void* GetHandle() = 0;
    virtual void* _abi_GetSymbol(const char* symbol, Core::IErrorCode** ppError) = 0;
    virtual bool HasSymbol(const char* symbol) = 0;
};

} // namespace Platform::Interfaces
