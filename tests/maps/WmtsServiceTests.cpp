#include <string>

#include "MapServiceSupport.h"
#include "OgcTestSupport.h"
#include "Tellar/Spatial/Maps/MapServiceImpl.h"
#include "TellarImaging/ITransform.h"
#include "TileServer.h"
#include "Wmts/WmtsFetcherImpl.h"

namespace {

using namespace MapTests;

// A WMTS layer in UTM zone 32 (EPSG:25832) over the loopback tile server, whose tiles carry
// their column, row and matrix as colour. Zoom 1 has 512-metre tiles whatever their pixel size.
Core::Ptr<IMapService> UtmService(const TestSupport::TileServer& server, const std::string& kind, int64_t tileSize) {
    const OgcTests::MatrixOrigin origin{400000, 5600000, 1024.0 / static_cast<double>(tileSize) / 0.00028};
    const std::string url = server.Template(kind);
    const std::string urlTemplate = url.substr(0, url.find("{z}")) + "{TileMatrix}/{TileCol}/{TileRow}.png";
    auto fetcher = Core::MakeObject<MapServices::Wmts::impl::WmtsFetcherImpl>(
        OgcTests::MakeWmtsLayer(urlTemplate, "image/png", {"0", "1"}, "utm", tileSize, origin));
    return Core::MakeObject<Tellar::Spatial::Maps::impl::MapServiceImpl>(
        Core::Ptr<MapServices::Interfaces::ITileFetcher>(fetcher), Crs(25832));
}

} // namespace

// Ranges, tile boxes and mosaics of a WMTS service come from its tile matrix set, in the set's
// CRS, for 256- and 512-pixel matrices alike.
TEST(WmtsService, TilesAndMosaicsInTheMatrixSet) {
    TestSupport::TileServer server;
    for (const auto& [kind, tileSize] : {std::pair<std::string, int64_t>{"xyz", 256}, {"x512", 512}}) {
        SCOPED_TRACE(kind);
        auto service = UtmService(server, kind, tileSize);
        // Tiles 1..2 in both directions, 100 m inside their outer edges.
        auto box = Box(400612, 5598564, 401436, 5599388);

        Core::Ptr<Data::Interfaces::IObjectList> list;
        Core::Ptr<Core::IErrorCode> error;
        ASSERT_TRUE(service->GetTilesForBox(1, box.Raw(), list.ReceiveAddress(), error.ReceiveAddress()))
            << TextOf(error);
        ASSERT_EQ(list->GetCount(), 4u);
        auto* first = dynamic_cast<ITileRequest*>(list->GetItem(0));
        Core::Ptr<Tellar::Interfaces::IBoundingBox2d> bounds;
        ASSERT_TRUE(first->GetBounds(bounds.ReceiveAddress(), nullptr));
        double minX = 0, minY = 0, maxX = 0, maxY = 0;
        bounds->GetValues(&minX, &minY, &maxX, &maxY);
        EXPECT_DOUBLE_EQ(minX, 400512);
        EXPECT_DOUBLE_EQ(maxY, 5599488);
        EXPECT_DOUBLE_EQ(maxX, 401024);
        EXPECT_DOUBLE_EQ(minY, 5598976);

        const Mosaic mosaic = GetMosaic(*service, 1, box.Raw());
        ASSERT_TRUE(mosaic.image.Raw()) << mosaic.failure;
        auto& image = *mosaic.image;
        const double pixel = 512.0 / static_cast<double>(tileSize);
        EXPECT_EQ(image.GetEpsgCode(), 25832u);
        EXPECT_EQ(image.GetWidth(), static_cast<int32_t>(824 / pixel));
        EXPECT_EQ(image.GetHeight(), static_cast<int32_t>(824 / pixel));
        Core::Ptr<TellarImaging::ITransform> transform;
        ASSERT_TRUE(image.GetTransform(transform.ReceiveAddress(), nullptr));
        double scaleX = 0, scaleY = 0, originX = 0, originY = 0;
        transform->GetParams(&scaleX, &scaleY, &originX, &originY, nullptr, nullptr);
        EXPECT_NEAR(scaleX, pixel, 1e-9);
        EXPECT_NEAR(scaleY, -pixel, 1e-9);
        EXPECT_NEAR(originX, 400612, 1e-6);
        EXPECT_NEAR(originY, 5599388, 1e-6);
        // Red is the column, green the row, blue the matrix.
        const auto at = [&](double x, double y) {
            return Rgb(image, static_cast<int32_t>((x - 400612) / pixel), static_cast<int32_t>((5599388 - y) / pixel));
        };
        EXPECT_EQ(at(400700, 5599300), 0x010101u);
        EXPECT_EQ(at(401300, 5599300), 0x020101u);
        EXPECT_EQ(at(400700, 5598700), 0x010201u);
        EXPECT_EQ(at(401300, 5598700), 0x020201u);
    }
}

TEST(WmtsService, ZoomPastTheMatricesIsRefused) {
    TestSupport::TileServer server;
    auto service = UtmService(server, "xyz", 256);
    auto box = Box(400612, 5598564, 401436, 5599388);
    EXPECT_EQ(GetMosaic(*service, 2, box.Raw()).failure, "invalid vector subscript");
}
