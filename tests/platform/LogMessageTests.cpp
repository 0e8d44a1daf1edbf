#include <gtest/gtest.h>

#include "Platform/Log.h"
#include "RecordingLogger.h"

using Platform::LogMessage;

TEST(LogMessage, LineLayoutFollowsTheLoggerSwitches) {
    TestSupport::ScopedRecordingLogger logger;
    LogMessage(Platform::LogError, "MapServices::impl::TileFetcherBase::FetchTileDataAsync", "Fetcher.cpp", 42,
               "failed (12002)");
    logger->showLine = true;
    logger->showFile = true;
    LogMessage(Platform::LogWarn, "F", "Fetcher.cpp", 42, "w");
    LogMessage(Platform::LogInfo, "F", "", 0, "no line, no file");
    logger->showFunction = false;
    LogMessage(Platform::LogFatal, "F", "a.cpp", 1, "bare");

    const auto lines = logger->Lines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0].text, "ERROR: failed (12002) [MapServices::impl::TileFetcherBase::FetchTileDataAsync]");
    EXPECT_EQ(lines[0].colour, 0x0F1FC5u);
    EXPECT_EQ(lines[1].text, "WARN: w [F] (Line: 42) (File: Fetcher.cpp)");
    EXPECT_EQ(lines[1].colour, 0x38DACDu);
    EXPECT_EQ(lines[2].text, "INFO: no line, no file [F]");
    EXPECT_EQ(lines[2].colour, 0x707070u);
    EXPECT_EQ(lines[3].text, "FATAL: bare (Line: 1) (File: a.cpp)");
}

TEST(LogMessage, LevelsFilterAndLevelsWithoutPrefixAreNeverWritten) {
    TestSupport::ScopedRecordingLogger logger;
    logger->level = 0;
    for (uint32_t level : {0u, 1u, 2u, 3u, 8u, 9u}) LogMessage(level, "F", "", 0, "x");
    logger->level = 4;
    LogMessage(Platform::LogDebug, "F", "", 0, "filtered");
    LogMessage(Platform::LogInfo, "F", "", 0, "passes");
    const auto lines = logger->Lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].text, "TRACE: x [F]");
    EXPECT_EQ(lines[1].text, "DEBUG: x [F]");
    EXPECT_EQ(lines[2].text, "INFO: passes [F]");
}
