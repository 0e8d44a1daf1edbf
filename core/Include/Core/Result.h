#pragma once
#include "Core/ErrorCode.h"
#include "Core/Ptr.h"

namespace Core {

// A value or the error that kept it from being made; exactly one is set.
template <class T>
struct Result {
    Ptr<T> value;
    Ptr<IErrorCode> error;
};

} // namespace Core
