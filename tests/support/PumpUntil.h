#pragma once
// Lets the functions queued to this thread run (it waits alertably) until `done` holds or the
// bound runs out; for tests that hold a fetcher made on this thread.
#include <chrono>

#include "Platform/Threading/AlertableEvent.h"
#include "Platform/Threading/ThreadHelpers.h"

namespace TestSupport {

template <class Predicate>
bool PumpUntil(Predicate done, std::chrono::milliseconds bound = std::chrono::seconds(30)) {
    Platform::Threading::AlertableEvent never;
    const auto end = std::chrono::steady_clock::now() + bound;
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) return false;
        Platform::Windows::Threading::ThreadHelpers::WaitForSingleObject(never, 5, true, true);
    }
    return true;
}

} // namespace TestSupport
