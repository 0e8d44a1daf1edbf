#pragma once
// Entry points of libTellar.Spatial.Projection.so, under the boundary convention: true on
// success, one owned reference in the result, failures as an error object in the last parameter.
#include "Core/ErrorCode.h"
#include "Core/Export.h"
#include "Tellar/Interfaces/ICrs.h"
#include "Tellar/Interfaces/ICrsTransformation.h"
#include "Tellar/Interfaces/IEpsg.h"

// The CRS database on PROJ's EPSG registry (proj.db).
TELLAR_API bool TellarSpatialProjection_CreateEpsg(Tellar::Interfaces::IEpsg** ppEpsg, Core::IErrorCode** ppError);

// From `source` to `target` by the operation PROJ finds best for the pair.
TELLAR_API bool TellarSpatialProjection_CreateCrsTransformation(Tellar::Interfaces::ICrs* source,
                                                                Tellar::Interfaces::ICrs* target,
                                                                Tellar::Interfaces::ICrsTransformation** ppResult,
                                                                Core::IErrorCode** ppError);

// Leaves coordinates as they are; either CRS may be null.
TELLAR_API bool TellarSpatialProjection_CreateCrsNoOpTransformation(Tellar::Interfaces::ICrs* source,
                                                                    Tellar::Interfaces::ICrs* target,
                                                                    Tellar::Interfaces::ICrsTransformation** ppResult,
                                                                    Core::IErrorCode** ppError);

// From `source` to WGS 84 (EPSG:4326), then from WGS 84 to `target`: two operations in a row,
// for CRSs whose datum has no direct path to the other one.
TELLAR_API bool TellarSpatialProjection_CreateCrsTransformationWithIntermediateWgs84Transform(
    Tellar::Interfaces::ICrs* source, Tellar::Interfaces::ICrs* target,
    Tellar::Interfaces::ICrsTransformation** ppResult, Core::IErrorCode** ppError);
