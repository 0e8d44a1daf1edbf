#include <gtest/gtest.h>

#include <fmt/format.h>

#include <cmath>
#include <cstring>
#include <cstdlib>
#include <string>
#include <vector>

#include "InteropServers.h"
#include "Core/Ptr.h"
#include "TellarImaging/Exports.h"

// tellar-maps against real servers: its GeoTIFFs as GDAL places them.

namespace {

using namespace InteropTests;

#define SKIP_IF_MISSING(fixture) \
    if (!(fixture).Missing().empty()) GTEST_SKIP() << (fixture).Missing()

// Runs tellar-maps with `args`; a failure shows its stderr.
ProcessResult Tool(std::vector<std::string> args) {
    args.insert(args.begin(), TELLAR_MAPS_BINARY);
    return RunProcess(args, {}, {}, std::chrono::seconds(120));
}

// What gdalinfo -json says of a raster: size, data type, EPSG code and the six-number transform.
struct Placed {
    std::vector<double> size, transform;
    std::string type;
    int epsg = 0;
};

// The numbers of the JSON array behind "key".
std::vector<double> NumbersAfter(const std::string& json, const std::string& key) {
    std::vector<double> numbers;
    size_t at = json.find("\"" + key + "\"");
    if (at == std::string::npos) return numbers;
    at = json.find('[', at);
    const size_t end = json.find(']', at);
    for (size_t i = at + 1; i < end;) {
        char* stop = nullptr;
        const double value = std::strtod(json.c_str() + i, &stop);
        if (stop == json.c_str() + i) {
            ++i;
            continue;
        }
        numbers.push_back(value);
        i = static_cast<size_t>(stop - json.c_str());
    }
    return numbers;
}

Placed GdalInfo(const std::string& path) {
    const ProcessResult info = RunProcess({"gdalinfo", "-json", path});
    EXPECT_EQ(info.exitCode, 0) << info.err;
    Placed placed;
    placed.size = NumbersAfter(info.out, "size");
    placed.transform = NumbersAfter(info.out, "geoTransform");
    const size_t type = info.out.find("\"type\":\"", info.out.find("\"bands\""));
    if (type != std::string::npos) placed.type = info.out.substr(type + 8, info.out.find('"', type + 8) - type - 8);
    const size_t id = info.out.rfind("ID[\\\"EPSG\\\",");
    if (id != std::string::npos) placed.epsg = std::atoi(info.out.c_str() + id + 12);
    return placed;
}

void ExpectTransform(const Placed& placed, const std::vector<double>& expected, double tolerance) {
    ASSERT_EQ(placed.transform.size(), 6u);
    for (size_t i = 0; i < 6; ++i) EXPECT_NEAR(placed.transform[i], expected[i], tolerance) << "term " << i;
}

} // namespace

TEST(CliInterop, MapAndCoverageArePlacedAtTheirBox) {
    MapServerFixture mapserver;
    SKIP_IF_MISSING(mapserver);
    TestSupport::TempDir dir;

    const ProcessResult map = Tool({"map", "--wms", mapserver.WmsCapabilitiesUrl(), "--layer", "daily", "--epsg", "4326",
                                    "--bbox", "-20,-10,20,10", "--size", "200x100", "--time", "2024-05-03", "-o",
                                    dir.File("map.tif")});
    ASSERT_EQ(map.exitCode, 0) << map.err;
    EXPECT_EQ(map.out, "{\"width\":200,\"height\":100,\"epsg\":4326}\n");
    const Placed picture = GdalInfo(dir.File("map.tif"));
    EXPECT_EQ(picture.epsg, 4326);
    EXPECT_EQ(picture.type, "Byte");
    EXPECT_EQ(picture.size, (std::vector<double>{200, 100}));
    ExpectTransform(picture, {-20, 0.2, 0, 10, 0, -0.2}, 1e-9);

    const LonLatBox& g = MapServerFixture::UtmGridBox;
    const ProcessResult coverage =
        Tool({"coverage", "--wcs", mapserver.WcsCapabilitiesUrl(), "--coverage", MapServerFixture::UtmCoverage,
              "--epsg", "32632", "--bbox", fmt::format("{},{},{},{}", g.minX, g.minY, g.maxX, g.maxY), "--size",
              "40x20", "-o", dir.File("grid.tif")});
    ASSERT_EQ(coverage.exitCode, 0) << coverage.err;
    const Placed grid = GdalInfo(dir.File("grid.tif"));
    EXPECT_EQ(grid.epsg, MapServerFixture::UtmEpsg);
    EXPECT_EQ(grid.type, "Float32");
    ExpectTransform(grid, {g.minX, MapServerFixture::UtmGridCell, 0, g.maxY, 0, -MapServerFixture::UtmGridCell}, 1e-6);

    // A refusal in XML under status 200 is no coverage: nothing is written.
    const ProcessResult refused = Tool({"coverage", "--wcs", mapserver.WcsCapabilitiesUrl(), "--epsg", "4326",
                                        "--bbox", "0,0,20,10", "--size", "40x20", "-o", dir.File("refused.tif")});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_EQ(refused.err.rfind("error: the server's answer is no coverage: <?xml", 0), 0u) << refused.err;
    EXPECT_FALSE(std::filesystem::exists(dir.File("refused.tif")));
}

// A mosaic of MapCache's Web-Mercator tiles around the origin, at level 3 of its 256- and
// 512-pixel sets, equals GDAL's own WMTS reading of the same tiles: the same grid within 1e-6 of
// a pixel and every sample the same. The box is a quarter pixel off the grid, where both cut
// the same pixels.
TEST(CliInterop, WmtsMosaicEqualsGdalsReading) {
    MapServerFixture mapserver;
    MapCacheFixture mapcache(mapserver);
    SKIP_IF_MISSING(mapcache);
    TestSupport::TempDir dir;
    for (const auto& [set, tileSize] : {std::pair<std::string, int>{"GoogleMapsCompatible", 256}, {"g512", 512}}) {
        SCOPED_TRACE(set);
        const double pixel = 2 * 20037508.342789244 / (8.0 * tileSize);
        const double minX = -100.25 * pixel, minY = -50.25 * pixel, maxX = 99.75 * pixel, maxY = 49.75 * pixel;
        const std::string ours = dir.File(set + ".tif"), theirs = dir.File(set + "-gdal.tif");
        const ProcessResult mosaic = Tool({"mosaic", "--wmts", mapcache.WmtsRestCapabilitiesUrl(), "--layer",
                                           MapCacheFixture::Layer, "--matrix-set", set, "--zoom", "3", "--bbox",
                                           fmt::format("{},{},{},{}", minX, minY, maxX, maxY), "-o", ours});
        ASSERT_EQ(mosaic.exitCode, 0) << mosaic.err;
        const ProcessResult gdal = RunProcess(
            {"gdal_translate", "-q", "--config", "GDAL_DEFAULT_WMS_CACHE_PATH", dir.File("gdal-cache"),
             fmt::format("WMTS:{},layer={},tilematrixset={},zoom_level=3", mapcache.WmtsRestCapabilitiesUrl(),
                         MapCacheFixture::Layer, set),
             "-projwin", fmt::format("{}", minX), fmt::format("{}", maxY), fmt::format("{}", maxX),
             fmt::format("{}", minY), theirs},
            {}, {}, std::chrono::seconds(120));
        ASSERT_EQ(gdal.exitCode, 0) << gdal.err;

        const Placed a = GdalInfo(ours), b = GdalInfo(theirs);
        EXPECT_EQ(a.epsg, 3857);
        EXPECT_EQ(a.size, b.size);
        ASSERT_EQ(b.transform.size(), 6u);
        for (size_t i = 0; i < 6; ++i) EXPECT_NEAR(a.transform[i], b.transform[i], 1e-6 * pixel) << "term " << i;
        const auto open = [](const std::string& path) {
            Core::Ptr<TellarImaging::IImage> image;
            EXPECT_TRUE(OpenImageA(path.c_str(), image.ReceiveAddress(), nullptr)) << path;
            return image;
        };
        const auto mine = open(ours), gdals = open(theirs);
        ASSERT_TRUE(mine.Raw() && gdals.Raw());
        ASSERT_EQ(mine->GetSamplesPerPixel(), gdals->GetSamplesPerPixel());
        int differing = 0;
        for (int32_t y = 0; y < mine->GetHeight(); ++y)
            for (int32_t x = 0; x < mine->GetWidth(); ++x)
                differing += std::memcmp(mine->GetPixelPointer(x, y), gdals->GetPixelPointer(x, y),
                                         static_cast<size_t>(mine->GetSamplesPerPixel())) != 0;
        EXPECT_EQ(differing, 0);
    }
}
