#pragma once
#include <functional>
#include <string>

#include "Core/Ptr.h"
#include "Platform/Threading/ThreadWorker.h"

namespace Platform::Threading {

// Named workers shared by the whole process, kept until it ends.
class ThreadWorkerManager {
public:
    using Factory = std::function<Core::Ptr<impl::ThreadWorker>()>;

    // The worker of that name; the first call makes it with `factory`, later calls return the
    // same worker without calling theirs. The name table stays locked while a worker starts.
    static Core::Ptr<impl::ThreadWorker> GetWorker(const std::string& name, const Factory& factory);
    // The same with the library's factory: ThreadWorker(name, true, infinite timeout).
    static Core::Ptr<impl::ThreadWorker> GetWorker(const std::string& name);
};

} // namespace Platform::Threading
