#include "HttpClientImpl.h"

#include <stdexcept>

#include "Core/AbiGuard.h"
#include "Core/StringFormat.h"
#include "HeadersImpl.h"
#include "HttpRequestImpl.h"
#include "HttpRequestStreamImpl.h"
#include "Platform/Log.h"
#include "Platform/Network/Http/HttpClient.h"
#include "Platform/Network/Url.h"
#include "Platform/RichError.h"

namespace Platform::Windows::Network::Http {

using namespace Interfaces;

namespace {
constexpr const char* kFile = "HttpClientImpl.cpp";

uint32_t AccessType(uint32_t proxyMode) {
    switch (proxyMode) {
    case 0: return Transport::AccessTypeNoProxy;
    case 1: return Transport::AccessTypeDefaultProxy;
    case 2: return Transport::AccessTypeNamedProxy;
    default: return Transport::AccessTypeNoProxy;
    }
}

void SetSessionOption(Transport::Handle session, uint32_t option, uint32_t value) {
    Transport::SetOption(session, option, &value, sizeof(value));
}
} // namespace

HttpClientImpl::~HttpClientImpl() {
    if (connection_) Transport::CloseHandle(connection_);
    connection_ = nullptr;
    if (session_) {
        Transport::SetStatusCallback(session_, nullptr, 0);
        Transport::CloseHandle(session_);
        session_ = nullptr;
    }
}

bool HttpClientImpl::OpenSession(const char* userAgent, uint32_t proxyMode) {
    userAgent_ = userAgent ? userAgent : "";
    CloseSession();
    session_ = Transport::Open(userAgent_.c_str(), AccessType(proxyMode), nullptr, nullptr, Transport::FlagAsync);
    if (!session_) return false;
    Transport::SetTimeouts(session_, static_cast<int32_t>(resolveTimeout_), static_cast<int32_t>(connectTimeout_),
                           static_cast<int32_t>(sendTimeout_), static_cast<int32_t>(receiveTimeout_));
    SetSessionOption(session_, Transport::OptionSecureProtocols, Transport::SecureProtocolTls12);
    SetSessionOption(session_, Transport::OptionEnableHttpProtocol, Transport::ProtocolFlagHttp2);
    SetSessionOption(session_, Transport::OptionDecompression,
                     Transport::DecompressionGzip | Transport::DecompressionDeflate);
    SetSessionOption(session_, Transport::OptionEncodeExtra, 1);
    SetSessionOption(session_, 184, 59);
    Transport::SetStatusCallback(session_, &HttpClientImpl::StatusCallback, Transport::CallbackFlagAllNotifications);
    return true;
}

void HttpClientImpl::CloseSession() {
    if (!session_) return;
    Transport::SetStatusCallback(session_, nullptr, 0);
    Transport::CloseHandle(session_);
    session_ = nullptr;
}

bool HttpClientImpl::ConnectTransport() {
    if (!session_) return false;
    connection_ = Transport::Connect(session_, server_.c_str(), static_cast<uint16_t>(port_));
    return connection_ != nullptr;
}

bool HttpClientImpl::Connect(const char* host, uint32_t port) {
    server_ = host ? host : "";
    port_ = port;
    BuildBaseUrl();
    Disconnect();
    return ConnectTransport();
}

bool HttpClientImpl::ConnectUrl(const char* url) {
    Platform::Network::ServerUrl parsed;
    if (Platform::Network::ParseServerUrl(url ? url : "", parsed)) {
        server_ = parsed.host;
        port_ = parsed.port;
        SetSecure(parsed.secure);
    }
    BuildBaseUrl();
    Disconnect();
    return ConnectTransport();
}

void HttpClientImpl::Disconnect() {
    if (connection_) Transport::CloseHandle(connection_);
    connection_ = nullptr;
}

void HttpClientImpl::SetSecure(bool secure) {
    secureFlag_ = secure ? Transport::FlagSecure : 0;
    BuildBaseUrl();
}

void HttpClientImpl::BuildBaseUrl() {
    const char* scheme = IsSecure() ? "https" : "http";
    baseUrl_ = port_ == 80 || port_ == 443
                   ? Core::StringFormat("%s://%s", scheme, server_.c_str())
                   : Core::StringFormat("%s://%s:%d", scheme, server_.c_str(), static_cast<int>(port_));
}

Transport::Handle HttpClientImpl::OpenRequestHandle(const char* path, IAcceptTypes* accept, uint32_t method) {
    if (!session_) throw std::runtime_error("Invalid session");
    if (!connection_) throw std::runtime_error("Invalid connection handle");
    auto* types = dynamic_cast<AcceptTypesImpl*>(accept);
    Core::ThrowIfNull(types);
    const std::string requestPath = path ? path : "";
    std::vector<const char*> acceptArray;
    acceptArray.reserve(types->Types().size() + 1);
    for (const std::string& type : types->Types()) acceptArray.push_back(type.c_str());
    acceptArray.push_back(nullptr);

    Transport::Handle request = Transport::OpenRequest(connection_, MethodVerb(method), requestPath.c_str(),
                                                       "HTTP/2.0", nullptr, acceptArray.data(), secureFlag_);
    if (!request) RichError::ThrowWinHttp(Transport::GetLastError(), requestPath);
    Transport::SetOption(request, Transport::OptionClientCertContext, nullptr, 0);
    if (!Transport::SetTimeouts(request, static_cast<int32_t>(resolveTimeout_), static_cast<int32_t>(connectTimeout_),
                                static_cast<int32_t>(sendTimeout_), static_cast<int32_t>(receiveTimeout_)))
        LogMessage(LogTrace, "Platform::Windows::Network::Http::HttpClientImpl::CreateRequest", kFile, __LINE__,
                   Core::StringFormat("Failed to set timeouts: %d", static_cast<int>(Transport::GetLastError())));
    // Every request passes here: its line is made only when it is written.
    if (!LogEnabled(LogTrace)) return request;
    const std::string portText =
        port_ == 80 || port_ == 443 ? std::string() : Core::StringFormat(":%d", static_cast<int>(port_));
    const size_t start = requestPath.find_first_not_of('/');
    const std::string trimmed = start == std::string::npos ? std::string() : requestPath.substr(start);
    LogMessage(LogTrace, "Platform::Windows::Network::Http::HttpClientImpl::CreateRequest", kFile, __LINE__,
               Core::StringFormat("%s: %s%s/%s%s", MethodLogName(method), IsSecure() ? "https://" : "http://",
                                  server_.c_str(), portText.c_str(), trimmed.c_str()));
    return request;
}

bool HttpClientImpl::CreateRequest(const char* path, IAcceptTypes* accept, uint32_t method, IHttpRequest** ppRequest) {
    try {
        Core::CheckResultAddress(ppRequest);
        Transport::Handle handle = OpenRequestHandle(path, accept, method);
        *ppRequest = new HttpRequestImpl(handle, method, this);
        return true;
    } catch (...) {
        return false;
    }
}

bool HttpClientImpl::CreateRequestStream(const char* path, IAcceptTypes* accept, uint32_t method,
                                         IHttpRequestStream** ppRequest, Core::IErrorCode** ppError) {
    return Core::AbiGuard(
        [&] {
            Core::CheckResultAddress(ppRequest);
            Transport::Handle handle = OpenRequestHandle(path, accept, method);
            *ppRequest = new HttpRequestStreamImpl(handle, method, this);
        },
        ppError);
}

void HttpClientImpl::StatusCallback(Transport::Handle, void* context, uint32_t status, void* info, uint32_t length) {
    if (!context) return;
    auto* object = static_cast<Core::IObject*>(context);
    auto* request = dynamic_cast<HttpRequestImpl*>(object);
    auto* stream = request ? nullptr : dynamic_cast<HttpRequestStreamImpl*>(object);
    if (!request && !stream) return;
    switch (status) {
    case Transport::StatusSendRequestComplete:
        if (request)
            request->OnSendComplete();
        else
            stream->OnSendComplete();
        break;
    case Transport::StatusWriteComplete:
        if (stream) stream->OnWriteComplete();
        break;
    case Transport::StatusHeadersAvailable:
        if (request)
            request->OnHeadersAvailable();
        else
            stream->OnHeadersAvailable();
        break;
    case Transport::StatusReadComplete:
        if (request)
            request->OnReadComplete(info, length);
        else
            stream->OnReadComplete(info, length);
        break;
    case Transport::StatusRequestError: {
        const auto* result = static_cast<const Transport::AsyncResult*>(info);
        const uint32_t error = result ? result->error : 0;
        const std::string text = RichError::FormatError(RichError::ErrorTypeWinHttp, error);
        LogMessage(error == Transport::ErrorOperationCancelled ? LogDebug : LogError,
                   "Platform::Windows::Network::Http::HttpClientImpl::StatusCallback", kFile, __LINE__,
                   Core::StringFormat("AsyncCallback: WINHTTP_CALLBACK_STATUS_REQUEST_ERROR [%d]: %s",
                                      static_cast<int>(error), text.c_str()));
        if (request)
            request->OnRequestError();
        else
            stream->CloseRequest();
        break;
    }
    case Transport::StatusHandleClosing:
        if (request)
            request->OnHandleClosing();
        else
            stream->OnHandleClosing();
        break;
    default: break;
    }
}

} // namespace Platform::Windows::Network::Http

namespace Platform::Network::Http {

Core::Ptr<Interfaces::IHttpClient> CreateHttpClient(const char* serverUrl, const char* userAgent, uint32_t proxyMode) {
    auto client = Core::MakeObject<Windows::Network::Http::HttpClientImpl>();
    if (!client->OpenSession(userAgent, proxyMode)) throw std::runtime_error("Session creation failed");
    if (!client->ConnectUrl(serverUrl)) throw std::runtime_error("Cannot connect to the specified server");
    const std::string_view url = serverUrl ? serverUrl : "";
    client->SetSecure(url.size() >= 5 && url.substr(0, 5) == "https");
    return client;
}

FetchUrlTextResult FetchUrlText(const char* url, Interfaces::IHttpHeaders* headers) {
    FetchUrlTextResult result;
    auto parsed = Platform::Network::ParseUrl(url);
    const std::string scheme = parsed->GetScheme();
    std::string host;
    if (scheme != "file")
        host = parsed->IsDefaultPort()
                   ? std::string(parsed->GetHost())
                   : Core::StringFormat("%s:%d", parsed->GetHost(), static_cast<int>(parsed->GetPort()));
    const std::string server = Core::StringFormat("%s://%s", scheme.c_str(), host.c_str());
    auto client = CreateHttpClient(server.c_str(), "HttpClient/1.0", 0);

    Core::Ptr<Interfaces::IAcceptTypes> accept;
    CreateAcceptTypes(accept.ReceiveAddress());
    AddContentType(accept.Raw(), ContentTypeAny);

    const std::string query = parsed->GetQuery();
    const std::string fragment = parsed->GetFragment();
    const std::string path = Core::StringFormat("%s%s%s", parsed->GetPath(), query.empty() ? "" : ("?" + query).c_str(),
                                                fragment.empty() ? "" : ("#" + fragment).c_str());
    Core::Ptr<Interfaces::IHttpRequest> request;
    if (!client->CreateRequest(path.c_str(), accept.Raw(), HttpMethodGet, request.ReceiveAddress()))
        throw std::runtime_error("Request failed");
    if (headers) request->AddHeaders(headers);

    Interfaces::IHttpResponse* response = request->GetResponse(true);
    // An exchange that did not complete never counts, whatever its status line said.
    if (!response || !request->IsCompleted() || response->GetStatusCode() != 200) return result;
    result.text.assign(static_cast<const char*>(response->GetBodyData()), response->GetBodySize());
    result.success = true;
    return result;
}

} // namespace Platform::Network::Http
