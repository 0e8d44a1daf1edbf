#pragma once
#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "Core/ObjectImplBase.h"
#include "Core/Ptr.h"
#include "Platform/Interfaces/IHttpClient.h"
#include "Platform/Threading/AlertableEvent.h"
#include "ResponseStreams.h"
#include "Transport.h"

namespace Platform::Windows::Network::Http {

// Which form of response a request was asked for.
enum RequestState : uint32_t {
    StateIdle = 0,
    StateResponse = 1,
    StateStream = 2,
};

// The verb sent for a method number; empty for the methods that are never sent.
const char* MethodVerb(uint32_t method);
const char* MethodLogName(uint32_t method);

// The request lines of a header set: "Name: value\r\n" each, trailing whitespace cut.
std::string HeaderLines(Interfaces::IHttpHeaders* headers);

// Holds the lock of an object for one scope.
class ObjectLock {
public:
    explicit ObjectLock(Core::IObject& object) : object_(object) { object_.Lock(); }
    ~ObjectLock() { object_.Unlock(); }
    ObjectLock(const ObjectLock&) = delete;
    ObjectLock& operator=(const ObjectLock&) = delete;

private:
    Core::IObject& object_;
};

using HeadersCallback = std::function<void(Interfaces::IHttpRequest* request, Core::IObject* responseStream)>;

class HttpRequestImpl final : public Core::ObjectImplBase<Interfaces::IHttpRequest2> {
public:
    HttpRequestImpl(Transport::Handle handle, uint32_t method, Interfaces::IHttpClient* client);
    ~HttpRequestImpl() override;

    bool AddHeaders(Interfaces::IHttpHeaders* headers) override;
    void SetBody(const void* data, size_t size) override;
    size_t GetBodySize() override { return body_.size(); }
    const void* GetBodyData() override { return body_.data(); }
    bool Send() override;
    bool Close() override;
    bool IsCompleted() override { return completed_.load(); }
    bool IsClosed() override;
    Interfaces::IHttpResponse* GetResponse(bool wait) override;
    bool GetResponseAsync(Interfaces::IAsyncTask** ppTask) override;
    void SetCompletionCallback(Interfaces::HttpCompletionCallback callback) override;
    void SetErrorCallback(Interfaces::HttpErrorCallback callback) override;
    void WaitForResponse() override;
    void SetUserObject(Core::IObject* object) override;
    Core::IObject* GetUserObject() override;
    bool _abi_GetResponseStreamAsync(Interfaces::IAsyncTask** ppTask, Core::IErrorCode** ppError) override;

    // Events, on transport threads.
    void OnSendComplete();
    void OnHeadersAvailable();
    void OnReadComplete(void* buffer, uint32_t bytes);
    void OnRequestError();
    void OnHandleClosing();

    // Waits up to `timeout` ms until the transport has given back its reference (its last event
    // for the request has run); true at once when the request was never sent.
    bool WaitReleased(uint32_t timeout);

    uint32_t State() const { return state_.load(); }

private:
    // `next` is the state the request is in once the transport has it (see the note in Send).
    bool SendRequestInternal(uint32_t next);
    void ReadData();
    // Closes the transport handle if it is still open; the object lock is held.
    bool CloseHandleLocked();

    std::atomic<bool> closed_{false};
    std::atomic<Transport::Handle> handle_;
    uint32_t method_;
    Platform::Threading::AlertableEvent completionEvent_;
    Platform::Threading::AlertableEvent releasedEvent_; // the transport's reference is given back
    Core::Ptr<Interfaces::IHttpResponse> response_;
    Core::Ptr<Interfaces::IHttpClient> client_;
    Core::Ptr<Core::IObject> userObject_;
    Interfaces::HttpCompletionCallback completionCallback_;
    HeadersCallback headersCallback_;
    Interfaces::HttpErrorCallback errorCallback_ = nullptr;
    std::vector<uint8_t> body_;
    std::atomic<bool> completed_{false};
    std::atomic<bool> sent_{false};
    std::atomic<uint32_t> state_{StateIdle};
    std::atomic<impl::AsyncStreamImpl*> asyncStream_{nullptr};
};

// Reads the final header block of a request as CRLF-separated text; false (logged under
// `function` and `file` when the query itself fails) when there is none.
bool ReadRawResponseHeaders(Transport::Handle handle, const char* function, const char* file, std::string& text);

} // namespace Platform::Windows::Network::Http
