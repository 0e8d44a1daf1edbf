#include "Core/AbiGuard.h"

#include <typeinfo>

#include "Core/ErrorCodeImpl.h"

namespace Core {

void StoreError(IErrorCode** ppError, uint32_t code, const char* text) noexcept {
    if (!ppError || *ppError) return;
    // Running out of memory here ends the process: noexcept turns the throw into terminate.
    *ppError = new impl::ErrorCodeImpl(code, text ? text : "");
}

const char* ExceptionText(const std::exception& e) noexcept {
    const char* text = e.what();
    // A bare std::exception carries no text of its own.
    if (!text || !*text || typeid(e) == typeid(std::exception)) return "Unknown exception";
    return text;
}

Ptr<IErrorCode> MakeErrorCode(uint32_t code, std::string message) {
    return Ptr<IErrorCode>::Attach(new impl::ErrorCodeImpl(code, std::move(message)));
}

namespace detail {

void ThrowNullArgument(const std::string& typeName, const char* extra) {
    std::string text = "Pointer of " + typeName + " must not be null!";
    if (extra && *extra) {
        text += ' ';
        text += extra;
    }
    throw std::runtime_error(text);
}

void ThrowNullResultAddress(const std::string& typeName) {
    throw std::runtime_error("Pointer to a pointer of " + typeName +
                             " must not be null! Address of return must be specified!");
}

void ThrowResultNotEmpty(const std::string& typeName) {
    throw std::runtime_error("Pointer of " + typeName + " must be null in order to avoid memory leaks!");
}

} // namespace detail
} // namespace Core
