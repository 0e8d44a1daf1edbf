#include <gtest/gtest.h>

#include <string>

#include "Core/ObjectImplBase.h"
#include "MessageOf.h"
#include "RasterTestSupport.h"

using namespace RasterTests;
using Tellar::Interfaces::ICrsTransformation;
using Tellar::Interfaces::TransformForward;
using TestSupport::MessageOf;

namespace {

class FakeCrs final : public Core::LightObjectImplBase<ICrs> {
public:
    FakeCrs(uint32_t code, std::string text) : code_(code), text_(std::move(text)) {}
    uint32_t GetEpsgCode() const noexcept override { return code_; }
    const char* GetProj4Text() const noexcept override { return text_.c_str(); }
    const char* GetName() const noexcept override { return "fake"; }
    const char* GetWkt() const noexcept override { return ""; }
    bool IsGeographic() const noexcept override { return true; }

private:
    uint32_t code_;
    std::string text_;
};

// Points in and around Germany and the United States, run through a transformation.
std::vector<double> Sample(ICrsTransformation* transformation) {
    std::vector<double> x = {-100.0, -75.5, -120.25, 8.5, 13.4, 10.0};
    std::vector<double> y = {40.0, 39.0, 36.5, 50.0, 52.5, 48.0};
    Ptr<Core::IErrorCode> error;
    transformation->TransformArrays(x.size(), TransformForward, x.data(), y.data(), nullptr, error.ReceiveAddress());
    Core::ThrowIfError(error);
    x.insert(x.end(), y.begin(), y.end());
    return x;
}

Ptr<ICrsTransformation> Made(bool intermediate, uint32_t from, uint32_t to) {
    const auto create = intermediate ? TellarSpatialProjection_CreateCrsTransformationWithIntermediateWgs84Transform
                                     : TellarSpatialProjection_CreateCrsTransformation;
    return BoundaryCalls::Made<ICrsTransformation>(
        [&](auto out, auto error) { create(Crs(from).Raw(), Crs(to).Raw(), out, error); });
}

} // namespace

TEST(CrsTransformationHolder, DatumIsReadyWithAShiftToWgs84OrForWgs84AndWebMercator) {
    struct Row {
        uint32_t code;
        const char* text;
        bool ready;
    } rows[] = {
        {4326, "", true},
        {3857, "", true},
        {0, "+towgs84", true}, // exactly eight characters
        {0, "+towgs8", false},
        {4314, "+proj=longlat +ellps=bessel +towgs84=598.1,73.7,418.2 +no_defs", true},
        {4267, "+proj=longlat +datum=NAD27 +no_defs +type=crs", false},
        {4258, "+TOWGS84=0,0,0", false}, // the text is matched as written
        {4269, "", false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.text);
        FakeCrs crs(row.code, row.text);
        EXPECT_EQ(CrsTransformationHolder::IsDatumReady(&crs), row.ready);
    }
    // What the projection library says about real codes.
    EXPECT_TRUE(CrsTransformationHolder::IsDatumReady(Crs(4314).Raw()));  // DHDN, a Helmert shift
    EXPECT_FALSE(CrsTransformationHolder::IsDatumReady(Crs(4267).Raw())); // NAD27, grids only
}

TEST(CrsTransformationHolder, MissingSideOrSameCodeGivesTheNoOpTransformation) {
    const Ptr<ICrs> mercator = Crs(3857);
    const Ptr<ICrs> again = Crs(3857);
    struct Row {
        Ptr<ICrs> from, to;
    } rows[] = {{mercator, nullptr}, {nullptr, mercator}, {nullptr, nullptr}, {mercator, again}};
    for (const Row& row : rows) {
        CrsTransformationHolder holder(row.from, row.to);
        EXPECT_TRUE(holder.noOp);
        ASSERT_TRUE(holder.transformation.Raw());
        EXPECT_TRUE(holder.transformation->IsNoOp());
        EXPECT_EQ(holder.transformation->GetSourceCrs(), row.from.Raw());
        EXPECT_EQ(holder.transformation->GetTargetCrs(), row.to.Raw());
        EXPECT_EQ(Sample(holder.transformation.Raw()), Sample(Made(false, 4326, 4326).Raw()));
    }
}

TEST(CrsTransformationHolder, ReadyDatumsGoDirectOthersThroughWgs84) {
    struct Row {
        uint32_t from, to;
        bool intermediate;
    } rows[] = {
        {4326, 3857, false},
        {4314, 4258, false}, // DHDN to ETRS89: both carry a shift
        {4267, 4269, true},  // NAD27 to NAD83: no shift in NAD27's text
        {4267, 3857, true},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(std::to_string(row.from) + " -> " + std::to_string(row.to));
        CrsTransformationHolder holder(Crs(row.from), Crs(row.to));
        EXPECT_FALSE(holder.noOp);
        EXPECT_FALSE(holder.transformation->IsNoOp());
        const std::vector<double> got = Sample(holder.transformation.Raw());
        EXPECT_EQ(got, Sample(Made(row.intermediate, row.from, row.to).Raw()));
        if (row.from != 4326) { // the two roads part here, so the comparison above tells them apart
            EXPECT_NE(got, Sample(Made(!row.intermediate, row.from, row.to).Raw()));
        }
    }
}

TEST(CrsTransformationHolder, FailureOfTheProjectionLibraryIsThrownAsItsText) {
    const Ptr<ICrs> unknown = Core::MakeObject<FakeCrs>(999999, "");
    const std::string text = MessageOf([&] { CrsTransformationHolder(unknown, Crs(4326)); });
    EXPECT_EQ(text.rfind("Unknown EPSG code 999999", 0), 0u) << text;
}
