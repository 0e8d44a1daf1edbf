// libTellarPlatform.so: hands every module of the process the same logger. It starts silent,
// with the logger's initial settings; whoever owns the process opens and enables it. At exit
// the logger goes with this library, which writes the termination line and renames a failed log.
#include <atomic>

#include "Platform/AppLogger.h"
#include "Platform/Companion.h"

namespace {

std::atomic<bool> loggerGone{false};

struct ProcessLogger {
    Core::Ptr<Platform::Interfaces::IAppLogger1> logger = Platform::Logger::CreateAppLogger();
    ~ProcessLogger() { loggerGone = true; }
};

} // namespace

TELLAR_API Platform::Interfaces::IAppLogger* Platform_GetAppLoggerInstance() {
    static ProcessLogger holder;
    if (loggerGone) return nullptr;
    return holder.logger.Raw();
}
