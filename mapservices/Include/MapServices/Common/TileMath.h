#pragma once
#include <cmath>
#include <cstdint>

namespace MapServices {

// The pi of the tile formulas, as written in the formulas (not the full-precision value).
inline constexpr double TilePi = 3.14159265358979;
inline constexpr double DegreesPerRadian = 57.29577951308238;

// Longitude of the west edge of a tile column; `tiles` is 2^zoom.
inline double TileLongitude(double column, double tiles) { return column / tiles * 360.0 - 180.0; }

// Latitude of the north edge of a tile row on the Web-Mercator grid.
inline double TileLatitude(double row, double tiles) {
    return std::atan(std::sinh(TilePi - 2.0 * (row / tiles) * TilePi)) * DegreesPerRadian;
}

} // namespace MapServices
