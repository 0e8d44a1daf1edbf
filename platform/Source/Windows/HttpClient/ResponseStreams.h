#pragma once
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "Core/ObjectImplBase.h"
#include "Core/Ptr.h"
#include "MemoryStreamImpl.h"
#include "Platform/Interfaces/IHttpRequest.h"
#include "Platform/Network/Http/Headers.h"
#include "Platform/Network/Http/ResponseHeaders.h"
#include "Platform/Threading/AlertableEvent.h"
#include "Platform/Threading/AsyncTaskImpl.h"
#include "Transport.h"

namespace Platform::Windows::Network::Http {

using Platform::Network::Http::HeaderTable;
using Platform::Network::Http::ResponseHeaders;

// The decimal number at the start of a Content-Length value: 0 without a leading digit or when
// it does not fit in 64 bits.
uint64_t ParseContentLength(std::string_view text);

// "Response" holds the status line; the code is what stands between its first two blanks.
int32_t ParseStatusCode(const std::string& statusLine);

// Logs a fixed text at FATAL with the call stack and throws it.
[[noreturn]] void FailFatal(const char* function, int line, const char* text);

namespace impl {

// A read-only stream over the open connection: buffers are queued, then read one by one, in
// queuing order, while the caller waits.
class AsyncStreamImpl final : public Core::ObjectImplBase<Interfaces::IAsyncStream> {
public:
    AsyncStreamImpl(Transport::Handle handle, uint64_t contentLength, Core::IObject* owner);
    ~AsyncStreamImpl() override;

    bool _abi_QueueReadAsync(void* buffer, uint64_t size, Core::IObject* object, uint64_t fileOffset,
                             Interfaces::AsyncIoCallback callback, Core::IErrorCode** ppError) override;
    bool _abi_QueueWriteAsync(void* buffer, uint64_t size, Core::IObject* object, uint64_t fileOffset,
                              Interfaces::AsyncIoCallback callback, Core::IErrorCode** ppError) override;
    bool WaitForCompletion(uint32_t timeoutMs, bool alertable, bool third) override;
    bool _abi_Close(Core::IErrorCode** ppError) override;
    uint64_t GetSize() override { return contentLength_; }
    bool IsSeekable() override { return false; }
    bool CanRead() override { return true; }
    bool CanWrite() override { return false; }
    bool IsEndOfStream() override { return endOfStream_.load(); }

    // A read of the transport finished: on a transport thread.
    void OnReadCompleted(void* buffer, uint32_t bytes);

private:
    struct QueuedRead {
        uint8_t* buffer = nullptr;
        uint32_t size = 0;
        Core::Ptr<Core::IObject> object;
        Interfaces::AsyncIoCallback callback = nullptr;
        bool done = false;
    };

    bool Wait(uint32_t timeoutMs, bool alertable, bool third);

    bool cancelled_ = false;
    std::atomic<bool> endOfStream_{false};
    Core::Ptr<Core::IObject> owner_;
    Transport::Handle handle_;
    uint64_t contentLength_;
    bool busy_ = false;
    // Replaced before each read; the transport thread sets the one of the read it completes.
    std::shared_ptr<Platform::Threading::AlertableEvent> event_;
    std::unordered_map<void*, QueuedRead> queue_;
    std::vector<void*> order_;
};

} // namespace impl

// Status and headers beside the body source of one response.
class HttpResponseStreamImpl final : public Core::ObjectImplBase<Interfaces::IHttpResponseStream> {
public:
    HttpResponseStreamImpl(Core::Ptr<Core::IObject> source, ResponseHeaders headers, Core::IObject* request);

    int32_t GetStatusCode() override { return statusCode_; }
    bool _abi_GetHeaders(Data::Interfaces::IVariantDictionary** ppHeaders, Core::IErrorCode** ppError) override;
    bool HasHeader(const char* name) override;
    const char* _abi_GetHeader(const char* name, Core::IErrorCode** ppError) override;
    Interfaces::IAsyncStream* _abi_GetAsyncStream(Core::IErrorCode** ppError) override;

    const Core::Ptr<Core::IObject>& Source() const { return source_; }
    ResponseHeaders& Headers() { return headers_; }

private:
    Core::Ptr<Core::IObject> source_;
    Core::Ptr<Core::IObject> request_;
    ResponseHeaders headers_;
    int32_t statusCode_ = 0;
};

// The buffered response: headers and status from the response stream, the body in memory.
class HttpResponseImpl final : public Core::ObjectImplBase<Interfaces::IHttpResponse> {
public:
    explicit HttpResponseImpl(Core::Ptr<HttpResponseStreamImpl> responseStream);
    // An empty response for a body to come; it notes the length that `headers` announce.
    static Core::Ptr<HttpResponseImpl> Make(ResponseHeaders headers);

    int32_t GetStatusCode() override { return responseStream_->GetStatusCode(); }
    bool SaveToFile(const char* path) override;
    size_t GetBodySize() override { return static_cast<size_t>(memoryStream_->Size()); }
    const void* GetBodyData() override { return memoryStream_->Data(); }
    const char* GetHeader(const char* name) override;

    // The body, for the transport's reads straight into it (Transport::ReadBody).
    BodyBuffer& Body() { return memoryStream_->Body(); }
    // The room a read of the body is to find: the rest of the announced length and a byte more,
    // so that the read which finds the end needs no more; a block when no length was announced.
    uint32_t NextRoom() const;
    // A read into Body() completed, with bytes or at the end.
    void Received() { memoryStream_->Sync(); }
    // The body has the announced length, or no length was announced.
    bool IsComplete();

private:
    Core::Ptr<HttpResponseStreamImpl> responseStream_;
    Core::Ptr<impl::MemoryStreamImpl> memoryStream_;
    uint64_t announced_ = 0; // the body length the headers announce, 0 for none
};

// The task of a request: cancelling it closes the request it names.
class HttpAsyncTaskImpl final : public Platform::Threading::impl::AsyncTaskImpl {
public:
    void Cancel() override;

    Core::Ptr<Interfaces::IHttpRequest> request;
};

// Puts the response (or response stream) of a request in the task that its user object is.
void OnTaskResponse(Interfaces::IHttpRequest* request, Core::IObject* response);

} // namespace Platform::Windows::Network::Http
