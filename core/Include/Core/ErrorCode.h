#pragma once
#include <cstdint>

#include "Core/IObject.h"

namespace Core {

// The error object that carries a failure across a module boundary.
struct IErrorCode : IObject {
    virtual const char* GetMessage() const noexcept = 0;
    virtual uint32_t GetMessageLength() const noexcept = 0;
    virtual uint32_t GetCode() const noexcept = 0;
};

// Codes written by the boundary guard.
enum ErrorCodeKind : uint32_t {
    ErrorCodeValue = 0,        // failure reported as a value by library code
    ErrorCodeUncaught = 1,     // exception not derived from std::exception
    ErrorCodeStdException = 2, // std::exception, message is what()
};

} // namespace Core
