// tellar-maps --log FILE: the library writes through the shared logger of libTellarPlatform.so,
// which the tool opens, and which closes the file at exit.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "TempDir.h"
#include "TileServer.h"

namespace {

namespace fs = std::filesystem;

std::vector<std::string> Lines(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) {
        EXPECT_TRUE(!line.empty() && line.back() == '\r') << "lines end in CR LF: " << line;
        if (!line.empty() && line.back() == '\r') line.pop_back();
        lines.push_back(line);
    }
    return lines;
}

size_t Count(const std::vector<std::string>& lines, const std::string& part) {
    size_t n = 0;
    for (const auto& line : lines) n += line.find(part) != std::string::npos;
    return n;
}

bool EndsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

class LogFileTest : public testing::Test {
protected:
    // Runs the tool under a time limit; its words are plain (no quoting needed); stderr is kept.
    int Run(const std::string& words) {
        const std::string command = "TSAN_OPTIONS=\"${TSAN_OPTIONS:+$TSAN_OPTIONS:}suppressions=" +
                                    std::string(TELLAR_TSAN_SUPPRESSIONS) + "\" timeout 120 '" +
                                    TELLAR_MAPS_BINARY + "' " + words + " >/dev/null 2>'" + dir.File("stderr") + "'";
        const int status = std::system(command.c_str());
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    std::string Mosaic(const std::string& kind) const {
        return "mosaic --tms " + server.Template(kind) + " --epsg 4326 --zoom 1 --bbox -10,-10,10,10 --quiet -o " +
               dir.File("m.tif");
    }

    TestSupport::TileServer server;
    TestSupport::TempDir dir;
};

TEST_F(LogFileTest, ASuccessfulRunLogsAtTheLevelAskedAndCloses) {
    ASSERT_EQ(Run(Mosaic("t") + " --log " + dir.File("trace.log") + " --log-level 0"), 0);
    std::vector<std::string> lines = Lines(dir.File("trace.log"));
    ASSERT_GE(lines.size(), 3u);
    EXPECT_TRUE(EndsWith(lines.front(), " :: [Log successfully started]")) << lines.front();
    EXPECT_NE(lines.back().find(" :: [Log successfully terminated] [Runtime: "), std::string::npos) << lines.back();
    EXPECT_TRUE(EndsWith(lines.back(), " seconds]")) << lines.back();
    EXPECT_GE(Count(lines, ":: TRACE: Get: "), 4u) << "one trace line per tile request";
    EXPECT_GE(Count(lines, ":: INFO: "), 1u);

    // Without --log-level the logger keeps its own level: information, no traces.
    ASSERT_EQ(Run(Mosaic("t") + " --log " + dir.File("info.log")), 0);
    lines = Lines(dir.File("info.log"));
    EXPECT_GE(Count(lines, ":: INFO: "), 1u);
    EXPECT_EQ(Count(lines, "TRACE: "), 0u);
    EXPECT_EQ(Count(lines, "[Log successfully terminated]"), 1u);

    ASSERT_EQ(Run(Mosaic("t") + " --log " + dir.File("errors.log") + " --log-level 6"), 0);
    lines = Lines(dir.File("errors.log"));
    EXPECT_EQ(Count(lines, "INFO: ") + Count(lines, "TRACE: "), 0u);
    EXPECT_TRUE(EndsWith(lines.front(), "[Log successfully started]"));
    EXPECT_FALSE(fs::exists(dir.File("Failed_trace.log")));
}

TEST_F(LogFileTest, AFailedRunLeavesTheLogUnderFailedName) {
    ASSERT_EQ(Run(Mosaic("404") + " --log " + dir.File("run.log")), 1);
    EXPECT_FALSE(fs::exists(dir.File("run.log")));
    const std::vector<std::string> lines = Lines(dir.File("Failed_run.log"));
    ASSERT_GE(lines.size(), 3u);
    EXPECT_TRUE(EndsWith(lines.front(), "[Log successfully started]"));
    EXPECT_EQ(Count(lines, "[Log successfully terminated]"), 1u);
    EXPECT_TRUE(EndsWith(lines.back(), "[Log file renamed from [" + dir.File("run.log") + "] to [" +
                                           dir.File("Failed_run.log") + "]"))
        << lines.back();

    const int requests = server.Requests();
    EXPECT_EQ(Run(Mosaic("t") + " --log " + dir.File("no/such/dir/x.log")), 1);
    std::ifstream err(dir.File("stderr"));
    std::string text((std::istreambuf_iterator<char>(err)), std::istreambuf_iterator<char>());
    EXPECT_EQ(text, "error: cannot open the log file " + dir.File("no/such/dir/x.log") + "\n");
    EXPECT_EQ(server.Requests(), requests) << "nothing runs without the log asked for";
}

} // namespace
