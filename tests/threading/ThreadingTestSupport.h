#pragma once
// Helpers of the threading tests: queue plain functions to a thread, record lines, and bound
// every wait so that a fault fails a test instead of hanging it.
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/DebugOutput.h"
#include "Threading/ThreadContext.h"

namespace ThreadingTests {

// Longest a test waits for anything that should happen at once.
inline constexpr uint32_t Patience = 10000;

inline bool QueueTo(Platform::Threading::impl::ThreadContext& context, std::function<void()> function) {
    auto* heap = new std::function<void()>(std::move(function));
    const Platform::Threading::impl::QueuedFunction queued{
        [](void* argument) noexcept {
            auto* f = static_cast<std::function<void()>*>(argument);
            (*f)();
            delete f;
        },
        [](void* argument) noexcept { delete static_cast<std::function<void()>*>(argument); },
        heap};
    if (context.Queue(queued)) return true;
    delete heap;
    return false;
}

// Lines in order, from any thread, with a bounded wait for one to arrive.
class Journal {
public:
    void Add(std::string line) {
        {
            std::lock_guard lock(m_Mutex);
            m_Lines.push_back(std::move(line));
        }
        m_Changed.notify_all();
    }
    std::vector<std::string> Lines() {
        std::lock_guard lock(m_Mutex);
        return m_Lines;
    }
    bool WaitFor(std::string_view line) {
        std::unique_lock lock(m_Mutex);
        return m_Changed.wait_for(lock, std::chrono::milliseconds(Patience), [&] {
            for (const std::string& l : m_Lines)
                if (l == line) return true;
            return false;
        });
    }

private:
    std::mutex m_Mutex;
    std::condition_variable m_Changed;
    std::vector<std::string> m_Lines;
};

// Collects the debugger channel for the life of a test.
class ScopedDebugJournal : public Journal {
public:
    ScopedDebugJournal() {
        Platform::SetDebugOutputSink([this](std::string_view text) { Add(std::string(text)); });
    }
    ~ScopedDebugJournal() { Platform::SetDebugOutputSink(nullptr); }
};

} // namespace ThreadingTests
