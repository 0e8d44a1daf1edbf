#pragma once
#include <cstdint>

#include "Core/IObject.h"

namespace Platform::Interfaces {

// The process-wide logger that LogMessage writes through.
struct IAppLogger : Core::IObject {
    virtual bool OpenLog(const char* path) = 0;
    virtual void SetEnabled(bool enabled) = 0;
    virtual void SetTimestampEnabled(bool enabled) = 0;
    virtual void SetShowFile(bool show) = 0;
    virtual void SetShowFunction(bool show) = 0;
    virtual void SetShowLine(bool show) = 0;
    virtual void MarkFailed() = 0;
    virtual const char* GetLogPath() = 0;
    virtual const char* GetFailedPath() = 0;
    virtual bool Write(const char* text, uint32_t colour) = 0;
    virtual bool WriteStackTrace(uint32_t skip, uint32_t depth) = 0;
    virtual void SetConsole(Core::IObject* console) = 0;
    virtual Core::IObject* GetConsole() = 0;
    virtual void SetLevel(uint32_t level) = 0;
    virtual uint32_t GetLevel() = 0;
    virtual bool GetShowFile() = 0;
    virtual bool GetShowFunction() = 0;
    virtual bool GetShowLine() = 0;
    virtual bool IsEnabled() = 0;
    virtual bool SetLogFile(const char* path) = 0;
    virtual bool OpenConfiguredLog() = 0;
};

struct IAppLogger1 : IAppLogger {
    virtual void SetShowCorrelation(bool show) = 0;
};

// A console sink: the logger sets the colour (when not 0), writes the line, then flushes.
struct IConsole : Core::IObject {
    virtual void SetColour(uint32_t colour) = 0;
    virtual void WriteText(const char* text, uint32_t length) = 0;
    virtual void Flush() = 0;
};

} // namespace Platform::Interfaces
