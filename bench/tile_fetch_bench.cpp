// Fetches all 4,096 tiles of zoom 6 through FetchTileDataAsync of a TMS fetcher from a loopback
// nginx: with the cache off (the network alone), with an empty cache (every tile from the network,
// written to the cache), then again with the same fetcher (every tile from the cache, with no
// request reaching nginx); and compares with curl's parallel mode on the same URLs, to memory and
// writing the tiles as files. All rates are tiles per second of wall time. The passes run in
// rounds, ours and curl's in turn, so that both meet the same load; each figure is the median of
// the rounds, and each ratio the median of the rounds' ratios.
// Usage: tile_fetch_bench [ROUNDS]   (default 7). Starts and stops its own nginx.
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "Core/Ptr.h"
#include "Data/Values.h"
#include "LoopbackNginx.h"
#include "MapServices/TileRequest.h"
#include "Platform/Threading/AlertableEvent.h"
#include "Platform/Threading/ThreadHelpers.h"
#include "Tms/TmsFetcherImpl.h"

namespace {

using Clock = std::chrono::steady_clock;
using MapServices::Tms::impl::TmsFetcherImpl;
namespace ThreadHelpers = Platform::Windows::Threading::ThreadHelpers;

constexpr int32_t Zoom = 6;
constexpr int32_t Side = 1 << Zoom; // 64 columns and 64 rows
constexpr int32_t TileCount = Side * Side;

int32_t Index(int32_t x, int32_t y) { return y * Side + x; }

// The body of one tile: the PNG signature and an IHDR chunk in front of filler bytes, between
// 2 and 6 KiB, different for every tile.
std::string TileBody(int32_t x, int32_t y) {
    static const unsigned char head[] = {0x89, 'P',  'N',  'G',  0x0D, 0x0A, 0x1A, 0x0A, 0x00, 0x00,
                                         0x00, 0x0D, 'I',  'H',  'D',  'R',  0x00, 0x00, 0x01, 0x00,
                                         0x00, 0x00, 0x01, 0x00, 0x08, 0x06, 0x00, 0x00, 0x00};
    const int32_t index = Index(x, y);
    const size_t size = 2048 + static_cast<size_t>((index * 797) % 4096);
    std::string body(reinterpret_cast<const char*>(head), sizeof head);
    uint64_t state = 0x9E3779B97F4A7C15ull ^ static_cast<uint64_t>(index + 1);
    while (body.size() < size) {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        body.push_back(static_cast<char>(state & 0xFF));
    }
    return body;
}

// Writes every tile as root/6/x/y.png and keeps the bodies for checking what arrives.
std::vector<std::string> WriteTiles(const std::filesystem::path& root) {
    std::vector<std::string> bodies(TileCount);
    for (int32_t x = 0; x < Side; ++x) {
        const std::filesystem::path column = root / std::to_string(Zoom) / std::to_string(x);
        std::filesystem::create_directories(column);
        for (int32_t y = 0; y < Side; ++y) {
            std::string& body = bodies[static_cast<size_t>(Index(x, y))];
            body = TileBody(x, y);
            std::ofstream(column / (std::to_string(y) + ".png"), std::ios::binary)
                .write(body.data(), static_cast<std::streamsize>(body.size()));
        }
    }
    return bodies;
}

// How one pass over the pyramid went.
struct Pass {
    double seconds = 0;
    int32_t refused = 0; // null handles from FetchTileDataAsync
    int32_t arrived = 0; // callbacks that ran
    int32_t exact = 0;   // callbacks that got the tile's own bytes
    bool stalled = false;
};

// Asks for every tile of the first `rows` rows of the zoom level at once, then waits alertably on
// this thread, the one that made the fetcher, so that the callbacks can run here, until the last
// one has come. After 30 s without progress the requests are cancelled, so that no late callback
// finds this frame gone.
Pass FetchAll(TmsFetcherImpl& fetcher, const std::vector<std::string>& bodies, int32_t rows = Side) {
    Pass pass;
    Platform::Threading::AlertableEvent done;
    int32_t expected = rows * Side;
    std::vector<MapServices::TileRequest> requests;
    requests.reserve(static_cast<size_t>(expected));
    const auto start = Clock::now();
    for (int32_t y = 0; y < rows; ++y) {
        for (int32_t x = 0; x < Side; ++x) {
            const std::string& body = bodies[static_cast<size_t>(Index(x, y))];
            requests.push_back(
                fetcher.FetchTileDataAsync(Zoom, x, y, [&pass, &done, &expected, &body](const Data::Array& data) {
                    ++pass.arrived;
                    if (!data.IsNull() && data.GetSizeInBytes() == body.size() &&
                        std::memcmp(data.GetData(), body.data(), body.size()) == 0)
                        ++pass.exact;
                    if (pass.arrived == expected) done.Set();
                }));
            if (requests.back().IsNull()) {
                ++pass.refused;
                --expected;
            }
        }
    }
    if (expected == 0) done.Set();
    while (!done.IsSet()) {
        if (!ThreadHelpers::WaitForSingleObject(done, 30000, true, true)) {
            pass.stalled = true;
            for (MapServices::TileRequest& request : requests)
                if (!request.IsNull()) request->Cancel();
            break;
        }
    }
    pass.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    return pass;
}

// CPU time (user and system) this process has used so far, in seconds.
double ProcessCpuSeconds() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& t) { return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

double Median(std::vector<double> values) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    const size_t middle = values.size() / 2;
    return values.size() % 2 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

bool Report(const char* name, const Pass& pass, int32_t tiles = TileCount) {
    const bool good = !pass.stalled && pass.refused == 0 && pass.exact == tiles;
    if (!good)
        std::fprintf(stderr, "%s: %d refused, %d callbacks, %d with the right bytes%s\n", name, pass.refused,
                     pass.arrived, pass.exact, pass.stalled ? ", stalled for 30 s" : "");
    return good;
}

int32_t CachedFiles(const std::filesystem::path& root) {
    int32_t files = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root))
        if (entry.is_regular_file() && entry.path().extension() == ".png") ++files;
    return files;
}

// Requests nginx logged so far. nginx writes the line once a response is finished, which can be a
// moment after the client already has all of it, so wait briefly for `atLeast`.
std::pair<int32_t, int32_t> Logged(const Bench::LoopbackNginx& nginx, int32_t atLeast) {
    auto logged = nginx.LoggedRequests();
    for (int32_t i = 0; i < 100 && logged.first < atLeast; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        logged = nginx.LoggedRequests();
    }
    return logged;
}

} // namespace

int main(int argc, char** argv) {
    const int32_t rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 7;
    const std::filesystem::path dir = Bench::MakeWorkDirectory("tile_fetch_bench");
    if (dir.empty()) {
        std::perror("mkdtemp");
        return 1;
    }
    const std::filesystem::path documents = dir / "www";
    const std::vector<std::string> bodies = WriteTiles(documents);

    Bench::LoopbackNginx nginx(dir,
                               "    root " + documents.string() +
                                   ";\n    types { image/png png; }\n    default_type application/octet-stream;",
                               true);
    if (!nginx.Start()) {
        std::fprintf(stderr, "nginx could not start\n");
        std::filesystem::remove_all(dir);
        return 1;
    }
    const std::string urlTemplate = nginx.Base() + "/{z}/{x}/{y}.png";
    std::vector<std::string> urls;
    urls.reserve(TileCount);
    for (int32_t y = 0; y < Side; ++y)
        for (int32_t x = 0; x < Side; ++x)
            urls.push_back(nginx.Base() + "/" + std::to_string(Zoom) + "/" + std::to_string(x) + "/" +
                           std::to_string(y) + ".png");
    bool good = true;

    // Starts the transport and the shared worker thread, which outlive any one fetcher, and opens
    // the first connections: one row of tiles, cache off.
    {
        auto warmUp = Core::MakeObject<TmsFetcherImpl>(urlTemplate, 0);
        warmUp->SetCacheEnabled(false);
        good = Report("warm-up", FetchAll(*warmUp, bodies, 1), Side) && good;
    }
    int32_t logged = Logged(nginx, Side).first;

    struct Figures {
        std::vector<double> seconds, cpu;
    };
    Figures network, cold, warm, curl, curlFiles;
    std::vector<double> memoryRatios, fileRatios;
    const auto add = [](Figures& figures, double seconds, double cpu) {
        figures.seconds.push_back(seconds);
        figures.cpu.push_back(cpu);
    };
    for (int32_t round = 0; round < rounds && good; ++round) {
        // The network alone: a fetcher with its cache off.
        {
            auto uncached = Core::MakeObject<TmsFetcherImpl>(urlTemplate, 0);
            uncached->SetCacheEnabled(false);
            const double cpu = ProcessCpuSeconds();
            const Pass pass = FetchAll(*uncached, bodies);
            add(network, pass.seconds, ProcessCpuSeconds() - cpu);
            good = Report("network", pass) && good;
        }
        const Bench::CurlRun toMemory = Bench::CurlParallel(urls, dir / "urls.cfg");
        add(curl, toMemory.seconds, toMemory.cpuSeconds);

        // Every tile from the network into an empty cache, then every tile from that cache.
        const std::filesystem::path cache = dir / ("cache" + std::to_string(round));
        std::filesystem::create_directories(cache);
        auto fetcher = Core::MakeObject<TmsFetcherImpl>(urlTemplate, 0);
        fetcher->SetCacheEnabled(true);
        fetcher->SetCacheRoot(cache.string());
        double cpu = ProcessCpuSeconds();
        const Pass coldPass = FetchAll(*fetcher, bodies);
        add(cold, coldPass.seconds, ProcessCpuSeconds() - cpu);
        good = Report("cold", coldPass) && good;
        const std::filesystem::path files = dir / ("curl" + std::to_string(round));
        const Bench::CurlRun toFiles = Bench::CurlParallel(urls, dir / "files.cfg", 64, files);
        add(curlFiles, toFiles.seconds, toFiles.cpuSeconds);

        const auto afterCold = Logged(nginx, logged + 4 * TileCount);
        const int32_t cached = CachedFiles(cache);
        if (afterCold.first - logged != 4 * TileCount || cached != TileCount) {
            std::fprintf(stderr, "round %d: nginx logged %d requests, the cache holds %d files; %d and %d expected\n",
                         round, afterCold.first - logged, cached, 4 * TileCount, TileCount);
            good = false;
        }
        if (!toMemory.ok || !toFiles.ok) {
            std::fprintf(stderr, "curl: exit statuses %d and %d\n", toMemory.status, toFiles.status);
            good = false;
        }
        cpu = ProcessCpuSeconds();
        const Pass warmPass = FetchAll(*fetcher, bodies);
        add(warm, warmPass.seconds, ProcessCpuSeconds() - cpu);
        good = Report("warm", warmPass) && good;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        logged = nginx.LoggedRequests().first;
        if (logged != afterCold.first) {
            std::fprintf(stderr, "warm: nginx served %d requests, none expected\n", logged - afterCold.first);
            good = false;
        }
        fetcher.Reset();
        std::filesystem::remove_all(cache);
        std::filesystem::remove_all(files);
        memoryRatios.push_back(toMemory.seconds / network.seconds.back());
        fileRatios.push_back(toFiles.seconds / cold.seconds.back());
    }

    std::printf("tiles: %d (zoom %d, %d x %d), %.1f MiB; medians of %zu rounds\n", TileCount, Zoom, Side, Side,
                [&] {
                    double bytes = 0;
                    for (const std::string& body : bodies) bytes += static_cast<double>(body.size());
                    return bytes / (1024.0 * 1024.0);
                }(),
                network.seconds.size());
    const auto line = [](const char* name, const Figures& figures) {
        const double seconds = Median(figures.seconds);
        std::printf("%-44s %8.0f tiles/s  (%.3f s, %.3f s CPU)\n", name, seconds > 0 ? TileCount / seconds : 0.0,
                    seconds, Median(figures.cpu));
    };
    line("FetchTileDataAsync, cache off:", network);
    line("FetchTileDataAsync, network to cache:", cold);
    line("FetchTileDataAsync, from the cache:", warm);
    line("curl --parallel --parallel-max 64 to memory:", curl);
    line("curl --parallel --parallel-max 64 to files:", curlFiles);
    std::printf("ratios: cache off %.2fx curl to memory (goal at least 0.9), to cache %.2fx curl to files "
                "(goal at least 1)\n",
                Median(memoryRatios), Median(fileRatios));
    std::printf("checks: %s\n",
                good ? "all tiles arrived intact, the warm passes asked nginx nothing" : "FAILED, see above");

    nginx.Stop();
    std::filesystem::remove_all(dir);
    return good ? 0 : 1;
}
