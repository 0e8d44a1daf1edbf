#pragma once
#include <atomic>
#include <cstdint>

#include "Core/ObjectImplBase.h"
#include "Core/Ptr.h"
#include "Platform/Interfaces/IHttpClient.h"
#include "ResponseStreams.h"
#include "Transport.h"

namespace Platform::Windows::Network::Http {

enum ResponseMode : uint32_t {
    ModeBuffered = 1,
    ModeStreamed = 2,
};

inline constexpr size_t kUploadBlockSize = 20971520;

// A request whose body is pumped from a stream, one block in flight at a time.
class HttpRequestStreamImpl final : public Core::ObjectImplBase<Interfaces::IHttpRequestStream2> {
public:
    HttpRequestStreamImpl(Transport::Handle handle, uint32_t method, Interfaces::IHttpClient* client);
    ~HttpRequestStreamImpl() override;

    bool _abi_AddHeaders(Interfaces::IHttpHeaders* headers, Core::IErrorCode** ppError) override;
    bool _abi_SetBodyStream(Interfaces::IStream* stream, Core::IErrorCode** ppError) override;
    bool _abi_SendAsync(Interfaces::IAsyncTask** ppTask, Core::IErrorCode** ppError) override;
    bool CloseRequest() override;
    bool _abi_SendBufferedAsync(Interfaces::IAsyncTask** ppTask, Core::IErrorCode** ppError) override;

    // Events, on transport threads.
    void OnSendComplete();
    void OnWriteComplete();
    void OnHeadersAvailable();
    void OnReadComplete(void* buffer, uint32_t bytes);
    void OnHandleClosing();

    bool IsChunked() const { return chunked_; }

private:
    bool SetContentLengthHeader();
    bool SendRequestInternal();
    void WriteData();
    void ReadData();

    std::atomic<bool> closed_{false};
    std::atomic<Transport::Handle> handle_;
    uint32_t method_;
    Core::Ptr<Interfaces::IHttpClient> client_;
    Core::Ptr<Interfaces::IStream> bodyStream_;
    uint8_t uploadBuffer_[kUploadBlockSize];
    bool completed_ = false;
    std::atomic<bool> sent_{false};
    bool chunked_ = false;
    uint32_t responseMode_ = ModeStreamed;
    std::atomic<impl::AsyncStreamImpl*> asyncStream_{nullptr};
    Core::Ptr<Interfaces::IAsyncTask> task_;
    Core::Ptr<Interfaces::IHttpResponse> response_;
};

} // namespace Platform::Windows::Network::Http
