#include <gtest/gtest.h>

#include <cmath>

#include "Core/StringFormat.h"
#include "Core/TypeName.h"
#include "MessageOf.h"
#include "Private/Spatial/Raster/RasterUtils.h"
#include "RasterTestSupport.h"
#include "RecordingLogger.h"

using namespace RasterTests;
using Tellar::Spatial::Raster::RasterUtils;
using TestSupport::MessageOf;
using namespace TellarImaging;

namespace {

constexpr const char* kFunction = "Tellar::Spatial::Raster::RasterUtils::ReprojectImage";
constexpr uint32_t kNaN = 0x7FC00000u; // the no-data fill of a one-sample float raster

// Target pixels (every `step`th column from `firstRow` on) against the yardstick of PROJ and the
// source's own transform: the bytes of the source pixel the centre of a 4326 target pixel lands
// on in the 3857 source, or `fill` outside. Centres within a hair of a source pixel edge, where
// rounding may go either way, are skipped.
struct Counts {
    int64_t inside = 0, outside = 0;
};
Counts ExpectLanded(IImage* source, IImage* target, std::vector<uint8_t> fill, int32_t firstRow = 0, int32_t step = 1) {
    const ProjDirect proj(4326, 3857);
    Ptr<ITransform> sourceTransform, targetTransform;
    dynamic_cast<ITiffImage*>(source)->GetTransform(sourceTransform.ReceiveAddress(), nullptr);
    dynamic_cast<ITiffImage*>(target)->GetTransform(targetTransform.ReceiveAddress(), nullptr);
    const int32_t width = source->GetWidth(), height = source->GetHeight();
    const auto nearEdge = [](double v, int32_t size) {
        return std::abs(v - std::round(v)) < 1e-6 && v > -1.0 && v < size + 1.0;
    };
    const size_t bytes = fill.size();
    Counts counts;
    for (int32_t r = firstRow; r < target->GetHeight(); ++r)
        for (int32_t c = 0; c < target->GetWidth(); c += step) {
            double x, y, z, px, py;
            targetTransform->PixelToWorld(c + 0.5, r + 0.5, &x, &y, &z);
            proj.Apply(x, y);
            sourceTransform->WorldToPixel(x, y, 0.0, &px, &py, &z);
            if (nearEdge(px, width) || nearEdge(py, height)) continue;
            const bool inside = px >= 0.0 && py >= 0.0 && px < width && py < height;
            const auto* expected =
                inside ? static_cast<const uint8_t*>(source->GetPixelPointer(int32_t(px), int32_t(py))) : fill.data();
            const auto* got = static_cast<const uint8_t*>(target->GetPixelPointer(c, r));
            EXPECT_EQ(std::vector<uint8_t>(got, got + bytes), std::vector<uint8_t>(expected, expected + bytes))
                << "pixel " << c << "," << r;
            if (std::memcmp(got, expected, bytes) != 0) return counts;
            ++(inside ? counts.inside : counts.outside);
        }
    EXPECT_GT(counts.inside, 0);
    return counts;
}

Ptr<ITiffImage> PositionImage(int32_t width, int32_t height, ITransform* transform, uint32_t epsg) {
    Ptr<ITiffImage> image = NewTiff(width, height, SampleKindUnsigned, 4, 8, transform, epsg);
    FillPositions(image.Raw());
    return image;
}

std::vector<uint8_t> BytesOf(IImage* image) {
    const auto* data = static_cast<const uint8_t*>(image->GetPixelPointer(0, 0));
    return {data, data + size_t(image->GetWidth()) * image->GetHeight() * image->GetSamplesPerPixel() *
                             (image->GetBitsPerSample() / 8)};
}

} // namespace

TEST(ReprojectImage, SameCodeOrMissingSideGivesACopyAndSaysSo) {
    Ptr<ITiffImage> source = PositionImage(33, 21, Transform(10.0, -10.0, 0.0, 0.0).Raw(), 3857);
    source->SetIntProperty(5);
    const CrsTransformationHolder holders[] = {Holder(3857, 3857), CrsTransformationHolder(Crs(3857), nullptr),
                                               CrsTransformationHolder(nullptr, Crs(4326))};
    for (const CrsTransformationHolder& holder : holders) {
        TestSupport::ScopedRecordingLogger logger;
        logger->showLine = true;
        Ptr<IImage> copy = RasterUtils::ReprojectImage(source.Raw(), holder);
        EXPECT_NE(copy.Raw(), static_cast<IImage*>(source.Raw()));
        EXPECT_EQ(BytesOf(copy.Raw()), BytesOf(source.Raw()));
        EXPECT_EQ(copy.As<ITiffImage>()->GetIntProperty(), 5);
        EXPECT_EQ(ParamsOf(copy.Raw()), ParamsOf(source.Raw()));
        const auto lines = logger->Lines();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].text,
                  "DEBUG: Skipping reprojection due no transformation (source and target are either "
                  "same or one is null) [" +
                      std::string(kFunction) + "] (Line: 505)");
    }
    EXPECT_THROW(RasterUtils::ReprojectImage(nullptr, Holder(3857, 3857)), std::runtime_error);
}

TEST(ReprojectImage, MercatorToGeographicLandsEveryPixelWherePROJSays) {
    // 512 x 384 pixels of 200 m over the Rhine valley.
    Ptr<ITiffImage> source = PositionImage(512, 384, Transform(200.0, -200.0, 900000.0, 6500000.0).Raw(), 3857);
    source->SetIntProperty(17);
    source->SetListValue(2, 9);
    source->SetListValue(0, 3);
    source.As<ITiffImage2>()->SetTextProperty("relief");
    const Ptr<ITransform> tag = Transform(1.0, -1.0, 0.0, 0.0);
    source.As<ITiffImage2>()->SetObjectProperty(tag.Raw(), 0, nullptr);

    TestSupport::ScopedRecordingLogger logger;
    logger->showLine = true;
    logger->showFunction = false;
    Ptr<IImage> result = RasterUtils::ReprojectImage(source.Raw(), Holder(3857, 4326));
    auto target = result.As<ITiffImage2>();

    // The grid: the box of the corners, the resolution of the first pixel.
    double x0 = 900000.0, y0 = 6500000.0, x1 = 900000.0 + 512 * 200.0, y1 = 6500000.0 - 384 * 200.0;
    double px1 = 900200.0, py1 = 6499800.0;
    const ProjDirect toGeographic(3857, 4326);
    toGeographic.Apply(x0, y0);
    toGeographic.Apply(x1, y1);
    toGeographic.Apply(px1, py1);
    const double resX = px1 - x0, resY = py1 - y0;
    const std::vector<double> params = ParamsOf(target.Raw());
    ASSERT_EQ(params.size(), 6u);
    const double expect[6] = {resX, resY, x0, y0, 0.0, 0.0};
    for (int i = 0; i < 6; ++i) EXPECT_DOUBLE_EQ(params[i], expect[i]) << i;
    EXPECT_NEAR(target->GetWidth(), std::trunc((x1 - x0) / resX) + 1, 1);
    EXPECT_NEAR(target->GetHeight(), std::abs(std::trunc((y1 - y0) / resY)) + 1, 1);
    EXPECT_EQ(target->GetEpsgCode(), 4326u);

    ExpectLanded(source.Raw(), target.Raw(), {0, 0, 0, 0});

    // Metadata comes along.
    EXPECT_EQ(target->GetIntProperty(), 17);
    ASSERT_EQ(target->GetListCount(), 3u);
    EXPECT_EQ(target->GetListValue(0), 3);
    EXPECT_EQ(target->GetListValue(2), 9);
    EXPECT_STREQ(target->GetTextProperty(), "relief");
    Ptr<Core::IObject> object;
    target->GetObjectProperty(object.ReceiveAddress(), 0, nullptr);
    EXPECT_EQ(object.Raw(), static_cast<Core::IObject*>(tag.Raw()));

    const auto lines = logger->Lines();
    ASSERT_EQ(lines.size(), 6u);
    EXPECT_EQ(
        lines[0].text.rfind("DEBUG: Reprojecting image (512x384) from [" + std::string(Crs(3857)->GetProj4Text()) +
                                "] to [" + Crs(4326)->GetProj4Text() + "]",
                            0),
        0u)
        << lines[0].text;
    EXPECT_EQ(lines[1].text, "DEBUG: pt0, {900000.000000 6500000.000000} (Line: 524)");
    EXPECT_EQ(lines[2].text, "DEBUG: pt1, {900200.000000 6499800.000000} (Line: 525)");
    EXPECT_EQ(lines[3].text, Core::StringFormat("DEBUG: New Res: {%f %f} (Line: 528)", resX, resY));
    EXPECT_EQ(lines[4].text, Core::StringFormat("DEBUG: Resampled image res: {%dx%d} (Line: 538)", target->GetWidth(),
                                                target->GetHeight()));
    EXPECT_EQ(lines[5].text.rfind(Core::StringFormat("DEBUG: New BBox: [%f %f] [%f %f]", x0, y1, x1, y0), 0), 0u)
        << lines[5].text;
}

TEST(ReprojectImage, OutsideTheSourceKeepsTheFillNaNForOneFloatSample) {
    struct Row {
        int32_t kind, samples, bits;
        bool nan;
    } rows[] = {{SampleKindFloat, 1, 32, true}, {SampleKindFloat, 2, 32, false}, {SampleKindUnsigned, 1, 16, false}};
    // A source turned by about 11 degrees: the box of its corners holds much that is outside.
    const Ptr<ITransform> turned = Transform(98.0, -98.0, 1.2e6, 6.3e6, 19.0, 19.0);
    for (const Row& row : rows) {
        SCOPED_TRACE(row.samples * 100 + row.bits);
        Ptr<ITiffImage> source = NewTiff(60, 40, row.kind, row.samples, row.bits, turned.Raw(), 3857);
        const int32_t bytes = row.samples * row.bits / 8;
        for (int32_t i = 0; i < 60 * 40; ++i) {
            const float value = float(1 + i);
            const auto word = uint16_t(1 + i);
            auto* pixel = static_cast<uint8_t*>(source->GetPixelPointer(i % 60, i / 60));
            if (row.kind == SampleKindFloat)
                for (int32_t s = 0; s < row.samples; ++s) std::memcpy(pixel + 4 * s, &value, 4);
            else
                std::memcpy(pixel, &word, 2);
        }
        Ptr<IImage> target = RasterUtils::ReprojectImage(source.Raw(), Holder(3857, 4326));
        std::vector<uint8_t> fill(size_t(bytes), 0);
        if (row.nan) std::memcpy(fill.data(), &kNaN, 4);
        const Counts counts = ExpectLanded(source.Raw(), target.Raw(), fill);
        EXPECT_GT(counts.inside, 1000);
        EXPECT_GT(counts.outside, 100);
        EXPECT_EQ(target.As<ITiffImage>()->GetSampleKind(), row.kind);
    }
}

TEST(ReprojectImage, NonTiffSourceOrEmptyHolderFailsWithTheTexts) {
    const Ptr<IImage> plain = PlainImage(8, 8);
    EXPECT_EQ(MessageOf([&] { RasterUtils::ReprojectImage(plain.Raw(), Holder(3857, 4326)); }),
              "Null pointer exception! Interface is not accessible: " + Core::TypeName<ITransform>());
    Ptr<ITiffImage> source = PositionImage(8, 8, Transform(1.0, -1.0, 0.0, 0.0).Raw(), 3857);
    EXPECT_EQ(MessageOf([&] { RasterUtils::ReprojectImage(source.Raw(), CrsTransformationHolder()); }),
              "Interface is not accessible: " + Core::TypeName<Tellar::Interfaces::ICrsTransformation>());
}

// More threads allowed than there are rows: a thread to each row, and the call ends.
TEST(ReprojectImage, WidePictureOfFewRowsEnds) {
    constexpr int32_t kWidth = 1600000;
    Ptr<ITiffImage> source = PositionImage(kWidth, 1, Transform(10.0, -10.0, -8.0e6, 1.0e6).Raw(), 3857);
    Ptr<IImage> target = RasterUtils::ReprojectImage(source.Raw(), Holder(3857, 4326), 8);
    ASSERT_EQ(target->GetHeight(), 2);
    ASSERT_GE(int64_t(target->GetWidth()) * target->GetHeight() / 1000000, 3); // three threads' worth for two rows
    EXPECT_GT(ExpectLanded(source.Raw(), target.Raw(), {0, 0, 0, 0}, 0, 997).inside, 1000);
}

// Two threads on an odd number of rows, so one stretch is a row longer; the result doesn't depend
// on the number of threads.
TEST(ReprojectImage, HeightNotAMultipleOfTheThreads) {
    Ptr<ITiffImage> source = PositionImage(1001, 2000, Transform(100.0, -100.0, 500000.0, 150000.0).Raw(), 3857);
    Ptr<IImage> single = RasterUtils::ReprojectImage(source.Raw(), Holder(3857, 4326), 1);
    Ptr<IImage> split = RasterUtils::ReprojectImage(source.Raw(), Holder(3857, 4326), 2);
    const int64_t pixels = int64_t(split->GetWidth()) * split->GetHeight();
    ASSERT_GE(pixels / 1000000, 2);
    ASSERT_LT(pixels / 1000000, 3);
    ASSERT_NE(split->GetHeight() % 2, 0) << "the grid no longer leaves a shorter stretch";
    EXPECT_EQ(BytesOf(split.Raw()), BytesOf(single.Raw()));
    ExpectLanded(source.Raw(), split.Raw(), {0, 0, 0, 0}, split->GetHeight() - 3);
}
