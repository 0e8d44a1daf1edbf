#pragma once
#include <cstdint>

#include "Core/IObject.h"
#include "MapServices/Geometry.h"

namespace MapServices::Interfaces {

// One request to an OGC service for a box (a GetMap or GetCoverage call).
struct IServiceRequest : Core::IObject {
    virtual BoundingBoxValue GetBoundingBox() = 0;
    // Names the request's cache file.
    virtual uint64_t GetRequestHash() = 0;
};

} // namespace MapServices::Interfaces
