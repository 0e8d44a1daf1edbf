#pragma once
#include <cstdint>

#include "Core/ErrorCode.h"
#include "Tellar/Interfaces/ICrs.h"

namespace Tellar::Interfaces {

// The CRS database a host hands to the map-service factories. Safe to call from several
// threads at once.
struct IEpsg : Core::IObject {
    // The CRS of an EPSG code. An unknown code fails with an error object that names the code.
    virtual bool CreateCrs(uint32_t epsgCode, ICrs** ppCrs, Core::IErrorCode** ppError) noexcept = 0;
    // A CRS from any definition PROJ reads: "EPSG:25832", a PROJ string, WKT, PROJJSON.
    virtual bool CreateCrsFromDefinition(const char* definition, ICrs** ppCrs,
                                         Core::IErrorCode** ppError) noexcept = 0;
};

} // namespace Tellar::Interfaces
