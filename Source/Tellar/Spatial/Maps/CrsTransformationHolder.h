#pragma once
#include "Core/Ptr.h"
#include "Tellar/Interfaces/ICrs.h"
#include "Tellar/Interfaces/ICrsTransformation.h"

namespace Tellar::Spatial::Maps::impl {

// A pair of CRSs with the transformation between them. `noOp` is true when the coordinates
// pass unchanged: one side missing, or both sides with the same EPSG code.
struct CrsTransformationHolder {
    Core::CheckedPtr<Tellar::Interfaces::ICrsTransformation> transformation;
    bool noOp = false;

    // The empty holder: no transformation yet.
    CrsTransformationHolder() = default;
    // From `from` to `to`; either may be null. A failure of the projection library is thrown
    // as its text.
    CrsTransformationHolder(const Core::Ptr<Tellar::Interfaces::ICrs>& from,
                            const Core::Ptr<Tellar::Interfaces::ICrs>& to);
    CrsTransformationHolder(Tellar::Interfaces::ICrs* from, Tellar::Interfaces::ICrs* to);

    // True when a direct transformation can be trusted for the CRS's datum: its PROJ text
    // carries a shift to WGS 84, or it is WGS 84 (4326) or Web Mercator (3857) itself.
    static bool IsDatumReady(Tellar::Interfaces::ICrs* crs);
};

} // namespace Tellar::Spatial::Maps::impl
