#include "Wcs/WcsFetcher.h"

#include <sstream>
#include <stdexcept>

#include "Core/Fnv1a.h"
#include "Core/TypeName.h"
#include "Platform/Network/Http/Headers.h"
#include "Platform/Network/Http/HttpClient.h"
#include "Wcs/WcsRequestImpl.h"
#include "Wms/WmsRequestImpl.h"

namespace MapServices::Wcs::impl {

WcsFetcher::WcsFetcher(WcsLayer layer) : layer_(std::move(layer)) {
    SetServerUrl(layer_->url);
    cacheRoot_.clear();
    cacheFolder_ = "WcsCache";
    fileExtension_ = ".tif";
    responseFormat_ = "image/tiff";
}

uint64_t WcsFetcher::GetCacheHash() {
    std::ostringstream text;
    text.imbue(std::locale::classic());
    text << host_ << path_ << port_ << layer_->name << tileSize_;
    return Core::Fnv1a64(text.str());
}

Platform::Network::Http::HttpRequest WcsFetcher::CreateTileHttpRequest(int32_t zoom, int32_t x, int32_t y) {
    const BoundingBoxValue box = Wms::impl::TileToBoundingBox(zoom, x, y);
    const auto size = static_cast<uint32_t>(tileSize_);
    const auto request = Core::MakeObject<WcsRequestImpl>("1.0.0", layer_->name, crs_, box, size, size, Data::DateTime());
    return CreateServiceHttpRequest(Core::Ptr<Interfaces::IServiceRequest>(request));
}

Platform::Network::Http::HttpRequest WcsFetcher::CreateServiceHttpRequest(
    const Core::Ptr<Interfaces::IServiceRequest>& request) {
    if (!request.Raw()) Core::detail::ThrowNullPointer(Core::TypeName<Interfaces::IServiceRequest>());
    auto* wcs = dynamic_cast<WcsRequestImpl*>(request.Raw());
    if (!wcs)
        Core::detail::ThrowCannotCast(Core::TypeName<Interfaces::IServiceRequest>(), " Implementation: ",
                                      Core::TypeName<WcsRequestImpl>());
    std::string url = GetPath();
    const int32_t method = layer_->method;
    std::string query = wcs->BuildQuery(method);
    // A path that ends in "&" takes the parameters without a "?" of their own.
    const size_t ampersand = url.rfind('&');
    if (ampersand != std::string::npos && ampersand + 1 == url.size())
        query.erase(0, query.find_first_not_of('?'));
    url += query;

    Core::Ptr<Platform::Interfaces::IHttpClient> client = GetHttpClient();
    Core::Ptr<Platform::Interfaces::IAcceptTypes> accept;
    Platform::Network::Http::CreateAcceptTypes(accept.ReceiveAddress());
    Platform::Network::Http::AddContentType(accept.Raw(), Platform::Network::Http::ContentTypeTiff);
    Platform::Network::Http::HttpRequest http;
    if (!client->CreateRequest(url.c_str(), accept.Raw(), static_cast<uint32_t>(method), http.ReceiveAddress()))
        throw std::runtime_error("Request failed");
    if (method == Platform::Network::Http::HttpMethodPost) {
        Core::Ptr<Platform::Interfaces::IHttpHeaders> headers;
        Platform::Network::Http::CreateHttpHeaders(headers.ReceiveAddress());
        headers->Add("Content-Type", "application/xml");
        http->AddHeaders(headers.Raw());
        const std::string body = wcs->BuildXml();
        http->SetBody(body.data(), body.size());
    }
    return http;
}

bool WcsFetcher::IsRequestInBounds(const Core::Ptr<Interfaces::IServiceRequest>& request) {
    const BoundingBoxValue& layer = layer_->box;
    const BoundingBoxValue box = request->GetBoundingBox();
    return !(layer.minX > box.minX || layer.minY > box.minY || box.maxX > layer.maxX || box.maxY > layer.maxY);
}

} // namespace MapServices::Wcs::impl
