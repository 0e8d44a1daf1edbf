#include "Raster.h"

#include <sys/mman.h>

#include <algorithm>
#include <stdexcept>

#include <fmt/format.h>

namespace TellarImaging::impl {

namespace {

// Blocks from this size on are mapped on their own: they come zero-filled by the kernel, page by
// page as they are first written, and go back to the system when freed. They are not asked for
// in huge pages: on a virtual machine whose host backs memory as it is first touched, faulting in
// 2 MiB at a time made a 256 MiB mosaic twice as costly in the kernel.
constexpr size_t MappedBytes = size_t(8) << 20;

} // namespace

PixelBuffer::PixelBuffer(size_t size) : size_(size) {
    if (size == 0) return;
    if (size >= MappedBytes) {
        void* block = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (block == MAP_FAILED) throw std::bad_alloc();
        bytes_ = static_cast<uint8_t*>(block);
        return;
    }
    bytes_ = static_cast<uint8_t*>(std::calloc(size, 1));
    if (!bytes_) throw std::bad_alloc();
}

void PixelBuffer::Release() noexcept {
    if (!bytes_) return;
    if (size_ >= MappedBytes) ::munmap(bytes_, size_);
    else std::free(bytes_);
    bytes_ = nullptr;
    size_ = 0;
}

Raster::Raster(int64_t w, int64_t h, int32_t spp, int32_t bps) {
    if (w < 0 || h < 0 || w > INT32_MAX || h > INT32_MAX)
        throw std::runtime_error(fmt::format("Invalid image size {}x{}", w, h));
    if (spp < 1 || bps < 8 || bps % 8 != 0)
        throw std::runtime_error(fmt::format("Invalid pixel layout: {} samples of {} bits", spp, bps));
    // Both sides fit in 31 bits and a pixel in 59, so the product can pass 64 bits: a size that
    // wraps around to a small number must not pass as small.
    uint64_t bytes = 0;
    if (__builtin_mul_overflow(uint64_t(w), uint64_t(h), &bytes) ||
        __builtin_mul_overflow(bytes, uint64_t(spp) * uint64_t(bps / 8), &bytes) || bytes > MaxRasterBytes)
        throw std::runtime_error(fmt::format("Image of {}x{} pixels is too large", w, h));
    width = int32_t(w);
    height = int32_t(h);
    samplesPerPixel = spp;
    bitsPerSample = bps;
    data = PixelBuffer(size_t(bytes));
}

void CheckDecodedSize(uint64_t width, uint64_t height) {
    // Each side of a decoded image fits in 32 bits, so the product does not wrap.
    if (width * height > MaxDecodedPixels)
        throw std::runtime_error(fmt::format("Image too large: {} x {} pixels", width, height));
}

Raster Raster::Copy(int32_t x, int32_t y, int32_t w, int32_t h) const {
    Raster result(w, h, samplesPerPixel, bitsPerSample);
    const int32_t x0 = std::max(x, 0), y0 = std::max(y, 0);
    const int32_t x1 = std::min<int64_t>(int64_t(x) + w, width), y1 = std::min<int64_t>(int64_t(y) + h, height);
    if (x0 >= x1 || y0 >= y1) return result;
    const size_t bytes = size_t(x1 - x0) * PixelBytes();
    for (int32_t row = y0; row < y1; ++row)
        std::memcpy(result.Row(row - y) + size_t(x0 - x) * PixelBytes(), Row(row) + size_t(x0) * PixelBytes(), bytes);
    return result;
}

namespace {
struct Named {
    PixelDataType type;
    int32_t samples, bits;
    bool isFloat;
};
constexpr Named NamedTypes[] = {
    {PixelDataTypeGray8, 1, 8, false},       {PixelDataTypeGray16, 1, 16, false},
    {PixelDataTypeFloat32, 1, 32, true},     {PixelDataTypeRgb24, 3, 8, false},
    {PixelDataTypeRgba32, 4, 8, false},      {PixelDataTypeGrayAlpha16, 2, 8, false},
    {PixelDataTypeRgb48, 3, 16, false},      {PixelDataTypeRgba64, 4, 16, false},
    {PixelDataTypeGrayAlpha32, 2, 16, false}, {PixelDataTypeFloat64, 1, 64, true},
    {PixelDataTypeFloat32x2, 2, 32, true},   {PixelDataTypeFloat32x3, 3, 32, true},
    {PixelDataTypeFloat32x4, 4, 32, true},   {PixelDataTypeFloat64x2, 2, 64, true},
    {PixelDataTypeFloat64x3, 3, 64, true},   {PixelDataTypeFloat64x4, 4, 64, true},
};
} // namespace

PixelDataType PixelDataTypeOf(int32_t samplesPerPixel, int32_t bitsPerSample, bool isFloat) {
    for (const Named& n : NamedTypes)
        if (n.samples == samplesPerPixel && n.bits == bitsPerSample && n.isFloat == isFloat) return n.type;
    return PixelDataTypeUnknown;
}

bool LayoutOf(int32_t pixelDataType, int32_t* samplesPerPixel, int32_t* bitsPerSample, bool* isFloat) {
    for (const Named& n : NamedTypes) {
        if (n.type != pixelDataType) continue;
        *samplesPerPixel = n.samples;
        *bitsPerSample = n.bits;
        *isFloat = n.isFloat;
        return true;
    }
    return false;
}

void CheckLayout(int32_t sampleKind, int32_t samplesPerPixel, int32_t bitsPerSample) {
    const bool integer = (sampleKind == SampleKindUnsigned || sampleKind == SampleKindSigned) &&
                         (bitsPerSample == 8 || bitsPerSample == 16);
    const bool floating = sampleKind == SampleKindFloat && (bitsPerSample == 32 || bitsPerSample == 64);
    if (samplesPerPixel < 1 || samplesPerPixel > 4 || !(integer || floating))
        throw std::runtime_error(fmt::format("Unsupported pixel layout: {} samples of {} bits, sample kind {}",
                                             samplesPerPixel, bitsPerSample, sampleKind));
}

} // namespace TellarImaging::impl
