#pragma once
#include <cstdint>

#include "Core/Ptr.h"
#include "MapServices/Interfaces/IServiceRequest.h"
#include "Tellar/Interfaces/IMapService.h"

namespace Data::Interfaces {
struct IDateTime;
}
namespace Platform::Interfaces {
struct IAsyncTask;
}

namespace Tellar::Interfaces {

// A WMS or WCS service (and a WMTS one, which answers tiles only): beside the tiles of
// IMapService, whole pictures and coverage data of a box given in the service's own CRS. The
// asynchronous calls hand back a task that completes on the thread that made the service, while
// that thread waits alertably; its result is the picture (an ITiffImage) or the bytes (an IArray).
struct IOgcMapService : IMapService {
    // Replaces the CRS of the service; null leaves it without one.
    virtual void SetCrs(ICrs* crs) = 0;
    // The time later requests ask for; null asks for none (WMS: the layer's default).
    virtual bool SetTime(Data::Interfaces::IDateTime* time, Core::IErrorCode** ppError) = 0;
    // The time requests ask for; *ppTime stays null when there is none.
    virtual bool GetTime(Data::Interfaces::IDateTime** ppTime, Core::IErrorCode** ppError) = 0;
    // Blocks until the picture is there. Never on the thread that made the service: its
    // completion needs that thread.
    virtual bool GetMapSync(int32_t width, int32_t height, IBoundingBox2d* box, TellarImaging::ITiffImage** ppImage,
                            Core::IErrorCode** ppError) = 0;
    // A picture of `layer` (null: the service's own) at `time` (null: the service's).
    virtual bool GetMapAsync(const char* layer, int32_t width, int32_t height, IBoundingBox2d* box,
                             Data::Interfaces::IDateTime* time, Platform::Interfaces::IAsyncTask** ppTask,
                             Core::IErrorCode** ppError) = 0;
    virtual bool GetMapSimpleAsync(int32_t width, int32_t height, IBoundingBox2d* box,
                                   Platform::Interfaces::IAsyncTask** ppTask, Core::IErrorCode** ppError) = 0;
    // The raw answer of the server (a coverage file) as bytes.
    virtual bool GetDataAsync(const char* layer, int32_t width, int32_t height, IBoundingBox2d* box,
                              Data::Interfaces::IDateTime* time, Platform::Interfaces::IAsyncTask** ppTask,
                              Core::IErrorCode** ppError) = 0;
    // The request the calls above send; throws on failure.
    virtual Core::Ptr<MapServices::Interfaces::IServiceRequest> CreateRequest(const char* layer, int32_t width,
                                                                               int32_t height, IBoundingBox2d* box,
                                                                               Data::Interfaces::IDateTime* time) = 0;
};

} // namespace Tellar::Interfaces
