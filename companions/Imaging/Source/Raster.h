#pragma once
// The pixel store behind every image, and the helpers shared by the codecs.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "TellarImaging/IImage.h"

namespace TellarImaging::impl {

// Decoded images larger than this are refused: a corrupt header must not ask for the moon.
inline constexpr uint64_t MaxRasterBytes = uint64_t(1) << 32;

// The most pixels a decoder takes (16384 x 16384; a map tile has 65536). A header that asks for
// more is refused by CheckDecodedSize, with "Image too large: {width} x {height} pixels", before
// anything is allocated for its pixels: a few bytes of a compressed file can claim gigabytes.
inline constexpr uint64_t MaxDecodedPixels = uint64_t(1) << 28;
void CheckDecodedSize(uint64_t width, uint64_t height);

// Zero-filled pixel bytes. A large block is mapped straight from the kernel, asked for in huge
// pages where the kernel offers them: it comes zero without a pass over it, so a picture that is
// written over anyway (decoding, pasting) costs no extra fill, and a mosaic of hundreds of
// megabytes takes hundreds of page faults instead of tens of thousands. Small ones come from calloc.
class PixelBuffer {
public:
    PixelBuffer() = default;
    explicit PixelBuffer(size_t size);
    PixelBuffer(PixelBuffer&& other) noexcept
        : bytes_(std::exchange(other.bytes_, nullptr)), size_(std::exchange(other.size_, 0)) {}
    PixelBuffer& operator=(PixelBuffer&& other) noexcept {
        if (this != &other) {
            Release();
            bytes_ = std::exchange(other.bytes_, nullptr);
            size_ = std::exchange(other.size_, 0);
        }
        return *this;
    }
    PixelBuffer(const PixelBuffer&) = delete;
    PixelBuffer& operator=(const PixelBuffer&) = delete;
    ~PixelBuffer() { Release(); }

    uint8_t* data() { return bytes_; }
    const uint8_t* data() const { return bytes_; }
    size_t size() const { return size_; }

private:
    void Release() noexcept;

    uint8_t* bytes_ = nullptr;
    size_t size_ = 0;
};

struct Raster {
    int32_t width = 0;
    int32_t height = 0;
    int32_t samplesPerPixel = 0;
    int32_t bitsPerSample = 0;
    PixelBuffer data; // packed rows, zero-filled on allocation

    Raster() = default;
    // Checks the size and allocates; throws for a size out of range.
    Raster(int64_t width, int64_t height, int32_t samplesPerPixel, int32_t bitsPerSample);

    size_t PixelBytes() const { return size_t(samplesPerPixel) * size_t(bitsPerSample / 8); }
    size_t RowBytes() const { return PixelBytes() * size_t(width); }
    uint8_t* Row(int32_t y) { return data.data() + size_t(y) * RowBytes(); }
    const uint8_t* Row(int32_t y) const { return data.data() + size_t(y) * RowBytes(); }

    // The rectangle (x, y, w, h), clipped to the raster, copied to the top left of a new raster
    // of size (w, h).
    Raster Copy(int32_t x, int32_t y, int32_t w, int32_t h) const;
};

// The named pixel data type of a layout, or PixelDataTypeUnknown.
PixelDataType PixelDataTypeOf(int32_t samplesPerPixel, int32_t bitsPerSample, bool isFloat);

// Samples, bits and float flag of a named type; false for an unknown type.
bool LayoutOf(int32_t pixelDataType, int32_t* samplesPerPixel, int32_t* bitsPerSample, bool* isFloat);

// Throws unless the layout is one the library keeps: 1 to 4 samples, integers of 8 or 16 bits
// (kind 1 or 2), floats of 32 or 64 bits (kind 3).
void CheckLayout(int32_t sampleKind, int32_t samplesPerPixel, int32_t bitsPerSample);

// Georeference and descriptive fields read from or written to a TIFF file.
struct TiffMetadata {
    int32_t sampleKind = SampleKindUnsigned;
    std::optional<std::vector<double>> transform; // scaleX, scaleY, originX, originY, skewX, skewY
    uint32_t epsgCode = 0;
    std::string description;
    int32_t tileWidth = 0; // 0 for a file in strips
    int32_t tileHeight = 0;
};

} // namespace TellarImaging::impl
