#include "HttpRequestStreamImpl.h"

#include <cctype>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "Core/AbiGuard.h"
#include "Core/StringFormat.h"
#include "HttpRequestImpl.h"
#include "Platform/Log.h"
#include "Platform/RichError.h"

namespace Platform::Windows::Network::Http {

using namespace Interfaces;

namespace {
constexpr const char* kFile = "HttpRequestStreamImpl.cpp";

std::string Lower(std::string_view text) {
    std::string out(text);
    for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
}
} // namespace

HttpRequestStreamImpl::HttpRequestStreamImpl(Transport::Handle handle, uint32_t method, IHttpClient* client)
    : handle_(handle), method_(method), client_(client) {}

HttpRequestStreamImpl::~HttpRequestStreamImpl() {
    CloseRequest();
    response_ = nullptr;
    task_ = nullptr;
    bodyStream_ = nullptr;
    client_ = nullptr;
}

bool HttpRequestStreamImpl::_abi_AddHeaders(IHttpHeaders* headers, Core::IErrorCode** ppError) {
    return Core::AbiGuard(
        [&] {
            Core::ThrowIfNull(headers);
            if (headers->GetCount() == 0) return;
            for (uint64_t i = 0; i < headers->GetCount(); ++i) {
                const char* name = headers->GetNameAt(i);
                if (Lower(name) == "transfer-encoding" && Lower(headers->Get(name)) == "chunked") chunked_ = true;
            }
            const std::string text = HeaderLines(headers);
            if (!Transport::AddRequestHeaders(handle_.load(), text.c_str(), static_cast<int64_t>(text.size()),
                                              Transport::AddRequestFlagAdd))
                throw std::runtime_error(RichError::FormatError(RichError::ErrorTypeWinHttp, Transport::GetLastError()));
        },
        ppError);
}

bool HttpRequestStreamImpl::_abi_SetBodyStream(IStream* stream, Core::IErrorCode** ppError) {
    return Core::AbiGuard(
        [&] {
            Core::ThrowIfNull(stream);
            bodyStream_ = Core::Ptr<IStream>(stream);
        },
        ppError);
}

bool HttpRequestStreamImpl::SetContentLengthHeader() {
    if (chunked_) return true;
    Core::Ptr<Core::IErrorCode> error;
    const uint64_t size = bodyStream_->GetSize(error.ReceiveAddress());
    Core::ThrowIfError(error);
    if (size != 0) {
        const std::string header =
            Core::StringFormat("Content-Length: %llu\r\n", static_cast<unsigned long long>(size));
        if (!Transport::AddRequestHeaders(handle_.load(), header.c_str(), -1, Transport::AddRequestFlagAdd)) {
            const uint32_t code = Transport::GetLastError();
            LogMessage(LogError, "Platform::Windows::Network::Http::HttpRequestStreamImpl::SetContentLengthHeader",
                       kFile, __LINE__,
                       Core::StringFormat("WinHttpAddRequestHeaders failed (%d) %s", static_cast<int>(code),
                                          RichError::FormatError(RichError::ErrorTypeWin32, code).c_str()));
            return false;
        }
        return true;
    }
    // A stream that does not know its size announces -1.
    const std::string header = Core::StringFormat("Content-Length: %d\r\n", -1);
    Transport::AddRequestHeaders(handle_.load(), header.c_str(), -1, Transport::AddRequestFlagAdd);
    return true;
}

bool HttpRequestStreamImpl::SendRequestInternal() {
    ObjectLock lock(*this);
    const Transport::Handle handle = handle_.load();
    if (completed_ || handle == nullptr || closed_.load()) return false;
    AddReference(); // the transport's reference, given back on handle closing
    bool ok = false;
    try {
        switch (method_) {
        case 0:
        case 2: ok = Transport::SendRequest(handle, nullptr, 0, nullptr, 0, 0, this); break;
        case 1:
        case 3:
        case 4:
        case 8:
            SetContentLengthHeader();
            ok = Transport::SendRequest(handle, nullptr, 0, nullptr, 0, 0, this);
            break;
        default: Release(); return false;
        }
    } catch (...) {
        Release();
        throw;
    }
    sent_.store(ok);
    if (ok) return true;
    const uint32_t error = Transport::GetLastError();
    LogMessage(LogError, "Platform::Windows::Network::Http::HttpRequestStreamImpl::SendRequestInternal", kFile,
               __LINE__,
               Core::StringFormat("WinHttpSendRequest failed (%d) %s", static_cast<int>(error),
                                  RichError::FormatError(RichError::ErrorTypeWin32, error).c_str()));
    Release();
    return false;
}

bool HttpRequestStreamImpl::_abi_SendAsync(IAsyncTask** ppTask, Core::IErrorCode** ppError) {
    return Core::AbiGuard(
        [&] {
            // The caller's reference is taken before the send: the headers may come, and the
            // request drop its own, before SendRequestInternal returns.
            Core::Ptr<IAsyncTask> task = Core::MakeObject<HttpAsyncTaskImpl>();
            task_ = task;
            task->SetState(AsyncTaskQueued);
            if (!SendRequestInternal()) return;
            *ppTask = task.Detach();
        },
        ppError);
}

bool HttpRequestStreamImpl::_abi_SendBufferedAsync(IAsyncTask** ppTask, Core::IErrorCode** ppError) {
    responseMode_ = ModeBuffered;
    return _abi_SendAsync(ppTask, ppError);
}

bool HttpRequestStreamImpl::CloseRequest() {
    ObjectLock lock(*this);
    const Transport::Handle handle = handle_.load();
    if (!Transport::IsValidHandle(handle)) return false;
    Transport::CloseHandle(handle);
    handle_.store(Transport::InvalidHandle());
    closed_.exchange(true);
    return true;
}

void HttpRequestStreamImpl::OnSendComplete() {
    const Transport::Handle handle = handle_.load();
    if (!Transport::IsValidHandle(handle)) return;
    if (responseMode_ != ModeBuffered) Transport::ReceiveResponse(handle, nullptr);
    if (bodyStream_.Raw()) WriteData();
}

void HttpRequestStreamImpl::OnWriteComplete() {
    if (Transport::IsValidHandle(handle_.load())) WriteData();
}

void HttpRequestStreamImpl::WriteData() {
    constexpr const char* function = "Platform::Windows::Network::Http::HttpRequestStreamImpl::WriteData";
    const Transport::Handle handle = handle_.load();
    if (!bodyStream_.Raw() || handle == Transport::InvalidHandle()) return;
    Core::Ptr<Core::IErrorCode> error;
    const size_t count = bodyStream_->_abi_Read(uploadBuffer_, kUploadBlockSize, error.ReceiveAddress());
    if (error.Raw()) LogMessage(LogError, function, kFile, __LINE__, "Reading from stream failed");
    if (count == 0) {
        if (chunked_) {
            Transport::WriteData(handle, "0\r\n\r\n", 5, nullptr);
            bodyStream_ = nullptr;
        } else {
            Transport::WriteData(handle, nullptr, 0, nullptr);
        }
        if (responseMode_ == ModeBuffered) Transport::ReceiveResponse(handle, nullptr);
        return;
    }
    if (count > 0xFFFFFFFFu)
        LogMessage(LogError, function, kFile, __LINE__,
                   "Trying to send data which is too big - max supported size for a singular write is max DWORD");
    bool ok = true;
    if (chunked_) {
        char head[16];
        const int headLength = std::snprintf(head, sizeof(head), "%X\r\n", static_cast<uint32_t>(count));
        const size_t total = static_cast<size_t>(headLength) + count + 2;
        std::unique_ptr<char[]> block(new char[total]);
        std::memcpy(block.get(), head, static_cast<size_t>(headLength));
        std::memcpy(block.get() + headLength, uploadBuffer_, count);
        std::memcpy(block.get() + headLength + count, "\r\n", 2);
        if (Transport::IsValidHandle(handle_.load()))
            ok = Transport::WriteData(handle, block.get(), static_cast<uint32_t>(total), nullptr);
    } else {
        ok = Transport::WriteData(handle, uploadBuffer_, static_cast<uint32_t>(count), nullptr);
    }
    if (!ok) {
        const uint32_t code = Transport::GetLastError();
        LogMessage(LogError, function, kFile, __LINE__,
                   Core::StringFormat("WinHttpWriteData failed (%d) %s", static_cast<int>(code),
                                      RichError::FormatError(RichError::ErrorTypeWinHttp, code).c_str()));
    }
}

void HttpRequestStreamImpl::OnHeadersAvailable() {
    constexpr const char* function = "Platform::Windows::Network::Http::HttpRequestStreamImpl::OnHeadersAvailable";
    const Transport::Handle handle = handle_.load();
    if (handle == Transport::InvalidHandle()) return;
    std::string text;
    if (!ReadRawResponseHeaders(handle, function, kFile, text)) return;
    ResponseHeaders table(std::move(text));
    const char* announced = table.Find("Content-Length");
    const uint64_t contentLength = announced ? ParseContentLength(announced) : 0;

    // Objects made under the lock are released after it, since dropping a stream closes this request.
    Core::Ptr<HttpResponseStreamImpl> responseStream;
    Core::Ptr<IAsyncTask> dropped;
    ObjectLock lock(*this);
    if (responseMode_ == ModeStreamed) {
        auto async = Core::MakeObject<impl::AsyncStreamImpl>(handle, contentLength, this);
        asyncStream_.store(async.Raw());
        responseStream = Core::MakeObject<HttpResponseStreamImpl>(async, std::move(table), this);
        if (!task_.Raw()) return;
        if (closed_.load() && !Transport::IsValidHandle(handle_.load())) {
            task_->SetState(AsyncTaskCancelled);
            task_->Signal();
        } else {
            const Data::Variant result = Data::Variant::Owned(responseStream.Raw(), Data::Structures::TagObject);
            task_->SetResult(&result.Raw());
            task_->SetState(AsyncTaskCompleted);
            task_->Signal();
            dropped.Swap(task_);
        }
        return;
    }
    response_ = HttpResponseImpl::Make(std::move(table));
    ReadData();
}

void HttpRequestStreamImpl::ReadData() {
    const Transport::Handle handle = handle_.load();
    auto* response = static_cast<HttpResponseImpl*>(response_.Raw());
    if (!response || handle == Transport::InvalidHandle()) return;
    if (!Transport::ReadBody(handle, response->Body(), response->NextRoom())) {
        const uint32_t error = Transport::GetLastError();
        LogMessage(LogError, "Platform::Windows::Network::Http::HttpRequestStreamImpl::ReadData", kFile, __LINE__,
                   Core::StringFormat("WinHttpReadData failed (%d) %s", static_cast<int>(error),
                                      RichError::FormatError(RichError::ErrorTypeWinHttp, error).c_str()));
    }
}

void HttpRequestStreamImpl::OnReadComplete(void* buffer, uint32_t bytes) {
    if (impl::AsyncStreamImpl* stream = asyncStream_.load()) {
        stream->OnReadCompleted(buffer, bytes);
        return;
    }
    auto* response = static_cast<HttpResponseImpl*>(response_.Raw());
    if (!response) return;
    // Also after the read that found the end: making room for it may have moved the body.
    response->Received();
    if (bytes > 0) {
        ReadData();
        return;
    }
    if (!response->IsComplete()) return;
    if (task_.Raw()) {
        if (!closed_.load() || Transport::IsValidHandle(handle_.load())) {
            const Data::Variant result = Data::Variant::Owned(response, Data::Structures::TagObject);
            task_->SetResult(&result.Raw());
            task_->SetState(AsyncTaskCompleted);
        } else {
            task_->SetState(AsyncTaskCancelled);
        }
        task_->Signal();
    }
    completed_ = true;
    CloseRequest();
}

void HttpRequestStreamImpl::OnHandleClosing() {
    Core::Ptr<IHttpClient> client;
    Core::Ptr<IAsyncTask> task;
    {
        ObjectLock lock(*this);
        client.Swap(client_);
        task.Swap(task_);
    }
    client = nullptr;
    task = nullptr;
    Release(); // the transport's reference
}

} // namespace Platform::Windows::Network::Http
