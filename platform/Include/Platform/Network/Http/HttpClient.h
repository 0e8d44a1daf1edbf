#pragma once
#include <cstdint>
#include <string>

#include "Core/Ptr.h"
#include "Platform/Interfaces/IHttpClient.h"

namespace Platform::Network::Http {

enum HttpMethod : uint32_t {
    HttpMethodGet = 0,
    HttpMethodPost = 1,
    HttpMethodHead = 2,
    HttpMethodPut = 3,
    HttpMethodDelete = 4,
    HttpMethodConnect = 5,
    HttpMethodOptions = 6,
    HttpMethodTrace = 7,
    HttpMethodPatch = 8,
};

// Proxy modes of a session.
enum ProxyMode : uint32_t {
    ProxyNone = 0,
    ProxyFromEnvironment = 1,
    ProxyNamed = 2,
};

// A connected client for `serverUrl` ("https://host:port/..."); throws "Session creation
// failed" or "Cannot connect to the specified server".
Core::Ptr<Interfaces::IHttpClient> CreateHttpClient(const char* serverUrl, const char* userAgent, uint32_t proxyMode);

struct FetchUrlTextResult {
    std::string text;
    bool success = false;
};

// Fetches `url` and blocks until the whole body is there; only a complete 200 counts.
FetchUrlTextResult FetchUrlText(const char* url, Interfaces::IHttpHeaders* headers = nullptr);

} // namespace Platform::Network::Http
