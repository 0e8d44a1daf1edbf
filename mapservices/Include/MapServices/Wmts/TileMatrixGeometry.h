#pragma once
// Where the tiles of one WMTS tile matrix lie: spans from the scale denominator with the
// standard 0.28 mm pixel, rows running down from the matrix's top-left corner. No unit factor
// is applied, so the figures hold for CRS in metres.
#include "MapServices/Geometry.h"
#include "MapServices/Wmts/WmtsCapabilities.h"

namespace MapServices::Wmts {

// Width of a tile in CRS units (positive) and its height (negative: rows run downward).
double TileSpanX(const WmtsTileMatrix& matrix);
double TileSpanY(const WmtsTileMatrix& matrix);

// The tiles that cover a box in the matrix's CRS; columns and rows outside the matrix are
// kept as computed, and values past the 64-bit range saturate.
TileRange TileMatrixRange(const WmtsTileMatrix& matrix, const BoundingBoxValue& box);

} // namespace MapServices::Wmts
