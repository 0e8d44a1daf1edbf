#pragma once
#include "Core/Ptr.h"
#include "Raster.h"
#include "TellarImaging/IImage.h"

namespace TellarImaging::impl {

// A plain image: what PNG, JPEG and WebP decode to.
Core::Ptr<IImage> NewPlainImage(Raster raster);

// A TIFF image; with tile sizes in the metadata, a tiled one. The transform of the metadata,
// when there is one, must be invertible.
Core::Ptr<ITiffImage2> NewTiffImage(Raster raster, const TiffMetadata& metadata);

} // namespace TellarImaging::impl
