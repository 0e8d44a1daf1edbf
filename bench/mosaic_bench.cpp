// A mosaic of a zoom-5 box (16 x 18 tiles of shaded relief, PNG) through a cached TMS service
// whose cache was filled beforehand, in tiles per second: GetImage as a whole (cache reads,
// PNG decoding, pasting, cropping), and the cache reads alone (GetTilesForBox + GetResponse).
#include <benchmark/benchmark.h>
#include <httplib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <thread>

#include "Core/AbiGuard.h"
#include "Data/Interfaces/IObjectList.h"
#include "DemoRelief.h"
#include "ImageWriters.h"
#include "Tellar/Interfaces/IBoundingBox2d.h"
#include "Tellar/Interfaces/IEpsg.h"
#include "Tellar/Interfaces/ITileRequest.h"
#include "Tellar/Interfaces/ITileResponse.h"
#include "Tellar/Spatial/Exports.h"
#include "Tellar/Spatial/Maps/Exports.h"
#include "Tellar/Spatial/ProjectionExports.h"
#include "TellarImaging/IImage.h"

namespace {

using Core::Ptr;
constexpr int32_t kZoom = 5;

std::string ReliefPng(int32_t z, int32_t x, int32_t y) {
    TestImages::PngLayout layout;
    layout.width = TellarMaps::ReliefTileSize;
    layout.height = TellarMaps::ReliefTileSize;
    layout.colorType = 6; // RGBA
    layout.rows = TellarMaps::RenderReliefTile(z, x, y);
    const TestImages::Bytes bytes = TestImages::EncodePng(layout);
    return std::string(bytes.begin(), bytes.end());
}

[[noreturn]] void Fail(const Ptr<Core::IErrorCode>& error) {
    std::fprintf(stderr, "mosaic_bench: %s\n", error.Raw() ? error->GetMessage() : "failed");
    std::exit(1);
}

// A cached service over a filled cache; the server that filled it is gone.
struct Fixture {
    std::filesystem::path cache;
    Ptr<Tellar::Interfaces::IMapService> service;
    Ptr<Tellar::Interfaces::IBoundingBox2d> box;
    int64_t tiles = 0;

    Fixture() {
        cache = std::filesystem::temp_directory_path() / ("tellar-mosaic-bench-" + std::to_string(::getpid()));
        std::filesystem::create_directories(cache);
        TellarSpatial_CreateBoundingBox2d(box.ReceiveAddress(), nullptr);
        box->SetValues(-89.9, -66.0, 89.9, 66.0);

        // Tiles are rendered before the server starts, so that it answers at once.
        std::map<std::string, std::string> pngs;
        const double n = 1 << kZoom;
        const auto column = [n](double lon) { return static_cast<int32_t>((lon + 180.0) / 360.0 * n); };
        const auto row = [n](double lat) {
            const double p = lat * 3.14159265358979 / 180.0;
            return static_cast<int32_t>((1.0 - std::log(std::tan(p) + 1.0 / std::cos(p)) / 3.14159265358979) * 0.5 * n);
        };
        for (int32_t x = column(-89.9); x <= column(89.9); ++x)
            for (int32_t y = row(66.0); y <= row(-66.0); ++y)
                pngs[std::to_string(x) + "/" + std::to_string(y)] = ReliefPng(kZoom, x, y);

        httplib::Server server;
        // A worker stays with its keep-alive connection: one worker per connection the client opens.
        server.new_task_queue = [] { return new httplib::ThreadPool(256); };
        server.set_keep_alive_timeout(1);
        server.Get(R"(/(\d+)/(\d+)/(\d+)\.png)", [&](const httplib::Request& req, httplib::Response& res) {
            const auto tile = pngs.find(std::string(req.matches[2]) + "/" + std::string(req.matches[3]));
            if (tile == pngs.end()) {
                res.status = 404;
                return;
            }
            res.set_content(tile->second, "image/png");
        });
        // httplib listens with a backlog of 5: deepen it, or hundreds of tiles at once stall in
        // SYN retries.
        int listener = -1;
        server.set_socket_options([&listener](int fd) {
            int one = 1;
            ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
            listener = fd;
        });
        const int port = server.bind_to_any_port("127.0.0.1");
        ::listen(listener, 1024);
        std::thread thread([&] { server.listen_after_bind(); });
        while (!server.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));

        Ptr<Tellar::Interfaces::IEpsg> epsg;
        TellarSpatialProjection_CreateEpsg(epsg.ReceiveAddress(), nullptr);
        const std::string url = "http://127.0.0.1:" + std::to_string(port) + "/{z}/{x}/{y}.png";
        Ptr<Core::IErrorCode> error;
        if (!TellarSpatialMaps_CreateCachedMapServiceFromTmsUrl(epsg.Raw(), cache.c_str(), url.c_str(), 4326,
                                                                service.ReceiveAddress(), error.ReceiveAddress()))
            Fail(error);
        Ptr<TellarImaging::ITiffImage> warmUp;
        if (!service->GetImage(kZoom, box.Raw(), warmUp.ReceiveAddress(), error.ReceiveAddress())) Fail(error);
        server.stop();
        thread.join();

        Ptr<Data::Interfaces::IObjectList> list;
        service->GetTilesForBox(kZoom, box.Raw(), list.ReceiveAddress(), nullptr);
        tiles = static_cast<int64_t>(list->GetCount());
    }
    ~Fixture() {
        service = {};
        std::error_code ignored;
        std::filesystem::remove_all(cache, ignored);
    }
};

Fixture& TheFixture() {
    static Fixture fixture;
    return fixture;
}

void BM_MosaicFromCache(benchmark::State& state) {
    Fixture& f = TheFixture();
    for (auto _ : state) {
        Ptr<TellarImaging::ITiffImage> image;
        if (!f.service->GetImage(kZoom, f.box.Raw(), image.ReceiveAddress(), nullptr)) {
            state.SkipWithError("GetImage failed");
            return;
        }
        benchmark::DoNotOptimize(image.Raw());
    }
    state.SetItemsProcessed(state.iterations() * f.tiles);
    state.counters["tiles"] = static_cast<double>(f.tiles);
}
BENCHMARK(BM_MosaicFromCache)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_TileResponsesFromCache(benchmark::State& state) {
    Fixture& f = TheFixture();
    for (auto _ : state) {
        Ptr<Data::Interfaces::IObjectList> list;
        f.service->GetTilesForBox(kZoom, f.box.Raw(), list.ReceiveAddress(), nullptr);
        for (uint64_t i = 0; i < list->GetCount(); ++i) {
            Ptr<Tellar::Interfaces::ITileResponse> response;
            dynamic_cast<Tellar::Interfaces::ITileRequest*>(list->GetItem(i))
                ->GetResponse(response.ReceiveAddress(), nullptr);
            benchmark::DoNotOptimize(response.Raw());
        }
    }
    state.SetItemsProcessed(state.iterations() * f.tiles);
}
BENCHMARK(BM_TileResponsesFromCache)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
