#pragma once
#include <chrono>
#include <thread>

namespace TestSupport {

// Polls `done` until it holds or the bound runs out; every wait in the tests is bounded.
template <class Predicate>
bool WaitUntil(Predicate done, std::chrono::milliseconds bound = std::chrono::seconds(30)) {
    const auto end = std::chrono::steady_clock::now() + bound;
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

} // namespace TestSupport
