// The tool beside its peers on one loopback nginx serving a zoom 0-6 pyramid of 256-pixel RGBA PNG
// relief tiles:
//   mosaic  the whole zoom-5 level (1,024 tiles) as one 8192 x 8192 GeoTIFF: `tellar-maps mosaic`
//           against `gdal_translate` of GDAL's TMS reader, both stored uncompressed (GDAL's
//           default) and both deflated alike; wall time and peak resident memory of each process,
//           and every pixel and the grid of both files compared;
//   seed    zoom 0 to 6 (5,461 tiles) into an empty cache: `tellar-maps seed` against
//           `curl --parallel --parallel-max 64` writing the same tiles as files.
// Each runs ROUNDS times, ours and the peer's in turn; times are medians. By default the mosaic
// runs 3 rounds and the seed, whose rounds take a second but swing by a tenth with this machine's
// load, 9.
// Usage: peers_bench [mosaic] [seed] [--rounds N]   (default: both). Needs nginx, curl and
// gdal_translate.
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
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

double Median(std::vector<double> values) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    const size_t middle = values.size() / 2;
    return values.size() % 2 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

// Runs of one program: the median time, the highest peak, whether every run went well.
struct Runs {
    std::vector<double> seconds;
    double peakMiB = 0;
    bool ok = true;
    void Add(const Run& run) {
        seconds.push_back(run.seconds);
        peakMiB = std::max(peakMiB, run.peakMiB);
        ok = ok && run.ok;
    }
    double Seconds() const { return Median(seconds); }
};

void Print(const char* what, const Runs& runs) {
    std::printf("  %-52s %7.3f s  %7.1f MiB peak\n", what, runs.Seconds(), runs.peakMiB);
}

// Whether our file and GDAL's hold the same grid and pixels, compared in a child, so that this
// process stays small: a child started later inherits the peak of the memory it shares until its
// exec.
bool SameInChild(const fs::path& ours, const fs::path& theirs) {
    const pid_t child = ::fork();
    if (child == 0) ::_exit(SameMosaic(ours, theirs) ? 0 : 1);
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// The whole level as one GeoTIFF, `rounds` times each way in turn: ours and GDAL's stored as GDAL
// stores by default (uncompressed), and both deflated at the fastest level after horizontal
// differencing (ours by default; GDAL on all cores).
bool MosaicBeside(const fs::path& dir, const std::string& base, const std::string& tool, int32_t rounds) {
    std::ofstream(dir / "tms.xml") << GdalTms(base);
    const auto ours = [&](const char* compress, const fs::path& out) {
        return Measure({tool, "mosaic", "--tms", base + "/{z}/{x}/{y}.png", "--epsg", "3857", "--zoom",
                        std::to_string(MosaicZoom), "--bbox", WorldBox, "--quiet", "--compress", compress, "-o",
                        out.string()},
                       dir / "ours.log");
    };
    // The tool cuts the box a hair inside the grid, so its mosaic lacks the last column and row.
    const std::string side = std::to_string((256 << MosaicZoom) - 1);
    const auto gdal = [&](std::vector<std::string> options, const fs::path& out) {
        std::vector<std::string> args = {"gdal_translate", "-q", "-srcwin", "0", "0", side, side};
        args.insert(args.end(), options.begin(), options.end());
        args.push_back((dir / "tms.xml").string());
        args.push_back(out.string());
        return Measure(args, dir / "gdal.log");
    };
    Runs oursPlain, gdalPlain, oursPacked, gdalPacked;
    std::vector<double> plainRatios, packedRatios;
    bool same = true;
    for (int32_t round = 0; round < rounds; ++round) {
        const Run a = ours("none", dir / "ours.tif"), b = gdal({}, dir / "gdal.tif");
        oursPlain.Add(a);
        gdalPlain.Add(b);
        if (a.ok && b.ok) plainRatios.push_back(b.seconds / a.seconds);
        if (round == 0) same = a.ok && b.ok && SameInChild(dir / "ours.tif", dir / "gdal.tif");
        fs::remove(dir / "ours.tif");
        const Run c = ours("deflate", dir / "ours.tif");
        const Run d = gdal({"-co", "COMPRESS=DEFLATE", "-co", "ZLEVEL=1", "-co", "PREDICTOR=2", "-co",
                            "NUM_THREADS=ALL_CPUS"},
                           dir / "packed.tif");
        oursPacked.Add(c);
        gdalPacked.Add(d);
        if (c.ok && d.ok) packedRatios.push_back(d.seconds / c.seconds);
        if (round == 0) same = same && c.ok && SameInChild(dir / "ours.tif", dir / "gdal.tif");
        fs::remove(dir / "ours.tif");
        fs::remove(dir / "gdal.tif");
        fs::remove(dir / "packed.tif");
    }
    const double raster = 256.0 * (1 << MosaicZoom) * 256.0 * (1 << MosaicZoom) * 4 / (1024.0 * 1024.0);
    std::printf("mosaic of zoom %d (%d tiles, %.0f MiB raster), medians of %d rounds:\n", MosaicZoom,
                1 << (2 * MosaicZoom), raster, rounds);
    Print("tellar-maps mosaic --compress none", oursPlain);
    Print("gdal_translate, GDAL's TMS reader (uncompressed)", gdalPlain);
    Print("tellar-maps mosaic (deflate 1, predictor 2)", oursPacked);
    Print("gdal_translate, the same deflate, all cores", gdalPacked);
    std::printf("  speed: uncompressed %.2fx GDAL (goal at least 2), deflated %.2fx GDAL\n", Median(plainRatios),
                Median(packedRatios));
    const double peak = std::max(oursPlain.peakMiB, oursPacked.peakMiB);
    std::printf("  peak memory: %.2fx the raster, %.0f MiB (goal at most %.0f MiB: 1.3x the raster + 64 MiB)\n",
                peak / raster, peak, 1.3 * raster + 64);
    std::printf("  output: %s\n", same ? "both files of ours hold every pixel and the grid of GDAL's"
                                         : "DIFFERS from GDAL's");
    return same && oursPlain.ok && gdalPlain.ok && oursPacked.ok && gdalPacked.ok;
}

// Zoom 0 to MaxZoom into an empty cache, `rounds` times, ours and curl's in turn.
bool SeedBeside(const fs::path& dir, const std::string& base, const std::string& tool, int32_t rounds) {
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
    const int64_t expected = ((1LL << (2 * (MaxZoom + 1))) - 1) / 3;
    Runs ours, curl;
    std::vector<double> ratios;
    bool complete = true;
    for (int32_t round = 0; round < rounds; ++round) {
        const Run a = Measure({tool, "seed", "--tms", base + "/{z}/{x}/{y}.png", "--epsg", "3857", "--bbox", WorldBox,
                               "--max-zoom", std::to_string(MaxZoom), "--cache", (dir / "cache").string(), "--quiet"},
                              dir / "seed.log");
        const Run b = Measure({"curl", "--parallel", "--parallel-max", "64", "-s", "-S", "--no-progress-meter",
                               "--create-dirs", "-K", (dir / "curl.cfg").string()},
                              dir / "curl.log");
        ours.Add(a);
        curl.Add(b);
        if (a.ok && b.ok) ratios.push_back(b.seconds / a.seconds);
        const int64_t oursFiles = a.ok ? FilesUnder(dir / "cache") : 0, curlFiles = b.ok ? FilesUnder(dir / "curl") : 0;
        if (oursFiles != expected || curlFiles != expected) {
            std::fprintf(stderr, "round %d: %lld and %lld files, %lld expected\n", round,
                         static_cast<long long>(oursFiles), static_cast<long long>(curlFiles),
                         static_cast<long long>(expected));
            complete = false;
        }
        fs::remove_all(dir / "cache");
        fs::remove_all(dir / "curl");
    }
    std::printf("seed of zoom 0-%d (%lld tiles), medians of %d rounds:\n", MaxZoom, static_cast<long long>(expected),
                rounds);
    Print("tellar-maps seed", ours);
    Print("curl --parallel --parallel-max 64 to files", curl);
    std::printf("  speed: %.2fx curl (goal at least 1)   files: %s\n", Median(ratios),
                complete ? "every tile, both" : "MISSING, see above");
    return complete && ours.ok && curl.ok;
}

} // namespace

int main(int argc, char** argv) {
    bool mosaic = false, seed = false;
    int32_t rounds = 0;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "mosaic") == 0) mosaic = true;
        else if (std::strcmp(argv[i], "seed") == 0) seed = true;
        else if (std::strcmp(argv[i], "--rounds") == 0 && i + 1 < argc) rounds = std::max(1, std::atoi(argv[++i]));
        else {
            std::fprintf(stderr, "usage: peers_bench [mosaic] [seed] [--rounds N]\n");
            return 2;
        }
    }
    if (!mosaic && !seed) mosaic = seed = true;
    const fs::path bin = fs::canonical("/proc/self/exe").parent_path();
    const std::string tool = (bin / "tellar-maps").string();
    const fs::path dir = Bench::MakeWorkDirectory("peers_bench");
    if (dir.empty()) return 1;
    const fs::path pyramid = bin.parent_path() / "peers-pyramid";
    WritePyramid(pyramid);
    Bench::LoopbackNginx nginx(dir, "    root " + pyramid.string() + ";\n    types { image/png png; }");
    bool good = nginx.Start();
    if (!good) std::fprintf(stderr, "nginx could not start\n");
    if (good && mosaic) good = MosaicBeside(dir, nginx.Base(), tool, rounds ? rounds : 3) && good;
    if (good && seed) good = SeedBeside(dir, nginx.Base(), tool, rounds ? rounds : 9) && good;
    nginx.Stop();
    fs::remove_all(dir);
    return good ? 0 : 1;
}
