#include "HttpRequestImpl.h"

#include <cstring>
#include <stdexcept>

#include "Core/AbiGuard.h"
#include "Core/StringFormat.h"
#include "HttpClientImpl.h"
#include "Platform/Log.h"
#include "Platform/Network/Http/HttpRequest.h"
#include "Platform/RichError.h"
#include "Platform/Threading/ThreadHelpers.h"

namespace Platform::Windows::Network::Http {

namespace Helpers = Platform::Windows::Threading::ThreadHelpers;
using namespace Interfaces;

namespace {
constexpr const char* kFile = "HttpRequestImpl.cpp";
constexpr const char* kStreamIncompatible =
    "GetResponseStreamAsync was called previously which state is incompatible with GetResponse or "
    "GetResponseAsync functions.";

std::string Win32Text(uint32_t error) { return RichError::FormatError(RichError::ErrorTypeWin32, error); }
std::string WinHttpText(uint32_t error) { return RichError::FormatError(RichError::ErrorTypeWinHttp, error); }
} // namespace

const char* MethodVerb(uint32_t method) {
    switch (method) {
    case 0: return "GET";
    case 1: return "POST";
    case 2: return "HEAD";
    case 3: return "PUT";
    case 4: return "DELETE";
    case 8: return "PATCH";
    default: return "";
    }
}

const char* MethodLogName(uint32_t method) {
    static constexpr const char* names[] = {"Get",     "Post",    "Head",  "Put",  "Delete",
                                            "Connect", "Options", "Trace", "Patch"};
    return method < 9 ? names[method] : "";
}

std::string HeaderLines(IHttpHeaders* headers) {
    std::string text;
    for (uint64_t i = 0; i < headers->GetCount(); ++i) {
        const char* name = headers->GetNameAt(i);
        text += Core::StringFormat("%s: %s\r\n", name, headers->Get(name));
    }
    const size_t end = text.find_last_not_of("\t\n\v\f\r ");
    text.erase(end == std::string::npos ? 0 : end + 1);
    return text;
}

HttpRequestImpl::HttpRequestImpl(Transport::Handle handle, uint32_t method, IHttpClient* client)
    : handle_(handle), method_(method), client_(client) {}

HttpRequestImpl::~HttpRequestImpl() {
    const Transport::Handle handle = handle_.load();
    if (Transport::IsValidHandle(handle)) {
        Transport::CloseHandle(handle);
        closed_.exchange(true);
    }
}

bool HttpRequestImpl::AddHeaders(IHttpHeaders* headers) {
    if (!headers || headers->GetCount() == 0) return false;
    const std::string text = HeaderLines(headers);
    return Transport::AddRequestHeaders(handle_.load(), text.c_str(), static_cast<int64_t>(text.size()),
                                        Transport::AddRequestFlagAdd);
}

void HttpRequestImpl::SetBody(const void* data, size_t size) {
    const auto* bytes = static_cast<const uint8_t*>(data);
    body_.assign(bytes, bytes + (bytes ? size : 0));
}

bool HttpRequestImpl::Send() {
    if (state_.load() != StateIdle) return false;
    if (!SendRequestInternal(StateResponse)) return false;
    state_.store(StateResponse);
    return true;
}

bool HttpRequestImpl::SendRequestInternal(uint32_t next) {
    ObjectLock lock(*this);
    const Transport::Handle handle = handle_.load();
    if (completed_.load() || handle == nullptr || closed_.load()) return false;
    AddReference(); // the transport's reference, given back on handle closing
    // The state is in place before the transport has the request: its events may come before
    // this call returns, and one that found the request idle would leave it without a response.
    const uint32_t previous = state_.exchange(next);
    bool ok = false;
    switch (method_) {
    case 0:
    case 2:
        ok = Transport::SendRequest(handle, nullptr, 0, nullptr, 0, 0, this);
        break;
    case 1:
    case 3:
    case 4:
    case 8: {
        const auto size = static_cast<uint32_t>(body_.size());
        ok = Transport::SendRequest(handle, nullptr, 0, body_.data(), size, size, this);
        break;
    }
    default:
        state_.store(previous);
        Release();
        return false;
    }
    sent_.store(ok);
    if (ok) return true;
    state_.store(previous);
    const uint32_t error = Transport::GetLastError();
    LogMessage(LogError, "Platform::Windows::Network::Http::HttpRequestImpl::SendRequestInternal", kFile, __LINE__,
               Core::StringFormat("WinHttpSendRequest failed (%d) %s", static_cast<int>(error),
                                  Win32Text(error).c_str()));
    Release();
    return false;
}

bool HttpRequestImpl::CloseHandleLocked() {
    const Transport::Handle handle = handle_.load();
    if (!Transport::IsValidHandle(handle)) return false;
    handle_.store(Transport::InvalidHandle());
    closed_.exchange(true);
    Transport::CloseHandle(handle);
    return true;
}

bool HttpRequestImpl::Close() {
    ObjectLock lock(*this);
    if (completionCallback_) completionCallback_(this, nullptr);
    return CloseHandleLocked();
}

bool HttpRequestImpl::IsClosed() {
    const Transport::Handle handle = handle_.load();
    return closed_.load() && (handle == nullptr || handle == Transport::InvalidHandle());
}

IHttpResponse* HttpRequestImpl::GetResponse(bool wait) {
    if (state_.load() == StateStream) {
        LogMessage(LogError, "Platform::Windows::Network::Http::HttpRequestImpl::GetResponse", kFile, __LINE__,
                   kStreamIncompatible);
        return nullptr;
    }
    if (IsCompleted()) return response_.Raw();
    if (!wait) return nullptr;
    if (!sent_.load()) {
        if (!SendRequestInternal(StateResponse)) {
            Close();
            return nullptr;
        }
        state_.store(StateResponse);
    }
    Helpers::WaitForSingleObject(completionEvent_, Helpers::Infinite, false, false);
    Close();
    return response_.Raw();
}

void HttpRequestImpl::WaitForResponse() {
    if (state_.load() == StateStream) {
        LogMessage(LogError, "Platform::Windows::Network::Http::HttpRequestImpl::WaitForResponse", kFile, __LINE__,
                   "GetResponseStreamAsync was called previously which state is incompatible with WaitForResponse");
        return;
    }
    if (!sent_.load()) {
        if (!SendRequestInternal(StateResponse)) {
            Close();
            return;
        }
        state_.store(StateResponse);
    }
    Helpers::WaitForSingleObject(completionEvent_, Helpers::Infinite, false, false);
    Close();
}

bool HttpRequestImpl::GetResponseAsync(IAsyncTask** ppTask) {
    if (state_.load() == StateStream) {
        LogMessage(LogError, "Platform::Windows::Network::Http::HttpRequestImpl::GetResponseAsync", kFile, __LINE__,
                   kStreamIncompatible);
        return false;
    }
    auto task = Core::MakeObject<HttpAsyncTaskImpl>();
    if (IsCompleted()) {
        const Data::Variant result = Data::Variant::Owned(response_.Raw(), Data::Structures::TagObject);
        task->SetResult(&result.Raw());
        task->SetState(AsyncTaskCompleted);
        task->Signal();
        *ppTask = task.Detach();
        return true;
    }
    SetUserObject(task.Raw());
    SetCompletionCallback([](IHttpRequest* request, IHttpResponse* response) { OnTaskResponse(request, response); });
    task->SetState(AsyncTaskQueued);
    if (!SendRequestInternal(StateResponse)) return false;
    state_.store(StateResponse);
    *ppTask = task.Detach();
    return true;
}

bool HttpRequestImpl::_abi_GetResponseStreamAsync(IAsyncTask** ppTask, Core::IErrorCode** ppError) {
    return Core::AbiGuard(
        [&] {
            bool hasResponse = false;
            {
                // The transport thread may be storing the response right now.
                ObjectLock lock(*this);
                hasResponse = response_.Raw() != nullptr;
            }
            if (hasResponse)
                throw std::runtime_error("Other GetResponse method was already called. GetResponseStreamAsync and "
                                         "GetResponseAsync are mutually exclusive!");
            if (state_.load() == StateResponse)
                throw std::runtime_error(
                    "GetResponse or GetResponseAsync method was already called. GetResponseStreamAsync and "
                    "GetResponseAsync are mutually exclusive and cannot be used on the same request!");
            auto task = Core::MakeObject<HttpAsyncTaskImpl>();
            SetUserObject(task.Raw());
            {
                ObjectLock lock(*this);
                headersCallback_ = [](IHttpRequest* request, Core::IObject* stream) { OnTaskResponse(request, stream); };
            }
            task->SetState(AsyncTaskQueued);
            if (SendRequestInternal(StateStream)) {
                state_.store(StateStream);
                *ppTask = task.Detach();
            }
        },
        ppError);
}

// The setters take no lock: they are called before the send, or from within the callbacks,
// which run with the object lock held.
void HttpRequestImpl::SetCompletionCallback(HttpCompletionCallback callback) { completionCallback_ = std::move(callback); }

void HttpRequestImpl::SetErrorCallback(HttpErrorCallback callback) { errorCallback_ = callback; }

void HttpRequestImpl::SetUserObject(Core::IObject* object) {
    Core::Ptr<Core::IObject> next(object);
    userObject_.Swap(next);
}

Core::IObject* HttpRequestImpl::GetUserObject() { return userObject_.Raw(); }

bool ReadRawResponseHeaders(Transport::Handle handle, const char* function, const char* file, std::string& text) {
    uint32_t size = 0;
    Transport::QueryHeaders(handle, Transport::QueryRawHeadersCrlf, nullptr, nullptr, &size, nullptr);
    if (Transport::GetLastError() != Transport::ErrorInsufficientBuffer) return false;
    text.assign(size & ~1u, '\0');
    uint32_t length = static_cast<uint32_t>(text.size());
    if (!Transport::QueryHeaders(handle, Transport::QueryRawHeadersCrlf, nullptr, size < 2 ? nullptr : text.data(),
                                 &length, nullptr)) {
        const uint32_t error = Transport::GetLastError();
        LogMessage(LogError, function, file, __LINE__,
                   Core::StringFormat("WinHttpQueryHeaders failed (%d) %s", static_cast<int>(error),
                                      Win32Text(error).c_str()));
        return false;
    }
    text.resize(length);
    return true;
}

void HttpRequestImpl::OnSendComplete() {
    const Transport::Handle handle = handle_.load();
    if (Transport::IsValidHandle(handle)) Transport::ReceiveResponse(handle, nullptr);
}

void HttpRequestImpl::OnHeadersAvailable() {
    constexpr const char* function = "Platform::Windows::Network::Http::HttpRequestImpl::OnHeadersAvailable";
    const Transport::Handle handle = handle_.load();
    if (handle == Transport::InvalidHandle()) return;
    std::string text;
    if (!ReadRawResponseHeaders(handle, function, kFile, text)) return;
    ResponseHeaders table(std::move(text));

    const uint32_t state = state_.load();
    if (state != StateResponse && state != StateStream) {
        LogMessage(LogError, function, kFile, __LINE__, "Logic error. Means that there is bug in the code!");
        return;
    }
    if (state == StateResponse) {
        Core::Ptr<IHttpResponse> response = HttpResponseImpl::Make(std::move(table));
        {
            ObjectLock lock(*this);
            response_.Swap(response);
        }
        ReadData();
        return;
    }
    const char* announced = table.Find("Content-Length");
    const uint64_t contentLength = announced ? ParseContentLength(announced) : 0;
    Core::Ptr<HttpResponseStreamImpl> responseStream;
    {
        ObjectLock lock(*this);
        auto async = Core::MakeObject<impl::AsyncStreamImpl>(handle, contentLength, this);
        asyncStream_.store(async.Raw());
        responseStream = Core::MakeObject<HttpResponseStreamImpl>(async, std::move(table), this);
    }
    HeadersCallback callback;
    {
        ObjectLock lock(*this);
        callback = headersCallback_;
    }
    if (callback) {
        callback(this, responseStream.Raw());
        SetUserObject(nullptr);
    }
}

void HttpRequestImpl::ReadData() {
    const Transport::Handle handle = handle_.load();
    auto* response = static_cast<HttpResponseImpl*>(response_.Raw());
    if (!response || handle == Transport::InvalidHandle()) return;
    if (!Transport::ReadBody(handle, response->Body(), response->NextRoom())) {
        const uint32_t error = Transport::GetLastError();
        LogMessage(LogError, "Platform::Windows::Network::Http::HttpRequestImpl::ReadData", kFile, __LINE__,
                   Core::StringFormat("WinHttpReadData failed (%d) %s", static_cast<int>(error),
                                      WinHttpText(error).c_str()));
    }
}

void HttpRequestImpl::OnReadComplete(void* buffer, uint32_t bytes) {
    const uint32_t state = state_.load();
    if (state == StateStream) {
        if (impl::AsyncStreamImpl* stream = asyncStream_.load()) stream->OnReadCompleted(buffer, bytes);
        return;
    }
    if (state != StateResponse) return;
    auto* response = static_cast<HttpResponseImpl*>(response_.Raw());
    if (!response) return;
    // Also after the read that found the end: making room for it may have moved the body.
    response->Received();
    if (bytes > 0) {
        ReadData();
        return;
    }
    ObjectLock lock(*this);
    if (!response->IsComplete()) return; // a short body: no flag and no event
    completed_.store(true);
    if (completionCallback_) {
        Core::Ptr<IHttpRequest> self(this);
        Core::Ptr<IHttpResponse> keep(response);
        completionCallback_(this, response);
        CloseHandleLocked();
    }
    completionEvent_.Set();
}

void HttpRequestImpl::OnRequestError() {
    Close();
    completionEvent_.Set();
}

void HttpRequestImpl::OnHandleClosing() {
    Core::Ptr<Core::IObject> user;
    Interfaces::HttpCompletionCallback completion;
    HeadersCallback headers;
    Core::Ptr<IHttpClient> client;
    {
        ObjectLock lock(*this);
        user.Swap(userObject_);
        std::swap(completion, completionCallback_);
        std::swap(headers, headersCallback_);
        errorCallback_ = nullptr;
        client.Swap(client_);
    }
    user = nullptr;
    completion = nullptr;
    headers = nullptr;
    client = nullptr;
    releasedEvent_.Set();
    Release(); // the transport's reference
}

bool HttpRequestImpl::WaitReleased(uint32_t timeout) {
    if (!sent_.load()) return true;
    Helpers::WaitForSingleObject(releasedEvent_, timeout, false, false);
    return releasedEvent_.IsSet();
}

} // namespace Platform::Windows::Network::Http

namespace Platform::Network::Http {

bool HttpRequest::SendHttpRequestAsync(ResponseFunction function) const {
    Interfaces::IHttpRequest* request = Get();
    auto data = Core::MakeObject<HttpRequestData>(std::move(function));
    request->SetUserObject(data.Raw());
    request->SetCompletionCallback([](Interfaces::IHttpRequest* self, Interfaces::IHttpResponse* response) {
        auto* stored = dynamic_cast<HttpRequestData*>(self->GetUserObject());
        if (stored && stored->Function()) stored->Function()(HttpResponse(response));
    });
    request->SetErrorCallback([](Interfaces::IHttpRequest*, uint32_t) {});
    return request->Send();
}

bool HttpRequest::WaitReleased(uint32_t timeout) const {
    auto* request = dynamic_cast<Windows::Network::Http::HttpRequestImpl*>(Get());
    return !request || request->WaitReleased(timeout);
}

} // namespace Platform::Network::Http
