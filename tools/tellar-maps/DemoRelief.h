#pragma once
#include <cstdint>
#include <vector>

namespace TellarMaps {

// Renders one 256x256 Web-Mercator tile of a synthetic world: shaded relief coloured by height,
// sea below zero, and a graticule of round degrees. Pixels are RGBA, row by row, top first.
std::vector<uint8_t> RenderReliefTile(int32_t z, int32_t x, int32_t y);

// Height in metres of the synthetic world at a longitude and latitude in degrees.
double ReliefHeight(double longitude, double latitude);

inline constexpr int32_t ReliefTileSize = 256;

} // namespace TellarMaps
