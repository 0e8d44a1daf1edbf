#pragma once
// Posting shared by ThreadWorker and ThreadDispatcher: a task for the function, queued to the
// target thread's context, and the boundary form of the post.
#include <cerrno>
#include <stdexcept>
#include <type_traits>
#include <utility>

#include "Core/AbiGuard.h"
#include "Core/StringFormat.h"
#include "Data/Variant.h"
#include "Platform/Log.h"
#include "Platform/Threading/AsyncTask.h"
#include "Threading/AsyncData.h"
#include "Threading/ThreadContext.h"

namespace Platform::Threading::impl::details {

// Counts the task as pending and queues it; on failure logs what QueueUserAPC would report.
template <class T>
bool PostInternal(T& thread, ThreadContext* target, AsyncData<T>* task, const char* name, uint32_t targetId) {
    thread.m_PendingTasks.fetch_add(1);
    if (target && target->Queue({&RunQueuedTask<T>, &DiscardQueuedTask<T>, task})) return true;
    const int error = target ? errno : ESRCH;
    thread.m_PendingTasks.fetch_sub(1);
    LogMessage(LogError, "Platform::Threading::impl::details::PostInternal", "ThreadPost.h", __LINE__,
               Core::StringFormat("QueueUserAPC Error: %d, Thread: [%s] (Posting from %d to %d)", error, name,
                                  Windows::Threading::ThreadHelpers::GetCurrentThreadId(), targetId));
    return false;
}

// A task for `body` on `thread`; a null handle when it could not be queued.
template <class T>
AsyncTask PostTask(T& thread, ThreadContext* target, std::function<Data::Variant()> body, const char* name,
                   uint32_t targetId) {
    auto task = Core::Ptr<AsyncData<T>>::Attach(new AsyncData<T>(std::move(body), Core::Ptr<T>(&thread)));
    task->AddReference(); // the queue's reference
    if (PostInternal(thread, target, task.Raw(), name, targetId)) {
        task->MarkQueued();
        return AsyncTask(std::move(task));
    }
    task->m_Thread.Reset();
    task->Signal();
    task->m_Body = nullptr;
    task->SetStatusCallback(nullptr);
    task->Release();
    return {};
}

// The boundary form of Post. `logName` names the posted function in the log.
template <class T>
bool AbiPost(T& thread, Interfaces::ThreadFunction function, const Data::Structures::VARIANT* param,
             Interfaces::IAsyncTask** ppTask, Core::IErrorCode** ppError, const char* logName) {
    return Core::AbiGuard(
        [&] {
            if (!function)
                Core::detail::ThrowNullArgument(Core::TypeName<std::remove_pointer_t<Interfaces::ThreadFunction>>(),
                                                nullptr);
            if (param && Data::Structures::VariantTagOf(*param) > 27)
                throw std::runtime_error("Variant type is undefined! Did you forget to zero out the VARIANT "
                                         "structure? It appears uninitialized!");
            Data::Variant copy = param ? Data::Variant::CopyFrom(*param) : Data::Variant();
            AsyncTask task = thread.Post([function, copy = std::move(copy), logName] {
                Core::Ptr<Core::IErrorCode> error;
                function(&copy.Raw(), error.ReceiveAddress());
                if (error.Raw()) LogMessage(LogError, logName, "ThreadPost.h", __LINE__, Core::ErrorView(error).View());
            });
            Core::CheckResultAddress(ppTask);
            *ppTask = task.Detach();
        },
        ppError);
}

[[noreturn]] inline void ThrowNotImplemented() { throw std::runtime_error("Function not implemented"); }

} // namespace Platform::Threading::impl::details
