// Our reprojection beside GDAL's, on the same target grid.
#include <gtest/gtest.h>

#include <cstdlib>

#include "Core/StringFormat.h"
#include "Private/Spatial/Raster/RasterUtils.h"
#include "RasterTestSupport.h"
#include "TempDir.h"

using namespace RasterTests;
using Tellar::Spatial::Raster::RasterUtils;
using namespace TellarImaging;

namespace {

// A Web Mercator RGBA picture of `width` x `height` pixels of `pixelSize` metres from the top left
// corner (`left`, `top`), reprojected to EPSG:4326 by us with `cores` and by gdalwarp on our grid:
// every pixel the same.
void ExpectSameAsGdalwarp(int32_t width, int32_t height, double pixelSize, double left, double top, uint32_t cores) {
    TestSupport::TempDir dir;
    Ptr<ITiffImage> source =
        NewTiff(width, height, SampleKindUnsigned, 4, 8, Transform(pixelSize, -pixelSize, left, top).Raw(), 3857);
    FillPositions(source.Raw());
    const std::string sourcePath = dir.File("source.tif"), gdalPath = dir.File("gdal.tif");
    Ptr<Core::IErrorCode> error;
    TellarImaging_SaveImage(source.Raw(), sourcePath.c_str(), ImageFileFormatTiff, error.ReceiveAddress());
    Core::ThrowIfError(error);

    Ptr<IImage> ours = RasterUtils::ReprojectImage(source.Raw(), Holder(3857, 4326), cores);
    const std::vector<double> p = ParamsOf(ours.Raw());
    ASSERT_EQ(p.size(), 6u);
    const int32_t targetWidth = ours->GetWidth(), targetHeight = ours->GetHeight();
    const std::string command = Core::StringFormat(
        "gdalwarp -q -overwrite -r near -et 0 -t_srs EPSG:4326 -te %.17g %.17g %.17g %.17g -ts %d %d '%s' '%s'", p[2],
        p[3] + targetHeight * p[1], p[2] + targetWidth * p[0], p[3], targetWidth, targetHeight, sourcePath.c_str(),
        gdalPath.c_str());
    ASSERT_EQ(std::system(command.c_str()), 0) << command;

    const Ptr<IImage> theirs =
        BoundaryCalls::Made<IImage>([&](auto out, auto error) { OpenImageA(gdalPath.c_str(), out, error); });
    ASSERT_EQ(theirs->GetWidth(), targetWidth);
    ASSERT_EQ(theirs->GetHeight(), targetHeight);
    ASSERT_EQ(theirs->GetSamplesPerPixel(), 4);
    ASSERT_EQ(theirs->GetBitsPerSample(), 8);

    int64_t differ = 0, covered = 0;
    for (int32_t y = 0; y < targetHeight; ++y)
        for (int32_t x = 0; x < targetWidth; ++x) {
            const auto mine = PixelAs<uint32_t>(ours.Raw(), x, y), gdal = PixelAs<uint32_t>(theirs.Raw(), x, y);
            covered += mine != 0;
            if (mine != gdal && ++differ <= 5)
                ADD_FAILURE() << "pixel " << x << "," << y << ": " << mine << " against " << gdal;
        }
    const int64_t total = int64_t(targetWidth) * targetHeight;
    EXPECT_GT(covered, total * 9 / 10); // the comparison is about real pixels, not fill
    EXPECT_EQ(differ, 0) << "of " << total << " pixels";
    testing::Test::RecordProperty(Core::StringFormat("pixels %dx%d", targetWidth, targetHeight),
                                  std::to_string(differ) + " differ");
}

} // namespace

// The Alps at 150 m on one thread; Scandinavia at 250 m on three stretches of rows, of which
// the last is longer.
TEST(ReprojectImage, AgreesWithGdalwarpNearestNeighbour) {
    if (std::system("command -v gdalwarp > /dev/null 2>&1") != 0) GTEST_SKIP() << "gdalwarp is not installed";
    {
        SCOPED_TRACE("Alps");
        ExpectSameAsGdalwarp(700, 500, 150.0, 650000.0, 6000000.0, 1);
    }
    {
        SCOPED_TRACE("Scandinavia");
        ExpectSameAsGdalwarp(2000, 1600, 250.0, 1.0e6, 8.6e6, 3);
    }
}
