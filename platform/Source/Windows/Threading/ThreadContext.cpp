#include "Threading/ThreadContext.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <vector>

#include "Platform/Threading/ThreadHelpers.h"

namespace Platform::Threading::impl {

namespace {

using Platform::Windows::Threading::ThreadHelpers::Infinite;
using Platform::Windows::Threading::ThreadHelpers::WaitIoCompletion;
using Platform::Windows::Threading::ThreadHelpers::WaitObject0;
using Platform::Windows::Threading::ThreadHelpers::WaitTimeout;

// Owns the calling thread's context; its end is the thread's end.
struct ContextHolder {
    std::shared_ptr<ThreadContext> context;
    ~ContextHolder();
};

thread_local ThreadContext* t_context = nullptr; // borrowed from t_holder, for the waits
thread_local bool t_contextGone = false;         // the holder has been torn down
thread_local ContextHolder t_holder;

ContextHolder::~ContextHolder() {
    t_context = nullptr;
    t_contextGone = true;
    if (context) context->End();
}

// Wake-ups held back by the WakeBatch scopes open on this thread.
thread_local int t_batchDepth = 0;
thread_local std::vector<std::shared_ptr<ThreadContext>> t_heldWakes;

// True when the wake-up of `target` was held back for the calling thread's batch.
bool HoldWake(ThreadContext& target) {
    if (t_batchDepth == 0 || &target == t_context) return false;
    std::shared_ptr<ThreadContext> shared = target.weak_from_this().lock();
    if (!shared) return false; // a context of one wait alone, owned by nobody: wake it now
    for (const auto& held : t_heldWakes)
        if (held == shared) return true;
    try {
        t_heldWakes.push_back(std::move(shared));
    } catch (...) {
        return false; // no room to hold it: wake now
    }
    return true;
}

ThreadContext* CurrentContextOrNull() {
    if (t_context) return t_context;
    if (t_contextGone) return nullptr;
    t_holder.context = std::make_shared<ThreadContext>(static_cast<uint32_t>(gettid()), pthread_self());
    t_context = t_holder.context.get();
    return t_context;
}

void Register(EventWaiter& node, std::mutex& eventMutex, EventWaiter*& head) {
    std::lock_guard lock(eventMutex);
    node.next = head;
    head = &node;
}

void Unregister(EventWaiter& node, std::mutex& eventMutex, EventWaiter*& head) {
    std::lock_guard lock(eventMutex);
    for (EventWaiter** link = &head; *link; link = &(*link)->next) {
        if (*link == &node) {
            *link = node.next;
            return;
        }
    }
}

} // namespace

std::shared_ptr<ThreadContext> ThreadContext::Current() {
    if (CurrentContextOrNull()) return t_holder.context;
    auto ended = std::make_shared<ThreadContext>(static_cast<uint32_t>(gettid()), pthread_self());
    ended->End();
    return ended;
}

bool ThreadContext::Queue(const QueuedFunction& function) {
    bool sleeping;
    {
        std::lock_guard lock(m_Mutex);
        if (m_HasEnded) {
            errno = ESRCH;
            return false;
        }
        m_Queue.push_back(function);
        sleeping = m_Sleeping;
    }
    if (sleeping && !HoldWake(*this)) m_Wake.notify_one();
    return true;
}

void ThreadContext::Wake() {
    if (HoldWake(*this)) return;
    // Taking the lock orders the caller's change before the sleeper's next look at it.
    bool sleeping;
    {
        std::lock_guard lock(m_Mutex);
        sleeping = m_Sleeping;
    }
    if (sleeping) m_Wake.notify_one();
}

void ThreadContext::End() noexcept {
    std::deque<QueuedFunction> left;
    {
        std::lock_guard lock(m_Mutex);
        m_HasEnded = true;
        left.swap(m_Queue);
    }
    m_Ended.notify_all();
    // Called on the owning thread (or on a context no thread owns), so the batch is ours.
    left.insert(left.begin(), m_Batch.begin(), m_Batch.end());
    m_Batch.clear();
    for (const QueuedFunction& function : left)
        if (function.discard) function.discard(function.argument);
}

bool ThreadContext::HasEnded() {
    std::lock_guard lock(m_Mutex);
    return m_HasEnded;
}

bool ThreadContext::WaitEnded(uint32_t timeout) {
    WakeBatch::Flush();
    std::unique_lock lock(m_Mutex);
    if (timeout == Infinite) {
        m_Ended.wait(lock, [this] { return m_HasEnded; });
        return true;
    }
    return m_Ended.wait_for(lock, std::chrono::milliseconds(timeout), [this] { return m_HasEnded; });
}

void ThreadContext::SetName(std::string_view name) {
    // Linux keeps 15 bytes; cut on a character boundary so that UTF-8 stays whole.
    size_t length = name.size() < 15 ? name.size() : 15;
    if (length < name.size())
        while (length > 0 && (static_cast<unsigned char>(name[length]) & 0xC0) == 0x80) --length;
    char buffer[16];
    std::memcpy(buffer, name.data(), length);
    buffer[length] = '\0';
    // Holding the lock keeps a live thread from finishing its teardown under the call.
    std::lock_guard lock(m_Mutex);
    if (!m_HasEnded) pthread_setname_np(m_Thread, buffer);
}

void ThreadContext::RunQueued(std::unique_lock<std::mutex>& lock) {
    // Whatever is queued moves to the thread's own batch in one go and runs from there without
    // the lock, one at a time: a function may queue more, or wait again and so run the next
    // ones of the batch itself. Everything in the batch was queued before what is in the queue.
    for (;;) {
        if (!m_Queue.empty()) {
            m_Batch.insert(m_Batch.end(), m_Queue.begin(), m_Queue.end());
            m_Queue.clear();
        }
        if (m_Batch.empty()) return;
        lock.unlock();
        {
            // The functions of a batch often each hand a result on to one other thread.
            WakeBatch wakes;
            while (!m_Batch.empty()) {
                const QueuedFunction function = m_Batch.front();
                m_Batch.pop_front();
                function.run(function.argument);
            }
        }
        lock.lock();
    }
}

bool ThreadContext::HasQueued() const noexcept { return !m_Batch.empty() || !m_Queue.empty(); }

uint32_t ThreadContext::Wait(AlertableEvent* event, uint32_t timeout, bool alertable) {
    // Whatever this thread held back may be what it is about to wait for.
    WakeBatch::Flush();
    std::unique_lock lock(m_Mutex);
    if (alertable && HasQueued()) {
        RunQueued(lock);
        return WaitIoCompletion;
    }
    if (event && event->m_Signalled.load(std::memory_order_acquire)) {
        lock.unlock();
        // The setter may still hold the event's lock; once it lets go, the event may be freed.
        std::lock_guard settle(event->m_Mutex);
        return WaitObject0;
    }
    if (timeout == 0) return WaitTimeout;

    // Lock order is event before context, so register with the context unlocked.
    EventWaiter node{this, nullptr};
    if (event) {
        lock.unlock();
        Register(node, event->m_Mutex, event->m_Waiters);
        lock.lock();
    }

    const auto deadline = timeout == Infinite ? std::chrono::steady_clock::time_point::max()
                                              : std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout);
    uint32_t result = WaitTimeout;
    for (;;) {
        if (alertable && HasQueued()) {
            result = WaitIoCompletion;
            break;
        }
        if (event && event->m_Signalled.load(std::memory_order_acquire)) {
            result = WaitObject0;
            break;
        }
        m_Sleeping = true;
        bool timedOut = false;
        if (timeout == Infinite) m_Wake.wait(lock);
        else timedOut = m_Wake.wait_until(lock, deadline) == std::cv_status::timeout;
        m_Sleeping = false;
        if (timedOut) {
            if (alertable && HasQueued()) result = WaitIoCompletion;
            else if (event && event->m_Signalled.load(std::memory_order_acquire)) result = WaitObject0;
            break;
        }
    }

    // Leave the event's list before running anything: a queued function may free the event.
    if (event) {
        lock.unlock();
        Unregister(node, event->m_Mutex, event->m_Waiters);
        lock.lock();
    }
    if (result == WaitIoCompletion) RunQueued(lock);
    return result;
}

WakeBatch::WakeBatch() noexcept { ++t_batchDepth; }

WakeBatch::~WakeBatch() {
    if (--t_batchDepth == 0) Flush();
}

void WakeBatch::Flush() noexcept {
    if (t_heldWakes.empty()) return;
    const int depth = t_batchDepth;
    t_batchDepth = 0; // wake for real, whatever is open
    for (const auto& context : t_heldWakes) context->Wake();
    t_batchDepth = depth;
    t_heldWakes.clear();
}

uint32_t ThreadContext::WaitOnCurrentThread(AlertableEvent* event, uint32_t timeout, bool alertable) {
    if (ThreadContext* context = CurrentContextOrNull()) return context->Wait(event, timeout, alertable);
    // The thread is tearing down: wait on a context of this call alone, which has no queue.
    ThreadContext local(static_cast<uint32_t>(gettid()), pthread_self());
    return local.Wait(event, timeout, false);
}

} // namespace Platform::Threading::impl

namespace Platform::Threading {

AlertableEvent::~AlertableEvent() = default;

void AlertableEvent::Set() noexcept {
    std::lock_guard lock(m_Mutex);
    if (m_Signalled.load(std::memory_order_relaxed)) return;
    m_Signalled.store(true, std::memory_order_release);
    for (impl::EventWaiter* waiter = m_Waiters; waiter; waiter = waiter->next) waiter->context->Wake();
}

} // namespace Platform::Threading
