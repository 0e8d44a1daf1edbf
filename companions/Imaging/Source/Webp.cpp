#include <stdexcept>

#include <webp/decode.h>

#include "Codecs.h"

namespace TellarImaging::impl {

Raster DecodeWebp(const uint8_t* data, size_t size) {
    int width = 0, height = 0;
    if (!WebPGetInfo(data, size, &width, &height)) throw std::runtime_error("Invalid WebP image: bad header");
    // A bitstream holds at most 16383 x 16383 pixels, but the canvas of an extended file's first
    // chunk claims up to 2^24 on a side, and is the size given when no bitstream follows it.
    CheckDecodedSize(uint64_t(width), uint64_t(height));
    Raster raster(width, height, 4, 8);
    if (!WebPDecodeRGBAInto(data, size, raster.data.data(), raster.data.size(), int(raster.RowBytes())))
        throw std::runtime_error("Invalid WebP image: corrupt or truncated data");
    return raster;
}

} // namespace TellarImaging::impl
