#pragma once
#include <cstdint>
#include <exception>
#include <stdexcept>
#include <string>
#include <string_view>

#include "Core/ErrorCode.h"
#include "Core/Ptr.h"
#include "Core/TypeName.h"

namespace Core {

// Stores a new error object in *ppError unless ppError is null or already holds one.
void StoreError(IErrorCode** ppError, uint32_t code, const char* text) noexcept;

// Text of a caught std::exception; an exception without text reads "Unknown exception".
const char* ExceptionText(const std::exception& e) noexcept;

// Runs the body of a boundary method: true when it returned normally, otherwise false with
// the failure stored in *ppError. Nothing thrown leaves it.
template <class Body>
bool AbiGuard(Body&& body, IErrorCode** ppError) noexcept {
    try {
        body();
        return true;
    } catch (const std::exception& e) {
        StoreError(ppError, ErrorCodeStdException, ExceptionText(e));
    } catch (...) {
        StoreError(ppError, ErrorCodeUncaught, "Uncaught exception");
    }
    return false;
}

namespace detail {
[[noreturn]] void ThrowNullArgument(const std::string& typeName, const char* extra);
[[noreturn]] void ThrowNullResultAddress(const std::string& typeName);
[[noreturn]] void ThrowResultNotEmpty(const std::string& typeName);
} // namespace detail

// Argument guards, in the order a boundary body runs them: inputs, result address, its content.
template <class T>
void ThrowIfNull(const T* input, const char* extra = nullptr) {
    if (!input) detail::ThrowNullArgument(TypeName<T>(), extra);
}

template <class T>
void ThrowIfNullAddress(T* const* ppResult) {
    if (!ppResult) detail::ThrowNullResultAddress(TypeName<T>());
}

template <class T>
void ThrowIfNotEmpty(T* const* ppResult) {
    if (*ppResult) detail::ThrowResultNotEmpty(TypeName<T>());
}

// Both result guards at once.
template <class T>
void CheckResultAddress(T* const* ppResult) {
    ThrowIfNullAddress(ppResult);
    ThrowIfNotEmpty(ppResult);
}

// Borrowed view of an error's text: empty for an empty Ptr.
struct ErrorView {
    const char* text = "";
    uint32_t length = 0;

    ErrorView() = default;
    explicit ErrorView(const Ptr<IErrorCode>& error) {
        if (IErrorCode* e = error.Raw()) {
            text = e->GetMessage();
            length = e->GetMessageLength();
        }
    }
    std::string_view View() const { return {text, length}; }
};

// Caller side of the boundary: a filled error becomes a std::runtime_error with its text.
inline void ThrowIfError(const Ptr<IErrorCode>& error) {
    if (error.Raw()) throw std::runtime_error(std::string(ErrorView(error).View()));
}

// A new error object with one reference, for code that reports failure as a value.
Ptr<IErrorCode> MakeErrorCode(uint32_t code, std::string message);

} // namespace Core
