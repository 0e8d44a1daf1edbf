#include "Platform/RichError.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "Core/AbiGuard.h"
#include "Core/StringFormat.h"
#include "Platform/Log.h"
#include "WinHttpErrors.h"

namespace Platform::Windows::RichError {

std::string ComposeErrorText(const char* typeName, uint32_t code, const std::string& message) {
    return Core::StringFormat("[%s(%u)] %s", typeName, code, message.c_str());
}

std::string FormatWin32Error(RichErrorCode error) {
    // The system's own text for an errno value; numbers it does not know get the fallback.
    const char* text = error.code <= 0x7FFFFFFF ? strerrordesc_np(static_cast<int>(error.code)) : nullptr;
    return ComposeErrorText("Win32", error.code, text ? text : "<Error message could not be obtained>");
}

std::string FormatNtStatusError(RichErrorCode error) {
    // No NT status table exists on this system.
    return ComposeErrorText("NTSTATUS", error.code, "<Error message could not be obtained from Ntdll.dll>");
}

std::string FormatWinHttpError(RichErrorCode error) {
    const char* text = WinHttpErrorText(error.code);
    return ComposeErrorText("WinHttp", error.code,
                            text ? text : "<Error message could not be obtained from WinHttp.dll>");
}

std::string FormatHResultError(RichErrorCode error) {
    struct Entry {
        uint32_t code;
        const char* text;
    };
    static constexpr Entry entries[] = {
        {0x00000000, "The operation completed successfully."},
        {0x80004001, "Not implemented"},
        {0x80004002, "No such interface supported"},
        {0x80004003, "Invalid pointer"},
        {0x80004004, "Operation aborted"},
        {0x80004005, "Unspecified error"},
        {0x8000FFFF, "Catastrophic failure"},
        {0x80070005, "Access is denied."},
        {0x8007000E, "Not enough memory resources are available to complete this operation."},
        {0x80070057, "The parameter is incorrect."},
    };
    for (const Entry& entry : entries)
        if (entry.code == error.code) return ComposeErrorText("HResult", error.code, entry.text);
    return ComposeErrorText("HResult", error.code, Core::StringFormat("Unknown error 0x%08X", error.code));
}

std::string FormatCustomError(RichErrorCode error) {
    switch (error.code) {
    case 0: return ComposeErrorText("Custom", 0, "No error");
    case 1: return ComposeErrorText("Custom", 1, "Start can be called only once");
    default: return ComposeErrorText("Custom", 1, "Invalid error code");
    }
}

std::string FormatError(uint32_t type, uint32_t code, const std::string& prefix) {
    const RichErrorCode error{type, code};
    std::string text;
    switch (type) {
    case ErrorTypeNone: text = "no error"; break;
    case ErrorTypeWin32: text = FormatWin32Error(error); break;
    case ErrorTypeNtStatus: text = FormatNtStatusError(error); break;
    case ErrorTypeWinHttp: text = FormatWinHttpError(error); break;
    case ErrorTypeHResult: text = FormatHResultError(error); break;
    case ErrorTypeCustom: text = FormatCustomError(error); break;
    default: text = "INVALID ERROR TYPE"; break;
    }
    return prefix.empty() ? text : prefix + "::" + text;
}

namespace {

[[noreturn]] void LogAndThrow(const char* function, uint32_t code, const std::string& text) {
    const std::string message = Core::StringFormat("%d: %s", static_cast<int>(code), text.c_str());
    LogMessage(LogFatal, function, "", 0, message);
    LogStackTrace();
    throw std::runtime_error(message);
}

} // namespace

void ThrowWin32(uint32_t code, const std::string& text) {
    LogAndThrow("Platform::Windows::RichError::ThrowWin32", code, text);
}

void ThrowLastWin32(const std::string& text) { ThrowWin32(static_cast<uint32_t>(errno), text); }

void ThrowWinHttp(uint32_t code, const std::string& text) {
    LogAndThrow("Platform::Windows::RichError::ThrowWinHttp", code, text);
}

void MakeWin32ErrorObject(uint32_t code, const std::string& text, Core::IErrorCode** out) {
    const std::string lookup = FormatWin32Error({ErrorTypeWin32, code});
    const std::string message = text.empty() ? lookup : text + "::" + lookup;
    Core::StoreError(out, Core::ErrorCodeValue,
                     Core::StringFormat("%d: %s", static_cast<int>(code), message.c_str()).c_str());
}

} // namespace Platform::Windows::RichError
