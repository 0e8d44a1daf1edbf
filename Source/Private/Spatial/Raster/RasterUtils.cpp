#include "Private/Spatial/Raster/RasterUtils.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Core/AbiGuard.h"
#include "Core/StringFormat.h"
#include "MapServices/Geometry.h"
#include "Platform/Log.h"
#include "Private/Spatial/Raster/AffineMap.h"
#include "TellarImaging/Exports.h"

namespace Tellar::Spatial::Raster {

using Core::Ptr;
using Maps::impl::CrsTransformationHolder;
using Tellar::Interfaces::ICrs;
using TellarImaging::IImage;
using TellarImaging::ITiffImage;
using TellarImaging::ITiffImage2;
using TellarImaging::ITransform;

namespace {

constexpr const char* kFunction = "Tellar::Spatial::Raster::RasterUtils::ReprojectImage";
constexpr const char* kFile = "RasterUtils.cpp";
constexpr int64_t kPixelsPerThread = 1000000;

void Log(int line, const std::string& text) { Platform::LogMessage(Platform::LogDebug, kFunction, kFile, line, text); }

// Points transformed in one batch call: as many whole rows as fit in this many points, at least
// one, so that the coordinates of a batch stay in the core's cache between the transformation
// and the copy.
constexpr int64_t kBatchPoints = 8192;

// Everything the sampling threads read; built on the calling thread before they start.
struct SamplingJob {
    AffineMap target;
    AffineMap source;
    std::vector<const uint8_t*> sourceRows;
    std::vector<uint8_t*> targetRows;
    int64_t width = 0;
    double sourceWidth = 0.0, sourceHeight = 0.0;
    size_t bytesPerPixel = 0;
};

// Nearest neighbour with truncation for the `width` target pixels of one row, whose source
// coordinates are in `worldX`, `worldY`; `Bytes` is the pixel size when known at compile time,
// 0 for any other size.
template <size_t Bytes>
void SampleRow(const SamplingJob& job, uint8_t* targetRow, const double* worldX, const double* worldY) {
    const size_t bytes = Bytes ? Bytes : job.bytesPerPixel;
    for (int64_t c = 0; c < job.width; ++c) {
        double px, py;
        job.source.ToPixel(worldX[c], worldY[c], px, py);
        // For px >= 0, trunc(px) < sourceWidth exactly when px < sourceWidth; NaN fails both.
        if (px >= 0.0 && py >= 0.0 && px < job.sourceWidth && py < job.sourceHeight) {
            const auto sx = static_cast<size_t>(px), sy = static_cast<size_t>(py);
            std::memcpy(targetRow + static_cast<size_t>(c) * bytes, job.sourceRows[sy] + sx * bytes, bytes);
        }
    }
}

template <size_t Bytes>
void SampleRowsOf(const SamplingJob& job, CrsTransformationHolder& inverse, int64_t start, int64_t end) {
    const int64_t rowsPerBatch = std::max<int64_t>(1, kBatchPoints / job.width);
    const auto capacity = static_cast<size_t>(std::min(rowsPerBatch, end - start) * job.width);
    const auto worldX = std::make_unique_for_overwrite<double[]>(capacity);
    const auto worldY = std::make_unique_for_overwrite<double[]>(capacity);
    for (int64_t first = start; first < end; first += rowsPerBatch) {
        const int64_t last = std::min(first + rowsPerBatch, end);
        // Target pixel centres, then their source coordinates.
        double* xs = worldX.get();
        double* ys = worldY.get();
        for (int64_t r = first; r < last; ++r)
            for (int64_t c = 0; c < job.width; ++c, ++xs, ++ys)
                job.target.ToWorld(static_cast<double>(c) + 0.5, static_cast<double>(r) + 0.5, *xs, *ys);
        Ptr<Core::IErrorCode> error;
        if (!inverse.transformation->TransformArrays(static_cast<uint64_t>((last - first) * job.width),
                                                     Tellar::Interfaces::TransformForward, worldX.get(), worldY.get(),
                                                     nullptr, error.ReceiveAddress()))
            Core::ThrowIfError(error);
        for (int64_t r = first; r < last; ++r) {
            const auto offset = static_cast<size_t>((r - first) * job.width);
            SampleRow<Bytes>(job, job.targetRows[static_cast<size_t>(r)], worldX.get() + offset, worldY.get() + offset);
        }
    }
}

// Target rows [start, end): their pixel centres through the worker's own transformation in
// batches of whole rows, each batch sampled as soon as it is transformed.
void SampleRows(const SamplingJob& job, CrsTransformationHolder& inverse, int64_t start, int64_t end) {
    switch (job.bytesPerPixel) {
    case 1: return SampleRowsOf<1>(job, inverse, start, end);
    case 2: return SampleRowsOf<2>(job, inverse, start, end);
    case 3: return SampleRowsOf<3>(job, inverse, start, end);
    case 4: return SampleRowsOf<4>(job, inverse, start, end);
    case 8: return SampleRowsOf<8>(job, inverse, start, end);
    default: return SampleRowsOf<0>(job, inverse, start, end);
    }
}

void JoinAll(std::vector<std::thread>& threads) {
    for (std::thread& thread : threads) thread.join();
    threads.clear();
}

const char* CrsText(ICrs* crs) {
    const char* text = crs->GetProj4Text();
    return text ? text : "";
}

} // namespace

Ptr<IImage> RasterUtils::ReprojectImage(IImage* source, CrsTransformationHolder holder) {
    return ReprojectImage(source, std::move(holder), std::thread::hardware_concurrency());
}

Ptr<IImage> RasterUtils::ReprojectImage(IImage* sourceImage, CrsTransformationHolder holder,
                                        uint32_t hardwareConcurrency) {
    // The source and its georeference.
    Ptr<IImage> source(sourceImage);
    Ptr<ITiffImage> sourceTiff;
    Ptr<ITransform> sourceTransform;
    if (auto* tiff = dynamic_cast<ITiffImage*>(source.Raw())) {
        sourceTiff = Ptr<ITiffImage>(tiff);
        Ptr<Core::IErrorCode> error;
        if (!tiff->GetTransform(sourceTransform.ReceiveAddress(), error.ReceiveAddress())) Core::ThrowIfError(error);
    }
    const int32_t srcWidth = source->GetWidth();
    const int32_t srcHeight = source->GetHeight();

    // Nothing to do: a copy.
    const Ptr<ICrs> sourceCrs(holder.transformation->GetSourceCrs());
    const Ptr<ICrs> targetCrs(holder.transformation->GetTargetCrs());
    if (!sourceCrs.Raw() || !targetCrs.Raw() || sourceCrs->GetEpsgCode() == targetCrs->GetEpsgCode()) {
        Log(505, "Skipping reprojection due no transformation (source and target are either same or one is null)");
        Ptr<IImage> copy;
        Ptr<Core::IErrorCode> error;
        if (!source->CreateSubImage(0, 0, srcWidth, srcHeight, copy.ReceiveAddress(), error.ReceiveAddress()))
            Core::ThrowIfError(error);
        return copy;
    }

    Log(509, Core::StringFormat("Reprojecting image (%dx%d) from [%s] to [%s]", srcWidth, srcHeight,
                                CrsText(sourceCrs.Raw()), CrsText(targetCrs.Raw())));
    const int32_t samples = source->GetSamplesPerPixel();
    const int32_t bits = source->GetBitsPerSample();
    const int32_t bytesPerPixel = (bits * samples) / 8;

    // The box of the source corners in the target CRS.
    MapServices::BoundingBoxValue box;
    {
        const double corners[4][2] = {
            {0.0, 0.0}, {double(srcWidth), double(srcHeight)}, {0.0, double(srcHeight)}, {double(srcWidth), 0.0}};
        double points[4 * 4] = {};
        for (int k = 0; k < 4; ++k)
            sourceTransform->PixelToWorld(corners[k][0], corners[k][1], &points[4 * k], &points[4 * k + 1],
                                          &points[4 * k + 2]);
        if (!holder.noOp) {
            Ptr<Core::IErrorCode> error;
            if (!holder.transformation->TransformPoints(4, points, error.ReceiveAddress())) Core::ThrowIfError(error);
        }
        for (int k = 0; k < 4; ++k) box.Extend(points[4 * k], points[4 * k + 1]);
    }

    // The resolution at the first pixel, with its signs.
    double pts[2 * 4] = {};
    sourceTransform->PixelToWorld(0.0, 0.0, &pts[0], &pts[1], &pts[2]);
    sourceTransform->PixelToWorld(1.0, 1.0, &pts[4], &pts[5], &pts[6]);
    Log(524, Core::StringFormat("pt0, {%f %f}", pts[0], pts[1]));
    Log(525, Core::StringFormat("pt1, {%f %f}", pts[4], pts[5]));
    if (!holder.noOp) {
        Ptr<Core::IErrorCode> error;
        if (!holder.transformation->TransformPoints(2, pts, error.ReceiveAddress())) Core::ThrowIfError(error);
    }
    const double resX = pts[4] - pts[0];
    const double resY = pts[5] - pts[1];
    Log(528, Core::StringFormat("New Res: {%f %f}", resX, resY));

    // Size of the target and the number of threads.
    const int32_t width = std::abs(static_cast<int32_t>(std::trunc((box.maxX - box.minX) / resX))) + 1;
    const int32_t height = std::abs(static_cast<int32_t>(std::trunc((box.maxY - box.minY) / resY))) + 1;
    const auto pixels =
        static_cast<int64_t>(static_cast<int32_t>(static_cast<uint32_t>(width) * static_cast<uint32_t>(height)));
    int64_t threads = std::max<int64_t>(1, pixels / kPixelsPerThread);
    threads = std::min<int64_t>(threads, hardwareConcurrency);
    // Rows are shared out evenly, at least one to a thread, so that a wide picture of few rows
    // gets no thread without work.
    threads = std::min<int64_t>(threads, height);

    // The georeference of the target.
    Ptr<ITransform> targetTransform;
    {
        Ptr<Core::IErrorCode> error;
        if (!CreateTransformFromParams(resX, resY, box.minX, box.maxY, 0.0, 0.0, targetTransform.ReceiveAddress(),
                                       error.ReceiveAddress()))
            Core::ThrowIfError(error);
    }
    Log(538, Core::StringFormat("Resampled image res: {%dx%d}", width, height));
    Log(549, Core::StringFormat("New BBox: [%f %f] [%f %f]", box.minX, box.minY, box.maxX, box.maxY));

    // The target image, of the source's layout.
    const int32_t kind = sourceTiff.Raw() ? sourceTiff->GetSampleKind() : TellarImaging::SampleKindUnsigned;
    Ptr<IImage> created;
    {
        Ptr<Core::IErrorCode> error;
        if (!TellarImaging_CreateMultiChannelTiffImage(width, height, kind, samples, bits, created.ReceiveAddress(),
                                                       error.ReceiveAddress()))
            Core::ThrowIfError(error);
    }
    const Ptr<ITiffImage> target(dynamic_cast<ITiffImage*>(created.Raw()));

    // The metadata.
    target->SetTransform(targetTransform.Raw());
    target->SetSampleKind(kind);
    target->SetIntProperty(sourceTiff.Raw() ? sourceTiff->GetIntProperty() : -1);
    if (sourceTiff.Raw()) {
        auto* source2 = sourceTiff.Cast<ITiffImage2>();
        auto* target2 = target.Cast<ITiffImage2>();
        target2->SetTextProperty(source2->GetTextProperty());
        const uint32_t count = sourceTiff->GetListCount();
        for (uint32_t i = 0; i < count; ++i) target->SetListValue(i, sourceTiff->GetListValue(i));
        Ptr<Core::IObject> object;
        Ptr<Core::IErrorCode> error;
        if (!source2->GetObjectProperty(object.ReceiveAddress(), 0, error.ReceiveAddress()) ||
            !target2->SetObjectProperty(object.Raw(), 0, error.ReceiveAddress()))
            Core::ThrowIfError(error);
    }

    // Row addresses, taken once: the sampling loop calls nothing per pixel.
    SamplingJob job{.target = AffineMap(*targetTransform),
                    .source = AffineMap(*sourceTransform),
                    .sourceRows = {},
                    .targetRows = {},
                    .width = width,
                    .sourceWidth = double(srcWidth),
                    .sourceHeight = double(srcHeight),
                    .bytesPerPixel = static_cast<size_t>(bytesPerPixel)};
    job.sourceRows.resize(static_cast<size_t>(srcHeight));
    for (int32_t y = 0; y < srcHeight; ++y)
        job.sourceRows[size_t(y)] = static_cast<const uint8_t*>(source->GetPixelPointer(0, y));
    job.targetRows.resize(static_cast<size_t>(height));
    for (int32_t y = 0; y < height; ++y)
        job.targetRows[size_t(y)] = static_cast<uint8_t*>(target->GetPixelPointer(0, y));

    // A float raster of one sample starts as no-data (NaN) where nothing lands.
    if (target->GetSampleKind() == TellarImaging::SampleKindFloat && samples == 1) {
        const auto stride = static_cast<size_t>(target->GetSamplesPerPixel() * (target->GetBitsPerSample() / 8));
        const uint32_t nan = 0x7FC00000u;
        for (uint8_t* row : job.targetRows) {
            for (int32_t c = 0; c < width; ++c, row += stride) {
                std::memset(row, 0, stride);
                std::memcpy(row, &nan, std::min<size_t>(stride, sizeof nan));
            }
        }
    }

    // Nearest neighbour, one stretch of rows per thread. Each thread gets a transformation of
    // its own, all made here before any thread starts, since one is never shared between threads.
    std::vector<CrsTransformationHolder> inverses;
    inverses.reserve(static_cast<size_t>(threads));
    for (int64_t k = 0; k < threads; ++k) inverses.emplace_back(targetCrs, sourceCrs);
    std::vector<std::thread> workers;
    for (int64_t k = 0; k < threads; ++k) {
        const int64_t start = height * k / threads, end = height * (k + 1) / threads;
        workers.emplace_back([&job, &inverse = inverses[size_t(k)], sourceHold = source, targetHold = target, start,
                              end] { SampleRows(job, inverse, start, end); });
    }
    JoinAll(workers);
    target->SetEpsgCode(targetCrs->GetEpsgCode());
    return Ptr<IImage>(target.Raw());
}

} // namespace Tellar::Spatial::Raster
