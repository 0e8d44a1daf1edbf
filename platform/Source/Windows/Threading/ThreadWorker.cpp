#include "Platform/Threading/ThreadWorker.h"

#include <stdexcept>
#include <thread>

#include "Core/StringFormat.h"
#include "Platform/DebugOutput.h"
#include "Platform/Log.h"
#include "Platform/Threading/AlertableEvent.h"
#include "Platform/Threading/ThreadHelpers.h"
#include "Threading/ThreadContext.h"
#include "Threading/ThreadPost.h"

namespace Platform::Threading::impl {

namespace Helpers = Platform::Windows::Threading::ThreadHelpers;

namespace {

constexpr const char* SourceFile = "ThreadWorker.cpp";

[[noreturn]] void LogAndThrow(const char* function, int line, const std::string& text) {
    LogMessage(LogFatal, function, SourceFile, line, text);
    throw std::runtime_error(text);
}

void DoNothing(void*) noexcept {}

} // namespace

ThreadWorker::ThreadWorker(std::string name, bool shouldDetach, uint32_t timeout)
    : m_LifetimeLock(std::make_shared<std::mutex>()),
      m_LifetimeFlag(std::make_shared<std::atomic<int32_t>>(1)),
      m_Timeout(timeout),
      m_ShouldDetach(shouldDetach),
      m_Name(std::move(name)) {
    if (!m_ShouldDetach)
        LogAndThrow("Platform::Threading::impl::ThreadWorker::ThreadWorker", __LINE__, "ShouldDetach must be true!");

    AlertableEvent started;
    std::thread thread(&ThreadWorker::EntryRoutine, this, &started, m_Name, m_LifetimeLock, m_LifetimeFlag);
    m_HasThread = true;
    m_Dedicated = true;
    Helpers::WaitForSingleObject(started, Helpers::Infinite, false, false);
    thread.detach();
    LogMessage(LogInfo, "Platform::Threading::impl::ThreadWorker::ThreadWorker", SourceFile, __LINE__,
               Core::StringFormat("ThreadWorker [%s] created with dedicated thread.", m_Name.c_str()));
}

ThreadWorker::~ThreadWorker() {
    OutputDebugText(Core::StringFormat("INFO: Destroying ThreadWorker [%s].", m_Name.c_str()));
    if (const int32_t pending = m_PendingTasks.load(); pending != 0)
        OutputDebugText(Core::StringFormat("WARN: Not all tasks were executed. m_PendingTasks = %d", pending));
    m_Alive = false;
    if (m_Consumed) {
        m_ThreadHandle.reset();
    } else if (m_Dedicated && Helpers::GetCurrentThreadId() == m_LoopId.load()) {
        // Released by something that runs on the loop itself: waiting for the thread here would
        // wait for ever. The loop sees the flag when this function has returned and ends.
        OutputDebugText(Core::StringFormat(
            "ERROR: Thread worker [%s] is being destoyed on its own thread. This usually means that task posted to "
            "the worker references worker itself. To prevent program crashes thread resources might be leaked on "
            "purpose.",
            m_Name.c_str()));
        m_LifetimeFlag->store(0);
    } else if (m_Dedicated) {
        m_ThreadHandle->Queue({&DoNothing, &DoNothing, nullptr});
        {
            std::lock_guard lock(*m_LifetimeLock);
            m_LifetimeFlag->store(0);
        }
        m_ThreadHandle->WaitEnded(Helpers::Infinite);
        m_ThreadHandle.reset();
    }
    OutputDebugText(Core::StringFormat("INFO: ThreadWorker [%s] destroyed", m_Name.c_str()));
}

void ThreadWorker::EntryRoutine(ThreadWorker* worker, AlertableEvent* started, std::string name, LifetimeLock lock,
                                LifetimeFlag flag) {
    std::shared_ptr<ThreadContext> context = ThreadContext::Current();
    worker->m_ThreadHandle = context;
    worker->m_StartId = context->ThreadId();
    context->SetName(name);
    started->Set();
    WorkThreadFunction(worker, name, lock, flag);
}

void ThreadWorker::WorkThreadFunction(ThreadWorker* worker, const std::string& name, const LifetimeLock& lock,
                                      const LifetimeFlag& flag) {
    const uint32_t threadId = Helpers::GetCurrentThreadId();
    worker->m_Running = true;
    worker->m_LoopStarted = true;
    worker->m_LoopId = threadId;
    LogMessage(LogInfo, "Platform::Threading::impl::ThreadWorker::WorkThreadFunction", SourceFile, __LINE__,
               Core::StringFormat("Starting event loop on [%s](Tid: %d)", name.c_str(), threadId));
    for (;;) {
        {
            std::lock_guard guard(*lock);
            if (flag->load() == 0) break;
        }
        HandleEvents(worker, flag);
        // With the flag at 0 the worker may be gone: it is not looked at any more.
        if (flag->load() == 1 && !worker->m_Alive.load()) break;
    }
    if (flag->load() == 1) worker->m_Running = false;
}

void ThreadWorker::HandleEvents(ThreadWorker* worker, const LifetimeFlag& flag) {
    const uint32_t result = Helpers::WaitOnce(nullptr, worker->m_Timeout, true);
    if (flag->load() == 0) {
        LogMessage(LogError, "Platform::Threading::impl::ThreadWorker::HandleEvents", SourceFile, __LINE__,
                   Core::StringFormat("Thread %d lifetime ended. Event loop will not handle pending callbacks",
                                      Helpers::GetCurrentThreadId()));
        return;
    }
    switch (result) {
    case Helpers::WaitIoCompletion:
        // Posted functions ran.
        if (const int32_t pending = worker->m_PendingTasks.load(); pending < 0)
            LogMessage(LogError, "Platform::Threading::impl::ThreadWorker::HandleEvents", SourceFile, __LINE__,
                       Core::StringFormat("Bugcheck: m_PendingTasks = %d!! This should not happen unless fail in design",
                                          pending));
        break;
    case Helpers::WaitTimeout:
        // A quiet period of the loop's timeout: nothing is registered to run on it.
        break;
    default:
        return;
    }
}

AsyncTask ThreadWorker::PostBody(std::function<Data::Variant()> body) {
    if (m_HasThread && !m_Alive.load()) {
        auto task = Core::MakeObject<AsyncTaskImpl>();
        const Data::Variant error = Data::Variant::FromObject(
            Core::MakeErrorCode(Core::ErrorCodeValue, "Thread event loop ended. New tasks cannot be queued anymore."));
        task->SetResult(&error.Raw());
        task->SetState(Interfaces::AsyncTaskCompleted);
        task->Signal();
        return AsyncTask(std::move(task));
    }
    return details::PostTask(*this, m_ThreadHandle.get(), std::move(body), m_Name.c_str(), m_StartId.load());
}

AsyncTask ThreadWorker::Stop() {
    return Post([this] { m_Alive = false; });
}

void ThreadWorker::Start() {
    if (Helpers::GetCurrentThreadId() == m_StartId.load() && !m_Running.load()) {
        m_Alive = true;
        WorkThreadFunction(this, m_Name, m_LifetimeLock, m_LifetimeFlag);
        return;
    }
    if (m_Running.load())
        LogAndThrow("Platform::Threading::impl::ThreadWorker::Start", __LINE__,
                    Core::StringFormat("ThreadWorker [%s] is already running!", m_Name.c_str()));
    LogAndThrow("Platform::Threading::impl::ThreadWorker::Start", __LINE__,
                Core::StringFormat("ThreadWorker [%s] cannot start from different thread!", m_Name.c_str()));
}

void ThreadWorker::SetTimeout(uint32_t timeout) {
    if (Helpers::GetCurrentThreadId() != m_StartId.load())
        LogAndThrow("Platform::Threading::impl::ThreadWorker::SetTimeout", __LINE__,
                    Core::StringFormat("Cannot change event loop timeout from different thread on ThreadWorker [%s]!",
                                       m_Name.c_str()));
    m_Timeout = timeout;
}

bool ThreadWorker::_abi_Start(Core::IErrorCode** ppError) {
    return Core::AbiGuard([&] { Start(); }, ppError);
}

bool ThreadWorker::_abi_Stop(Interfaces::IAsyncTask** ppTask, Core::IErrorCode** ppError) {
    return Core::AbiGuard(
        [&] {
            Core::CheckResultAddress(ppTask);
            *ppTask = Stop().Detach();
        },
        ppError);
}

bool ThreadWorker::_abi_Post(Interfaces::ThreadFunction function, const Data::Structures::VARIANT* param,
                             Interfaces::IAsyncTask** ppTask, Core::IErrorCode** ppError) {
    return details::AbiPost(*this, function, param, ppTask, ppError,
                            "Platform::Threading::impl::ThreadWorker::_abi_Post::<lambda_1>::()::<lambda_1>::operator ()");
}

bool ThreadWorker::_abi_Unsupported(Core::IErrorCode** ppError) {
    return Core::AbiGuard([] { details::ThrowNotImplemented(); }, ppError);
}

bool ThreadWorker::_abi_SetName(const char* name, Core::IErrorCode** ppError) {
    return Core::AbiGuard(
        [&] {
            if (!name) return;
            m_Name = name;
            m_ThreadHandle->SetName(m_Name);
        },
        ppError);
}

bool ThreadWorker::_abi_SetTimeout(uint32_t timeout, Core::IErrorCode** ppError) {
    return Core::AbiGuard([&] { SetTimeout(timeout); }, ppError);
}

} // namespace Platform::Threading::impl
