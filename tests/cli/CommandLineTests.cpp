#include <gtest/gtest.h>

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
        Words("tile --tms http://h/{z}/{x}/{y}.png --epsg 3857 --zoom 3 --x 4 --y -2 -o t.png --cache c --quiet"));
    EXPECT_EQ(tile.command, "tile");
    EXPECT_EQ(tile.kind, ServiceKind::Tms);
    EXPECT_EQ(tile.url, "http://h/{z}/{x}/{y}.png");
    EXPECT_EQ(*tile.epsg, 3857u);
    EXPECT_EQ(*tile.y, -2);
    EXPECT_EQ(*tile.cacheDir, "c");
    EXPECT_TRUE(tile.quiet);

    Options mosaic = ParseCommandLine(
        Words("mosaic --tms u --epsg 4326 --zoom 5 --bbox -10.5,35,30,60 --best-effort -o m.tif --png m.png "
              "--target-epsg 4326 --log l.txt --log-level 1"));
    EXPECT_EQ((*mosaic.bbox)[0], -10.5);
    EXPECT_EQ((*mosaic.bbox)[3], 60.0);
    EXPECT_TRUE(mosaic.bestEffort);
    EXPECT_EQ(*mosaic.targetEpsg, 4326u);
    EXPECT_EQ(*mosaic.logLevel, 1u);

    Options map =
        ParseCommandLine(Words("map --wms u --epsg 25832 --bbox 1,2,3,4 --size 640x480 --time 2020-01-01 -o a.tif"));
    EXPECT_EQ((*map.size)[0], 640u);
    EXPECT_EQ((*map.size)[1], 480u);
    EXPECT_EQ(ParseCommandLine(Words("info --wmts u --layer L --matrix-set GoogleMapsCompatible")).matrixSet,
              "GoogleMapsCompatible");
    EXPECT_EQ(ParseCommandLine(Words("seed --tms u --epsg 3857 --cache d --bbox 0,0,1,1 --max-zoom 4")).maxZoom, 4);
    EXPECT_EQ(ParseCommandLine(Words("demo -o out")).output, "out");
    EXPECT_TRUE(ParseCommandLine(Words("tile --help")).help);
}

TEST(CommandLine, RefusesIncompleteOrContradictoryLines) {
    const struct {
        const char* line;
        const char* reason;
    } cases[] = {
        {"", "no command given"},
        {"draw --tms u --epsg 3857", "unknown command 'draw'"},
        {"info", "give one of --tms, --wms, --wmts and --wcs"},
        {"info --tms u --wms v --epsg 3857", "give exactly one of --tms, --wms, --wmts and --wcs"},
        {"info --tms u", "this service needs --epsg"},
        {"info --wmts u", "--wmts needs --layer"},
        {"info --tms u --epsg 3857 --bogus 1", "unknown option '--bogus'"},
        {"info --tms u --epsg", "--epsg needs a value"},
        {"info --tms u --epsg 38x", "--epsg takes a whole number, not '38x'"},
        {"tile --tms u --epsg 3857 --zoom 1 --x 0 -o t", "tile needs --zoom, --x and --y"},
        {"tile --tms u --epsg 3857 --zoom 1 --x 0 --y 0", "tile needs -o FILE"},
        {"mosaic --tms u --epsg 3857 --zoom 1 --bbox 1,2,3 -o m.tif",
         "--bbox takes four numbers: min x, min y, max x, max y"},
        {"mosaic --tms u --epsg 3857 --zoom 1 --bbox 1,2,3,4,5 -o m.tif",
         "--bbox takes four numbers: min x, min y, max x, max y"},
        {"mosaic --tms u --epsg 3857 --zoom 1 --bbox 5,2,3,4 -o m.tif",
         "--bbox: the minimum must not exceed the maximum"},
        {"mosaic --tms u --epsg 3857 --zoom 1 --bbox a,2,3,4 -o m.tif", "--bbox takes numbers, not 'a'"},
        {"map --tms u --epsg 3857 --bbox 1,2,3,4 --size 4x4 -o a.tif", "map needs a --wms service"},
        {"map --wms u --epsg 3857 --bbox 1,2,3,4 --size 0x4 -o a.tif", "--size takes a whole number, not '0'"},
        {"coverage --wcs u --epsg 4326 --bbox 1,2,3,4 -o c.tif", "coverage needs --bbox and --size"},
        {"seed --tms u --epsg 3857 --bbox 0,0,1,1 --max-zoom 3", "seed fills a cache: give --cache DIR"},
        {"seed --tms u --epsg 3857 --cache d --bbox 0,0,1,1 --max-zoom 3 --min-zoom 4",
         "--min-zoom must not exceed --max-zoom"},
        {"demo --tms u --epsg 3857", "demo serves its own tiles and takes no service"},
        {"info extra --tms u --epsg 3857", "unexpected argument 'extra'"},
    };
    for (const auto& c : cases) EXPECT_EQ(UsageErrorOf(c.line), c.reason) << c.line;
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
