#pragma once
#include <cstdint>

#include "Core/ErrorCode.h"

namespace Platform::Interfaces {

// One address cut into its parts. Filled once by Parse, then only read.
struct IUrl : Core::IObject {
    virtual bool IsDefaultPort() = 0;
    virtual const char* GetScheme() = 0;
    virtual const char* GetHost() = 0;
    virtual uint32_t GetPort() = 0;
    virtual const char* GetPath() = 0;
    virtual const char* GetQuery() = 0;
    virtual const char* GetFragment() = 0;
    virtual bool Parse(const char* text, Core::IErrorCode** ppError) = 0;
};

} // namespace Platform::Interfaces
