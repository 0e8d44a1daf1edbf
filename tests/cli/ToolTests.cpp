// Runs the real tellar-maps binary against a tile server of the test's own on 127.0.0.1.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "TempDir.h"
#include "TileServer.h"

namespace {

namespace fs = std::filesystem;

struct Outcome {
    int exitCode = -1;
    std::string out, err;
};

std::string ReadText(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::string Quote(const std::string& word) {
    std::string quoted = "'";
    for (char c : word) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

// The shell prefix that runs the tool under a time limit, so that a hang fails the test instead
// of stalling the suite. Under ThreadSanitizer the tool's own server runs on an uninstrumented library.
const std::string Timed =
    "TSAN_OPTIONS=\"${TSAN_OPTIONS:+$TSAN_OPTIONS:}suppressions=" + std::string(TELLAR_TSAN_SUPPRESSIONS) +
    "\" timeout 120 ";

// The tool's command line for the shell, its words taken from `line`.
std::string ToolCommand(const std::string& line) {
    std::string command = Quote(TELLAR_MAPS_BINARY);
    std::istringstream words(line);
    for (std::string word; words >> word;) command += " " + Quote(word);
    return command;
}

// The numbers after "key": in a JSON text, one or the members of an array (gdalinfo's have
// spaces and newlines).
std::vector<double> Numbers(const std::string& json, const std::string& key) {
    const size_t at = json.find("\"" + key + "\":");
    if (at == std::string::npos) ADD_FAILURE() << key << " missing in " << json;
    std::vector<double> values;
    for (const char* p = json.c_str() + (at == std::string::npos ? json.size() : at + key.size() + 3);;) {
        while (*p && std::strchr(" \n[,", *p)) ++p;
        char* end = nullptr;
        const double value = std::strtod(p, &end);
        if (end == p) return values;
        values.push_back(value);
        p = end;
    }
}

double Number(const std::string& json, const std::string& key) {
    const std::vector<double> values = Numbers(json, key);
    return values.empty() ? -1 : values[0];
}

bool IsPng(const std::string& bytes) { return bytes.rfind("\x89PNG\r\n\x1a\n", 0) == 0; }

class ToolTest : public testing::Test {
protected:
    Outcome Run(const std::string& line) {
        const std::string command =
            Timed + ToolCommand(line) + " >" + Quote(dir.File("stdout")) + " 2>" + Quote(dir.File("stderr"));
        const int status = std::system(command.c_str());
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadText(dir.File("stdout")),
                ReadText(dir.File("stderr"))};
    }

    TestSupport::TileServer server;
    TestSupport::TempDir dir;
};

TEST_F(ToolTest, ExitCodesAndErrorLines) {
    const struct {
        std::string line;
        int exitCode;
        std::string err; // exact, or the start of it when `prefix`
        bool prefix;
    } cases[] = {
        {"info --tms " + server.Template("t") + " --epsg 2056", 1, "error: Only EPSG 4326 and 3857 are supported\n",
         false},
        {"info --wms " + server.Template("404") + " --epsg 4326", 1,
         "error: Failed to download wms caps from " + server.Template("404") + "\n", false},
        {"info --wcs " + server.Template("t") + " --format image/tiff --epsg 4326", 1,
         "error: Only GeoTIFF format is supported for now\n", false},
        {"tile --tms " + server.Template("404") + " --epsg 3857 --zoom 1 --x 0 --y 1 -o " + dir.File("missing.png"), 1,
         "error: the server answered tile 1/0/1 with status 404\n", false},
        {"info --tms " + server.Template("t") + " --epsg 3857 --target-epsg 999999", 1, "error: ", true},
        // A 404 is a response, not a failed request: the mosaic fails on decoding its body.
        {"mosaic --tms " + server.Template("404") + " --epsg 4326 --zoom 0 --bbox -1,-1,1,1 --best-effort -o " +
             dir.File("missing.tif"),
         1, "error: Unknown image format\n", false},
        {"frobnicate", 2, "tellar-maps: unknown command 'frobnicate'\n\nusage: tellar-maps", true},
    };
    for (const auto& c : cases) {
        const Outcome o = Run(c.line);
        SCOPED_TRACE(c.line);
        EXPECT_EQ(o.exitCode, c.exitCode);
        EXPECT_EQ(c.prefix ? o.err.substr(0, c.err.size()) : o.err, c.err);
        EXPECT_EQ(o.out, "");
    }
    EXPECT_FALSE(fs::exists(dir.File("missing.png"))) << "a refused tile writes no file";
    EXPECT_FALSE(fs::exists(dir.File("missing.tif")));
    EXPECT_EQ(server.Requests(), 4) << "the tile, and the mosaic's one tile three times (list, best effort, list)";
}

TEST_F(ToolTest, InfoReportsWhatTheFactoryBound) {
    const Outcome o = Run("info --tms " + server.Template("t") + " --epsg 4326 --quiet");
    EXPECT_EQ(o.exitCode, 0) << o.err;
    const std::string url = server.Template("t");
    const std::string serviceUrl = url.substr(0, url.find('/', 7));
    EXPECT_EQ(o.out, "{\"kind\":\"tms\",\"service_url\":\"" + serviceUrl + "\",\"layer\":\"Tiles\",\"epsg\":4326}\n");
    EXPECT_EQ(o.err, "");
}

TEST_F(ToolTest, TileWritesTheBodyThenTheCachedTileAsPng) {
    const std::string tile = "tile --tms " + server.Template("t") + " --epsg 3857 --cache " + dir.File("cache") +
                             " --zoom 1 --x 0 --y 0 -o ";
    Outcome o = Run(tile + dir.File("1.png"));
    ASSERT_EQ(o.exitCode, 0) << o.err;
    EXPECT_EQ(o.err, "");
    EXPECT_EQ(ReadText(dir.File("1.png")), server.Png()) << "the body as the server sent it";
    EXPECT_EQ(Number(o.out, "status"), 200);
    EXPECT_EQ(Number(o.out, "bytes"), static_cast<double>(server.Png().size()));
    EXPECT_EQ(Number(o.out, "width"), 256);
    EXPECT_EQ(Number(o.out, "height"), 256);
    const auto bounds = Numbers(o.out, "bounds");
    ASSERT_EQ(bounds.size(), 4u);
    EXPECT_DOUBLE_EQ(bounds[0], -180.0);
    EXPECT_NEAR(bounds[1], 0.0, 1e-9);
    EXPECT_NEAR(bounds[2], 0.0, 1e-9);
    EXPECT_NEAR(bounds[3], 85.0511287798066, 1e-9) << "degrees, also for a 3857 service";

    o = Run(tile + dir.File("2.png"));
    ASSERT_EQ(o.exitCode, 0) << o.err;
    EXPECT_EQ(server.Requests(), 1) << "the second run reads the cache";
    const std::string second = ReadText(dir.File("2.png"));
    EXPECT_TRUE(IsPng(second));
    EXPECT_EQ(Number(o.out, "bytes"), static_cast<double>(second.size()));
    EXPECT_EQ(Number(o.out, "width"), 256);
    EXPECT_EQ(Numbers(o.out, "bounds"), bounds);
}

TEST_F(ToolTest, SeedFetchesOnceThenFindsTheCache) {
    const std::string seed = " --epsg 4326 --cache " + dir.File("cache") + " --bbox -10,-10,10,10 --max-zoom ";
    // Zoom 0 has one tile, zooms 1 and 2 two columns by two rows each.
    Outcome o = Run("seed --tms " + server.Template("t") + seed + "2 --min-zoom 0");
    ASSERT_EQ(o.exitCode, 0) << o.err;
    EXPECT_EQ(o.out, "{\"tiles\":9,\"fetched\":9,\"cached\":0,\"failed\":0}\n");
    EXPECT_EQ(o.err, "") << "no progress bar when stderr is no terminal";
    o = Run("seed --tms " + server.Template("t") + seed + "2");
    ASSERT_EQ(o.exitCode, 0) << o.err;
    EXPECT_EQ(o.out, "{\"tiles\":9,\"fetched\":0,\"cached\":9,\"failed\":0}\n");
    EXPECT_EQ(server.Requests(), 9);

    o = Run("seed --tms " + server.Template("404") + seed + "1");
    ASSERT_EQ(o.exitCode, 0) << o.err;
    EXPECT_EQ(o.out, "{\"tiles\":5,\"fetched\":0,\"cached\":0,\"failed\":5}\n");
}

// script(1) gives the tool a terminal for stderr; stdout goes to a file.
TEST_F(ToolTest, ProgressBarOnlyOnATerminalAndNotWhenQuiet) {
    if (std::system("command -v script >/dev/null 2>&1") != 0) GTEST_SKIP() << "script(1) is not installed";
    const auto seedOnTerminal = [&](const std::string& extra) {
        const std::string tool = ToolCommand("seed --tms " + server.Template("t") + " --epsg 4326 --cache " +
                                             dir.File("cache") + " --bbox -10,-10,10,10 --max-zoom 1 " + extra) +
                                 " >" + Quote(dir.File("json"));
        const std::string command = Timed + "script -qec " + Quote(tool) + " /dev/null >" + Quote(dir.File("terminal"));
        EXPECT_EQ(std::system(command.c_str()), 0);
        EXPECT_EQ(ReadText(dir.File("json")).substr(0, 10), "{\"tiles\":5");
        return ReadText(dir.File("terminal"));
    };
    const std::string shown = seedOnTerminal("");
    EXPECT_NE(shown.find("zoom 0 [##############################] 1/1"), std::string::npos) << shown;
    EXPECT_NE(shown.find("zoom 1 [##############################] 4/4"), std::string::npos) << shown;
    EXPECT_EQ(seedOnTerminal("--quiet"), "");
}

TEST_F(ToolTest, MosaicWritesAGeoTiffThatGdalPlaces) {
    const Outcome o = Run("mosaic --tms " + server.Template("t") + " --epsg 4326 --cache " + dir.File("cache") +
                          " --zoom 2 --bbox -10,-10,10,10 -o " + dir.File("m.tif") + " --png " + dir.File("m.png"));
    ASSERT_EQ(o.exitCode, 0) << o.err;
    EXPECT_EQ(Number(o.out, "tiles"), 4);
    EXPECT_EQ(server.Requests(), 4) << "the mosaic reads the tiles that the listing put into the cache";
    EXPECT_EQ(Number(o.out, "epsg"), 4326);
    const auto transform = Numbers(o.out, "transform");
    ASSERT_EQ(transform.size(), 6u);
    // Zoom 2 tiles are 90 degrees wide, 256 pixels each; the box starts at -10.
    EXPECT_DOUBLE_EQ(transform[0], 90.0 / 256);
    EXPECT_LT(transform[1], 0.0);
    EXPECT_NEAR(transform[2], -10.0, transform[0]);
    EXPECT_NEAR(transform[3], 10.0, -transform[1]);
    EXPECT_NEAR(Number(o.out, "width"), 20.0 / transform[0], 1.0);
    EXPECT_TRUE(IsPng(ReadText(dir.File("m.png"))));

    if (std::system("command -v gdalinfo >/dev/null 2>&1") != 0) GTEST_SKIP() << "gdalinfo is not installed";
    const std::string command =
        "timeout 60 gdalinfo -json " + Quote(dir.File("m.tif")) + " >" + Quote(dir.File("gdal.json")) + " 2>/dev/null";
    ASSERT_EQ(std::system(command.c_str()), 0);
    const std::string gdal = ReadText(dir.File("gdal.json"));
    EXPECT_NE(gdal.find("ID[\\\"EPSG\\\",4326]]"), std::string::npos) << gdal;
    const auto geo = Numbers(gdal, "geoTransform"); // origin x, pixel width, 0, origin y, 0, pixel height
    ASSERT_EQ(geo.size(), 6u);
    EXPECT_DOUBLE_EQ(geo[0], transform[2]);
    EXPECT_DOUBLE_EQ(geo[1], transform[0]);
    EXPECT_DOUBLE_EQ(geo[3], transform[3]);
    EXPECT_DOUBLE_EQ(geo[5], transform[1]);
    EXPECT_EQ(Numbers(gdal, "size"), (std::vector<double>{Number(o.out, "width"), Number(o.out, "height")}));
}

TEST_F(ToolTest, DemoWritesBothPictures) {
    const Outcome o = Run("demo -o " + dir.File("demo"));
    ASSERT_EQ(o.exitCode, 0) << o.err;
    EXPECT_EQ(o.err, "");
    EXPECT_EQ(Number(o.out, "epsg"), 4326);
    EXPECT_GT(Number(o.out, "tiles"), 1);
    EXPECT_GT(Number(o.out, "width"), 500);
    EXPECT_TRUE(IsPng(ReadText(dir.File("demo/demo.png"))));
    EXPECT_EQ(ReadText(dir.File("demo/demo.tif")).substr(0, 4), std::string("II*\0", 4));
    EXPECT_TRUE(fs::is_directory(dir.File("demo/demo-cache")));

    // GDAL reads its colours as unsigned bytes.
    if (std::system("command -v gdalinfo >/dev/null 2>&1") != 0) GTEST_SKIP() << "gdalinfo is not installed";
    const std::string command = "timeout 60 gdalinfo -json -mdd IMAGE_STRUCTURE " + Quote(dir.File("demo/demo.tif")) +
                                " >" + Quote(dir.File("gdal.json")) + " 2>/dev/null";
    ASSERT_EQ(std::system(command.c_str()), 0);
    const std::string gdal = ReadText(dir.File("gdal.json"));
    EXPECT_EQ(gdal.find("SIGNEDBYTE"), std::string::npos) << gdal;
    EXPECT_EQ(gdal.find("Int8"), std::string::npos) << gdal;
}

// A Web-Mercator service makes a mosaic of a box in metres, and one in degrees with a
// geographic target.
TEST_F(ToolTest, MosaicOfAMercatorService) {
    const std::string url = server.Template("t");
    Outcome o = Run("mosaic --tms " + url + " --epsg 3857 --zoom 3 --bbox -2000000,-1000000,3000000,4000000 -o " +
                    dir.File("m.tif"));
    ASSERT_EQ(o.exitCode, 0) << o.err;
    EXPECT_EQ(Number(o.out, "epsg"), 3857);
    std::vector<double> transform = Numbers(o.out, "transform");
    ASSERT_EQ(transform.size(), 6u);
    const double pixel = 2 * 20037508.342789244 / 2048;
    EXPECT_NEAR(transform[0], pixel, 1e-6);
    EXPECT_NEAR(transform[2], -2000000.0, pixel);
    EXPECT_NEAR(transform[3], 4000000.0, pixel);
    EXPECT_NEAR(Number(o.out, "width"), 5000000.0 / pixel, 2.0);

    o = Run("mosaic --tms " + url + " --epsg 3857 --target-epsg 4326 --zoom 3 --bbox -20,-10,30,40 -o " +
            dir.File("g.tif"));
    ASSERT_EQ(o.exitCode, 0) << o.err;
    EXPECT_EQ(Number(o.out, "epsg"), 4326);
    transform = Numbers(o.out, "transform");
    ASSERT_EQ(transform.size(), 6u);
    EXPECT_NEAR(transform[2], -20.0, transform[0]);
    EXPECT_NEAR(transform[3], 40.0, -transform[1]);
    EXPECT_NEAR(Number(o.out, "width"), 50.0 / transform[0], 2.0);
}

} // namespace
