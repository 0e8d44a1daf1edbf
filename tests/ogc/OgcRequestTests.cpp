#include <gtest/gtest.h>

#include <string>

#include "Core/Fnv1a.h"
#include "OgcTestSupport.h"
#include "Wcs/WcsFetcher.h"
#include "Wcs/WcsRequestImpl.h"
#include "Wmts/WmtsFetcherImpl.h"
#include "Wms/WmsFetcher.h"
#include "Wms/WmsRequestImpl.h"

using MapServices::BoundingBoxValue;
using MapServices::Wms::WmsDimension;
using MapServices::Wms::impl::WmsRequestImpl;
using namespace OgcTests;

namespace {

const BoundingBoxValue WorldTile = MapServices::Wms::impl::TileToBoundingBox(0, 0, 0);

Core::Ptr<WmsRequestImpl> Wms(const std::string& url, std::optional<WmsDimension> time = {},
                              std::optional<WmsDimension> elevation = {}) {
    return Core::MakeObject<WmsRequestImpl>(url, std::vector<WmsLayer>{MakeWmsLayer(url, "a"), MakeWmsLayer(url, "b")},
                                            "default", "CRS:84", WorldTile, 256u, 256u, time, elevation);
}

WmsDimension Dimension(const std::string& name, const std::string& current, const std::string& byDefault) {
    WmsDimension dimension;
    dimension.name = name;
    dimension.defaultValue = byDefault;
    dimension.current = current;
    return dimension;
}

Core::Ptr<MapServices::Wcs::impl::WcsRequestImpl> Wcs(Data::DateTime time = {}) {
    return Core::MakeObject<MapServices::Wcs::impl::WcsRequestImpl>("1.0.0", "dem", "EPSG:4326",
                                                                     BoundingBoxValue{1.5, 2, 3, 4.25}, 256u, 128u, time);
}

} // namespace

TEST(WmsRequest, DefaultGetMapUrlAndAxisOrder) {
    const std::string query = "SERVICE=WMS&VERSION=1.3.0&REQUEST=Getmap&LAYERS=a,b&STYLES=default&CRS=CRS:84&BBOX=";
    const std::string tail = "&WIDTH=256&HEIGHT=256&FORMAT=image/png&BGCOLOR=0xffffff&TRANSPARENT=true&EXCEPTIONS=XML";
    EXPECT_EQ(Wms("http://h/wms")->BuildUrl(false),
              "http://h/wms?" + query + "-180.000000,-85.051129,180.000000,85.051129" + tail);
    EXPECT_EQ(Wms("http://h/wms")->BuildUrl(true),
              "http://h/wms?" + query + "-85.051129,-180.000000,85.051129,180.000000" + tail);
}

TEST(WmsRequest, JoinerLooksAtTheLastQuestionMarkOnly) {
    const struct {
        const char* base;
        const char* joined;
    } cases[] = {
        {"http://h/wms", "http://h/wms?SERVICE="},
        {"http://h/wms?", "http://h/wms?SERVICE="},
        {"http://h/wms?map=a", "http://h/wms?map=a&SERVICE="},
        {"http://h/w?a=?", "http://h/w?a=?SERVICE="},
        {"http://h/w?VERSION=1.1.1", "http://h/w?VERSION=1.1.1&SERVICE="},
    };
    for (const auto& c : cases) EXPECT_EQ(Wms(c.base)->BuildUrl(false).rfind(c.joined, 0), 0u) << c.base;
}

TEST(WmsRequest, TimeAndElevationComeLastWhenTheyHaveAValue) {
    const struct {
        std::optional<WmsDimension> time, elevation;
        const char* ending;
    } cases[] = {
        {Dimension("time", "2024-01-02", "2024-01-01"), {}, "XML&TIME=2024-01-02"},
        {Dimension("time", "", "2024-01-01"), Dimension("elevation", "", "100"), "XML&TIME=2024-01-01&ELEVATION=100"},
        {Dimension("time", "", ""), {}, "EXCEPTIONS=XML"},
        {{}, Dimension("elevation", "5", ""), "XML&ELEVATION=5"},
    };
    for (const auto& c : cases) {
        const std::string url = Wms("http://h/wms", c.time, c.elevation)->BuildUrl(false);
        EXPECT_EQ(url.substr(url.size() - std::string(c.ending).size()), c.ending) << url;
    }
}

TEST(WmsRequest, HashCoversTheParametersButNotTheDimensions) {
    const std::string text =
        "http://h/wmsGetmapabdefaultCRS:84image/png0xffffff1XML256256-180-85.051118085.0511";
    EXPECT_EQ(Wms("http://h/wms")->GetRequestHash(), Core::Fnv1a64(text));
    EXPECT_EQ(Wms("http://h/wms", Dimension("time", "2024", ""))->GetRequestHash(), Core::Fnv1a64(text));
    EXPECT_NE(Wms("http://h/wms2")->GetRequestHash(), Core::Fnv1a64(text));
}

TEST(WmsFetcher, CacheHashFollowsTheSelectedTime) {
    const WmsLayer layer = MakeWmsLayer("http://h:8080/wms", "a", {Dimension("time", "", "2024-01-01")});
    auto fetcher = Core::MakeObject<MapServices::Wms::impl::WmsFetcher>(layer);
    EXPECT_EQ(fetcher->GetCacheHash(), Core::Fnv1a64("h/wms80802560a2024-01-01"));
    layer->TimeDimension().current = "2024-02-01";
    EXPECT_EQ(fetcher->GetCacheHash(), Core::Fnv1a64("h/wms80802560a2024-02-01"));
    EXPECT_EQ(fetcher->GetLayerName(), "a");
    EXPECT_EQ(fetcher->GetCacheDirectory(), "/WmsCache/" + std::to_string(uint32_t(fetcher->GetCacheHash())) + "/");
}

TEST(WmsFetcher, RefusesMissingLayersAndForeignRequests) {
    EXPECT_THROW(
        {
            try {
                Core::MakeObject<MapServices::Wms::impl::WmsFetcher>(WmsLayer());
            } catch (const std::runtime_error& e) {
                EXPECT_STREQ(e.what(), "Interface is not accessible: class MapServices::Wms::impl::WmsLayerImpl");
                throw;
            }
        },
        std::runtime_error);
    auto fetcher = Core::MakeObject<MapServices::Wms::impl::WmsFetcher>(MakeWmsLayer("http://127.0.0.1:9/w", "a"));
    const auto messageOf = [&](const Core::Ptr<MapServices::Interfaces::IServiceRequest>& request) {
        try {
            fetcher->CreateServiceHttpRequest(request);
        } catch (const std::exception& e) {
            return std::string(e.what());
        }
        return std::string("<none>");
    };
    EXPECT_EQ(messageOf({}),
              "Null pointer exception! Interface is not accessible: struct MapServices::Interfaces::IServiceRequest");
    EXPECT_EQ(messageOf(Core::Ptr<MapServices::Interfaces::IServiceRequest>(Wcs())),
              "Cannot cast to desired interface: Interface: struct MapServices::Interfaces::IServiceRequest "
              "Implementation: class MapServices::Wms::impl::WmsRequestImpl");
}

TEST(WcsRequest, GetQueryPostQueryAndTime) {
    EXPECT_EQ(Wcs()->BuildQuery(0), "?SERVICE=WCS&VERSION=1.0.0&REQUEST=GetCoverage&FORMAT=image/tiff&COVERAGE=dem"
                                    "&CRS=EPSG:4326&BBOX=1.500000,2.000000,3.000000,4.250000&WIDTH=256&HEIGHT=128");
    const auto timed = Wcs(Data::DateTime::FromIso8601("2024-05-01T14:00:00+02:00"));
    EXPECT_EQ(timed->BuildQuery(0).substr(timed->BuildQuery(0).rfind('&')), "&TIME=2024-05-01T12:00:00.000Z");
    EXPECT_EQ(timed->BuildQuery(1), "?SERVICE=WCS&VERSION=1.0.0&REQUEST=GetCoverage");
    EXPECT_EQ(Wcs()->GetRequestHash(),
              Core::Fnv1a64("WCS1.0.0GetCoveragedemEPSG:4326image/tiff2561281.5234.25"));
    EXPECT_EQ(timed->GetRequestHash(),
              Core::Fnv1a64("WCS1.0.0GetCoveragedemEPSG:4326image/tiff2561281.5234.252024-05-01T12:00:00.000Z"));
}

TEST(WcsRequest, XmlBodyByteForByte) {
    const std::string timed = Wcs(Data::DateTime::FromIso8601("2024-05-01T12:00:00Z"))->BuildXml();
    EXPECT_EQ(timed,
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?><GetCoverage version=\"1.0.0\" service=\"WCS\" "
              "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" xmlns=\"http://www.opengis.net/wcs\" "
              "xmlns:ows=\"http://www.opengis.net/ows/1.1\" xmlns:gml=\"http://www.opengis.net/gml\" "
              "xmlns:ogc=\"http://www.opengis.net/ogc\" xsi:schemaLocation=\"http://www.opengis.net/wcs "
              "http://schemas.opengis.net/wcs/1.0.0/getCoverage.xsd\">\n\t\t  <sourceCoverage>dem</sourceCoverage>\n"
              "\t\t  <domainSubset>\n\t\t\t<spatialSubset>\n\t\t\t  <gml:Envelope srsName=\"EPSG:4326\">\n"
              "\t\t\t\t<gml:pos>1.500000 2.000000</gml:pos>\n\t\t\t\t<gml:pos>3.000000 4.250000</gml:pos>\n"
              "\t\t\t  </gml:Envelope>\n\t\t\t  <gml:Grid dimension=\"2\">\n\t\t\t\t<gml:limits>\n"
              "\t\t\t\t  <gml:GridEnvelope>\n\t\t\t\t\t<gml:low>0 0</gml:low>\n\t\t\t\t\t<gml:high>256 128</gml:high>\n"
              "\t\t\t\t  </gml:GridEnvelope>\n\t\t\t\t</gml:limits>\n\t\t\t\t<gml:axisName>E</gml:axisName>\n"
              "\t\t\t\t<gml:axisName>N</gml:axisName>\n\t\t\t  </gml:Grid>\n\t\t\t</spatialSubset>\n"
              "\t\t\t\n\t\t\t<temporalSubset>\n\t\t\t  <gml:timePosition>\n\t\t\t\t2024-05-01T12:00:00.000Z\n"
              "\t\t\t  </gml:timePosition>\n\t\t\t</temporalSubset>\n\t\t\n\t\t\n\t\t  </domainSubset>\n"
              "\t\t  <output>\n\t\t\t<crs>EPSG:4326</crs>\n\t\t\t<format>image/tiff</format>\n\t\t  </output>\n"
              "\t\t</GetCoverage>");
    // Without a time the block's place stays, with the whitespace around it.
    const std::string plain = Wcs()->BuildXml();
    EXPECT_NE(plain.find("</spatialSubset>\n\t\t\t\n\t\t  </domainSubset>"), std::string::npos) << plain;
    EXPECT_EQ(plain.find("temporalSubset"), std::string::npos);
}

TEST(WmtsFetcher, ExtensionPerFormat) {
    const struct {
        const char* format;
        const char* urlTemplate;
        const char* extension;
        int32_t tileFormat;
    } cases[] = {
        {"image/png", "http://127.0.0.1:9/{TileMatrix}/{TileCol}/{TileRow}", ".png", 0},
        {"image/jpeg", "http://127.0.0.1:9/{TileMatrix}/{TileCol}/{TileRow}", ".jpg", 0},
        {"image/webp", "http://127.0.0.1:9/{TileMatrix}/{TileCol}/{TileRow}", ".png", 0},
        {"application/x-protobuf", "http://127.0.0.1:9/mapbox/{TileMatrix}/{TileCol}/{TileRow}", ".pbf", 1},
        {"image/png", "http://127.0.0.1:9/mapbox/{TileMatrix}/{TileCol}/{TileRow}", ".png", 1},
    };
    for (const auto& c : cases) {
        auto fetcher = Core::MakeObject<MapServices::Wmts::impl::WmtsFetcherImpl>(
            MakeWmtsLayer(c.urlTemplate, c.format, {"0", "1"}));
        EXPECT_FALSE(fetcher->CreateTileHttpRequest(1, 0, 0).IsNull());
        EXPECT_EQ(fetcher->GetFileExtension(), c.extension) << c.format << " " << c.urlTemplate;
        EXPECT_EQ(fetcher->GetTileFormat(), c.tileFormat);
    }
}

TEST(WmtsFetcher, GeometryFromTheCurrentSet) {
    auto fetcher = Core::MakeObject<MapServices::Wmts::impl::WmtsFetcherImpl>(
        MakeWmtsLayer("http://127.0.0.1:9/{TileMatrix}/{TileCol}/{TileRow}.png", "image/png", {"0", "1", "2"}));
    EXPECT_EQ(fetcher->GetMaxZoom(), 2);
    EXPECT_TRUE(fetcher->IsTileValid(99, -5, -5));
    EXPECT_EQ(fetcher->GetLayerName(), "Relief");

    // Tile (1, 1) of zoom 1 is the south-east quarter of the Web-Mercator square.
    const BoundingBoxValue tile = fetcher->GetTileBounds(1, 1, 1);
    EXPECT_NEAR(tile.minX, 0, 1e-6);
    EXPECT_NEAR(tile.maxX, 20037508.342789244, 1e-6);
    EXPECT_NEAR(tile.minY, -20037508.342789244, 1e-6);
    EXPECT_NEAR(tile.maxY, 0, 1e-6);
    // A box of exactly that tile: one column, and one row plus the extra row on top.
    EXPECT_EQ(fetcher->GetTileRange(tile, 1), (MapServices::TileRange{1, 0, 1, 1}));

    EXPECT_THROW(fetcher->GetTileBounds(0, 0, 3), std::out_of_range);
    EXPECT_THROW(fetcher->GetTileRange(tile, -1), std::out_of_range);
    EXPECT_EQ(Core::MakeObject<MapServices::Wmts::impl::WmtsFetcherImpl>(
                  MakeWmtsLayer("http://127.0.0.1:9/{TileMatrix}", "image/png", {"only"}))
                  ->GetMaxZoom(),
              0);
}

// A request lies in bounds when no edge sticks out; edges on the layer's own count as inside.
TEST(ServiceFetchers, RequestInBoundsOfTheLayer) {
    const auto request = [](const BoundingBoxValue& box) {
        return Core::Ptr<MapServices::Interfaces::IServiceRequest>(
            Core::MakeObject<WmsRequestImpl>("http://h/w", std::vector<WmsLayer>{}, "", "CRS:84", box, 1u, 1u,
                                             std::nullopt, std::nullopt));
    };
    const WmsLayer layer = MakeWmsLayer("http://127.0.0.1:9/w", "a");
    auto wms = Core::MakeObject<MapServices::Wms::impl::WmsFetcher>(layer);
    EXPECT_FALSE(wms->IsRequestInBounds(request({0, 0, 1, 1}))) << "a layer without boxes holds nothing";
    layer->boundingBoxes.push_back({"EPSG:4326", {-10, -20, 10, 20}});
    layer->boundingBoxes.push_back({"EPSG:3857", {-1e7, -1e7, 1e7, 1e7}});
    auto wcs = Core::MakeObject<MapServices::Wcs::impl::WcsFetcher>(MakeWcsLayer("http://127.0.0.1:9/c", "dem", 0));
    const struct {
        BoundingBoxValue box;
        bool inside;
    } cases[] = {{{-10, -20, 10, 20}, true}, {{0, 0, 1, 1}, true}, {{-10.5, 0, 1, 1}, false},
                 {{0, -21, 1, 1}, false},    {{0, 0, 11, 1}, false}, {{0, 0, 1, 20.5}, false}};
    for (const auto& c : cases) {
        EXPECT_EQ(wms->IsRequestInBounds(request(c.box)), c.inside) << c.box.minX << "," << c.box.maxY;
        EXPECT_EQ(wcs->IsRequestInBounds(request(c.box)), c.inside) << c.box.minX << "," << c.box.maxY;
    }
}
