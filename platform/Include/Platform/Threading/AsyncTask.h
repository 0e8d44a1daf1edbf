#pragma once
#include <string>

#include "Core/Ptr.h"
#include "Core/TypeName.h"
#include "Data/Variant.h"
#include "Platform/Interfaces/IAsyncTask.h"

namespace Platform::Threading {

// Owning handle to a task. Post returns one; a null handle means the post failed.
class AsyncTask : public Core::Ptr<Interfaces::IAsyncTask> {
public:
    using Ptr::Ptr;
    AsyncTask() = default;
    AsyncTask(Core::Ptr<Interfaces::IAsyncTask> other) noexcept : Ptr(std::move(other)) {}

    // A copy of the task's result as it stands.
    Data::Variant GetResultVariant() const;
};

namespace detail {
[[noreturn]] void ThrowResultNotReference(const std::string& interfaceName);
[[noreturn]] void ThrowResultNull();
[[noreturn]] void ThrowResultCannotCast(const std::string& interfaceName);
// Throws the text of an error object held in the result, if that is what it holds.
void ThrowIfResultIsError(const Data::Variant& result);
} // namespace detail

// A task whose result is an object: T is a wrapper of an interface (Data::Array, ...).
template <class T>
class AsyncTaskWithResultBase : public AsyncTask {
public:
    using AsyncTask::AsyncTask;
    AsyncTaskWithResultBase() = default;
    AsyncTaskWithResultBase(AsyncTask task) noexcept : AsyncTask(std::move(task)) {}

    // The result with a reference of its own. An error object in the result is raised as its
    // text; an empty result (never set, or cancelled) is the "Result is nullptr!" failure.
    T GetResult() const {
        using I = typename T::element_type;
        const Data::Variant result = GetResultVariant();
        detail::ThrowIfResultIsError(result);
        if (result.IsEmpty()) detail::ThrowResultNull();
        if (result.GetHolding() != Data::Structures::VariantOwnedObject)
            detail::ThrowResultNotReference(Core::TypeName<I>());
        const bool isError = result.GetTag() == Data::Structures::TagErrorCode;
        Core::IObject* object = result.Raw().payload.object;
        if (!object && !isError) detail::ThrowResultNull();
        I* cast = dynamic_cast<I*>(object);
        if (!cast && !isError) detail::ThrowResultCannotCast(Core::TypeName<I>());
        return T(Core::Ptr<I>(cast));
    }
};

} // namespace Platform::Threading
