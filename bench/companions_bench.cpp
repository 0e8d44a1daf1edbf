// Decoding of 256x256 tiles (tiles per second) and transformation of a million points from
// EPSG:3857 to EPSG:4326 (points per second), through our wrapper and through PROJ's batch call
// made directly, so the wrapper's overhead shows.
#include <cstring>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>
#include <png.h>
#include <proj.h>

#include "Core/AbiGuard.h"
#include "ImageWriters.h"
#include "Tellar/Spatial/ProjectionExports.h"
#include "TellarImaging/Exports.h"

namespace {

constexpr int TileSize = 256;
constexpr size_t PointCount = 1000000;

// A map-like tile: smooth areas, edges and a little noise.
TestImages::Bytes TilePixels(int components) {
    std::mt19937 random(7);
    TestImages::Bytes pixels(size_t(TileSize) * TileSize * components);
    for (int y = 0; y < TileSize; ++y)
        for (int x = 0; x < TileSize; ++x)
            for (int c = 0; c < components; ++c) {
                const int base = ((x / 32 + y / 32) % 2) ? 200 : 90;
                pixels[(size_t(y) * TileSize + x) * components + c] =
                    uint8_t(base + (x + y + c * 30) % 40 + int(random() % 6));
            }
    return pixels;
}

void DecodeLoop(benchmark::State& state, const TestImages::Bytes& bytes) {
    for (auto _ : state) {
        Core::Ptr<TellarImaging::IImage> image;
        if (!CreateImageFromMemoryStream(bytes.data(), bytes.size(), image.ReceiveAddress(), nullptr)) {
            state.SkipWithError("decode failed");
            break;
        }
        benchmark::DoNotOptimize(image->GetPixelPointer(0, 0));
    }
    state.SetItemsProcessed(state.iterations());
    state.counters["bytes"] = double(bytes.size());
}

void BM_DecodePngRgba256(benchmark::State& state) {
    TestImages::PngLayout layout;
    layout.width = layout.height = TileSize;
    layout.colorType = PNG_COLOR_TYPE_RGB_ALPHA;
    layout.rows = TilePixels(4);
    DecodeLoop(state, TestImages::EncodePng(layout));
}

void BM_DecodePngPalette256(benchmark::State& state) {
    TestImages::PngLayout layout;
    layout.width = layout.height = TileSize;
    layout.colorType = PNG_COLOR_TYPE_PALETTE;
    layout.rows = TilePixels(1);
    for (int i = 0; i < 256; ++i) layout.palette.insert(layout.palette.end(), {uint8_t(i), uint8_t(255 - i), uint8_t(i / 2)});
    DecodeLoop(state, TestImages::EncodePng(layout));
}

void BM_DecodeJpeg256(benchmark::State& state) {
    DecodeLoop(state, TestImages::EncodeJpeg(TileSize, TileSize, 3, TilePixels(3), 85));
}

// Web Mercator coordinates spread over the world.
struct Points {
    std::vector<double> x, y;
    Points() : x(PointCount), y(PointCount) {
        std::mt19937_64 random(11);
        std::uniform_real_distribution<double> span(-20037508.0, 20037508.0);
        for (size_t i = 0; i < PointCount; ++i) {
            x[i] = span(random);
            y[i] = span(random);
        }
    }
};

void BM_TransformArrays3857To4326(benchmark::State& state) {
    const Points source;
    Points work;
    Core::Ptr<Tellar::Interfaces::IEpsg> epsg;
    Core::Ptr<Tellar::Interfaces::ICrs> from, to;
    Core::Ptr<Tellar::Interfaces::ICrsTransformation> transformation;
    TellarSpatialProjection_CreateEpsg(epsg.ReceiveAddress(), nullptr);
    epsg->CreateCrs(3857, from.ReceiveAddress(), nullptr);
    epsg->CreateCrs(4326, to.ReceiveAddress(), nullptr);
    TellarSpatialProjection_CreateCrsTransformation(from.Raw(), to.Raw(), transformation.ReceiveAddress(), nullptr);
    for (auto _ : state) {
        state.PauseTiming();
        std::memcpy(work.x.data(), source.x.data(), PointCount * sizeof(double));
        std::memcpy(work.y.data(), source.y.data(), PointCount * sizeof(double));
        state.ResumeTiming();
        transformation->TransformArrays(PointCount, Tellar::Interfaces::TransformForward, work.x.data(), work.y.data(),
                                        nullptr, nullptr);
        benchmark::DoNotOptimize(work.x.data());
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(PointCount));
}

// The same transformation made and called with PROJ alone.
void BM_ProjTransGenericDirect3857To4326(benchmark::State& state) {
    const Points source;
    Points work;
    PJ_CONTEXT* context = proj_context_create();
    PJ* raw = proj_create_crs_to_crs(context, "EPSG:3857", "EPSG:4326", nullptr);
    PJ* operation = proj_normalize_for_visualization(context, raw);
    for (auto _ : state) {
        state.PauseTiming();
        std::memcpy(work.x.data(), source.x.data(), PointCount * sizeof(double));
        std::memcpy(work.y.data(), source.y.data(), PointCount * sizeof(double));
        state.ResumeTiming();
        proj_trans_generic(operation, PJ_FWD, work.x.data(), sizeof(double), PointCount, work.y.data(), sizeof(double),
                           PointCount, nullptr, 0, 0, nullptr, 0, 0);
        benchmark::DoNotOptimize(work.x.data());
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(PointCount));
    proj_destroy(operation);
    proj_destroy(raw);
    proj_context_destroy(context);
}

} // namespace

BENCHMARK(BM_DecodePngRgba256);
BENCHMARK(BM_DecodePngPalette256);
BENCHMARK(BM_DecodeJpeg256);
BENCHMARK(BM_TransformArrays3857To4326)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ProjTransGenericDirect3857To4326)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
