#pragma once
#include <cstdint>
#include <string>

#include "Core/ObjectImplBase.h"
#include "Platform/Interfaces/IHttpClient.h"
#include "Transport.h"

namespace Platform::Windows::Network::Http {

class HttpClientImpl final : public Core::ObjectImplBase<Interfaces::IHttpClient> {
public:
    HttpClientImpl() = default;
    ~HttpClientImpl() override;

    bool OpenSession(const char* userAgent, uint32_t proxyMode) override;
    void CloseSession() override;
    bool Connect(const char* host, uint32_t port) override;
    bool ConnectUrl(const char* url) override;
    void Disconnect() override;
    void SetSecure(bool secure) override;
    bool IsSecure() override { return secureFlag_ == Transport::FlagSecure; }
    bool CreateRequest(const char* path, Interfaces::IAcceptTypes* accept, uint32_t method,
                       Interfaces::IHttpRequest** ppRequest) override;
    void SetResolveTimeout(uint32_t ms) override { resolveTimeout_ = ms; }
    void SetConnectTimeout(uint32_t ms) override { connectTimeout_ = ms; }
    void SetSendTimeout(uint32_t ms) override { sendTimeout_ = ms; }
    void SetReceiveTimeout(uint32_t ms) override { receiveTimeout_ = ms; }
    uint32_t GetResolveTimeout() override { return resolveTimeout_; }
    uint32_t GetConnectTimeout() override { return connectTimeout_; }
    uint32_t GetSendTimeout() override { return sendTimeout_; }
    uint32_t GetReceiveTimeout() override { return receiveTimeout_; }
    const char* GetUserAgent() override { return userAgent_.c_str(); }
    const char* GetBaseUrl() override { return baseUrl_.c_str(); }
    bool CreateRequestStream(const char* path, Interfaces::IAcceptTypes* accept, uint32_t method,
                             Interfaces::IHttpRequestStream** ppRequest, Core::IErrorCode** ppError) override;

    uint32_t GetPort() const { return port_; }
    const std::string& GetServer() const { return server_; }

    // Receives every event of every request of every session.
    static void StatusCallback(Transport::Handle handle, void* context, uint32_t status, void* info,
                               uint32_t length);

private:
    void BuildBaseUrl();
    bool ConnectTransport();
    // The shared part of the two request makers: an open transport request.
    Transport::Handle OpenRequestHandle(const char* path, Interfaces::IAcceptTypes* accept, uint32_t method);

    uint32_t resolveTimeout_ = 0;
    uint32_t connectTimeout_ = 60000;
    uint32_t sendTimeout_ = 30000;
    uint32_t receiveTimeout_ = 30000;
    Transport::Handle session_ = nullptr;
    Transport::Handle connection_ = nullptr;
    uint32_t secureFlag_ = 0;
    std::string userAgent_;
    std::string server_;
    std::string baseUrl_;
    uint32_t port_ = 0;
};

} // namespace Platform::Windows::Network::Http
