#pragma once
#include <cstdint>
#include <string>

#include "Data/Values.h"
#include "MapServices/Geometry.h"

namespace MapServices::impl {

// What every fetcher shares: settings, the split of its service URL, the Web-Mercator tile
// pyramid and the layout of its cache tree.
class TileFetcherBase {
public:
    virtual ~TileFetcherBase() = default;

    // Geometry of the tile pyramid. The box is in degrees: min x, min y, max x, max y.
    virtual BoundingBoxValue GetTileBounds(int32_t x, int32_t y, int32_t z);
    virtual TileRange GetTileRange(const BoundingBoxValue& box, int32_t zoom);
    virtual bool IsTileValid(int32_t z, int32_t x, int32_t y);
    bool IsTileAvailable(int32_t x, int32_t y, int32_t z) { return IsTileValid(z, x, y); }

    // Names the cache directory of this fetcher; two fetchers of one service share it.
    virtual uint64_t GetCacheHash() = 0;

    virtual std::string GetServiceUrl() { return serviceUrl_; }
    std::string GetLayerName() const { return layerName_; }
    std::string GetLabel() const { return label_; }
    std::string GetCacheRoot() const { return cacheRoot_; }
    std::string GetCacheDirectory();
    int32_t GetMinZoom() const { return minZoom_; }
    virtual int32_t GetMaxZoom() { return maxZoom_; }
    int32_t GetTileSize() const { return tileSize_; }
    int32_t GetTileFormat() const { return tileFormat_; }
    void SetLayerName(const std::string& name) { AssignText(layerName_, name); }
    void SetLabel(const std::string& label) { AssignText(label_, label); }
    void SetCacheRoot(const std::string& root) { AssignText(cacheRoot_, root); }
    void SetMinZoom(int32_t zoom) { minZoom_ = zoom; }
    void SetMaxZoom(int32_t zoom) { maxZoom_ = zoom; }
    void SetTileFormat(int32_t format) { tileFormat_ = format; }
    void SetCacheEnabled(bool enabled) { cacheEnabled_ = enabled; }
    virtual bool IsCacheEnabled() { return cacheEnabled_; }
    int32_t GetProxyMode() const { return proxyMode_; }

    // The cache tree: root/folder/<low 32 bits of the hash>/z/z_x_y.ext
    bool IsTileCached(int32_t z, int32_t x, int32_t y);
    std::string GetCachedTilePath(int32_t z, int32_t x, int32_t y);
    std::string GetTileFileName(int32_t z, int32_t x, int32_t y) const;
    // Write side: these make the directories they name.
    std::string GetMapTileDirPath(int32_t z);
    std::string GetCachedTileFilePath(const std::string& directory, int32_t z, int32_t x, int32_t y);

    // The whole file as a byte array; null when it cannot be opened (a directory, say).
    static Data::Array ReadTileFile(const std::string& path);

    const std::string& GetHost() const { return host_; }
    const std::string& GetPath() const { return path_; }
    int32_t GetPort() const { return port_; }
    bool IsSecure() const { return secure_; }
    int32_t GetMaxDownloadZoom() const { return maxDownloadZoom_; }
    const std::string& GetFileExtension() const { return fileExtension_; }

protected:
    TileFetcherBase() = default;

    // Splits scheme://host:port/path into the host, port, path, secure flag and service URL.
    void SetServerUrl(const std::string& url);

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
};

// Makes the directory at `path` unless something exists there; `function` names the caller in
// the log line of a failure.
std::string MakeCacheDirectory(const std::string& path, const char* function);

} // namespace MapServices::impl
