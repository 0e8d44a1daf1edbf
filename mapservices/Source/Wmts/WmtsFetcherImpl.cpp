#include "Wmts/WmtsFetcherImpl.h"

#include <stdexcept>

#include "Common/TextReplace.h"
#include "Core/Checked.h"
#include "Core/Fnv1a.h"
#include "MapServices/Wmts/TileMatrixGeometry.h"
#include "Platform/Network/Http/Headers.h"
#include "Platform/Network/Http/HttpClient.h"
#include "Platform/Network/Url.h"

namespace MapServices::Wmts::impl {

WmtsFetcherImpl::WmtsFetcherImpl(WmtsLayer layer) {
    Platform::Network::Http::CreateAcceptTypes(acceptTypes_.ReceiveAddress());
    Platform::Network::Http::AddContentType(acceptTypes_.Raw(), Platform::Network::Http::ContentTypeAnyImage);
    layer_ = std::move(layer);
    const std::string& urlTemplate = layer_->GetCurrentResource().urlTemplate;
    SetServerUrl(urlTemplate);
    layerName_ = layer_->title;
    cacheRoot_.clear();
    cacheFolder_ = "TmsCache";
    if (urlTemplate.find("mapbox") != std::string::npos) tileFormat_ = 1;
}

uint64_t WmtsFetcherImpl::GetCacheHash() { return Core::Fnv1a64(layer_->GetCurrentResource().urlTemplate); }

int32_t WmtsFetcherImpl::GetMaxZoom() {
    if (layer_.IsNull()) return 0;
    const auto count = static_cast<int64_t>(layer_->GetCurrentTileMatrixSet()->matrices.size());
    return count - 1 < 0 ? 0 : static_cast<int32_t>(count - 1);
}

bool WmtsFetcherImpl::IsTileValid(int32_t, int32_t, int32_t) { return !layer_.IsNull(); }

WmtsTileMatrix WmtsFetcherImpl::Matrix(int32_t zoom) const {
    const std::vector<WmtsTileMatrix> matrices = layer_->GetCurrentTileMatrixSet()->GetTileMatrices();
    // A negative zoom wraps to a huge index, past the end like any other.
    return Core::At(matrices, static_cast<size_t>(zoom));
}

BoundingBoxValue WmtsFetcherImpl::GetTileBounds(int32_t x, int32_t y, int32_t zoom) {
    const WmtsTileMatrix matrix = Matrix(zoom);
    const double spanX = TileSpanX(matrix), spanY = TileSpanY(matrix);
    const double left = x * spanX + matrix.topLeftX;
    const double top = y * spanY + matrix.topLeftY;
    BoundingBoxValue box;
    box.Extend(left, top);
    box.Extend(left + spanX, top + spanY);
    return box;
}

TileRange WmtsFetcherImpl::GetTileRange(const BoundingBoxValue& box, int32_t zoom) {
    if (layer_.IsNull()) throw std::runtime_error("Layer must be set to the WmtsFetcher before this method can be called!");
    TileRange range = TileMatrixRange(Matrix(zoom), box);
    // One row more on top, always.
    if (range.minY != INT64_MIN) --range.minY;
    return range;
}

std::string WmtsFetcherImpl::BuildTileUrl(const std::string& matrixIdentifier, int32_t x, int32_t y) const {
    const std::string& style = layer_->GetCurrentStyle().identifier;
    std::string url = layer_->GetCurrentResource().urlTemplate;
    ReplaceAll(url, "{style}", style);
    ReplaceAll(url, "{Style}", style);
    ReplaceAll(url, "{TileMatrixSet}", layer_->GetCurrentTileMatrixSet()->identifier);
    ReplaceAll(url, "{TileMatrix}", matrixIdentifier);
    ReplaceAll(url, "{TileCol}", std::to_string(x));
    ReplaceAll(url, "{TileRow}", std::to_string(y));
    return url;
}

Platform::Network::Http::HttpRequest WmtsFetcherImpl::CreateTileHttpRequest(int32_t zoom, int32_t x, int32_t y) {
    const TileMatrixSet& set = layer_->GetCurrentTileMatrixSet();
    const std::string z = std::to_string(zoom);
    const std::string identifier = set->HasTileMatrix(z) ? z : set->identifier + ":" + z;
    if (!set->HasTileMatrix(identifier)) return {};

    const WmtsResourceUrl& resource = layer_->GetCurrentResource();
    const char* extension = resource.format == "image/png"    ? ".png"
                            : resource.format == "image/jpeg" ? ".jpg"
                            : tileFormat_ == 1                ? ".pbf"
                                                              : ".png";
    // Written at each request; while the format stays, the value does too and is left alone,
    // so threads that read it for cache paths never see it change under them.
    if (fileExtension_ != extension) fileExtension_ = extension;

    std::string origin, path;
    Platform::Network::SplitServiceUrl(BuildTileUrl(identifier, x, y), origin, path);
    Core::Ptr<Platform::Interfaces::IHttpClient> client = GetHttpClient();
    Platform::Network::Http::HttpRequest request;
    if (!client->CreateRequest(path.c_str(), acceptTypes_.Raw(), Platform::Network::Http::HttpMethodGet,
                               request.ReceiveAddress()))
        throw std::runtime_error("Request failed");
    return request;
}

} // namespace MapServices::Wmts::impl
