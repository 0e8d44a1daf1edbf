#pragma once
#include <algorithm>
#include <limits>

namespace MapServices {

// Four doubles: min x, min y, max x, max y. The unset box has the minima at the largest double
// and the maxima at its negative, so that extending it by a first point yields that point.
struct BoundingBoxValue {
    double minX = std::numeric_limits<double>::max();
    double minY = std::numeric_limits<double>::max();
    double maxX = -std::numeric_limits<double>::max();
    double maxY = -std::numeric_limits<double>::max();

    static constexpr BoundingBoxValue Unset() { return {}; }

    // Min and max per axis.
    void Extend(double x, double y) {
        minX = std::min(minX, x);
        minY = std::min(minY, y);
        maxX = std::max(maxX, x);
        maxY = std::max(maxY, y);
    }

    bool IsUnset() const {
        return minX == std::numeric_limits<double>::max() && minY == std::numeric_limits<double>::max() &&
               maxX == -std::numeric_limits<double>::max() && maxY == -std::numeric_limits<double>::max();
    }

    friend bool operator==(const BoundingBoxValue&, const BoundingBoxValue&) = default;
};

} // namespace MapServices
