#pragma once
#include <algorithm>
#include <cstdint>
#include <limits>

#include "MapServices/Common/BoundingBoxValue.h"

namespace MapServices {

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
