#include "MapServices/Wmts/TileMatrixGeometry.h"

#include <cmath>
#include <cstdint>

namespace MapServices::Wmts {

namespace {

constexpr double MetresPerPixel = 0.00028;

// A whole tile index from a value already rounded; NaN reads 0, values past the range saturate.
int64_t ToIndex(double value) {
    if (std::isnan(value)) return 0;
    if (value >= 9223372036854775807.0) return INT64_MAX;
    if (value <= -9223372036854775808.0) return INT64_MIN;
    return static_cast<int64_t>(value);
}

// The last index before a ceil() bound; the bottom of the range stays where it is.
int64_t Before(int64_t index) { return index == INT64_MIN ? index : index - 1; }

} // namespace

double TileSpanX(const WmtsTileMatrix& matrix) {
    return static_cast<double>(matrix.tileWidth) * (matrix.scaleDenominator * MetresPerPixel);
}

double TileSpanY(const WmtsTileMatrix& matrix) {
    return -(static_cast<double>(matrix.tileHeight) * (matrix.scaleDenominator * MetresPerPixel));
}

TileRange TileMatrixRange(const WmtsTileMatrix& matrix, const BoundingBoxValue& box) {
    const double spanX = TileSpanX(matrix), spanY = TileSpanY(matrix);
    TileRange range;
    range.Extend(ToIndex(std::floor((box.minX - matrix.topLeftX) / spanX)),
                 ToIndex(std::floor((box.maxY - matrix.topLeftY) / spanY)));
    range.Extend(Before(ToIndex(std::ceil((box.maxX - matrix.topLeftX) / spanX))),
                 Before(ToIndex(std::ceil((box.minY - matrix.topLeftY) / spanY))));
    return range;
}

} // namespace MapServices::Wmts
