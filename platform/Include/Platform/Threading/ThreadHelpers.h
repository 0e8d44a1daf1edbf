#pragma once
#include <cstdint>

#include "Platform/Threading/AlertableEvent.h"

namespace Platform::Windows::Threading::ThreadHelpers {

// A timeout that never runs out.
inline constexpr uint32_t Infinite = 0xFFFFFFFFu;

// How one pass of a wait ended.
enum WaitResult : uint32_t {
    WaitObject0 = 0,        // the event is set
    WaitIoCompletion = 192, // functions queued to the thread ran
    WaitTimeout = 258,      // the timeout ran out
};

// Waits for the event. A plain wait (alertable false) returns true whether the event was set
// or the timeout ran out, and never runs queued functions. An alertable wait runs the functions
// queued to the calling thread as they arrive, first queued first run, and returns true when
// the event is set and false when `timeout` ms pass without anything happening: the timeout
// starts anew after each batch of queued functions. `pump` has no effect on Linux, where no
// window messages exist. Waits nest: a queued function may wait again.
bool WaitForSingleObject(Platform::Threading::AlertableEvent& event, uint32_t timeout, bool alertable, bool pump);

// One pass of a wait on the calling thread: `event` may be null, which waits only for queued
// functions (when alertable) or the timeout. Returns 0, 192 or 258.
uint32_t WaitOnce(Platform::Threading::AlertableEvent* event, uint32_t timeout, bool alertable);

// Kernel id of the calling thread.
uint32_t GetCurrentThreadId() noexcept;

} // namespace Platform::Windows::Threading::ThreadHelpers
