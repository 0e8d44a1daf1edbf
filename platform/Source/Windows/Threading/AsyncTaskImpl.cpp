#include "Platform/Threading/AsyncTaskImpl.h"

#include <stdexcept>

#include "Platform/Threading/AsyncTask.h"
#include "Platform/Threading/ThreadHelpers.h"

namespace Platform::Threading::impl {

namespace Helpers = Platform::Windows::Threading::ThreadHelpers;
using namespace Interfaces;

void AsyncTaskImpl::Cancel() {
    m_State.store(AsyncTaskCancelRequested);
    Data::Variant dropped;
    {
        std::lock_guard lock(m_Guard);
        m_Result.Swap(dropped);
    }
    m_Done.Set();
}

bool AsyncTaskImpl::Wait(uint32_t timeout) { return Helpers::WaitForSingleObject(m_Done, timeout, false, false); }
bool AsyncTaskImpl::WaitPumping(bool pump) {
    return Helpers::WaitForSingleObject(m_Done, Helpers::Infinite, true, pump);
}
bool AsyncTaskImpl::WaitAlertable() { return Helpers::WaitForSingleObject(m_Done, Helpers::Infinite, true, true); }

bool AsyncTaskImpl::IsCompleted() {
    const int32_t state = m_State.load();
    return state == AsyncTaskCompleted || state == AsyncTaskFailed;
}
bool AsyncTaskImpl::IsCancelled() {
    const int32_t state = m_State.load();
    return state == AsyncTaskCancelRequested || state == AsyncTaskCancelled;
}
bool AsyncTaskImpl::IsFailed() { return m_State.load() == AsyncTaskFailed; }
int32_t AsyncTaskImpl::GetState() { return m_State.load(); }

const char* AsyncTaskImpl::GetErrorMessage() {
    std::lock_guard lock(m_Guard);
    return m_Error.message.c_str();
}

void AsyncTaskImpl::SetResult(const Data::Structures::VARIANT* result) {
    Data::Variant next = result ? Data::Variant::CopyFrom(*result) : Data::Variant();
    std::lock_guard lock(m_Guard);
    m_Result.Swap(next); // the old value goes with `next`, after the lock
}

void AsyncTaskImpl::GetResult(Data::Structures::VARIANT* result) {
    if (!result) throw std::runtime_error("Cannot be nullptr!");
    std::lock_guard lock(m_Guard);
    *result = Data::Structures::VariantCopy(m_Result.Raw());
}

bool AsyncTaskImpl::ResultIsEmpty() {
    std::lock_guard lock(m_Guard);
    return m_Result.IsEmpty();
}

void AsyncTaskImpl::StoreRunResult(const Data::Variant& result) {
    Data::Variant copy = result;
    std::lock_guard lock(m_Guard);
    m_Error = ErrorRecord{};
    if (m_Result.IsEmpty()) m_Result.Swap(copy);
}

void AsyncTaskImpl::SetStatusCallback(IAsyncTaskStatusCallback* callback) {
    if (!callback && !m_HasCallback.load()) return; // nothing to drop, nobody to tell
    Core::Ptr<IAsyncTaskStatusCallback> next(callback);
    {
        std::lock_guard lock(m_Guard);
        m_Callback.Swap(next);
        m_HasCallback.store(callback != nullptr);
    }
    ReportStatus();
}

void AsyncTaskImpl::Signal() { m_Done.Set(); }

void AsyncTaskImpl::SetState(int32_t state) {
    m_State.store(state);
    ReportStatus();
}

void AsyncTaskImpl::MarkQueued() noexcept {
    int32_t expected = AsyncTaskCreated;
    m_State.compare_exchange_strong(expected, AsyncTaskQueued);
}

void AsyncTaskImpl::SetError(const AsyncTaskErrorRecord* record) {
    if (!record) return;
    ErrorRecord copy{record->success,
                     record->message ? record->message : "",
                     record->function ? record->function : "",
                     record->file ? record->file : "",
                     record->line,
                     record->reserved};
    std::lock_guard lock(m_Guard);
    m_Error = std::move(copy);
}

void AsyncTaskImpl::ReportStatus() {
    if (!m_HasCallback.load()) return;
    Core::Ptr<IAsyncTaskStatusCallback> callback;
    {
        std::lock_guard lock(m_Guard);
        callback = m_Callback;
    }
    if (!callback.Raw()) return;
    if (IsFailed()) callback->OnFailed(this);
    else if (IsCompleted()) callback->OnCompleted(this);
    else if (IsCancelled()) callback->OnCancelled(this);
}

} // namespace Platform::Threading::impl

namespace Platform::Threading {

Data::Variant AsyncTask::GetResultVariant() const {
    Data::Structures::VARIANT raw{};
    Get()->GetResult(&raw);
    return Data::Variant::Adopt(raw);
}

namespace detail {

void ThrowResultNotReference(const std::string& interfaceName) {
    throw std::runtime_error("Task result must be of reference type (derived from Core::IObject)! Current type is: " +
                             interfaceName);
}

void ThrowResultNull() {
    throw std::runtime_error("Result is nullptr! Did you set the result? Cancelled tasks do not have any result!");
}

void ThrowResultCannotCast(const std::string& interfaceName) {
    throw std::runtime_error("Cannot cast to desired result type: IObject -> " + interfaceName);
}

void ThrowIfResultIsError(const Data::Variant& result) {
    if (result.GetTag() != Data::Structures::TagErrorCode) return;
    if (result.GetHolding() != Data::Structures::VariantOwnedObject &&
        result.GetHolding() != Data::Structures::VariantBorrowedObject)
        return;
    if (auto* error = dynamic_cast<Core::IErrorCode*>(result.Raw().payload.object))
        throw std::runtime_error(std::string(error->GetMessage(), error->GetMessageLength()));
}

} // namespace detail
} // namespace Platform::Threading
