#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>

#include "OgcTestSupport.h"
#include "PumpUntil.h"
#include "RecordingLogger.h"
#include "TellarImaging/IImage.h"
#include "TempDir.h"
#include "Wcs/WcsFetcher.h"
#include "Wcs/WcsRequestImpl.h"
#include "Wms/WmsFetcher.h"
#include "Wms/WmsRequestImpl.h"
#include "Wmts/WmtsFetcherImpl.h"

using MapServices::BoundingBoxValue;
using MapServices::impl::ServiceDataRequestHandler;
using MapServices::impl::ServiceImageRequestHandler;
using namespace OgcTests;
using TestSupport::PumpUntil;

namespace {


// What one callback saw: how often it ran, on which thread, and what it got.
struct Outcome {
    int calls = 0;
    bool null = true;
    int32_t width = 0;
    std::string bytes;
    std::thread::id thread;
};

class OgcFetch : public testing::Test {
protected:
    std::shared_ptr<Outcome> GetMap(MapServices::impl::ServiceTileFetcherBase& fetcher,
                                    Core::Ptr<MapServices::Interfaces::IServiceRequest> request) {
        auto outcome = std::make_shared<Outcome>();
        fetcher.GetMapAsync({request, [outcome](TellarImaging::IImage* image) {
                                 ++outcome->calls;
                                 outcome->thread = std::this_thread::get_id();
                                 outcome->null = image == nullptr;
                                 if (image) outcome->width = image->GetWidth();
                             }});
        return outcome;
    }

    std::shared_ptr<Outcome> GetData(MapServices::impl::ServiceTileFetcherBase& fetcher,
                                     Core::Ptr<MapServices::Interfaces::IServiceRequest> request) {
        auto outcome = std::make_shared<Outcome>();
        fetcher.GetDataAsync({request, [outcome](const Data::Array& data) {
                                  ++outcome->calls;
                                  outcome->thread = std::this_thread::get_id();
                                  outcome->null = data.IsNull();
                                  if (!data.IsNull())
                                      outcome->bytes.assign(reinterpret_cast<const char*>(data.GetData()),
                                                            data.GetSizeInBytes());
                              }});
        return outcome;
    }

    // The callback ran once, on this (the dispatcher) thread.
    static void Settled(const Outcome& outcome) {
        ASSERT_TRUE(PumpUntil([&] { return outcome.calls > 0; }));
        EXPECT_EQ(outcome.calls, 1);
        EXPECT_EQ(outcome.thread, std::this_thread::get_id());
    }

    Core::Ptr<MapServices::Wms::impl::WmsFetcher> Wms(const std::string& kind) {
        auto fetcher =
            Core::MakeObject<MapServices::Wms::impl::WmsFetcher>(MakeWmsLayer(server.Url("/" + kind + "/wms"), "relief"));
        fetcher->SetCacheRoot(cache.Path().string());
        return fetcher;
    }

    static Core::Ptr<MapServices::Interfaces::IServiceRequest> MapOf(MapServices::Wms::impl::WmsFetcher& fetcher) {
        const WmsLayer& layer = fetcher.GetLayer();
        return MapServices::Wms::impl::CreateWmsRequest(layer->url, {layer}, "default", "EPSG:4326",
                                                        BoundingBoxValue{5, 44, 16, 50}, 300, 200, {}, {});
    }

    RecordingServer server;
    TestSupport::TempDir cache;
};

} // namespace

TEST_F(OgcFetch, WmsMapIsCachedThenServedWithoutTheServer) {
    auto fetcher = Wms("png");
    const auto request = MapOf(*fetcher);
    const auto first = GetMap(*fetcher, request);
    Settled(*first);
    EXPECT_EQ(first->width, 256);
    ASSERT_EQ(server.Requests().size(), 1u);
    EXPECT_EQ(server.Requests()[0].target,
              "/png/wms?SERVICE=WMS&VERSION=1.3.0&REQUEST=Getmap&LAYERS=relief&STYLES=default&CRS=EPSG:4326"
              "&BBOX=5.000000,44.000000,16.000000,50.000000&WIDTH=300&HEIGHT=200&FORMAT=image/png"
              "&BGCOLOR=0xffffff&TRANSPARENT=true&EXCEPTIONS=XML");
    const std::string file = fetcher->GetServiceFilePath(ServiceImageRequestHandler{request, {}});
    EXPECT_TRUE(std::filesystem::is_regular_file(file)) << file;

    const auto second = GetMap(*fetcher, request);
    Settled(*second);
    EXPECT_EQ(second->width, 256);
    EXPECT_EQ(server.Requests().size(), 1u) << "the second picture comes from the cache";
}

TEST_F(OgcFetch, WmsFailuresReachTheCallbackAsNull) {
    // A type with a parameter is not the format; a status other than 200 is no picture. Neither
    // leaves a cache file.
    for (const char* kind : {"charset", "500"}) {
        auto fetcher = Wms(kind);
        const auto outcome = GetMap(*fetcher, MapOf(*fetcher));
        Settled(*outcome);
        EXPECT_TRUE(outcome->null) << kind;
        EXPECT_TRUE(std::filesystem::is_empty(fetcher->GetDirPath())) << kind;
    }
    // A request the fetcher can't build fails on the caller's thread, before GetMapAsync returns.
    TestSupport::ScopedRecordingLogger logger;
    auto fetcher = Wms("png");
    const auto wrong = GetMap(*fetcher, Core::MakeObject<MapServices::Wcs::impl::WcsRequestImpl>(
                                            "1.0.0", "dem", "EPSG:4326", BoundingBoxValue{0, 0, 1, 1}, 1u, 1u,
                                            Data::DateTime()));
    EXPECT_EQ(wrong->calls, 1);
    EXPECT_TRUE(wrong->null);
    EXPECT_EQ(wrong->thread, std::this_thread::get_id());
    const std::string line = logger->Lines().at(0).text;
    EXPECT_EQ(line.rfind("ERROR: Exception: Cannot cast to desired interface: ", 0), 0u) << line;
    EXPECT_NE(line.find("MapServices::impl::ServiceTileFetcherBase::GetMapAsync"), std::string::npos) << line;
}

TEST_F(OgcFetch, CachedFileThatIsNoImageIsLoggedAndNeverCalledBack) {
    TestSupport::ScopedRecordingLogger logger;
    auto fetcher = Wms("png");
    const auto request = MapOf(*fetcher);
    std::ofstream(fetcher->GetServiceFilePath(ServiceImageRequestHandler{request, {}})) << "<html>not a map</html>";
    const auto outcome = GetMap(*fetcher, request);
    EXPECT_FALSE(PumpUntil([&] { return outcome->calls > 0; }, std::chrono::milliseconds(300)));
    EXPECT_TRUE(server.Requests().empty());
    ASSERT_FALSE(logger->Lines().empty());
    const std::string line = logger->Lines().at(0).text;
    EXPECT_EQ(line.rfind("ERROR: Exception: Invalid file!", 0), 0u) << line;
    EXPECT_NE(line.find("GetMapAsync::<lambda_1>::operator ()"), std::string::npos) << line;
}

TEST_F(OgcFetch, WmsTileAsksForTheTileBoxInDegrees) {
    auto fetcher = Wms("png");
    fetcher->SetCacheEnabled(false);
    auto outcome = std::make_shared<Outcome>();
    ASSERT_FALSE(fetcher->FetchTileDataAsync(1, 1, 0, [outcome](const Data::Array& data) {
        ++outcome->calls;
        outcome->null = data.IsNull();
    }).IsNull());
    ASSERT_TRUE(PumpUntil([&] { return outcome->calls > 0; }));
    EXPECT_FALSE(outcome->null);
    EXPECT_NE(server.Requests().at(0).target.find("&LAYERS=relief&STYLES=default&CRS=CRS:84&BBOX=0.000000,0.000000,"
                                                  "180.000000,85.051129&WIDTH=256&HEIGHT=256&"),
              std::string::npos)
        << server.Requests().at(0).target;
}

TEST_F(OgcFetch, WmtsFillsRestAndKvpTemplates) {
    const std::string rest = "/png/{TileMatrixSet}/{style}/{Style}/{TileMatrix}/{TileRow}/{TileCol}.png";
    const std::string kvp = "/png/kvp?SERVICE=WMTS&REQUEST=GetTile&LAYER=relief&STYLE={style}"
                            "&TILEMATRIXSET={TileMatrixSet}&TILEMATRIX={TileMatrix}&TILEROW={TileRow}&TILECOL={TileCol}"
                            "&FORMAT=image/png";
    const struct {
        std::string path;
        std::vector<std::string> matrices;
        std::string target; // empty: no such matrix, no request
    } cases[] = {
        {rest, {"0", "1"}, "/png/grid/main/main/1/3/2.png"},
        {rest, {"grid:0", "grid:1"}, "/png/grid/main/main/grid:1/3/2.png"},
        {rest, {"coarse", "fine"}, ""},
        {kvp, {"0", "1"},
         "/png/kvp?SERVICE=WMTS&REQUEST=GetTile&LAYER=relief&STYLE=main&TILEMATRIXSET=grid&TILEMATRIX=1&TILEROW=3"
         "&TILECOL=2&FORMAT=image/png"},
    };
    for (const auto& c : cases) {
        auto fetcher = Core::MakeObject<MapServices::Wmts::impl::WmtsFetcherImpl>(
            MakeWmtsLayer(server.Url(c.path), "image/png", c.matrices));
        fetcher->SetCacheEnabled(false);
        const size_t before = server.Requests().size();
        auto outcome = std::make_shared<Outcome>();
        const auto request = fetcher->FetchTileDataAsync(1, 2, 3, [outcome](const Data::Array& data) {
            ++outcome->calls;
            outcome->null = data.IsNull();
        });
        if (c.target.empty()) {
            EXPECT_TRUE(request.IsNull()) << c.path;
            continue;
        }
        ASSERT_TRUE(PumpUntil([&] { return outcome->calls > 0; })) << c.path;
        EXPECT_FALSE(outcome->null);
        ASSERT_EQ(server.Requests().size(), before + 1);
        EXPECT_EQ(server.Requests().back().target, c.target);
    }
}

TEST_F(OgcFetch, WcsCoverageByGetAndByPost) {
    const auto coverage = [](MapServices::Wcs::impl::WcsFetcher& fetcher) {
        return Core::MakeObject<MapServices::Wcs::impl::WcsRequestImpl>(
            "1.0.0", fetcher.GetLayer()->name, "EPSG:4326", BoundingBoxValue{0, 0, 2, 1}, 20u, 10u,
            Data::DateTime::FromIso8601("2024-05-01T00:00:00Z"));
    };
    const std::string query = "SERVICE=WCS&VERSION=1.0.0&REQUEST=GetCoverage";
    const struct {
        const char* path;
        int32_t method;
        std::string target;
    } cases[] = {
        {"/bytes/wcs", 0, "/bytes/wcs?" + query + "&FORMAT=image/tiff&COVERAGE=dem&CRS=EPSG:4326&BBOX=0.000000,"
                                                  "0.000000,2.000000,1.000000&WIDTH=20&HEIGHT=10&TIME=2024-05-01T00:00:00.000Z"},
        {"/bytes/wcs?map=a.map&", 0, "/bytes/wcs?map=a.map&" + query + "&FORMAT=image/tiff&COVERAGE=dem&CRS=EPSG:4326"
                                     "&BBOX=0.000000,0.000000,2.000000,1.000000&WIDTH=20&HEIGHT=10&TIME=2024-05-01T00:00:00.000Z"},
        {"/bytes/wcs", 1, "/bytes/wcs?" + query},
    };
    for (const auto& c : cases) {
        auto fetcher =
            Core::MakeObject<MapServices::Wcs::impl::WcsFetcher>(MakeWcsLayer(server.Url(c.path), "dem", c.method));
        const auto request = coverage(*fetcher);
        const auto outcome = GetData(*fetcher, request);
        Settled(*outcome);
        EXPECT_EQ(outcome->bytes, "coverage bytes");
        const Received received = server.Requests().back();
        EXPECT_EQ(received.target, c.target);
        EXPECT_EQ(received.method, c.method == 0 ? "GET" : "POST");
        if (c.method == 1) {
            EXPECT_EQ(received.contentType, "application/xml");
            EXPECT_EQ(received.body, request->BuildXml());
        }
    }
    EXPECT_TRUE(std::filesystem::is_empty(cache.Path())) << "coverage data is never cached";

    auto failing = Core::MakeObject<MapServices::Wcs::impl::WcsFetcher>(MakeWcsLayer(server.Url("/500/wcs"), "dem", 0));
    const auto outcome = GetData(*failing, coverage(*failing));
    Settled(*outcome);
    EXPECT_TRUE(outcome->null);
}
