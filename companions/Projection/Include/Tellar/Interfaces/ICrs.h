#pragma once
#include <cstdint>

#include "Core/ErrorCode.h"

namespace Tellar::Interfaces {

// One coordinate reference system. Immutable once made, so it may be shared between threads.
// The strings belong to the object and live as long as it does.
struct ICrs : Core::IObject {
    // The EPSG number, 0 for a CRS that has none.
    virtual uint32_t GetEpsgCode() const noexcept = 0;
    // PROJ definition text ("+proj=... +type=crs"). Where the datum differs from WGS 84 and a
    // shift to it is known, the text carries "+towgs84=...". Empty when PROJ can't express it.
    virtual const char* GetProj4Text() const noexcept = 0;
    // The CRS's name, for instance "WGS 84 / Pseudo-Mercator".
    virtual const char* GetName() const noexcept = 0;
    // WKT2:2019 text of the CRS.
    virtual const char* GetWkt() const noexcept = 0;
    // True for a geographic CRS (degrees), false for a projected or other one.
    virtual bool IsGeographic() const noexcept = 0;
};

} // namespace Tellar::Interfaces
