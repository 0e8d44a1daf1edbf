#pragma once
#include <cstdint>

#include "Core/ErrorCode.h"
#include "Core/IObject.h"

namespace Data::Interfaces {
struct IObjectList;
}
namespace Platform::Interfaces {
struct IHttpClient;
}
namespace TellarImaging {
struct ITiffImage;
}

namespace Tellar::Interfaces {

struct IBoundingBox2d;
struct ICrs;
struct ITileRequest;

// One remote map service, as a factory of libTellar.Spatial.Maps.so binds it. Boxes are in the
// target CRS when one is set, otherwise in the CRS of the service. All calls run on the
// caller's thread.
struct IMapService : Core::IObject {
    // Starts the tile's download at once, or finds it in the cache.
    virtual bool GetTile(int32_t zoom, int64_t x, int64_t y, ITileRequest** ppRequest, Core::IErrorCode** ppError) = 0;
    // The requests (ITileRequest) of every tile of the box, column by column.
    virtual bool GetTilesForBox(int32_t zoom, IBoundingBox2d* box, Data::Interfaces::IObjectList** ppList,
                                Core::IErrorCode** ppError) = 0;
    // The requests of a tile rectangle, bounds included: x in the outer loop, y in the inner.
    virtual bool GetTilesForRange(int32_t zoom, int64_t minX, int64_t minY, int64_t maxX, int64_t maxY,
                                  Data::Interfaces::IObjectList** ppList, Core::IErrorCode** ppError) = 0;
    // One georeferenced picture of the box: its tiles pasted, reprojected into the target CRS
    // and cut to the box. The first tile that fails ends the call.
    virtual bool GetImage(int32_t zoom, IBoundingBox2d* box, TellarImaging::ITiffImage** ppImage,
                          Core::IErrorCode** ppError) = 0;
    virtual const char* GetServiceUrl() = 0;
    virtual const char* GetLayerName() = 0;
    // Borrowed. Throws when the service has no CRS: the one call that may throw.
    virtual ICrs* GetCrs() = 0;
    // Borrowed; null when none is set.
    virtual ICrs* GetTargetCrs() = 0;
    // The CRS the caller speaks in; null goes back to the CRS of the service. Not to be called
    // while another call on the same service runs.
    virtual void SetTargetCrs(ICrs* crs) = 0;
    // Borrowed; null when no client can be made for the service's address.
    virtual Platform::Interfaces::IHttpClient* GetHttpClient() = 0;
    // As GetImage, but a tile whose download fails is left out where it can be.
    virtual bool GetImageBestEffort(int32_t zoom, IBoundingBox2d* box, TellarImaging::ITiffImage** ppImage,
                                    Core::IErrorCode** ppError) = 0;
};

} // namespace Tellar::Interfaces
