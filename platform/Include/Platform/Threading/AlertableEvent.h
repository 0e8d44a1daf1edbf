#pragma once
#include <atomic>
#include <mutex>

namespace Platform::Threading {

namespace impl {
class ThreadContext;
struct EventWaiter;
} // namespace impl

// A manual-reset event that starts unsignalled and, once set, stays set. It costs no file
// descriptor: a waiting thread registers itself and is woken through its own thread context,
// which is also how functions queued to that thread reach it during an alertable wait.
class AlertableEvent {
public:
    AlertableEvent() noexcept = default;
    ~AlertableEvent();
    AlertableEvent(const AlertableEvent&) = delete;
    AlertableEvent& operator=(const AlertableEvent&) = delete;

    // Signals the event and wakes every thread waiting on it. Setting it again does nothing.
    void Set() noexcept;
    bool IsSet() const noexcept { return m_Signalled.load(std::memory_order_acquire); }

private:
    friend class impl::ThreadContext;

    std::atomic<bool> m_Signalled{false};
    std::mutex m_Mutex;                     // guards the waiter list and the moment of setting
    impl::EventWaiter* m_Waiters = nullptr; // nodes live on the waiting threads' stacks
};

} // namespace Platform::Threading
