#pragma once
#include <cstdint>
#include <vector>

#include "Core/Ptr.h"
#include "MapServices/Common/BoundingBoxValue.h"
#include "MapServices/Geometry.h"
#include "Tellar/Interfaces/ITileResponse.h"
#include "TellarImaging/IImage.h"

namespace Tellar::Spatial::Maps::impl {

// Pastes the tiles of `range` at `zoom` into one TIFF image in the layout of the first tile.
// Tiles are taken as squares of a whole multiple of 256 pixels; whatever of a tile falls outside
// the result is left out. A 3857 mosaic is georeferenced in Web-Mercator metres from the range's
// corners, any other by the first tile's transform.
Core::Ptr<TellarImaging::ITiffImage> ComposeMosaic(
    const MapServices::TileRange& range, const std::vector<Core::Ptr<Tellar::Interfaces::ITileResponse>>& responses,
    uint32_t epsgCode, int32_t zoom);

// ComposeMosaic followed by CropToBox, with the same result, but only the cropped part is ever
// held in memory.
Core::Ptr<TellarImaging::IImage> ComposeMosaicOfBox(
    const MapServices::TileRange& range, const std::vector<Core::Ptr<Tellar::Interfaces::ITileResponse>>& responses,
    uint32_t epsgCode, int32_t zoom, const MapServices::BoundingBoxValue& box);

// The part of `image` inside `box`, in the image's own CRS, marked with sample kind 2.
Core::Ptr<TellarImaging::IImage> CropToBox(TellarImaging::IImage* image, const MapServices::BoundingBoxValue& box);

} // namespace Tellar::Spatial::Maps::impl
