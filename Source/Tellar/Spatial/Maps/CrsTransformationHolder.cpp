#include "Tellar/Spatial/Maps/CrsTransformationHolder.h"

#include <string_view>

#include "Core/AbiGuard.h"
#include "Tellar/Spatial/ProjectionExports.h"

namespace Tellar::Spatial::Maps::impl {

using Tellar::Interfaces::ICrs;

CrsTransformationHolder::CrsTransformationHolder(const Core::Ptr<ICrs>& from, const Core::Ptr<ICrs>& to)
    : CrsTransformationHolder(from.Raw(), to.Raw()) {}

CrsTransformationHolder::CrsTransformationHolder(ICrs* from, ICrs* to) {
    if (from && to && from->GetEpsgCode() != to->GetEpsgCode()) {
        Core::Ptr<Core::IErrorCode> error;
        bool ok;
        if (IsDatumReady(from) && IsDatumReady(to))
            ok = TellarSpatialProjection_CreateCrsTransformation(from, to, transformation.ReceiveAddress(),
                                                                 error.ReceiveAddress());
        else
            ok = TellarSpatialProjection_CreateCrsTransformationWithIntermediateWgs84Transform(
                from, to, transformation.ReceiveAddress(), error.ReceiveAddress());
        if (!ok) Core::ThrowIfError(error);
        noOp = false;
        return;
    }
    noOp = true;
    TellarSpatialProjection_CreateCrsNoOpTransformation(from, to, transformation.ReceiveAddress(), nullptr);
}

bool CrsTransformationHolder::IsDatumReady(ICrs* crs) {
    const char* text = crs->GetProj4Text();
    const std::string_view proj4 = text ? std::string_view(text) : std::string_view();
    if (proj4.size() >= 8 && proj4.find("+towgs84") != std::string_view::npos) return true;
    const uint32_t code = crs->GetEpsgCode();
    return code == 4326 || code == 3857;
}

} // namespace Tellar::Spatial::Maps::impl
