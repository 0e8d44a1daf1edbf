// JPEG through libjpeg(-turbo). Its errors leave by longjmp: each step that may fail sets its
// jump point in a function without C++ objects of its own, so nothing is skipped on the way back;
// the decompressor is destroyed by its owner's destructor.
#include <csetjmp>
#include <cstdio>
#include <stdexcept>
#include <string>

#include <jpeglib.h>

#include "Codecs.h"

namespace TellarImaging::impl {
namespace {

struct ErrorManager {
    jpeg_error_mgr base;
    jmp_buf jump;
    char message[JMSG_LENGTH_MAX];
    bool corrupt; // a warning about the data: taken as a failure
};

void OnError(j_common_ptr info) {
    auto* manager = reinterpret_cast<ErrorManager*>(info->err);
    info->err->format_message(info, manager->message);
    std::longjmp(manager->jump, 1);
}

void OnMessage(j_common_ptr info, int level) {
    auto* manager = reinterpret_cast<ErrorManager*>(info->err);
    if (level < 0 && !manager->corrupt) {
        manager->corrupt = true;
        info->err->format_message(info, manager->message);
    }
}

class JpegDecoder {
public:
    JpegDecoder() {
        info_.err = jpeg_std_error(&errors_.base);
        errors_.base.error_exit = OnError;
        errors_.base.emit_message = OnMessage;
        errors_.message[0] = '\0';
        errors_.corrupt = false;
    }
    ~JpegDecoder() {
        if (created_) jpeg_destroy_decompress(&info_);
    }
    JpegDecoder(const JpegDecoder&) = delete;
    JpegDecoder& operator=(const JpegDecoder&) = delete;

    // Reads the header. False with Message() on failure.
    bool ReadHeader(const uint8_t* data, size_t size) {
        if (setjmp(errors_.jump)) return false;
        jpeg_create_decompress(&info_);
        created_ = true;
        jpeg_mem_src(&info_, data, static_cast<unsigned long>(size));
        jpeg_read_header(&info_, TRUE);
        if (info_.jpeg_color_space == JCS_CMYK || info_.jpeg_color_space == JCS_YCCK) {
            std::snprintf(errors_.message, sizeof errors_.message, "CMYK JPEG images are not supported");
            return false;
        }
        return true;
    }

    // Starts decompression to RGBA, which allocates its buffers (for a progressive image, the
    // coefficients of the whole image). False with Message() on failure.
    bool Start() {
        if (setjmp(errors_.jump)) return false;
        info_.out_color_space = JCS_EXT_RGBA;
        jpeg_start_decompress(&info_);
        // A progressive image is read whole here; if that found the data corrupt, the pixels
        // are not worth their memory.
        return !errors_.corrupt;
    }

    // Decodes all rows into `raster`, which has the output size. False with Message() on failure.
    bool ReadRows(Raster* raster) {
        if (setjmp(errors_.jump)) return false;
        while (info_.output_scanline < info_.output_height) {
            // Past the end of the data libjpeg goes on with made-up rows; a few hundred bytes
            // that claim a large image would otherwise fill gigabytes before being refused.
            if (errors_.corrupt) return false;
            JSAMPROW row = raster->Row(int32_t(info_.output_scanline));
            jpeg_read_scanlines(&info_, &row, 1);
        }
        jpeg_finish_decompress(&info_);
        return !errors_.corrupt;
    }

    // The size of the image once the header is read; decoded at full scale, so also that of
    // the output.
    uint32_t Width() const { return info_.image_width; }
    uint32_t Height() const { return info_.image_height; }
    const char* Message() const { return errors_.message; }

private:
    jpeg_decompress_struct info_{};
    ErrorManager errors_{};
    bool created_ = false;
};

} // namespace

Raster DecodeJpeg(const uint8_t* data, size_t size) {
    JpegDecoder decoder;
    if (!decoder.ReadHeader(data, size))
        throw std::runtime_error(std::string("Invalid JPEG image: ") + decoder.Message());
    CheckDecodedSize(decoder.Width(), decoder.Height());
    if (!decoder.Start()) throw std::runtime_error(std::string("Invalid JPEG image: ") + decoder.Message());
    Raster raster(decoder.Width(), decoder.Height(), 4, 8);
    if (!decoder.ReadRows(&raster)) throw std::runtime_error(std::string("Invalid JPEG image: ") + decoder.Message());
    return raster;
}

} // namespace TellarImaging::impl
