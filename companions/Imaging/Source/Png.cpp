// PNG through libpng. Decoding uses the progressive-free low-level reader so that samples are
// scaled, not gamma-converted: palette, grey, transparency and 16-bit samples become RGBA with
// 8 bits. libpng reports errors by longjmp: each step that may fail sets its jump point in a
// function without C++ objects of its own, and the reader is destroyed by its owner.
// Writing uses the simplified API, which handles its errors inside.
#include <png.h>

#include <cerrno>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>

#include <fmt/format.h>

#include "Codecs.h"

namespace TellarImaging::impl {
namespace {

struct Source {
    const uint8_t* data;
    size_t size;
    size_t position;
    char message[256];
};

void OnRead(png_structp png, png_bytep out, size_t count) {
    auto* source = static_cast<Source*>(png_get_io_ptr(png));
    if (count > source->size - source->position) png_error(png, "Truncated PNG data");
    std::memcpy(out, source->data + source->position, count);
    source->position += count;
}

void OnError(png_structp png, png_const_charp text) {
    auto* source = static_cast<Source*>(png_get_error_ptr(png));
    std::snprintf(source->message, sizeof source->message, "%s", text ? text : "unknown error");
    png_longjmp(png, 1);
}

void OnWarning(png_structp, png_const_charp) {}

class PngDecoder {
public:
    PngDecoder(const uint8_t* data, size_t size) : source_{data, size, 0, "out of memory"} {}
    ~PngDecoder() {
        if (png_) png_destroy_read_struct(&png_, info_ ? &info_ : nullptr, nullptr);
    }
    PngDecoder(const PngDecoder&) = delete;
    PngDecoder& operator=(const PngDecoder&) = delete;

    // Reads the chunks up to the image data. False with Message() on failure.
    bool Start() {
        png_ = png_create_read_struct(PNG_LIBPNG_VER_STRING, &source_, OnError, OnWarning);
        if (!png_) return false;
        info_ = png_create_info_struct(png_);
        if (!info_) return false;
        if (setjmp(png_jmpbuf(png_))) return false;
        png_set_read_fn(png_, &source_, OnRead);
        png_read_info(png_, info_);
        width_ = png_get_image_width(png_, info_);
        height_ = png_get_image_height(png_, info_);
        return true;
    }

    // Sets up the conversion to RGBA 8, which allocates the row buffers. False with Message()
    // on failure.
    bool Convert() {
        if (setjmp(png_jmpbuf(png_))) return false;
        const int colorType = png_get_color_type(png_, info_);
        const bool transparency = png_get_valid(png_, info_, PNG_INFO_tRNS) != 0;
        png_set_expand(png_);
        png_set_scale_16(png_);
        png_set_gray_to_rgb(png_);
        if (!(colorType & PNG_COLOR_MASK_ALPHA) && !transparency) png_set_filler(png_, 0xff, PNG_FILLER_AFTER);
        passes_ = png_set_interlace_handling(png_);
        png_read_update_info(png_, info_);
        if (png_get_rowbytes(png_, info_) != size_t(width_) * 4) {
            std::snprintf(source_.message, sizeof source_.message, "unexpected row layout");
            return false;
        }
        return true;
    }

    // Decodes all rows, and the chunks after them, into `raster`. False with Message() on failure.
    bool ReadRows(Raster* raster) {
        if (setjmp(png_jmpbuf(png_))) return false;
        for (int pass = 0; pass < passes_; ++pass)
            for (uint32_t y = 0; y < height_; ++y) png_read_row(png_, raster->Row(int32_t(y)), nullptr);
        png_read_end(png_, nullptr);
        return true;
    }

    uint32_t Width() const { return width_; }
    uint32_t Height() const { return height_; }
    const char* Message() const { return source_.message; }

private:
    Source source_;
    png_structp png_ = nullptr;
    png_infop info_ = nullptr;
    int passes_ = 1;
    uint32_t width_ = 0;
    uint32_t height_ = 0;
};

// Frees the png_image on every way out; png_image_free is safe on a freed image.
struct PngImage {
    png_image image{};
    PngImage() { image.version = PNG_IMAGE_VERSION; }
    ~PngImage() { png_image_free(&image); }
    PngImage(const PngImage&) = delete;
    PngImage& operator=(const PngImage&) = delete;
};

} // namespace

Raster DecodePng(const uint8_t* data, size_t size) {
    PngDecoder decoder(data, size);
    if (!decoder.Start()) throw std::runtime_error(std::string("Invalid PNG image: ") + decoder.Message());
    CheckDecodedSize(decoder.Width(), decoder.Height());
    if (!decoder.Convert()) throw std::runtime_error(std::string("Invalid PNG image: ") + decoder.Message());
    Raster raster(decoder.Width(), decoder.Height(), 4, 8);
    if (!decoder.ReadRows(&raster)) throw std::runtime_error(std::string("Invalid PNG image: ") + decoder.Message());
    return raster;
}

void EncodePng(IImage* image, const std::string& path, const std::string& name) {
    const int32_t samples = image->GetSamplesPerPixel();
    if (image->GetBitsPerSample() != 8 || samples < 1 || samples > 4)
        throw std::runtime_error("PNG needs 8 bits per sample and 1 to 4 samples");
    const png_uint_32 formats[] = {PNG_FORMAT_GRAY, PNG_FORMAT_GA, PNG_FORMAT_RGB, PNG_FORMAT_RGBA};
    PngImage png;
    png.image.width = png_uint_32(image->GetWidth());
    png.image.height = png_uint_32(image->GetHeight());
    png.image.format = formats[samples - 1];
    if (png.image.width == 0 || png.image.height == 0) throw std::runtime_error("PNG can't hold an empty image");
    // Rows are packed, so the first pixel addresses the whole buffer.
    const void* pixels = image->GetPixelPointer(0, 0);
    // Through a stream of our own: libpng's file writer removes the path when it fails, and the
    // path may be a device.
    std::FILE* file = std::fopen(path.c_str(), "wb");
    if (!file) throw std::runtime_error(fmt::format("Failed to create PNG file {}: {}", name, std::strerror(errno)));
    const bool written = png_image_write_to_stdio(&png.image, file, 0, pixels, 0, nullptr) != 0;
    const bool flushed = written && std::fflush(file) == 0;
    const int flushError = errno;
    const bool closed = std::fclose(file) == 0;
    if (!written) throw std::runtime_error(fmt::format("Failed to write PNG file {}: {}", name, png.image.message));
    if (!flushed || !closed)
        throw std::runtime_error(
            fmt::format("Failed to write PNG file {}: {}", name, std::strerror(flushed ? errno : flushError)));
}

} // namespace TellarImaging::impl
