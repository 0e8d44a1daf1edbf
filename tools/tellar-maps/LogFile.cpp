#include "LogFile.h"

#include "Platform/Companion.h"

namespace TellarMaps {

bool LogFile::Open(const std::optional<std::string>& path, std::optional<uint32_t> level) {
    if (!path) return true;
    Platform::Interfaces::IAppLogger* logger = Platform_GetAppLoggerInstance();
    if (!logger || !logger->OpenLog(path->c_str())) return false;
    if (level) logger->SetLevel(*level);
    logger->SetTimestampEnabled(true);
    logger->SetEnabled(true);
    open_ = true;
    return true;
}

void LogFile::MarkFailed() const {
    if (!open_) return;
    if (Platform::Interfaces::IAppLogger* logger = Platform_GetAppLoggerInstance()) logger->MarkFailed();
}

} // namespace TellarMaps
