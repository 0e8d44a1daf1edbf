#include <stdexcept>
#include <string>

#include "MapServiceSupport.h"
#include "MapServices/Wmts/WmtsCapabilities.h"
#include "MessageOf.h"
#include "Tellar/Spatial/Maps/MapServiceImpl.h"
#include "Tms/TmsFetcherImpl.h"

namespace {

using MapServices::BoundingBoxValue;
using MapServices::TileRange;
using Tellar::Spatial::Maps::impl::MapServiceImpl;
using TestSupport::MessageOf;

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
    auto service = Core::MakeObject<MapServiceImpl>(fetcher, MapTests::Crs(2056));
    EXPECT_EQ(MessageOf([&] {
                  service->BoxToTileRange(3, BoundingBoxValue{2600000, 1200000, 2601000, 1201000});
              }),
              "Unsupported projection");
    EXPECT_EQ(MessageOf([&] { service->TileRangeToBox(3, TileRange{0, 0, 1, 1}); }), "Unsupported projection");
    Core::Ptr<Tellar::Interfaces::ITileRequest> request;
    Core::Ptr<Core::IErrorCode> error;
    EXPECT_FALSE(service->GetTile(3, 1, 1, request.ReceiveAddress(), error.ReceiveAddress()));
    EXPECT_EQ(MapTests::TextOf(error), "Unsupported projection");
    EXPECT_FALSE(fetcher->IsCacheEnabled());
}

TEST(TileMatrix, AServiceNeedsAFetcher) {
    EXPECT_EQ(MessageOf([] { Core::MakeObject<MapServiceImpl>(nullptr, MapTests::Crs(4326)); }),
              "Interface is not accessible: struct MapServices::Interfaces::ITileFetcher");
}

} // namespace
