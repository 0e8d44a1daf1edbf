#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Core/ObjectImplBase.h"
#include "Core/StringFormat.h"
#include "Data/Values.h"
#include "ImageWriters.h"
#include "MapServiceSupport.h"
#include "Tellar/Spatial/Maps/Mosaic.h"
#include "Tellar/Spatial/Maps/TileResponseImpl.h"
#include "TellarImaging/Exports.h"
#include "TellarImaging/ITransform.h"
#include "TempDir.h"
#include "TestServer.h"
#include "TileServer.h"

namespace {

using namespace MapTests;
namespace Impl = Tellar::Spatial::Maps::impl;

struct Params {
    double scaleX = 0, scaleY = 0, originX = 0, originY = 0;
};

Params ParamsOf(TellarImaging::ITiffImage& image) {
    Core::Ptr<TellarImaging::ITransform> transform;
    EXPECT_TRUE(image.GetTransform(transform.ReceiveAddress(), nullptr));
    Params p;
    if (transform.Raw()) transform->GetParams(&p.scaleX, &p.scaleY, &p.originX, &p.originY, nullptr, nullptr);
    return p;
}

// Almost the whole world at zoom 1, tiles (0..1, 0..1), from a 4326 service on a server of `kind`.
struct WorldMosaic {
    explicit WorldMosaic(const std::string& kind, bool bestEffort = false) {
        auto service = Service(server.Template(kind), 4326);
        auto box = Box(-179, -84, 179, 84);
        mosaic = GetMosaic(*service, 1, box.Raw(), bestEffort);
    }
    TestSupport::TileServer server;
    Mosaic mosaic;
};

// 512 pixels a tile: the mosaic is pasted at twice the scale and cut to the box through the
// first tile's transform.
TEST(Mosaic, LargeTilesPasteAtTheirScale) {
    const WorldMosaic world("x512");
    ASSERT_TRUE(world.mosaic.image.Raw()) << world.mosaic.failure;
    auto& image = *world.mosaic.image;

    // First tile: lon -180..0, lat 85.05..0 over 512 pixels.
    const double top = 85.0511287798066;
    const double scaleX = 180.0 / 512, scaleY = -top / 512;
    const int32_t x0 = static_cast<int32_t>((-179 + 180) / scaleX);
    const int32_t y0 = static_cast<int32_t>((84 - top) / scaleY);
    EXPECT_EQ(image.GetWidth(), static_cast<int32_t>((179 + 180) / scaleX - (-179 + 180) / scaleX));
    EXPECT_EQ(image.GetHeight(), static_cast<int32_t>((-84 - top) / scaleY - (84 - top) / scaleY));
    EXPECT_EQ(image.GetEpsgCode(), 4326u);
    EXPECT_EQ(image.GetSampleKind(), 2);
    const Params p = ParamsOf(image);
    EXPECT_DOUBLE_EQ(p.scaleX, scaleX);
    EXPECT_DOUBLE_EQ(p.originX, -180 + x0 * scaleX);
    EXPECT_DOUBLE_EQ(p.originY, top + y0 * scaleY);

    // Red is the column, green the row of the tile each pixel came from.
    EXPECT_EQ(Rgb(image, 0, 0), 0x000001u);
    EXPECT_EQ(Rgb(image, 511 - x0, 511 - y0), 0x000001u);
    EXPECT_EQ(Rgb(image, 512 - x0, 511 - y0), 0x010001u);
    EXPECT_EQ(Rgb(image, 511 - x0, 512 - y0), 0x000101u);
    EXPECT_EQ(Rgb(image, image.GetWidth() - 1, image.GetHeight() - 1), 0x010101u);
}

TEST(Mosaic, TilesBelow256PixelsGiveAnEmptyPicture) {
    const WorldMosaic world("x200");
    ASSERT_TRUE(world.mosaic.image.Raw()) << world.mosaic.failure;
    EXPECT_EQ(world.mosaic.image->GetWidth(), 0);
    EXPECT_EQ(world.mosaic.image->GetHeight(), 0);
}

// Tiles larger than the first are cut at the edge of the picture instead of overrunning it.
TEST(Mosaic, LargerTilesAreCut) {
    const WorldMosaic world("grow");
    ASSERT_TRUE(world.mosaic.image.Raw()) << world.mosaic.failure;
    auto& image = *world.mosaic.image;
    const int32_t w = image.GetWidth(), h = image.GetHeight();
    EXPECT_LT(w, 512);
    EXPECT_EQ(Rgb(image, 0, 0), 0x000001u);
    EXPECT_EQ(Rgb(image, w - 1, 0), 0x010001u);
    EXPECT_EQ(Rgb(image, w - 1, h - 1), 0x010101u);
}

// A tile answered with 404, or with an empty image/png body, has no picture to paste: both
// forms fail with the decoder's text.
TEST(Mosaic, MissingTileFailsBothForms) {
    for (const bool bestEffort : {false, true}) {
        EXPECT_EQ(WorldMosaic("hole", bestEffort).mosaic.failure, "Unknown image format") << bestEffort;
        EXPECT_EQ(WorldMosaic("empty", bestEffort).mosaic.failure, "Empty image data: 0 bytes") << bestEffort;
    }
}

// The first tile of a strict mosaic has its connection reset while the other fifteen are still
// waiting for their answers: the mosaic fails and closes those requests, so none of them stays
// in flight (or in memory) after the call.
TEST(Mosaic, NetworkFailureClosesTheRequestsStillInFlight) {
    std::atomic<int> waiting{0};
    TestSupport::RawServer server([&](int fd, const std::string& request) {
        if (request.find("GET /t/2/0/0.png ") != std::string::npos) {
            // Reset only once the others are all here, so that all of them are in flight.
            for (int i = 0; i < 500 && waiting.load() < 15; ++i)
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            TestSupport::RawServer::Reset(fd);
            return;
        }
        ++waiting;
        TestSupport::RawServer::Hang(fd, request); // until the client goes
        --waiting;
    });
    auto service = Service(server.Base() + "/t/{z}/{x}/{y}.png", 4326);
    auto box = Box(-179, -84, 179, 84);
    EXPECT_NE(GetMosaic(*service, 2, box.Raw()).failure, "");
    for (int i = 0; i < 500 && waiting.load() > 0; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(waiting.load(), 0) << "requests left in flight";

    // Every connection refused: the requests after the first are still with the transport when
    // the first fails. Left alone they outlived the test, and LeakSanitizer found them at exit.
    int port = 0;
    {
        TestSupport::RawServer gone([](int, const std::string&) {});
        port = gone.Port();
    }
    auto refused = Service("http://127.0.0.1:" + std::to_string(port) + "/t/{z}/{x}/{y}.png", 4326);
    EXPECT_NE(GetMosaic(*refused, 2, box.Raw()).failure, "");
}

TEST(Mosaic, BestEffortAsksForEveryTileTwice) {
    const WorldMosaic world("xyz", true);
    ASSERT_TRUE(world.mosaic.image.Raw()) << world.mosaic.failure;
    EXPECT_EQ(world.server.Requests(), 8);
    auto& image = *world.mosaic.image;
    EXPECT_EQ(Rgb(image, image.GetWidth() - 1, image.GetHeight() - 1), 0x010101u);
}

TEST(Mosaic, GuardsComeFirst) {
    auto service = Service("http://127.0.0.1:9/t/{z}/{x}/{y}.png", 4326);
    for (const bool bestEffort : {false, true}) {
        EXPECT_EQ(GetMosaic(*service, 1, nullptr, bestEffort).failure,
                  "Pointer of struct Tellar::Interfaces::IBoundingBox2d must not be null!");
        Core::Ptr<Core::IErrorCode> error;
        auto box = Box(0, 0, 1, 1);
        EXPECT_FALSE(bestEffort ? service->GetImageBestEffort(1, box.Raw(), nullptr, error.ReceiveAddress())
                                : service->GetImage(1, box.Raw(), nullptr, error.ReceiveAddress()));
        EXPECT_EQ(TextOf(error),
                  "Pointer to a pointer of struct TellarImaging::ITiffImage must not be null! Address "
                  "of return must be specified!");
    }
}

// A geographic service seen in Web Mercator: the picture is reprojected, keeps its tiles in
// place and is cut to the box in metres.
TEST(Mosaic, ReprojectedIntoTheTargetCrs) {
    TestSupport::TileServer server;
    TestSupport::TempDir cache;
    auto service = Service(server.Template("xyz"), 4326, cache.Path().c_str());
    service->SetTargetCrs(Crs(3857).Raw());
    // Lon 1..89, lat 1..44 in metres: tiles (4..5, 2..3) of zoom 3.
    auto box = Box(111319.49, 111325.14, 9907434.68, 5465442.18);
    const Mosaic mosaic = GetMosaic(*service, 3, box.Raw());
    ASSERT_TRUE(mosaic.image.Raw()) << mosaic.failure;
    auto& image = *mosaic.image;
    EXPECT_EQ(image.GetEpsgCode(), 3857u);
    const Params p = ParamsOf(image);
    // The corners come from the tiles on the box's corners.
    EXPECT_NEAR(p.originX, 111319.49, std::fabs(p.scaleX) * 2);
    const int32_t w = image.GetWidth(), h = image.GetHeight();
    EXPECT_EQ(Rgb(image, 2, 2), 0x040203u);
    EXPECT_EQ(Rgb(image, w - 3, h - 3), 0x050303u);
    // Tile edges in metres: column 5 starts at lon 45, row 3 at the latitude of its top edge.
    const double pi = 3.14159265358979;
    const double edgeX = 45.0 * 6378137.0 * pi / 180.0;
    const double edgeLatitude = std::atan(std::sinh(pi / 4));
    const double edgeY = 6378137.0 * std::log(std::tan(pi / 4 + edgeLatitude / 2));
    const auto column = static_cast<int32_t>((edgeX - p.originX) / p.scaleX);
    const auto row = static_cast<int32_t>((edgeY - p.originY) / p.scaleY);
    EXPECT_EQ(Rgb(image, column - 2, row - 2), 0x040203u);
    EXPECT_EQ(Rgb(image, column + 2, row - 2), 0x050203u);
    EXPECT_EQ(Rgb(image, column - 2, row + 2), 0x040303u);
    EXPECT_EQ(Rgb(image, column + 2, row + 2), 0x050303u);
    EXPECT_EQ(server.Requests(), 4);

    // The same box again comes from the cache alone.
    const Mosaic again = GetMosaic(*service, 3, box.Raw());
    ASSERT_TRUE(again.image.Raw()) << again.failure;
    EXPECT_EQ(again.image->GetWidth(), w);
    EXPECT_EQ(server.Requests(), 4);
}

// GDAL's own reading of the ramp tiles of a loopback server at zoom 3, as a WMS/TMS description.
std::string GdalTmsDescription(const TestSupport::TileServer& server) {
    std::string url = server.Template("ramp");
    for (const char* name : {"{z}", "{x}", "{y}"}) url.replace(url.find(name), 0, "$");
    return "<GDAL_WMS><Service name=\"TMS\"><ServerUrl>" + url +
           "</ServerUrl></Service><DataWindow>"
           "<UpperLeftX>-20037508.342789244</UpperLeftX><UpperLeftY>20037508.342789244</UpperLeftY>"
           "<LowerRightX>20037508.342789244</LowerRightX><LowerRightY>-20037508.342789244</LowerRightY>"
           "<TileLevel>3</TileLevel><TileCountX>1</TileCountX><TileCountY>1</TileCountY><YOrigin>top</YOrigin>"
           "</DataWindow><Projection>EPSG:3857</Projection><BlockSizeX>256</BlockSizeX><BlockSizeY>256</BlockSizeY>"
           "<BandsCount>4</BandsCount></GDAL_WMS>";
}

// Saves our mosaic as GeoTIFF, reads it back with what GDAL made at `gdalPath`, and checks that
// both have the same grid (within 1e-6 of a pixel) and the same pixels.
void ExpectSameAsGdal(TellarImaging::ITiffImage& mosaic, const TestSupport::TempDir& dir, const std::string& gdalPath) {
    const std::string ourPath = dir.File("ours.tif");
    Core::Ptr<Core::IErrorCode> error;
    ASSERT_TRUE(
        TellarImaging_SaveImage(&mosaic, ourPath.c_str(), TellarImaging::ImageFileFormatTiff, error.ReceiveAddress()))
        << TextOf(error);
    ASSERT_EQ(std::system(("gdalinfo -mdd IMAGE_STRUCTURE '" + ourPath + "' > '" + ourPath + ".txt'").c_str()), 0);
    const TestImages::Bytes info = TestImages::ReadFileBytes(ourPath + ".txt");
    EXPECT_EQ(std::string(info.begin(), info.end()).find("SIGNEDBYTE"), std::string::npos);

    const auto open = [](const std::string& path) {
        Core::Ptr<TellarImaging::IImage> image;
        Core::Ptr<Core::IErrorCode> error;
        EXPECT_TRUE(OpenImageA(path.c_str(), image.ReceiveAddress(), error.ReceiveAddress())) << TextOf(error);
        return image;
    };
    const Core::Ptr<TellarImaging::IImage> ours = open(ourPath), theirs = open(gdalPath);
    ASSERT_TRUE(ours.Raw() && theirs.Raw());
    ASSERT_EQ(ours->GetWidth(), theirs->GetWidth());
    ASSERT_EQ(ours->GetHeight(), theirs->GetHeight());
    ASSERT_EQ(theirs->GetSamplesPerPixel(), 4);
    const Params a = ParamsOf(dynamic_cast<TellarImaging::ITiffImage&>(*ours.Raw()));
    const Params b = ParamsOf(dynamic_cast<TellarImaging::ITiffImage&>(*theirs.Raw()));
    const double pixel = std::fabs(b.scaleX);
    EXPECT_NEAR(a.scaleX, b.scaleX, 1e-6 * pixel);
    EXPECT_NEAR(a.scaleY, b.scaleY, 1e-6 * pixel);
    EXPECT_NEAR(a.originX, b.originX, 1e-6 * pixel);
    EXPECT_NEAR(a.originY, b.originY, 1e-6 * pixel);
    int64_t differing = 0;
    for (int32_t y = 0; y < ours->GetHeight(); ++y)
        for (int32_t x = 0; x < ours->GetWidth(); ++x)
            differing += std::memcmp(ours->GetPixelPointer(x, y), theirs->GetPixelPointer(x, y), 4) != 0;
    EXPECT_EQ(differing, 0);
}

bool HaveGdal() { return std::system("command -v gdal_translate gdalwarp > /dev/null 2>&1") == 0; }

// A Web-Mercator service georeferences its mosaics in metres from the tile corners, so a box
// in metres cuts the same pixels as GDAL's reading of the tiles.
TEST(Mosaic, MercatorServiceAgreesWithGdal) {
    TestSupport::TileServer server;
    auto service = Service(server.Template("ramp"), 3857);
    // A quarter pixel off the grid, so rounding and truncating the box agree.
    const double half = 20037508.342789244, pixel = 2 * half / 2048;
    auto box = Box(-half + 700.25 * pixel, half - 1100.25 * pixel, -half + 1300.25 * pixel, half - 500.25 * pixel);
    const Mosaic mosaic = GetMosaic(*service, 3, box.Raw());
    ASSERT_TRUE(mosaic.image.Raw()) << mosaic.failure;
    EXPECT_EQ(mosaic.image->GetEpsgCode(), 3857u);
    EXPECT_EQ(mosaic.image->GetWidth(), 600);
    EXPECT_EQ(mosaic.image->GetHeight(), 600);
    // Tiles (2..5, 1..4); pixel (0, 0) is pixel (700, 500) of the level.
    EXPECT_EQ(Rgb(*mosaic.image, 0, 0), (700u % 256) << 16 | (500u % 256) << 8 | (8 * 2 + 1));
    if (!HaveGdal()) GTEST_SKIP() << "GDAL is not installed";

    TestSupport::TempDir dir;
    std::ofstream(dir.File("tms.xml")) << GdalTmsDescription(server);
    const std::string command = Core::StringFormat(
        "gdal_translate -q -projwin %.17g %.17g %.17g %.17g '%s' '%s'", -half + 700.25 * pixel, half - 500.25 * pixel,
        -half + 1300.25 * pixel, half - 1100.25 * pixel, dir.File("tms.xml").c_str(), dir.File("gdal.tif").c_str());
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
    ExpectSameAsGdal(*mosaic.image, dir, dir.File("gdal.tif"));
}

// Reprojected into 4326, the same service gives what gdalwarp makes of GDAL's reading of the
// tiles on our grid, and the grid covers the box in degrees.
TEST(Mosaic, MercatorServiceToGeographicTargetAgreesWithGdalwarp) {
    TestSupport::TileServer server;
    auto service = Service(server.Template("ramp"), 3857);
    service->SetTargetCrs(Crs(4326).Raw());
    auto box = Box(-80.3, -40.2, 30.1, 50.4);
    const Mosaic mosaic = GetMosaic(*service, 3, box.Raw());
    ASSERT_TRUE(mosaic.image.Raw()) << mosaic.failure;
    auto& image = *mosaic.image;
    EXPECT_EQ(image.GetEpsgCode(), 4326u);
    // Tiles (2..4, 2..4) at zoom 3.
    EXPECT_EQ(server.Requests(), 9);
    const Params p = ParamsOf(image);
    EXPECT_LE(p.originX, -80.3);
    EXPECT_GT(p.originX, -80.3 - std::fabs(p.scaleX));
    EXPECT_GE(p.originY, 50.4);
    EXPECT_LT(p.originY, 50.4 + std::fabs(p.scaleY));
    // The crop keeps the box's size in whole pixels from the first whole pixel.
    EXPECT_NEAR(p.originX + image.GetWidth() * p.scaleX, 30.1, 2 * std::fabs(p.scaleX));
    EXPECT_NEAR(p.originY + image.GetHeight() * p.scaleY, -40.2, 2 * std::fabs(p.scaleY));
    if (!HaveGdal()) GTEST_SKIP() << "GDAL is not installed";

    TestSupport::TempDir dir;
    std::ofstream(dir.File("tms.xml")) << GdalTmsDescription(server);
    const std::string command = Core::StringFormat(
        "gdalwarp -q -r near -et 0 -t_srs EPSG:4326 -te %.17g %.17g %.17g %.17g -ts %d %d '%s' '%s'", p.originX,
        p.originY + image.GetHeight() * p.scaleY, p.originX + image.GetWidth() * p.scaleX, p.originY, image.GetWidth(),
        image.GetHeight(), dir.File("tms.xml").c_str(), dir.File("gdal.tif").c_str());
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
    ExpectSameAsGdal(image, dir, dir.File("gdal.tif"));
}

// A tile of one colour at (x, y) of zoom 3, `size` pixels a side, or one that fails with its own
// text; decodes may be slowed down and are counted while under way.
class FakeTile final : public Core::ObjectImplBase<ITileResponse> {
public:
    FakeTile(int64_t x, int64_t y, uint8_t blue, std::string failure = {}, int delayMs = 0, int size = 256)
        : failure_(std::move(failure)), delay_(delayMs) {
        const std::string png = TestSupport::SolidPngTile(size, uint8_t(x), uint8_t(y), blue);
        Data::Array bytes = Data::Array::Create(png.size());
        std::memcpy(bytes.GetData(), png.data(), png.size());
        const MapServices::BoundingBoxValue bounds{x * 45.0 - 180, 90 - (y + 1) * 22.5, (x + 1) * 45.0 - 180,
                                                   90 - y * 22.5};
        inner_ = Core::MakeObject<Impl::TileResponseImpl>(Core::Ptr<Platform::Interfaces::IHttpResponse>(),
                                                          std::move(bytes), bounds, 4326, 3, x, y);
    }
    static inline std::atomic<int> busy{0};

    int32_t GetZoom() override { return 3; }
    int64_t GetX() override { return inner_->GetX(); }
    int64_t GetY() override { return inner_->GetY(); }
    bool GetImage(TellarImaging::IImage** ppImage, Core::IErrorCode** ppError) override {
        ++busy;
        std::this_thread::sleep_for(std::chrono::milliseconds(delay_));
        const bool ok = failure_.empty() ? inner_->GetImage(ppImage, ppError)
                                         : Core::AbiGuard([&] { throw std::runtime_error(failure_); }, ppError);
        --busy;
        return ok;
    }
    bool GetTransform(TellarImaging::ITransform** ppTransform, Core::IErrorCode** ppError) override {
        return inner_->GetTransform(ppTransform, ppError);
    }
    bool GetBounds(Tellar::Interfaces::IBoundingBox2d** ppBox, Core::IErrorCode** ppError) override {
        return inner_->GetBounds(ppBox, ppError);
    }
    Platform::Interfaces::IHttpResponse* GetHttpResponse() override { return nullptr; }
    int32_t GetEpsgCode() override { return 4326; }

private:
    Core::Ptr<ITileResponse> inner_;
    std::string failure_;
    int delay_;
};

// Enough tiles for several decoding threads and batches: pasting still follows the list where
// tiles overlap (one cell asked for three times, tiles of two cells a side), and the failure
// reported is the first of the list, not the first in time.
TEST(Mosaic, ParallelDecodingKeepsListOrder) {
    MapServices::TileRange range;
    range.Extend(0, 0);
    range.Extend(7, 7);
    std::vector<Core::Ptr<ITileResponse>> tiles;
    for (int64_t x = 0; x < 8; ++x)
        for (int64_t y = 0; y < 8; ++y) tiles.push_back(Core::MakeObject<FakeTile>(x, y, 0));
    for (uint8_t again = 1; again <= 2; ++again) tiles.push_back(Core::MakeObject<FakeTile>(2, 3, again));
    // Cells (5..6, 5..6), three of them pasted over it later in the list; cells (0..1, 1..2),
    // all pasted before it.
    tiles[5 * 8 + 5] = Core::MakeObject<FakeTile>(5, 5, 7, "", 0, 512);
    tiles.push_back(Core::MakeObject<FakeTile>(0, 1, 9, "", 0, 512));

    auto mosaic = Impl::ComposeMosaic(range, tiles, 4326, 1);
    ASSERT_EQ(mosaic->GetWidth(), 8 * 256);
    EXPECT_EQ(Rgb(*mosaic, 2 * 256 + 9, 3 * 256 + 9), 0x020302u); // the last tile for (2, 3)
    EXPECT_EQ(Rgb(*mosaic, 7 * 256 + 9, 6 * 256 + 9), 0x070600u);
    EXPECT_EQ(Rgb(*mosaic, 5 * 256 + 9, 5 * 256 + 9), 0x050507u);
    EXPECT_EQ(Rgb(*mosaic, 6 * 256 + 9, 6 * 256 + 9), 0x060600u);
    EXPECT_EQ(Rgb(*mosaic, 5 * 256 + 9, 6 * 256 + 9), 0x050600u);
    EXPECT_EQ(Rgb(*mosaic, 1 * 256 + 9, 2 * 256 + 9), 0x000109u);

    tiles[36] = Core::MakeObject<FakeTile>(4, 4, 0, "tile 36 failed", 100);
    tiles[45] = Core::MakeObject<FakeTile>(5, 5, 0, "tile 45 failed");
    tiles[47] = Core::MakeObject<FakeTile>(5, 7, 0, "", 200);
    try {
        Impl::ComposeMosaic(range, tiles, 4326, 1);
        ADD_FAILURE() << "no failure";
    } catch (const std::exception& e) {
        EXPECT_STREQ(e.what(), "tile 36 failed");
    }
    EXPECT_EQ(FakeTile::busy.load(), 0); // every decoding thread joined
}

} // namespace
