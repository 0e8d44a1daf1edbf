// The tool beside its peers on one loopback nginx serving a zoom 0-6 pyramid of 256-pixel RGBA PNG
// relief tiles:
//   mosaic  the whole zoom-5 level (1,024 tiles) as one 8192 x 8192 GeoTIFF: `tellar-maps mosaic`
//           against `gdal_translate` of GDAL's TMS reader, wall time and peak resident memory of
//           each process, and every pixel and the grid of both files compared;
//   seed    zoom 0 to 6 (5,461 tiles) into an empty cache: `tellar-maps seed` against
//           `curl --parallel --parallel-max 64` writing the same tiles as files.
// Usage: peers_bench [mosaic] [seed]   (default: both). Needs nginx, curl and gdal_translate.
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "Core/Ptr.h"
#include "DemoRelief.h"
#include "ImageWriters.h"
#include "LoopbackNginx.h"
#include "TellarImaging/Exports.h"
#include "TellarImaging/IImage.h"
#include "TellarImaging/ITransform.h"

namespace {

namespace fs = std::filesystem;
constexpr int32_t MaxZoom = 6;
constexpr int32_t MosaicZoom = 5;
constexpr const char* WorldBox = "-20037508.34,-20037508.34,20037508.34,20037508.34";

// Renders every tile of zoom 0 to MaxZoom into root/z/x/y.png on all cores, once: rendering takes
// minutes, so a finished pyramid is kept for later runs.
void WritePyramid(const fs::path& root) {
    if (fs::exists(root / "complete")) return;
    std::vector<std::array<int32_t, 3>> tiles;
    for (int32_t z = 0; z <= MaxZoom; ++z)
        for (int32_t x = 0; x < (1 << z); ++x) {
            fs::create_directories(root / std::to_string(z) / std::to_string(x));
            for (int32_t y = 0; y < (1 << z); ++y) tiles.push_back({z, x, y});
        }
    std::atomic<size_t> next{0};
    const auto work = [&] {
        for (size_t i = next++; i < tiles.size(); i = next++) {
            const auto [z, x, y] = tiles[i];
            TestImages::PngLayout layout;
            layout.width = layout.height = TellarMaps::ReliefTileSize;
            layout.colorType = 6;
            layout.rows = TellarMaps::RenderReliefTile(z, x, y);
            const TestImages::Bytes png = TestImages::EncodePng(layout);
            std::ofstream(root / std::to_string(z) / std::to_string(x) / (std::to_string(y) + ".png"), std::ios::binary)
                .write(reinterpret_cast<const char*>(png.data()), static_cast<std::streamsize>(png.size()));
        }
    };
    std::vector<std::thread> threads;
    for (unsigned t = 1; t < std::thread::hardware_concurrency(); ++t) threads.emplace_back(work);
    work();
    for (std::thread& thread : threads) thread.join();
    std::ofstream(root / "complete") << "zoom 0-" << MaxZoom << "\n";
}

// How one process went: wall time, the peak resident memory the kernel recorded for it, exit.
struct Run {
    double seconds = 0;
    double peakMiB = 0;
    bool ok = false;
};

// Runs a program with its output into `log`, and measures it.
Run Measure(const std::vector<std::string>& args, const fs::path& log) {
    std::vector<char*> argv;
    for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    Run run;
    const auto start = std::chrono::steady_clock::now();
    pid_t pid = 0;
    const int spawned = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) return run;
    int status = 0;
    rusage usage{};
    ::wait4(pid, &status, 0, &usage);
    run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    run.peakMiB = static_cast<double>(usage.ru_maxrss) / 1024.0;
    run.ok = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    if (!run.ok) {
        std::ifstream in(log);
        std::fprintf(stderr, "%s failed:\n%s\n", args[0].c_str(),
                     std::string(std::istreambuf_iterator<char>(in), {}).c_str());
    }
    return run;
}

Core::Ptr<TellarImaging::IImage> Open(const fs::path& path) {
    Core::Ptr<TellarImaging::IImage> image;
    Core::Ptr<Core::IErrorCode> error;
    if (!OpenImageA(path.c_str(), image.ReceiveAddress(), error.ReceiveAddress()))
        std::fprintf(stderr, "cannot open %s\n", path.c_str());
    return image;
}

// True when both files hold the same grid (to a millionth of a pixel) and the same pixels.
bool SameMosaic(const fs::path& ours, const fs::path& theirs) {
    const auto a = Open(ours), b = Open(theirs);
    if (!a.Raw() || !b.Raw()) return false;
    if (a->GetWidth() != b->GetWidth() || a->GetHeight() != b->GetHeight() ||
        a->GetSamplesPerPixel() != b->GetSamplesPerPixel()) {
        std::fprintf(stderr, "sizes differ: %dx%dx%d and %dx%dx%d\n", a->GetWidth(), a->GetHeight(),
                     a->GetSamplesPerPixel(), b->GetWidth(), b->GetHeight(), b->GetSamplesPerPixel());
        return false;
    }
    const auto params = [](TellarImaging::IImage& image) {
        std::array<double, 6> p{};
        Core::Ptr<TellarImaging::ITransform> transform;
        dynamic_cast<TellarImaging::ITiffImage&>(image).GetTransform(transform.ReceiveAddress(), nullptr);
        if (transform.Raw()) transform->GetParams(&p[0], &p[1], &p[2], &p[3], &p[4], &p[5]);
        return p;
    };
    const auto pa = params(*a), pb = params(*b);
    for (size_t i = 0; i < pa.size(); ++i)
        if (std::fabs(pa[i] - pb[i]) > 1e-6 * std::fabs(pb[0])) {
            std::fprintf(stderr, "grids differ in parameter %zu: %.17g and %.17g\n", i, pa[i], pb[i]);
            return false;
        }
    const size_t row = static_cast<size_t>(a->GetWidth()) * static_cast<size_t>(a->GetSamplesPerPixel());
    int64_t differing = 0;
    for (int32_t y = 0; y < a->GetHeight(); ++y)
        differing += std::memcmp(a->GetPixelPointer(0, y), b->GetPixelPointer(0, y), row) != 0;
    if (differing) std::fprintf(stderr, "%lld rows differ\n", static_cast<long long>(differing));
    return differing == 0;
}

std::string GdalTms(const std::string& base) {
    return "<GDAL_WMS><Service name=\"TMS\"><ServerUrl>" + base +
           "/${z}/${x}/${y}.png</ServerUrl></Service><DataWindow>"
           "<UpperLeftX>-20037508.342789244</UpperLeftX><UpperLeftY>20037508.342789244</UpperLeftY>"
           "<LowerRightX>20037508.342789244</LowerRightX><LowerRightY>-20037508.342789244</LowerRightY>"
           "<TileLevel>" +
           std::to_string(MosaicZoom) +
           "</TileLevel><TileCountX>1</TileCountX><TileCountY>1</TileCountY><YOrigin>top</YOrigin>"
           "</DataWindow><Projection>EPSG:3857</Projection><BlockSizeX>256</BlockSizeX><BlockSizeY>256</BlockSizeY>"
           "<BandsCount>4</BandsCount><MaxConnections>64</MaxConnections></GDAL_WMS>";
}

int64_t FilesUnder(const fs::path& root) {
    int64_t files = 0;
    for (const auto& entry : fs::recursive_directory_iterator(root))
        if (entry.is_regular_file() && entry.path().extension() == ".png") ++files;
    return files;
}

void Print(const char* what, const Run& run) {
    std::printf("  %-52s %7.3f s  %7.1f MiB peak\n", what, run.seconds, run.peakMiB);
}

bool MosaicBeside(const fs::path& dir, const std::string& base, const std::string& tool) {
    std::ofstream(dir / "tms.xml") << GdalTms(base);
    const Run ours = Measure({tool, "mosaic", "--tms", base + "/{z}/{x}/{y}.png", "--epsg", "3857", "--zoom",
                              std::to_string(MosaicZoom), "--bbox", WorldBox, "--quiet", "-o",
                              (dir / "ours.tif").string()},
                             dir / "ours.log");
    // The tool cuts the box a hair inside the grid, so its mosaic lacks the last column and row.
    const std::string side = std::to_string((256 << MosaicZoom) - 1);
    const Run gdal = Measure({"gdal_translate", "-q", "-srcwin", "0", "0", side, side, (dir / "tms.xml").string(),
                              (dir / "gdal.tif").string()},
                             dir / "gdal.log");
    // GDAL writing what we write: deflate at the fastest level after horizontal differencing, on
    // all cores.
    const Run gdalPacked = Measure({"gdal_translate", "-q", "-srcwin", "0", "0", side, side, "-co", "COMPRESS=DEFLATE",
                                    "-co", "ZLEVEL=1", "-co", "PREDICTOR=2", "-co", "NUM_THREADS=ALL_CPUS",
                                    (dir / "tms.xml").string(), (dir / "packed.tif").string()},
                                   dir / "packed.log");
    fs::remove(dir / "packed.tif");
    // Compared in a child, so that this process stays small: a child started later inherits the
    // peak of the memory it shares until its exec.
    bool same = false;
    if (ours.ok && gdal.ok) {
        const pid_t child = ::fork();
        if (child == 0) ::_exit(SameMosaic(dir / "ours.tif", dir / "gdal.tif") ? 0 : 1);
        int status = 0;
        ::waitpid(child, &status, 0);
        same = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }
    const double raster = 256.0 * (1 << MosaicZoom) * 256.0 * (1 << MosaicZoom) * 4 / (1024.0 * 1024.0);
    std::printf("mosaic of zoom %d (%d tiles, %.0f MiB raster):\n", MosaicZoom, 1 << (2 * MosaicZoom), raster);
    Print("tellar-maps mosaic", ours);
    Print("gdal_translate, GDAL's TMS reader", gdal);
    Print("the same, written as we write (deflate 1, pred. 2)", gdalPacked);
    std::printf("  speed: %.2fx GDAL's default (uncompressed) (goal at least 2), %.2fx GDAL writing as we do\n",
                ours.seconds > 0 ? gdal.seconds / ours.seconds : 0.0,
                ours.seconds > 0 ? gdalPacked.seconds / ours.seconds : 0.0);
    std::printf("  peak memory: %.2fx the raster (goal at most %.0f MiB: 1.3x the raster + 64 MiB)\n",
                ours.peakMiB / raster, 1.3 * raster + 64);
    std::printf("  output: %s\n", same ? "every pixel and the grid equal GDAL's" : "DIFFERS from GDAL's");
    fs::remove(dir / "ours.tif");
    fs::remove(dir / "gdal.tif");
    return same;
}

bool SeedBeside(const fs::path& dir, const std::string& base, const std::string& tool) {
    const Run ours = Measure({tool, "seed", "--tms", base + "/{z}/{x}/{y}.png", "--epsg", "3857", "--bbox", WorldBox,
                              "--max-zoom", std::to_string(MaxZoom), "--cache", (dir / "cache").string(), "--quiet"},
                             dir / "seed.log");
    {
        std::ofstream config(dir / "curl.cfg");
        for (int32_t z = 0; z <= MaxZoom; ++z)
            for (int32_t x = 0; x < (1 << z); ++x)
                for (int32_t y = 0; y < (1 << z); ++y) {
                    const std::string path = std::to_string(z) + "/" + std::to_string(x) + "/" + std::to_string(y);
                    config << "url = \"" << base << "/" << path << ".png\"\noutput = \""
                           << (dir / "curl" / path).string() << ".png\"\n";
                }
    }
    const Run curl = Measure({"curl", "--parallel", "--parallel-max", "64", "-s", "-S", "--no-progress-meter",
                              "--create-dirs", "-K", (dir / "curl.cfg").string()},
                             dir / "curl.log");
    const int64_t expected = ((1LL << (2 * (MaxZoom + 1))) - 1) / 3;
    const int64_t oursFiles = ours.ok ? FilesUnder(dir / "cache") : 0, curlFiles = curl.ok ? FilesUnder(dir / "curl") : 0;
    std::printf("seed of zoom 0-%d (%lld tiles):\n", MaxZoom, static_cast<long long>(expected));
    Print("tellar-maps seed", ours);
    Print("curl --parallel --parallel-max 64 to files", curl);
    std::printf("  speed: %.2fx curl (goal at least 1)   files: %lld and %lld\n",
                ours.seconds > 0 ? curl.seconds / ours.seconds : 0.0, static_cast<long long>(oursFiles),
                static_cast<long long>(curlFiles));
    fs::remove_all(dir / "cache");
    fs::remove_all(dir / "curl");
    return oursFiles == expected && curlFiles == expected;
}

} // namespace

int main(int argc, char** argv) {
    bool mosaic = argc == 1, seed = argc == 1;
    for (int i = 1; i < argc; ++i) {
        mosaic = mosaic || std::strcmp(argv[i], "mosaic") == 0;
        seed = seed || std::strcmp(argv[i], "seed") == 0;
    }
    const fs::path bin = fs::canonical("/proc/self/exe").parent_path();
    const std::string tool = (bin / "tellar-maps").string();
    const fs::path dir = Bench::MakeWorkDirectory("peers_bench");
    if (dir.empty()) return 1;
    const fs::path pyramid = bin.parent_path() / "peers-pyramid";
    WritePyramid(pyramid);
    Bench::LoopbackNginx nginx(dir, "    root " + pyramid.string() + ";\n    types { image/png png; }");
    bool good = nginx.Start();
    if (!good) std::fprintf(stderr, "nginx could not start\n");
    if (good && mosaic) good = MosaicBeside(dir, nginx.Base(), tool) && good;
    if (good && seed) good = SeedBeside(dir, nginx.Base(), tool) && good;
    nginx.Stop();
    fs::remove_all(dir);
    return good ? 0 : 1;
}
