#pragma once
#include <cstdint>

#include "Core/Ptr.h"
#include "Tellar/Spatial/Maps/CrsTransformationHolder.h"
#include "TellarImaging/IImage.h"

namespace Tellar::Spatial::Raster {

class RasterUtils {
public:
    // A new image of `source` in the target CRS of `holder`, whose transformation maps the
    // source's coordinates to the target's: inverse mapping with nearest-neighbour sampling on
    // as many threads as the picture justifies (one per million pixels, at most one per core).
    // Without a transformation, or with the same EPSG code on both sides, a copy of `source`.
    static Core::Ptr<TellarImaging::IImage> ReprojectImage(TellarImaging::IImage* source,
                                                           Maps::impl::CrsTransformationHolder holder);
    // The same with the number of cores given, in place of the machine's.
    static Core::Ptr<TellarImaging::IImage> ReprojectImage(TellarImaging::IImage* source,
                                                           Maps::impl::CrsTransformationHolder holder,
                                                           uint32_t hardwareConcurrency);
};

} // namespace Tellar::Spatial::Raster
