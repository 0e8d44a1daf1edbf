#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "Data/Exports.h"
#include "Data/Variant.h"
#include "InteropServers.h"
#include "MapServiceSupport.h"
#include "TaskWait.h"
#include "Tellar/Interfaces/IOgcMapService.h"
#include "TellarImaging/Exports.h"

// The library's factories and services against real map servers.

namespace {

using namespace MapTests;
using namespace InteropTests;
using Tellar::Interfaces::IOgcMapService;

#define SKIP_IF_MISSING(fixture) \
    if (!(fixture).Missing().empty()) GTEST_SKIP() << (fixture).Missing()

Core::Ptr<IOgcMapService> Wms(const std::string& url, const char* layer, uint32_t code, std::string* failure) {
    Core::Ptr<IMapService> service;
    Core::Ptr<Core::IErrorCode> error;
    if (!TellarSpatialMaps_CreateMapServiceFromWmsUrl(Epsg().Raw(), url.c_str(), layer, nullptr, "image/png", code,
                                                      service.ReceiveAddress(), error.ReceiveAddress())) {
        *failure = TextOf(error);
        return {};
    }
    return service.As<IOgcMapService>();
}

Core::Ptr<IMapService> Wmts(const std::string& url, const char* layer, const char* set, std::string* failure) {
    Core::Ptr<IMapService> service;
    Core::Ptr<Core::IErrorCode> error;
    if (!TellarSpatialMaps_CreateMapServiceFromWmtsUrl(Epsg().Raw(), url.c_str(), layer, nullptr, nullptr, set,
                                                       service.ReceiveAddress(), error.ReceiveAddress()))
        *failure = TextOf(error);
    return service;
}

// The result object of a finished task.
template <class T>
Core::Ptr<T> ResultOf(Platform::Interfaces::IAsyncTask& task) {
    Data::Structures::VARIANT raw{};
    task.GetResult(&raw);
    const Data::Variant value = Data::Variant::Adopt(raw);
    return Core::Ptr<T>(dynamic_cast<T*>(value.Raw().payload.object));
}

// A picture of the box through the task road, waited for as a host does.
Core::Ptr<TellarImaging::ITiffImage> Picture(IOgcMapService& service, const LonLatBox& b, int width, int height) {
    auto box = Box(b.minX, b.minY, b.maxX, b.maxY);
    Core::Ptr<Platform::Interfaces::IAsyncTask> task;
    Core::Ptr<Core::IErrorCode> error;
    EXPECT_TRUE(service.GetMapSimpleAsync(width, height, box.Raw(), task.ReceiveAddress(), error.ReceiveAddress()))
        << TextOf(error);
    if (!task.Raw() || !TestSupport::Settle(*task) || task->IsFailed()) {
        ADD_FAILURE() << (task.Raw() ? task->GetErrorMessage() : "no task");
        return {};
    }
    return ResultOf<TellarImaging::ITiffImage>(*task);
}

uint32_t Colour(const InteropTests::Rgb& rgb) { return uint32_t(rgb.red) << 16 | uint32_t(rgb.green) << 8 | uint32_t(rgb.blue); }

// Colours equal within a few steps per channel (a server that quantizes its PNG palette).
bool Near(uint32_t a, uint32_t b) {
    for (int shift : {0, 8, 16})
        if (std::abs(int((a >> shift) & 0xFF) - int((b >> shift) & 0xFF)) > 4) return false;
    return true;
}

} // namespace

// MapServer draws the day the service asks for: SetTime travels as TIME, CRS:84 as lon/lat.
TEST(LibraryInterop, MapServerWmsDrawsTheDayAsked) {
    MapServerFixture mapserver;
    SKIP_IF_MISSING(mapserver);
    std::string failure;
    auto service = Wms(mapserver.WmsCapabilitiesUrl(), MapServerFixture::TimeLayer, 4326, &failure);
    ASSERT_TRUE(service.Raw()) << failure;
    for (const Day& day : MapServerFixture::Days) {
        Core::Ptr<Data::Interfaces::IDateTime> time;
        ASSERT_TRUE(Data_CreateDateTimeFromIso8601(day.date, time.ReceiveAddress(), nullptr));
        ASSERT_TRUE(service->SetTime(time.Raw(), nullptr));
        auto picture = Picture(*service, MapServerFixture::TimeLayerBox, 40, 20);
        ASSERT_TRUE(picture.Raw());
        EXPECT_EQ(picture->GetWidth(), 40);
        EXPECT_EQ(MapTests::Rgb(*picture, 20, 10), Colour(day.colour)) << day.date;
    }
    // The group itself is no layer the reader offers.
    EXPECT_FALSE(Wms(mapserver.WmsCapabilitiesUrl(), MapServerFixture::GroupLayer, 4326, &failure).Raw());
    EXPECT_EQ(failure, "Layer basemap does not exists");
}

// The Float32 grid comes back as MapServer's GeoTIFF, every value the formula's. A service in
// EPSG:4326 names its CRS "CRS:84", which MapServer's WCS refuses: the task completes with the
// server's exception report as its bytes.
TEST(LibraryInterop, MapServerWcsGridByValue) {
    MapServerFixture mapserver;
    SKIP_IF_MISSING(mapserver);
    const auto coverage = [&](const char* name, uint32_t code, const LonLatBox& b) {
        Core::Ptr<IMapService> made;
        Core::Ptr<Core::IErrorCode> error;
        const std::string url = mapserver.WcsCapabilitiesUrl();
        EXPECT_TRUE(TellarSpatialMaps_CreateMapServiceFromWcsUrl(Epsg().Raw(), url.c_str(), name, "GeoTIFF", code,
                                                                 made.ReceiveAddress(), error.ReceiveAddress()))
            << TextOf(error);
        auto box = Box(b.minX, b.minY, b.maxX, b.maxY);
        Core::Ptr<Platform::Interfaces::IAsyncTask> task;
        EXPECT_TRUE(made.As<IOgcMapService>()->GetDataAsync(nullptr, MapServerFixture::GridColumns,
                                                            MapServerFixture::GridRows, box.Raw(), nullptr,
                                                            task.ReceiveAddress(), error.ReceiveAddress()))
            << TextOf(error);
        EXPECT_TRUE(TestSupport::Settle(*task));
        EXPECT_FALSE(task->IsFailed()) << task->GetErrorMessage();
        return ResultOf<Data::Interfaces::IArray>(*task);
    };

    auto refused = coverage(MapServerFixture::Coverage, 4326, MapServerFixture::GridBox);
    ASSERT_TRUE(refused.Raw());
    const std::string report(static_cast<const char*>(refused->GetData()), refused->GetSizeInBytes());
    EXPECT_NE(report.find("Unsupported SRS namespace"), std::string::npos) << report;

    auto bytes = coverage(MapServerFixture::UtmCoverage, MapServerFixture::UtmEpsg, MapServerFixture::UtmGridBox);
    ASSERT_TRUE(bytes.Raw());
    Core::Ptr<TellarImaging::IImage> image;
    Core::Ptr<Core::IErrorCode> error;
    ASSERT_TRUE(CreateImageFromMemoryStream(bytes->GetData(), bytes->GetSizeInBytes(), image.ReceiveAddress(),
                                            error.ReceiveAddress()))
        << TextOf(error);
    ASSERT_EQ(image->GetWidth(), MapServerFixture::GridColumns);
    ASSERT_EQ(image->GetHeight(), MapServerFixture::GridRows);
    int wrong = 0;
    for (int row = 0; row < MapServerFixture::GridRows; ++row)
        for (int column = 0; column < MapServerFixture::GridColumns; ++column)
            wrong += *static_cast<const float*>(image->GetPixelPointer(column, row)) !=
                     MapServerFixture::GridValue(column, row);
    EXPECT_EQ(wrong, 0);
}

// MapCache's tiles through the WMTS factory, in its 256- and 512-pixel Web-Mercator sets.
TEST(LibraryInterop, MapCacheWmtsTiles) {
    MapServerFixture mapserver;
    MapCacheFixture mapcache(mapserver);
    SKIP_IF_MISSING(mapcache);
    for (const auto& [set, size] : {std::pair<const char*, int32_t>{nullptr, 256}, {"g512", 512}}) {
        std::string failure;
        auto service = Wmts(mapcache.WmtsRestCapabilitiesUrl(), MapCacheFixture::Layer, set, &failure);
        ASSERT_TRUE(service.Raw()) << failure;
        EXPECT_EQ(service->GetCrs()->GetEpsgCode(), 3857u);
        // Tile (1, 0) of level 1 holds land (north-east of 0, 0).
        Core::Ptr<TellarImaging::IImage> tile;
        Core::Ptr<Core::IErrorCode> error;
        ASSERT_TRUE(Response(*Tile(*service, 1, 1, 0))->GetImage(tile.ReceiveAddress(), error.ReceiveAddress()))
            << TextOf(error);
        EXPECT_EQ(tile->GetWidth(), size);
        EXPECT_EQ(MapTests::Rgb(*tile, size / 64, size - size / 64), Colour(MapServerFixture::Leaves[0].colour));
    }
}

// MapProxy: its WMS draws through the WMS factory; its WMTS capabilities name sets by plain EPSG
// codes, which the capabilities reader refuses.
TEST(LibraryInterop, MapProxyWmsDrawsAndItsWmtsIsRefused) {
    MapServerFixture mapserver;
    MapProxyFixture mapproxy(mapserver);
    SKIP_IF_MISSING(mapproxy);
    std::string failure;
    auto service = Wms(mapproxy.WmsCapabilitiesUrl(), MapProxyFixture::Layer, 3857, &failure);
    ASSERT_TRUE(service.Raw()) << failure;
    // Ten degrees of longitude either side of 0, in metres.
    auto picture = Picture(*service, {-1113194.9, -1118890.0, 1113194.9, 1118890.0}, 64, 64);
    ASSERT_TRUE(picture.Raw());
    EXPECT_PRED2(Near, MapTests::Rgb(*picture, 48, 16), Colour(MapServerFixture::Leaves[0].colour));
    EXPECT_PRED2(Near, MapTests::Rgb(*picture, 16, 48), Colour(MapServerFixture::Leaves[1].colour));

    EXPECT_FALSE(Wmts(mapproxy.WmtsRestCapabilitiesUrl(), MapProxyFixture::Layer, nullptr, &failure).Raw());
    EXPECT_EQ(failure, "Unsupported format! Following format is supported: urn:ogc:def:crs:EPSG::4326");
}
