#pragma once
#include <cstdint>
#include <string_view>

#include "Core/Ptr.h"
#include "Platform/Interfaces/IAppLogger.h"

namespace Platform {

// Log levels; 2, 3 and 8 exist as numbers but are never written.
enum LogLevel : uint32_t {
    LogTrace = 0,
    LogDebug = 1,
    LogInfo = 4,
    LogWarn = 5,
    LogError = 6,
    LogFatal = 7,
};

// The one way to log: finds the logger, filters by level and decorates the line.
// `function` and `file` are literal names; a line of 0 or less is not shown.
void LogMessage(uint32_t level, const char* function, const char* file, int line, std::string_view text);

// Whether a message of `level` would be written now: lets a caller skip building a text that
// nobody reads.
bool LogEnabled(uint32_t level);

// Writes the current call stack to the logger; throws when there is no logger.
void LogStackTrace();

// The logger of the process, or null when there is none.
Core::Ptr<Interfaces::IAppLogger> GetAppLogger();

// Replaces the logger lookup for the whole process (null restores it). For hosts that embed
// the platform layer directly, and for tests.
void SetAppLoggerOverride(Interfaces::IAppLogger* logger);

} // namespace Platform
