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

TEST(ReprojectImage, AgreesWithGdalwarpNearestNeighbour) {
    if (std::system("command -v gdalwarp > /dev/null 2>&1") != 0) GTEST_SKIP() << "gdalwarp is not installed";
    TestSupport::TempDir dir;

    // 700 x 500 pixels of 150 m over the Alps, in Web Mercator.
    Ptr<ITiffImage> source =
        NewTiff(700, 500, SampleKindUnsigned, 4, 8, Transform(150.0, -150.0, 650000.0, 6000000.0).Raw(), 3857);
    FillPositions(source.Raw());
    const std::string sourcePath = dir.File("source.tif"), gdalPath = dir.File("gdal.tif");
    Ptr<Core::IErrorCode> error;
    TellarImaging_SaveImage(source.Raw(), sourcePath.c_str(), ImageFileFormatTiff, error.ReceiveAddress());
    Core::ThrowIfError(error);

    Ptr<IImage> ours = RasterUtils::ReprojectImage(source.Raw(), Holder(3857, 4326));
    const std::vector<double> p = ParamsOf(ours.Raw());
    ASSERT_EQ(p.size(), 6u);
    const int32_t width = ours->GetWidth(), height = ours->GetHeight();
    const std::string command = Core::StringFormat(
        "gdalwarp -q -overwrite -r near -et 0 -t_srs EPSG:4326 -te %.17g %.17g %.17g %.17g -ts %d %d '%s' '%s'", p[2],
        p[3] + height * p[1], p[2] + width * p[0], p[3], width, height, sourcePath.c_str(), gdalPath.c_str());
    ASSERT_EQ(std::system(command.c_str()), 0) << command;

    const Ptr<IImage> theirs =
        BoundaryCalls::Made<IImage>([&](auto out, auto error) { OpenImageA(gdalPath.c_str(), out, error); });
    ASSERT_EQ(theirs->GetWidth(), width);
    ASSERT_EQ(theirs->GetHeight(), height);
    ASSERT_EQ(theirs->GetSamplesPerPixel(), 4);
    ASSERT_EQ(theirs->GetBitsPerSample(), 8);

    int64_t same = 0, covered = 0;
    for (int32_t y = 0; y < height; ++y)
        for (int32_t x = 0; x < width; ++x) {
            const auto mine = PixelAs<uint32_t>(ours.Raw(), x, y);
            same += mine == PixelAs<uint32_t>(theirs.Raw(), x, y);
            covered += mine != 0;
        }
    const double total = double(width) * height;
    EXPECT_GT(covered, total * 0.9); // the comparison is about real pixels, not fill
    EXPECT_GE(same / total, 0.999) << same << " of " << total << " pixels agree";
    RecordProperty("agreement", Core::StringFormat("%.6f", same / total));
}
