#include "ImageWriters.h"

#include <jpeglib.h>
#include <png.h>
#include <tiffio.h>
#include <webp/encode.h>

#include <algorithm>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace TestImages {

namespace {
void AppendPng(png_structp png, png_bytep data, png_size_t size) {
    auto* out = static_cast<Bytes*>(png_get_io_ptr(png));
    out->insert(out->end(), data, data + size);
}
void FlushPng(png_structp) {}

int BitsPerPixel(const PngLayout& s) {
    const int channels = s.colorType == PNG_COLOR_TYPE_RGB         ? 3
                         : s.colorType == PNG_COLOR_TYPE_RGB_ALPHA ? 4
                         : s.colorType == PNG_COLOR_TYPE_GRAY_ALPHA ? 2
                                                                     : 1;
    return channels * s.bitDepth;
}
} // namespace

Bytes EncodePng(const PngLayout& s) {
    Bytes out;
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        throw std::runtime_error("png write failed");
    }
    png_set_write_fn(png, &out, AppendPng, FlushPng);
    png_set_IHDR(png, info, s.width, s.height, s.bitDepth, s.colorType, s.interlaced ? PNG_INTERLACE_ADAM7 : PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    std::vector<png_color> palette;
    for (size_t i = 0; i + 2 < s.palette.size(); i += 3)
        palette.push_back({s.palette[i], s.palette[i + 1], s.palette[i + 2]});
    if (!palette.empty()) png_set_PLTE(png, info, palette.data(), int(palette.size()));
    png_color_16 key{0, s.keyRed, s.keyGreen, s.keyBlue, s.keyGray};
    if (!s.paletteAlpha.empty())
        png_set_tRNS(png, info, s.paletteAlpha.data(), int(s.paletteAlpha.size()), nullptr);
    else if (s.grayKey) png_set_tRNS(png, info, nullptr, 0, &key);
    png_write_info(png, info);
    const size_t rowBytes = (size_t(s.width) * BitsPerPixel(s) + 7) / 8;
    const int passes = png_set_interlace_handling(png);
    for (int pass = 0; pass < passes; ++pass)
        for (int y = 0; y < s.height; ++y) png_write_row(png, s.rows.data() + y * rowBytes);
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    return out;
}

Bytes EncodeJpeg(int width, int height, int components, const Bytes& pixels, int quality) {
    jpeg_compress_struct info{};
    jpeg_error_mgr errors{};
    info.err = jpeg_std_error(&errors);
    jpeg_create_compress(&info);
    unsigned char* buffer = nullptr;
    unsigned long size = 0; // the type libjpeg's memory destination asks for
    jpeg_mem_dest(&info, &buffer, &size);
    info.image_width = width;
    info.image_height = height;
    info.input_components = components;
    info.in_color_space = components == 3 ? JCS_RGB : JCS_GRAYSCALE;
    jpeg_set_defaults(&info);
    jpeg_set_quality(&info, quality, TRUE);
    jpeg_start_compress(&info, TRUE);
    while (info.next_scanline < info.image_height) {
        JSAMPROW row = const_cast<uint8_t*>(pixels.data()) + info.next_scanline * width * components;
        jpeg_write_scanlines(&info, &row, 1);
    }
    jpeg_finish_compress(&info);
    Bytes out(buffer, buffer + size);
    jpeg_destroy_compress(&info);
    std::free(buffer);
    return out;
}

Bytes EncodeWebpRgba(int width, int height, const Bytes& rgba, bool lossless) {
    uint8_t* output = nullptr;
    const size_t size = lossless ? WebPEncodeLosslessRGBA(rgba.data(), width, height, width * 4, &output)
                                 : WebPEncodeRGBA(rgba.data(), width, height, width * 4, 90.0f, &output);
    if (!size) throw std::runtime_error("webp encode failed");
    Bytes out(output, output + size);
    WebPFree(output);
    return out;
}

Bytes EncodeTiff(const TiffLayout& s, const std::string& path) {
    TIFF* tif = TIFFOpen(path.c_str(), "w");
    if (!tif) throw std::runtime_error("tiff open failed");
    TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, uint32_t(s.width));
    TIFFSetField(tif, TIFFTAG_IMAGELENGTH, uint32_t(s.height));
    TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, uint16_t(s.samples));
    TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, uint16_t(s.bits));
    TIFFSetField(tif, TIFFTAG_SAMPLEFORMAT, uint16_t(s.sampleFormat));
    TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
    TIFFSetField(tif, TIFFTAG_PLANARCONFIG, s.separate ? PLANARCONFIG_SEPARATE : PLANARCONFIG_CONTIG);
    TIFFSetField(tif, TIFFTAG_COMPRESSION, uint16_t(s.compression));
    if (s.samples > 1) {
        std::vector<uint16_t> extra(s.samples - 1, EXTRASAMPLE_UNSPECIFIED);
        TIFFSetField(tif, TIFFTAG_EXTRASAMPLES, uint16_t(extra.size()), extra.data());
    }
    const size_t sampleBytes = size_t(s.bits / 8);
    const size_t pixelBytes = sampleBytes * s.samples;
    const int planes = s.separate ? s.samples : 1;
    const size_t blockPixel = s.separate ? sampleBytes : pixelBytes;
    // Tiles, or strips as wide as the image: blocks of bw x bh pixels, one plane after the other.
    const int bw = s.tiled ? s.tileWidth : s.width, bh = s.tiled ? s.tileHeight : s.rowsPerStrip;
    if (s.tiled) {
        TIFFSetField(tif, TIFFTAG_TILEWIDTH, uint32_t(bw));
        TIFFSetField(tif, TIFFTAG_TILELENGTH, uint32_t(bh));
    } else {
        TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, uint32_t(bh));
    }
    for (int plane = 0; plane < planes; ++plane)
        for (int y0 = 0; y0 < s.height; y0 += bh)
            for (int x0 = 0; x0 < s.width; x0 += bw) {
                const int rows = s.tiled ? bh : std::min(bh, s.height - y0); // the last strip may be short
                Bytes block(size_t(bw) * rows * blockPixel, 0);
                for (int y = 0; y < rows && y0 + y < s.height; ++y)
                    for (int x = 0; x < bw && x0 + x < s.width; ++x) {
                        const uint8_t* from = s.pixels.data() + (size_t(y0 + y) * s.width + (x0 + x)) * pixelBytes;
                        uint8_t* to = block.data() + (size_t(y) * bw + x) * blockPixel;
                        std::memcpy(to, from + (s.separate ? plane * sampleBytes : 0), blockPixel);
                    }
                const tmsize_t size = tmsize_t(block.size());
                if (s.tiled)
                    TIFFWriteEncodedTile(tif, TIFFComputeTile(tif, x0, y0, 0, uint16_t(plane)), block.data(), size);
                else
                    TIFFWriteEncodedStrip(tif, TIFFComputeStrip(tif, y0, uint16_t(plane)), block.data(), size);
            }
    TIFFClose(tif);
    return ReadFileBytes(path);
}

Bytes ReadFileBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

} // namespace TestImages
