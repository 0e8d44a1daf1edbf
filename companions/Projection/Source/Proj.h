#pragma once
// Owning handles on PROJ objects and the small helpers the CRS code shares.
#include <cstdint>
#include <memory>
#include <string>

#include <proj.h>

#include "Tellar/Interfaces/ICrs.h"

namespace Tellar::Spatial::Projection::impl {

struct ContextDeleter {
    void operator()(PJ_CONTEXT* context) const noexcept { proj_context_destroy(context); }
};
struct PjDeleter {
    void operator()(PJ* object) const noexcept { proj_destroy(object); }
};
using ContextHandle = std::unique_ptr<PJ_CONTEXT, ContextDeleter>;
using PjHandle = std::unique_ptr<PJ, PjDeleter>;

// A context of its own, silent: failures are read back and reported by the caller.
ContextHandle NewContext();

// Text of the context's last error, or "unknown PROJ error".
std::string LastError(PJ_CONTEXT* context);

// The CRS of an EPSG code in `context`; throws naming the code when the registry lacks it.
PjHandle CrsFromEpsg(PJ_CONTEXT* context, uint32_t epsgCode);

// The CRS an interface object stands for, made again in `context`: by its EPSG code when it
// has one, else by its WKT, else by its PROJ text.
PjHandle CrsFromInterface(PJ_CONTEXT* context, Interfaces::ICrs* crs);

// A new CRS object that describes `crs`; `epsgCode` is 0 for a CRS without one.
Interfaces::ICrs* NewCrsObject(PJ_CONTEXT* context, PJ* crs, uint32_t epsgCode);

// For EPSG:4326 and 3857, which every registry holds, a CRS object that reads the registry only
// when its texts are first asked for: a tile service that never reprojects never opens it.
// Null for other codes.
Interfaces::ICrs* NewWellKnownCrsObject(uint32_t epsgCode);

} // namespace Tellar::Spatial::Projection::impl
