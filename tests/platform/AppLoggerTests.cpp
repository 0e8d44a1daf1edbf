#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "Core/ObjectImplBase.h"
#include "Platform/AppLogger.h"
#include "Platform/DebugOutput.h"
#include "Platform/Log.h"
#include "TempDir.h"

using Platform::Logger::CreateAppLogger;

namespace {

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), {});
}

class Console final : public Core::ObjectImplBase<Platform::Interfaces::IConsole> {
public:
    void SetColour(uint32_t colour) override { calls.push_back("colour " + std::to_string(colour)); }
    void WriteText(const char* text, uint32_t length) override { calls.push_back("text " + std::string(text, length)); }
    void Flush() override { calls.push_back("flush"); }
    std::vector<std::string> calls;
};

} // namespace

TEST(AppLogger, StartsSilentAndOpensOnce) {
    TestSupport::TempDir dir;
    const std::string path = dir.File("run.log");
    auto logger = CreateAppLogger();
    EXPECT_FALSE(logger->Write("nobody hears", 0));
    EXPECT_EQ(logger->GetLevel(), 4u);
    ASSERT_TRUE(logger->OpenLog(path.c_str()));
    EXPECT_FALSE(logger->OpenLog(path.c_str()));
    EXPECT_FALSE(logger->OpenConfiguredLog()) << "already open";
    EXPECT_EQ(std::string(logger->GetFailedPath()), dir.File("Failed_run.log"));

    // Opened but not enabled: nothing is added after the start line.
    const std::string afterOpen = ReadFile(path);
    EXPECT_NE(afterOpen.find(" :: [Log successfully started]\r\n"), std::string::npos) << afterOpen;
    EXPECT_FALSE(logger->Write("still silent", 0));
    logger->SetEnabled(true);
    EXPECT_TRUE(logger->Write("line", 0));
    EXPECT_EQ(ReadFile(path), afterOpen + "line\r\n");
}

TEST(AppLogger, TerminationLineAndFailedRename) {
    TestSupport::TempDir dir;
    const std::string path = dir.File("job.log"), failed = dir.File("Failed_job.log");
    {
        auto logger = CreateAppLogger();
        ASSERT_TRUE(logger->OpenLog(path.c_str()));
        logger->SetEnabled(true);
        logger->MarkFailed();
    }
    EXPECT_FALSE(std::filesystem::exists(path));
    const std::string text = ReadFile(failed);
    EXPECT_NE(text.find("[Log successfully terminated] [Runtime: 0.0"), std::string::npos) << text;
    EXPECT_NE(text.find(" seconds]\r\n[Log file renamed from [" + path + "] to [" + failed + "]\r\n"),
              std::string::npos)
        << text;
}

TEST(AppLogger, ConfiguredLogKeepsTheSwitches) {
    TestSupport::TempDir dir;
    auto logger = CreateAppLogger();
    ASSERT_TRUE(logger->SetLogFile(dir.File("c.log").c_str()));
    EXPECT_FALSE(logger->SetLogFile(dir.File("other.log").c_str()));
    EXPECT_FALSE(logger->OpenLog(dir.File("c.log").c_str())) << "a configured path refuses OpenLog";
    ASSERT_TRUE(logger->OpenConfiguredLog());
    EXPECT_FALSE(logger->IsEnabled());
    EXPECT_NE(ReadFile(dir.File("c.log")).find("[Log successfully started]"), std::string::npos);
}

TEST(AppLogger, ConsoleGetsColourTextFlushInOrder) {
    auto logger = CreateAppLogger();
    auto console = Core::MakeObject<Console>();
    logger->SetConsole(console.Raw());
    logger->SetEnabled(true);
    EXPECT_FALSE(logger->Write("a", 0x38DACD)) << "no file: the result says nothing reached one";
    logger->Write("b", 0);
    EXPECT_EQ(console->calls,
              (std::vector<std::string>{"colour 3726029", "text a\r\n", "flush", "text b\r\n", "flush"}));
}

TEST(AppLogger, CorrelationIsPerThreadAndLinesReachTheDebugChannel) {
    auto logger = CreateAppLogger();
    logger->SetEnabled(true);
    logger->SetShowCorrelation(true);
    std::vector<std::string> seen;
    std::mutex seenMutex;
    Platform::SetDebugOutputSink([&](std::string_view line) {
        std::lock_guard lock(seenMutex);
        seen.emplace_back(line);
    });
    logger->Write("x", 0);
    logger->Write("y", 0);
    std::thread([&] { logger->Write("z", 0); }).join();
    Platform::SetDebugOutputSink({});
    ASSERT_EQ(seen.size(), 3u);
    EXPECT_EQ(seen[0].rfind("x (Corr: ", 0), 0u);
    EXPECT_EQ(seen[0].substr(1), seen[1].substr(1));
    EXPECT_NE(seen[0].substr(1), seen[2].substr(1)) << "another thread, another correlation value";
}

TEST(AppLogger, RuntimeUnits) {
    const struct {
        double seconds;
        const char* unit;
        double value;
    } cases[] = {{119, "seconds", 119.0}, {121, "minutes", 121.0 / 60}, {7201, "hours", 7201.0 / 3600},
                 {49 * 3600.0, "days", 49.0 / 24}};
    for (const auto& c : cases) {
        const auto runtime = Platform::Logger::FormatRuntime(static_cast<uint64_t>(c.seconds * 1e7));
        EXPECT_STREQ(runtime.unit, c.unit) << c.seconds;
        EXPECT_NEAR(runtime.value, c.value, 0.001) << c.seconds;
    }
}

TEST(GetAppLogger, WithoutCompanionThePrivateLoggerStaysSilent) {
    auto logger = Platform::GetAppLogger();
    ASSERT_FALSE(logger.IsNull());
    EXPECT_EQ(logger.Raw(), Platform::GetAppLogger().Raw()) << "one logger for the process";
    EXPECT_FALSE(logger->IsEnabled());
}
