#include <gtest/gtest.h>

#include <random>

#include "ImageWriters.h"
#include "MessageOf.h"
#include "Private/Spatial/Raster/AffineMap.h"
#include "Private/Spatial/Raster/ImageBase.h"
#include "RasterTestSupport.h"
#include "TempDir.h"

using namespace RasterTests;
using TestSupport::MessageOf;
using namespace TellarImaging;

namespace {

// A tiled RGBA TIFF of position colours, decoded by the imaging library.
Ptr<IImage> TiledImage(const TestSupport::TempDir& dir, int32_t width, int32_t height, int32_t tile) {
    TestImages::TiffLayout layout{.width = width,
                                  .height = height,
                                  .samples = 4,
                                  .tiled = true,
                                  .tileWidth = tile,
                                  .tileHeight = tile,
                                  .pixels = TestImages::Bytes(size_t(width) * height * 4)};
    for (int32_t y = 0; y < height; ++y)
        for (int32_t x = 0; x < width; ++x) {
            const uint32_t colour = PositionColour(x, y);
            std::memcpy(layout.pixels.data() + (size_t(y) * width + x) * 4, &colour, 4);
        }
    const TestImages::Bytes bytes = TestImages::EncodeTiff(layout, dir.File("tiled.tif"));
    return BoundaryCalls::Made<IImage>(
        [&](auto out, auto error) { CreateImageFromMemoryStream(bytes.data(), bytes.size(), out, error); });
}

} // namespace

TEST(MemoryPixelAccessor, LayoutFieldsFollowTheImage) {
    struct Row {
        int32_t kind, samples, bits;
        int32_t pixelSize;
        uint64_t valueBytes, lowMask, highMask;
    } rows[] = {
        {1, 4, 8, 4, 4, 0xFFFFFFFFull, 0xFFFFFFFF00000000ull}, {1, 1, 16, 2, 2, 0xFFFFull, 0xFFFFFFFFFFFF0000ull},
        {1, 3, 8, 3, 3, 0xFFFFFFull, 0xFFFFFFFFFF000000ull},   {3, 1, 64, 8, 4, 0xFFFFFFFFull, 0xFFFFFFFF00000000ull},
        {1, 1, 8, 1, 1, 0xFFull, 0xFFFFFFFFFFFFFF00ull},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.pixelSize);
        Ptr<ITiffImage> image = NewTiff(7, 5, row.kind, row.samples, row.bits);
        MemoryPixelAccessor accessor(image.Raw(), 4);
        EXPECT_EQ(accessor.pixelSize, row.pixelSize);
        EXPECT_EQ(accessor.valueBytes, row.valueBytes);
        EXPECT_EQ(accessor.lowMask, row.lowMask);
        EXPECT_EQ(accessor.highMask, row.highMask);
        for (int32_t y = 0; y < 5; ++y)
            for (int32_t x = 0; x < 7; ++x) {
                EXPECT_EQ(accessor.GetPixel(x, y), image->GetPixelPointer(x, y));
                EXPECT_EQ(accessor.GetPixelAt(y * 7 + x), image->GetPixelPointer(x, y));
            }
    }
}

TEST(MemoryPixelAccessor, BytesRoundTripAndSizeIsChecked) {
    Ptr<ITiffImage> image = NewTiff(3, 2, 1, 1, 16);
    MemoryPixelAccessor accessor(image.Raw(), 4);
    std::vector<uint8_t> bytes(12);
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = uint8_t(i * 7 + 1);
    accessor.SetBytes(bytes.data(), bytes.size());
    EXPECT_EQ(PixelAs<uint16_t>(image.Raw(), 2, 1), uint16_t(bytes[10] | bytes[11] << 8));
    EXPECT_EQ(accessor.GetBytes(), bytes);
    EXPECT_EQ(MessageOf([&] { accessor.SetBytes(bytes.data(), 13); }), "Invalid size!");
    EXPECT_EQ(MessageOf([&] { accessor.SetBytes(bytes.data(), 11); }), "Invalid size!");
    EXPECT_EQ(accessor.GetBytes(), bytes);
    EXPECT_EQ(MessageOf([] { MemoryPixelAccessor(nullptr, 4); }), "Invalid interface");
}

TEST(TilePixelAccessor, ReadsEveryPixelThroughItsTile) {
    TestSupport::TempDir dir;
    Ptr<IImage> image = TiledImage(dir, 40, 20, 16);
    ASSERT_NE(dynamic_cast<ITiledTiffImage*>(image.Raw()), nullptr);
    ImageBase base = CreateImageBase(image.Raw());
    auto* accessor = dynamic_cast<TilePixelAccessor*>(base.accessor.get());
    ASSERT_NE(accessor, nullptr);
    // Across tile borders in both directions, and back to an earlier tile.
    for (int32_t y = 0; y < 20; ++y)
        for (int32_t x = 0; x < 40; ++x) {
            uint32_t value;
            std::memcpy(&value, accessor->GetPixel(x, y), 4);
            ASSERT_EQ(value, PositionColour(x, y)) << x << "," << y;
            std::memcpy(&value, accessor->GetPixelAt(int64_t(y) * 40 + x), 4);
            ASSERT_EQ(value, PositionColour(x, y));
        }
    accessor->LoadTile(17, 3);
    EXPECT_EQ(accessor->currentColumn, 1);
    EXPECT_EQ(accessor->currentRow, 0);
    IImage* kept = accessor->currentTile.Raw();
    accessor->LoadTile(31, 15); // same tile: kept
    EXPECT_EQ(accessor->currentTile.Raw(), kept);
    EXPECT_NE(accessor->GetPixel(47, 19), nullptr); // the padding of the edge tile
    EXPECT_EQ(accessor->GetPixel(48, 0), nullptr);  // past the last tile: no tile to read
    EXPECT_EQ(MessageOf([&] { accessor->GetBytes(); }), "Not implemented.");
    EXPECT_EQ(MessageOf([&] { accessor->SetBytes(nullptr, 0); }), "Not implemented.");
    EXPECT_EQ(MessageOf([] { TilePixelAccessor(nullptr, 4); }), "Invalid interface");
}

TEST(ImageBase, WrappersMarkTheirSampleKindAndShareOnCopy) {
    EXPECT_EQ(MessageOf([] { CreateImageBase(nullptr); }), "pImage = null");
    EXPECT_EQ(MessageOf([] { CreateImageBase(4, 4, 999); }), "Unsupported PixelDataType specified!");

    ImageBase made = CreateImageBase(6, 4, PixelDataTypeRgba32);
    EXPECT_EQ(made.image.As<ITiffImage>()->GetSampleKind(), SampleKindSigned);
    ASSERT_NE(dynamic_cast<MemoryPixelAccessor*>(made.accessor.get()), nullptr);
    FillPositions(made.image.Raw());
    const ImageBase copy = made;
    EXPECT_EQ(copy.image.Raw(), made.image.Raw());
    EXPECT_EQ(copy.accessor.get(), made.accessor.get());

    const ImageBase cropped = CropImageBase(made, 2, 1, 3, 2);
    EXPECT_EQ(cropped.image->GetWidth(), 3);
    EXPECT_EQ(cropped.image->GetHeight(), 2);
    EXPECT_EQ(cropped.image.As<ITiffImage>()->GetSampleKind(), SampleKindSigned);
    uint32_t value;
    std::memcpy(&value, cropped.accessor->GetPixel(1, 1), 4);
    EXPECT_EQ(value, PositionColour(3, 2));

    // A plain image is converted; a TIFF image is taken as it is; float data is marked float.
    const Ptr<IImage> plain = PlainImage(5, 3);
    const ImageBase converted = ToTiffImageBase(plain.Raw());
    ASSERT_NE(dynamic_cast<ITiffImage*>(converted.image.Raw()), nullptr);
    EXPECT_EQ(PixelAs<uint32_t>(converted.image.Raw(), 4, 2), PositionColour(4, 2));
    Ptr<ITiffImage> gray16 = NewTiff(2, 2, SampleKindSigned, 1, 16);
    Ptr<ITiffImage> float32;
    CreateTiffImage(2, 2, PixelDataTypeFloat32, float32.ReceiveAddress(), nullptr);
    const ImageBase asFloat = ToTiffImageBase(float32.Raw());
    EXPECT_EQ(asFloat.image.Raw(), static_cast<IImage*>(float32.Raw()));
    EXPECT_EQ(float32->GetSampleKind(), SampleKindFloat);
    ToTiffImageBase(gray16.Raw());
    EXPECT_EQ(gray16->GetSampleKind(), SampleKindSigned);
}

TEST(AffineMap, GivesTheBitsOfTheTransformItself) {
    std::mt19937_64 random(42);
    std::uniform_real_distribution<double> world(-2.0e7, 2.0e7), pixel(-100.0, 5000.0);
    const Ptr<ITransform> transforms[] = {
        Transform(0.1, -0.1, 5.0, 55.0),
        Transform(152.87405657041106, -152.87405657041106, -20037508.342789244, 20037508.342789244),
        Transform(30.0, -29.0, 1000.0, 2000.0, 3.5, -1.25),
    };
    for (const Ptr<ITransform>& transform : transforms) {
        const Tellar::Spatial::Raster::AffineMap map(*transform);
        for (int i = 0; i < 2000; ++i) {
            double ex, ey, ez, gx, gy;
            const double wx = world(random), wy = world(random);
            transform->WorldToPixel(wx, wy, 0.0, &ex, &ey, &ez);
            map.ToPixel(wx, wy, gx, gy);
            ASSERT_EQ(gx, ex);
            ASSERT_EQ(gy, ey);
            const double px = pixel(random), py = pixel(random);
            transform->PixelToWorld(px, py, &ex, &ey, &ez);
            map.ToWorld(px, py, gx, gy);
            ASSERT_EQ(gx, ex);
            ASSERT_EQ(gy, ey);
        }
    }
}
