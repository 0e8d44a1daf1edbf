#pragma once
#include <cstdint>
#include <vector>

#include "Core/Ptr.h"
#include "TellarImaging/IImage.h"

namespace TellarImaging {

// Addresses of the pixels of one image. The layout is read once from the image at
// construction; the accessor borrows the image, whose owner keeps it alive.
class PixelAccessor {
public:
    PixelAccessor(IImage* image, uint32_t maxValueBytes);
    virtual ~PixelAccessor() = default;
    PixelAccessor(const PixelAccessor&) = delete;
    PixelAccessor& operator=(const PixelAccessor&) = delete;

    // Pixel number `index`, counted row by row.
    virtual uint8_t* GetPixelAt(int64_t index) = 0;
    virtual uint8_t* GetPixel(int32_t x, int32_t y) = 0;
    // A copy of all pixel bytes, and its reverse.
    virtual std::vector<uint8_t> GetBytes() = 0;
    virtual void SetBytes(const uint8_t* data, uint64_t size) = 0;

    int32_t width = 0;
    int32_t height = 0;
    int32_t bitsPerSample = 0;
    int32_t samplesPerPixel = 0;
    int32_t rowSize = 0;
    int32_t pixelSize = 0;
    int32_t bytesPerSample = 0;
    uint64_t pixelStride = 0;
    // Bytes of a pixel that fit a 32-bit value, and the masks that keep and clear them.
    uint64_t valueBytes = 0;
    uint64_t lowMask = 0;
    uint64_t highMask = 0;
};

// Pixels of an image held in one packed buffer.
class MemoryPixelAccessor : public PixelAccessor {
public:
    MemoryPixelAccessor(IImage* image, uint32_t maxValueBytes);

    uint8_t* GetPixelAt(int64_t index) override;
    // The offset is taken in 32 bits, as the layout fields are.
    uint8_t* GetPixel(int32_t x, int32_t y) override;
    std::vector<uint8_t> GetBytes() override;
    void SetBytes(const uint8_t* data, uint64_t size) override;

    uint8_t* data = nullptr;

private:
    uint64_t ByteCount() const;
};

// Pixels of a tiled TIFF image, read tile by tile; the last tile used is kept. Not for use by
// several threads at once.
class TilePixelAccessor : public PixelAccessor {
public:
    TilePixelAccessor(ITiledTiffImage* image, uint32_t maxValueBytes);

    uint8_t* GetPixelAt(int64_t index) override;
    // Null when the tile of (x, y) can't be had.
    uint8_t* GetPixel(int32_t x, int32_t y) override;
    std::vector<uint8_t> GetBytes() override;         // throws "Not implemented."
    void SetBytes(const uint8_t*, uint64_t) override; // throws "Not implemented."

    // Makes the tile of pixel (x, y) the current one.
    void LoadTile(int32_t x, int32_t y);

    Core::Ptr<ITiledTiffImage> tiledImage;
    Core::Ptr<IImage> currentTile;
    int32_t currentColumn = -1;
    int32_t currentRow = -1;
    int64_t tileRowBytes = 0;
    int64_t tileRows = 0; // bytes of one tile
    int64_t tilePixelsAcross = 0;
    int64_t tileRowsDown = 0;
    int32_t tiledHeight = 0;
    int32_t tiledWidth = 0;
    uint8_t* data = nullptr;

private:
    void ReadTileLayout();
};

} // namespace TellarImaging
