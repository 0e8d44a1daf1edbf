#pragma once
#include <cstdint>
#include <string>

#include "Core/ErrorCode.h"

namespace Platform::Windows::RichError {

// Error families, by the number stored in RichErrorCode::type.
enum ErrorType : uint32_t {
    ErrorTypeNone = 0,
    ErrorTypeWin32 = 1, // errno values on this system
    ErrorTypeNtStatus = 2,
    ErrorTypeWinHttp = 3, // transport errors, numbered as WinHTTP numbers them
    ErrorTypeHResult = 4,
    ErrorTypeCustom = 5,
};

struct RichErrorCode {
    uint32_t type = ErrorTypeNone;
    uint32_t code = 0;
};

// "[" typeName "(" code ")] " message
std::string ComposeErrorText(const char* typeName, uint32_t code, const std::string& message);

std::string FormatError(uint32_t type, uint32_t code, const std::string& prefix = {});
std::string FormatWin32Error(RichErrorCode error);
std::string FormatNtStatusError(RichErrorCode error);
std::string FormatWinHttpError(RichErrorCode error);
std::string FormatHResultError(RichErrorCode error);
std::string FormatCustomError(RichErrorCode error);

// Log at FATAL with a stack trace, then throw std::runtime_error("<code>: <text>").
[[noreturn]] void ThrowWin32(uint32_t code, const std::string& text);
[[noreturn]] void ThrowLastWin32(const std::string& text);
[[noreturn]] void ThrowWinHttp(uint32_t code, const std::string& text);

// The error object of a Win32-family failure, for code that must report it as a value.
void MakeWin32ErrorObject(uint32_t code, const std::string& text, Core::IErrorCode** out);

} // namespace Platform::Windows::RichError
