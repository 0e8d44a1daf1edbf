#include "Platform/AppLogger.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <mutex>
#include <string>

#include "Core/Checked.h"
#include "Core/Fnv1a.h"
#include "Core/ObjectImplBase.h"
#include "Core/StringFormat.h"
#include "Data/Values.h"
#include "Platform/DebugOutput.h"
#include "Platform/Files.h"
#include "Platform/Module.h"

namespace Platform::Logger {

namespace {

// Seconds since the epoch of a UTC date-time, with its fraction.
double EpochSeconds(const Data::Interfaces::IDateTime& t) {
    int64_t y = t.GetYear();
    const int64_t m = t.GetMonth();
    y -= m <= 2;
    const int64_t era = (y >= 0 ? y : y - 399) / 400;
    const int64_t yoe = y - era * 400;
    const int64_t doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + t.GetDay() - 1;
    const int64_t days = era * 146097 + yoe * 365 + yoe / 4 - yoe / 100 + doy - 719468;
    return static_cast<double>(days * 86400 + t.GetHour() * 3600 + t.GetMinute() * 60 + t.GetSecond()) +
           t.GetNanoseconds() / 1e9;
}

uint32_t CorrelationOfThisThread() {
    const auto id = static_cast<uint32_t>(::syscall(SYS_gettid));
    const unsigned char bytes[4] = {static_cast<unsigned char>(id), static_cast<unsigned char>(id >> 8),
                                    static_cast<unsigned char>(id >> 16), static_cast<unsigned char>(id >> 24)};
    return static_cast<uint32_t>(Core::Fnv1a64(bytes, sizeof bytes));
}

} // namespace

Runtime FormatRuntime(uint64_t ticks) {
    Runtime runtime{static_cast<double>(ticks) / 1e7, "seconds"};
    if (runtime.value > 120) {
        runtime.value /= 60;
        runtime.unit = "minutes";
    }
    if (static_cast<double>(ticks) / 6e8 > 120) {
        runtime.value /= 60;
        runtime.unit = "hours";
    }
    if (static_cast<double>(ticks) / 3.6e10 > 48) {
        runtime.value /= 24;
        runtime.unit = "days";
    }
    return runtime;
}

namespace impl {

class AppLogger final : public Core::ObjectImplBase<Interfaces::IAppLogger1> {
public:
    AppLogger() : startTime_(Data::DateTime::Now()) {}

    ~AppLogger() override {
        // Anything thrown here ends the process: the destructor is noexcept.
        const double elapsed = EpochSeconds(*Data::DateTime::Now()) - EpochSeconds(*startTime_);
        const Runtime runtime = FormatRuntime(elapsed > 0 ? static_cast<uint64_t>(elapsed * 1e7) : 0);
        std::lock_guard lock(mutex_);
        if (enabled_)
            Write(Core::StringFormat("[Log successfully terminated] [Runtime: %.3f %s]", runtime.value, runtime.unit)
                      .c_str(),
                  0);
        if (renameOnClose_ && file_.Raw()) {
            std::error_code error;
            std::filesystem::rename(logPath_, failedPath_, error);
            if (error) Core::ThrowFileSystemError("rename", logPath_, error);
            Write(Core::StringFormat("[Log file renamed from [%s] to [%s]", logPath_.c_str(), failedPath_.c_str())
                      .c_str(),
                  0);
            ::fsync(file_->GetHandle());
        }
        file_.Reset();
    }

    bool OpenLog(const char* path) override {
        std::lock_guard lock(mutex_);
        if (!path || !logPath_.empty() || file_.Raw()) return false;
        if (!CreateFile(path)) return false;
        SetLogFile(path);
        enabled_ = true;
        timestampEnabled_ = true;
        Write("[Log successfully started]", 0);
        enabled_ = false;
        timestampEnabled_ = false;
        return true;
    }

    bool OpenConfiguredLog() override {
        std::lock_guard lock(mutex_);
        if (logPath_.empty() || file_.Raw()) return false;
        if (!CreateFile(logPath_.c_str())) return false;
        const bool wasEnabled = enabled_, hadTimestamp = timestampEnabled_;
        enabled_ = true;
        timestampEnabled_ = true;
        Write("[Log successfully started]", 0);
        enabled_ = wasEnabled;
        timestampEnabled_ = hadTimestamp;
        return true;
    }

    bool SetLogFile(const char* path) override {
        if (!path || !logPath_.empty()) return false;
        logPath_ = path;
        const size_t slash = logPath_.find_last_of("\\/");
        const std::string name = slash == std::string::npos ? logPath_ : logPath_.substr(slash + 1);
        const std::string parent = slash == std::string::npos ? std::string() : logPath_.substr(0, slash + 1);
        failedPath_ = parent + Core::StringFormat("Failed_%s", name.c_str());
        return true;
    }

    void SetEnabled(bool value) override { enabled_ = value; }
    void SetTimestampEnabled(bool value) override { timestampEnabled_ = value; }
    void SetShowFile(bool value) override { showFile_ = value; }
    void SetShowFunction(bool value) override { showFunction_ = value; }
    void SetShowLine(bool value) override { showLine_ = value; }
    void SetShowCorrelation(bool value) override { showCorrelation_ = value; }
    void MarkFailed() override { renameOnClose_ = true; }
    const char* GetLogPath() override { return logPath_.c_str(); }
    const char* GetFailedPath() override { return failedPath_.c_str(); }
    void SetLevel(uint32_t value) override { level_ = value; }
    uint32_t GetLevel() override { return level_; }
    bool GetShowFile() override { return showFile_; }
    bool GetShowFunction() override { return showFunction_; }
    bool GetShowLine() override { return showLine_; }
    bool IsEnabled() override { return enabled_; }

    void SetConsole(Core::IObject* console) override {
        std::lock_guard lock(mutex_);
        console_ = Core::Ptr<Core::IObject>(console);
    }
    Core::IObject* GetConsole() override { return console_.Raw(); }

    bool Write(const char* text, uint32_t colour) override {
        if (!enabled_ || !text) return false;
        const std::string suffix =
            showCorrelation_ ? Core::StringFormat(" (Corr: %x)", CorrelationOfThisThread()) : std::string();
        std::string line;
        if (timestampEnabled_) {
            const std::time_t now = std::time(nullptr);
            std::tm local{};
            localtime_r(&now, &local);
            char stamp[64];
            asctime_r(&local, stamp);
            stamp[std::strlen(stamp) - 1] = '\0'; // asctime ends in a line feed
            line = Core::StringFormat("%s :: %s%s%s", stamp, text, suffix.c_str(), "\r\n");
        } else {
            line = Core::StringFormat("%s%s%s", text, suffix.c_str(), "\r\n");
        }
        OutputDebugText(line);

        std::lock_guard lock(mutex_);
        if (auto* console = dynamic_cast<Interfaces::IConsole*>(console_.Raw())) {
            if (colour != 0) console->SetColour(colour);
            console->WriteText(line.c_str(), static_cast<uint32_t>(line.size()));
            console->Flush();
        }
        uint32_t written = 0;
        if (auto* file = file_.Raw()) written = file->_abi_Write(line.data(), line.size(), nullptr);
        return written == line.size();
    }

    bool WriteStackTrace(uint32_t skip, uint32_t depth) override {
        // Reading the symbol tables for a first trace takes a tenth of a second: not for a
        // logger that writes nothing.
        if (!enabled_) return false;
        const Windows::Module::StackTraceResult trace =
            Windows::Module::CaptureStackTrace(skip, static_cast<int>(depth));
        if (trace.error.Raw()) {
            Write(Core::StringFormat("STACK_TRACE: [\n\tStacktrace reading failed with error:\n%s\n]\n",
                                     trace.error->GetMessage())
                      .c_str(),
                  0);
            return false;
        }
        return Write(("STACK_TRACE: [\n" + trace.text + "]\n").c_str(), 0);
    }

private:
    bool CreateFile(const char* path) {
        auto result = Windows::IO::AsSynchronousFile(
            Windows::IO::CreateFileForWriting(path, Windows::IO::FileShareRead | Windows::IO::FileShareDelete));
        if (!result.value.Raw()) return false;
        file_ = std::move(result.value);
        return true;
    }

    Core::Ptr<Interfaces::ISynchrounousFile> file_;
    std::string logPath_;
    std::string failedPath_;
    std::atomic<bool> enabled_{false};
    std::atomic<bool> timestampEnabled_{false};
    std::atomic<bool> renameOnClose_{false};
    std::atomic<bool> showFunction_{true};
    std::atomic<bool> showFile_{false};
    std::atomic<bool> showLine_{false};
    std::atomic<bool> showCorrelation_{false};
    std::atomic<uint32_t> level_{4};
    std::recursive_mutex mutex_;
    Core::Ptr<Core::IObject> console_;
    Data::DateTime startTime_;
};

} // namespace impl

Core::Ptr<Interfaces::IAppLogger1> CreateAppLogger() { return Core::MakeObject<impl::AppLogger>(); }

} // namespace Platform::Logger
