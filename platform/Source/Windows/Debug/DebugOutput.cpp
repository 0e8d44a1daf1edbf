#include "Platform/DebugOutput.h"

#include <memory>
#include <mutex>
#include <utility>

namespace Platform {

namespace {

using Sink = std::function<void(std::string_view)>;

std::mutex sinkMutex;
std::shared_ptr<const Sink> currentSink;

} // namespace

void OutputDebugText(std::string_view text) {
    std::shared_ptr<const Sink> sink;
    {
        std::lock_guard lock(sinkMutex);
        sink = currentSink;
    }
    if (sink) (*sink)(text);
}

void SetDebugOutputSink(std::function<void(std::string_view)> sink) {
    std::shared_ptr<const Sink> next = sink ? std::make_shared<const Sink>(std::move(sink)) : nullptr;
    std::lock_guard lock(sinkMutex);
    currentSink = std::move(next);
}

} // namespace Platform
