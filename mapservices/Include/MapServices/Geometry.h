#pragma once
#include <algorithm>
#include <cstdint>
#include <limits>

namespace MapServices {

// Four doubles; the unset box has its minima at the largest double and maxima at its negative,
// so extending it by a point takes min and max per axis.
struct BoundingBoxValue {
    double minX = std::numeric_limits<double>::max();
    double minY = std::numeric_limits<double>::max();
    double maxX = -std::numeric_limits<double>::max();
    double maxY = -std::numeric_limits<double>::max();

    void Extend(double x, double y) {
        minX = std::min(minX, x);
        minY = std::min(minY, y);
        maxX = std::max(maxX, x);
        maxY = std::max(maxY, y);
    }
    bool operator==(const BoundingBoxValue&) const = default;
};

// An inclusive rectangle of tiles; the empty one has its minima at the largest 64-bit value.
struct TileRange {
    int64_t minX = std::numeric_limits<int64_t>::max();
    int64_t minY = std::numeric_limits<int64_t>::max();
    int64_t maxX = std::numeric_limits<int64_t>::min();
    int64_t maxY = std::numeric_limits<int64_t>::min();

    void Extend(int64_t x, int64_t y) {
        minX = std::min(minX, x);
        minY = std::min(minY, y);
        maxX = std::max(maxX, x);
        maxY = std::max(maxY, y);
    }
    bool operator==(const TileRange&) const = default;
};

} // namespace MapServices
