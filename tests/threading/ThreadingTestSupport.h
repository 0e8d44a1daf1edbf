#pragma once
// Helpers of the threading tests: queue plain functions to a thread, record the debugger
// channel. Every wait is bounded so that a fault fails a test instead of hanging it.
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
    auto discard = [](void* argument) noexcept { delete static_cast<std::function<void()>*>(argument); };
    auto run = [](void* argument) noexcept {
        (*static_cast<std::function<void()>*>(argument))();
        delete static_cast<std::function<void()>*>(argument);
    };
    if (context.Queue({run, discard, heap})) return true;
    delete heap;
    return false;
}

// Collects the debugger channel, from any thread, for the life of a test.
class ScopedDebugJournal {
public:
    ScopedDebugJournal() {
        Platform::SetDebugOutputSink([this](std::string_view text) {
            std::lock_guard lock(m_Mutex);
            m_Lines.emplace_back(text);
        });
    }
    ~ScopedDebugJournal() { Platform::SetDebugOutputSink(nullptr); }
    std::vector<std::string> Lines() {
        std::lock_guard lock(m_Mutex);
        return m_Lines;
    }

private:
    std::mutex m_Mutex;
    std::vector<std::string> m_Lines;
};

} // namespace ThreadingTests
