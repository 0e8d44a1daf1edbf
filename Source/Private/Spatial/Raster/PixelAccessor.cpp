#include "Private/Spatial/Raster/PixelAccessor.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace TellarImaging {
namespace {

IImage* RequireImage(IImage* image) {
    if (!image) throw std::runtime_error("Invalid interface");
    return image;
}

IImage* RequireTiledImage(ITiledTiffImage* image) {
    if (!image) throw std::runtime_error("Invalid interface");
    return Core::Ptr<ITiledTiffImage>(image).Cast<IImage>();
}

} // namespace

PixelAccessor::PixelAccessor(IImage* image, uint32_t maxValueBytes) {
    RequireImage(image);
    width = image->GetWidth();
    height = image->GetHeight();
    bitsPerSample = image->GetBitsPerSample();
    samplesPerPixel = image->GetSamplesPerPixel();
    bytesPerSample = bitsPerSample / 8;
    pixelSize = samplesPerPixel * bytesPerSample;
    rowSize = pixelSize * width;
    pixelStride = static_cast<uint64_t>(pixelSize);
    valueBytes = std::min<uint64_t>(maxValueBytes, static_cast<uint64_t>(pixelSize));
    lowMask = ~uint64_t{0} >> ((64 - 8 * valueBytes) % 64);
    highMask = ~uint64_t{0} << ((8 * valueBytes) % 64);
}

MemoryPixelAccessor::MemoryPixelAccessor(IImage* image, uint32_t maxValueBytes)
    : PixelAccessor(RequireImage(image), maxValueBytes) {
    data = static_cast<uint8_t*>(image->GetPixelPointer(0, 0));
}

uint8_t* MemoryPixelAccessor::GetPixelAt(int64_t index) { return data + pixelSize * index; }

uint8_t* MemoryPixelAccessor::GetPixel(int32_t x, int32_t y) {
    // Wraps like the 32-bit sum it stands for.
    const auto offset = static_cast<int32_t>(static_cast<uint32_t>(y) * static_cast<uint32_t>(rowSize) +
                                             static_cast<uint32_t>(x) * static_cast<uint32_t>(pixelSize));
    return data + offset;
}

uint64_t MemoryPixelAccessor::ByteCount() const {
    return static_cast<uint64_t>(bytesPerSample) * static_cast<uint64_t>(samplesPerPixel) *
           static_cast<uint64_t>(height) * static_cast<uint64_t>(width);
}

std::vector<uint8_t> MemoryPixelAccessor::GetBytes() {
    const uint64_t size = ByteCount();
    std::vector<uint8_t> bytes(size);
    if (size) std::memcpy(bytes.data(), data, size);
    return bytes;
}

void MemoryPixelAccessor::SetBytes(const uint8_t* source, uint64_t size) {
    if (size != ByteCount()) throw std::runtime_error("Invalid size!");
    if (size) std::memcpy(data, source, size);
}

TilePixelAccessor::TilePixelAccessor(ITiledTiffImage* image, uint32_t maxValueBytes)
    : PixelAccessor(RequireTiledImage(image), maxValueBytes), tiledImage(image) {
    ReadTileLayout();
    tiledHeight = image->GetHeight();
    tiledWidth = image->GetWidth();
}

void TilePixelAccessor::ReadTileLayout() {
    tileRowBytes = tiledImage->GetTileRowBytes();
    tileRows = tiledImage->GetTileByteCount();
    tilePixelsAcross =
        static_cast<int64_t>(static_cast<double>(tileRowBytes) / (bitsPerSample * 0.125 * samplesPerPixel));
    tileRowsDown = tileRows / tileRowBytes;
}

void TilePixelAccessor::LoadTile(int32_t x, int32_t y) {
    const auto column = static_cast<int32_t>(x / tilePixelsAcross);
    const auto row = static_cast<int32_t>(y / tileRowsDown);
    if (currentTile.Raw() && column == currentColumn && row == currentRow) return;
    currentTile.Reset();
    data = nullptr;
    if (tiledImage->GetTile(column, row, currentTile.ReceiveAddress(), nullptr)) {
        currentColumn = column;
        currentRow = row;
    }
    if (currentTile.Raw()) {
        ReadTileLayout();
        data = static_cast<uint8_t*>(currentTile->GetPixelPointer(0, 0));
    }
}

uint8_t* TilePixelAccessor::GetPixel(int32_t x, int32_t y) {
    LoadTile(x, y);
    if (!data) return nullptr;
    return data + (x % tilePixelsAcross) * pixelSize + (y % tileRowsDown) * tileRowBytes;
}

uint8_t* TilePixelAccessor::GetPixelAt(int64_t index) {
    return GetPixel(static_cast<int32_t>(index % width), static_cast<int32_t>(index / width));
}

std::vector<uint8_t> TilePixelAccessor::GetBytes() { throw std::runtime_error("Not implemented."); }

void TilePixelAccessor::SetBytes(const uint8_t*, uint64_t) { throw std::runtime_error("Not implemented."); }

} // namespace TellarImaging
