#include <gtest/gtest.h>

#include <string>

#include "Data/Values.h"
#include "HttpRequestImpl.h"
#include "HttpRequestStreamImpl.h"
#include "MemoryStreamImpl.h"
#include "Platform/Network/Http/Headers.h"
#include "Platform/Network/Http/HttpClient.h"
#include "Platform/Threading/AsyncTask.h"
#include "Transport.h"
#include "support/TestServer.h"
#include "support/Wait.h"

namespace Http = Platform::Network::Http;
namespace Impl = Platform::Windows::Network::Http;
using Core::Ptr;
using Platform::Interfaces::IAsyncTask;
using Platform::Interfaces::IHttpRequestStream;
using Platform::Interfaces::IHttpRequestStream2;
using TestSupport::TestServer;
using TestSupport::WaitUntil;

namespace {

Ptr<IHttpRequestStream> NewStreamRequest(const Ptr<Platform::Interfaces::IHttpClient>& client, uint32_t method,
                                         const std::string& path = "/upload") {
    Ptr<Platform::Interfaces::IAcceptTypes> accept;
    Http::CreateAcceptTypes(accept.ReceiveAddress());
    Ptr<IHttpRequestStream> request;
    EXPECT_TRUE(client->CreateRequestStream(path.c_str(), accept.Raw(), method, request.ReceiveAddress(), nullptr));
    return request;
}

Ptr<Platform::Interfaces::IStream> BodyOf(const std::string& bytes) {
    auto stream = Core::MakeObject<Impl::impl::MemoryStreamImpl>();
    stream->Append(bytes.data(), bytes.size());
    return stream;
}

Ptr<Platform::Interfaces::IHttpHeaders> Headers(const char* name, const char* value) {
    Ptr<Platform::Interfaces::IHttpHeaders> headers;
    Http::CreateHttpHeaders(headers.ReceiveAddress());
    headers->Add(name, value);
    return headers;
}

std::string Expected(const std::string& body, const char* mode, const char* method = "POST") {
    return std::to_string(body.size()) + " " + std::to_string(Core::Fnv1a64(body.data(), body.size())) + " " + mode +
           " " + method;
}

// The text of the buffered response a task ended with.
std::string ResultText(const Ptr<IAsyncTask>& task) {
    EXPECT_TRUE(WaitUntil([&] { return task->IsCompleted() || task->IsCancelled(); }, std::chrono::seconds(120)));
    Data::Variant value = Platform::Threading::AsyncTask(task).GetResultVariant();
    auto* response = dynamic_cast<Platform::Interfaces::IHttpResponse*>(value.ToObject());
    if (!response) return "<no response>";
    return std::string(static_cast<const char*>(response->GetBodyData()), response->GetBodySize());
}

std::string Pattern(size_t size) {
    std::string text(size, '\0');
    for (size_t i = 0; i < size; ++i) text[i] = TestSupport::PatternByte(i * 5);
    return text;
}

class RequestStream : public testing::Test {
protected:
    void TearDown() override {
        EXPECT_TRUE(WaitUntil([] { return Impl::Transport::OpenHandleCount() == 0; }));
    }
    TestServer server;
};

struct UploadCase {
    const char* name;
    size_t size;
    const char* transferEncoding; // null for a sized body
    uint32_t method;
};

class StreamUpload : public RequestStream, public testing::WithParamInterface<UploadCase> {};

TEST_P(StreamUpload, BodyArrivesWhole) {
    const UploadCase& c = GetParam();
    auto client = Http::CreateHttpClient(server.Base().c_str(), "Test/1.0", 0);
    auto request = NewStreamRequest(client, c.method);
    const std::string body = Pattern(c.size);
    if (c.transferEncoding) {
        ASSERT_TRUE(request->_abi_AddHeaders(Headers("Transfer-Encoding", c.transferEncoding).Raw(), nullptr));
        EXPECT_TRUE(static_cast<Impl::HttpRequestStreamImpl*>(request.Raw())->IsChunked());
    }
    ASSERT_TRUE(request->_abi_SetBodyStream(BodyOf(body).Raw(), nullptr));
    Ptr<IAsyncTask> task;
    ASSERT_TRUE(request.As<IHttpRequestStream2>()->_abi_SendBufferedAsync(task.ReceiveAddress(), nullptr));
    ASSERT_NE(task.Raw(), nullptr);
    EXPECT_EQ(ResultText(task), Expected(body, c.transferEncoding ? c.transferEncoding : "sized",
                                         Impl::MethodVerb(c.method)));
    EXPECT_EQ(task->GetState(), Platform::Interfaces::AsyncTaskCompleted);
}

INSTANTIATE_TEST_SUITE_P(
    Bodies, StreamUpload,
    testing::Values(UploadCase{"SizedEmpty", 0, nullptr, 1}, UploadCase{"SizedSmall", 1000, nullptr, 1},
                    UploadCase{"SizedOneFullBlock", Impl::kUploadBlockSize, nullptr, 1},
                    UploadCase{"SizedTwoBlocks", Impl::kUploadBlockSize + 7, nullptr, 3},
                    UploadCase{"ChunkedEmpty", 0, "chunked", 1}, UploadCase{"ChunkedSmall", 1000, "CHUNKED", 8},
                    UploadCase{"ChunkedOneFullBlock", Impl::kUploadBlockSize, "chunked", 1}),
    [](const testing::TestParamInfo<UploadCase>& info) { return std::string(info.param.name); });

TEST_F(RequestStream, OnlyChunkedSetsChunkedAndGuardsHoldNull) {
    auto client = Http::CreateHttpClient(server.Base().c_str(), "Test/1.0", 0);
    auto request = NewStreamRequest(client, 1);
    auto* impl = static_cast<Impl::HttpRequestStreamImpl*>(request.Raw());
    ASSERT_TRUE(request->_abi_AddHeaders(Headers("Transfer-Encoding", "gzip").Raw(), nullptr));
    EXPECT_FALSE(impl->IsChunked());
    Ptr<Platform::Interfaces::IHttpHeaders> empty;
    Http::CreateHttpHeaders(empty.ReceiveAddress());
    EXPECT_TRUE(request->_abi_AddHeaders(empty.Raw(), nullptr)); // nothing added, still a success

    Ptr<Core::IErrorCode> error;
    EXPECT_FALSE(request->_abi_AddHeaders(nullptr, error.ReceiveAddress()));
    EXPECT_STREQ(error->GetMessage(), "Pointer of struct Platform::Interfaces::IHttpHeaders must not be null!");
    error = nullptr;
    EXPECT_FALSE(request->_abi_SetBodyStream(nullptr, error.ReceiveAddress()));
    EXPECT_STREQ(error->GetMessage(), "Pointer of struct Platform::Interfaces::IStream must not be null!");
    EXPECT_FALSE(request->CloseRequest() == false);
    EXPECT_FALSE(request->CloseRequest());
}

TEST_F(RequestStream, StreamedModeGivesTheResponseStreamAtTheHeaders) {
    auto client = Http::CreateHttpClient(server.Base().c_str(), "Test/1.0", 0);
    auto request = NewStreamRequest(client, 1);
    const std::string body = Pattern(50000);
    ASSERT_TRUE(request->_abi_SetBodyStream(BodyOf(body).Raw(), nullptr));
    Ptr<IAsyncTask> task;
    ASSERT_TRUE(request->_abi_SendAsync(task.ReceiveAddress(), nullptr));
    ASSERT_TRUE(WaitUntil([&] { return task->IsCompleted(); }, std::chrono::seconds(60)));
    Data::Variant value = Platform::Threading::AsyncTask(task).GetResultVariant();
    auto* stream = dynamic_cast<Platform::Interfaces::IHttpResponseStream*>(value.ToObject());
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(stream->GetStatusCode(), 200);
    auto* async = stream->_abi_GetAsyncStream(nullptr);
    ASSERT_NE(async, nullptr);
    std::string text(async->GetSize(), '\0');
    ASSERT_TRUE(async->_abi_QueueReadAsync(text.data(), text.size(), nullptr, 0, nullptr, nullptr));
    ASSERT_TRUE(async->WaitForCompletion(30000, false, false));
    EXPECT_EQ(text, Expected(body, "sized"));
}

TEST_F(RequestStream, GetWithoutBodyStreamsTheResponse) {
    auto client = Http::CreateHttpClient(server.Base().c_str(), "Test/1.0", 0);
    auto request = NewStreamRequest(client, 0, "/hello");
    Ptr<IAsyncTask> task;
    ASSERT_TRUE(request->_abi_SendAsync(task.ReceiveAddress(), nullptr));
    ASSERT_TRUE(WaitUntil([&] { return task->IsCompleted(); }, std::chrono::seconds(60)));
    Data::Variant value = Platform::Threading::AsyncTask(task).GetResultVariant();
    auto* stream = dynamic_cast<Platform::Interfaces::IHttpResponseStream*>(value.ToObject());
    ASSERT_NE(stream, nullptr);
    auto* async = stream->_abi_GetAsyncStream(nullptr);
    ASSERT_NE(async, nullptr);
    char text[32] = {};
    ASSERT_TRUE(async->_abi_QueueReadAsync(text, sizeof(text), nullptr, 0, nullptr, nullptr));
    ASSERT_TRUE(async->WaitForCompletion(30000, false, false));
    EXPECT_STREQ(text, "hello world");
    ASSERT_TRUE(async->_abi_QueueReadAsync(text, sizeof(text), nullptr, 0, nullptr, nullptr));
    ASSERT_TRUE(async->WaitForCompletion(30000, false, false));
    EXPECT_TRUE(async->IsEndOfStream());
}

} // namespace
