#pragma once
// Entry points of libTellar.Spatial.Maps.so. Each factory returns true with one owned reference
// in *ppService, or false with the failure in *ppError (which may be null). Strings are copied.
#include <cstdint>

#include "Core/ErrorCode.h"
#include "Core/Export.h"
#include "Tellar/Interfaces/IMapService.h"

namespace Tellar::Interfaces {
struct IEpsg;
}

// Has no effect: the library finds its logger by itself.
TELLAR_API void TellarSpatialMaps_SetLogger(Core::IObject* logger);

// A tile server addressed by a URL template with {x}, {y} and {z}; `epsgCode` 4326 or 3857.
// `epsg` is the CRS database; it is borrowed for the call.
TELLAR_API bool TellarSpatialMaps_CreateMapServiceFromTmsUrl(Tellar::Interfaces::IEpsg* epsg, const char* url,
                                                             uint32_t epsgCode,
                                                             Tellar::Interfaces::IMapService** ppService,
                                                             Core::IErrorCode** ppError);
// The same with a disk cache of tiles under `cacheDir`; a null `cacheDir` means no cache.
TELLAR_API bool TellarSpatialMaps_CreateCachedMapServiceFromTmsUrl(Tellar::Interfaces::IEpsg* epsg,
                                                                   const char* cacheDir, const char* url,
                                                                   uint32_t epsgCode,
                                                                   Tellar::Interfaces::IMapService** ppService,
                                                                   Core::IErrorCode** ppError);
