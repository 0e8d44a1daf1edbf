#include "Platform/DebugChannel.h"

#include <atomic>
#include <memory>
#include <mutex>

namespace Platform::DebugChannel {

namespace {
std::mutex listenerMutex;
std::shared_ptr<std::function<void(std::string_view)>> listener;
std::atomic<bool> listening{false};
} // namespace

void Write(std::string_view text) {
    if (!listening.load(std::memory_order_acquire)) return;
    std::shared_ptr<std::function<void(std::string_view)>> current;
    {
        std::lock_guard lock(listenerMutex);
        current = listener;
    }
    if (current) (*current)(text);
}

void SetListener(std::function<void(std::string_view)> newListener) {
    std::lock_guard lock(listenerMutex);
    listener = newListener ? std::make_shared<std::function<void(std::string_view)>>(std::move(newListener)) : nullptr;
    listening.store(listener != nullptr, std::memory_order_release);
}

} // namespace Platform::DebugChannel
