#pragma once
#include <cstdint>

#include "Core/ErrorCode.h"
#include "TellarImaging/ITransform.h"

namespace TellarImaging {

// Layout of a pixel: samples, bits and whether they are floating point. Whether integer
// samples are signed is the sample kind of a TIFF image.
enum PixelDataType : int32_t {
    PixelDataTypeUnknown = 0,
    PixelDataTypeGray8 = 1,          // 1 × 8 bits
    PixelDataTypeGray16 = 2,         // 1 × 16 bits
    PixelDataTypeFloat32 = 3,        // 1 × 32-bit float
    PixelDataTypeRgb24 = 4,          // 3 × 8 bits
    PixelDataTypeRgba32 = 5,         // 4 × 8 bits: what PNG, JPEG and WebP decode to
    PixelDataTypeGrayAlpha16 = 6,    // 2 × 8 bits
    PixelDataTypeRgb48 = 7,          // 3 × 16 bits
    PixelDataTypeRgba64 = 8,         // 4 × 16 bits
    PixelDataTypeGrayAlpha32 = 9,    // 2 × 16 bits
    PixelDataTypeFloat64 = 10,       // 1 × 64-bit float
    PixelDataTypeFloat32x2 = 11,
    PixelDataTypeFloat32x3 = 12,
    PixelDataTypeFloat32x4 = 13,
    PixelDataTypeFloat64x2 = 14,
    PixelDataTypeFloat64x3 = 15,
    PixelDataTypeFloat64x4 = 16,
};

// How a sample is read, as TIFF's SampleFormat: unsigned integer, signed integer, float.
enum SampleKind : int32_t {
    SampleKindUnsigned = 1,
    SampleKindSigned = 2,
    SampleKindFloat = 3,
};

// A raster in memory: rows top to bottom, pixels packed without padding (a row is
// width · samples · bits / 8 bytes), samples interleaved, in the machine's byte order.
// Reading from several threads at once is safe; writes to disjoint pixels too.
struct IImage : Core::IObject {
    virtual int32_t GetWidth() const noexcept = 0;
    virtual int32_t GetHeight() const noexcept = 0;
    virtual int32_t GetBitsPerSample() const noexcept = 0;
    virtual int32_t GetSamplesPerPixel() const noexcept = 0;
    // Address of pixel (x, y); null outside the image.
    virtual void* GetPixelPointer(int32_t x, int32_t y) noexcept = 0;
    // A copy of a rectangle, which must lie inside the image. A TIFF image gives a TIFF image
    // with its properties and a transform moved to the rectangle's corner.
    virtual bool CreateSubImage(int32_t x, int32_t y, int32_t width, int32_t height, IImage** ppResult,
                                Core::IErrorCode** ppError) noexcept = 0;
};

// An image with the properties a TIFF file carries.
struct ITiffImage : IImage {
    virtual int32_t GetSampleKind() const noexcept = 0;
    virtual void SetSampleKind(int32_t kind) noexcept = 0;
    virtual int32_t GetPixelDataType() const noexcept = 0;
    // A free int for the host; -1 when none was set.
    virtual int32_t GetIntProperty() const noexcept = 0;
    virtual void SetIntProperty(int32_t value) noexcept = 0;
    // A list of ints for the host; setting an index past the end extends the list with zeros.
    virtual uint32_t GetListCount() const noexcept = 0;
    virtual int32_t GetListValue(uint32_t index) const noexcept = 0; // 0 past the end
    virtual void SetListValue(uint32_t index, int32_t value) noexcept = 0;
    // The georeference; the result is null (and true) when the image has none.
    virtual bool GetTransform(ITransform** ppTransform, Core::IErrorCode** ppError) noexcept = 0;
    virtual void SetTransform(ITransform* transform) noexcept = 0; // null removes it
    // EPSG code of the image's CRS, 0 when unknown.
    virtual uint32_t GetEpsgCode() const noexcept = 0;
    virtual void SetEpsgCode(uint32_t epsgCode) noexcept = 0;
};

struct ITiffImage2 : ITiffImage {
    // The description of the image (TIFF's ImageDescription); empty when none. The string
    // belongs to the image and lives until the next SetTextProperty.
    virtual const char* GetTextProperty() const noexcept = 0;
    virtual void SetTextProperty(const char* text) noexcept = 0; // null clears it
    // Objects the host attaches to the image by key; a missing key gives null and true.
    virtual bool GetObjectProperty(Core::IObject** ppObject, uint32_t key, Core::IErrorCode** ppError) noexcept = 0;
    virtual bool SetObjectProperty(Core::IObject* object, uint32_t key, Core::IErrorCode** ppError) noexcept = 0;
};

// A TIFF image stored in tiles. All its pixels are in memory as well; a tile is a copy of one
// tile rectangle, the tiles at the right and bottom edges padded with zeros.
struct ITiledTiffImage : ITiffImage2 {
    virtual int32_t GetTileWidth() const noexcept = 0;
    virtual int32_t GetTileHeight() const noexcept = 0;
    virtual int64_t GetTileRowBytes() const noexcept = 0;  // bytes of one row of a tile
    virtual int64_t GetTileByteCount() const noexcept = 0; // bytes of one tile
    virtual int32_t GetTilesAcross() const noexcept = 0;
    virtual int32_t GetTilesDown() const noexcept = 0;
    virtual bool GetTile(int32_t column, int32_t row, IImage** ppTile, Core::IErrorCode** ppError) noexcept = 0;
};

} // namespace TellarImaging
