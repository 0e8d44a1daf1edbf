#include "TileFetcherBase.h"

#include <cctype>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <vector>

#include "Core/Checked.h"
#include "Core/StringFormat.h"
#include "Platform/Log.h"

namespace MapServices::impl {

namespace {

// The pi of the tile formulas, as written in the formulas (not the full-precision value).
constexpr double TilePi = 3.14159265358979;
constexpr double DegreesPerRadian = 57.29577951308238;

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
    const auto longitude = [n](double column) { return column / n * 360.0 - 180.0; };
    const auto latitude = [n](double row) {
        return std::atan(std::sinh(TilePi - 2.0 * (row / n) * TilePi)) * DegreesPerRadian;
    };
    BoundingBoxValue box;
    box.Extend(longitude(x), latitude(y));
    box.Extend(longitude(static_cast<double>(x) + 1), latitude(static_cast<double>(y) + 1));
    return box;
}

TileRange TileFetcherBase::GetTileRange(const BoundingBoxValue& box, int32_t zoom) {
    const double n = std::pow(2.0, zoom);
    const auto column = [n](double longitude) { return FloorToInt64((longitude + 180.0) / 360.0 * n); };
    const auto row = [n](double latitude) {
        const double p = latitude * TilePi / 180.0;
        return FloorToInt64((1.0 - std::log(std::tan(p) + 1.0 / std::cos(p)) / TilePi) * 0.5 * n);
    };
    TileRange range;
    range.Extend(column(box.minX), row(box.minY));
    range.Extend(column(box.maxX), row(box.maxY));
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
    return Core::StringFormat("%d_%d_%d%s", z, x, y, fileExtension_.c_str());
}

std::string TileFetcherBase::GetCachedTilePath(int32_t z, int32_t x, int32_t y) {
    return Core::StringFormat("%s/%s/%u/%d/%s", cacheRoot_.c_str(), cacheFolder_.c_str(),
                              static_cast<uint32_t>(GetCacheHash()), z, GetTileFileName(z, x, y).c_str());
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
