#include <dlfcn.h>

#include <atomic>
#include <mutex>

#include "Core/AbiGuard.h"
#include "Platform/AppLogger.h"
#include "Platform/Log.h"
#include "Platform/Module.h"

namespace Platform {

namespace {

using LoggerExport = Interfaces::IAppLogger* (*)();

std::mutex overrideMutex;
Core::Ptr<Interfaces::IAppLogger> overrideLogger;
std::atomic<bool> hasOverride{false};

// Set while this thread looks for the companion: what the look-up itself logs goes to the
// private logger instead of asking for the companion again.
thread_local bool lookingForCompanion = false;

// The companion library and its export, looked up once per process. Failing to load the
// library is normal (it is optional); failing to find the export in it is an error.
struct Companion {
    Core::Ptr<Interfaces::IDll> module;
    LoggerExport instance = nullptr;

    Companion() {
        lookingForCompanion = true;
        struct Reset {
            ~Reset() { lookingForCompanion = false; }
        } reset;
        Core::Ptr<Core::IErrorCode> ignored;
        Windows::Module::CreateDll(Logger::CompanionLibraryName, module.ReceiveAddress(), ignored.ReceiveAddress());
        if (!module.Raw()) return;
        Core::Ptr<Core::IErrorCode> error;
        void* symbol = module->_abi_GetSymbol(Logger::CompanionLoggerExport, error.ReceiveAddress());
        Core::ThrowIfError(error);
        instance = reinterpret_cast<LoggerExport>(symbol);
    }
};

const Companion& TheCompanion() {
    static const Companion companion;
    return companion;
}

// The private logger of this module, for processes without the companion. It goes at exit;
// later callers get no logger.
std::atomic<bool> privateLoggerGone{false};

struct PrivateLogger {
    Core::Ptr<Interfaces::IAppLogger1> logger = Logger::CreateAppLogger();
    ~PrivateLogger() { privateLoggerGone = true; }
};

Core::Ptr<Interfaces::IAppLogger> ThePrivateLogger() {
    static PrivateLogger holder;
    if (privateLoggerGone) return {};
    return holder.logger;
}

bool CompanionStillLoaded() {
    void* handle = dlopen(Logger::CompanionLibraryName, RTLD_NOW | RTLD_NOLOAD);
    if (!handle) return false;
    dlclose(handle);
    return true;
}

} // namespace

void SetAppLoggerOverride(Interfaces::IAppLogger* logger) {
    std::lock_guard lock(overrideMutex);
    overrideLogger = Core::Ptr<Interfaces::IAppLogger>(logger);
    hasOverride = logger != nullptr;
}

Core::Ptr<Interfaces::IAppLogger> GetAppLogger() {
    if (hasOverride) {
        std::lock_guard lock(overrideMutex);
        if (overrideLogger.Raw()) return overrideLogger;
    }
    if (lookingForCompanion) return ThePrivateLogger();
    const Companion& companion = TheCompanion();
    if (companion.instance) {
        if (!CompanionStillLoaded()) return {};
        return Core::Ptr<Interfaces::IAppLogger>(companion.instance());
    }
    return ThePrivateLogger();
}

} // namespace Platform
