// The interop fixtures against plain HTTP and the project's capabilities readers: each server
// starts, serves the data it was given, and its documents are what the readers make of them.
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <png.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "InteropServers.h"
#include "MapServices/Wcs/WcsCapabilities.h"
#include "MapServices/Wms/WmsCapabilities.h"
#include "MapServices/Wmts/WmtsCapabilities.h"

using namespace InteropTests;

namespace InteropTests {
void PrintTo(const Rgb& c, std::ostream* out) { *out << "rgb(" << c.red << "," << c.green << "," << c.blue << ")"; }
} // namespace InteropTests

namespace {

struct Rgba {
    int width = 0, height = 0;
    std::vector<uint8_t> pixels; // RGBA, rows top down

    Rgb At(int x, int y) const {
        const uint8_t* p = &pixels[(size_t(y) * width + x) * 4];
        return {p[0], p[1], p[2]};
    }
};

// Decodes a PNG with libpng; an empty image when `bytes` is no PNG.
Rgba DecodePng(const std::string& bytes) {
    Rgba image;
    png_image png{};
    png.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_memory(&png, bytes.data(), bytes.size())) return image;
    png.format = PNG_FORMAT_RGBA;
    image.pixels.resize(PNG_IMAGE_SIZE(png));
    if (!png_image_finish_read(&png, nullptr, image.pixels.data(), 0, nullptr)) {
        png_image_free(&png);
        return {};
    }
    image.width = int(png.width);
    image.height = int(png.height);
    return image;
}

// The pixel at a longitude/latitude in an EPSG:4326 image of `box`.
Rgb PixelAt(const Rgba& image, const LonLatBox& box, double lon, double lat) {
    const int x = int((lon - box.minX) / (box.maxX - box.minX) * image.width);
    const int y = int((box.maxY - lat) / (box.maxY - box.minY) * image.height);
    return image.At(x, y);
}

// The values of a one-band raster file by (column, row), read with GDAL's XYZ writer; NaN where
// the file has no value.
std::vector<std::vector<double>> ReadGrid(const std::string& file, double left, double top, double cell, int columns,
                                          int rows) {
    std::vector<std::vector<double>> grid(size_t(rows), std::vector<double>(size_t(columns), std::nan("")));
    std::stringstream lines(RunChecked({"gdal_translate", "-q", "-of", "XYZ", file, "/vsistdout/"}));
    double x = 0, y = 0, value = 0;
    while (lines >> x >> y >> value) {
        const int column = int(std::floor((x - left) / cell)), row = int(std::floor((top - y) / cell));
        if (column >= 0 && column < columns && row >= 0 && row < rows) grid[size_t(row)][size_t(column)] = value;
    }
    return grid;
}

template <class T>
bool Contains(const std::vector<T>& values, const T& value) {
    return std::find(values.begin(), values.end(), value) != values.end();
}

// Each suite starts its servers once; the servers stop when the suite ends.
class MapServerTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        const auto start = std::chrono::steady_clock::now();
        server = std::make_unique<MapServerFixture>();
        std::cout
            << "MapServer fixture ready in "
            << std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count()
            << " ms\n";
    }
    static void TearDownTestSuite() { server.reset(); }
    void SetUp() override {
        ASSERT_TRUE(server) << "the MapServer fixture did not start";
        if (!server->Missing().empty()) GTEST_SKIP() << server->Missing();
    }

    static std::unique_ptr<MapServerFixture> server;
};
std::unique_ptr<MapServerFixture> MapServerTest::server;

TEST_F(MapServerTest, WmsCapabilitiesListTheLeavesOfTheGroupAndTheTimeDimension) {
    const HttpAnswer answer = HttpGet(server->WmsCapabilitiesUrl());
    ASSERT_EQ(answer.status, 200) << answer.body;
    const MapServices::Wms::WmsCapabilities caps(answer.body);

    EXPECT_EQ(caps.version, "1.3.0");
    EXPECT_FALSE(caps.GetLayer(MapServerFixture::GroupLayer)) << "a group is no leaf";
    for (const auto& leaf : MapServerFixture::Leaves) {
        const auto layer = caps.GetLayer(leaf.name);
        ASSERT_TRUE(layer) << leaf.name;
        EXPECT_TRUE(Contains(layer->crsList, std::string("EPSG:3857")) ||
                    Contains(caps.crsList, std::string("EPSG:3857")));
    }
    EXPECT_FALSE(caps.GetLayer(MapServerFixture::Coverage)) << "the grid is offered by WCS only";

    const auto daily = caps.GetLayer(MapServerFixture::TimeLayer);
    ASSERT_TRUE(daily);
    const auto time = daily->GetTimeDimension();
    ASSERT_TRUE(time);
    EXPECT_EQ(time->defaultValue, MapServerFixture::Days[0].date);
    std::vector<std::string> days;
    for (const auto& day : MapServerFixture::Days) days.push_back(day.date);
    EXPECT_EQ(time->values, days);
}

TEST_F(MapServerTest, TimeLayerDrawsTheColourOfEachDay) {
    const LonLatBox box = MapServerFixture::TimeLayerBox;
    std::vector<std::string> bodies;
    for (const auto& day : MapServerFixture::Days) {
        const HttpAnswer answer = HttpGet(server->GetMapUrl(MapServerFixture::TimeLayer, box, 64, 32, day.date));
        ASSERT_EQ(answer.status, 200) << day.date;
        EXPECT_EQ(answer.contentType, "image/png") << day.date;
        const Rgba image = DecodePng(answer.body);
        ASSERT_EQ(image.width, 64) << day.date << ": " << answer.body.substr(0, 400);
        EXPECT_EQ(image.At(32, 16), day.colour) << day.date;
        bodies.push_back(answer.body);
    }
    EXPECT_NE(bodies[0], bodies[1]);
    EXPECT_NE(bodies[1], bodies[2]);
}

TEST_F(MapServerTest, GroupDrawsBothLeaves) {
    const LonLatBox box = MapServerFixture::MapBox;
    const HttpAnswer answer = HttpGet(server->GetMapUrl(MapServerFixture::GroupLayer, box, 80, 40));
    ASSERT_EQ(answer.status, 200);
    const Rgba image = DecodePng(answer.body);
    ASSERT_EQ(image.width, 80) << answer.body.substr(0, 400);
    for (const auto& leaf : MapServerFixture::Leaves) {
        const double lon = (leaf.box.minX + leaf.box.maxX) / 2, lat = (leaf.box.minY + leaf.box.maxY) / 2;
        EXPECT_EQ(PixelAt(image, box, lon, lat), leaf.colour) << leaf.name;
    }
}

TEST_F(MapServerTest, GetMapInWebMercator) {
    const HttpAnswer answer = HttpGet(server->Url() +
                                      "?SERVICE=WMS&REQUEST=GetMap&VERSION=1.3.0&LAYERS=basemap&STYLES="
                                      "&CRS=EPSG:3857&BBOX=-2226389.8,-1118889.97,2226389.8,1118889.97"
                                      "&WIDTH=100&HEIGHT=50&FORMAT=image/png");
    ASSERT_EQ(answer.status, 200);
    const Rgba image = DecodePng(answer.body);
    ASSERT_EQ(image.width, 100) << answer.body.substr(0, 400);
    EXPECT_EQ(image.At(75, 12), MapServerFixture::Leaves[0].colour);
    EXPECT_EQ(image.At(25, 37), MapServerFixture::Leaves[1].colour);
}

TEST_F(MapServerTest, WcsCapabilitiesOfferTheGrid) {
    const HttpAnswer answer = HttpGet(server->WcsCapabilitiesUrl());
    ASSERT_EQ(answer.status, 200) << answer.body;
    const MapServices::Wcs::WcsCapabilities caps(answer.body);
    ASSERT_EQ(caps.layers.size(), 2u);
    EXPECT_EQ(caps.layers[1]->name, MapServerFixture::UtmCoverage);
    const auto& grid = caps.layers[0];
    EXPECT_EQ(grid->name, MapServerFixture::Coverage);
    const LonLatBox& box = MapServerFixture::GridBox;
    EXPECT_EQ(grid->box, (MapServices::BoundingBoxValue{box.minX, box.minY, box.maxX, box.maxY}));
    // The service offers GET and POST; the reader takes GET.
    EXPECT_EQ(grid->method, MapServices::Wcs::impl::WcsLayerImpl::Get);
    EXPECT_EQ(grid->url, server->Url());
}

// GetCoverage by GET and by a form-encoded POST return the same Float32 pixels, those of the formula.
TEST_F(MapServerTest, GetCoverageReturnsTheFormula) {
    const std::string query =
        server->GetCoverageQuery(MapServerFixture::GridBox, MapServerFixture::GridColumns, MapServerFixture::GridRows);
    const struct {
        const char* how;
        HttpAnswer answer;
    } cases[] = {
        {"GET", HttpGet(server->Url() + "?" + query)},
        {"POST", HttpPost(server->Url(), query, "application/x-www-form-urlencoded")},
    };
    for (const auto& c : cases) {
        ASSERT_EQ(c.answer.status, 200) << c.how;
        ASSERT_EQ(c.answer.contentType, "image/tiff") << c.how << ": " << c.answer.body.substr(0, 600);
        const std::string file = (server->Directory() / fmt::format("coverage-{}.tif", c.how)).string();
        std::ofstream(file, std::ios::binary) << c.answer.body;
        const auto grid =
            ReadGrid(file, MapServerFixture::GridLeft, MapServerFixture::GridTop, MapServerFixture::GridCell,
                     MapServerFixture::GridColumns, MapServerFixture::GridRows);
        int wrong = 0;
        for (int row = 0; row < MapServerFixture::GridRows; ++row)
            for (int column = 0; column < MapServerFixture::GridColumns; ++column)
                if (grid[size_t(row)][size_t(column)] != MapServerFixture::GridValue(column, row) && wrong++ < 5)
                    ADD_FAILURE() << c.how << " pixel " << column << "," << row << " is "
                                  << grid[size_t(row)][size_t(column)];
        EXPECT_EQ(wrong, 0) << c.how;
    }
}

// An XML GetCoverage (the shape the WCS fetcher posts) is parsed, but its CRS is not taken.
TEST_F(MapServerTest, GetCoverageByXmlPostIsRefused) {
    const std::string body = fmt::format(
        R"(<?xml version="1.0" encoding="UTF-8"?><GetCoverage version="1.0.0" service="WCS" xmlns="http://www.opengis.net/wcs" xmlns:gml="http://www.opengis.net/gml">
  <sourceCoverage>{}</sourceCoverage>
  <domainSubset><spatialSubset>
    <gml:Envelope srsName="EPSG:4326"><gml:pos>0 0</gml:pos><gml:pos>20 10</gml:pos></gml:Envelope>
    <gml:Grid dimension="2"><gml:limits><gml:GridEnvelope><gml:low>0 0</gml:low><gml:high>40 20</gml:high></gml:GridEnvelope></gml:limits>
      <gml:axisName>E</gml:axisName><gml:axisName>N</gml:axisName></gml:Grid>
  </spatialSubset></domainSubset>
  <output><crs>EPSG:4326</crs><format>GTiff</format></output>
</GetCoverage>)",
        MapServerFixture::Coverage);
    const HttpAnswer answer = HttpPost(server->Url(), body, "application/xml");
    EXPECT_EQ(answer.status, 200);
    EXPECT_NE(answer.contentType.find("application/vnd.ogc.se_xml"), std::string::npos) << answer.contentType;
    EXPECT_NE(answer.body.find(MapServerFixture::WcsXmlPostRefusal), std::string::npos) << answer.body;
}

} // namespace

namespace {

class MapCacheTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        const auto start = std::chrono::steady_clock::now();
        source = std::make_unique<MapServerFixture>();
        server = std::make_unique<MapCacheFixture>(*source);
        std::cout
            << "MapServer and MapCache fixtures ready in "
            << std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count()
            << " ms\n";
    }
    static void TearDownTestSuite() {
        server.reset();
        source.reset();
    }
    void SetUp() override {
        ASSERT_TRUE(server) << "the MapCache fixture did not start";
        if (!server->Missing().empty()) GTEST_SKIP() << server->Missing();
    }

    static std::unique_ptr<MapServerFixture> source;
    static std::unique_ptr<MapCacheFixture> server;
};
std::unique_ptr<MapServerFixture> MapCacheTest::source;
std::unique_ptr<MapCacheFixture> MapCacheTest::server;

// The pixel of a longitude/latitude in tile (x, y) of level z of an EPSG:3857 grid whose level 0 is
// one tile of `size` pixels.
std::pair<int, int> WebMercatorPixel(double lon, double lat, int z, int x, int y, int size) {
    const double pi = std::acos(-1.0);
    const double u = lon / 360 + 0.5;                                              // 0..1 west to east
    const double v = 0.5 - std::log(std::tan(pi / 4 + lat * pi / 360)) / (2 * pi); // 0..1 north to south
    const double pixels = double(size) * (1 << z);
    return {int(u * pixels) - x * size, int(v * pixels) - y * size};
}

TEST_F(MapCacheTest, WmtsCapabilitiesParseWithEveryGrid) {
    for (const auto& url : {server->WmtsRestCapabilitiesUrl(), server->WmtsKvpCapabilitiesUrl()}) {
        SCOPED_TRACE(url);
        const HttpAnswer answer = HttpGet(url);
        ASSERT_EQ(answer.status, 200) << answer.body;
        const MapServices::Wmts::WmtsCapabilities caps(answer.body);
        ASSERT_EQ(caps.layers.size(), 1u);
        const auto& layer = caps.layers[0];
        EXPECT_EQ(layer->identifier, MapCacheFixture::Layer);
        // The layer's WGS 84 box is the whole world, not the extent of the data.
        EXPECT_EQ(layer->wgs84Box, (MapServices::BoundingBoxValue{-180, -90, 180, 90}));
        EXPECT_EQ(layer->currentTileMatrixSet, "GoogleMapsCompatible");
        ASSERT_EQ(layer->tileMatrixSets.size(), MapCacheFixture::Grids.size());
        for (const auto& grid : MapCacheFixture::Grids) {
            SCOPED_TRACE(grid.name);
            const auto& set = layer->tileMatrixSets.at(grid.name);
            EXPECT_EQ(set->supportedCrs, fmt::format("urn:ogc:def:crs:EPSG:6.3:{}", grid.epsg));
            EXPECT_EQ(set->epsgCode, grid.epsg);
            const auto matrices = set->GetTileMatrices();
            ASSERT_FALSE(matrices.empty());
            EXPECT_EQ(matrices[0].tileWidth, grid.tileSize);
            EXPECT_EQ(matrices[0].matrixWidth, grid.epsg == 4326 ? 2 : 1);
            // Corners as written: latitude first in EPSG:4326.
            const double top = grid.epsg == 4326 ? 90 : 20037508.342789;
            const double left = grid.epsg == 4326 ? -180 : -20037508.342789;
            EXPECT_EQ(matrices[0].topLeftX, grid.epsg == 4326 ? top : left);
            EXPECT_EQ(matrices[0].topLeftY, grid.epsg == 4326 ? left : top);
        }
    }
}

// REST and KVP tiles of every grid are PNGs of the grid's tile size, drawn from MapServer.
TEST_F(MapCacheTest, TilesOfEveryGrid) {
    const auto& land = MapServerFixture::Leaves[0];
    for (const auto& grid : MapCacheFixture::Grids) {
        for (const bool rest : {true, false}) {
            SCOPED_TRACE(fmt::format("{} {}", grid.name, rest ? "REST" : "KVP"));
            const std::string url =
                rest ? server->RestTileUrl(grid.name, 1, 1, 0) : server->KvpTileUrl(grid.name, 1, 1, 0);
            const HttpAnswer answer = HttpGet(url);
            ASSERT_EQ(answer.status, 200) << answer.body.substr(0, 400);
            EXPECT_EQ(answer.contentType, "image/png");
            const Rgba image = DecodePng(answer.body);
            EXPECT_EQ(image.width, grid.tileSize);
            EXPECT_EQ(image.height, grid.tileSize);
            if (grid.epsg != 3857 || image.width != grid.tileSize) continue;
            const auto [x, y] = WebMercatorPixel(10, 5, 1, 1, 0, grid.tileSize);
            EXPECT_EQ(image.At(x, y), land.colour) << x << "," << y;
        }
    }
}

} // namespace

namespace {

class MapProxyTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        const auto start = std::chrono::steady_clock::now();
        source = std::make_unique<MapServerFixture>();
        server = std::make_unique<MapProxyFixture>(*source);
        std::cout
            << "MapServer and MapProxy fixtures ready in "
            << std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count()
            << " ms\n";
    }
    static void TearDownTestSuite() {
        server.reset();
        source.reset();
    }
    void SetUp() override {
        ASSERT_TRUE(server) << "the MapProxy fixture did not start";
        if (!server->Missing().empty()) GTEST_SKIP() << server->Missing();
    }

    static std::unique_ptr<MapServerFixture> source;
    static std::unique_ptr<MapProxyFixture> server;
};
std::unique_ptr<MapServerFixture> MapProxyTest::source;
std::unique_ptr<MapProxyFixture> MapProxyTest::server;

TEST_F(MapProxyTest, WmsCapabilitiesAndGetMap) {
    const HttpAnswer caps = HttpGet(server->WmsCapabilitiesUrl());
    ASSERT_EQ(caps.status, 200) << caps.body;
    const MapServices::Wms::WmsCapabilities wms(caps.body);
    const auto layer = wms.GetLayer(MapProxyFixture::Layer);
    ASSERT_TRUE(layer);
    for (const std::string crs : {"EPSG:4326", "EPSG:3857"})
        EXPECT_TRUE(Contains(layer->crsList, crs) || Contains(wms.crsList, crs)) << crs;

    const LonLatBox box = MapServerFixture::MapBox;
    const HttpAnswer answer = HttpGet(server->GetMapUrl(box, 80, 40));
    ASSERT_EQ(answer.status, 200);
    EXPECT_EQ(answer.contentType, "image/png");
    const Rgba image = DecodePng(answer.body);
    ASSERT_EQ(image.width, 80) << answer.body.substr(0, 400);
    for (const auto& leaf : MapServerFixture::Leaves) {
        const double lon = (leaf.box.minX + leaf.box.maxX) / 2, lat = (leaf.box.minY + leaf.box.maxY) / 2;
        EXPECT_EQ(PixelAt(image, box, lon, lat), leaf.colour) << leaf.name;
    }
}

// MapProxy writes SupportedCRS as "EPSG:3857"; the WMTS reader refuses the whole document.
TEST_F(MapProxyTest, WmtsCapabilitiesAreRefusedForTheirCrsForm) {
    for (const auto& url : {server->WmtsRestCapabilitiesUrl(), server->WmtsKvpCapabilitiesUrl()}) {
        SCOPED_TRACE(url);
        const HttpAnswer answer = HttpGet(url);
        ASSERT_EQ(answer.status, 200) << answer.body;
        for (const auto& grid : {MapProxyFixture::WebMercatorGrid, MapProxyFixture::GeodeticGrid})
            EXPECT_NE(answer.body.find(fmt::format("<ows:Identifier>{}</ows:Identifier>", grid)), std::string::npos)
                << grid;
        EXPECT_NE(answer.body.find("<ows:SupportedCRS>EPSG:3857</ows:SupportedCRS>"), std::string::npos);
        try {
            const MapServices::Wmts::WmtsCapabilities caps(answer.body);
            ADD_FAILURE() << "parsed";
        } catch (const std::runtime_error& e) {
            EXPECT_STREQ(e.what(), "Unsupported format! Following format is supported: urn:ogc:def:crs:EPSG::4326");
        }
    }
}

TEST_F(MapProxyTest, WmtsTilesOfEveryGrid) {
    for (const auto& grid : {MapProxyFixture::WebMercatorGrid, MapProxyFixture::GeodeticGrid}) {
        const HttpAnswer answer = HttpGet(server->RestTileUrl(grid, 1, 1, 0));
        ASSERT_EQ(answer.status, 200) << grid << ": " << answer.body.substr(0, 400);
        const Rgba image = DecodePng(answer.body);
        EXPECT_EQ(image.width, 256) << grid;
        EXPECT_EQ(image.height, 256) << grid;
    }
}

} // namespace
