#pragma once
#include <cstdint>

#include "Core/ErrorCode.h"

namespace Data::Interfaces {

// A byte string, always zero-terminated.
struct IString : Core::IObject {
    virtual const char* GetText() const noexcept = 0;
    virtual uint64_t GetLength() const noexcept = 0;
    virtual bool _abi_Assign(const char* text, uint64_t length, Core::IErrorCode** ppError) noexcept = 0;
};

// Text documents; their size counts the terminating zero byte.
struct IJsonDocument : Core::IObject {
    virtual const char* GetText() const noexcept = 0;
    virtual uint64_t GetSize() const noexcept = 0;
};

struct IXmlDocument : Core::IObject {
    virtual const char* GetText() const noexcept = 0;
    virtual uint64_t GetSize() const noexcept = 0;
};

} // namespace Data::Interfaces
