#include "ResponseStreams.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <stdexcept>

#include "Core/AbiGuard.h"
#include "Core/Checked.h"
#include "Data/Values.h"
#include "Platform/Files.h"
#include "Platform/Log.h"
#include "Platform/RichError.h"
#include "Platform/Threading/ThreadHelpers.h"

namespace Platform::Windows::Network::Http {

namespace Helpers = Platform::Windows::Threading::ThreadHelpers;

uint64_t ParseContentLength(std::string_view text) {
    uint64_t value = 0;
    size_t i = 0;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
        const uint64_t digit = static_cast<uint64_t>(text[i] - '0');
        if (value > (UINT64_MAX - digit) / 10) return 0;
        value = value * 10 + digit;
    }
    return i == 0 ? 0 : value;
}

int32_t ParseStatusCode(const std::string& statusLine) {
    const size_t first = statusLine.find(' ');
    if (first == std::string::npos) return std::atoi(statusLine.c_str());
    const size_t second = statusLine.find(' ', first + 1);
    return std::atoi(statusLine.substr(first + 1, second == std::string::npos ? std::string::npos : second - first - 1)
                         .c_str());
}

void FailFatal(const char* function, int line, const char* text) {
    LogMessage(LogFatal, function, "ResponseStreams.cpp", line, text);
    try {
        LogStackTrace();
    } catch (...) {
        // Without a logger there is no trace to write; the failure itself still goes up.
    }
    throw std::runtime_error(text);
}

namespace impl {

namespace {
constexpr const char* kQueueRead = "Platform::Windows::Network::Http::impl::AsyncStreamImpl::_abi_QueueReadAsync";
constexpr const char* kWait = "Platform::Windows::Network::Http::impl::AsyncStreamImpl::WaitForCompletion";
} // namespace

AsyncStreamImpl::AsyncStreamImpl(Transport::Handle handle, uint64_t contentLength, Core::IObject* owner)
    : owner_(owner), handle_(handle), contentLength_(contentLength),
      event_(std::make_shared<Platform::Threading::AlertableEvent>()) {}

AsyncStreamImpl::~AsyncStreamImpl() {
    if (Core::IObject* owner = owner_.Raw()) {
        if (auto* request = dynamic_cast<Interfaces::IHttpRequest*>(owner))
            request->Close();
        else if (auto* requestStream = dynamic_cast<Interfaces::IHttpRequestStream*>(owner))
            requestStream->CloseRequest();
    }
}

bool AsyncStreamImpl::_abi_QueueReadAsync(void* buffer, uint64_t size, Core::IObject* object, uint64_t fileOffset,
                                          Interfaces::AsyncIoCallback callback, Core::IErrorCode** ppError) {
    return Core::AbiGuard(
        [&] {
            if (busy_) FailFatal(kQueueRead, __LINE__, "Cannot queue reads while another operation is in progress!");
            if (fileOffset != 0)
                FailFatal(kQueueRead, __LINE__, "fileOffset parameter must be 0 as stream seek is not supported!");
            if (!Transport::IsValidHandle(handle_))
                FailFatal(kQueueRead, __LINE__,
                          "Async http stream request reference was dropped and cannot queue anymore reads!");
            auto* start = static_cast<uint8_t*>(buffer);
            uint8_t* end = start + size;
            for (const auto& [address, entry] : queue_) {
                if (end >= entry.buffer && start < entry.buffer + entry.size)
                    throw std::runtime_error(
                        "Another buffer was already queued which overlaps with the buffer area that was provided! "
                        "Queued reads must not have overlapped memory regions!");
            }
            if (size == 0) return;
            for (uint64_t offset = 0; offset < size;) {
                const uint32_t portion = static_cast<uint32_t>(std::min<uint64_t>(size - offset, 0xFFFFFFFFu));
                QueuedRead read;
                read.buffer = start + offset;
                read.size = portion;
                read.object = Core::Ptr<Core::IObject>(object);
                read.callback = callback;
                queue_[read.buffer] = std::move(read);
                order_.push_back(start + offset);
                offset += portion;
            }
        },
        ppError);
}

bool AsyncStreamImpl::_abi_QueueWriteAsync(void*, uint64_t, Core::IObject*, uint64_t, Interfaces::AsyncIoCallback,
                                           Core::IErrorCode** ppError) {
    return Core::AbiGuard([] { throw std::runtime_error("Stream is read only!"); }, ppError);
}

bool AsyncStreamImpl::WaitForCompletion(uint32_t timeoutMs, bool alertable, bool third) {
    try {
        return Wait(timeoutMs, alertable, third);
    } catch (...) {
        return false;
    }
}

bool AsyncStreamImpl::Wait(uint32_t timeoutMs, bool alertable, bool third) {
    if (busy_) FailFatal(kWait, __LINE__, "Another WaitForCompletion call is already in progress. Cannot wait twice!");
    busy_ = true;
    for (void* address : order_) {
        QueuedRead& entry = Core::MapAt(queue_, address);
        if (entry.done) continue;
        event_ = std::make_shared<Platform::Threading::AlertableEvent>();
        if (cancelled_) {
            if (entry.callback)
                entry.callback(entry.object.Raw(), Core::MakeErrorCode(0, "Request IO was cancelled!").Raw(), 0);
            entry.done = true;
            event_->Set();
            break;
        }
        const std::shared_ptr<Platform::Threading::AlertableEvent> event = event_;
        if (!Transport::ReadData(handle_, entry.buffer, entry.size, nullptr)) {
            const uint32_t error = Transport::GetLastError();
            const std::string text = RichError::FormatError(RichError::ErrorTypeWinHttp, error);
            LogMessage(LogError, kWait, "ResponseStreams.cpp", __LINE__,
                       Core::StringFormat("WinHttpReadData failed (%d) %s", static_cast<int>(error), text.c_str()));
            if (entry.callback) entry.callback(entry.object.Raw(), Core::MakeErrorCode(error, text).Raw(), 0);
            entry.done = true;
            event->Set();
            break;
        }
        const bool ok = Helpers::WaitForSingleObject(*event, timeoutMs, alertable, third);
        if (!ok || !event->IsSet()) return false;
    }
    queue_.clear();
    order_.clear();
    busy_ = false;
    return true;
}

bool AsyncStreamImpl::_abi_Close(Core::IErrorCode** ppError) {
    return Core::AbiGuard([&] { owner_ = nullptr; }, ppError);
}

void AsyncStreamImpl::OnReadCompleted(void* buffer, uint32_t bytes) {
    auto it = queue_.find(buffer);
    if (it == queue_.end()) {
        LogMessage(LogError, "Platform::Windows::Network::Http::impl::AsyncStreamImpl::OnReadCompleted",
                   "ResponseStreams.cpp", __LINE__, "OnReadCompleted logic error!");
        return;
    }
    const std::shared_ptr<Platform::Threading::AlertableEvent> event = event_;
    QueuedRead& entry = it->second;
    if (entry.callback) entry.callback(entry.object.Raw(), nullptr, bytes);
    entry.done = true;
    if (bytes == 0) endOfStream_.store(true);
    event->Set();
}

} // namespace impl

HttpResponseStreamImpl::HttpResponseStreamImpl(Core::Ptr<Core::IObject> source, ResponseHeaders headers,
                                               Core::IObject* request)
    : source_(std::move(source)), request_(request), headers_(std::move(headers)) {
    const char* status = headers_.Find("Response");
    statusCode_ = ParseStatusCode(status ? status : "");
}

bool HttpResponseStreamImpl::_abi_GetHeaders(Data::Interfaces::IVariantDictionary** ppHeaders,
                                             Core::IErrorCode** ppError) {
    return Core::AbiGuard(
        [&] {
            Core::CheckResultAddress(ppHeaders);
            // One entry per name, under its first spelling, with its last value.
            HeaderTable table;
            for (size_t i = 0; i < headers_.Count(); ++i)
                table[std::string(headers_.NameAt(i))] = std::string(headers_.ValueViewAt(i));
            Data::VariantDictionary dictionary = Data::VariantDictionary::Create();
            for (const auto& [name, value] : table)
                dictionary.Set(name.c_str(), Data::Variant::FromObject(Data::String::Create(value)));
            *ppHeaders = dictionary.Detach();
        },
        ppError);
}

bool HttpResponseStreamImpl::HasHeader(const char* name) { return name && headers_.Find(name) != nullptr; }

const char* HttpResponseStreamImpl::_abi_GetHeader(const char* name, Core::IErrorCode** ppError) {
    const char* value = nullptr;
    Core::AbiGuard(
        [&] {
            Core::ThrowIfNull(name);
            value = headers_.Find(name);
            if (!value) Core::ThrowInvalidKey();
        },
        ppError);
    return value;
}

Interfaces::IAsyncStream* HttpResponseStreamImpl::_abi_GetAsyncStream(Core::IErrorCode** ppError) {
    Interfaces::IAsyncStream* stream = nullptr;
    Core::AbiGuard([&] { stream = source_.As<impl::AsyncStreamImpl>().Raw(); }, ppError);
    return stream;
}

HttpResponseImpl::HttpResponseImpl(Core::Ptr<HttpResponseStreamImpl> responseStream)
    : responseStream_(std::move(responseStream)),
      memoryStream_(responseStream_->Source().As<impl::MemoryStreamImpl>()) {}

bool HttpResponseImpl::SaveToFile(const char* path) {
    if (memoryStream_->Size() == 0) return false;
    const auto file = IO::AsSynchronousFile(IO::CreateFileForWriting(path, 0));
    Core::ThrowIfError(file.error);
    const uint8_t* data = memoryStream_->Data();
    uint64_t left = memoryStream_->Size();
    while (left > 0) {
        Core::Ptr<Core::IErrorCode> error;
        const uint64_t block = std::min<uint64_t>(left, 1u << 30);
        const uint32_t written = file.value->_abi_Write(data, block, error.ReceiveAddress());
        Core::ThrowIfError(error);
        if (written == 0) return false;
        data += written;
        left -= written;
    }
    return true;
}

const char* HttpResponseImpl::GetHeader(const char* name) {
    if (!name) return nullptr;
    return responseStream_->Headers().Find(name);
}

Core::Ptr<HttpResponseImpl> HttpResponseImpl::Make(ResponseHeaders headers) {
    const char* length = headers.Find("Content-Length");
    const uint64_t announced = length ? ParseContentLength(length) : 0;
    auto memory = Core::MakeObject<impl::MemoryStreamImpl>();
    auto stream = Core::MakeObject<HttpResponseStreamImpl>(memory, std::move(headers), nullptr);
    auto response = Core::MakeObject<HttpResponseImpl>(stream);
    response->announced_ = announced;
    return response;
}

uint32_t HttpResponseImpl::NextRoom() const {
    // The most room taken ahead: a length that lies costs an allocation that is never touched.
    constexpr uint64_t kMostAhead = uint64_t(16) << 20;
    constexpr uint32_t kBlock = 16 * 1024;
    const uint64_t size = memoryStream_->Size();
    if (announced_ <= size) return kBlock;
    return static_cast<uint32_t>(std::min(announced_ - size + 1, kMostAhead));
}

bool HttpResponseImpl::IsComplete() {
    // A missing length is entered as empty, which its readers see from then on.
    ResponseHeaders& headers = responseStream_->Headers();
    headers.EnterMissing("Content-Length");
    const uint64_t length = ParseContentLength(headers.Find("Content-Length"));
    return length == 0 || memoryStream_->Size() == length;
}

void HttpAsyncTaskImpl::Cancel() {
    if (request.Raw()) {
        request->Close();
        request = nullptr;
    }
    SetState(Interfaces::AsyncTaskCancelRequested);
    SetResult(nullptr);
    Signal();
}

void OnTaskResponse(Interfaces::IHttpRequest* request, Core::IObject* response) {
    Core::Ptr<Core::IObject> user(request->GetUserObject());
    Core::Ptr<Interfaces::IAsyncTask> task = user.As<Interfaces::IAsyncTask>();
    task->SetState(Interfaces::AsyncTaskRunning);
    if (response) {
        const Data::Variant result = Data::Variant::Owned(response, Data::Structures::TagObject);
        task->SetResult(&result.Raw());
        task->SetState(Interfaces::AsyncTaskCompleted);
    } else {
        task->SetState(Interfaces::AsyncTaskCancelled);
    }
    task->Signal();
}

} // namespace Platform::Windows::Network::Http
