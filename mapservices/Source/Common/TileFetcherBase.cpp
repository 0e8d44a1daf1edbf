#include "TileFetcherBase.h"

#include <atomic>
#include <cctype>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <vector>

#include "Core/AbiGuard.h"
#include "Core/Checked.h"
#include "Core/StringFormat.h"
#include "fmt/format.h"
#include "MapServices/Common/CacheFile.h"
#include "MapServices/Common/TileMath.h"
#include "Platform/Log.h"
#include "Platform/Network/Http/Headers.h"
#include "Platform/Network/Http/HttpClient.h"
#include "Platform/Threading/ThreadWorkerManager.h"
#include "TellarImaging/Exports.h"

namespace MapServices::impl {

namespace {

std::vector<std::string> SplitNonEmpty(const std::string& text, char separator) {
    std::vector<std::string> pieces;
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = text.find(separator, start);
        if (end == std::string::npos) end = text.size();
        if (end > start) pieces.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return pieces;
}

std::vector<std::string> SplitAll(const std::string& text, char separator) {
    std::vector<std::string> parts;
    size_t start = 0;
    for (;;) {
        const size_t end = text.find(separator, start);
        parts.push_back(text.substr(start, end == std::string::npos ? std::string::npos : end - start));
        if (end == std::string::npos) return parts;
        start = end + 1;
    }
}

std::string Lower(std::string text) {
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

// floor() of a tile formula as a 64-bit value; values past the range saturate, NaN reads 0.
int64_t FloorToInt64(double value) {
    value = std::floor(value);
    if (std::isnan(value)) return 0;
    if (value >= 9223372036854775807.0) return INT64_MAX;
    if (value <= -9223372036854775808.0) return INT64_MIN;
    return static_cast<int64_t>(value);
}

int64_t TileColumn(double longitude, double tiles) { return FloorToInt64((longitude + 180.0) / 360.0 * tiles); }

int64_t TileRow(double latitude, double tiles) {
    const double p = latitude * TilePi / 180.0;
    return FloorToInt64((1.0 - std::log(std::tan(p) + 1.0 / std::cos(p)) / TilePi) * 0.5 * tiles);
}

bool IsNotFound(const std::error_code& error) {
    return error == std::errc::no_such_file_or_directory || error == std::errc::not_a_directory;
}

// True when something of any type exists at `path`; a status error other than "not found" throws.
bool PathExists(const std::string& path) {
    std::error_code error;
    const auto status = std::filesystem::status(path, error);
    if (error && !IsNotFound(error)) Core::ThrowFileSystemError("exists", path, error);
    return !error && status.type() != std::filesystem::file_type::not_found;
}

} // namespace

bool CachePathExists(const std::string& path) { return PathExists(path); }

std::string MakeCacheDirectory(const std::string& path, const char* function) {
    if (PathExists(path)) return path;
    std::error_code error;
    const bool created = std::filesystem::create_directories(path, error);
    if (error) Core::ThrowFileSystemError("create_directories", path, error);
    if (!created) {
        const std::string text = Core::StringFormat("Error path not found: %s", path.c_str());
        Platform::LogMessage(Platform::LogFatal, function, "", 0, text);
        Platform::LogStackTrace();
        throw std::runtime_error(text);
    }
    return path;
}

BoundingBoxValue TileFetcherBase::GetTileBounds(int32_t x, int32_t y, int32_t z) {
    const double n = std::pow(2.0, z);
    BoundingBoxValue box;
    box.Extend(TileLongitude(x, n), TileLatitude(y, n));
    box.Extend(TileLongitude(static_cast<double>(x) + 1, n), TileLatitude(static_cast<double>(y) + 1, n));
    return box;
}

TileRange TileFetcherBase::GetTileRange(const BoundingBoxValue& box, int32_t zoom) {
    const double n = std::pow(2.0, zoom);
    TileRange range;
    range.Extend(TileColumn(box.minX, n), TileRow(box.minY, n));
    range.Extend(TileColumn(box.maxX, n), TileRow(box.maxY, n));
    return range;
}

bool TileFetcherBase::IsTileValid(int32_t z, int32_t x, int32_t y) {
    if (z < minZoom_ || z > GetMaxZoom()) return false;
    const double tiles = std::pow(2.0, z);
    const int64_t last = tiles >= 2147483648.0 ? INT32_MAX : static_cast<int64_t>(tiles) - 1;
    return x <= last && y <= last;
}

void TileFetcherBase::SetServerUrl(const std::string& url) {
    const std::vector<std::string> pieces = SplitNonEmpty(url, '/');
    if (pieces.size() <= 1) return;

    size_t hostPiece = 0;
    int32_t defaultPort = 443;
    const std::string scheme = Lower(pieces[0]);
    if (scheme == "https:") {
        secure_ = true;
        hostPiece = 1;
    } else if (scheme == "http:") {
        secure_ = false;
        hostPiece = 1;
        defaultPort = 80;
    } else {
        secure_ = true;
    }

    const std::vector<std::string> hostAndPort = SplitAll(pieces[hostPiece], ':');
    SetHost(hostAndPort.size() <= 2 ? hostAndPort[0] : std::string());
    SetPort(hostAndPort.size() == 2 ? Core::Stoi(hostAndPort[1]) : defaultPort);

    std::string path;
    for (size_t i = hostPiece + 1; i < pieces.size(); ++i) path += Core::StringFormat("/%s", pieces[i].c_str());
    SetPath(path);
}

void TileFetcherBase::SetHost(const std::string& host) {
    host_ = host;
    RebuildServiceUrl();
}

void TileFetcherBase::SetPort(int32_t port) {
    port_ = port;
    RebuildServiceUrl();
}

void TileFetcherBase::SetPath(const std::string& path) {
    path_ = path;
    RebuildServiceUrl();
}

void TileFetcherBase::RebuildServiceUrl() {
    secure_ = secure_ || port_ == 443;
    const std::string portText = port_ == 80 || port_ == 443 ? std::string() : Core::StringFormat(":%d", port_);
    serviceUrl_ = Core::StringFormat("%s://%s%s", secure_ ? "https" : "http", host_.c_str(), portText.c_str());
}

std::string TileFetcherBase::GetCacheDirectory() {
    return Core::StringFormat("%s/%s/%u/", cacheRoot_.c_str(), cacheFolder_.c_str(),
                              static_cast<uint32_t>(GetCacheHash()));
}

std::string TileFetcherBase::GetTileFileName(int32_t z, int32_t x, int32_t y) const {
    return fmt::format("{}_{}_{}{}", z, x, y, fileExtension_);
}

std::string TileFetcherBase::GetCachedTilePath(int32_t z, int32_t x, int32_t y) {
    // Made for every tile asked for: fmt rather than a printf pass over the format.
    return fmt::format("{}/{}/{}/{}/{}_{}_{}{}", cacheRoot_, cacheFolder_, static_cast<uint32_t>(GetCacheHash()), z, z,
                       x, y, fileExtension_);
}

std::string TileFetcherBase::GetMapTileDirPath(int32_t z) {
    return MakeCacheDirectory(Core::StringFormat("%s/%s/%u/%d", cacheRoot_.c_str(), cacheFolder_.c_str(),
                                                 static_cast<uint32_t>(GetCacheHash()), z),
                              "MapServices::impl::TileFetcherBase::GetMapTileDirPath");
}

std::string TileFetcherBase::GetCachedTileFilePath(const std::string& directory, int32_t z, int32_t x, int32_t y) {
    const std::string zoomDirectory = MakeCacheDirectory(Core::StringFormat("%s/%d", directory.c_str(), z),
                                                         "MapServices::impl::TileFetcherBase::GetCachedTileFilePath");
    return Core::StringFormat("%s/%s", zoomDirectory.c_str(), GetTileFileName(z, x, y).c_str());
}

bool TileFetcherBase::IsTileCached(int32_t z, int32_t x, int32_t y) {
    if (!IsCacheEnabled()) return false;
    return PathExists(GetCachedTilePath(z, x, y));
}

Data::Array TileFetcherBase::ReadTileFile(const std::string& path) {
    std::error_code error;
    // Something that is not a file (a directory named like a tile) opens as no file.
    if (std::filesystem::is_directory(path, error)) return {};
    std::ifstream in(path, std::ios::binary);
    if (!in.is_open()) return {};
    const uintmax_t size = std::filesystem::file_size(path, error);
    if (error) Core::ThrowFileSystemError("file_size", path, error);
    Data::Array bytes = Data::Array::Create(size);
    if (size != 0) in.read(reinterpret_cast<char*>(bytes.GetData()), static_cast<std::streamsize>(size));
    return bytes;
}

} // namespace MapServices::impl

namespace MapServices::impl {

namespace {

using Platform::Network::Http::HttpRequest;
using Platform::Network::Http::HttpResponse;

constexpr const char* FetchFunction = "MapServices::impl::TileFetcherBase::FetchTileDataAsync";
constexpr const char* DownloadFunction = "MapServices::impl::TileFetcherBase::DownloadMap";

void LogException(const char* function, const std::exception& e) {
    Platform::LogMessage(Platform::LogError, function, "", 0, Core::StringFormat("Exception: %s", e.what()));
}

} // namespace

TileFetcherBase::TileFetcherBase()
    : dispatcher_(Core::MakeObject<Platform::Threading::impl::ThreadDispatcher>()),
      worker_(Platform::Threading::ThreadWorkerManager::GetWorker("Tile Response Worker")) {}

Core::Ptr<Platform::Interfaces::IHttpClient> TileFetcherBase::GetHttpClient() {
    std::lock_guard lock(clientMutex_);
    if (!httpClient_.IsNull()) return httpClient_;
    auto client = Platform::Network::Http::CreateHttpClient(GetServiceUrl().c_str(), "TellarMapClient/2.0",
                                                            static_cast<uint32_t>(proxyMode_));
    client->SetReceiveTimeout(90000);
    clientUrl_ = client->GetBaseUrl();
    httpClient_ = client;
    return client;
}

void TileFetcherBase::SetProxyMode(int32_t mode) {
    proxyMode_ = mode;
    std::lock_guard lock(clientMutex_);
    httpClient_.Reset();
}

void TileFetcherBase::ClearQueue() {
    Platform::LogMessage(Platform::LogDebug, "MapServices::impl::TileFetcherBase::ClearQueue", "", 0,
                         "Method Not Implemented!");
}

TileRequest TileFetcherBase::FetchTileDataAsync(int32_t z, int32_t x, int32_t y, TileDataCallback callback) {
    if (!IsTileValid(z, x, y)) return {};
    if (worker_.IsNull() || dispatcher_.IsNull()) {
        Platform::LogMessage(Platform::LogError, FetchFunction, "", 0,
                             "Missing async workers! Use Set...Worker methods!");
        return {};
    }
    auto request = Core::MakeObject<TileRequestImpl>(z, x, y, std::move(callback));
    Core::Ptr<ITileFetcher> self(this);
    try {
        if (IsCacheEnabled() && PathExists(GetCachedTilePath(z, x, y))) {
            request->SetTask(
                worker_->Post([self, request] { static_cast<TileFetcherBase*>(self.Raw())->ReadCachedTile(request); }));
            return TileRequest(Core::Ptr<ITileRequest>(request.Raw()));
        }
        HttpRequest http = CreateTileHttpRequest(z, x, y);
        if (http.IsNull()) return {};
        request->SetHttpRequest(http);
        http.SendHttpRequestAsync([self, request](const HttpResponse& response) {
            static_cast<TileFetcherBase*>(self.Raw())->OnTileResponse(response, request);
        });
    } catch (const std::exception& e) {
        LogException(FetchFunction, e);
        Platform::LogStackTrace();
        dispatcher_->Post([request] { request->Complete(Data::Array::Create(0)); });
    }
    return TileRequest(Core::Ptr<ITileRequest>(request.Raw()));
}

void TileFetcherBase::ReadCachedTile(const Core::Ptr<TileRequestImpl>& request) {
    try {
        Data::Array bytes = ReadTileFile(GetCachedTilePath(request->GetZoom(), request->GetX(), request->GetY()));
        if (!bytes.IsNull()) request->SetResult(std::move(bytes));
    } catch (const std::exception& e) {
        LogException("MapServices::impl::TileFetcherBase::FetchTileDataAsync::<lambda_1>::operator ()", e);
    }
    PostCompletion(request, false);
}

void TileFetcherBase::OnTileResponse(const HttpResponse& response, const Core::Ptr<TileRequestImpl>& request) {
    if (!response || response.GetStatusCode() != 200 || !IsTileContentType(response.Get()->GetHeader("Content-Type"))) {
        PostCompletion(request, true);
        return;
    }
    Core::Ptr<ITileFetcher> self(this);
    auto worker = worker_;
    request->SetTask(worker_->Post([self, response, request, worker] {
        static_cast<TileFetcherBase*>(self.Raw())->CopyTileResponse(response, request);
    }));
}

void TileFetcherBase::CopyTileResponse(const HttpResponse& response, const Core::Ptr<TileRequestImpl>& request) {
    try {
        if (IsCacheEnabled()) SaveTile(response, *request, std::string());
        const size_t size = response.Get()->GetBodySize();
        Data::Array bytes = Data::Array::Create(size);
        if (size != 0) std::memcpy(bytes.GetData(), response.Get()->GetBodyData(), size);
        request->SetResult(std::move(bytes));
    } catch (const std::exception& e) {
        LogException("MapServices::impl::TileFetcherBase::FetchTileDataAsync::<lambda_2>::()::<lambda_1>::operator ()",
                     e);
    }
    PostCompletion(request, false);
}

void TileFetcherBase::PostCompletion(const Core::Ptr<TileRequestImpl>& request, bool withNullArray) {
    if (withNullArray)
        dispatcher_->Post([request] { request->Complete(Data::Array()); });
    else
        dispatcher_->Post([request] { request->Complete(); });
}

TileRequest TileFetcherBase::FetchTileAsync(int32_t z, int32_t x, int32_t y, TileImageCallback callback) {
    if (!IsTileValid(z, x, y)) return {};
    return FetchTileDataAsync(z, x, y, [callback = std::move(callback)](const Data::Array& bytes) {
        if (bytes.IsNull()) {
            callback(nullptr);
            return;
        }
        Core::Ptr<TellarImaging::IImage> image;
        Core::Ptr<Core::IErrorCode> error;
        CreateImageFromMemoryStream(bytes.GetData(), bytes.GetSizeInBytes(), image.ReceiveAddress(),
                                    error.ReceiveAddress());
        Core::ThrowIfError(error);
        if (!dynamic_cast<TellarImaging::ITiffImage*>(image.Raw())) {
            Core::Ptr<TellarImaging::ITiffImage> tiff;
            ConvertImageToTiffImage(image.Raw(), tiff.ReceiveAddress(), error.ReceiveAddress());
            Core::ThrowIfError(error);
            image = tiff;
        }
        callback(image.Raw());
    });
}

void TileFetcherBase::SaveTile(const HttpResponse& response, ITileRequest& request, const std::string& path) {
    if (!response) return;
    const int32_t z = request.GetZoom(), x = request.GetX(), y = request.GetY();
    const std::string target =
        path.empty() ? Core::StringFormat("%s/%s", GetMapTileDirPath(z).c_str(), GetTileFileName(z, x, y).c_str())
                     : path;
    WriteResponseFile(response, target);
}

void TileFetcherBase::WriteResponseFile(const HttpResponse& response, const std::string& target) {
    WriteCacheFile(response, target);
}

void TileFetcherBase::FetchTileToFile(ITileRequest& request, const std::string& path) {
    HttpRequest http = CreateTileHttpRequest(request.GetZoom(), request.GetX(), request.GetY());
    if (http.IsNull()) return;
    Platform::Interfaces::IHttpResponse* response = http->GetResponse(true);
    // Only a whole exchange is worth a file, whatever its status line said.
    if (response && http->IsCompleted() && response->GetStatusCode() == 200)
        SaveTile(HttpResponse(response), request, path);
}

void TileFetcherBase::DownloadMap(const BoundingBoxValue& box, int32_t maxZoom, const std::string& directory,
                                  DownloadProgress progress) {
    const auto rows = [](const BoundingBoxValue& b, double n) {
        return std::pair(TileRow(b.maxY, n), TileRow(b.minY, n));
    };
    const auto columns = [](const BoundingBoxValue& b, double n) {
        return std::pair(TileColumn(b.minX, n), TileColumn(b.maxX, n));
    };
    uint64_t total = 0;
    for (int32_t z = 0; z <= maxZoom && z <= maxDownloadZoom_; ++z) {
        const double n = std::pow(2.0, z);
        const auto [firstRow, lastRow] = rows(box, n);
        const auto [firstColumn, lastColumn] = columns(box, n);
        total += static_cast<uint64_t>((lastColumn - firstColumn + 1) * (lastRow - firstRow + 1));
    }

    uint64_t current = 0;
    bool cancel = false;
    for (int32_t z = 0; z <= maxZoom && z <= maxDownloadZoom_; ++z) {
        const double n = std::pow(2.0, z);
        const auto [firstRow, lastRow] = rows(box, n);
        const auto [firstColumn, lastColumn] = columns(box, n);
        for (int64_t row = firstRow; row <= lastRow; ++row) {
            for (int64_t column = firstColumn; column <= lastColumn; ++column) {
                try {
                    const auto x = static_cast<int32_t>(column), y = static_cast<int32_t>(row);
                    const std::string path = GetCachedTileFilePath(directory, z, x, y);
                    auto request = Core::MakeObject<TileRequestImpl>(z, x, y, TileDataCallback());
                    FetchTileToFile(*request, path);
                    if (progress) {
                        progress(current, total, z, column, row, cancel);
                        if (cancel) return;
                    }
                } catch (const std::exception& e) {
                    LogException(DownloadFunction, e);
                    Platform::LogStackTrace();
                }
                ++current;
            }
        }
    }
    if (progress) progress(total, total, 0, 0, 0, cancel);
}

void TileFetcherBase::DownloadMap(int32_t startZoom, int32_t x, int32_t y, int32_t endZoom,
                                  const std::string& directory, DownloadProgress progress) {
    const int32_t span = endZoom - startZoom;
    uint64_t total = 0;
    bool cancel = false;
    if (progress) {
        for (int32_t i = 0; i <= span; ++i) total += static_cast<uint64_t>(std::pow(4.0, i));
        progress(0, total, startZoom, x, y, cancel);
    }
    uint64_t current = 0;
    Core::Ptr<ITileFetcher> self(this);
    for (int32_t i = 0; i <= span && i + span <= maxDownloadZoom_; ++i) {
        const int64_t side = int64_t{1} << i;
        const int64_t baseX = static_cast<int64_t>(x) * side, baseY = static_cast<int64_t>(y) * side;
        for (int64_t r = 0; r < side; ++r) {
            for (int64_t c = 0; c < side; ++c) {
                const int32_t z = startZoom + i;
                const auto tileX = static_cast<int32_t>(baseX + c), tileY = static_cast<int32_t>(baseY + r);
                try {
                    auto request = Core::MakeObject<TileRequestImpl>(z, tileX, tileY, TileDataCallback());
                    GetCachedTileFilePath(directory, z, tileX, tileY);
                    HttpRequest http = CreateTileHttpRequest(z, tileX, tileY);
                    if (http.IsNull()) continue;
                    http.SendHttpRequestAsync([self, request](const HttpResponse& response) {
                        if (!response || response.GetStatusCode() != 200) return;
                        // On the transport thread: a failed write is logged, never thrown there.
                        try {
                            static_cast<TileFetcherBase*>(self.Raw())->SaveTile(response, *request, std::string());
                        } catch (const std::exception& e) {
                            LogException(DownloadFunction, e);
                        }
                    });
                    if (progress) {
                        progress(++current, total, z, tileX, tileY, cancel);
                        if (cancel) return;
                    }
                } catch (const std::exception& e) {
                    LogException(DownloadFunction, e);
                    Platform::LogStackTrace();
                }
            }
        }
    }
}

} // namespace MapServices::impl
