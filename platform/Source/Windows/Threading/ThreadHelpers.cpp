#include "Platform/Threading/ThreadHelpers.h"

#include <unistd.h>

#include "Threading/ThreadContext.h"

namespace Platform::Windows::Threading::ThreadHelpers {

using Platform::Threading::impl::ThreadContext;

bool WaitForSingleObject(Platform::Threading::AlertableEvent& event, uint32_t timeout, bool alertable, bool pump) {
    (void)pump; // no window messages to pump on Linux
    if (!alertable) {
        // The outcome of a plain wait is not looked at: a timeout also counts as done.
        ThreadContext::WaitOnCurrentThread(&event, timeout, false);
        return true;
    }
    for (;;) {
        switch (ThreadContext::WaitOnCurrentThread(&event, timeout, true)) {
        case WaitObject0: return true;
        case WaitTimeout: return false;
        default: break; // queued functions ran; wait again with a fresh timeout
        }
    }
}

uint32_t WaitOnce(Platform::Threading::AlertableEvent* event, uint32_t timeout, bool alertable) {
    return ThreadContext::WaitOnCurrentThread(event, timeout, alertable);
}

uint32_t GetCurrentThreadId() noexcept { return static_cast<uint32_t>(gettid()); }

} // namespace Platform::Windows::Threading::ThreadHelpers
