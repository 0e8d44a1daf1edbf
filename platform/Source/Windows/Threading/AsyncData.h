#pragma once
// The task of a posted function and the body that runs it on the target thread.
#include <exception>
#include <functional>
#include <utility>

#include "Core/Ptr.h"
#include "Core/StringFormat.h"
#include "Data/Variant.h"
#include "Platform/Log.h"
#include "Platform/Threading/AsyncTaskImpl.h"
#include "Platform/Threading/ThreadHelpers.h"

namespace Platform::Threading::impl {

// A task with its work and the thread it belongs to (ThreadWorker or ThreadDispatcher).
template <class T>
class AsyncData final : public AsyncTaskImpl {
public:
    AsyncData(std::function<Data::Variant()> body, Core::Ptr<T> thread)
        : m_Body(std::move(body)), m_Thread(std::move(thread)) {}

    std::function<Data::Variant()> m_Body;
    Core::Ptr<T> m_Thread;

private:
    ~AsyncData() override = default;
};

namespace details {

inline void RecordFailure(AsyncTaskImpl& task, const char* message) {
    Interfaces::AsyncTaskErrorRecord record;
    record.success = 0;
    record.message = message;
    task.SetError(&record);
    task.SetState(Interfaces::AsyncTaskFailed);
}

// The end of a task's turn, run or not: the thread lets go of it, its waiters wake, and the
// body and callback go after that.
template <class T>
void EndRun(AsyncData<T>& task) noexcept {
    if (T* thread = task.m_Thread.Raw()) thread->m_PendingTasks.fetch_sub(1);
    task.m_Thread.Reset();
    task.Signal();
    // The body may hold the last reference to anything, the thread included.
    std::function<Data::Variant()> body = std::move(task.m_Body);
    task.m_Body = nullptr;
    body = nullptr;
    try {
        task.SetStatusCallback(nullptr);
    } catch (...) {
    }
}

// Runs a task on its target thread. Nothing thrown by the body reaches the thread's loop.
template <class T>
void Impl_ThreadworkCallback(AsyncData<T>& task) noexcept {
    try {
        try {
            const int32_t state = task.GetState();
            if (state == Interfaces::AsyncTaskCreated || state == Interfaces::AsyncTaskQueued) {
                task.SetState(Interfaces::AsyncTaskRunning);
                // A success record, and the body's value unless it stored a result itself.
                task.StoreRunResult(task.m_Body());
                task.SetState(Interfaces::AsyncTaskCompleted);
            } else if (state == Interfaces::AsyncTaskCancelRequested) {
                task.SetState(Interfaces::AsyncTaskCancelled);
            }
        } catch (const std::exception& e) {
            RecordFailure(task, e.what());
        } catch (...) {
            const std::string text = Core::StringFormat("Unknown Exception in Async Task: (Tid: %d)",
                                                        Windows::Threading::ThreadHelpers::GetCurrentThreadId());
            LogMessage(LogError, "Platform::Threading::impl::details::Impl_ThreadworkCallback", "AsyncData.h",
                       __LINE__, text);
            RecordFailure(task, text.c_str());
        }
    } catch (...) {
        // Recording the failure threw (a status callback or the logger): the run still ends.
    }

    EndRun(task);
}

// Queued-function entry points: the task's queue reference is released after the run, or
// when the thread ended before running it.
template <class T>
void RunQueuedTask(void* argument) noexcept {
    auto* task = static_cast<AsyncData<T>*>(argument);
    Impl_ThreadworkCallback(*task);
    task->Release();
}

// The thread ended (its loop was stopped, or it returned) before the task's turn came: the task
// ends as cancelled, so that whoever waits for it wakes instead of waiting for ever.
template <class T>
void DiscardQueuedTask(void* argument) noexcept {
    auto* task = static_cast<AsyncData<T>*>(argument);
    try {
        task->SetState(Interfaces::AsyncTaskCancelled);
    } catch (...) {
        // A status callback threw: the task is cancelled all the same.
    }
    EndRun(*task);
    task->Release();
}

} // namespace details
} // namespace Platform::Threading::impl
