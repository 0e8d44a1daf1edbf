// Reprojection of a 4096 x 4096 RGBA picture from EPSG:3857 to EPSG:4326 (target megapixels
// per second), through ReprojectImage and through gdalwarp on the same target grid. gdalwarp
// runs as a process, so its time includes start-up and reading and writing the GeoTIFF files.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include "Core/AbiGuard.h"
#include "Core/StringFormat.h"
#include "Private/Spatial/Raster/RasterUtils.h"
#include "Tellar/Spatial/ProjectionExports.h"
#include "TellarImaging/Exports.h"

namespace {

using Core::Ptr;
using Tellar::Spatial::Maps::impl::CrsTransformationHolder;
using Tellar::Spatial::Raster::RasterUtils;
using namespace TellarImaging;

constexpr int32_t kSize = 4096;

// Target megapixels per second of wall time: the work runs on several threads or in another
// process, so CPU time of the benchmark thread says nothing.
class WallClock {
public:
    void Add(int64_t pixels) { pixels_ += pixels; }
    void Report(benchmark::State& state) const {
        const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
        state.counters["MP/s"] = double(pixels_) / 1e6 / seconds;
    }

private:
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
    int64_t pixels_ = 0;
};

Ptr<Tellar::Interfaces::ICrs> Crs(uint32_t code) {
    static const Ptr<Tellar::Interfaces::IEpsg> epsg = [] {
        Ptr<Tellar::Interfaces::IEpsg> made;
        TellarSpatialProjection_CreateEpsg(made.ReceiveAddress(), nullptr);
        return made;
    }();
    Ptr<Tellar::Interfaces::ICrs> crs;
    epsg->CreateCrs(code, crs.ReceiveAddress(), nullptr);
    return crs;
}

// Europe at 600 m a pixel, with colours that change from pixel to pixel.
const Ptr<IImage>& Source() {
    static const Ptr<IImage> image = [] {
        Ptr<IImage> made;
        Ptr<Core::IErrorCode> error;
        TellarImaging_CreateMultiChannelTiffImage(kSize, kSize, SampleKindUnsigned, 4, 8, made.ReceiveAddress(),
                                                  error.ReceiveAddress());
        Core::ThrowIfError(error);
        Ptr<ITransform> transform;
        CreateTransformFromParams(600.0, -600.0, -1.0e6, 8.5e6, 0.0, 0.0, transform.ReceiveAddress(), nullptr);
        auto tiff = made.As<ITiffImage>();
        tiff->SetTransform(transform.Raw());
        tiff->SetEpsgCode(3857);
        for (int32_t y = 0; y < kSize; ++y) {
            auto* row = static_cast<uint32_t*>(made->GetPixelPointer(0, y));
            for (int32_t x = 0; x < kSize; ++x)
                row[x] = ((uint32_t(x) * 2654435761u) ^ (uint32_t(y) * 40503u)) | 0xFF000000u;
        }
        return made;
    }();
    return image;
}

void BM_ReprojectImage(benchmark::State& state) {
    Source();
    WallClock clock;
    int64_t pixels = 0;
    for (auto _ : state) {
        Ptr<IImage> target = RasterUtils::ReprojectImage(Source().Raw(), CrsTransformationHolder(Crs(3857), Crs(4326)));
        pixels = int64_t(target->GetWidth()) * target->GetHeight();
        clock.Add(pixels);
        benchmark::DoNotOptimize(target->GetPixelPointer(0, 0));
    }
    clock.Report(state);
    state.counters["target MP"] = double(pixels) / 1e6;
    state.counters["threads"] = double(std::thread::hardware_concurrency());
}

void BM_Gdalwarp(benchmark::State& state) {
    if (std::system("command -v gdalwarp > /dev/null 2>&1") != 0) {
        state.SkipWithError("gdalwarp is not installed");
        return;
    }
    const std::filesystem::path dir =
        std::filesystem::temp_directory_path() / ("tellar-raster-bench-" + std::to_string(getpid()));
    std::filesystem::create_directories(dir);
    const std::string source = (dir / "source.tif").string(), output = (dir / "gdal.tif").string();
    Ptr<Core::IErrorCode> error;
    TellarImaging_SaveImage(Source().Raw(), source.c_str(), ImageFileFormatTiff, error.ReceiveAddress());
    Core::ThrowIfError(error);

    // The grid ReprojectImage chooses.
    Ptr<IImage> ours = RasterUtils::ReprojectImage(Source().Raw(), CrsTransformationHolder(Crs(3857), Crs(4326)));
    Ptr<ITransform> transform;
    ours.As<ITiffImage>()->GetTransform(transform.ReceiveAddress(), nullptr);
    double sx, sy, ox, oy;
    transform->GetParams(&sx, &sy, &ox, &oy, nullptr, nullptr);
    const int32_t width = ours->GetWidth(), height = ours->GetHeight();
    ours.Reset();
    const std::string command = Core::StringFormat(
        "gdalwarp -q -overwrite -r near -et 0 -multi -wo NUM_THREADS=2 -t_srs EPSG:4326 -te %.17g %.17g %.17g %.17g "
        "-ts %d %d '%s' '%s'",
        ox, oy + height * sy, ox + width * sx, oy, width, height, source.c_str(), output.c_str());

    WallClock clock;
    for (auto _ : state) {
        clock.Add(int64_t(width) * height);
        if (std::system(command.c_str()) != 0) {
            state.SkipWithError("gdalwarp failed");
            break;
        }
    }
    clock.Report(state);
    std::filesystem::remove_all(dir);
}

} // namespace

BENCHMARK(BM_ReprojectImage)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);
BENCHMARK(BM_Gdalwarp)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);

BENCHMARK_MAIN();
