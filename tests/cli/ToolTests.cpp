// Runs the real tellar-maps binary against a tile server of the test's own on 127.0.0.1.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
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

// The tool's command line for the shell, its words taken from `line`; the word <empty> is an
// empty argument.
std::string ToolCommand(const std::string& line) {
    std::string command = Quote(TELLAR_MAPS_BINARY);
    std::istringstream words(line);
    for (std::string word; words >> word;) command += " " + Quote(word == "<empty>" ? "" : word);
    return command;
}

// A tile server that never finishes an answer: /silent/ says nothing after the request,
// /trickle/ sends the headers of a PNG tile and then a byte every 100 ms.
class StallingServer {
public:
    StallingServer() {
        server_.Get(R"(/silent/.*)", [this](const httplib::Request&, httplib::Response& res) {
            for (int i = 0; i < 600 && !stopping_; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(50));
            res.set_content("late", "text/plain");
        });
        server_.Get(R"(/trickle/.*)", [this](const httplib::Request&, httplib::Response& res) {
            res.set_content_provider(4096, "image/png", [this](size_t offset, size_t, httplib::DataSink& sink) {
                if (stopping_) return false;
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
                const char byte = offset < 8 ? "\x89PNG\r\n\x1a\n"[offset] : '\0';
                return sink.write(&byte, 1);
            });
        });
        port_ = server_.bind_to_any_port("127.0.0.1");
        thread_ = std::thread([this] { server_.listen_after_bind(); });
        for (int i = 0; i < 2000 && !server_.is_running(); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ~StallingServer() {
        stopping_ = true;
        server_.stop();
        thread_.join();
    }
    std::string Template(const std::string& kind) const {
        return "http://127.0.0.1:" + std::to_string(port_) + "/" + kind + "/{z}/{x}/{y}.png";
    }

private:
    httplib::Server server_;
    std::thread thread_;
    std::atomic<bool> stopping_{false};
    int port_ = 0;
};

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
}

// A level of more tiles than one list takes is seeded in parts, each with its bar; every tile
// still counts once and lands in the cache once.
TEST_F(ToolTest, LargeLevelsAreSeededInParts) {
    if (std::system("command -v script >/dev/null 2>&1") != 0) GTEST_SKIP() << "script(1) is not installed";
    const std::string tool = ToolCommand("seed --tms " + server.Template("t") + " --epsg 4326 --cache " +
                                         dir.File("cache") + " --bbox -180,-85,180,85 --max-zoom 6") +
                             " >" + Quote(dir.File("json"));
    const std::string command = Timed + "script -qec " + Quote(tool) + " /dev/null >" + Quote(dir.File("terminal"));
    ASSERT_EQ(std::system(command.c_str()), 0) << ReadText(dir.File("terminal"));
    EXPECT_EQ(ReadText(dir.File("json")), "{\"tiles\":5461,\"fetched\":5461,\"cached\":0,\"failed\":0}\n");
    EXPECT_NE(ReadText(dir.File("terminal")).find("zoom 6 part 4 ["), std::string::npos);
    size_t files = 0;
    for (const auto& entry : fs::recursive_directory_iterator(dir.File("cache"))) files += entry.is_regular_file();
    EXPECT_EQ(files, 5461u);
}

// Three parts seeded into one cache hold the same files as one whole seed, each tile seeded by
// one part only, with a box given in another CRS than the service's.
TEST_F(ToolTest, PartsOfASeedFillOneCacheAsTheWholeSeedDoes) {
    const std::string seed =
        " --epsg 3857 --target-epsg 4326 --bbox -30.5,-20.2,41.7,33.3 --min-zoom 1 --max-zoom 5 --quiet --cache ";
    const auto files = [&](const std::string& root) {
        std::map<std::string, std::string> found;
        for (const auto& entry : fs::recursive_directory_iterator(dir.File(root)))
            if (entry.is_regular_file()) found[fs::relative(entry.path(), dir.File(root)).string()] = ReadText(entry.path());
        return found;
    };
    const Outcome whole = Run("seed --tms " + server.Template("t") + seed + dir.File("whole"));
    ASSERT_EQ(whole.exitCode, 0) << whole.err;
    double tiles = 0;
    for (int part = 0; part < 3; ++part) {
        const Outcome o = Run("seed --tms " + server.Template("t") + seed + dir.File("parts") + " --part " +
                              std::to_string(part) + "/3");
        ASSERT_EQ(o.exitCode, 0) << o.err;
        EXPECT_EQ(Number(o.out, "cached"), 0) << "no part seeds a tile of another";
        tiles += Number(o.out, "tiles");
    }
    EXPECT_EQ(tiles, Number(whole.out, "tiles"));
    const auto wholeFiles = files("whole");
    EXPECT_EQ(wholeFiles.size(), static_cast<size_t>(Number(whole.out, "tiles")));
    EXPECT_TRUE(files("parts") == wholeFiles);
}

// Only a tile the cache keeps is fetched; a run that fetched or read none fails, after its counts.
TEST_F(ToolTest, SeedCountsWhatTheCacheKept) {
    const struct {
        std::string kind;
        int exitCode;
        std::string counts, firstError;
    } cases[] = {
        {"t", 0, R"("tiles":5,"fetched":5,"cached":0,"failed":0)", ""},
        {"hole", 0, R"("tiles":5,"fetched":2,"cached":0,"failed":3)",
         "tile 0/0/0: the server answered with status 404"},
        {"404", 1, R"("tiles":5,"fetched":0,"cached":0,"failed":5)",
         "tile 0/0/0: the server answered with status 404"},
        {"xml", 1, R"("tiles":5,"fetched":0,"cached":0,"failed":5)",
         "tile 0/0/0: the server answered with text/xml, not a tile"},
        {"empty", 1, R"("tiles":5,"fetched":0,"cached":0,"failed":5)",
         "tile 0/0/0: the server answered with an empty body"},
        {"bad", 1, R"("tiles":5,"fetched":0,"cached":0,"failed":5)",
         "tile 0/0/0: the server's answer (image/png, 19 bytes) is no image: Unknown image format"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.kind);
        const Outcome o = Run("seed --tms " + server.Template(c.kind) + " --epsg 4326 --cache " +
                              dir.File("cache-" + c.kind) + " --bbox -10,-10,10,10 --max-zoom 1");
        EXPECT_EQ(o.exitCode, c.exitCode);
        EXPECT_EQ(o.out, "{" + c.counts + (c.firstError.empty() ? "" : ",\"first_error\":\"" + c.firstError + "\"") +
                             "}\n");
        EXPECT_EQ(o.err, c.exitCode ? "error: no tile of the run was fetched or read; " + c.firstError + "\n" : "");
    }

    std::ofstream(dir.File("file")) << "a file";
    const Outcome o = Run("seed --tms " + server.Template("t") + " --epsg 4326 --cache " + dir.File("file") +
                          " --bbox -10,-10,10,10 --max-zoom 1");
    EXPECT_EQ(o.exitCode, 1);
    EXPECT_EQ(o.err, "error: the cache " + dir.File("file") + " is not a directory\n");
    EXPECT_EQ(ReadText(dir.File("file")), "a file");
}

// A command that fails leaves the file it was to write as it was, and no temporary file beside it.
TEST_F(ToolTest, FailedCommandsLeaveFilesAsTheyWere) {
    const std::string good = "the good file";
    const auto writeGood = [&](const std::string& name) { std::ofstream(dir.File(name), std::ios::binary) << good; };
    const struct {
        std::string line, err;
    } cases[] = {
        {"tile --tms " + server.Template("xml") + " --epsg 3857 --zoom 1 --x 0 --y 0 -o " + dir.File("out/a"),
         "error: tile 1/0/0: the server answered with text/xml, not a tile\n"},
        {"tile --tms " + server.Template("empty") + " --epsg 3857 --zoom 1 --x 0 --y 0 -o " + dir.File("out/a"),
         "error: tile 1/0/0: the server answered with an empty body\n"},
        {"tile --tms " + server.Template("bad") + " --epsg 3857 --zoom 1 --x 0 --y 0 -o " + dir.File("out/a"),
         "error: tile 1/0/0: the server's answer (image/png, 19 bytes) is no image: Unknown image format\n"},
        {"tile --tms " + server.Template("octet") + " --epsg 3857 --zoom 1 --x 0 --y 0 -o " + dir.File("out/a"),
         "error: Unknown image format\n"},
        {"tile --tms " + server.Template("500") + " --epsg 3857 --zoom 1 --x 0 --y 0 -o " + dir.File("out/a"),
         "error: the server answered tile 1/0/0 with status 500\n"},
        {"mosaic --tms " + server.Template("hole") + " --epsg 4326 --zoom 1 --bbox -10,-10,10,10 -o " +
             dir.File("out/a") + " --png " + dir.File("out/b"),
         "error: Unknown image format\n"},
    };
    fs::create_directory(dir.File("out"));
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        writeGood("out/a");
        writeGood("out/b");
        const Outcome o = Run(c.line);
        EXPECT_EQ(o.exitCode, 1);
        EXPECT_EQ(o.err, c.err);
        EXPECT_EQ(o.out, "");
        EXPECT_EQ(ReadText(dir.File("out/a")), good);
        EXPECT_EQ(ReadText(dir.File("out/b")), good);
        EXPECT_EQ(std::distance(fs::directory_iterator(dir.File("out")), fs::directory_iterator()), 2);
    }

    // A directory is no file to write, and a successful run replaces the good file whole.
    Outcome o = Run("tile --tms " + server.Template("t") + " --epsg 3857 --zoom 1 --x 0 --y 0 -o " + dir.File("out"));
    EXPECT_EQ(o.exitCode, 1);
    EXPECT_EQ(o.err, "error: cannot write " + dir.File("out") + ": it is a directory\n");
    o = Run("tile --tms " + server.Template("t") + " --epsg 3857 --zoom 1 --x 0 --y 0 -o " + dir.File("out/a"));
    ASSERT_EQ(o.exitCode, 0) << o.err;
    EXPECT_EQ(ReadText(dir.File("out/a")), server.Png());
    EXPECT_EQ(fs::status(dir.File("out/a")).permissions(), fs::status(dir.File("out/b")).permissions());
}

// Boxes that reach or pass the edges of the grid are cut to it; refused lines reach no server.
TEST_F(ToolTest, BoxesAndLinesRefusedOrCut) {
    const struct {
        std::string line;
        std::string out; // exit 0 with this JSON, else exit 2 with `out` as the first line of stderr
    } cases[] = {
        {"seed --tms " + server.Template("t") + " --epsg 4326 --bbox -180,-90,180,90 --max-zoom 2",
         R"({"tiles":21,"fetched":21,"cached":0,"failed":0})"},
        {"seed --tms " + server.Template("t") + " --epsg 3857 --bbox -20037508.34,-20037508.34,20037508.34,20037508.34 "
                                                "--max-zoom 2",
         R"({"tiles":21,"fetched":0,"cached":21,"failed":0})"},
        {"seed --tms " + server.Template("t") + " --epsg 3857 --bbox -3e7,-3e7,3e7,3e7 --max-zoom 2",
         R"({"tiles":21,"fetched":0,"cached":21,"failed":0})"},
        {"seed --tms " + server.Template("t") + " --epsg 3857 --target-epsg 4326 --bbox -180,-90,180,90 --max-zoom 1",
         R"({"tiles":5,"fetched":0,"cached":5,"failed":0})"},
        {"seed --tms " + server.Template("t") + " --epsg 4326 --bbox 0,85.1,10,90 --max-zoom 1",
         "tellar-maps: --bbox lies outside the tile grid: -180 to 180, -85.0511 to 85.0511 degrees"},
        {"seed --tms " + server.Template("t") + " --epsg 4326 --bbox 0,inf,10,90 --max-zoom 1",
         "tellar-maps: --bbox takes finite numbers, not '0,inf,10,90'"},
        {"seed --tms " + server.Template("t") + " --epsg 4326 --bbox 0,1,0,2 --max-zoom 1",
         "tellar-maps: --bbox: the box has no area"},
        {"info --tms ftp://127.0.0.1/{z}/{x}/{y}.png --epsg 3857",
         "tellar-maps: --tms takes an http:// or https:// URL, not 'ftp://127.0.0.1/{z}/{x}/{y}.png'"},
        {"tile --tms " + server.Template("t") + " --epsg 3857 --zoom 31 --x 0 --y 0 -o x",
         "tellar-maps: --zoom takes 0 to 30, not 31"},
        {"tile --tms " + server.Template("t") + " --epsg 3857 --zoom 1 --x 0 --y -1 -o x",
         "tellar-maps: --y takes 0 or more, not -1"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        const Outcome o = Run(c.line + " --cache " + dir.File("cache"));
        if (c.out[0] == '{') {
            EXPECT_EQ(o.exitCode, 0) << o.err;
            EXPECT_EQ(o.out, c.out + "\n");
        } else {
            EXPECT_EQ(o.exitCode, 2);
            EXPECT_EQ(o.err.substr(0, o.err.find('\n')), c.out);
        }
    }
    EXPECT_EQ(server.Requests(), 21);

    // An empty --cache would be the root of the file system.
    const Outcome o = Run("tile --tms " + server.Template("t") + " --epsg 3857 --cache <empty> --zoom 1 --x 0 --y 0 -o " +
                          dir.File("a.png"));
    EXPECT_EQ(o.exitCode, 2);
    EXPECT_EQ(o.err.substr(0, o.err.find('\n')), "tellar-maps: --cache needs a directory, not an empty path");
    EXPECT_EQ(server.Requests(), 21);

    const Outcome world = Run("mosaic --tms " + server.Template("t") +
                              " --epsg 3857 --zoom 1 --bbox -20037508.35,-20037508.35,20037508.35,20037508.35 -o " +
                              dir.File("w.tif"));
    ASSERT_EQ(world.exitCode, 0) << world.err;
    EXPECT_EQ(Number(world.out, "tiles"), 4);
    EXPECT_NEAR(Number(world.out, "width"), 512, 1) << "the world, less a millimetre at each edge";
    EXPECT_NEAR(Number(world.out, "height"), 512, 1);
}

// --timeout ends the wait for a tile's whole answer, from a server that says nothing as from one
// that sends a byte now and then (which the client's receive timeout alone never ends).
TEST_F(ToolTest, TimeoutEndsStalledTiles) {
    StallingServer stalling;
    const struct {
        std::string line;
        std::string out, err;
    } cases[] = {
        {"tile --tms " + stalling.Template("silent") + " --epsg 3857 --timeout 1 --zoom 1 --x 0 --y 0 -o " +
             dir.File("a.png"),
         "", "error: tile 1/0/0: no whole answer within 1 s\n"},
        {"tile --tms " + stalling.Template("trickle") + " --epsg 3857 --timeout 1 --zoom 1 --x 0 --y 0 -o " +
             dir.File("a.png"),
         "", "error: tile 1/0/0: no whole answer within 1 s\n"},
        {"seed --tms " + stalling.Template("trickle") + " --epsg 3857 --cache " + dir.File("cache") +
             " --timeout 0.5 --bbox -1,-1,1,1 --max-zoom 0",
         R"({"tiles":1,"fetched":0,"cached":0,"failed":1,"first_error":"tile 0/0/0: no whole answer within 0.5 s"})"
         "\n",
         "error: no tile of the run was fetched or read; tile 0/0/0: no whole answer within 0.5 s\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        const auto start = std::chrono::steady_clock::now();
        const Outcome o = Run(c.line);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(8));
        EXPECT_EQ(o.exitCode, 1);
        EXPECT_EQ(o.out, c.out);
        EXPECT_EQ(o.err, c.err);
    }
    EXPECT_FALSE(fs::exists(dir.File("a.png")));
}

// The first three commands of the README, against a server taken as 3857 and as 4326.
TEST_F(ToolTest, ReadmeCommandsWorkAsWritten) {
    const std::string url = server.Template("t");
    for (const std::string epsg : {"3857", "4326"}) {
        SCOPED_TRACE(epsg);
        // A box in degrees: a 3857 service reads its boxes in metres unless told otherwise.
        const std::string degrees = epsg == "3857" ? " --target-epsg 4326" : "";
        Outcome o = Run("info --tms " + url + " --epsg " + epsg);
        EXPECT_EQ(o.exitCode, 0) << o.err;
        EXPECT_EQ(Number(o.out, "epsg"), std::stod(epsg));

        o = Run("mosaic --tms " + url + " --epsg " + epsg + degrees + " --zoom 6 --bbox 5,44,16,50 -o " +
                dir.File("alps.tif") + " --png " + dir.File("alps.png"));
        ASSERT_EQ(o.exitCode, 0) << o.err;
        EXPECT_EQ(Number(o.out, "tiles"), 9) << "columns 32 to 34, rows 21 to 23";
        EXPECT_TRUE(IsPng(ReadText(dir.File("alps.png"))));
        const auto transform = Numbers(o.out, "transform");
        ASSERT_EQ(transform.size(), 6u);
        EXPECT_NEAR(transform[2], 5.0, transform[0]);
        EXPECT_NEAR(transform[3], 50.0, -transform[1]);

        o = Run("seed --tms " + url + " --epsg " + epsg + degrees + " --cache " + dir.File("tiles-" + epsg) +
                " --bbox 5,44,16,50 --max-zoom 8");
        ASSERT_EQ(o.exitCode, 0) << o.err;
        EXPECT_EQ(Number(o.out, "failed"), 0);
        EXPECT_EQ(Number(o.out, "fetched"), Number(o.out, "tiles"));
        EXPECT_GT(Number(o.out, "tiles"), 72) << "zoom 8 alone has 9 columns by 8 rows";
    }
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

    // Stored instead of deflated: the same pixels and place, in a file GDAL reads as uncompressed.
    const Outcome stored = Run("mosaic --tms " + server.Template("t") + " --epsg 4326 --cache " + dir.File("cache") +
                               " --zoom 2 --bbox -10,-10,10,10 --compress none -o " + dir.File("s.tif"));
    ASSERT_EQ(stored.exitCode, 0) << stored.err;
    EXPECT_EQ(stored.out, o.out);
    const auto describe = [&](const std::string& file) {
        const std::string json = dir.File(file + ".json");
        const std::string line = "timeout 60 gdalinfo -json -checksum -mdd IMAGE_STRUCTURE " + Quote(dir.File(file)) +
                                 " >" + Quote(json) + " 2>/dev/null";
        EXPECT_EQ(std::system(line.c_str()), 0) << line;
        return ReadText(json);
    };
    const std::string deflated = describe("m.tif"), plain = describe("s.tif");
    EXPECT_NE(deflated.find("\"COMPRESSION\":\"DEFLATE\""), std::string::npos) << deflated;
    EXPECT_EQ(plain.find("COMPRESSION"), std::string::npos) << plain;
    ASSERT_FALSE(Numbers(plain, "checksum").empty()) << plain;
    EXPECT_EQ(Numbers(plain, "checksum"), Numbers(deflated, "checksum"));
    EXPECT_EQ(Numbers(plain, "geoTransform"), geo);
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
