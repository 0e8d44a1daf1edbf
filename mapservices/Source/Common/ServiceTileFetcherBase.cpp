#include "ServiceTileFetcherBase.h"

#include <cstring>
#include <stdexcept>

#include "Core/AbiGuard.h"
#include "Core/StringFormat.h"
#include "Core/TypeName.h"
#include "Platform/Log.h"
#include "TellarImaging/Exports.h"

namespace MapServices::impl {

namespace {

using Platform::Network::Http::HttpRequest;
using Platform::Network::Http::HttpResponse;

constexpr const char* MapFunction = "MapServices::impl::ServiceTileFetcherBase::GetMapAsync";
constexpr const char* CachedMapFunction = "MapServices::impl::ServiceTileFetcherBase::GetMapAsync::<lambda_1>::operator ()";
constexpr const char* MapResponseFunction =
    "MapServices::impl::ServiceTileFetcherBase::GetMapAsync::<lambda_2>::operator ()";
constexpr const char* DataFunction = "MapServices::impl::ServiceTileFetcherBase::GetDataAsync";
constexpr const char* DataResponseFunction =
    "MapServices::impl::ServiceTileFetcherBase::GetDataAsync::<lambda_1>::operator ()";

void LogException(const char* function, const std::exception& e) {
    Platform::LogMessage(Platform::LogError, function, "", 0, Core::StringFormat("Exception: %s", e.what()));
}

// The Content-Type of a response; a missing response object is the not-accessible failure and
// a missing header reads as no type at all.
std::string ContentType(const HttpResponse& response) {
    if (!response) Core::detail::ThrowNotAccessible(Core::TypeName<Platform::Interfaces::IHttpResponse>());
    const char* type = response.Get()->GetHeader("Content-Type");
    return type ? type : "";
}

template <class Fetcher>
ServiceTileFetcherBase* Self(const Core::Ptr<Fetcher>& fetcher) {
    return static_cast<ServiceTileFetcherBase*>(fetcher.Raw());
}

} // namespace

std::string ServiceTileFetcherBase::GetDirPath() {
    return MakeCacheDirectory(
        Core::StringFormat("%s/%s/%u", cacheRoot_.c_str(), cacheFolder_.c_str(), static_cast<uint32_t>(GetCacheHash())),
        "MapServices::impl::ServiceTileFetcherBase::GetDirPath");
}

std::string ServiceTileFetcherBase::ServiceFilePath(uint64_t requestHash) {
    const std::string name =
        Core::StringFormat("%llu%s", static_cast<unsigned long long>(requestHash), fileExtension_.c_str());
    return Core::StringFormat("%s/%s", GetDirPath().c_str(), name.c_str());
}

Platform::Threading::impl::ThreadWorker& ServiceTileFetcherBase::Worker() const {
    if (!worker_.Raw()) Core::detail::ThrowNotAccessible(Core::TypeName<Platform::Threading::impl::ThreadWorker>());
    return *worker_.Raw();
}

void ServiceTileFetcherBase::GetMapAsync(ServiceImageRequestHandler handler) {
    try {
        Core::Ptr<ITileFetcher> self(this);
        if (IsCacheEnabled() && CachePathExists(GetServiceFilePath(handler))) {
            Worker().Post([self, handler] { Self(self)->ReadCachedMap(handler); });
            return;
        }
        HttpRequest http = CreateServiceHttpRequest(handler.request);
        http.SendHttpRequestAsync(
            [self, handler](const HttpResponse& response) { Self(self)->OnMapResponse(response, handler); });
    } catch (const std::exception& e) {
        LogException(MapFunction, e);
        Platform::LogStackTrace();
        handler.function(nullptr);
    }
}

void ServiceTileFetcherBase::ReadCachedMap(const ServiceImageRequestHandler& handler) {
    Core::Ptr<TellarImaging::IImage> image;
    try {
        Core::Ptr<Core::IErrorCode> error;
        if (!OpenImageA(GetServiceFilePath(handler).c_str(), image.ReceiveAddress(), error.ReceiveAddress())) {
            image.Reset();
            throw std::runtime_error("Invalid file!");
        }
    } catch (const std::exception& e) {
        LogException(CachedMapFunction, e);
    }
    PostMap(handler, std::move(image));
}

void ServiceTileFetcherBase::PostMap(const ServiceImageRequestHandler& handler, Core::Ptr<TellarImaging::IImage> image) {
    // A null image fails this task alone: the function is not called with it.
    dispatcher_->Post([handler, image] { handler.function(image.Get()); });
}

void ServiceTileFetcherBase::OnMapResponse(const HttpResponse& response, const ServiceImageRequestHandler& handler) {
    try {
        const std::string type = ContentType(response);
        if (response.GetStatusCode() == 200 && type == responseFormat_) {
            Core::Ptr<ITileFetcher> self(this);
            Worker().Post([self, response, handler] { Self(self)->DecodeMapResponse(response, handler); });
            return;
        }
    } catch (const std::exception& e) {
        LogException(MapResponseFunction, e);
    }
    dispatcher_->Post([handler] { handler.function(nullptr); });
}

void ServiceTileFetcherBase::DecodeMapResponse(const HttpResponse& response,
                                               const ServiceImageRequestHandler& handler) {
    // No handler here: a failed cache write or a body that does not decode fails the worker's
    // task, and the function is never called.
    if (IsCacheEnabled()) SaveServiceResponse(response, handler, std::string());
    Core::Ptr<TellarImaging::IImage> image;
    Core::Ptr<Core::IErrorCode> error;
    CreateImageFromMemoryStream(response.Get()->GetBodyData(), response.Get()->GetBodySize(), image.ReceiveAddress(),
                                error.ReceiveAddress());
    Core::ThrowIfError(error);
    dispatcher_->Post([handler, image] { handler.function(image.Raw()); });
}

void ServiceTileFetcherBase::GetDataAsync(ServiceDataRequestHandler handler) {
    try {
        Core::Ptr<ITileFetcher> self(this);
        HttpRequest http = CreateServiceHttpRequest(handler.request);
        http.SendHttpRequestAsync(
            [self, handler](const HttpResponse& response) { Self(self)->OnDataResponse(response, handler); });
    } catch (const std::exception& e) {
        LogException(DataFunction, e);
        Platform::LogStackTrace();
        handler.function(Data::Array());
    }
}

void ServiceTileFetcherBase::OnDataResponse(const HttpResponse& response, const ServiceDataRequestHandler& handler) {
    try {
        ContentType(response);
        if (response.GetStatusCode() == 200) {
            Core::Ptr<ITileFetcher> self(this);
            Worker().Post([self, response, handler] { Self(self)->CopyDataResponse(response, handler); });
            return;
        }
    } catch (const std::exception& e) {
        LogException(DataResponseFunction, e);
    }
    dispatcher_->Post([handler] { handler.function(Data::Array()); });
}

void ServiceTileFetcherBase::CopyDataResponse(const HttpResponse& response, const ServiceDataRequestHandler& handler) {
    const size_t size = response.Get()->GetBodySize();
    Data::Array bytes = Data::Array::Create(size);
    if (size != 0) std::memcpy(bytes.GetData(), response.Get()->GetBodyData(), size);
    dispatcher_->Post([handler, bytes] { handler.function(bytes); });
}

} // namespace MapServices::impl
