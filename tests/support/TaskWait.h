#pragma once
// Waits on a task of the map-service library as a host does.
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "Platform/Interfaces/IAsyncTask.h"

namespace TestSupport {

// Waits alertably on the task, so that this thread (the one that made the service) runs the
// completions queued to it; a task still open after `bound` is cancelled, which ends the wait.
// True when the task completed or failed.
inline bool Settle(Platform::Interfaces::IAsyncTask& task, std::chrono::milliseconds bound = std::chrono::seconds(30)) {
    std::mutex mutex;
    std::condition_variable woken;
    bool done = false;
    std::thread watchdog([&] {
        std::unique_lock lock(mutex);
        if (!woken.wait_for(lock, bound, [&] { return done; })) task.Cancel();
    });
    // An alertable wait also returns after it ran queued functions of other work.
    while (!task.IsCompleted() && !task.IsCancelled()) task.WaitAlertable();
    {
        std::lock_guard lock(mutex);
        done = true;
    }
    woken.notify_one();
    watchdog.join();
    return task.IsCompleted();
}

} // namespace TestSupport
