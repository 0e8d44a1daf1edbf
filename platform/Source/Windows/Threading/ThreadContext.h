#pragma once
// Per-thread context that stands in for the APC queue of a thread: a FIFO of functions that
// run only while the thread is inside an alertable wait, and the wake-up primitive of the
// thread's waits. Made lazily for each thread that waits or is posted to.
#include <pthread.h>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string_view>

#include "Platform/Threading/AlertableEvent.h"

namespace Platform::Threading::impl {

// A function queued to a thread. `run` is called on that thread inside an alertable wait;
// `discard` instead when the thread ends first, so that the argument is not leaked.
struct QueuedFunction {
    void (*run)(void* argument) noexcept;
    void (*discard)(void* argument) noexcept;
    void* argument;
};

// A thread waiting on an event: one node per wait, on the waiting thread's stack.
struct EventWaiter {
    ThreadContext* context;
    EventWaiter* next;
};

class ThreadContext : public std::enable_shared_from_this<ThreadContext> {
public:
    ThreadContext(uint32_t threadId, pthread_t thread) noexcept : m_ThreadId(threadId), m_Thread(thread) {}
    ThreadContext(const ThreadContext&) = delete;
    ThreadContext& operator=(const ThreadContext&) = delete;

    // The context of the calling thread, made on first use. During the calling thread's own
    // teardown, after its context has ended, a fresh context that has ended already.
    static std::shared_ptr<ThreadContext> Current();

    // Queues a function; false (with errno ESRCH) when the thread has ended.
    bool Queue(const QueuedFunction& function);

    // One pass of a wait on the calling thread (which must own no other context): 0 when the
    // event is set, 192 after running the queued functions (alertable only), 258 on timeout.
    static uint32_t WaitOnCurrentThread(AlertableEvent* event, uint32_t timeout, bool alertable);

    // Waits for the thread to end; false when `timeout` ms passed first.
    bool WaitEnded(uint32_t timeout);
    bool HasEnded();

    // Names the thread (cut to the 15 bytes Linux keeps); nothing when the thread has ended.
    void SetName(std::string_view name);

    uint32_t ThreadId() const noexcept { return m_ThreadId; }

    // Wakes the thread if it sleeps in a wait, so that it looks at its conditions again.
    void Wake();

    // Marks the thread as ended and discards what is still queued. Called once, on teardown.
    void End() noexcept;

private:
    uint32_t Wait(AlertableEvent* event, uint32_t timeout, bool alertable);
    void RunQueued(std::unique_lock<std::mutex>& lock);
    bool HasQueued() const noexcept;

    const uint32_t m_ThreadId;
    const pthread_t m_Thread;
    std::mutex m_Mutex;
    std::condition_variable m_Wake;  // only the owning thread sleeps on it
    std::condition_variable m_Ended; // other threads waiting for the end
    std::deque<QueuedFunction> m_Queue; // filled by any thread, under the lock
    std::deque<QueuedFunction> m_Batch; // taken from the queue; only the owning thread touches it
    bool m_Sleeping = false;            // the owning thread sleeps on m_Wake
    bool m_HasEnded = false;
};

// While one lives on a thread, the wake-ups that thread gives (a post to a sleeping thread, an
// event set for a sleeping waiter) are held back and given once, when the outermost one ends or
// when the thread itself is about to wait, whichever comes first. A loop that hands many results
// to another thread in one pass then wakes it once instead of once per result. What runs where,
// and in which order, does not change; only when a sleeper wakes. Only for code that does not
// block other than through the waits of this library.
class WakeBatch {
public:
    WakeBatch() noexcept;
    ~WakeBatch();
    WakeBatch(const WakeBatch&) = delete;
    WakeBatch& operator=(const WakeBatch&) = delete;

    // Gives the wake-ups held back on the calling thread so far.
    static void Flush() noexcept;
};

} // namespace Platform::Threading::impl
