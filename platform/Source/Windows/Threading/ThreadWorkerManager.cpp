#include "Platform/Threading/ThreadWorkerManager.h"

#include <mutex>
#include <unordered_map>

#include "Core/Fnv1a.h"
#include "Platform/Threading/ThreadHelpers.h"

namespace Platform::Threading {

namespace {

struct Registry {
    std::mutex mutex;
    std::unordered_map<std::string, Core::Ptr<impl::ThreadWorker>, Core::Fnv1aHash, std::equal_to<>> workers;
};

// Made on first use, so it goes before the logger and the debugger channel at exit, and its
// workers stop their threads while those still work.
Registry& TheRegistry() {
    static Registry registry;
    return registry;
}

} // namespace

Core::Ptr<impl::ThreadWorker> ThreadWorkerManager::GetWorker(const std::string& name, const Factory& factory) {
    Registry& registry = TheRegistry();
    std::lock_guard lock(registry.mutex);
    if (auto found = registry.workers.find(name); found != registry.workers.end()) return found->second;
    Core::Ptr<impl::ThreadWorker> worker = factory();
    registry.workers.emplace(name, worker);
    return worker;
}

Core::Ptr<impl::ThreadWorker> ThreadWorkerManager::GetWorker(const std::string& name) {
    return GetWorker(name, [&name] {
        return Core::MakeObject<impl::ThreadWorker>(name, true, Windows::Threading::ThreadHelpers::Infinite);
    });
}

} // namespace Platform::Threading
