#pragma once
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "Core/ObjectImplBase.h"
#include "Platform/Interfaces/IThread.h"
#include "Platform/Threading/AsyncTask.h"

namespace Platform::Threading::impl {

class ThreadContext;

// Stands for the thread that made it. What is posted runs on that thread only while it waits
// alertably; a post after that thread has ended fails and gives a null task.
class ThreadDispatcher final : public Core::ObjectImplBase<Interfaces::IThread> {
public:
    ThreadDispatcher();

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

    bool _abi_Start(Core::IErrorCode** ppError) override;
    bool _abi_Stop(Interfaces::IAsyncTask** ppTask, Core::IErrorCode** ppError) override;
    bool _abi_Post(Interfaces::ThreadFunction function, const Data::Structures::VARIANT* param,
                   Interfaces::IAsyncTask** ppTask, Core::IErrorCode** ppError) override;
    bool _abi_Unsupported(Core::IErrorCode** ppError) override;
    void SetShouldDetach(bool) override {}
    bool IsRunning() override;
    bool _abi_SetName(const char* name, Core::IErrorCode** ppError) override;
    const char* GetName() override { return m_Name.c_str(); }
    uint32_t GetThreadId() override { return m_ThreadId; }
    void* GetThreadHandle() override { return m_ThreadHandle.get(); }
    bool _abi_SetTimeout(uint32_t timeout, Core::IErrorCode** ppError) override;
    bool HasCrashed() override { return false; }
    bool IsIdle() override { return m_PendingTasks.load() < 1; }

    std::atomic<int32_t> m_PendingTasks{0};

private:
    ~ThreadDispatcher() override;

    const std::string m_Name;                     // always empty
    std::shared_ptr<ThreadContext> m_ThreadHandle; // the context of the thread that made it
    const uint32_t m_ThreadId = 0;                // never set
};

} // namespace Platform::Threading::impl
