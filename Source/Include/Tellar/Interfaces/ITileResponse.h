#pragma once
#include <cstdint>

#include "Core/ErrorCode.h"
#include "Core/IObject.h"

namespace Platform::Interfaces {
struct IHttpResponse;
}
namespace TellarImaging {
struct IImage;
struct ITransform;
} // namespace TellarImaging

namespace Tellar::Interfaces {

struct IBoundingBox2d;

// One finished tile, from the network or from the cache. Bounds are in degrees of longitude
// and latitude for both the 4326 and the 3857 services.
struct ITileResponse : Core::IObject {
    virtual int32_t GetZoom() = 0;
    virtual int64_t GetX() = 0;
    virtual int64_t GetY() = 0;
    // The decoded tile.
    virtual bool GetImage(TellarImaging::IImage** ppImage, Core::IErrorCode** ppError) = 0;
    // Pixel to world for the tile, from its bounds and its width.
    virtual bool GetTransform(TellarImaging::ITransform** ppTransform, Core::IErrorCode** ppError) = 0;
    virtual bool GetBounds(IBoundingBox2d** ppBox, Core::IErrorCode** ppError) = 0;
    // Borrowed; null for a tile read from the cache.
    virtual Platform::Interfaces::IHttpResponse* GetHttpResponse() = 0;
    virtual int32_t GetEpsgCode() = 0;
};

} // namespace Tellar::Interfaces
