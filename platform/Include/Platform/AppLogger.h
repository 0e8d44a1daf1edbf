#pragma once
#include <cstdint>
#include <string>

#include "Core/Ptr.h"
#include "Platform/Interfaces/IAppLogger.h"

namespace Platform::Logger {

// File name of the optional companion library that supplies one logger to all modules of a
// process, and the export it is asked through: `IAppLogger* Platform_GetAppLoggerInstance()`
// returns a logger the library keeps alive.
inline constexpr const char* CompanionLibraryName = "libTellarPlatform.so";
inline constexpr const char* CompanionLoggerExport = "Platform_GetAppLoggerInstance";

// A new, silent logger (for a companion library, or a host that wants its own).
Core::Ptr<Interfaces::IAppLogger1> CreateAppLogger();

// Run time for the termination line: ticks of 100 ns to a value and its unit.
struct Runtime {
    double value;
    const char* unit;
};
Runtime FormatRuntime(uint64_t ticks);

} // namespace Platform::Logger
