#pragma once
#include <cstdint>
#include <mutex>
#include <string>

#include "Common/TileRequestImpl.h"
#include "Data/Values.h"
#include "MapServices/Geometry.h"
#include "MapServices/Interfaces/ITileFetcher.h"
#include "Platform/Threading/ThreadDispatcher.h"
#include "Platform/Threading/ThreadWorker.h"

namespace MapServices::impl {

using Interfaces::ITileRequest;

// What every fetcher shares: settings, the split of its service URL, the Web-Mercator tile
// pyramid, the cache tree and the whole fetch road (caller, HTTP completion, the shared
// "Tile Response Worker", the dispatcher of the thread that made the fetcher). A concrete
// fetcher says how a tile becomes an HTTP request and names its cache.
class TileFetcherBase : public Interfaces::ITileFetcher {
public:
    using TileImageCallback = Interfaces::TileImageCallback;
    using TileDataCallback = Interfaces::TileDataCallback;
    using DownloadProgress = Interfaces::DownloadProgress;

    TileRequest FetchTileAsync(int32_t z, int32_t x, int32_t y, TileImageCallback callback) override;
    TileRequest FetchTileDataAsync(int32_t z, int32_t x, int32_t y, TileDataCallback callback) override;

    BoundingBoxValue GetTileBounds(int32_t x, int32_t y, int32_t z) override;
    TileRange GetTileRange(const BoundingBoxValue& box, int32_t zoom) override;
    bool IsTileValid(int32_t z, int32_t x, int32_t y) override;
    bool IsTileAvailable(int32_t x, int32_t y, int32_t z) override { return IsTileValid(z, x, y); }

    void DownloadMap(const BoundingBoxValue& box, int32_t maxZoom, const std::string& directory,
                     DownloadProgress progress) override;
    void DownloadMap(int32_t startZoom, int32_t x, int32_t y, int32_t endZoom, const std::string& directory,
                     DownloadProgress progress) override;
    void ClearQueue() override;

    std::string GetServiceUrl() override { return serviceUrl_; }
    std::string GetLayerName() override { return layerName_; }
    std::string GetLabel() override { return label_; }
    std::string GetCacheRoot() override { return cacheRoot_; }
    std::string GetCacheDirectory() override;
    int32_t GetMinZoom() override { return minZoom_; }
    int32_t GetMaxZoom() override { return maxZoom_; }
    int32_t GetTileSize() override { return tileSize_; }
    int32_t GetTileFormat() override { return tileFormat_; }
    void SetLayerName(const std::string& name) override { AssignText(layerName_, name); }
    void SetLabel(const std::string& label) override { AssignText(label_, label); }
    void SetCacheRoot(const std::string& root) override { AssignText(cacheRoot_, root); }
    void SetMinZoom(int32_t zoom) override { minZoom_ = zoom; }
    void SetMaxZoom(int32_t zoom) override { maxZoom_ = zoom; }
    void SetTileFormat(int32_t format) override { tileFormat_ = format; }
    void SetCacheEnabled(bool enabled) override { cacheEnabled_ = enabled; }
    bool IsCacheEnabled() override { return cacheEnabled_; }
    Core::Ptr<Platform::Interfaces::IHttpClient> GetHttpClient() override;
    void SetProxyMode(int32_t mode) override;
    int32_t GetProxyMode() override { return proxyMode_; }

    // The cache tree: root/folder/<low 32 bits of the hash>/z/z_x_y.ext
    bool IsTileCached(int32_t z, int32_t x, int32_t y) override;
    std::string GetCachedTilePath(int32_t z, int32_t x, int32_t y) override;
    std::string GetTileFileName(int32_t z, int32_t x, int32_t y) const;
    // Write side: these make the directories they name.
    std::string GetMapTileDirPath(int32_t z);
    std::string GetCachedTileFilePath(const std::string& directory, int32_t z, int32_t x, int32_t y);
    // Writes a complete response body to the tile's cache file (`path`, or the fetcher's own
    // place when empty) through a temporary file renamed into place. An empty body makes no file.
    void SaveTile(const Platform::Network::Http::HttpResponse& response, ITileRequest& request,
                  const std::string& path);

    // The whole file as a byte array; null when it cannot be opened (a directory, say).
    static Data::Array ReadTileFile(const std::string& path);

    const std::string& GetHost() const { return host_; }
    const std::string& GetPath() const { return path_; }
    int32_t GetPort() const { return port_; }
    bool IsSecure() const { return secure_; }
    int32_t GetMaxDownloadZoom() const { return maxDownloadZoom_; }
    const std::string& GetFileExtension() const { return fileExtension_; }
    std::string GetClientUrl() const {
        std::lock_guard lock(clientMutex_);
        return clientUrl_;
    }

protected:
    // Binds the fetcher to the calling thread (its dispatcher) and to the shared worker.
    TileFetcherBase();
    ~TileFetcherBase() override = default;

    // Splits scheme://host:port/path into the host, port, path, secure flag and service URL.
    void SetServerUrl(const std::string& url);

    // Writes a complete response body to `target` through a temporary file beside it, renamed
    // into place; an empty body makes no file.
    static void WriteResponseFile(const Platform::Network::Http::HttpResponse& response, const std::string& target);

    // Fields in the order they are made; they go in the reverse order: strings first, then the
    // client, the worker and the dispatcher.
    Core::Ptr<Platform::Threading::impl::ThreadDispatcher> dispatcher_;
    Core::Ptr<Platform::Threading::impl::ThreadWorker> worker_;
    // The client is made on first use, by whichever thread asks first.
    mutable std::mutex clientMutex_;
    Core::Ptr<Platform::Interfaces::IHttpClient> httpClient_;
    std::string clientUrl_;
    std::string layerName_ = "Tiles";
    std::string label_;
    std::string cacheRoot_;
    std::string cacheFolder_ = "Tiles";
    std::string fileExtension_ = ".png";
    int32_t proxyMode_ = 0;
    std::string host_;
    std::string serviceUrl_;
    std::string path_;
    int32_t port_ = 80;
    bool secure_ = false;
    int32_t minZoom_ = 0;
    int32_t maxZoom_ = 20;
    int32_t maxDownloadZoom_ = 20;
    int32_t tileSize_ = 256;
    bool cacheEnabled_ = true;
    int32_t tileFormat_ = 0;

private:
    static void AssignText(std::string& field, const std::string& value) {
        if (&field != &value) field = value;
    }
    void SetHost(const std::string& host);
    void SetPort(int32_t port);
    void SetPath(const std::string& path);
    void RebuildServiceUrl();

    // The stages of a fetch; each holds its own references to the fetcher and the request.
    void ReadCachedTile(const Core::Ptr<TileRequestImpl>& request);
    void OnTileResponse(const Platform::Network::Http::HttpResponse& response,
                        const Core::Ptr<TileRequestImpl>& request);
    void CopyTileResponse(const Platform::Network::Http::HttpResponse& response,
                          const Core::Ptr<TileRequestImpl>& request);
    void PostCompletion(const Core::Ptr<TileRequestImpl>& request, bool withNullArray);
    void FetchTileToFile(ITileRequest& request, const std::string& path);
};

// Makes the directory at `path` unless something exists there; `function` names the caller in
// the log line of a failure.
std::string MakeCacheDirectory(const std::string& path, const char* function);

// True when something of any type exists at `path`; a status error other than "not found"
// throws the "exists" file-system error.
bool CachePathExists(const std::string& path);

} // namespace MapServices::impl
