#include <filesystem>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "MapServiceSupport.h"
#include "MapServices/Wmts/WmtsCapabilities.h"
#include "MessageOf.h"
#include "Tellar/Spatial/Maps/MapServiceImpl.h"
#include "TempDir.h"
#include "TestServer.h"
#include "TileServer.h"
#include "Tms/TmsFetcherImpl.h"

namespace {

using namespace MapTests;
using MapServices::BoundingBoxValue;
using MapServices::TileRange;
using Tellar::Spatial::Maps::impl::MapServiceImpl;
using TestSupport::MessageOf;

size_t FilesUnder(const std::filesystem::path& root) {
    size_t count = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) count += entry.is_regular_file();
    return count;
}

TEST(TileRequests, CachedServiceMissesThenHitsWithoutNetwork) {
    TestSupport::TileServer server;
    TestSupport::TempDir cache;
    auto service = Service(server.Template("xyz"), 3857, cache.Path().c_str());

    auto first = Tile(*service, 4, 5, 6);
    auto fetched = Response(*first);
    ASSERT_TRUE(fetched.Raw());
    EXPECT_TRUE(first->IsFinished());
    ASSERT_NE(fetched->GetHttpResponse(), nullptr);
    EXPECT_EQ(FilesUnder(cache.Path()), 1u);

    auto second = Tile(*service, 4, 5, 6);
    EXPECT_TRUE(second->IsFinished());
    auto hit = Response(*second);
    ASSERT_TRUE(hit.Raw());
    EXPECT_EQ(hit->GetHttpResponse(), nullptr);
    EXPECT_EQ(server.Requests(), 1);

    // Both responses decode to the same tile, georeferenced alike.
    for (auto& response : {fetched, hit}) {
        Core::Ptr<TellarImaging::IImage> image;
        ASSERT_TRUE(response->GetImage(image.ReceiveAddress(), nullptr));
        EXPECT_EQ(Rgb(*image, 10, 10), 0x050604u);
        Core::Ptr<TellarImaging::ITransform> transform;
        ASSERT_TRUE(response->GetTransform(transform.ReceiveAddress(), nullptr));
        double scaleX = 0, originX = 0, originY = 0;
        transform->GetParams(&scaleX, nullptr, &originX, &originY, nullptr, nullptr);
        EXPECT_DOUBLE_EQ(originX, 5.0 / 16 * 360 - 180);
        EXPECT_DOUBLE_EQ(scaleX, 360.0 / 16 / 256);
        EXPECT_EQ(std::make_tuple(response->GetEpsgCode(), response->GetZoom(), response->GetX(), response->GetY()),
                  std::make_tuple(3857, 4, 5, 6));
    }

    // A cancelled cache hit does nothing but refuse its response.
    auto third = Tile(*service, 4, 5, 6);
    third->Cancel();
    EXPECT_TRUE(third->IsFinished());
    EXPECT_EQ(ResponseFailure(*third), "Request was already cancelled");
    EXPECT_EQ(server.Requests(), 1);
}

TEST(TileRequests, CancelledDownloadRefusesItsResponse) {
    TestSupport::TileServer server;
    auto service = Service(server.Template("slow"), 4326);
    auto request = Tile(*service, 2, 1, 1);
    request->Cancel();
    EXPECT_EQ(ResponseFailure(*request), "Request was already cancelled");
}

std::vector<std::pair<int64_t, int64_t>> Addresses(Data::Interfaces::IObjectList& list) {
    std::vector<std::pair<int64_t, int64_t>> addresses;
    for (uint64_t i = 0; i < list.GetCount(); ++i) {
        auto* request = dynamic_cast<ITileRequest*>(list.GetItem(i));
        addresses.emplace_back(request->GetX(), request->GetY());
    }
    return addresses;
}

TEST(TileRequests, RangesGoColumnByColumn) {
    TestSupport::TileServer server;
    auto service = Service(server.Template("xyz"), 4326);
    Core::Ptr<Data::Interfaces::IObjectList> list;
    ASSERT_TRUE(service->GetTilesForRange(3, 2, 5, 3, 7, list.ReceiveAddress(), nullptr));
    const std::vector<std::pair<int64_t, int64_t>> expected = {{2, 5}, {2, 6}, {2, 7}, {3, 5}, {3, 6}, {3, 7}};
    EXPECT_EQ(Addresses(*list), expected);
    // Every download started before the first response is read.
    for (uint64_t i = 0; i < list->GetCount(); ++i) Response(*dynamic_cast<ITileRequest*>(list->GetItem(i)));
    EXPECT_EQ(server.Requests(), 6);

    Core::Ptr<Data::Interfaces::IObjectList> one, none;
    ASSERT_TRUE(service->GetTilesForRange(3, 4, 4, 4, 4, one.ReceiveAddress(), nullptr));
    EXPECT_EQ(one->GetCount(), 1u);
    ASSERT_TRUE(service->GetTilesForRange(3, 5, 0, 4, 0, none.ReceiveAddress(), nullptr));
    EXPECT_EQ(none->GetCount(), 0u);
}

// More than 1,048,576 tiles are refused before a single request is made; the count is exact
// however wide the range.
TEST(TileRequests, TooManyTilesAreRefused) {
    auto service = Service("http://127.0.0.1:9/t/{z}/{x}/{y}.png", 4326);
    const auto rangeFailure = [&](int64_t minX, int64_t minY, int64_t maxX, int64_t maxY) {
        Core::Ptr<Data::Interfaces::IObjectList> list;
        Core::Ptr<Core::IErrorCode> error;
        service->GetTilesForRange(20, minX, minY, maxX, maxY, list.ReceiveAddress(), error.ReceiveAddress());
        return TextOf(error);
    };
    constexpr int64_t low = INT64_MIN, high = INT64_MAX;
    const struct {
        int64_t minX, minY, maxX, maxY;
        std::string count;
    } cases[] = {{0, 0, 1023, 1024, "1049600"},
                 {5, 7, 5, 1048583, "1048577"},
                 {0, 0, 1048576, 0, "1048577"},
                 {0, 0, high, 0, "9223372036854775808"},
                 {low, 3, high, 3, "18446744073709551616"},
                 {low, low, high, high, "340282366920938463463374607431768211456"},
                 {-1048576, -1048576, 1048575, 1048575, "4398046511104"}};
    for (const auto& c : cases)
        EXPECT_EQ(rangeFailure(c.minX, c.minY, c.maxX, c.maxY), "Too many tiles requested: " + c.count) << c.count;
    EXPECT_EQ(rangeFailure(0, 0, 1023, 1), "<no error>");
    EXPECT_EQ(rangeFailure(high, high, low, low), "<no error>");

    // A box that was never set spans ±1.8e308: no list, no mosaic.
    Core::Ptr<Tellar::Interfaces::IBoundingBox2d> unset;
    ASSERT_TRUE(TellarSpatial_CreateBoundingBox2d(unset.ReceiveAddress(), nullptr));
    const std::string refused = "Too many tiles requested: ";
    Core::Ptr<Data::Interfaces::IObjectList> list;
    Core::Ptr<Core::IErrorCode> error;
    EXPECT_FALSE(service->GetTilesForBox(0, unset.Raw(), list.ReceiveAddress(), error.ReceiveAddress()));
    EXPECT_EQ(TextOf(error).substr(0, refused.size()), refused) << TextOf(error);
    for (const bool bestEffort : {false, true}) {
        const std::string failure = GetMosaic(*service, 0, unset.Raw(), bestEffort).failure;
        EXPECT_EQ(failure.substr(0, refused.size()), refused) << failure;
    }
    // Lon 0..90, lat 0..66.5 at zoom 13: columns 4096..6143, rows 2048..4095.
    auto quarter = Box(0.01, 0.01, 89.99, 66.5);
    EXPECT_EQ(GetMosaic(*service, 13, quarter.Raw()).failure, refused + "4194304");
}

TEST(TileRequests, BoxesAreReadInTheCallersCrs) {
    TestSupport::TileServer server;
    const std::vector<std::pair<int64_t, int64_t>> expected = {{16, 10}, {16, 11}, {16, 12}};

    // Degrees to a 4326 service; metres to a 3857 service; degrees again once 4326 is the target.
    auto geographic = Service(server.Template("xyz"), 4326);
    auto mercator = Service(server.Template("xyz"), 3857);
    auto targeted = Service(server.Template("xyz"), 3857);
    targeted->SetTargetCrs(Crs(4326).Raw());
    const struct {
        IMapService* service;
        Core::Ptr<Tellar::Interfaces::IBoundingBox2d> box;
    } cases[] = {
        {geographic.Raw(), Box(0.5, 40, 10, 50)},
        {mercator.Raw(), Box(55659.75, 4865942.28, 1113194.91, 6446275.84)},
        {targeted.Raw(), Box(0.5, 40, 10, 50)},
    };
    for (const auto& c : cases) {
        Core::Ptr<Data::Interfaces::IObjectList> list;
        Core::Ptr<Core::IErrorCode> error;
        ASSERT_TRUE(c.service->GetTilesForBox(5, c.box.Raw(), list.ReceiveAddress(), error.ReceiveAddress()))
            << TextOf(error);
        EXPECT_EQ(Addresses(*list), expected);
    }

    Core::Ptr<Data::Interfaces::IObjectList> list;
    Core::Ptr<Core::IErrorCode> error;
    EXPECT_FALSE(geographic->GetTilesForBox(5, nullptr, list.ReceiveAddress(), error.ReceiveAddress()));
    EXPECT_EQ(TextOf(error), "Pointer of struct Tellar::Interfaces::IBoundingBox2d must not be null!");
}

MapServices::Wmts::WmtsTileMatrix WebMercatorLevel(int level) {
    MapServices::Wmts::WmtsTileMatrix matrix;
    matrix.scaleDenominator = 559082264.0287178 / (1 << level);
    matrix.topLeftX = -20037508.3427892;
    matrix.topLeftY = 20037508.3427892;
    return matrix;
}

TEST(TileMatrix, RangeCoversTheBoxFromTheTopLeftCorner) {
    const struct {
        int level;
        BoundingBoxValue box;
        TileRange expected;
    } cases[] = {
        {0, {-20037508.34, -20037508.34, 20037508.34, 20037508.34}, {0, 0, 0, 0}},
        {1, {5, 5, 10, 10}, {1, 0, 1, 0}},
        {1, {-10, -10, 10, 10}, {0, 0, 1, 1}},
        // Outside the matrix: no clamping.
        {2, {30000000, 5, 40000000, 10}, {4, 1, 5, 1}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(MapServiceImpl::TileMatrixRange(WebMercatorLevel(c.level), c.box), c.expected) << c.level;
}

// Without a WMTS fetcher only the two codes of tile servers have tile arithmetic.
TEST(TileMatrix, OtherCodesNeedAWmtsFetcher) {
    Core::Ptr<MapServices::Interfaces::ITileFetcher> fetcher =
        Core::MakeObject<MapServices::Tms::impl::TmsFetcherImpl>("http://127.0.0.1:9/{z}/{x}/{y}.png", 0);
    auto service = Core::MakeObject<MapServiceImpl>(fetcher, Crs(2056));
    EXPECT_EQ(MessageOf([&] {
                  service->BoxToTileRange(3, BoundingBoxValue{2600000, 1200000, 2601000, 1201000});
              }),
              "Unsupported projection");
    EXPECT_EQ(MessageOf([&] { service->TileRangeToBox(3, TileRange{0, 0, 1, 1}); }), "Unsupported projection");
    Core::Ptr<Tellar::Interfaces::ITileRequest> request;
    Core::Ptr<Core::IErrorCode> error;
    EXPECT_FALSE(service->GetTile(3, 1, 1, request.ReceiveAddress(), error.ReceiveAddress()));
    EXPECT_EQ(TextOf(error), "Unsupported projection");
    EXPECT_FALSE(fetcher->IsCacheEnabled());
}

TEST(TileMatrix, AServiceNeedsAFetcher) {
    EXPECT_EQ(MessageOf([] { Core::MakeObject<MapServiceImpl>(nullptr, Crs(4326)); }),
              "Interface is not accessible: struct MapServices::Interfaces::ITileFetcher");
}

} // namespace
