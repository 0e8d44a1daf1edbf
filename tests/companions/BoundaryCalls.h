#pragma once
// Calls across the C boundary of the companion libraries: a result address and an error address.
#include <string>

#include "Core/AbiGuard.h"

namespace BoundaryCalls {

// What `call(&result, &error)` makes; a reported error is thrown with its text.
template <class T, class Call>
Core::Ptr<T> Made(Call&& call) {
    Core::Ptr<T> result;
    Core::Ptr<Core::IErrorCode> error;
    call(result.ReceiveAddress(), error.ReceiveAddress());
    Core::ThrowIfError(error);
    return result;
}

// The text of the error `call(&error)` reports when it returns false; empty when it succeeds or
// reports no error.
template <class Call>
std::string Failure(Call&& call) {
    Core::Ptr<Core::IErrorCode> error;
    if (call(error.ReceiveAddress()) || !error.Raw()) return "";
    return error->GetMessage();
}

} // namespace BoundaryCalls
