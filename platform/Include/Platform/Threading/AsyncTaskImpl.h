#pragma once
#include <atomic>
#include <mutex>
#include <string>

#include "Core/ObjectImplBase.h"
#include "Core/Ptr.h"
#include "Data/Variant.h"
#include "Platform/Interfaces/IAsyncTask.h"
#include "Platform/Threading/AlertableEvent.h"

namespace Platform::Threading::impl {

// The task object behind every posted function; a base for tasks of other kinds of work.
class AsyncTaskImpl : public Core::ObjectImplBase<Interfaces::IAsyncTask> {
public:
    AsyncTaskImpl() = default;

    void Cancel() override;
    bool Wait(uint32_t timeout) override;
    bool WaitPumping(bool pump) override;
    bool WaitAlertable() override;
    bool IsCompleted() override;
    bool IsCancelled() override;
    bool IsFailed() override;
    const char* GetErrorMessage() override;
    int32_t GetState() override;
    void SetResult(const Data::Structures::VARIANT* result) override;
    void GetResult(Data::Structures::VARIANT* result) override;
    void SetStatusCallback(Interfaces::IAsyncTaskStatusCallback* callback) override;
    void Signal() override;
    void SetState(int32_t state) override;
    void SetError(const Interfaces::AsyncTaskErrorRecord* record) override;

    // State 0 becomes 1; any other state (the work may have started already) stays.
    void MarkQueued() noexcept;
    // True while no result has been stored.
    bool ResultIsEmpty();
    // The end of a run that returned normally: a success record, and `result` unless a result
    // was stored already.
    void StoreRunResult(const Data::Variant& result);

protected:
    ~AsyncTaskImpl() override = default;

private:
    void ReportStatus();

    struct ErrorRecord {
        int32_t success = 1;
        std::string message, function, file;
        int32_t line = 0;
        int32_t reserved = 0;
    };

    AlertableEvent m_Done;
    std::mutex m_Guard; // result, error record and callback: writers may race with Cancel
    Data::Variant m_Result;
    std::atomic<int32_t> m_State{Interfaces::AsyncTaskCreated};
    ErrorRecord m_Error;
    Core::Ptr<Interfaces::IAsyncTaskStatusCallback> m_Callback;
    std::atomic<bool> m_HasCallback{false}; // spares the lock on the usual path without one
};

} // namespace Platform::Threading::impl
