#include <stdexcept>

#include <webp/decode.h>

#include "Codecs.h"

namespace TellarImaging::impl {

Raster DecodeWebp(const uint8_t* data, size_t size) {
    int width = 0, height = 0;
    if (!WebPGetInfo(data, size, &width, &height)) throw std::runtime_error("Invalid WebP image: bad header");
    Raster raster(width, height, 4, 8);
    if (!WebPDecodeRGBAInto(data, size, raster.data.data(), raster.data.size(), int(raster.RowBytes())))
        throw std::runtime_error("Invalid WebP image: corrupt or truncated data");
    return raster;
}

} // namespace TellarImaging::impl
