#pragma once
// A logger that records what LogMessage hands it, installed for the life of a test.
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "Core/ObjectImplBase.h"
#include "Platform/Log.h"

namespace TestSupport {

class RecordingLogger final : public Core::ObjectImplBase<Platform::Interfaces::IAppLogger1> {
public:
    struct Line {
        std::string text;
        uint32_t colour;
    };

    bool OpenLog(const char*) override { return false; }
    void SetEnabled(bool) override {}
    void SetTimestampEnabled(bool) override {}
    void SetShowFile(bool show) override { showFile = show; }
    void SetShowFunction(bool show) override { showFunction = show; }
    void SetShowLine(bool show) override { showLine = show; }
    void MarkFailed() override {}
    const char* GetLogPath() override { return ""; }
    const char* GetFailedPath() override { return ""; }
    bool Write(const char* text, uint32_t colour) override {
        std::lock_guard lock(mutex_);
        lines_.push_back({text, colour});
        return true;
    }
    bool WriteStackTrace(uint32_t skip, uint32_t depth) override {
        std::lock_guard lock(mutex_);
        lines_.push_back({"STACK " + std::to_string(skip) + " " + std::to_string(depth), 0});
        return true;
    }
    void SetConsole(Core::IObject*) override {}
    Core::IObject* GetConsole() override { return nullptr; }
    void SetLevel(uint32_t value) override { level = value; }
    uint32_t GetLevel() override { return level; }
    bool GetShowFile() override { return showFile; }
    bool GetShowFunction() override { return showFunction; }
    bool GetShowLine() override { return showLine; }
    bool IsEnabled() override { return true; }
    bool SetLogFile(const char*) override { return false; }
    bool OpenConfiguredLog() override { return false; }
    void SetShowCorrelation(bool) override {}

    std::vector<Line> Lines() {
        std::lock_guard lock(mutex_);
        return lines_;
    }

    uint32_t level = 0;
    bool showFile = false;
    bool showFunction = true;
    bool showLine = false;

private:
    std::mutex mutex_;
    std::vector<Line> lines_;
};

// Installs a recording logger for one scope.
class ScopedRecordingLogger {
public:
    ScopedRecordingLogger() : logger_(Core::MakeObject<RecordingLogger>()) {
        Platform::SetAppLoggerOverride(logger_.Raw());
    }
    ~ScopedRecordingLogger() { Platform::SetAppLoggerOverride(nullptr); }
    RecordingLogger* operator->() const { return logger_.Raw(); }

private:
    Core::Ptr<RecordingLogger> logger_;
};

} // namespace TestSupport
