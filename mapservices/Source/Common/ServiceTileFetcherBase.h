#pragma once
#include <functional>
#include <string>

#include "Common/TileFetcherBase.h"
#include "MapServices/Interfaces/IServiceRequest.h"

namespace MapServices::impl {

// A request with the function that receives its picture; copied into every stage.
struct ServiceImageRequestHandler {
    Core::Ptr<Interfaces::IServiceRequest> request;
    std::function<void(TellarImaging::IImage*)> function;
};

// A request with the function that receives its bytes.
struct ServiceDataRequestHandler {
    Core::Ptr<Interfaces::IServiceRequest> request;
    std::function<void(const Data::Array&)> function;
};

// Base of the fetchers of OGC services, whose requests are boxes rather than tile addresses.
// Their responses are cached as root/folder/<low 32 bits of the fetcher hash>/<request hash>.ext.
class ServiceTileFetcherBase : public TileFetcherBase {
public:
    // Built and not yet sent; concrete fetchers make the URL from the request.
    virtual Platform::Network::Http::HttpRequest CreateServiceHttpRequest(
        const Core::Ptr<Interfaces::IServiceRequest>& request) = 0;
    // Whether the request's box lies inside the layer's; kept for callers to come.
    virtual bool IsRequestInBounds(const Core::Ptr<Interfaces::IServiceRequest>& request) = 0;

    // The picture of a request: from the cache file when there is one, else from the server,
    // accepted only with exactly the response format as its Content-Type. The function gets the
    // decoded image on the dispatcher thread, or null on a failure; a body or cache file that
    // does not decode ends that stage without a call.
    void GetMapAsync(ServiceImageRequestHandler handler);
    // The bytes of a request from the server, never cached; null on a failure.
    void GetDataAsync(ServiceDataRequestHandler handler);

    // The fetcher's directory, made when missing.
    std::string GetDirPath();
    // The cache file of a request (its directory made when missing).
    template <class Handler>
    std::string GetServiceFilePath(const Handler& handler) {
        return ServiceFilePath(handler.request->GetRequestHash());
    }
    // Writes a complete body to `path`, or to the request's cache file when `path` is empty.
    template <class Handler>
    void SaveServiceResponse(const Platform::Network::Http::HttpResponse& response, const Handler& handler,
                             const std::string& path) {
        if (!response) return;
        WriteResponseFile(response, path.empty() ? GetServiceFilePath(handler) : path);
    }

    const std::string& GetResponseFormat() const { return responseFormat_; }
    const std::string& GetCoordinateSystem() const { return coordinateSystem_; }

protected:
    ServiceTileFetcherBase() = default;

    std::string responseFormat_ = "image/png";
    std::string coordinateSystem_ = "CRS:84";

private:
    std::string ServiceFilePath(uint64_t requestHash);

    // The stages of GetMapAsync and GetDataAsync; each holds its own references.
    void ReadCachedMap(const ServiceImageRequestHandler& handler);
    void OnMapResponse(const Platform::Network::Http::HttpResponse& response, const ServiceImageRequestHandler& handler);
    void DecodeMapResponse(const Platform::Network::Http::HttpResponse& response,
                           const ServiceImageRequestHandler& handler);
    void PostMap(const ServiceImageRequestHandler& handler, Core::Ptr<TellarImaging::IImage> image);
    void OnDataResponse(const Platform::Network::Http::HttpResponse& response, const ServiceDataRequestHandler& handler);
    void CopyDataResponse(const Platform::Network::Http::HttpResponse& response,
                          const ServiceDataRequestHandler& handler);
    Platform::Threading::impl::ThreadWorker& Worker() const;
};

} // namespace MapServices::impl
