#include <gtest/gtest.h>
#include <png.h>
#include <tiff.h>
#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "BoundaryCalls.h"
#include "ImageWriters.h"
#include "TellarImaging/Exports.h"
#include "TempDir.h"

using namespace TellarImaging;
using BoundaryCalls::Failure;
using BoundaryCalls::Made;
using Core::Ptr;
using TestImages::Bytes;

namespace {

Ptr<IImage> DecodeOk(const Bytes& bytes) {
    Ptr<IImage> image = Made<IImage>(
        [&](auto out, auto error) { CreateImageFromMemoryStream(bytes.data(), bytes.size(), out, error); });
    if (!image.Raw()) throw std::runtime_error("no image and no error");
    return image;
}

// The text of the error decoding `bytes` reports; no image may come with it.
std::string DecodeFailure(const Bytes& bytes) {
    Ptr<IImage> image;
    const std::string text = Failure([&](auto error) {
        return CreateImageFromMemoryStream(bytes.data(), bytes.size(), image.ReceiveAddress(), error);
    });
    EXPECT_EQ(image.Raw(), nullptr);
    return text;
}

TestImages::PngLayout Layout(int width, int height, int colorType, int bitDepth, Bytes rows) {
    return {.width = width, .height = height, .colorType = colorType, .bitDepth = bitDepth, .rows = std::move(rows)};
}

const uint8_t* Pixel(IImage* image, int x, int y) { return static_cast<const uint8_t*>(image->GetPixelPointer(x, y)); }

void ExpectRgba(IImage* image, int x, int y, std::vector<int> expect, int tolerance = 0) {
    const uint8_t* p = Pixel(image, x, y);
    ASSERT_NE(p, nullptr);
    for (int i = 0; i < 4; ++i) EXPECT_NEAR(p[i], expect[i], tolerance) << "pixel " << x << "," << y << " sample " << i;
}

Bytes Gradient(int width, int height, int components) {
    Bytes pixels(size_t(width) * height * components);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            for (int c = 0; c < components; ++c)
                pixels[(size_t(y) * width + x) * components + c] = uint8_t((x * 4 + y * 2 + c * 60) & 0xff);
    return pixels;
}

// The kernel's high-water mark of this process's resident memory, in kB.
long PeakRssKb() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("VmHWM:", 0) == 0) return std::stol(line.substr(6));
    return -1;
}

// Starts the high-water mark anew from what is resident now, so that earlier tests' peaks
// don't hide a later one.
long RestartPeakRssKb() {
    std::ofstream("/proc/self/clear_refs") << "5";
    return PeakRssKb();
}

} // namespace

// Every PNG colour type and bit depth comes out as RGBA with 8 bits.
TEST(DecodePng, AllColourTypesAndDepthsBecomeRgba8) {
    struct Case {
        const char* name;
        int colorType, bitDepth;
        Bytes row;                            // the single row of four pixels
        std::vector<std::vector<int>> expect; // their RGBA
        Bytes palette = {}, paletteAlpha = {};
        std::vector<uint16_t> key = {}; // grey, or red green blue
    };
    const Bytes rgbw = {255, 0, 0, 0, 255, 0, 0, 0, 255, 10, 20, 30};
    // clang-format off
    const Case cases[] = {
        {"grey 1", PNG_COLOR_TYPE_GRAY, 1, {0b10100000}, {{255, 255, 255, 255}, {0, 0, 0, 255}, {255, 255, 255, 255}, {0, 0, 0, 255}}},
        {"grey 2", PNG_COLOR_TYPE_GRAY, 2, {0b00011011}, {{0, 0, 0, 255}, {85, 85, 85, 255}, {170, 170, 170, 255}, {255, 255, 255, 255}}},
        {"grey 4", PNG_COLOR_TYPE_GRAY, 4, {0x0f, 0x18}, {{0, 0, 0, 255}, {255, 255, 255, 255}, {17, 17, 17, 255}, {136, 136, 136, 255}}},
        {"grey 8", PNG_COLOR_TYPE_GRAY, 8, {0, 10, 200, 255}, {{0, 0, 0, 255}, {10, 10, 10, 255}, {200, 200, 200, 255}, {255, 255, 255, 255}}},
        {"grey 16", PNG_COLOR_TYPE_GRAY, 16, {0, 0, 0xff, 0xff, 0x80, 0x80, 0x0a, 0x0a}, {{0, 0, 0, 255}, {255, 255, 255, 255}, {128, 128, 128, 255}, {10, 10, 10, 255}}},
        {"grey alpha 8", PNG_COLOR_TYPE_GRAY_ALPHA, 8, {10, 0, 20, 128, 30, 255, 40, 1}, {{10, 10, 10, 0}, {20, 20, 20, 128}, {30, 30, 30, 255}, {40, 40, 40, 1}}},
        {"rgb 8", PNG_COLOR_TYPE_RGB, 8, {1, 2, 3, 4, 5, 6, 7, 8, 9, 250, 251, 252}, {{1, 2, 3, 255}, {4, 5, 6, 255}, {7, 8, 9, 255}, {250, 251, 252, 255}}},
        {"rgb 16", PNG_COLOR_TYPE_RGB, 16, {0xff, 0xff, 0, 0, 0x80, 0x80, 0, 0, 0xff, 0xff, 0, 0, 0, 0, 0, 0, 0xff, 0xff, 0x20, 0x20, 0x40, 0x40, 0x60, 0x60}, {{255, 0, 128, 255}, {0, 255, 0, 255}, {0, 0, 255, 255}, {32, 64, 96, 255}}},
        {"rgba 8", PNG_COLOR_TYPE_RGB_ALPHA, 8, {1, 2, 3, 0, 4, 5, 6, 100, 7, 8, 9, 200, 10, 11, 12, 255}, {{1, 2, 3, 0}, {4, 5, 6, 100}, {7, 8, 9, 200}, {10, 11, 12, 255}}},
        {"rgba 16", PNG_COLOR_TYPE_RGB_ALPHA, 16, {0xff, 0xff, 0, 0, 0, 0, 0xff, 0xff, 0, 0, 0xff, 0xff, 0, 0, 0x80, 0x80, 0, 0, 0, 0, 0xff, 0xff, 0, 0, 0x10, 0x10, 0x20, 0x20, 0x30, 0x30, 0xff, 0xff}, {{255, 0, 0, 255}, {0, 255, 0, 128}, {0, 0, 255, 0}, {16, 32, 48, 255}}},
        {"palette 2 with alpha", PNG_COLOR_TYPE_PALETTE, 2, {0b00011011}, {{255, 0, 0, 255}, {0, 255, 0, 128}, {0, 0, 255, 0}, {10, 20, 30, 255}}, rgbw, {255, 128, 0}},
        {"palette 8", PNG_COLOR_TYPE_PALETTE, 8, {3, 2, 1, 0}, {{10, 20, 30, 255}, {0, 0, 255, 255}, {0, 255, 0, 255}, {255, 0, 0, 255}}, rgbw},
        {"palette 1", PNG_COLOR_TYPE_PALETTE, 1, {0b01100000}, {{0, 0, 0, 255}, {200, 100, 50, 255}, {200, 100, 50, 255}, {0, 0, 0, 255}}, {0, 0, 0, 200, 100, 50}},
        {"grey with key colour", PNG_COLOR_TYPE_GRAY, 8, {7, 8, 7, 9}, {{7, 7, 7, 0}, {8, 8, 8, 255}, {7, 7, 7, 0}, {9, 9, 9, 255}}, {}, {}, {7}},
        {"rgb with key colour", PNG_COLOR_TYPE_RGB, 8, {1, 2, 3, 1, 2, 4, 1, 2, 3, 0, 0, 0}, {{1, 2, 3, 0}, {1, 2, 4, 255}, {1, 2, 3, 0}, {0, 0, 0, 255}}, {}, {}, {1, 2, 3}},
    };
    // clang-format on
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        TestImages::PngLayout layout = Layout(4, 1, c.colorType, c.bitDepth, c.row);
        layout.palette = c.palette;
        layout.paletteAlpha = c.paletteAlpha;
        layout.grayKey = !c.key.empty();
        if (c.key.size() == 1) layout.keyGray = c.key[0];
        if (c.key.size() == 3)
            std::tie(layout.keyRed, layout.keyGreen, layout.keyBlue) = std::tie(c.key[0], c.key[1], c.key[2]);
        Ptr<IImage> image = DecodeOk(TestImages::EncodePng(layout));
        EXPECT_EQ(image->GetWidth(), 4);
        EXPECT_EQ(image->GetHeight(), 1);
        EXPECT_EQ(image->GetSamplesPerPixel(), 4);
        EXPECT_EQ(image->GetBitsPerSample(), 8);
        EXPECT_EQ(dynamic_cast<ITiffImage*>(image.Raw()), nullptr);
        for (int x = 0; x < 4; ++x) ExpectRgba(image.Raw(), x, 0, c.expect[x], c.bitDepth == 16 ? 1 : 0);
    }
}

TEST(DecodePng, InterlacedImage) {
    const int w = 13, h = 11;
    const Bytes rgba = Gradient(w, h, 4);
    TestImages::PngLayout layout = Layout(w, h, PNG_COLOR_TYPE_RGB_ALPHA, 8, rgba);
    layout.interlaced = true;
    Ptr<IImage> image = DecodeOk(TestImages::EncodePng(layout));
    EXPECT_EQ(std::memcmp(image->GetPixelPointer(0, 0), rgba.data(), rgba.size()), 0);
}

TEST(DecodeJpeg, ColourAndGreyBecomeRgba8) {
    const int w = 64, h = 48;
    for (int components : {3, 1}) {
        SCOPED_TRACE(components);
        Bytes source(size_t(w) * h * components);
        for (size_t i = 0; i < source.size(); ++i) {
            const size_t pixel = i / components, x = pixel % w, y = pixel / w;
            source[i] = uint8_t(20 + x + y + (i % components) * 40); // smooth: no edges for JPEG to ring at
        }
        Ptr<IImage> image = DecodeOk(TestImages::EncodeJpeg(w, h, components, source, 98));
        EXPECT_EQ(image->GetWidth(), w);
        EXPECT_EQ(image->GetHeight(), h);
        EXPECT_EQ(image->GetSamplesPerPixel(), 4);
        int worst = 0;
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                const uint8_t* p = Pixel(image.Raw(), x, y);
                for (int c = 0; c < 3; ++c) {
                    const int expect = source[(size_t(y) * w + x) * components + (components == 3 ? c : 0)];
                    worst = std::max(worst, std::abs(int(p[c]) - expect));
                }
                ASSERT_EQ(p[3], 255);
            }
        EXPECT_LE(worst, 12);
    }
}

TEST(DecodeWebp, LosslessIsExactAndLossyIsClose) {
    const int w = 40, h = 30;
    Bytes rgba = Gradient(w, h, 4);
    for (size_t i = 3; i < rgba.size(); i += 4) rgba[i] = uint8_t(i % 7 == 0 ? 1 : 255);
    Ptr<IImage> lossless = DecodeOk(TestImages::EncodeWebpRgba(w, h, rgba, true));
    ASSERT_EQ(lossless->GetWidth(), w);
    EXPECT_EQ(std::memcmp(lossless->GetPixelPointer(0, 0), rgba.data(), rgba.size()), 0);

    const Bytes opaque = Gradient(w, h, 3);
    Bytes opaqueRgba;
    for (size_t i = 0; i < opaque.size(); i += 3) opaqueRgba.insert(opaqueRgba.end(), {opaque[i], opaque[i + 1], opaque[i + 2], 255});
    Ptr<IImage> lossy = DecodeOk(TestImages::EncodeWebpRgba(w, h, opaqueRgba, false));
    ExpectRgba(lossy.Raw(), 20, 15, {opaqueRgba[(15 * w + 20) * 4], opaqueRgba[(15 * w + 20) * 4 + 1], opaqueRgba[(15 * w + 20) * 4 + 2], 255}, 24);
}

TEST(DecodeTiff, StripsAndTilesOfEveryLayout) {
    TestSupport::TempDir dir;
    struct Case {
        const char* name;
        int samples, bits, format;
        bool tiled, separate;
        int compression;
        int32_t pixelDataType;
    };
    const Case cases[] = {
        {"grey 8 strips", 1, 8, SAMPLEFORMAT_UINT, false, false, 1, PixelDataTypeGray8},
        {"grey 8 tiles deflate", 1, 8, SAMPLEFORMAT_UINT, true, false, 8, PixelDataTypeGray8},
        {"int16 strips lzw", 1, 16, SAMPLEFORMAT_INT, false, false, 5, PixelDataTypeGray16},
        {"rgb 16 tiles", 3, 16, SAMPLEFORMAT_UINT, true, false, 8, PixelDataTypeRgb48},
        {"rgba 8 separate planes", 4, 8, SAMPLEFORMAT_UINT, false, true, 8, PixelDataTypeRgba32},
        {"float32 tiles", 1, 32, SAMPLEFORMAT_IEEEFP, true, false, 8, PixelDataTypeFloat32},
        {"float32 separate tiles", 2, 32, SAMPLEFORMAT_IEEEFP, true, true, 1, PixelDataTypeFloat32x2},
        {"float64 strips", 1, 64, SAMPLEFORMAT_IEEEFP, false, false, 8, PixelDataTypeFloat64},
        {"float64 three samples", 3, 64, SAMPLEFORMAT_IEEEFP, false, false, 1, PixelDataTypeFloat64x3},
        {"grey alpha 16", 2, 16, SAMPLEFORMAT_UINT, false, false, 8, PixelDataTypeGrayAlpha32},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        // 37 is not a multiple of the tile width: edge tiles are partly outside.
        TestImages::TiffLayout layout{.width = 37,
                                      .height = 21,
                                      .samples = c.samples,
                                      .bits = c.bits,
                                      .sampleFormat = c.format,
                                      .tiled = c.tiled,
                                      .separate = c.separate,
                                      .compression = c.compression};
        const size_t pixelBytes = size_t(c.samples * c.bits / 8);
        layout.pixels.resize(pixelBytes * layout.width * layout.height);
        for (size_t i = 0; i < layout.pixels.size(); ++i) layout.pixels[i] = uint8_t((i * 31 + i / 7) & 0xff);
        const Bytes bytes = TestImages::EncodeTiff(layout, dir.File(std::string(c.name) + ".tif"));

        Ptr<IImage> image = DecodeOk(bytes);
        auto* tiff = dynamic_cast<ITiffImage2*>(image.Raw());
        ASSERT_NE(tiff, nullptr);
        EXPECT_EQ(image->GetWidth(), layout.width);
        EXPECT_EQ(image->GetHeight(), layout.height);
        EXPECT_EQ(image->GetSamplesPerPixel(), c.samples);
        EXPECT_EQ(image->GetBitsPerSample(), c.bits);
        EXPECT_EQ(tiff->GetSampleKind(), c.format);
        EXPECT_EQ(tiff->GetPixelDataType(), c.pixelDataType);
        EXPECT_EQ(std::memcmp(image->GetPixelPointer(0, 0), layout.pixels.data(), layout.pixels.size()), 0);
        EXPECT_EQ(dynamic_cast<ITiledTiffImage*>(image.Raw()) != nullptr, c.tiled);
    }
}

TEST(DecodeTiff, TilesOfATiledImage) {
    TestSupport::TempDir dir;
    TestImages::TiffLayout layout{.width = 40, .height = 20, .tiled = true, .pixels = Bytes(40 * 20)};
    for (size_t i = 0; i < layout.pixels.size(); ++i) layout.pixels[i] = uint8_t(i % 251 + 1);
    Ptr<IImage> image = DecodeOk(TestImages::EncodeTiff(layout, dir.File("t.tif")));
    auto* tiled = dynamic_cast<ITiledTiffImage*>(image.Raw());
    ASSERT_NE(tiled, nullptr);
    EXPECT_EQ(tiled->GetTileWidth(), 16);
    EXPECT_EQ(tiled->GetTileRowBytes(), 16);
    EXPECT_EQ(tiled->GetTileByteCount(), 256);
    EXPECT_EQ(tiled->GetTilesAcross(), 3);
    EXPECT_EQ(tiled->GetTilesDown(), 2);

    Ptr<IImage> tile;
    ASSERT_TRUE(tiled->GetTile(2, 1, tile.ReceiveAddress(), nullptr));
    EXPECT_EQ(tile->GetWidth(), 16);
    EXPECT_EQ(tile->GetHeight(), 16);
    // Tile (2, 1) starts at pixel (32, 16); past column 39 and row 19 it is padding.
    EXPECT_EQ(*Pixel(tile.Raw(), 0, 0), layout.pixels[16 * 40 + 32]);
    EXPECT_EQ(*Pixel(tile.Raw(), 7, 3), layout.pixels[19 * 40 + 39]);
    EXPECT_EQ(*Pixel(tile.Raw(), 8, 3), 0);
    EXPECT_EQ(*Pixel(tile.Raw(), 0, 4), 0);

    Ptr<IImage> outside;
    EXPECT_EQ(Failure([&](auto error) { return tiled->GetTile(3, 0, outside.ReceiveAddress(), error); }),
              "Tile (3, 0) is outside the image");
}

// Broken inputs of every format end in an error object, never in a crash or a leak.
TEST(DecodeErrors, CorruptAndTruncatedInputs) {
    TestSupport::TempDir dir;
    const Bytes rgba = Gradient(32, 32, 4);
    TestImages::PngLayout pngLayout = Layout(32, 32, PNG_COLOR_TYPE_RGB_ALPHA, 8, rgba);
    const TestImages::TiffLayout tiffLayout{
        .width = 32, .height = 32, .compression = 8, .rowsPerStrip = 32, .pixels = Gradient(32, 32, 1)};
    const struct {
        const char* name;
        Bytes bytes;
    } valid[] = {
        {"png", TestImages::EncodePng(pngLayout)},
        {"jpeg", TestImages::EncodeJpeg(32, 32, 3, Gradient(32, 32, 3), 90)},
        {"webp", TestImages::EncodeWebpRgba(32, 32, rgba, true)},
        {"tiff", TestImages::EncodeTiff(tiffLayout, dir.File("c.tif"))},
    };
    for (const auto& v : valid) {
        SCOPED_TRACE(v.name);
        DecodeOk(v.bytes);
        std::vector<std::pair<std::string, Bytes>> broken;
        for (size_t keep : {v.bytes.size() / 2, v.bytes.size() * 9 / 10, size_t(20), size_t(4)})
            broken.push_back({"truncated to " + std::to_string(keep), Bytes(v.bytes.begin(), v.bytes.begin() + keep)});
        // Garbage from byte 8 on: past the signature, into the header and the data.
        Bytes garbled = v.bytes;
        for (size_t i = 8; i < garbled.size() && i < 300; ++i) garbled[i] = uint8_t(0xA5 ^ i);
        broken.push_back({"garbled", garbled});
        for (const auto& [what, bytes] : broken) {
            SCOPED_TRACE(what);
            EXPECT_FALSE(DecodeFailure(bytes).empty());
        }
    }
    EXPECT_EQ(DecodeFailure(Bytes{'G', 'I', 'F', '8', '9', 'a', 0, 0}), "Unknown image format");
    EXPECT_FALSE(DecodeFailure(Bytes{0}).empty());
    Ptr<IImage> missing;
    const std::string path = dir.File("none.png");
    EXPECT_NE(
        Failure([&](auto error) { return OpenImageA(path.c_str(), missing.ReceiveAddress(), error); }).find("none.png"),
        std::string::npos);
}

namespace {

void PutBigEndian(uint8_t* at, uint32_t value, int bytes) {
    for (int i = 0; i < bytes; ++i) at[i] = uint8_t(value >> (8 * (bytes - 1 - i)));
}

// A 1 x 1 PNG whose header claims `width` x `height`.
Bytes PngClaiming(uint32_t width, uint32_t height) {
    Bytes png = TestImages::EncodePng(Layout(1, 1, PNG_COLOR_TYPE_RGB_ALPHA, 8, Bytes{1, 2, 3, 4}));
    // IHDR data starts at byte 16 with width and height; its CRC follows the 13 bytes.
    PutBigEndian(&png[16], width, 4);
    PutBigEndian(&png[20], height, 4);
    PutBigEndian(&png[29], uint32_t(crc32(0, png.data() + 12, 17)), 4);
    return png;
}

// A 16 x 16 grey JPEG whose baseline frame claims `width` x `height`.
Bytes JpegClaiming(uint16_t width, uint16_t height) {
    Bytes jpeg = TestImages::EncodeJpeg(16, 16, 1, Gradient(16, 16, 1), 90);
    // The frame header: FF C0, its length, the precision, then height and width.
    const uint8_t frame[] = {0xFF, 0xC0};
    const auto at = std::search(jpeg.begin(), jpeg.end(), std::begin(frame), std::end(frame));
    if (at == jpeg.end()) throw std::runtime_error("no baseline frame");
    PutBigEndian(&at[5], height, 2);
    PutBigEndian(&at[7], width, 2);
    return jpeg;
}

// A TIFF of one PackBits strip (libtiff cuts only uncompressed strips into smaller ones) that
// claims `width` x `height` 16-bit grey pixels and holds 16 bytes of them.
Bytes TiffClaiming(uint32_t width, uint32_t height) {
    Bytes tiff = {'I', 'I', 42, 0, 8, 0, 0, 0, 8, 0};
    const uint32_t dataOffset = 8 + 2 + 8 * 12 + 4;
    // Tag, type (3 short, 4 long), one value.
    const std::tuple<uint16_t, uint16_t, uint32_t> entries[] = {
        {256, 4, width}, {257, 4, height},     {258, 3, 16},     {259, 3, 32773},
        {262, 3, 1},     {273, 4, dataOffset}, {278, 4, height}, {279, 4, 16},
    };
    auto put = [&](uint32_t value, int bytes) {
        for (int i = 0; i < bytes; ++i) tiff.push_back(uint8_t(value >> (8 * i)));
    };
    for (const auto& [tag, type, value] : entries) {
        put(tag, 2);
        put(type, 2);
        put(1, 4);
        put(value, 4);
    }
    put(0, 4);
    tiff.resize(tiff.size() + 16, 0x5A);
    return tiff;
}

// An extended WebP file of its first chunk only, whose canvas is `width` x `height`.
Bytes WebpCanvas(uint32_t width, uint32_t height) {
    Bytes webp = {'R', 'I', 'F', 'F', 22, 0, 0, 0, 'W', 'E', 'B', 'P', 'V', 'P', '8', 'X', 10, 0, 0, 0, 0, 0, 0, 0};
    for (const uint32_t side : {width - 1, height - 1})
        for (int i = 0; i < 3; ++i) webp.push_back(uint8_t(side >> (8 * i)));
    return webp;
}

} // namespace

// A header of any format that claims more than 2^28 pixels is refused before the pixels get
// memory; one at the limit is decoded as far as its data goes.
TEST(DecodeErrors, HeadersClaimingMoreThanTheMostPixelsAreRefused) {
    const struct {
        const char* name;
        Bytes bytes;
        std::string failure;
    } cases[] = {
        {"png", PngClaiming(20000, 20000), "Image too large: 20000 x 20000 pixels"},
        {"png one row past", PngClaiming(16384, 16385), "Image too large: 16384 x 16385 pixels"},
        {"png at the limit", PngClaiming(16384, 16384), "Invalid PNG image: "},
        {"jpeg", JpegClaiming(20000, 20000), "Image too large: 20000 x 20000 pixels"},
        {"webp canvas", WebpCanvas(20000, 20000), "Image too large: 20000 x 20000 pixels"},
        {"tiff", TiffClaiming(20000, 20000), "Image too large: 20000 x 20000 pixels"},
    };
    for (const auto& c : cases) EXPECT_EQ(DecodeFailure(c.bytes).substr(0, c.failure.size()), c.failure) << c.name;
}

// A JPEG whose frame claims far more rows than its data holds is refused where the data ends,
// not after libjpeg has filled the whole claimed image with made-up rows.
TEST(DecodeErrors, JpegClaimingMoreThanItHoldsStopsAtTheEndOfItsData) {
    const Bytes jpeg = JpegClaiming(8192, 8192); // 256 MB of RGBA
    const long before = RestartPeakRssKb();
    ASSERT_GT(before, 0);
    EXPECT_EQ(DecodeFailure(jpeg).rfind("Invalid JPEG image: ", 0), 0u);
    // Half the image: filling it would cost all of it, AddressSanitizer's bookkeeping an eighth.
    EXPECT_LT(PeakRssKb() - before, 128 * 1024) << "peak kB grew";
}

// A TIFF strip that claims 8192 x 8192 16-bit pixels and holds 16 bytes of them is refused
// without a strip buffer of the claimed 128 MB being filled first.
TEST(DecodeErrors, TiffStripClaimingMoreThanItHoldsFillsNoBuffer) {
    const Bytes tiff = TiffClaiming(8192, 8192);
    const long before = RestartPeakRssKb();
    ASSERT_GT(before, 0);
    EXPECT_EQ(DecodeFailure(tiff).rfind("Invalid TIFF image: ", 0), 0u);
    // Half the strip: filling it would cost all of it, AddressSanitizer's bookkeeping of the
    // strip buffer and the image an eighth of each.
    EXPECT_LT(PeakRssKb() - before, 64 * 1024) << "peak kB grew";
}

TEST(DecodeErrors, BoundaryGuards) {
    Ptr<IImage> image;
    EXPECT_EQ(
        Failure([&](auto error) { return CreateImageFromMemoryStream(nullptr, 10, image.ReceiveAddress(), error); }),
        "Pointer of char must not be null!");
    // No bytes, with or without a buffer, and an empty file: the decoder says the data was empty.
    const uint8_t none[1] = {};
    EXPECT_EQ(
        Failure([&](auto error) { return CreateImageFromMemoryStream(nullptr, 0, image.ReceiveAddress(), error); }),
        "Empty image data: 0 bytes");
    EXPECT_EQ(Failure([&](auto error) { return CreateImageFromMemoryStream(none, 0, image.ReceiveAddress(), error); }),
              "Empty image data: 0 bytes");
    TestSupport::TempDir dir;
    std::ofstream(dir.File("empty.png")).close();
    EXPECT_EQ(
        Failure([&](auto error) { return OpenImageA(dir.File("empty.png").c_str(), image.ReceiveAddress(), error); }),
        "Empty image data: 0 bytes");

    const Bytes png = TestImages::EncodePng(Layout(1, 1, PNG_COLOR_TYPE_GRAY, 8, Bytes{5}));
    Ptr<IImage> first = DecodeOk(png);
    IImage* stale = first.Raw();
    EXPECT_EQ(Failure([&](auto error) { return CreateImageFromMemoryStream(png.data(), png.size(), &stale, error); }),
              "Pointer of struct TellarImaging::IImage must be null in order to avoid memory leaks!");
    EXPECT_EQ(stale, first.Raw());
}
