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

// A WMS 1.3.0 layer: `url` addresses the GetCapabilities document, which is downloaded and read
// before the call returns. `layer` null takes the last leaf layer of the document; `style` must
// be null and `format` "image/png". The service is an IOgcMapService in the CRS `epsgCode`.
TELLAR_API bool TellarSpatialMaps_CreateMapServiceFromWmsUrl(Tellar::Interfaces::IEpsg* epsg, const char* url,
                                                             const char* layer, const char* style, const char* format,
                                                             uint32_t epsgCode,
                                                             Tellar::Interfaces::IMapService** ppService,
                                                             Core::IErrorCode** ppError);
TELLAR_API bool TellarSpatialMaps_CreateCachedMapServiceFromWmsUrl(Tellar::Interfaces::IEpsg* epsg,
                                                                   const char* cacheDir, const char* url,
                                                                   const char* layer, const char* style,
                                                                   const char* format, uint32_t epsgCode,
                                                                   Tellar::Interfaces::IMapService** ppService,
                                                                   Core::IErrorCode** ppError);
// A WCS 1.0.0 coverage (`coverage` null: the first offered); `format` must be "GeoTIFF".
TELLAR_API bool TellarSpatialMaps_CreateMapServiceFromWcsUrl(Tellar::Interfaces::IEpsg* epsg, const char* url,
                                                             const char* coverage, const char* format,
                                                             uint32_t epsgCode,
                                                             Tellar::Interfaces::IMapService** ppService,
                                                             Core::IErrorCode** ppError);
TELLAR_API bool TellarSpatialMaps_CreateCachedMapServiceFromWcsUrl(Tellar::Interfaces::IEpsg* epsg,
                                                                   const char* cacheDir, const char* url,
                                                                   const char* coverage, const char* format,
                                                                   uint32_t epsgCode,
                                                                   Tellar::Interfaces::IMapService** ppService,
                                                                   Core::IErrorCode** ppError);
// A WMTS 1.0.0 layer, named by its identifier; style, format and tile matrix set, when given,
// replace the layer's defaults. The CRS is that of the tile matrix set.
TELLAR_API bool TellarSpatialMaps_CreateMapServiceFromWmtsUrl(Tellar::Interfaces::IEpsg* epsg, const char* url,
                                                              const char* layer, const char* style,
                                                              const char* format, const char* tileMatrixSet,
                                                              Tellar::Interfaces::IMapService** ppService,
                                                              Core::IErrorCode** ppError);
TELLAR_API bool TellarSpatialMaps_CreateCachedMapServiceFromWmtsUrl(Tellar::Interfaces::IEpsg* epsg,
                                                                    const char* cacheDir, const char* url,
                                                                    const char* layer, const char* style,
                                                                    const char* format, const char* tileMatrixSet,
                                                                    Tellar::Interfaces::IMapService** ppService,
                                                                    Core::IErrorCode** ppError);
