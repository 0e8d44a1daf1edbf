#pragma once
// Encoders the imaging tests use to make their own inputs, straight on the codec libraries.
#include <cstdint>
#include <string>
#include <vector>

namespace TestImages {

using Bytes = std::vector<uint8_t>;

struct PngLayout {
    int width = 0, height = 0;
    int colorType = 0; // PNG_COLOR_TYPE_*
    int bitDepth = 8;
    Bytes rows{};                        // packed as PNG stores them, 16-bit samples big-endian
    std::vector<uint8_t> palette{};      // RGB triples for a palette image
    std::vector<uint8_t> paletteAlpha{}; // tRNS for a palette image
    bool interlaced = false;             // Adam7
    bool grayKey = false;                // tRNS key colour for grey or RGB images
    uint16_t keyGray = 0, keyRed = 0, keyGreen = 0, keyBlue = 0;
};
Bytes EncodePng(const PngLayout& layout);

// 8-bit RGB (components 3) or grey (components 1) JPEG.
Bytes EncodeJpeg(int width, int height, int components, const Bytes& pixels, int quality);

Bytes EncodeWebpRgba(int width, int height, const Bytes& rgba, bool lossless);

struct TiffLayout {
    int width = 0, height = 0;
    int samples = 1, bits = 8;
    int sampleFormat = 1; // SAMPLEFORMAT_*
    bool tiled = false;
    int tileWidth = 16, tileHeight = 16;
    bool separate = false;
    int compression = 1; // COMPRESSION_*
    int rowsPerStrip = 5;
    Bytes pixels{}; // packed contiguous rows, native byte order
};
Bytes EncodeTiff(const TiffLayout& layout, const std::string& path);

Bytes ReadFileBytes(const std::string& path);

} // namespace TestImages
