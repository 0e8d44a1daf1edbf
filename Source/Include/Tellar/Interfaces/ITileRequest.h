#pragma once
#include <cstdint>

#include "Core/ErrorCode.h"
#include "Core/IObject.h"

namespace Tellar::Interfaces {

struct IBoundingBox2d;
struct ITileResponse;

// One tile on its way. A tile found in the cache has no download: it is finished at once.
// Releasing the request does not stop its download.
struct ITileRequest : Core::IObject {
    virtual int32_t GetZoom() = 0;
    virtual int64_t GetX() = 0;
    virtual int64_t GetY() = 0;
    // True while the download is queued or under way.
    virtual bool IsRunning() = 0;
    // True once the download ended, whatever its outcome, and always for a cached tile.
    virtual bool IsFinished() = 0;
    // Marks the request cancelled and stops its download; GetResponse then fails.
    virtual void Cancel() = 0;
    // Blocks until the tile is there. A tile with status 200 is written to the cache of a
    // cached service.
    virtual bool GetResponse(ITileResponse** ppResponse, Core::IErrorCode** ppError) = 0;
    virtual bool GetBounds(IBoundingBox2d** ppBox, Core::IErrorCode** ppError) = 0;
};

} // namespace Tellar::Interfaces
