#include "Tellar/Spatial/Maps/Mosaic.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <exception>
#include <numbers>
#include <thread>

#include "Core/AbiGuard.h"
#include "Core/Checked.h"
#include "Private/Spatial/Raster/ImageBase.h"
#include "TellarImaging/Exports.h"
#include "TellarImaging/ITransform.h"

namespace Tellar::Spatial::Maps::impl {

namespace {

using TellarImaging::IImage;
using TellarImaging::ImageBase;
using TellarImaging::ITiffImage;
using TellarImaging::ITransform;

constexpr double WebMercatorRadius = 6378137.0;

// Tiles a decoding thread takes in one batch; a thread is worth starting for that many.
constexpr size_t TilesPerThread = 16;

Core::Ptr<IImage> DecodeTile(Tellar::Interfaces::ITileResponse& response) {
    Core::Ptr<IImage> image;
    Core::Ptr<Core::IErrorCode> error;
    if (!response.GetImage(image.ReceiveAddress(), error.ReceiveAddress())) Core::ThrowIfError(error);
    return image;
}

// Copies the rows of `tile` to (left, top) of `target`, cut to the target's edges.
void PasteTile(const ImageBase& tile, const ImageBase& target, int64_t left, int64_t top) {
    const TellarImaging::PixelAccessor& from = *tile.accessor;
    TellarImaging::PixelAccessor& to = *target.accessor;
    if (left >= to.width || top >= to.height || left + from.width <= 0 || top + from.height <= 0) return;

    const int64_t skipColumns = std::max<int64_t>(0, -left);
    const int64_t firstColumn = left + skipColumns;
    const int64_t skipRows = std::max<int64_t>(0, -top);
    // A row of the tile in bytes, as far as it reaches into the target.
    const int64_t sourceBytes = static_cast<int64_t>(from.rowSize) - skipColumns * from.pixelSize;
    const int64_t roomBytes = (to.width - firstColumn) * static_cast<int64_t>(to.pixelSize);
    const int64_t bytes = std::min(sourceBytes, roomBytes);
    if (bytes <= 0) return;
    const int64_t rows = std::min<int64_t>(from.height, to.height - top);

    const bool contiguous = dynamic_cast<const TellarImaging::MemoryPixelAccessor*>(&from) != nullptr;
    for (int64_t r = skipRows; r < rows; ++r) {
        uint8_t* destination = to.GetPixel(static_cast<int32_t>(firstColumn), static_cast<int32_t>(top + r));
        if (!destination) continue;
        if (contiguous) {
            const uint8_t* source = tile.accessor->GetPixel(static_cast<int32_t>(skipColumns), static_cast<int32_t>(r));
            if (source) std::memcpy(destination, source, static_cast<size_t>(bytes));
            continue;
        }
        // A tiled source: its rows are not contiguous, so go pixel by pixel.
        const int64_t pixels = bytes / std::max(from.pixelSize, 1);
        for (int64_t c = 0; c < pixels; ++c) {
            const uint8_t* source =
                tile.accessor->GetPixel(static_cast<int32_t>(skipColumns + c), static_cast<int32_t>(r));
            if (source) std::memcpy(destination + c * from.pixelSize, source, static_cast<size_t>(from.pixelSize));
        }
    }
}

// Decodes the tiles on a few threads, a batch at a time, and pastes them in list order, so later
// tiles still overwrite earlier ones. A tile that `fits` (no larger than its grid cell, the only
// tile of the list there) cannot overlap any other, so the thread that decoded it pastes it at once; from the first tile of a batch
// that does not fit, the calling thread pastes that one and every later tile of the batch again,
// in order. A tile that fails to decode stops the pasting at its turn with its own failure, as a
// one-by-one loop would (what helpers pasted after it goes with the discarded picture). `first`
// is the first tile, already decoded.
template <class Fits, class Paste>
void DecodeInBatches(const std::vector<Core::Ptr<Tellar::Interfaces::ITileResponse>>& responses,
                     const ImageBase& first, Fits&& fits, Paste&& paste) {
    const size_t count = responses.size();
    const size_t threads =
        std::clamp<size_t>(count / TilesPerThread, 1, std::max(1u, std::thread::hardware_concurrency()));
    const size_t batch = threads * TilesPerThread;

    std::vector<ImageBase> decoded(std::min(batch, count));
    std::vector<std::exception_ptr> failures(decoded.size());
    std::vector<char> pasted(decoded.size());
    for (size_t start = 0; start < count; start += batch) {
        const size_t end = std::min(start + batch, count);
        std::atomic<size_t> next{start};
        const auto work = [&] {
            for (size_t i = next++; i < end; i = next++) {
                const size_t slot = i - start;
                pasted[slot] = false;
                try {
                    decoded[slot] = i == 0 ? first : TellarImaging::CreateImageBase(DecodeTile(*responses[i]).Raw());
                    if (fits(i, decoded[slot])) {
                        paste(i, decoded[slot]);
                        pasted[slot] = true;
                    }
                } catch (...) {
                    failures[slot] = std::current_exception();
                }
            }
        };
        std::vector<std::thread> workers;
        for (size_t t = 1; t < threads && start + t < end; ++t) workers.emplace_back(work);
        work();
        for (std::thread& worker : workers) worker.join();

        bool inOrder = false;
        for (size_t i = start; i < end; ++i) {
            const size_t slot = i - start;
            if (failures[slot]) std::rethrow_exception(failures[slot]);
            inOrder = inOrder || !pasted[slot];
            if (inOrder) paste(i, decoded[slot]);
        }
        for (ImageBase& tile : decoded) tile = {};
    }
}

// Bounds first taken from above, then from below, so an image of no pixels clamps to 0; NaN
// also reads 0.
double Clamp(double value, double low, double high) {
    if (std::isnan(value)) return low;
    return std::max(low, std::min(value, high));
}

} // namespace

namespace {

// The rectangle of a `width` x `height` image with `transform` that `box` covers, as the crop
// takes it: corners through WorldToPixel, clamped to the image, truncated.
struct Window {
    int32_t x = 0, y = 0, width = 0, height = 0;
};

Window CropWindow(ITransform& transform, double w, double h, const MapServices::BoundingBoxValue& box) {
    double px0 = 0, py0 = 0, px1 = 0, py1 = 0;
    transform.WorldToPixel(box.minX, box.minY, 0.0, &px0, &py0, nullptr);
    transform.WorldToPixel(box.maxX, box.maxY, 0.0, &px1, &py1, nullptr);
    const double x = Clamp(px0, 0.0, w - 1);
    const double y = Clamp(py1, 0.0, h - 1);
    const double width = Clamp(Clamp(px1, 0.0, w) - x, 0.0, w);
    const double height = Clamp(Clamp(py0, 0.0, h) - y, 0.0, h);
    return {static_cast<int32_t>(x), static_cast<int32_t>(y), static_cast<int32_t>(width),
            static_cast<int32_t>(height)};
}

// The mosaic, or with `box` only the part of it the crop to that box would keep: the tiles are
// pasted straight into the smaller picture, which is placed where the crop would place it, so
// the whole picture is never held. A mosaic without a transform cannot be cut before it is
// whole; `*cropped` tells whether it was.
Core::Ptr<ITiffImage> Compose(const MapServices::TileRange& range,
                              const std::vector<Core::Ptr<Tellar::Interfaces::ITileResponse>>& responses,
                              uint32_t epsgCode, int32_t zoom, const MapServices::BoundingBoxValue* box,
                              bool* cropped) {
    Tellar::Interfaces::ITileResponse& first = *Core::At(responses, 0);
    const ImageBase firstImage = TellarImaging::ToTiffImageBase(DecodeTile(first).Raw());
    const int32_t scale = firstImage.image->GetWidth() / 256;

    Core::Ptr<ITransform> transform;
    if (epsgCode == 3857 && scale > 0) {
        // Web-Mercator metres of the range's north-west corner: 2^zoom tiles span 2πR from -πR.
        const double world = 2.0 * std::numbers::pi * WebMercatorRadius;
        const double tiles = std::pow(2.0, zoom);
        const double pixel = world / tiles / (256.0 * scale);
        const double west = static_cast<double>(range.minX) / tiles * world - world / 2;
        const double north = world / 2 - static_cast<double>(range.minY) / tiles * world;
        Core::Ptr<Core::IErrorCode> error;
        if (!CreateTransformFromParams(pixel, -pixel, west, north, 0.0, 0.0, transform.ReceiveAddress(),
                                       error.ReceiveAddress()))
            Core::ThrowIfError(error);
    } else {
        Core::Ptr<Core::IErrorCode> error;
        if (!first.GetTransform(transform.ReceiveAddress(), error.ReceiveAddress())) Core::ThrowIfError(error);
    }
    const int32_t pixelDataType = dynamic_cast<ITiffImage&>(*firstImage.image).GetPixelDataType();

    const auto columns = static_cast<int32_t>(range.maxX - range.minX + 1);
    const auto rows = static_cast<int32_t>(range.maxY - range.minY + 1);
    Window window{0, 0, columns * scale * 256, rows * scale * 256};
    *cropped = box && transform.Raw();
    if (*cropped) window = CropWindow(*transform, window.width, window.height, *box);
    const ImageBase result = TellarImaging::CreateImageBase(window.width, window.height, pixelDataType);

    const int64_t step = static_cast<int64_t>(scale) * 256;
    // Which tiles are the only ones of the list in their grid cell.
    std::vector<char> alone(responses.size(), 1);
    {
        std::vector<std::pair<std::pair<int64_t, int64_t>, size_t>> cells;
        cells.reserve(responses.size());
        for (size_t i = 0; i < responses.size(); ++i) cells.push_back({{responses[i]->GetX(), responses[i]->GetY()}, i});
        std::sort(cells.begin(), cells.end());
        for (size_t i = 1; i < cells.size(); ++i)
            if (cells[i].first == cells[i - 1].first) alone[cells[i].second] = alone[cells[i - 1].second] = 0;
    }
    const auto fits = [&](size_t index, const ImageBase& tile) {
        return alone[index] && tile.accessor && tile.accessor->width <= step && tile.accessor->height <= step;
    };
    DecodeInBatches(responses, firstImage, fits, [&](size_t index, const ImageBase& tile) {
        const int64_t left = (responses[index]->GetX() - range.minX) * step - window.x;
        const int64_t top = (responses[index]->GetY() - range.minY) * step - window.y;
        PasteTile(tile, result, left, top);
    });

    if (window.x != 0 || window.y != 0) {
        // The crop's origin: the pixel corner (x, y) of the whole picture, the rest unchanged.
        double sx = 0, sy = 0, ox = 0, oy = 0, kx = 0, ky = 0;
        transform->GetParams(&sx, &sy, &ox, &oy, &kx, &ky);
        transform->PixelToWorld(window.x, window.y, &ox, &oy, nullptr);
        Core::Ptr<ITransform> shifted;
        Core::Ptr<Core::IErrorCode> error;
        if (!CreateTransformFromParams(sx, sy, ox, oy, kx, ky, shifted.ReceiveAddress(), error.ReceiveAddress()))
            Core::ThrowIfError(error);
        transform = shifted;
    }
    auto& mosaic = dynamic_cast<ITiffImage&>(*result.image);
    mosaic.SetEpsgCode(epsgCode);
    mosaic.SetTransform(transform.Raw());
    return Core::Ptr<ITiffImage>(&mosaic);
}

} // namespace

Core::Ptr<ITiffImage> ComposeMosaic(const MapServices::TileRange& range,
                                    const std::vector<Core::Ptr<Tellar::Interfaces::ITileResponse>>& responses,
                                    uint32_t epsgCode, int32_t zoom) {
    bool cropped = false;
    return Compose(range, responses, epsgCode, zoom, nullptr, &cropped);
}

Core::Ptr<IImage> ComposeMosaicOfBox(const MapServices::TileRange& range,
                                     const std::vector<Core::Ptr<Tellar::Interfaces::ITileResponse>>& responses,
                                     uint32_t epsgCode, int32_t zoom, const MapServices::BoundingBoxValue& box) {
    bool cropped = false;
    Core::Ptr<ITiffImage> mosaic = Compose(range, responses, epsgCode, zoom, &box, &cropped);
    if (cropped) return mosaic;
    return CropToBox(mosaic.Raw(), box);
}

Core::Ptr<IImage> CropToBox(IImage* image, const MapServices::BoundingBoxValue& box) {
    const ImageBase source = TellarImaging::CreateImageBase(image);
    auto* tiff = dynamic_cast<ITiffImage*>(image);
    Core::Ptr<ITransform> transform;
    if (tiff) {
        Core::Ptr<Core::IErrorCode> error;
        if (!tiff->GetTransform(transform.ReceiveAddress(), error.ReceiveAddress())) Core::ThrowIfError(error);
    }
    Core::CheckedPtr<ITransform> checked(transform);
    const Window window = CropWindow(*checked, image->GetWidth(), image->GetHeight(), box);
    return TellarImaging::CropImageBase(source, window.x, window.y, window.width, window.height).image;
}

} // namespace Tellar::Spatial::Maps::impl
