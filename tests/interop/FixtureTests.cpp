// The interop fixtures against plain HTTP and the project's capabilities readers: each server
// starts, serves the data it was given, and its documents are what the readers make of them.
#include <fmt/format.h>
#include <gtest/gtest.h>

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


} // namespace

namespace {





} // namespace
