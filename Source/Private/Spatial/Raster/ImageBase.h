#pragma once
#include <cstdint>
#include <memory>

#include "Core/Ptr.h"
#include "Private/Spatial/Raster/PixelAccessor.h"
#include "TellarImaging/IImage.h"

namespace TellarImaging {

// An image with the accessor to its pixels. Copies share both.
struct ImageBase {
    Core::Ptr<IImage> image;
    std::shared_ptr<PixelAccessor> accessor;
};

// Wraps an image: tile by tile for a tiled TIFF image, else through its pixel buffer.
ImageBase CreateImageBase(IImage* image);
// A new zero-filled TIFF image of a pixel data type, marked with sample kind 2.
ImageBase CreateImageBase(int32_t width, int32_t height, int32_t pixelDataType);
// The image as a TIFF image (converted when it isn't one); float data is marked sample kind 3.
ImageBase ToTiffImageBase(IImage* image);
// A copy of a rectangle of `source`, marked with sample kind 2.
ImageBase CropImageBase(const ImageBase& source, int32_t x, int32_t y, int32_t width, int32_t height);

} // namespace TellarImaging
