#include <gtest/gtest.h>

#include <array>
#include <sstream>
#include <string>
#include <vector>

#include "CommandLine.h"
#include "Json.h"

using TellarMaps::Options;
using TellarMaps::ParseCommandLine;
using TellarMaps::ServiceKind;
using TellarMaps::UsageError;

namespace {

std::vector<std::string> Words(const std::string& line) {
    std::istringstream in(line);
    std::vector<std::string> words;
    for (std::string w; in >> w;) words.push_back(w);
    return words;
}

std::string UsageErrorOf(const std::string& line) {
    try {
        ParseCommandLine(Words(line));
    } catch (const UsageError& e) {
        return e.what();
    }
    return "<accepted>";
}

} // namespace

TEST(CommandLine, AcceptsEachCommand) {
    Options tile = ParseCommandLine(
        Words("tile --tms http://h/{z}/{x}/{y}.png --epsg 3857 --zoom 3 --x 4 --y 2 -o t.png --cache c --quiet"));
    EXPECT_EQ(tile.command, "tile");
    EXPECT_EQ(tile.kind, ServiceKind::Tms);
    EXPECT_EQ(tile.url, "http://h/{z}/{x}/{y}.png");
    EXPECT_EQ(*tile.epsg, 3857u);
    EXPECT_EQ(*tile.y, 2);
    EXPECT_EQ(*tile.cacheDir, "c");
    EXPECT_TRUE(tile.quiet);

    Options mosaic = ParseCommandLine(
        Words("mosaic --tms http://u --epsg 4326 --zoom 5 --bbox -10.5,35,30,60 --best-effort -o m.tif --png m.png "
              "--target-epsg 4326 --log l.txt --log-level 1"));
    EXPECT_EQ((*mosaic.bbox)[0], -10.5);
    EXPECT_EQ((*mosaic.bbox)[3], 60.0);
    EXPECT_TRUE(mosaic.bestEffort);
    EXPECT_EQ(*mosaic.targetEpsg, 4326u);
    EXPECT_EQ(*mosaic.logLevel, 1u);
    EXPECT_FALSE(mosaic.compress.has_value());
    EXPECT_EQ(ParseCommandLine(Words("map --wms http://u --epsg 4326 --bbox 0,0,1,1 --size 4x4 -o m.tif "
                                     "--compress none"))
                  .compress,
              false);

    Options map =
        ParseCommandLine(Words("map --wms http://u --epsg 25832 --bbox 1,2,3,4 --size 640x480 --time 2020-01-01 -o a.tif"));
    EXPECT_EQ((*map.size)[0], 640u);
    EXPECT_EQ((*map.size)[1], 480u);
    EXPECT_EQ(ParseCommandLine(Words("info --wmts http://u --layer L --matrix-set GoogleMapsCompatible")).matrixSet,
              "GoogleMapsCompatible");
    EXPECT_EQ(ParseCommandLine(Words("seed --tms http://u --epsg 3857 --cache d --bbox 0,0,1,1 --max-zoom 4")).maxZoom, 4);
    EXPECT_EQ(ParseCommandLine(Words("seed --tms http://u --epsg 3857 --cache d --bbox 0,0,1,1 --max-zoom 4 --part 6/7"))
                  .part,
              (std::array<uint32_t, 2>{6, 7}));
    EXPECT_EQ(ParseCommandLine(Words("demo -o out")).output, "out");
    EXPECT_TRUE(ParseCommandLine(Words("tile --help")).help);
}

TEST(CommandLine, RefusesIncompleteOrContradictoryLines) {
    const struct {
        const char* line;
        const char* reason;
    } cases[] = {
        {"", "no command given"},
        {"draw --tms http://u --epsg 3857", "unknown command 'draw'"},
        {"info", "give one of --tms, --wms, --wmts and --wcs"},
        {"info --tms http://u --wms http://v --epsg 3857", "give exactly one of --tms, --wms, --wmts and --wcs"},
        {"info --tms http://u", "this service needs --epsg"},
        {"info --wmts http://u", "--wmts needs --layer"},
        {"info --tms http://u --epsg 3857 --bogus 1", "unknown option '--bogus'"},
        {"info --tms http://u --epsg", "--epsg needs a value"},
        {"info --tms http://u --epsg 38x", "--epsg takes a whole number, not '38x'"},
        {"tile --tms http://u --epsg 3857 --zoom 1 --x 0 -o t", "tile needs --zoom, --x and --y"},
        {"tile --tms http://u --epsg 3857 --zoom 1 --x 0 --y 0", "tile needs -o FILE"},
        {"mosaic --tms http://u --epsg 3857 --zoom 1 --bbox 1,2,3 -o m.tif",
         "--bbox takes four numbers: min x, min y, max x, max y"},
        {"mosaic --tms http://u --epsg 3857 --zoom 1 --bbox 1,2,3,4,5 -o m.tif",
         "--bbox takes four numbers: min x, min y, max x, max y"},
        {"mosaic --tms http://u --epsg 3857 --zoom 1 --bbox 5,2,3,4 -o m.tif",
         "--bbox: the minimum must not exceed the maximum"},
        {"mosaic --tms http://u --epsg 3857 --zoom 1 --bbox a,2,3,4 -o m.tif", "--bbox takes numbers, not 'a'"},
        {"map --tms http://u --epsg 3857 --bbox 1,2,3,4 --size 4x4 -o a.tif", "map needs a --wms service"},
        {"map --wms http://u --epsg 3857 --bbox 1,2,3,4 --size 0x4 -o a.tif", "--size takes a whole number, not '0'"},
        {"coverage --wcs http://u --epsg 4326 --bbox 1,2,3,4 -o c.tif", "coverage needs --bbox and --size"},
        {"seed --tms http://u --epsg 3857 --bbox 0,0,1,1 --max-zoom 3", "seed fills a cache: give --cache DIR"},
        {"seed --tms http://u --epsg 3857 --cache d --bbox 0,0,1,1 --max-zoom 3 --min-zoom 4",
         "--min-zoom must not exceed --max-zoom"},
        {"demo --tms http://u --epsg 3857", "demo serves its own tiles and takes no service"},
        {"info extra --tms http://u --epsg 3857", "unexpected argument 'extra'"},
        {"info --tms ftp://h/{z}/{x}/{y}.png --epsg 3857",
         "--tms takes an http:// or https:// URL, not 'ftp://h/{z}/{x}/{y}.png'"},
        {"info --wms h/wms --epsg 4326", "--wms takes an http:// or https:// URL, not 'h/wms'"},
        {"info --wmts http:// --layer L", "--wmts takes an http:// or https:// URL, not 'http://'"},
        {"tile --tms http://u --epsg 3857 --zoom 31 --x 0 --y 0 -o t", "--zoom takes 0 to 30, not 31"},
        {"seed --tms http://u --epsg 3857 --cache d --bbox 0,0,1,1 --max-zoom -1", "--max-zoom takes 0 to 30, not -1"},
        {"tile --tms http://u --epsg 3857 --zoom 1 --x -1 --y 0 -o t", "--x takes 0 or more, not -1"},
        {"tile --tms http://u --epsg 3857 --zoom 1 --x 0 --y 1.5 -o t", "--y takes a whole number, not '1.5'"},
        {"mosaic --tms http://u --epsg 4326 --zoom 1 --bbox nan,0,1,1 -o m.tif",
         "--bbox takes finite numbers, not 'nan,0,1,1'"},
        {"mosaic --tms http://u --epsg 4326 --zoom 1 --bbox -inf,0,1,1 -o m.tif",
         "--bbox takes finite numbers, not '-inf,0,1,1'"},
        {"map --wms http://u --epsg 4326 --bbox 1,2,1,4 --size 4x4 -o a.tif", "--bbox: the box has no area"},
        {"mosaic --tms http://u --epsg 4326 --zoom 1 --bbox 0,86,10,90 -o m.tif",
         "--bbox lies outside the tile grid: -180 to 180, -85.0511 to 85.0511 degrees"},
        {"info --tms http://u --epsg 3857 --timeout 0", "--timeout takes seconds from 0 to 86400, not 0"},
        {"seed --tms http://u --epsg 3857 --cache d --bbox 0,0,1,1 --max-zoom 3 --part 3/3",
         "--part takes K/N, a share K from 0 to N-1 of N from 1 to 1000000, not '3/3'"},
        {"seed --tms http://u --epsg 3857 --cache d --bbox 0,0,1,1 --max-zoom 3 --part -1/3",
         "--part takes K/N, a share K from 0 to N-1 of N from 1 to 1000000, not '-1/3'"},
        {"seed --tms http://u --epsg 3857 --cache d --bbox 0,0,1,1 --max-zoom 3 --part 1",
         "--part takes K/N, a share K from 0 to N-1 of N from 1 to 1000000, not '1'"},
        {"seed --wmts http://u --layer L --cache d --bbox 0,0,1,1 --max-zoom 3 --part 0/2",
         "--part needs a --tms service"},
        {"mosaic --tms http://u --epsg 4326 --zoom 1 --bbox 0,0,1,1 -o m.tif --part 0/2", "--part goes with seed"},
        {"mosaic --tms http://u --epsg 4326 --zoom 1 --bbox 0,0,1,1 -o m.tif --compress lzw",
         "--compress is deflate or none, not 'lzw'"},
        {"tile --tms http://u --epsg 3857 --zoom 1 --x 0 --y 0 -o t --compress deflate",
         "--compress goes with mosaic and map"},
    };
    for (const auto& c : cases) EXPECT_EQ(UsageErrorOf(c.line), c.reason) << c.line;
}

// The arguments are split on white space; an empty --cache needs a list of its own.
TEST(CommandLine, RefusesAnEmptyCache) {
    try {
        ParseCommandLine({"info", "--tms", "http://u", "--epsg", "3857", "--cache", ""});
        ADD_FAILURE() << "accepted";
    } catch (const UsageError& e) {
        EXPECT_STREQ(e.what(), "--cache needs a directory, not an empty path");
    }
}

// Tile columns and rows at the grid's right and bottom edges lie one past the last: a box
// that reaches them is cut a hair inside, in the CRS it is read in.
TEST(CommandLine, CutsATmsBoxToTheGrid) {
    const struct {
        std::array<double, 4> box;
        uint32_t epsg;
        std::array<double, 4> low, high; // bounds of each cut value
    } cases[] = {
        {{-180, -90, 180, 90}, 4326, {-180, -85.0511288, 179.999999, 85.0511287}, {-179.999999, -85.0511287, 180, 85.0511288}},
        {{-2.1e7, -2.1e7, 2.1e7, 2.1e7}, 3857, {-20037508.343, -20037508.343, 20037508.34, 20037508.34},
         {-20037508.34, -20037508.34, 20037508.343, 20037508.343}},
        {{5, 44, 16, 50}, 4326, {5, 44, 16, 50}, {5, 44, 16, 50}},
        {{-1e9, -1e9, 1e9, 1e9}, 32632, {-1e9, -1e9, 1e9, 1e9}, {-1e9, -1e9, 1e9, 1e9}},
    };
    for (const auto& c : cases) {
        const auto cut = TellarMaps::CutToGrid(c.box, c.epsg);
        for (int i = 0; i < 4; ++i) {
            EXPECT_GE(cut[i], c.low[i]) << c.epsg << " " << i;
            EXPECT_LE(cut[i], c.high[i]) << c.epsg << " " << i;
        }
        if (c.epsg == 4326) {
            EXPECT_LT(cut[2], 180.0);
        }
    }
    EXPECT_EQ((*ParseCommandLine(Words("seed --tms http://u --epsg 3857 --target-epsg 4326 --cache d "
                                       "--bbox -180,-90,180,90 --max-zoom 1"))
                   .bbox)[3],
              TellarMaps::CutToGrid({0, 0, 1, 90}, 4326)[3]);
}

TEST(Json, ObjectTextAndEscapes) {
    TellarMaps::JsonObject json;
    json.Add("kind", "tms")
        .Add("zoom", int64_t{5})
        .Add("bounds", std::vector<double>{-180, 0.5})
        .Add("q", "a\"b\\c\n\x01");
    EXPECT_EQ(json.Text(), R"({"kind":"tms","zoom":5,"bounds":[-180,0.5],"q":"a\"b\\c\n\u0001"})");
    EXPECT_EQ(TellarMaps::JsonObject().Text(), "{}");
}
