#include <gtest/gtest.h>
#include <sys/stat.h>
#include <tiffio.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>
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

namespace {

Ptr<ITransform> Transform(double sx, double sy, double ox, double oy, double kx = 0, double ky = 0) {
    return Made<ITransform>(
        [&](auto out, auto error) { CreateTransformFromParams(sx, sy, ox, oy, kx, ky, out, error); });
}

Ptr<ITiffImage> NewTiff(int32_t width, int32_t height, int32_t type) {
    return Made<ITiffImage>([&](auto out, auto error) { CreateTiffImage(width, height, type, out, error); });
}

Ptr<IImage> Open(const std::string& path) {
    return Made<IImage>([&](auto out, auto error) { OpenImageA(path.c_str(), out, error); });
}

void Save(IImage* image, const std::string& path, int32_t format) {
    Ptr<Core::IErrorCode> error;
    TellarImaging_SaveImage(image, path.c_str(), format, error.ReceiveAddress());
    Core::ThrowIfError(error);
}

std::vector<double> ParamsOf(ITiffImage* image) {
    Ptr<ITransform> t;
    EXPECT_TRUE(image->GetTransform(t.ReceiveAddress(), nullptr));
    if (!t.Raw()) return {};
    std::vector<double> p(6);
    t->GetParams(&p[0], &p[1], &p[2], &p[3], &p[4], &p[5]);
    return p;
}

template <class T>
void FillRamp(IImage* image) {
    const int32_t samples = image->GetSamplesPerPixel();
    for (int32_t y = 0; y < image->GetHeight(); ++y)
        for (int32_t x = 0; x < image->GetWidth(); ++x)
            for (int32_t s = 0; s < samples; ++s)
                static_cast<T*>(image->GetPixelPointer(x, y))[s] = T((y * 1000 + x * 10 + s) % 251) + T(0.25 * s);
}

} // namespace

TEST(Transform, PixelToWorldAndBack) {
    struct Case {
        double sx, sy, ox, oy, kx, ky;
    };
    const Case cases[] = {
        {0.5, -0.5, 1000.0, 2000.0, 0.0, 0.0},                         // north-up metres
        {156543.03392804097, -156543.03392804097, -20037508.342789244, 20037508.342789244, 0, 0},
        {0.001, -0.002, 8.5, 47.5, 0.0001, -0.0003},                   // rotated
    };
    for (const Case& c : cases) {
        Ptr<ITransform> t = Transform(c.sx, c.sy, c.ox, c.oy, c.kx, c.ky);
        for (double px : {0.0, 0.5, 17.25, 255.999}) {
            for (double py : {0.0, 3.75, 400.0}) {
                double wx, wy, wz, bx, by, bz;
                t->PixelToWorld(px, py, &wx, &wy, &wz);
                EXPECT_DOUBLE_EQ(wx, c.ox + px * c.sx + py * c.kx);
                EXPECT_DOUBLE_EQ(wy, c.oy + px * c.ky + py * c.sy);
                t->WorldToPixel(wx, wy, 7.0, &bx, &by, &bz);
                EXPECT_NEAR(bx, px, 1e-7);
                EXPECT_NEAR(by, py, 1e-7);
                EXPECT_EQ(bz, 7.0);
            }
        }
    }
    // The world corner of pixel 7 maps back into pixel 7, not to the end of pixel 6.
    Ptr<ITransform> tile = Transform(0.7, -0.7, 0.0, 0.0);
    double wx, px;
    tile->PixelToWorld(7.0, 0.0, &wx, nullptr, nullptr);
    tile->WorldToPixel(wx, 0.0, 0.0, &px, nullptr, nullptr);
    EXPECT_EQ(std::trunc(px), 7.0);

    Ptr<ITransform> singular;
    EXPECT_EQ(Failure([&](auto error) {
                  return CreateTransformFromParams(0.0, -1.0, 0, 0, 0, 0, singular.ReceiveAddress(), error);
              }),
              "Transform is not invertible");
}

TEST(TiffImage, CreateEveryNamedTypeAndRefuseOthers) {
    struct Case {
        int32_t type, samples, bits, kind;
    };
    const Case cases[] = {{PixelDataTypeGray8, 1, 8, 1},     {PixelDataTypeGray16, 1, 16, 1},
                          {PixelDataTypeFloat32, 1, 32, 3},  {PixelDataTypeRgb24, 3, 8, 1},
                          {PixelDataTypeRgba32, 4, 8, 1},    {PixelDataTypeGrayAlpha16, 2, 8, 1},
                          {PixelDataTypeRgb48, 3, 16, 1},    {PixelDataTypeRgba64, 4, 16, 1},
                          {PixelDataTypeGrayAlpha32, 2, 16, 1}, {PixelDataTypeFloat64, 1, 64, 3},
                          {PixelDataTypeFloat32x4, 4, 32, 3}, {PixelDataTypeFloat64x2, 2, 64, 3}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.type);
        Ptr<ITiffImage> image = NewTiff(7, 5, c.type);
        EXPECT_EQ(image->GetSamplesPerPixel(), c.samples);
        EXPECT_EQ(image->GetBitsPerSample(), c.bits);
        EXPECT_EQ(image->GetSampleKind(), c.kind);
        EXPECT_EQ(image->GetPixelDataType(), c.type);
        const auto* first = static_cast<const uint8_t*>(image->GetPixelPointer(0, 0));
        const auto* last = static_cast<const uint8_t*>(image->GetPixelPointer(6, 4));
        EXPECT_EQ(last - first, (4 * 7 + 6) * c.samples * c.bits / 8);
        EXPECT_EQ(image->GetPixelPointer(7, 0), nullptr);
        EXPECT_EQ(image->GetPixelPointer(0, -1), nullptr);
    }
    // An empty image is an image all the same.
    EXPECT_EQ(NewTiff(0, 0, PixelDataTypeRgba32)->GetWidth(), 0);

    Ptr<ITiffImage> none;
    EXPECT_FALSE(CreateTiffImage(4, 4, 99, none.ReceiveAddress(), nullptr));
    EXPECT_FALSE(CreateTiffImage(4, 4, PixelDataTypeUnknown, none.ReceiveAddress(), nullptr));
    EXPECT_FALSE(CreateTiffImage(-1, 4, PixelDataTypeGray8, none.ReceiveAddress(), nullptr));
    // 2^30 × 2^29 pixels of 32 bytes are 2^64 bytes: a size that wraps to zero in 64 bits.
    EXPECT_EQ(Failure([&](auto error) {
                  return CreateTiffImage(1 << 30, 1 << 29, PixelDataTypeFloat64x4, none.ReceiveAddress(), error);
              }),
              "Image of 1073741824x536870912 pixels is too large");
    EXPECT_EQ(none.Raw(), nullptr);

    Ptr<IImage> multi;
    ASSERT_TRUE(TellarImaging_CreateMultiChannelTiffImage(3, 2, SampleKindSigned, 1, 16, multi.ReceiveAddress(), nullptr));
    EXPECT_EQ(multi.As<ITiffImage>()->GetSampleKind(), SampleKindSigned);
    for (auto [kind, samples, bits] : {std::tuple{3, 1, 16}, {1, 1, 32}, {1, 5, 8}, {4, 1, 8}, {1, 0, 8}}) {
        Ptr<IImage> bad;
        EXPECT_FALSE(TellarImaging_CreateMultiChannelTiffImage(3, 2, kind, samples, bits, bad.ReceiveAddress(), nullptr))
            << kind << " " << samples << " " << bits;
    }
}

TEST(TiffImage, PropertiesAndSubImages) {
    Ptr<ITiffImage> image = NewTiff(10, 8, PixelDataTypeGray16);
    FillRamp<uint16_t>(image.Raw());
    auto* image2 = image.Cast<ITiffImage2>();
    image->SetIntProperty(12);
    image->SetListValue(2, 9);
    image->SetEpsgCode(3857);
    image->SetSampleKind(SampleKindSigned);
    image->SetTransform(Transform(2.0, -2.0, 100.0, 200.0).Raw());
    image2->SetTextProperty("elevation");
    Ptr<ITransform> attached = Transform(1, -1, 0, 0);
    ASSERT_TRUE(image2->SetObjectProperty(attached.Raw(), 0, nullptr));

    Ptr<IImage> sub;
    ASSERT_TRUE(image->CreateSubImage(3, 2, 4, 5, sub.ReceiveAddress(), nullptr));
    auto* subTiff = sub.Cast<ITiffImage2>();
    EXPECT_EQ(sub->GetWidth(), 4);
    EXPECT_EQ(sub->GetHeight(), 5);
    for (int y = 0; y < 5; ++y)
        for (int x = 0; x < 4; ++x)
            ASSERT_EQ(*static_cast<uint16_t*>(sub->GetPixelPointer(x, y)),
                      *static_cast<uint16_t*>(image->GetPixelPointer(x + 3, y + 2)));
    EXPECT_EQ(ParamsOf(subTiff), (std::vector<double>{2.0, -2.0, 106.0, 196.0, 0.0, 0.0}));
    EXPECT_EQ(subTiff->GetEpsgCode(), 3857u);
    EXPECT_EQ(subTiff->GetSampleKind(), SampleKindSigned);
    EXPECT_EQ(subTiff->GetIntProperty(), 12);
    // The list grew to hold index 2; what it never held reads 0.
    EXPECT_EQ(subTiff->GetListCount(), 3u);
    EXPECT_EQ((std::vector{subTiff->GetListValue(0), subTiff->GetListValue(2), subTiff->GetListValue(3)}),
              (std::vector<int32_t>{0, 9, 0}));
    EXPECT_STREQ(subTiff->GetTextProperty(), "elevation");
    Ptr<Core::IObject> object;
    ASSERT_TRUE(subTiff->GetObjectProperty(object.ReceiveAddress(), 0, nullptr));
    EXPECT_EQ(object.Raw(), attached.Raw());
    Ptr<Core::IObject> missing;
    ASSERT_TRUE(subTiff->GetObjectProperty(missing.ReceiveAddress(), 1, nullptr));
    EXPECT_EQ(missing.Raw(), nullptr);

    Ptr<IImage> whole, empty, outside;
    ASSERT_TRUE(image->CreateSubImage(0, 0, 10, 8, whole.ReceiveAddress(), nullptr));
    EXPECT_EQ(std::memcmp(whole->GetPixelPointer(0, 0), image->GetPixelPointer(0, 0), 10 * 8 * 2), 0);
    ASSERT_TRUE(image->CreateSubImage(10, 8, 0, 0, empty.ReceiveAddress(), nullptr));
    EXPECT_EQ(Failure([&](auto error) { return image->CreateSubImage(8, 0, 3, 1, outside.ReceiveAddress(), error); }),
              "Sub-image (8, 0, 3x1) is outside the image of 10x8");
}

TEST(TiffImage, ConvertDecodedImage) {
    // Colour type 2: RGB.
    const auto png = TestImages::EncodePng({.width = 2, .height = 1, .colorType = 2, .rows = {1, 2, 3, 4, 5, 6}});
    Ptr<IImage> decoded;
    ASSERT_TRUE(CreateImageFromMemoryStream(png.data(), png.size(), decoded.ReceiveAddress(), nullptr));
    Ptr<ITiffImage> tiff;
    ASSERT_TRUE(ConvertImageToTiffImage(decoded.Raw(), tiff.ReceiveAddress(), nullptr));
    EXPECT_EQ(tiff->GetPixelDataType(), PixelDataTypeRgba32);
    EXPECT_EQ(tiff->GetSampleKind(), SampleKindUnsigned);
    const uint8_t expect[] = {1, 2, 3, 255, 4, 5, 6, 255};
    EXPECT_EQ(std::memcmp(tiff->GetPixelPointer(0, 0), expect, 8), 0);

    Ptr<ITiffImage> same;
    ASSERT_TRUE(ConvertImageToTiffImage(tiff.Raw(), same.ReceiveAddress(), nullptr));
    EXPECT_EQ(same.Raw(), tiff.Raw());
}

// What we write as GeoTIFF reads back with the same pixels and georeference, and GDAL, when it is
// installed, finds the same CRS, corners and pixels in it (integer strips are differenced and
// deflated on several threads; a large picture takes many strips).
TEST(GeoTiff, WriteAndReadBack) {
    TestSupport::TempDir dir;
    const bool gdal = std::system("command -v gdalinfo gdal_translate > /dev/null 2>&1") == 0;
    struct Case {
        const char* name;
        int32_t type;
        uint32_t epsg;
        std::vector<double> params;
        int32_t width = 33, height = 17;
    };
    const Case cases[] = {
        {"rgba web mercator",
         PixelDataTypeRgba32,
         3857,
         {152.87405657041106, -152.87405657041106, 1113194.9079327357, 6446275.841017158, 0, 0}},
        {"float32 wgs84", PixelDataTypeFloat32, 4326, {0.25, -0.125, 5.0, 55.0, 0, 0}},
        {"int16 utm", PixelDataTypeGray16, 32632, {30.0, -30.0, 500000.0, 5400000.0, 0, 0}},
        {"float64 pairs, rotated, no epsg", PixelDataTypeFloat64x2, 0, {10.0, -10.0, 1000.0, 2000.0, 1.0, 0.5}},
        {"rgba64 in many strips", PixelDataTypeRgba64, 4326, {0.01, -0.01, 5.0, 55.0, 0, 0}, 1001, 900},
        {"rgba in many strips", PixelDataTypeRgba32, 4326, {0.01, -0.01, 5.0, 55.0, 0, 0}, 3001, 700},
    };
    for (const int32_t format : {ImageFileFormatTiff, ImageFileFormatTiffUncompressed})
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.name) + (format == ImageFileFormatTiff ? ", deflated" : ", stored"));
        Ptr<ITiffImage> image = NewTiff(c.width, c.height, c.type);
        if (image->GetBitsPerSample() == 8) FillRamp<uint8_t>(image.Raw());
        else if (image->GetBitsPerSample() == 16) FillRamp<int16_t>(image.Raw());
        else if (image->GetBitsPerSample() == 32) FillRamp<float>(image.Raw());
        else FillRamp<double>(image.Raw());
        if (c.type == PixelDataTypeGray16) image->SetSampleKind(SampleKindSigned);
        image->SetTransform(Transform(c.params[0], c.params[1], c.params[2], c.params[3], c.params[4], c.params[5]).Raw());
        image->SetEpsgCode(c.epsg);
        image.Cast<ITiffImage2>()->SetTextProperty("written by the tests");
        const std::string path = dir.File(std::string(c.name) + std::to_string(format) + ".tif");
        Save(image.Raw(), path, format);

        Ptr<IImage> back = Open(path);
        auto* tiff = back.Cast<ITiffImage2>();
        EXPECT_EQ(tiff->GetPixelDataType(), c.type);
        EXPECT_EQ(tiff->GetSampleKind(), image->GetSampleKind());
        EXPECT_EQ(tiff->GetEpsgCode(), c.epsg);
        EXPECT_STREQ(tiff->GetTextProperty(), "written by the tests");
        const std::vector<double> params = ParamsOf(tiff);
        ASSERT_EQ(params.size(), 6u);
        for (int i = 0; i < 6; ++i) EXPECT_DOUBLE_EQ(params[i], c.params[i]) << i;
        const size_t bytes = size_t(c.width) * c.height * image->GetSamplesPerPixel() * image->GetBitsPerSample() / 8;
        EXPECT_EQ(std::memcmp(back->GetPixelPointer(0, 0), image->GetPixelPointer(0, 0), bytes), 0);
        // A ramp packs well; stored, every byte is there.
        if (format == ImageFileFormatTiff) EXPECT_LT(std::filesystem::file_size(path), bytes);
        else EXPECT_GT(std::filesystem::file_size(path), bytes);
        if (!gdal || c.epsg == 0) continue;

        // GDAL's own decoding, stored without compression, holds the same pixels.
        ASSERT_EQ(std::system(("gdal_translate -q -co COMPRESS=NONE '" + path + "' '" + path + ".raw.tif'").c_str()), 0);
        Ptr<IImage> plain = Open(path + ".raw.tif");
        EXPECT_EQ(std::memcmp(plain->GetPixelPointer(0, 0), image->GetPixelPointer(0, 0), bytes), 0);

        ASSERT_EQ(std::system(("gdalinfo -json '" + path + "' > '" + path + ".json' 2>&1").c_str()), 0);
        const TestImages::Bytes output = TestImages::ReadFileBytes(path + ".json");
        std::string json(output.begin(), output.end());
        json.erase(std::remove_if(json.begin(), json.end(), [](char ch) { return std::isspace(uint8_t(ch)); }), json.end());
        EXPECT_NE(json.find("ID[\\\"EPSG\\\"," + std::to_string(c.epsg) + "]]\""), std::string::npos) << json;
        std::smatch m;
        const std::regex corners(R"re("upperLeft":\[([-0-9.e+]+),([-0-9.e+]+)\].*"lowerRight":\[([-0-9.e+]+),([-0-9.e+]+)\])re");
        ASSERT_TRUE(std::regex_search(json, m, corners)) << json;
        const double tolerance = c.epsg == 4326 ? 1e-9 : 1e-3;
        const double corner[4] = {c.params[2], c.params[3], c.params[2] + c.width * c.params[0],
                                  c.params[3] + c.height * c.params[1]};
        for (int i = 0; i < 4; ++i) EXPECT_NEAR(std::stod(m[i + 1]), corner[i], tolerance) << i;
    }
}

TEST(SaveImage, PngRoundTripAndRefusals) {
    TestSupport::TempDir dir;
    for (int32_t type : {PixelDataTypeGray8, PixelDataTypeGrayAlpha16, PixelDataTypeRgb24, PixelDataTypeRgba32}) {
        SCOPED_TRACE(type);
        Ptr<ITiffImage> image = NewTiff(9, 4, type);
        FillRamp<uint8_t>(image.Raw());
        const std::string path = dir.File("p" + std::to_string(type) + ".png");
        Save(image.Raw(), path, ImageFileFormatPng);
        Ptr<IImage> back = Open(path);
        ASSERT_EQ(back->GetSamplesPerPixel(), 4);
        const int32_t samples = image->GetSamplesPerPixel();
        for (int y = 0; y < 4; ++y)
            for (int x = 0; x < 9; ++x) {
                const auto* from = static_cast<uint8_t*>(image->GetPixelPointer(x, y));
                const auto* to = static_cast<uint8_t*>(back->GetPixelPointer(x, y));
                const bool grey = samples <= 2;
                EXPECT_EQ(to[0], from[0]);
                EXPECT_EQ(to[1], grey ? from[0] : from[1]);
                EXPECT_EQ(to[3], samples == 4 ? from[3] : samples == 2 ? from[1] : 255);
            }
    }

    const auto saveFailure = [](int32_t type, const std::string& path, int32_t format) {
        return Failure([&](auto error) {
            return TellarImaging_SaveImage(NewTiff(4, 4, type).Raw(), path.c_str(), format, error);
        });
    };
    const std::string path = dir.File("deep.png");
    EXPECT_EQ(saveFailure(PixelDataTypeGray16, path, ImageFileFormatPng),
              "PNG needs 8 bits per sample and 1 to 4 samples");
    EXPECT_FALSE(std::ifstream(path).good());
    EXPECT_EQ(saveFailure(PixelDataTypeGray8, dir.File("x"), 7), "Unknown image file format 7");
    EXPECT_NE(saveFailure(PixelDataTypeGray8, "/nonexistent/dir/a.tif", ImageFileFormatTiff)
                  .find("Failed to create TIFF file"),
              std::string::npos);
}

namespace {

uint16_t SampleFormatIn(const std::string& path) {
    TIFF* tif = TIFFOpen(path.c_str(), "r");
    if (!tif) return 0;
    uint16_t format = 0;
    TIFFGetFieldDefaulted(tif, TIFFTAG_SAMPLEFORMAT, &format);
    TIFFClose(tif);
    return format;
}

std::string FileText(const std::string& path) {
    const TestImages::Bytes bytes = TestImages::ReadFileBytes(path);
    return std::string(bytes.begin(), bytes.end());
}

} // namespace

// Mosaics and crops are marked signed whatever their samples: pictures are still written as
// unsigned bytes (GDAL would read 160 as -96), wide samples as floats, 16-bit data as signed.
TEST(GeoTiff, SampleFormatOfImagesMarkedSigned) {
    TestSupport::TempDir dir;
    const bool gdal = std::system("command -v gdalinfo > /dev/null 2>&1") == 0;
    const struct Case {
        int32_t type;
        uint16_t format;
        const char* gdalType;
    } cases[] = {{PixelDataTypeRgba32, SAMPLEFORMAT_UINT, "Byte"},
                 {PixelDataTypeRgb24, SAMPLEFORMAT_UINT, "Byte"},
                 {PixelDataTypeGrayAlpha16, SAMPLEFORMAT_UINT, "Byte"},
                 {PixelDataTypeGray16, SAMPLEFORMAT_INT, "Int16"},
                 {PixelDataTypeFloat32, SAMPLEFORMAT_IEEEFP, "Float32"},
                 {PixelDataTypeFloat64x2, SAMPLEFORMAT_IEEEFP, "Float64"}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.type);
        Ptr<ITiffImage> image = NewTiff(5, 3, c.type);
        if (image->GetBitsPerSample() == 8) static_cast<uint8_t*>(image->GetPixelPointer(0, 0))[0] = 160;
        image->SetSampleKind(SampleKindSigned);
        image->SetTransform(Transform(1.0, -1.0, 10.0, 50.0).Raw());
        image->SetEpsgCode(4326);
        const std::string path = dir.File("signed" + std::to_string(c.type) + ".tif");
        ASSERT_NO_THROW(Save(image.Raw(), path, ImageFileFormatTiff));
        EXPECT_EQ(SampleFormatIn(path), c.format);
        if (!gdal) continue;
        ASSERT_EQ(std::system(("gdalinfo -json -mdd IMAGE_STRUCTURE '" + path + "' > '" + path + ".json'").c_str()), 0);
        const std::string json = FileText(path + ".json");
        EXPECT_EQ(json.find("SIGNEDBYTE"), std::string::npos) << json;
        EXPECT_NE(json.find(std::string("\"type\":\"") + c.gdalType + "\""), std::string::npos) << json;
    }
}

// A save goes to a temporary file beside the target and is renamed over it: a failed save
// leaves the old file whole and no temporary file behind, a successful one keeps its mode.
TEST(SaveImage, ReplacesRegularFilesOnlyWhenComplete) {
    TestSupport::TempDir dir;
    const std::string path = dir.File("kept.tif");
    const auto failure = [&](const std::string& to, int32_t format) {
        return Failure([&](auto error) {
            return TellarImaging_SaveImage(NewTiff(0, 0, PixelDataTypeRgba32).Raw(), to.c_str(), format, error);
        });
    };
    for (const int32_t format : {ImageFileFormatTiff, ImageFileFormatPng}) {
        SCOPED_TRACE(format);
        std::ofstream(path) << "old contents";
        ::chmod(path.c_str(), 0640);
        EXPECT_NE(failure(path, format), "");
        EXPECT_EQ(FileText(path), "old contents");

        Ptr<ITiffImage> image = NewTiff(3, 2, PixelDataTypeRgba32);
        Save(image.Raw(), path, format);
        EXPECT_EQ(Open(path)->GetWidth(), 3);
        struct stat status {};
        ASSERT_EQ(::stat(path.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 0777, 0640u);
        size_t files = 0;
        for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(dir.Path())) ++files;
        EXPECT_EQ(files, 1u);
    }

    // Through a symbolic link the file it names is replaced and the link stays.
    const std::string link = dir.File("link.png");
    std::filesystem::create_symlink(path, link);
    Save(NewTiff(4, 1, PixelDataTypeRgba32).Raw(), link, ImageFileFormatPng);
    EXPECT_TRUE(std::filesystem::is_symlink(link));
    EXPECT_EQ(Open(path)->GetWidth(), 4);

    // A pipe is written in place, and a failure never removes it.
    const std::string fifo = dir.File("pipe");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_NE(failure(fifo, ImageFileFormatPng), "");
    EXPECT_TRUE(std::filesystem::is_fifo(fifo));
    const int reader = ::open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(reader, 0);
    Save(NewTiff(2, 2, PixelDataTypeRgba32).Raw(), fifo, ImageFileFormatPng);
    char signature[8] = {};
    EXPECT_EQ(::read(reader, signature, sizeof signature), 8);
    ::close(reader);
    EXPECT_EQ(std::string(signature + 1, 3), "PNG");
    EXPECT_TRUE(std::filesystem::is_fifo(fifo));

    // A full device fails the save and stays.
    if (::access("/dev/full", W_OK) == 0) {
        EXPECT_NE(Failure([&](auto error) {
                      return TellarImaging_SaveImage(NewTiff(64, 64, PixelDataTypeRgba32).Raw(), "/dev/full",
                                                     ImageFileFormatPng, error);
                  }),
                  "");
        struct stat status {};
        EXPECT_EQ(::stat("/dev/full", &status), 0);
        EXPECT_TRUE(S_ISCHR(status.st_mode));
    }
}
