#include <atomic>
#include <mutex>

#include "Platform/Log.h"

namespace Platform {

namespace {

std::mutex overrideMutex;
Core::Ptr<Interfaces::IAppLogger> overrideLogger;
std::atomic<bool> hasOverride{false};

} // namespace

void SetAppLoggerOverride(Interfaces::IAppLogger* logger) {
    std::lock_guard lock(overrideMutex);
    overrideLogger = Core::Ptr<Interfaces::IAppLogger>(logger);
    hasOverride = logger != nullptr;
}

Core::Ptr<Interfaces::IAppLogger> GetAppLogger() {
    if (hasOverride) {
        std::lock_guard lock(overrideMutex);
        return overrideLogger;
    }
    return {};
}

} // namespace Platform
