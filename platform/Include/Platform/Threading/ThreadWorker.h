#pragma once
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "Core/ObjectImplBase.h"
#include "Platform/Interfaces/IThread.h"
#include "Platform/Threading/AsyncTask.h"

namespace Platform::Threading {
class AlertableEvent;
}

namespace Platform::Threading::impl {

class ThreadContext;

// Owns a dedicated thread whose event loop sits in an alertable wait and runs what is posted
// to it, first posted first run. It may be released from any thread, its own included.
class ThreadWorker final : public Core::ObjectImplBase<Interfaces::IThread> {
public:
    // Starts the thread and returns once it runs. `shouldDetach` must be true; `timeout` (ms,
    // 0xFFFFFFFF for none) bounds each wait of the loop.
    ThreadWorker(std::string name, bool shouldDetach, uint32_t timeout);

    // Runs `function` on the worker's thread. After Stop the task is complete at once and its
    // result is the error "Thread event loop ended. New tasks cannot be queued anymore."; a post
    // that raced Stop and was queued as the loop ended is cancelled when the thread ends.
    template <class F>
    AsyncTask Post(F&& function) {
        // The body keeps the function itself, so a small one needs no allocation of its own.
        return PostBody([function = std::forward<F>(function)]() mutable {
            function();
            return Data::Variant();
        });
    }
    // Posts a body whose value becomes the task's result (unless the body stored one).
    AsyncTask PostBody(std::function<Data::Variant()> body);
    // Ends the loop after everything posted before it.
    AsyncTask Stop();
    // Re-enters the loop, only from the worker's own thread while its loop is not running.
    void Start();
    // Only from the worker's own thread.
    void SetTimeout(uint32_t timeout);

    bool _abi_Start(Core::IErrorCode** ppError) override;
    bool _abi_Stop(Interfaces::IAsyncTask** ppTask, Core::IErrorCode** ppError) override;
    bool _abi_Post(Interfaces::ThreadFunction function, const Data::Structures::VARIANT* param,
                   Interfaces::IAsyncTask** ppTask, Core::IErrorCode** ppError) override;
    bool _abi_Unsupported(Core::IErrorCode** ppError) override;
    void SetShouldDetach(bool shouldDetach) override { m_ShouldDetach = shouldDetach; }
    bool IsRunning() override { return m_Running.load(std::memory_order_relaxed); }
    bool _abi_SetName(const char* name, Core::IErrorCode** ppError) override;
    const char* GetName() override { return m_Name.c_str(); }
    uint32_t GetThreadId() override { return m_LoopId.load(std::memory_order_relaxed); }
    void* GetThreadHandle() override { return m_ThreadHandle.get(); }
    bool _abi_SetTimeout(uint32_t timeout, Core::IErrorCode** ppError) override;
    bool HasCrashed() override { return m_Crashed.load(std::memory_order_relaxed); }
    bool IsIdle() override { return m_PendingTasks.load() < 1; }

    // Posted and not yet finished.
    std::atomic<int32_t> m_PendingTasks{0};

private:
    ~ThreadWorker() override;

    using LifetimeLock = std::shared_ptr<std::mutex>;
    using LifetimeFlag = std::shared_ptr<std::atomic<int32_t>>;

    static void EntryRoutine(ThreadWorker* worker, AlertableEvent* started, std::string name, LifetimeLock lock,
                             LifetimeFlag flag);
    static void WorkThreadFunction(ThreadWorker* worker, const std::string& name, const LifetimeLock& lock,
                                   const LifetimeFlag& flag);
    static void HandleEvents(ThreadWorker* worker, const LifetimeFlag& flag);

    LifetimeLock m_LifetimeLock;                  // guards the flag; shared with the thread
    LifetimeFlag m_LifetimeFlag;                  // 1 while this object lives
    bool m_HasThread = false;                     // the (detached) thread was made
    std::shared_ptr<ThreadContext> m_ThreadHandle; // the thread's context, set by the thread
    std::atomic<uint32_t> m_StartId{0};
    std::atomic<uint32_t> m_LoopId{0};
    uint32_t m_Timeout;                           // read and written on the worker's thread
    std::atomic<bool> m_Alive{true};
    std::atomic<bool> m_Running{false};
    std::atomic<bool> m_LoopStarted{false};
    bool m_ShouldDetach;
    std::atomic<bool> m_Crashed{false};
    bool m_Consumed = false;
    bool m_Dedicated = false;
    std::string m_Name;
};

} // namespace Platform::Threading::impl
