#include "TmsFetcherImpl.h"

#include <stdexcept>

#include "Common/TextReplace.h"
#include "Core/Fnv1a.h"
#include "Platform/Network/Http/Headers.h"
#include "Platform/Network/Http/HttpClient.h"

namespace MapServices::Tms::impl {

TmsFetcherImpl::TmsFetcherImpl(const std::string& url, int32_t tileFormat) {
    tileFormat_ = url.find("pbf") != std::string::npos ? 1 : tileFormat;
    SetServerUrl(url);
    if (tileFormat_ == 1) fileExtension_ = ".pbf";
    cacheRoot_.clear();
    cacheFolder_ = "TmsCache";
    template_ = url;
}

std::string TmsFetcherImpl::BuildTilePath(int32_t z, int32_t x, int32_t y) const {
    std::string path = path_;
    ReplaceAll(path, "{x}", std::to_string(x));
    ReplaceAll(path, "{y}", std::to_string(y));
    ReplaceAll(path, "{z}", std::to_string(z));
    return path;
}

uint64_t TmsFetcherImpl::GetCacheHash() { return Core::Fnv1a64(template_); }

Platform::Network::Http::HttpRequest TmsFetcherImpl::CreateTileHttpRequest(int32_t z, int32_t x, int32_t y) {
    const std::string path = BuildTilePath(z, x, y);
    Core::Ptr<Platform::Interfaces::IHttpClient> client = GetHttpClient();
    Core::Ptr<Platform::Interfaces::IAcceptTypes> accept;
    Platform::Network::Http::CreateAcceptTypes(accept.ReceiveAddress());
    // Any image: adds "image/*;q=0.8" and then "image/jpeg;q=0.8". Vector tiles ask the same.
    Platform::Network::Http::AddContentType(accept.Raw(), Platform::Network::Http::ContentTypeAnyImage);
    Platform::Network::Http::HttpRequest request;
    if (!client->CreateRequest(path.c_str(), accept.Raw(), Platform::Network::Http::HttpMethodGet,
                               request.ReceiveAddress()))
        throw std::runtime_error("Request failed");
    return request;
}

} // namespace MapServices::Tms::impl
