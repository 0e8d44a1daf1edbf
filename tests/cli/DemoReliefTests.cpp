#include <gtest/gtest.h>

#include <cstdlib>

#include "DemoRelief.h"

using TellarMaps::RenderReliefTile;

namespace {

int Brightness(const std::vector<uint8_t>& tile, int row, int column) {
    const uint8_t* p = &tile[(static_cast<size_t>(row) * TellarMaps::ReliefTileSize + column) * 4];
    return p[0] + p[1] + p[2];
}

} // namespace

TEST(DemoRelief, TilesAreOpaqueDeterministicAndShowLandAndSea) {
    const auto world = RenderReliefTile(0, 0, 0);
    ASSERT_EQ(world.size(), 256u * 256u * 4u);
    EXPECT_EQ(world, RenderReliefTile(0, 0, 0));
    size_t sea = 0, land = 0;
    for (size_t i = 0; i < world.size(); i += 4) {
        EXPECT_EQ(world[i + 3], 255);
        // Sea is the only place where blue outweighs red.
        (world[i + 2] > world[i] + 40 ? sea : land)++;
    }
    EXPECT_GT(sea, world.size() / 4 / 5);
    EXPECT_GT(land, world.size() / 4 / 5);
    EXPECT_NEAR(TellarMaps::ReliefHeight(-350.0, 20.0), TellarMaps::ReliefHeight(10.0, 20.0), 1e-6)
        << "heights wrap around the antimeridian";
}

TEST(DemoRelief, GraticuleMarksTheGreenwichMeridian) {
    // At zoom 1 the meridian of 0 degrees is the right edge of tile (0, 0): its last column is
    // lightened along the whole height, its neighbour is not.
    const auto tile = RenderReliefTile(1, 0, 0);
    int lighter = 0;
    for (int row = 0; row < 256; ++row)
        if (Brightness(tile, row, 255) > Brightness(tile, row, 254) + 30) ++lighter;
    EXPECT_GT(lighter, 240);
}
