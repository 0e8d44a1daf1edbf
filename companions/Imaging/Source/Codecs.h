#pragma once
// The decoders and encoders. Each throws std::runtime_error with a readable text on a corrupt,
// truncated or unsupported input; none leaks on the way out.
#include <cstddef>
#include <cstdint>
#include <string>

#include "Core/Ptr.h"
#include "Raster.h"
#include "TellarImaging/IImage.h"

namespace TellarImaging::impl {

// RGBA, 8 bits per sample.
Raster DecodePng(const uint8_t* data, size_t size);
Raster DecodeJpeg(const uint8_t* data, size_t size);
Raster DecodeWebp(const uint8_t* data, size_t size);

// The first image of a TIFF file in its own layout, with georeference and tiling.
Core::Ptr<ITiffImage2> DecodeTiff(const uint8_t* data, size_t size);

// The encoders write to `path` and name the file `name` in their messages.
// 8 bits per sample, 1 to 4 samples.
void EncodePng(IImage* image, const std::string& path, const std::string& name);
// GeoTIFF keys when the image is a TIFF image with a transform or an EPSG code.
void EncodeTiff(IImage* image, const std::string& path, const std::string& name, bool compress = true);

} // namespace TellarImaging::impl
