#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "Data/Exports.h"
#include "MapServiceSupport.h"
#include "OgcTestSupport.h"
#include "Platform/Interfaces/IAsyncTask.h"
#include "TaskWait.h"
#include "Tellar/Interfaces/IOgcMapService.h"

namespace {

using namespace MapTests;
using Tellar::Interfaces::IOgcMapService;

std::string Replace(std::string text, const std::string& mark, const std::string& value) {
    for (size_t at = text.find(mark); at != std::string::npos; at = text.find(mark, at + value.size()))
        text.replace(at, mark.size(), value);
    return text;
}

// Two leaves under a group, the second with a time dimension; BASE is the server's address.
constexpr const char* WmsDocument = R"(<?xml version="1.0"?>
<WMS_Capabilities version="1.3.0" xmlns="http://www.opengis.net/wms" xmlns:xlink="http://www.w3.org/1999/xlink">
  <Service><Name>WMS</Name><Title>Test</Title></Service>
  <Capability>
    <Request><GetCapabilities><Format>text/xml</Format>
      <DCPType><HTTP><Get><OnlineResource xlink:href="BASE/png/wms?"/></Get></HTTP></DCPType></GetCapabilities>
      <GetMap><Format>image/png</Format></GetMap></Request>
    <Exception><Format>XML</Format></Exception>
    <Layer><Title>Root</Title>
      <Layer><Name>group</Name><Title>Group</Title>
        <Layer><Name>roads</Name><Style><Name>plain</Name></Style></Layer>
        <Layer><Name>weather</Name><Style><Name>default</Name></Style>
          <Dimension name="time" units="ISO8601" default="2024-01-01">2024-01-01/2024-01-03/P1D</Dimension></Layer>
      </Layer>
    </Layer>
  </Capability>
</WMS_Capabilities>)";

constexpr const char* WcsDocument = R"(<?xml version="1.0"?>
<WCS_Capabilities version="1.0.0" xmlns="http://www.opengis.net/wcs" xmlns:gml="http://www.opengis.net/gml"
    xmlns:xlink="http://www.w3.org/1999/xlink">
  <Service><name>WCS</name><label>Heights</label></Service>
  <Capability><Request>
    <GetCapabilities><DCPType><HTTP><Get><OnlineResource xlink:href="BASE/bytes/wcs?"/></Get></HTTP></DCPType></GetCapabilities>
    <GetCoverage><DCPType><HTTP><Get><OnlineResource xlink:href="BASE/bytes/wcs?"/></Get></HTTP></DCPType></GetCoverage>
  </Request></Capability>
  <ContentMetadata>COVERAGES</ContentMetadata>
</WCS_Capabilities>)";

std::string Coverage(const std::string& name) {
    return "<CoverageOfferingBrief><name>" + name + "</name><label>" + name +
           "</label><lonLatEnvelope srsName=\"EPSG:4326\"><gml:pos>0 0</gml:pos><gml:pos>10 10</gml:pos>"
           "</lonLatEnvelope></CoverageOfferingBrief>";
}

constexpr const char* WmtsDocument = R"(<?xml version="1.0"?>
<Capabilities xmlns="http://www.opengis.net/wmts/1.0" xmlns:ows="http://www.opengis.net/ows/1.1"
    xmlns:xlink="http://www.w3.org/1999/xlink" version="1.0.0">
  <ows:ServiceIdentification><ows:Title>Tiles</ows:Title><ows:ServiceType>OGC WMTS</ows:ServiceType>
    <ows:ServiceTypeVersion>1.0.0</ows:ServiceTypeVersion></ows:ServiceIdentification>
  <Contents>
    <Layer><ows:Title>Relief</ows:Title><ows:Identifier>relief</ows:Identifier>
      <ows:WGS84BoundingBox><ows:LowerCorner>-180 -85</ows:LowerCorner><ows:UpperCorner>180 85</ows:UpperCorner></ows:WGS84BoundingBox>
      <Style isDefault="true"><ows:Title>Main</ows:Title><ows:Identifier>main</ows:Identifier></Style>
      <Style><ows:Title>Alt</ows:Title><ows:Identifier>alt</ows:Identifier></Style>
      <Format>image/png</Format>
      <ResourceURL format="image/png" resourceType="tile" template="BASE/png/{style}/{TileMatrix}/{TileCol}/{TileRow}.png"/>
      <ResourceURL format="image/jpeg" resourceType="tile" template="BASE/png/{style}/{TileMatrix}/{TileCol}/{TileRow}.jpg"/>
      <TileMatrixSetLink><TileMatrixSet>WebMercatorQuad</TileMatrixSet></TileMatrixSetLink>
      <TileMatrixSetLink><TileMatrixSet>utm</TileMatrixSet></TileMatrixSetLink>
    </Layer>
    <TileMatrixSet><ows:Title>Mercator</ows:Title><ows:Identifier>WebMercatorQuad</ows:Identifier><ows:SupportedCRS>urn:ogc:def:crs:EPSG::3857</ows:SupportedCRS>
      <TileMatrix><ows:Identifier>0</ows:Identifier><ScaleDenominator>559082264.0287178</ScaleDenominator>
        <TopLeftCorner>-20037508.342789244 20037508.342789244</TopLeftCorner><TileWidth>256</TileWidth>
        <TileHeight>256</TileHeight><MatrixWidth>1</MatrixWidth><MatrixHeight>1</MatrixHeight></TileMatrix>
    </TileMatrixSet>
    <TileMatrixSet><ows:Title>UTM</ows:Title><ows:Identifier>utm</ows:Identifier><ows:SupportedCRS>urn:ogc:def:crs:EPSG::25832</ows:SupportedCRS>
      <TileMatrix><ows:Identifier>0</ows:Identifier><ScaleDenominator>10000</ScaleDenominator>
        <TopLeftCorner>400000 5600000</TopLeftCorner><TileWidth>256</TileWidth>
        <TileHeight>256</TileHeight><MatrixWidth>4</MatrixWidth><MatrixHeight>4</MatrixHeight></TileMatrix>
    </TileMatrixSet>
  </Contents>
</Capabilities>)";

class OgcService : public testing::Test {
protected:
    OgcService() {
        server.Serve("/caps/wms", Replace(WmsDocument, "BASE", server.Url("")));
        server.Serve("/caps/wcs", Replace(Replace(WcsDocument, "COVERAGES", Coverage("dem") + Coverage("slope")),
                                          "BASE", server.Url("")));
        server.Serve("/caps/empty-wcs", Replace(Replace(WcsDocument, "COVERAGES", ""), "BASE", server.Url("")));
        server.Serve("/caps/wmts", Replace(WmtsDocument, "BASE", server.Url("")));
        server.Serve("/caps/broken", "<WMS_Capabilities><unclosed>");
    }

    // The service a factory made, or the text it failed with.
    struct Made {
        Core::Ptr<IOgcMapService> service;
        std::string failure;
    };
    static Made Check(bool made, Core::Ptr<IMapService>& service, const Core::Ptr<Core::IErrorCode>& error) {
        if (!made) return {{}, TextOf(error)};
        return {service.As<IOgcMapService>(), ""};
    }
    Made Wms(const char* path, const char* layer = nullptr, const char* style = nullptr,
             const char* format = "image/png", uint32_t code = 4326) {
        Core::Ptr<IMapService> service;
        Core::Ptr<Core::IErrorCode> error;
        const std::string url = server.Url(path);
        return Check(TellarSpatialMaps_CreateMapServiceFromWmsUrl(Epsg().Raw(), url.c_str(), layer, style, format, code,
                                                                  service.ReceiveAddress(), error.ReceiveAddress()),
                     service, error);
    }
    Made Wcs(const char* path, const char* coverage = nullptr, const char* format = "GeoTIFF") {
        Core::Ptr<IMapService> service;
        Core::Ptr<Core::IErrorCode> error;
        const std::string url = server.Url(path);
        return Check(TellarSpatialMaps_CreateMapServiceFromWcsUrl(Epsg().Raw(), url.c_str(), coverage, format, 4326,
                                                                  service.ReceiveAddress(), error.ReceiveAddress()),
                     service, error);
    }
    Made Wmts(const char* layer, const char* style = nullptr, const char* format = nullptr,
              const char* set = nullptr) {
        Core::Ptr<IMapService> service;
        Core::Ptr<Core::IErrorCode> error;
        const std::string url = server.Url("/caps/wmts");
        return Check(TellarSpatialMaps_CreateMapServiceFromWmtsUrl(Epsg().Raw(), url.c_str(), layer, style, format, set,
                                                                   service.ReceiveAddress(), error.ReceiveAddress()),
                     service, error);
    }

    // The WCS factory with no place for its result: refused before anything is downloaded.
    Made NullOut() {
        Core::Ptr<Core::IErrorCode> error;
        const std::string url = server.Url("/caps/wcs");
        TellarSpatialMaps_CreateMapServiceFromWcsUrl(Epsg().Raw(), url.c_str(), nullptr, "GeoTIFF", 4326, nullptr,
                                                     error.ReceiveAddress());
        return {{}, TextOf(error)};
    }

    OgcTests::RecordingServer server;
};

using TestSupport::Settle;

Core::Ptr<Data::Interfaces::IDateTime> Day(const char* text) {
    Core::Ptr<Data::Interfaces::IDateTime> time;
    EXPECT_TRUE(Data_CreateDateTimeFromIso8601(text, time.ReceiveAddress(), nullptr));
    return time;
}

} // namespace

TEST_F(OgcService, FactoriesRefuseInOrder) {
    const std::string missing = server.Url("/404/caps");
    const struct {
        Made made;
        std::string failure;
    } cases[] = {
        {Wms("/caps/wms", nullptr, nullptr, nullptr), "Pointer of char must not be null!"},
        {Wms("/caps/wms", nullptr, nullptr, "image/png; mode=8bit"), "Only image/png format is supported for now"},
        {Wms("/500/caps"), "Failed to download wms caps from " + server.Url("/500/caps")},
        {Wms("/caps/broken"), "unexpected end of data"},
        {Wms("/caps/wms", "rivers"), "Layer rivers does not exists"},
        {Wms("/caps/wms", "roads", ""), "Style selection is not implemented! Use nullptr for now"},
        {Wcs("/caps/wcs", nullptr, "image/tiff"), "Only GeoTIFF format is supported for now"},
        {Wcs("/caps/wcs", "rivers"), "Content with name does not exist!"},
        {Wcs("/caps/empty-wcs"), "invalid vector subscript"},
        {Wcs("/500/caps"), "Failed to download wms caps from " + server.Url("/500/caps")},
        {Wmts(nullptr), "Pointer of char must not be null!"},
        {NullOut(), "Pointer to a pointer of struct Tellar::Interfaces::IMapService must not be null! Address of "
                    "return must be specified!"},
        {Wmts("roads"), "Layer roads does not exists"},
        {Wmts("relief", "night"), "Style night does not exists"},
        {Wmts("relief", nullptr, "image/gif"), "Format image/gif is not supported"},
        {Wmts("relief", nullptr, nullptr, "WorldCRS84Quad"), "TileMatrixSet WorldCRS84Quad is not supported"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.made.failure.substr(0, c.failure.size()), c.failure);
        EXPECT_TRUE(c.made.service.IsNull());
    }
}

TEST_F(OgcService, FactoriesBindWhatTheyWereAskedFor) {
    // Without a name the last leaf of the document; a group has no fetcher of its own to hide it.
    EXPECT_STREQ(Wms("/caps/wms").service->GetLayerName(), "weather");
    EXPECT_STREQ(Wms("/caps/wms", "roads").service->GetLayerName(), "roads");

    const Made utm = Wmts("relief", "alt", "image/jpeg", "utm");
    ASSERT_TRUE(utm.service.Raw()) << utm.failure;
    EXPECT_EQ(utm.service->GetCrs()->GetEpsgCode(), 25832u);
    EXPECT_STREQ(utm.service->GetLayerName(), "Relief");
    auto response = Response(*Tile(*utm.service, 0, 1, 2));
    EXPECT_EQ(server.Requests().back().target, "/png/alt/0/1/2.jpg");
    EXPECT_EQ(Wmts("relief").service->GetCrs()->GetEpsgCode(), 3857u);
}

// A picture arrives through its task on the thread that made the service, while it waits
// alertably; the time set on the service and the CRS name travel with the request.
TEST_F(OgcService, WmsPicturesThroughTasks) {
    for (const uint32_t code : {4326u, 3857u}) {
        const Made wms = Wms("/caps/wms", nullptr, nullptr, "image/png", code);
        ASSERT_TRUE(wms.service.Raw()) << wms.failure;
        ASSERT_TRUE(wms.service->SetTime(Day("2024-01-02T00:00:00Z").Raw(), nullptr));
        Core::Ptr<Data::Interfaces::IDateTime> time;
        ASSERT_TRUE(wms.service->GetTime(time.ReceiveAddress(), nullptr));
        EXPECT_EQ(time->GetDay(), 2);

        auto box = Box(5, 44, 16, 50);
        Core::Ptr<Platform::Interfaces::IAsyncTask> task;
        Core::Ptr<Core::IErrorCode> error;
        ASSERT_TRUE(wms.service->GetMapSimpleAsync(300, 200, box.Raw(), task.ReceiveAddress(), error.ReceiveAddress()))
            << TextOf(error);
        ASSERT_TRUE(Settle(*task));
        EXPECT_EQ(task->GetState(), Platform::Interfaces::AsyncTaskCompleted);
        Data::Structures::VARIANT result{};
        task->GetResult(&result);
        const Data::Variant value = Data::Variant::Adopt(result);
        auto* image = dynamic_cast<TellarImaging::ITiffImage*>(value.Raw().payload.object);
        ASSERT_NE(image, nullptr);
        EXPECT_EQ(image->GetWidth(), 256);

        const std::string target = server.Requests().back().target;
        const std::string crs = code == 4326 ? "&CRS=CRS:84&" : "&CRS=EPSG:3857&";
        EXPECT_NE(target.find("LAYERS=weather&STYLES=default" + crs + "BBOX=5.000000,44.000000,16.000000,50.000000"
                              "&WIDTH=300&HEIGHT=200&"),
                  std::string::npos)
            << target;
        EXPECT_EQ(target.substr(target.rfind('&')), "&TIME=2024-01-02T00:00:00.000Z");
    }
}

TEST_F(OgcService, SyncPictureFromAnotherThreadAndFailuresInTheTask) {
    const Made wms = Wms("/caps/wms", "roads");
    ASSERT_TRUE(wms.service.Raw()) << wms.failure;
    auto box = Box(5, 44, 16, 50);
    Core::Ptr<TellarImaging::ITiffImage> image;
    std::string failure;
    std::atomic<bool> finished{false};
    std::thread caller([&] {
        Core::Ptr<Core::IErrorCode> error;
        if (!wms.service->GetMapSync(64, 64, box.Raw(), image.ReceiveAddress(), error.ReceiveAddress()))
            failure = TextOf(error);
        finished = true;
    });
    // This thread built the service: its alertable waits on pictures of its own also complete
    // the other thread's.
    for (int round = 0; round < 100 && !finished; ++round) {
        Core::Ptr<Platform::Interfaces::IAsyncTask> own;
        ASSERT_TRUE(wms.service->GetMapSimpleAsync(8, 8, box.Raw(), own.ReceiveAddress(), nullptr));
        ASSERT_TRUE(Settle(*own));
    }
    caller.join();
    EXPECT_EQ(failure, "");
    ASSERT_TRUE(image.Raw());
    EXPECT_EQ(image->GetWidth(), 256);

    // An unknown layer is refused at once; a download that fails ends the task in state 6.
    Core::Ptr<Platform::Interfaces::IAsyncTask> task;
    Core::Ptr<Core::IErrorCode> error;
    EXPECT_FALSE(wms.service->GetMapAsync("rivers", 8, 8, box.Raw(), nullptr, task.ReceiveAddress(),
                                          error.ReceiveAddress()));
    EXPECT_EQ(TextOf(error), "Interface is not accessible: class MapServices::Wms::impl::WmsLayerImpl");
    server.Serve("/png/wms", "no picture", "text/plain");
    error = nullptr;
    ASSERT_TRUE(wms.service->GetMapAsync(nullptr, 8, 8, box.Raw(), nullptr, task.ReceiveAddress(),
                                         error.ReceiveAddress()));
    ASSERT_TRUE(Settle(*task));
    EXPECT_EQ(task->GetState(), Platform::Interfaces::AsyncTaskFailed);
    EXPECT_STREQ(task->GetErrorMessage(), "Failed to download data from WCS service roads");
}

TEST_F(OgcService, WcsDataWithTheServiceTime) {
    const Made wcs = Wcs("/caps/wcs", "slope");
    ASSERT_TRUE(wcs.service.Raw()) << wcs.failure;
    ASSERT_TRUE(wcs.service->SetTime(Day("2024-05-01T12:30:00+02:00").Raw(), nullptr));
    auto box = Box(1, 2, 3, 4);
    Core::Ptr<Platform::Interfaces::IAsyncTask> task;
    Core::Ptr<Core::IErrorCode> error;
    ASSERT_TRUE(wcs.service->GetDataAsync(nullptr, 20, 10, box.Raw(), nullptr, task.ReceiveAddress(),
                                          error.ReceiveAddress()))
        << TextOf(error);
    ASSERT_TRUE(Settle(*task));
    ASSERT_EQ(task->GetState(), Platform::Interfaces::AsyncTaskCompleted);
    Data::Structures::VARIANT result{};
    task->GetResult(&result);
    const Data::Variant value = Data::Variant::Adopt(result);
    auto* bytes = dynamic_cast<Data::Interfaces::IArray*>(value.Raw().payload.object);
    ASSERT_NE(bytes, nullptr);
    EXPECT_EQ(std::string(static_cast<const char*>(bytes->GetData()), bytes->GetSizeInBytes()), "coverage bytes");
    EXPECT_EQ(server.Requests().back().target,
              "/bytes/wcs?SERVICE=WCS&VERSION=1.0.0&REQUEST=GetCoverage&FORMAT=image/tiff&COVERAGE=slope&CRS=CRS:84"
              "&BBOX=1.000000,2.000000,3.000000,4.000000&WIDTH=20&HEIGHT=10&TIME=2024-05-01T10:30:00.000Z");

    Core::Ptr<Data::Interfaces::IDateTime> time;
    ASSERT_TRUE(wcs.service->GetTime(time.ReceiveAddress(), nullptr));
    EXPECT_EQ(time->GetHour(), 10);
    EXPECT_EQ(time->GetMinute(), 30);
}
