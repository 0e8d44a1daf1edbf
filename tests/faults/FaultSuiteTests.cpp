// Every misbehaving answer of the fault server on every road of the library: the blocking tile
// road and its mosaics, the fetcher's callbacks and downloads, and the OGC picture tasks. Each
// cell checks the result the road gives for that answer, that callbacks come once and on the
// dispatcher thread, that the time stays within the client's timeout, and that the cache holds
// nothing but complete images and no temporary file.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Common/TileRequestImpl.h"
#include "Core/ObjectImplBase.h"
#include "Data/Values.h"
#include "FaultServer.h"
#include "MapServiceSupport.h"
#include "Platform/Interfaces/IAsyncTask.h"
#include "Platform/Interfaces/IHttpClient.h"
#include "PumpUntil.h"
#include "RecordingLogger.h"
#include "TaskWait.h"
#include "Tellar/Interfaces/IOgcMapService.h"
#include "TellarImaging/IImage.h"
#include "TempDir.h"
#include "TestServer.h"
#include "TileServer.h"
#include "Tms/TmsFetcherImpl.h"

namespace {

using namespace FaultTests;
using namespace MapTests;
using Clock = std::chrono::steady_clock;
using Platform::Interfaces::IAsyncTask;

constexpr uint32_t ReceiveTimeoutMs = 1000;
// What a cell may take beyond its answer's own time and the client's timeout: the whole table
// runs at once, under the sanitizers, on two shared cores; under ThreadSanitizer beside the other
// tests of its run.
#ifdef __SANITIZE_THREAD__
constexpr int SlackMs = 10000;
#else
constexpr int SlackMs = 5000;
#endif
// Large enough that a copy of it shows in time and memory, small enough for the sanitizer builds.
constexpr uint64_t HugeBytes = 200ull << 20;

// clang-format off
enum Road { Response, Mosaic, BestEffort, TileData, TileImage, Download, MapAsync, DataAsync, MapSync,
            WmtsResponse, WmtsMosaic, RoadCount };
// clang-format on
constexpr const char* RoadNames[RoadCount] = {
    "GetResponse", "GetImage",     "GetImageBestEffort", "FetchTileData",    "FetchTileAsync", "DownloadMap",
    "GetMapAsync", "GetDataAsync", "GetMapSync",         "WMTS GetResponse", "WMTS GetImage"};

// One answer of the server and what each road makes of it. Results read:
//   tiles       "200", "404" ... (the status GetResponse hands over) or "fail: <text>"
//   mosaics     "28x38" (the tile cut to the box; "28x29" for the WMTS service, in metres) or
//               "fail: <text>"
//   fetcher     "png" (the tile's bytes), "<n> bytes", "empty", "null", "no call" (decode failed)
//   download    "file" or "no file"
//   tasks       "256x256", "png", "<n> bytes", "failed" (nothing came), "open" (never ends),
//               "not run" (a blocking call that would never return)
// and " cached" follows when the road left a file in its cache.
struct Row {
    std::string name;
    Answer answer;
    std::string body;                            // the complete body, as the client gets it after decoding
    bool image = false;                          // whether the body is a tile a cache may hold
    int ownMs = 0;                               // how long the answer takes when the client waits it out
    std::array<std::string, RoadCount> expected; // by road, in the order of Road
    bool alone = false;                          // heavy: its cells run one at a time, after the others
};

using Results = std::array<std::string, RoadCount>;
const std::string NothingCame = "fail: Failed to download data from WCS service roads";

// A good tile, whoever delivers it; the mosaic is cut to the box asked for.
const Results Good = {"200 cached",     "28x38 cached", "28x38 cached",   "png cached", "256x256 cached", "file",
                      "256x256 cached", "png",          "256x256 cached", "200 cached", "28x29 cached"};
// An exchange that fails: the blocking roads have no text of their own for it.
const std::string Unknown = "fail: Unknown exception";
const Results Broken = {Unknown,  Unknown,  Unknown,     "null",  "null", "no file",
                        "failed", "failed", NothingCame, Unknown, Unknown};
// A whole answer without a tile: the status reaches GetResponse, the mosaic fails to decode the body.
Results NoTile(const std::string& status, const std::string& decode) {
    return {status,   "fail: " + decode, "fail: " + decode, "null", "null",           "no file",
            "failed", "failed",          NothingCame,       status, "fail: " + decode};
}
// A text page with status 200: the box download and GetDataAsync take any whole 200 body.
Results Page(size_t size) {
    Results results = NoTile("200", "Unknown image format");
    results[Download] = "file";
    results[DataAsync] = std::to_string(size) + " bytes";
    return results;
}

std::string Png() { return TestSupport::SolidPngTile(256, 40, 80, 120); }

// A valid PNG of 20000 x 20000 black pixels, one bit each: 50 MB of rows that deflate to 49 KB.
std::string HugeDimensionsPng() {
    constexpr uint32_t side = 20000;
    const auto put = [](std::string& out, uint32_t value) {
        for (int shift = 24; shift >= 0; shift -= 8) out += static_cast<char>(value >> shift);
    };
    std::string png = "\x89PNG\r\n\x1a\n";
    const auto chunk = [&](const std::string& body) { // its type, then its data
        put(png, static_cast<uint32_t>(body.size() - 4));
        png += body;
        put(png, static_cast<uint32_t>(crc32(0, reinterpret_cast<const Bytef*>(body.data()), body.size())));
    };
    std::string header = "IHDR";
    put(header, side);
    put(header, side);
    chunk(header + std::string("\x01\0\0\0\0", 5)); // 1 bit, grey, deflate, no filter, no interlace
    // Each row is its filter byte (none) and side / 8 bytes of pixels, all zero.
    const std::string rows(size_t{side} * (1 + side / 8), '\0');
    uLongf size = compressBound(rows.size());
    std::string data(size, '\0');
    compress2(reinterpret_cast<Bytef*>(data.data()), &size, reinterpret_cast<const Bytef*>(rows.data()), rows.size(),
              Z_BEST_COMPRESSION);
    chunk("IDAT" + data.substr(0, size));
    chunk("IEND");
    return png;
}

std::string ReadFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

// Whether the file holds the whole huge body.
bool IsHugeBody(const std::filesystem::path& path) {
    if (std::filesystem::file_size(path) != HugeBytes) return false;
    constexpr size_t block = 1 << 20;
    static const std::string run = TestSupport::PatternRun(block);
    std::ifstream in(path, std::ios::binary);
    std::vector<char> read(block);
    for (uint64_t at = 0; at < HugeBytes; at += block) {
        if (!in.read(read.data(), block) ||
            std::memcmp(read.data(), run.data() + at % TestSupport::PatternPeriod, block))
            return false;
    }
    return true;
}

// Counts the ends a task reports and notes the threads they are reported on.
class EndProbe final : public Core::ObjectImplBase<Platform::Interfaces::IAsyncTaskStatusCallback> {
public:
    void OnFailed(IAsyncTask*) override { Note(); }
    void OnProgress(IAsyncTask*) override {}
    void OnCompleted(IAsyncTask*) override { Note(); }
    void OnCancelled(IAsyncTask*) override {}

    std::atomic<int> ends{0};
    std::atomic<bool> elsewhere{false};

private:
    void Note() {
        ++ends;
        if (std::this_thread::get_id() != thread_) elsewhere = true;
    }
    const std::thread::id thread_ = std::this_thread::get_id();
};

// What one cell saw.
struct Seen {
    std::string result;
    std::vector<std::string> faults; // broken promises beside the result
    int ms = 0;
};

class Cell {
public:
    // `base` serves the row's answers, `capsBase` the capabilities of the OGC services.
    Cell(const Row& row, Road road, std::string base, std::string capsBase)
        : row_(row), road_(road), base_(std::move(base)), capsBase_(std::move(capsBase)) {}

    Seen Run() {
        const auto start = Clock::now();
        seen_.result = Take();
        seen_.ms =
            static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
        if (seen_.ms > Bound()) Fault("took " + std::to_string(seen_.ms) + " ms");
        if (CheckFiles(cache_.Path(), row_.image) && road_ != DataAsync) seen_.result += " cached";
        return seen_;
    }

private:
    int Bound() const { return row_.ownMs + 2 * static_cast<int>(Timeout()) + SlackMs; }
    // The heavy row's transfers are given more: while the one transport thread copies hundreds of
    // megabytes for one of them, the clock of another runs on as if its server were silent.
    uint32_t Timeout() const { return row_.alone ? 10 * ReceiveTimeoutMs : ReceiveTimeoutMs; }
    void Fault(const std::string& text) { seen_.faults.push_back(text); }
    void OnDispatcher(const char* what) {
        if (std::this_thread::get_id() != thread_) Fault(std::string(what) + " off the dispatcher thread");
    }

    std::string TileTemplate() const { return base_ + "/" + row_.name + "/{z}/{x}/{y}.png"; }

    // True when `directory` holds a file; each must be the whole body, and a tile when `image`.
    bool CheckFiles(const std::filesystem::path& directory, bool image) {
        bool any = false;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(directory)) {
            if (!entry.is_regular_file()) continue;
            any = true;
            const std::string name = entry.path().filename().string();
            if (name.size() > 5 && name.substr(name.size() - 5) == ".part")
                Fault("temporary file " + name + " left");
            else if (!image)
                Fault("file " + name + " holds no tile");
            else if (row_.name == "huge" ? !IsHugeBody(entry.path()) : ReadFile(entry.path()) != row_.body)
                Fault("file " + name + " is not the whole body");
        }
        return any;
    }

    // Whether `directory` holds a file other than a temporary one; it may change meanwhile.
    static bool HasFile(const std::filesystem::path& directory) {
        std::error_code error;
        for (std::filesystem::recursive_directory_iterator at(directory, error), end; !error && at != end;
             at.increment(error))
            if (at->is_regular_file(error) && at->path().extension() != ".part") return true;
        return false;
    }

    static std::string Size(size_t bytes) { return std::to_string(bytes) + " bytes"; }
    std::string Bytes(const void* data, size_t size) const {
        if (size == 0) return "empty";
        return std::string(static_cast<const char*>(data), size) == Png() ? "png" : Size(size);
    }

    // GetMapSync from another thread. Its completion needs this thread, which made the service,
    // in an alertable wait of the library's own: the wait on a picture that never comes (from a
    // second service whose server holds every request) stands in, and the caller cancels it.
    std::string MapSyncResult(Tellar::Interfaces::IOgcMapService& service, Tellar::Interfaces::IBoundingBox2d& box,
                              std::chrono::milliseconds bound) {
        if (row_.expected[MapSync] == "not run") return "not run";
        Core::Ptr<IMapService> holder;
        const std::string caps = capsBase_ + "/caps/wms/hold";
        if (!TellarSpatialMaps_CreateMapServiceFromWmsUrl(Epsg().Raw(), caps.c_str(), "roads", nullptr, "image/png",
                                                          4326, holder.ReceiveAddress(), nullptr))
            return "no holding service";
        Core::Ptr<IAsyncTask> pump;
        holder.As<Tellar::Interfaces::IOgcMapService>()->GetMapSimpleAsync(8, 8, &box, pump.ReceiveAddress(), nullptr);
        std::atomic<bool> finished{false};
        std::string result;
        const auto start = Clock::now();
        std::thread caller([&] {
            Core::Ptr<TellarImaging::ITiffImage> image;
            Core::Ptr<Core::IErrorCode> failure;
            result = service.GetMapSync(64, 64, &box, image.ReceiveAddress(), failure.ReceiveAddress())
                         ? std::to_string(image->GetWidth()) + "x" + std::to_string(image->GetHeight())
                         : "fail: " + TextOf(failure);
            finished = true;
            pump->Cancel();
        });
        // Nothing ends the call from outside: one that does not return in a minute ends the run.
        std::thread watchdog([&] {
            while (!finished && Clock::now() - start < std::chrono::seconds(60))
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            if (!finished) {
                std::fprintf(stderr, "fault suite: GetMapSync on %s never returns\n", row_.name.c_str());
                std::abort();
            }
        });
        while (!finished) pump->WaitAlertable();
        caller.join();
        watchdog.join();
        if (Clock::now() - start > bound) Fault("GetMapSync returned late");
        return result;
    }

    std::string Take() {
        switch (road_) {
        case Response:
        case Mosaic:
        case BestEffort:
        case WmtsResponse:
        case WmtsMosaic: return Blocking();
        case TileData:
        case TileImage:
        case Download: return Fetcher();
        default: return Ogc();
        }
    }

    // GetTile and GetResponse, or a mosaic of the one tile (2, 2, 1), through the exports; the
    // WMTS service's set is Web Mercator's first three levels.
    std::string Blocking() {
        const bool wmts = road_ == WmtsResponse || road_ == WmtsMosaic;
        Core::Ptr<IMapService> service;
        Core::Ptr<Core::IErrorCode> error;
        const std::string caps = capsBase_ + "/caps/wmts/" + row_.name;
        if (!wmts)
            service = Service(TileTemplate(), 4326, cache_.Path().c_str());
        else if (!TellarSpatialMaps_CreateCachedMapServiceFromWmtsUrl(Epsg().Raw(), cache_.Path().c_str(), caps.c_str(),
                                                                      "roads", nullptr, nullptr, nullptr,
                                                                      service.ReceiveAddress(), error.ReceiveAddress()))
            return "no service: " + TextOf(error);
        if (!service.Raw()) return "no service";
        service->GetHttpClient()->SetReceiveTimeout(Timeout());
        if (road_ != Response && road_ != WmtsResponse) {
            // 10 to 20 degrees east and north; in metres for the WMTS service.
            auto box = wmts ? Box(1113195, 1118890, 2226390, 2273031) : Box(10, 10, 20, 20);
            const auto mosaic = GetMosaic(*service, 2, box.Raw(), road_ == BestEffort);
            if (!mosaic.image.Raw()) return "fail: " + mosaic.failure;
            return std::to_string(mosaic.image->GetWidth()) + "x" + std::to_string(mosaic.image->GetHeight());
        }
        auto request = Tile(*service, 2, 2, 1);
        Core::Ptr<ITileResponse> response;
        if (!request->GetResponse(response.ReceiveAddress(), error.ReceiveAddress())) return "fail: " + TextOf(error);
        auto* http = response->GetHttpResponse();
        if (!http) return "from the cache";
        std::string result = std::to_string(http->GetStatusCode());
        const size_t expected = row_.name == "huge" ? HugeBytes : row_.body.size();
        if (http->GetBodySize() != expected) result += " with " + Size(http->GetBodySize());
        return result;
    }

    // The fetcher's callback road; the callbacks run here, on the thread that made it.
    std::string Fetcher() {
        auto fetcher = Core::MakeObject<MapServices::Tms::impl::TmsFetcherImpl>(TileTemplate(), 0);
        fetcher->SetCacheEnabled(true);
        fetcher->SetCacheRoot(cache_.Path().string());
        fetcher->GetHttpClient()->SetReceiveTimeout(Timeout());
        const auto bound = std::chrono::milliseconds(Bound());
        int calls = 0;
        std::string result = "no call";
        if (road_ == Download) {
            TestSupport::TempDir target;
            std::vector<uint64_t> progress;
            fetcher->DownloadMap(MapServices::BoundingBoxValue{10, 10, 20, 20}, 0, target.Path().string(),
                                 [&](uint64_t current, uint64_t, int32_t, int64_t, int64_t, bool&) {
                                     OnDispatcher("progress");
                                     progress.push_back(current);
                                 });
            if (progress != std::vector<uint64_t>{0, 1}) Fault("progress calls other than 0 and the closing 1");
            return CheckFiles(target.Path(), true) ? "file" : "no file";
        }
        MapServices::TileRequest request;
        if (road_ == TileData) {
            request = fetcher->FetchTileDataAsync(2, 2, 1, [&](const Data::Array& data) {
                OnDispatcher("callback");
                ++calls;
                result = data.IsNull() ? "null" : Bytes(data.GetData(), data.GetSizeInBytes());
            });
        } else {
            request = fetcher->FetchTileAsync(2, 2, 1, [&](TellarImaging::IImage* image) {
                OnDispatcher("callback");
                ++calls;
                result = image ? std::to_string(image->GetWidth()) + "x" + std::to_string(image->GetHeight()) : "null";
            });
        }
        if (request.IsNull()) return "refused";
        auto* impl = static_cast<MapServices::impl::TileRequestImpl*>(request.Get());
        // The done event is set by the completion that calls back, on this thread.
        if (!TestSupport::PumpUntil([&] { return impl->IsDone(); }, bound)) {
            request->Cancel();
            return "hangs";
        }
        TestSupport::PumpUntil([] { return false; }, std::chrono::milliseconds(50));
        if (calls > 1) Fault(std::to_string(calls) + " callbacks");
        return result;
    }

    // A WMS picture or a WCS coverage through the task road.
    std::string Ogc() {
        const bool wcs = road_ == DataAsync;
        const std::string caps = capsBase_ + "/caps/" + (wcs ? "wcs/" : "wms/") + row_.name;
        Core::Ptr<IMapService> made;
        Core::Ptr<Core::IErrorCode> error;
        const bool ok = wcs ? TellarSpatialMaps_CreateCachedMapServiceFromWcsUrl(
                                  Epsg().Raw(), cache_.Path().c_str(), caps.c_str(), nullptr, "GeoTIFF", 4326,
                                  made.ReceiveAddress(), error.ReceiveAddress())
                            : TellarSpatialMaps_CreateCachedMapServiceFromWmsUrl(
                                  Epsg().Raw(), cache_.Path().c_str(), caps.c_str(), "roads", nullptr, "image/png",
                                  4326, made.ReceiveAddress(), error.ReceiveAddress());
        if (!ok) return "no service: " + TextOf(error);
        auto service = made.As<Tellar::Interfaces::IOgcMapService>();
        service->GetHttpClient()->SetReceiveTimeout(Timeout());
        auto box = Box(10, 10, 20, 20);
        const auto bound = std::chrono::milliseconds(Bound());

        if (road_ == MapSync) return MapSyncResult(*service, *box, bound);

        Core::Ptr<IAsyncTask> task;
        const bool started = wcs ? service->GetDataAsync(nullptr, 64, 64, box.Raw(), nullptr, task.ReceiveAddress(),
                                                         error.ReceiveAddress())
                                 : service->GetMapAsync(nullptr, 64, 64, box.Raw(), nullptr, task.ReceiveAddress(),
                                                        error.ReceiveAddress());
        if (!started) return "refused: " + TextOf(error);
        const auto probe = Core::MakeObject<EndProbe>();
        task->SetStatusCallback(probe.Raw());
        // A task expected to stay open is given twice the timeout after its answer, then cancelled.
        // An answer that is cached has come when its file is there (the decode follows the write);
        // otherwise the answer's own time stands in.
        const std::string& expected = row_.expected[road_];
        const bool open = expected.rfind("open", 0) == 0;
        auto wait = open ? std::chrono::milliseconds(2 * ReceiveTimeoutMs) : bound;
        if (open && expected.ends_with(" cached"))
            TestSupport::PumpUntil([&] { return task->IsCompleted() || task->IsCancelled() || HasFile(cache_.Path()); },
                                   bound);
        else if (open)
            wait += std::chrono::milliseconds(row_.ownMs);
        const bool ended = TestSupport::Settle(*task, wait);
        if (probe->ends != (ended ? 1 : 0)) Fault("the task reported " + std::to_string(probe->ends) + " ends");
        if (probe->elsewhere) Fault("the task ended off the dispatcher thread");
        if (!ended) return "open";
        if (task->GetState() == Platform::Interfaces::AsyncTaskFailed) {
            const std::string text = task->GetErrorMessage() ? task->GetErrorMessage() : "";
            // A WCS fetcher keeps the default layer name, "Tiles".
            return text == "Failed to download data from WCS service " + std::string(wcs ? "Tiles" : "roads")
                       ? "failed"
                       : "failed: " + text;
        }
        Data::Structures::VARIANT raw{};
        task->GetResult(&raw);
        const Data::Variant value = Data::Variant::Adopt(raw);
        if (auto* image = dynamic_cast<TellarImaging::IImage*>(value.Raw().payload.object))
            return std::to_string(image->GetWidth()) + "x" + std::to_string(image->GetHeight());
        if (auto* bytes = dynamic_cast<Data::Interfaces::IArray*>(value.Raw().payload.object))
            return Bytes(bytes->GetData(), bytes->GetSizeInBytes());
        return "completed without a result";
    }

    const Row& row_;
    Road road_;
    std::string base_;
    std::string capsBase_;
    std::thread::id thread_ = std::this_thread::get_id();
    TestSupport::TempDir cache_;
    Seen seen_;
};

// The request's target with its first segment replaced by `name`.
std::string Retarget(const std::string& request, const std::string& name) {
    const size_t start = request.find(" /") + 2;
    const size_t rest = request.find_first_of("/? ", start);
    return "/" + name + request.substr(rest, request.find(' ', rest) - rest);
}

Answer RedirectTo(const std::string& name) {
    return [name](int fd, const std::string& request) {
        Answers::Reply(302, "Location: " + Retarget(request, name.empty() ? "redirect-loop" : name) + "\r\n", "")(
            fd, request);
    };
}

// The capabilities of a WMS or WMTS layer "roads" or a WCS coverage "dem" whose pictures come
// from `base`.
std::string Capabilities(const std::string& kind, const std::string& base) {
    if (kind == "wmts")
        return R"(<?xml version="1.0"?>
<Capabilities xmlns="http://www.opengis.net/wmts/1.0" xmlns:ows="http://www.opengis.net/ows/1.1" version="1.0.0">
  <ows:ServiceIdentification><ows:ServiceType>OGC WMTS</ows:ServiceType></ows:ServiceIdentification>
  <Contents>
    <Layer><ows:Title>Roads</ows:Title><ows:Identifier>roads</ows:Identifier>
      <ows:WGS84BoundingBox><ows:LowerCorner>-180 -85</ows:LowerCorner><ows:UpperCorner>180 85</ows:UpperCorner></ows:WGS84BoundingBox>
      <Style isDefault="true"><ows:Title>Plain</ows:Title><ows:Identifier>plain</ows:Identifier></Style><Format>image/png</Format>
      <ResourceURL format="image/png" resourceType="tile" template=")" +
               base + R"(/{TileMatrix}/{TileCol}/{TileRow}.png"/>
      <TileMatrixSetLink><TileMatrixSet>mercator</TileMatrixSet></TileMatrixSetLink></Layer>
    <TileMatrixSet><ows:Title>Mercator</ows:Title><ows:Identifier>mercator</ows:Identifier><ows:SupportedCRS>urn:ogc:def:crs:EPSG::3857</ows:SupportedCRS>
      <TileMatrix><ows:Identifier>0</ows:Identifier><ScaleDenominator>559082264.0287178</ScaleDenominator>
        <TopLeftCorner>-20037508.342789244 20037508.342789244</TopLeftCorner><TileWidth>256</TileWidth>
        <TileHeight>256</TileHeight><MatrixWidth>1</MatrixWidth><MatrixHeight>1</MatrixHeight></TileMatrix>
      <TileMatrix><ows:Identifier>1</ows:Identifier><ScaleDenominator>279541132.0143589</ScaleDenominator>
        <TopLeftCorner>-20037508.342789244 20037508.342789244</TopLeftCorner><TileWidth>256</TileWidth>
        <TileHeight>256</TileHeight><MatrixWidth>2</MatrixWidth><MatrixHeight>2</MatrixHeight></TileMatrix>
      <TileMatrix><ows:Identifier>2</ows:Identifier><ScaleDenominator>139770566.00717944</ScaleDenominator>
        <TopLeftCorner>-20037508.342789244 20037508.342789244</TopLeftCorner><TileWidth>256</TileWidth>
        <TileHeight>256</TileHeight><MatrixWidth>4</MatrixWidth><MatrixHeight>4</MatrixHeight></TileMatrix>
    </TileMatrixSet>
  </Contents>
</Capabilities>)";
    if (kind == "wcs")
        return R"(<?xml version="1.0"?>
<WCS_Capabilities version="1.0.0" xmlns="http://www.opengis.net/wcs" xmlns:gml="http://www.opengis.net/gml"
    xmlns:xlink="http://www.w3.org/1999/xlink"><Service><name>WCS</name><label>Faults</label></Service>
  <Capability><Request>
    <GetCapabilities><DCPType><HTTP><Get><OnlineResource xlink:href=")" +
               base + R"(/wcs?"/></Get></HTTP></DCPType></GetCapabilities>
    <GetCoverage><DCPType><HTTP><Get><OnlineResource xlink:href=")" +
               base + R"(/wcs?"/></Get></HTTP></DCPType></GetCoverage>
  </Request></Capability>
  <ContentMetadata><CoverageOfferingBrief><name>dem</name><label>dem</label><lonLatEnvelope srsName="EPSG:4326">
    <gml:pos>0 0</gml:pos><gml:pos>30 30</gml:pos></lonLatEnvelope></CoverageOfferingBrief></ContentMetadata>
</WCS_Capabilities>)";
    return R"(<?xml version="1.0"?>
<WMS_Capabilities version="1.3.0" xmlns="http://www.opengis.net/wms" xmlns:xlink="http://www.w3.org/1999/xlink">
  <Service><Name>WMS</Name><Title>Faults</Title></Service>
  <Capability>
    <Request><GetCapabilities><Format>text/xml</Format><DCPType><HTTP><Get><OnlineResource xlink:href=")" +
           base +
           R"(/wms?"/></Get></HTTP></DCPType></GetCapabilities><GetMap><Format>image/png</Format></GetMap></Request>
    <Layer><Title>Root</Title><Layer><Name>roads</Name><Style><Name>plain</Name></Style></Layer></Layer>
  </Capability>
</WMS_Capabilities>)";
}

std::vector<Row> Table() {
    using namespace Answers;
    static const std::string bigPng = HugeDimensionsPng();
    const std::string png = Png(), html = "<html><body>no tile here</body></html>";
    const std::string xml = "<ServiceExceptionReport/>", pngType = "Content-Type: image/png\r\n";
    const std::string huge = std::to_string(HugeBytes) + " bytes";
    // A gzip member whose first block is stored with lengths that disagree.
    const std::string garbledGzip = std::string("\x1f\x8b\x08\0\0\0\0\0\0\x03\x01\x05\0\0\0", 15) + "hello";
    const std::string gzipped = TestSupport::Gzip(png);
    const std::string chunkedHead = "HTTP/1.1 200 OK\r\n" + pngType + "Transfer-Encoding: chunked\r\n\r\n";
    // Columns: GetResponse, GetImage, GetImageBestEffort, FetchTileData, FetchTileAsync, DownloadMap,
    // GetMapAsync, GetDataAsync, GetMapSync, WMTS GetResponse, WMTS GetImage.
    return {
        {"ok", Reply(200, pngType, png), png, true, 0, Good},
        {"slow-headers", After(4000, Reply(200, pngType, png)), png, true, 0, Broken},
        {"stalled-body", Stall("image/png", png.size()), png, true, 0, Broken},
        {"trickle", Trickle("image/png", png, 20, 100), png, true, 2000, Good},
        {"truncated", Truncated("image/png", png, 1000), png, true, 0, Broken},
        {"reset", Reset(), "", false, 0, Broken},
        {"empty-reply", Close(), "", false, 0, Broken},
        {"404", Reply(404, "Content-Type: text/html\r\n", html), html, false, 0, NoTile("404", "Unknown image format")},
        {"500", Reply(500, "Content-Type: text/html\r\n", html), html, false, 0, NoTile("500", "Unknown image format")},
        {"204", Reply(204, "", ""), "", false, 0, NoTile("204", "Empty image data: 0 bytes")},
        {"304", Reply(304, "", ""), "", false, 0, NoTile("304", "Empty image data: 0 bytes")},
        {"html", Reply(200, "Content-Type: text/html\r\n", html), html, false, 0, Page(html.size())},
        {"xml", Reply(200, "Content-Type: text/xml\r\n", xml), xml, false, 0, Page(xml.size())},
        {"text", Reply(200, "Content-Type: text/plain\r\n", "no tile"), "no tile", false, 0, Page(7)},
        // A body that does not decode ends the picture road's worker task: its task never ends.
        // The decoders refuse the valid PNG of 20000 x 20000 pixels by its header (deviation 13).
        {"empty-png",
         Reply(200, pngType, ""),
         "",
         false,
         0,
         {"200", "fail: Empty image data: 0 bytes", "fail: Empty image data: 0 bytes", "empty", "no call", "no file",
          "open", "failed", "not run", "200", "fail: Empty image data: 0 bytes"}},
        {"big-png",
         Reply(200, pngType, bigPng),
         bigPng,
         true,
         0,
         {"200 cached", "fail: Image too large: 20000 x 20000 pixels cached",
          "fail: Image too large: 20000 x 20000 pixels cached", std::to_string(bigPng.size()) + " bytes cached",
          "no call cached", "file", "open cached", std::to_string(bigPng.size()) + " bytes", "not run", "200 cached",
          "fail: Image too large: 20000 x 20000 pixels cached"}},
        {"gzip", Reply(200, pngType + "Content-Encoding: gzip\r\n", gzipped), png, true, 0, Good},
        {"bad-gzip", Reply(200, pngType + "Content-Encoding: gzip\r\n", garbledGzip), "", false, 0, Broken},
        {"deflate", Reply(200, pngType + "Content-Encoding: deflate\r\n", TestSupport::Deflated(png, 15)), png, true, 0,
         Good},
        {"raw-deflate", Reply(200, pngType + "Content-Encoding: deflate\r\n", TestSupport::Deflated(png, -15)), png,
         true, 0, Good},
        // Sent whole, as its length says, but the gzip stream in it stops half way.
        {"gzip-cut", Reply(200, pngType + "Content-Encoding: gzip\r\n", gzipped.substr(0, gzipped.size() / 2)), "",
         false, 0, Broken},
        {"chunked", Chunked("image/png", png, 100), png, true, 0, Good},
        {"chunked-cut", Raw(chunkedHead + "64\r\n" + png.substr(0, 50)), png, true, 0, Broken},
        {"close-delimited", Raw("HTTP/1.1 200 OK\r\nConnection: close\r\n" + pngType + "\r\n" + png), png, true, 0,
         Good},
        {"redirect", RedirectTo("ok"), png, true, 0, Good},
        {"redirect-loop", RedirectTo(""), "", false, 0, Broken},
        {"garbage", Raw("SSH-2.0-OpenSSH_9.2\r\nthis is no HTTP at all\r\n\r\n"), "", false, 0, Broken},
        {"bad-length", Raw("HTTP/1.1 200 OK\r\n" + pngType + "Content-Length: abc\r\n\r\n" + png), "", false, 0,
         Broken},
        {"negative-length", Raw("HTTP/1.1 200 OK\r\n" + pngType + "Content-Length: -5\r\n\r\n" + png), "", false, 0,
         Broken},
        // Header lines of 1000 bytes, one every 10 ms: cut when they pass 64 KiB, 0.7 s in.
        {"endless-headers", EndlessHeaders(1000, 10, 8000), "", false, 0, Broken},
        // One header line of 128 KiB, which curl refuses before the transport sees it.
        {"long-header",
         Raw("HTTP/1.1 200 OK\r\nX-Long: " + std::string(128 << 10, 'a') + "\r\n" + pngType + "\r\n" + png), "", false,
         0, Broken},
        {"tls", nullptr, "", false, 0, Broken},
        // Nothing limits a body's size: all of it is fetched, and cached when the type says image.
        {"huge",
         Huge("image/png", HugeBytes),
         "",
         true,
         8000,
         {"200 cached", "fail: Unknown image format cached", "fail: Unknown image format cached", huge + " cached",
          "no call cached", "file", "open cached", huge, "not run", "200 cached", "fail: Unknown image format cached"},
         true},
    };
}

TEST(FaultSuite, EveryFaultOnEveryRoad) {
    FaultServer server;
    TlsPeer tls;
    const std::vector<Row> rows = Table();
    const auto baseOf = [&](const std::string& name) {
        return (name == "tls" ? tls.Base() : server.Base()) + "/" + name;
    };
    for (const Row& row : rows)
        if (row.answer) server.Set(row.name, row.answer);
    server.Set("hold", Answers::Hold());
    server.Set("caps", [&](int fd, const std::string& request) {
        // /caps/<wms, wcs or wmts>/<row>
        const std::string target = Retarget(request, "caps");
        const size_t slash = target.find('/', 6);
        Answers::Reply(200, "Content-Type: text/xml\r\n",
                       Capabilities(target.substr(6, slash - 6), baseOf(target.substr(slash + 1))))(fd, request);
    });

    struct Job {
        const Row* row;
        Road road;
        Seen seen;
    };
    std::vector<Job> jobs;
    const char* only = std::getenv("FAULT_ROWS"); // "name,name": a part of the table, when looking into one
    for (const Row& row : rows) {
        if (only && (std::string(",") + only + ",").find("," + row.name + ",") == std::string::npos) continue;
        if (row.name == "tls" && tls.Base().empty()) {
            std::printf("fault suite: the TLS row is left out: %s\n", tls.Problem().c_str());
            continue;
        }
        for (int road = 0; road < RoadCount; ++road) jobs.push_back({&row, static_cast<Road>(road), {}});
    }
    // The cells run at once, each on a thread of its own that is the dispatcher of what it makes;
    // the heavy row's cells come last, one at a time, so that their load (hundreds of megabytes
    // copied) does not eat into the others' timeouts.
    const auto run = [&](Job& job) {
        const std::string base = job.row->name == "tls" ? tls.Base() : server.Base();
        job.seen = Cell(*job.row, job.road, base, server.Base()).Run();
    };
    const auto start = Clock::now();
    std::vector<std::thread> threads;
    for (Job& job : jobs)
        if (!job.row->alone) threads.emplace_back([&] { run(job); });
    for (auto& thread : threads) thread.join();
    for (Job& job : jobs)
        if (job.row->alone) std::thread([&] { run(job); }).join();

    int passed = 0;
    for (const Job& job : jobs) {
        const std::string& expected = job.row->expected[job.road];
        bool ok = job.seen.faults.empty() && job.seen.result == expected;
        for (const std::string& fault : job.seen.faults)
            ADD_FAILURE() << job.row->name << " on " << RoadNames[job.road] << ": " << fault;
        if (job.seen.result != expected)
            ADD_FAILURE() << job.row->name << " on " << RoadNames[job.road] << ": \"" << job.seen.result
                          << "\", expected \"" << expected << "\"";
        passed += ok;
        std::printf("%-16s %-19s %6d ms  %s\n", job.row->name.c_str(), RoadNames[job.road], job.seen.ms,
                    job.seen.result.c_str());
    }
    const auto seconds = std::chrono::duration<double>(Clock::now() - start).count();
    std::printf("fault suite: %d of %zu cells passed (%.1f s)\n", passed, jobs.size(), seconds);
}

// The number each failing exchange ends with, as the client logs it: the roads above only tell
// that nothing came. One exchange at a time, since the log line does not name its request.
TEST(FaultSuite, FailuresCarryTheirTransportNumbers) {
    FaultServer server;
    TlsPeer tls;
    const std::vector<Row> rows = Table();
    for (const Row& row : rows)
        if (row.answer) server.Set(row.name, row.answer);
    const struct {
        const char* row;
        int number;
        int withinMs = 2 * ReceiveTimeoutMs + SlackMs;
    } cases[] = {
        {"slow-headers", 12002},          {"stalled-body", 12002}, {"truncated", 12030},  {"reset", 12030},
        {"empty-reply", 12030},           {"bad-gzip", 12152},     {"gzip-cut", 12152},   {"chunked-cut", 12030},
        {"redirect-loop", 12156},         {"garbage", 12152},      {"bad-length", 12152}, {"negative-length", 12152},
        {"endless-headers", 12182, 2500}, {"long-header", 12182},  {"tls", 12175}};
    for (const auto& c : cases) {
        const std::string base = c.row == std::string("tls") ? tls.Base() : server.Base();
        if (base.empty()) {
            std::printf("fault suite: the TLS case is left out: %s\n", tls.Problem().c_str());
            continue;
        }
        TestSupport::ScopedRecordingLogger logger;
        auto fetcher =
            Core::MakeObject<MapServices::Tms::impl::TmsFetcherImpl>(base + "/" + c.row + "/{z}/{x}/{y}.png", 0);
        fetcher->GetHttpClient()->SetReceiveTimeout(ReceiveTimeoutMs);
        const Platform::Network::Http::HttpRequest request = fetcher->CreateTileHttpRequest(2, 2, 1);
        const auto started = Clock::now();
        auto* response = request->GetResponse(true);
        // The endless headers are cut at 64 KiB, 0.7 s in; curl's own limit would take 3 s.
        EXPECT_LT(Clock::now() - started, std::chrono::milliseconds(c.withinMs)) << c.row;
        EXPECT_FALSE(request->IsCompleted()) << c.row;
        EXPECT_TRUE(!response || response->GetStatusCode() == 200) << c.row;
        const std::string mark = "WINHTTP_CALLBACK_STATUS_REQUEST_ERROR [" + std::to_string(c.number) + "]";
        bool logged = false;
        for (const auto& line : logger->Lines()) logged = logged || line.text.find(mark) != std::string::npos;
        EXPECT_TRUE(logged) << c.row << " did not end with " << c.number;
    }
}

} // namespace
