#pragma once
#include <cstdint>
#include <functional>
#include <string>

#include "Core/IObject.h"
#include "Core/Ptr.h"
#include "Data/Values.h"
#include "MapServices/Geometry.h"
#include "MapServices/TileRequest.h"
#include "Platform/Interfaces/IHttpClient.h"
#include "Platform/Network/Http/HttpRequest.h"

namespace TellarImaging {
struct IImage;
}

namespace MapServices::Interfaces {

// Receives a decoded tile, or null when the tile could not be fetched.
using TileImageCallback = std::function<void(TellarImaging::IImage*)>;
// Receives the tile's bytes: null on an HTTP failure or a refused type, empty after a failure on
// the caller's side.
using TileDataCallback = std::function<void(const Data::Array&)>;
// (current, total, z, x, y, cancel): set cancel to stop a download.
using DownloadProgress = std::function<void(uint64_t, uint64_t, int32_t, int64_t, int64_t, bool&)>;

// Turns tile addresses (z, x, y) into bytes or images, from the disk cache or the network, and
// hands them to callbacks on the thread that made the fetcher, while that thread waits alertably.
struct ITileFetcher : Core::IObject {
    virtual TileRequest FetchTileAsync(int32_t z, int32_t x, int32_t y, TileImageCallback callback) = 0;
    virtual TileRequest FetchTileDataAsync(int32_t z, int32_t x, int32_t y, TileDataCallback callback) = 0;
    // Built and not yet sent.
    virtual Platform::Network::Http::HttpRequest CreateTileHttpRequest(int32_t z, int32_t x, int32_t y) = 0;
    virtual BoundingBoxValue GetTileBounds(int32_t x, int32_t y, int32_t z) = 0;
    virtual TileRange GetTileRange(const BoundingBoxValue& box, int32_t zoom) = 0;
    virtual bool IsTileAvailable(int32_t x, int32_t y, int32_t z) = 0;
    // Fills the cache with every tile of the box from zoom 0 to `maxZoom`, one tile after another.
    virtual void DownloadMap(const BoundingBoxValue& box, int32_t maxZoom, const std::string& directory,
                             DownloadProgress progress) = 0;
    // Starts the downloads of the pyramid under tile (startZoom, x, y) down to `endZoom`.
    virtual void DownloadMap(int32_t startZoom, int32_t x, int32_t y, int32_t endZoom, const std::string& directory,
                             DownloadProgress progress) = 0;
    virtual void ClearQueue() = 0;
    virtual uint64_t GetCacheHash() = 0;
    virtual std::string GetServiceUrl() = 0;
    virtual std::string GetLayerName() = 0;
    virtual std::string GetLabel() = 0;
    virtual std::string GetCacheRoot() = 0;
    virtual std::string GetCacheDirectory() = 0;
    virtual int32_t GetMinZoom() = 0;
    virtual int32_t GetMaxZoom() = 0;
    virtual int32_t GetTileSize() = 0;
    virtual int32_t GetTileFormat() = 0;
    virtual void SetLayerName(const std::string& name) = 0;
    virtual void SetLabel(const std::string& label) = 0;
    virtual void SetCacheRoot(const std::string& root) = 0;
    virtual void SetMinZoom(int32_t zoom) = 0;
    virtual void SetMaxZoom(int32_t zoom) = 0;
    virtual void SetTileFormat(int32_t format) = 0;
    virtual void SetCacheEnabled(bool enabled) = 0;
    virtual bool IsCacheEnabled() = 0;
    // Made on first use.
    virtual Core::Ptr<Platform::Interfaces::IHttpClient> GetHttpClient() = 0;
    // Also drops the client, so the next use makes one with the new mode.
    virtual void SetProxyMode(int32_t mode) = 0;
    virtual int32_t GetProxyMode() = 0;
    virtual bool IsTileCached(int32_t z, int32_t x, int32_t y) = 0;
    virtual std::string GetCachedTilePath(int32_t z, int32_t x, int32_t y) = 0;
    virtual bool IsTileValid(int32_t z, int32_t x, int32_t y) = 0;
};

} // namespace MapServices::Interfaces
