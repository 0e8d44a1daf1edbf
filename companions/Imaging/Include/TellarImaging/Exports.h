#pragma once
// Entry points of libTellarImaging.so, under the boundary convention: true on success, one
// owned reference in the result, failures as an error object in the last parameter.
#include <cstdint>

#include "Core/ErrorCode.h"
#include "Core/Export.h"
#include "TellarImaging/IImage.h"
#include "TellarImaging/ITransform.h"

namespace TellarImaging {
enum ImageFileFormat : int32_t {
    ImageFileFormatPng = 1,  // 8 bits per sample, 1 to 4 samples
    ImageFileFormatTiff = 2, // any image; GeoTIFF keys when it has a transform or an EPSG code
    // As ImageFileFormatTiff with the strips stored as they are, as GDAL writes by default: a
    // larger file, written at the speed of the disk instead of the compressor's.
    ImageFileFormatTiffUncompressed = 3,
};
} // namespace TellarImaging

// Decodes PNG, JPEG, WebP or TIFF. PNG, JPEG and WebP give a plain image in RGBA with 8 bits
// per sample; TIFF gives an ITiffImage2 (an ITiledTiffImage for a tiled file) in its own
// sample layout, with its georeference. No bytes (`size` 0, `data` null or not) fail with
// "Empty image data: 0 bytes".
TELLAR_API bool CreateImageFromMemoryStream(const void* data, uint64_t size, TellarImaging::IImage** ppImage,
                                            Core::IErrorCode** ppError);
// The same from a file.
TELLAR_API bool OpenImageA(const char* path, TellarImaging::IImage** ppImage, Core::IErrorCode** ppError);
// A TIFF image of the same pixels; a TIFF image comes back as itself.
TELLAR_API bool ConvertImageToTiffImage(TellarImaging::IImage* image, TellarImaging::ITiffImage** ppTiff,
                                        Core::IErrorCode** ppError);
// A zero-filled TIFF image of a named pixel data type; sample kind 3 for float types, else 1.
TELLAR_API bool CreateTiffImage(int32_t width, int32_t height, int32_t pixelDataType,
                                TellarImaging::ITiffImage** ppTiff, Core::IErrorCode** ppError);
// A zero-filled TIFF image of any layout: sample kind 1 or 2 with 8 or 16 bits, 3 with 32 or
// 64 bits; 1 to 4 samples.
TELLAR_API bool TellarImaging_CreateMultiChannelTiffImage(int32_t width, int32_t height, int32_t sampleKind,
                                                          int32_t samplesPerPixel, int32_t bitsPerSample,
                                                          TellarImaging::IImage** ppImage, Core::IErrorCode** ppError);
// The affine transform of ITransform; fails when it can't be inverted.
TELLAR_API bool CreateTransformFromParams(double scaleX, double scaleY, double originX, double originY, double skewX,
                                          double skewY, TellarImaging::ITransform** ppTransform,
                                          Core::IErrorCode** ppError);
// Writes the image to a file, replacing it: a regular file through a temporary file beside it,
// renamed into place once complete, so a failed save leaves it untouched; a device or a pipe in
// place.
TELLAR_API bool TellarImaging_SaveImage(TellarImaging::IImage* image, const char* path, int32_t format,
                                        Core::IErrorCode** ppError);
