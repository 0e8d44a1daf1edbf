#include "DemoRelief.h"

#include <algorithm>
#include <cmath>

namespace TellarMaps {

namespace {

constexpr double Pi = 3.14159265358979323846;

double Radians(double degrees) { return degrees * Pi / 180.0; }

// Value noise on a grid of `cells` cells around the world, so that it wraps at the antimeridian.
double Lattice(int64_t i, int64_t j, int64_t cells, uint32_t seed) {
    i = ((i % cells) + cells) % cells;
    uint64_t h = static_cast<uint64_t>(i) * 0x9E3779B97F4A7C15ULL ^
                 static_cast<uint64_t>(j + 1000003) * 0xC2B2AE3D27D4EB4FULL ^ seed * 0x165667B19E3779F9ULL;
    h ^= h >> 29;
    h *= 0xBF58476D1CE4E5B9ULL;
    h ^= h >> 32;
    return static_cast<double>(h & 0xFFFFFF) / 16777215.0 * 2.0 - 1.0;
}

double Smooth(double t) { return t * t * t * (t * (t * 6 - 15) + 10); }

double Noise(double u, double v, int64_t cells, uint32_t seed) {
    const double fu = std::floor(u), fv = std::floor(v);
    const auto i = static_cast<int64_t>(fu), j = static_cast<int64_t>(fv);
    const double tu = Smooth(u - fu), tv = Smooth(v - fv);
    const double a = Lattice(i, j, cells, seed), b = Lattice(i + 1, j, cells, seed);
    const double c = Lattice(i, j + 1, cells, seed), d = Lattice(i + 1, j + 1, cells, seed);
    return (a + (b - a) * tu) + ((c + (d - c) * tu) - (a + (b - a) * tu)) * tv;
}

// Height: continents from the low octaves, mountains and valleys from the higher ones.
double HeightAt(double longitude, double latitude) {
    // Sampled in Mercator units, so that features keep their shape on the map at every latitude.
    const double phi = Radians(std::clamp(latitude, -85.0, 85.0));
    const double mercator = std::log(std::tan(Pi / 4 + phi / 2)) / (2 * Pi); // -0.5 .. 0.5
    double sum = 0, amplitude = 1, total = 0;
    int64_t cells = 5;
    for (uint32_t octave = 0; octave < 9; ++octave) {
        const double u = (longitude + 180.0) / 360.0 * static_cast<double>(cells);
        const double v = (mercator + 0.5) * static_cast<double>(cells);
        sum += amplitude * Noise(u, v, cells, octave * 7919u + 17u);
        total += amplitude;
        amplitude *= 0.5;
        cells *= 2;
    }
    const double n = sum / total;
    // Ridged detail where there is land lifts mountain chains above the plains.
    const double base = (n + 0.04) * 6000.0;
    return base > 0 ? base * (0.6 + 1.2 * std::fabs(n)) : base;
}

struct Colour {
    double r, g, b;
};

Colour Lerp(Colour a, Colour b, double t) {
    t = std::clamp(t, 0.0, 1.0);
    return {a.r + (b.r - a.r) * t, a.g + (b.g - a.g) * t, a.b + (b.b - a.b) * t};
}

// Hypsometric tints: deep to shallow sea, then lowland green, upland brown, rock, snow.
Colour Tint(double height) {
    if (height < 0) return Lerp({20, 50, 110}, {90, 150, 200}, 1.0 + height / 3000.0);
    if (height < 600) return Lerp({80, 140, 70}, {170, 180, 100}, height / 600.0);
    if (height < 2000) return Lerp({170, 180, 100}, {150, 110, 70}, (height - 600) / 1400.0);
    if (height < 4000) return Lerp({150, 110, 70}, {130, 125, 120}, (height - 2000) / 2000.0);
    return Lerp({130, 125, 120}, {250, 250, 250}, (height - 4000) / 1200.0);
}

double Longitude(double column, double tiles) { return column / tiles * 360.0 - 180.0; }

double Latitude(double row, double tiles) { return std::atan(std::sinh(Pi * (1.0 - 2.0 * row / tiles))) * 180.0 / Pi; }

} // namespace

double ReliefHeight(double longitude, double latitude) { return HeightAt(longitude, latitude); }

std::vector<uint8_t> RenderReliefTile(int32_t z, int32_t x, int32_t y) {
    const int32_t size = ReliefTileSize;
    const double tiles = std::ldexp(1.0, z) * size; // pixels across the world at this zoom
    std::vector<uint8_t> pixels(static_cast<size_t>(size) * size * 4);

    // Heights on a grid one pixel larger than the tile, for the slope of every pixel.
    std::vector<double> heights(static_cast<size_t>(size + 1) * (size + 1));
    std::vector<double> longitudes(size + 1), latitudes(size + 1);
    for (int32_t i = 0; i <= size; ++i) {
        longitudes[i] = Longitude(static_cast<double>(x) * size + i, tiles);
        latitudes[i] = Latitude(static_cast<double>(y) * size + i, tiles);
    }
    for (int32_t row = 0; row <= size; ++row)
        for (int32_t column = 0; column <= size; ++column)
            heights[static_cast<size_t>(row) * (size + 1) + column] = HeightAt(longitudes[column], latitudes[row]);

    // Ground distance of one pixel in metres, so that the shading looks alike at every zoom.
    const double pixelMetres = 40075016.0 / tiles;
    const double lightX = -0.5, lightY = -0.5, lightZ = 0.7071; // from the north-west, 45 degrees up
    // Graticule lines at least about 64 pixels apart.
    double graticuleStep = 30.0;
    for (double step : {15.0, 10.0, 5.0, 2.0, 1.0, 0.5, 0.25, 0.1})
        if (step * tiles / 360.0 >= 64.0) graticuleStep = step;

    for (int32_t row = 0; row < size; ++row) {
        const double scale = std::cos(Radians(latitudes[row]));
        for (int32_t column = 0; column < size; ++column) {
            const size_t at = static_cast<size_t>(row) * (size + 1) + column;
            const double h = heights[at];
            const double dzdx = (heights[at + 1] - h) / (pixelMetres * scale) * 20.0;
            const double dzdy = (heights[at + size + 1] - h) / (pixelMetres * scale) * 20.0;
            const double norm = std::sqrt(dzdx * dzdx + dzdy * dzdy + 1.0);
            const double light = std::clamp((-dzdx * lightX - dzdy * lightY + lightZ) / norm, 0.0, 1.0);
            const double shade = h < 0 ? 1.0 : 0.35 + 0.85 * light;

            Colour colour = Tint(h);
            colour = {colour.r * shade, colour.g * shade, colour.b * shade};

            // A graticule line where a multiple of the step falls inside this pixel.
            const bool meridian =
                std::floor(longitudes[column] / graticuleStep) != std::floor(longitudes[column + 1] / graticuleStep);
            const bool parallel =
                std::floor(latitudes[row] / graticuleStep) != std::floor(latitudes[row + 1] / graticuleStep);
            if (meridian || parallel) colour = Lerp(colour, {255, 255, 255}, 0.6);

            uint8_t* p = &pixels[(static_cast<size_t>(row) * size + column) * 4];
            p[0] = static_cast<uint8_t>(std::clamp(colour.r, 0.0, 255.0));
            p[1] = static_cast<uint8_t>(std::clamp(colour.g, 0.0, 255.0));
            p[2] = static_cast<uint8_t>(std::clamp(colour.b, 0.0, 255.0));
            p[3] = 255;
        }
    }
    return pixels;
}

} // namespace TellarMaps
