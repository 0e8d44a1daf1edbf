#include "PngEncode.h"

#include <png.h>

#include <csetjmp>
#include <stdexcept>

namespace TellarMaps {

namespace {

void Append(png_structp png, png_bytep data, png_size_t length) {
    static_cast<std::string*>(png_get_io_ptr(png))->append(reinterpret_cast<const char*>(data), length);
}

void NoFlush(png_structp) {}

} // namespace

std::string EncodeRgbaPng(const std::vector<uint8_t>& rgba, uint32_t width, uint32_t height) {
    if (rgba.size() != static_cast<size_t>(width) * height * 4)
        throw std::invalid_argument("EncodeRgbaPng: the pixels don't match the size");
    std::string out;
    std::vector<png_bytep> rows(height);
    for (uint32_t r = 0; r < height; ++r)
        rows[r] = const_cast<png_bytep>(rgba.data() + static_cast<size_t>(r) * width * 4);

    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    if (!png) throw std::runtime_error("libpng: cannot create a writer");
    png_infop info = png_create_info_struct(png);
    // Everything with a destructor exists before this point: libpng leaves by longjmp.
    if (!info || setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        throw std::runtime_error("libpng: encoding failed");
    }
    png_set_write_fn(png, &out, Append, NoFlush);
    png_set_IHDR(png, info, width, height, 8, PNG_COLOR_TYPE_RGBA, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
                 PNG_FILTER_TYPE_DEFAULT);
    png_set_compression_level(png, 6);
    png_set_rows(png, info, rows.data());
    png_write_png(png, info, PNG_TRANSFORM_IDENTITY, nullptr);
    png_destroy_write_struct(&png, &info);
    return out;
}

} // namespace TellarMaps
