#pragma once
#include <atomic>
#include <cstdint>
#include <string>

#include "Core/ObjectImplBase.h"
#include "Core/Ptr.h"
#include "MapServices/Common/BoundingBoxValue.h"
#include "Platform/Interfaces/IAsyncTask.h"
#include "Platform/Network/Http/HttpRequest.h"
#include "Tellar/Interfaces/ITileRequest.h"

namespace Tellar::Spatial::Maps::impl {

// One tile for a caller: either a file of the cache, read when the response is asked for, or
// a download started at construction and waited for in GetResponse.
class TileRequestImpl final : public Core::ObjectImplBase<Tellar::Interfaces::ITileRequest> {
public:
    // A tile found in the cache: no network at all.
    TileRequestImpl(int32_t zoom, int64_t x, int64_t y, const MapServices::BoundingBoxValue& bounds, int32_t epsgCode,
                    std::string cacheFilePath);
    // A tile to download; sends `request` at once. `cacheFilePath` empty means no caching.
    TileRequestImpl(Platform::Network::Http::HttpRequest request, int32_t zoom, int64_t x, int64_t y,
                    const MapServices::BoundingBoxValue& bounds, int32_t epsgCode, std::string cacheFilePath);

    int32_t GetZoom() override { return zoom_; }
    int64_t GetX() override { return x_; }
    int64_t GetY() override { return y_; }
    bool IsRunning() override;
    bool IsFinished() override;
    void Cancel() override;
    bool GetResponse(Tellar::Interfaces::ITileResponse** ppResponse, Core::IErrorCode** ppError) override;
    bool GetBounds(Tellar::Interfaces::IBoundingBox2d** ppBox, Core::IErrorCode** ppError) override;

    // Gives the tile up for good: like Cancel, and a download still going is closed (releasing
    // a request alone leaves its download running). For a list that nobody outside will read,
    // such as that of a mosaic that failed.
    void Abandon();
    // After Abandon: waits up to `timeout` ms until the transport has let go of the download,
    // so that nothing of it outlives this object.
    void AwaitRelease(uint32_t timeout);

private:
    Core::Ptr<Tellar::Interfaces::ITileResponse> ReadCacheFile() const;
    Core::Ptr<Tellar::Interfaces::ITileResponse> AwaitDownload() const;

    Core::Ptr<Platform::Interfaces::IAsyncTask> task_;
    Platform::Network::Http::HttpRequest httpRequest_;
    int32_t zoom_;
    int64_t x_;
    int64_t y_;
    MapServices::BoundingBoxValue bounds_;
    int32_t epsgCode_;
    std::string cacheFilePath_;
    std::atomic<bool> cancelled_{false};
};

} // namespace Tellar::Spatial::Maps::impl
