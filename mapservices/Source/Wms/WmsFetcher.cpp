#include "Wms/WmsFetcher.h"

#include <sstream>
#include <stdexcept>

#include "Core/Checked.h"
#include "Core/Fnv1a.h"
#include "Core/TypeName.h"
#include "MapServices/Common/TileMath.h"
#include "Platform/Network/Http/Headers.h"
#include "Platform/Network/Http/HttpClient.h"
#include "Platform/Network/Url.h"
#include "Wms/WmsRequestImpl.h"

namespace MapServices::Wms::impl {

namespace {

// Removes every occurrence of `part`, scanning from the start.
void RemoveAll(std::string& text, const std::string& part) {
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at)) text.erase(at, part.size());
}

} // namespace

WmsFetcher::WmsFetcher(WmsLayer layer) : layer_(std::move(layer)) {
    SetServerUrl(layer_->url);
    layerName_ = layer_->name;
    cacheFolder_ = "WmsCache";
    cacheRoot_.clear();
}

uint64_t WmsFetcher::GetCacheHash() {
    std::ostringstream text;
    text.imbue(std::locale::classic());
    text << host_ << path_ << port_ << tileSize_ << (swapAxes_ ? "1" : "0") << layer_->name;
    if (const auto time = layer_->GetTimeDimension()) text << DimensionValue(*time);
    if (const auto elevation = layer_->GetElevationDimension()) text << DimensionValue(*elevation);
    return Core::Fnv1a64(text.str());
}

Platform::Network::Http::HttpRequest WmsFetcher::CreateTileHttpRequest(int32_t zoom, int32_t x, int32_t y) {
    const BoundingBoxValue box = TileToBoundingBox(zoom, x, y);
    std::optional<WmsDimension> elevation = layer_->GetElevationDimension();
    std::optional<WmsDimension> time = layer_->GetTimeDimension();
    const auto size = static_cast<uint32_t>(tileSize_);
    const std::string& style = Core::At(layer_->styles, 0).name;
    const auto request =
        CreateWmsRequest(layer_->url, {layer_}, style, crs_, box, size, size, std::move(time), std::move(elevation));
    return CreateServiceHttpRequest(request);
}

Platform::Network::Http::HttpRequest WmsFetcher::CreateServiceHttpRequest(
    const Core::Ptr<Interfaces::IServiceRequest>& request) {
    std::string origin, path;
    Platform::Network::SplitServiceUrl(GetServiceUrl(), origin, path);
    if (!request.Raw()) Core::detail::ThrowNullPointer(Core::TypeName<Interfaces::IServiceRequest>());
    auto* wms = dynamic_cast<WmsRequestImpl*>(request.Raw());
    if (!wms)
        Core::detail::ThrowCannotCast(Core::TypeName<Interfaces::IServiceRequest>(), " Implementation: ",
                                      Core::TypeName<WmsRequestImpl>());
    std::string url = wms->BuildUrl(swapAxes_);
    if (!origin.empty()) RemoveAll(url, origin);

    Core::Ptr<Platform::Interfaces::IHttpClient> client = GetHttpClient();
    Core::Ptr<Platform::Interfaces::IAcceptTypes> accept;
    Platform::Network::Http::CreateAcceptTypes(accept.ReceiveAddress());
    Platform::Network::Http::AddContentType(accept.Raw(), Platform::Network::Http::ContentTypeAnyImage);
    Platform::Network::Http::HttpRequest http;
    if (!client->CreateRequest(url.c_str(), accept.Raw(), Platform::Network::Http::HttpMethodGet,
                               http.ReceiveAddress()))
        throw std::runtime_error("Request failed");
    return http;
}

bool WmsFetcher::IsRequestInBounds(const Core::Ptr<Interfaces::IServiceRequest>& request) {
    const auto& boxes = layer_->boundingBoxes;
    if (boxes.empty()) return false;
    const BoundingBoxValue& layer = boxes.front().box;
    const BoundingBoxValue box = request->GetBoundingBox();
    return !(layer.minX > box.minX || layer.minY > box.minY || box.maxX > layer.maxX || box.maxY > layer.maxY);
}

} // namespace MapServices::Wms::impl
