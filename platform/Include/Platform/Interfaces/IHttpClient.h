#pragma once
#include <cstdint>

#include "Core/ErrorCode.h"
#include "Platform/Interfaces/IHttpHeaders.h"
#include "Platform/Interfaces/IHttpRequest.h"

namespace Platform::Interfaces {

// One session with the transport and one connection to one server.
struct IHttpClient : Core::IObject {
    virtual bool OpenSession(const char* userAgent, uint32_t proxyMode) = 0;
    virtual void CloseSession() = 0;
    virtual bool Connect(const char* host, uint32_t port) = 0;
    virtual bool ConnectUrl(const char* url) = 0;
    virtual void Disconnect() = 0;
    virtual void SetSecure(bool secure) = 0;
    virtual bool IsSecure() = 0;
    virtual bool CreateRequest(const char* path, IAcceptTypes* accept, uint32_t method, IHttpRequest** ppRequest) = 0;
    virtual void SetResolveTimeout(uint32_t ms) = 0;
    virtual void SetConnectTimeout(uint32_t ms) = 0;
    virtual void SetSendTimeout(uint32_t ms) = 0;
    virtual void SetReceiveTimeout(uint32_t ms) = 0;
    virtual uint32_t GetResolveTimeout() = 0;
    virtual uint32_t GetConnectTimeout() = 0;
    virtual uint32_t GetSendTimeout() = 0;
    virtual uint32_t GetReceiveTimeout() = 0;
    virtual const char* GetUserAgent() = 0;
    virtual const char* GetBaseUrl() = 0;
    virtual bool CreateRequestStream(const char* path, IAcceptTypes* accept, uint32_t method,
                                     IHttpRequestStream** ppRequest, Core::IErrorCode** ppError) = 0;
};

} // namespace Platform::Interfaces
