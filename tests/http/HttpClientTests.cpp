#include <fmt/format.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Data/Values.h"
#include "HttpClientImpl.h"
#include "HttpRequestImpl.h"
#include "HttpRequestStreamImpl.h"
#include "MemoryStreamImpl.h"
#include "Platform/Network/Http/Headers.h"
#include "Platform/Network/Http/HttpClient.h"
#include "Platform/Network/Http/HttpRequest.h"
#include "Platform/Threading/AsyncTask.h"
#include "RecordingLogger.h"
#include "TestObjects.h"
#include "Transport.h"
#include "support/TestServer.h"
#include "support/Wait.h"

namespace Http = Platform::Network::Http;
namespace Impl = Platform::Windows::Network::Http;
using Core::Ptr;
using namespace Platform::Interfaces;
using namespace TestSupport;

namespace {

Ptr<IAcceptTypes> AnyType() {
    Ptr<IAcceptTypes> accept;
    Http::CreateAcceptTypes(accept.ReceiveAddress());
    Http::AddContentType(accept.Raw(), Http::ContentTypeAny);
    return accept;
}

Ptr<IHttpRequest> NewRequest(const Ptr<IHttpClient>& client, const std::string& path, uint32_t method = 0) {
    Ptr<IHttpRequest> request;
    EXPECT_TRUE(client->CreateRequest(path.c_str(), AnyType().Raw(), method, request.ReceiveAddress()));
    return request;
}

Impl::HttpRequestImpl* ImplOf(const Ptr<IHttpRequest>& request) {
    return static_cast<Impl::HttpRequestImpl*>(request.Raw());
}

// Runs a blocking call with a bound: past it the request is closed, which ends any wait on it.
template <class Body>
bool Bounded(const Ptr<IHttpRequest>& request, Body body, std::chrono::seconds bound = std::chrono::seconds(60)) {
    auto done = std::async(std::launch::async, body);
    if (done.wait_for(bound) == std::future_status::ready) return true;
    request->Close();
    done.wait();
    return false;
}

bool Logged(ScopedRecordingLogger& logger, const std::string& text) {
    for (const auto& line : logger->Lines())
        if (line.text.find(text) != std::string::npos) return true;
    return false;
}

std::string BodyOf(IHttpResponse* response) {
    return std::string(static_cast<const char*>(response->GetBodyData()), response->GetBodySize());
}

// The buffered response of a request, or null; the call is bounded.
IHttpResponse* Fetch(const Ptr<IHttpRequest>& request) {
    IHttpResponse* response = nullptr;
    EXPECT_TRUE(Bounded(request, [&] { response = request->GetResponse(true); }));
    return response;
}

// The result object of a task that has ended; `value` keeps it alive.
template <class Result>
Result* ResultOf(const Ptr<IAsyncTask>& task, Data::Variant& value) {
    EXPECT_TRUE(WaitUntil([&] { return task->IsCompleted() || task->IsCancelled(); }, std::chrono::seconds(60)));
    value = Platform::Threading::AsyncTask(task).GetResultVariant();
    return dynamic_cast<Result*>(value.ToObject());
}

// What the upload route answers for a body it received.
std::string Expected(const std::string& body, const char* mode, const char* method = "POST") {
    return fmt::format("{} {} {} {}", body.size(), Core::Fnv1a64(body.data(), body.size()), mode, method);
}

class HttpClientTest : public testing::Test {
protected:
    void TearDown() override {
        // Every request, client and transport handle is gone once the last event was delivered.
        EXPECT_TRUE(WaitUntil([] { return Impl::Transport::OpenHandleCount() == 0; }));
    }
    Ptr<IHttpClient> Client() { return Http::CreateHttpClient(server.Base().c_str(), "Test/1.0", 0); }
    TestServer server;
};

TEST(HttpClient, AddressesAndGuards) {
    // The base address shows the server, port and security that ConnectUrl took from the address.
    const char* cases[][2] = {{"server:8080/x", "https://server:8080"}, {"http://a", "http://a"},
                              {"https://a:8443/p/q", "https://a:8443"}, {"https://b", "https://b"}};
    for (const auto& [url, base] : cases) {
        auto client = Core::MakeObject<Impl::HttpClientImpl>();
        EXPECT_FALSE(client->ConnectUrl(url)) << url; // no session yet
        ASSERT_TRUE(client->OpenSession("Test/1.0", 0));
        EXPECT_TRUE(client->ConnectUrl(url));
        EXPECT_STREQ(client->GetBaseUrl(), base);
    }
    auto client = Http::CreateHttpClient("server:8080/x", "Agent/2", 0);
    EXPECT_FALSE(client->IsSecure()); // the address does not start with "https"
    EXPECT_STREQ(client->GetBaseUrl(), "http://server:8080");
    client->SetSecure(true);
    EXPECT_STREQ(client->GetBaseUrl(), "https://server:8080");
    ASSERT_TRUE(client->Connect("host", 80));
    EXPECT_STREQ(client->GetBaseUrl(), "https://host"); // a secure client on port 80 shows no port

    Ptr<IHttpRequest> request;
    EXPECT_FALSE(client->CreateRequest("/x", nullptr, 0, request.ReceiveAddress()));
    Ptr<IHttpRequestStream> stream;
    Ptr<Core::IErrorCode> error;
    EXPECT_FALSE(client->CreateRequestStream("/x", nullptr, 1, stream.ReceiveAddress(), error.ReceiveAddress()));
    EXPECT_STREQ(error->GetMessage(),
                 "Pointer of class Platform::Windows::Network::Http::AcceptTypesImpl must not be null!");
    auto bare = Core::MakeObject<Impl::HttpClientImpl>();
    EXPECT_FALSE(bare->CreateRequest("/x", AnyType().Raw(), 0, request.ReceiveAddress()));
}

TEST_F(HttpClientTest, BufferedGetThroughGetResponse) {
    auto request = NewRequest(Client(), "/hello");
    EXPECT_EQ(request->GetResponse(false), nullptr); // before the end: neither sends nor blocks
    EXPECT_EQ(ImplOf(request)->State(), Impl::StateIdle);
    IHttpResponse* response = Fetch(request);
    ASSERT_NE(response, nullptr);
    EXPECT_EQ(ImplOf(request)->State(), Impl::StateResponse);
    EXPECT_TRUE(request->IsCompleted());
    EXPECT_TRUE(request->IsClosed());
    EXPECT_EQ(response->GetStatusCode(), 200);
    EXPECT_EQ(BodyOf(response), "hello world");
    EXPECT_STREQ(response->GetHeader("content-TYPE"), "application/octet-stream");
    EXPECT_EQ(response->GetHeader("X-Missing"), nullptr);
    EXPECT_EQ(request->GetResponse(false), response);
}

TEST_F(HttpClientTest, SendTwiceAndTaskAfterCompletion) {
    auto request = NewRequest(Client(), "/hello");
    ASSERT_TRUE(request->Send());
    EXPECT_EQ(ImplOf(request)->State(), Impl::StateResponse);
    EXPECT_FALSE(request->Send());
    ASSERT_TRUE(Bounded(request, [&] { request->WaitForResponse(); }));
    ASSERT_TRUE(request->IsCompleted());
    IHttpResponse* response = request->GetResponse(false);
    ASSERT_NE(response, nullptr);

    Ptr<IAsyncTask> task;
    ASSERT_TRUE(request->GetResponseAsync(task.ReceiveAddress()));
    EXPECT_EQ(task->GetState(), AsyncTaskCompleted); // finished at once
    auto result = Platform::Threading::AsyncTaskWithResultBase<Http::HttpRequest>(Platform::Threading::AsyncTask(task));
    EXPECT_EQ(result.GetResultVariant().ToObject(), static_cast<Core::IObject*>(response));

    // After a stored response the stream form is refused with the first text.
    Ptr<IAsyncTask> streamTask;
    Ptr<Core::IErrorCode> error;
    EXPECT_FALSE(ImplOf(request)->_abi_GetResponseStreamAsync(streamTask.ReceiveAddress(), error.ReceiveAddress()));
    EXPECT_STREQ(error->GetMessage(), "Other GetResponse method was already called. GetResponseStreamAsync and "
                                      "GetResponseAsync are mutually exclusive!");
}

TEST_F(HttpClientTest, StreamFormRefusedAfterSend) {
    auto request = NewRequest(Client(), "/slow?ms=100");
    ASSERT_TRUE(request->Send());
    Ptr<IAsyncTask> task;
    Ptr<Core::IErrorCode> error;
    EXPECT_FALSE(ImplOf(request)->_abi_GetResponseStreamAsync(task.ReceiveAddress(), error.ReceiveAddress()));
    EXPECT_STREQ(error->GetMessage(),
                 "GetResponse or GetResponseAsync method was already called. GetResponseStreamAsync and "
                 "GetResponseAsync are mutually exclusive and cannot be used on the same request!");
    EXPECT_EQ(ImplOf(request)->State(), Impl::StateResponse);
    ASSERT_TRUE(Bounded(request, [&] { request->WaitForResponse(); }));
}

TEST_F(HttpClientTest, StreamedResponseIsReadThroughTheAsyncStream) {
    ScopedRecordingLogger logger;
    auto request = NewRequest(Client(), "/large?bytes=200000");
    Ptr<IAsyncTask> task;
    ASSERT_TRUE(ImplOf(request)->_abi_GetResponseStreamAsync(task.ReceiveAddress(), nullptr));
    ASSERT_NE(task.Raw(), nullptr);
    EXPECT_EQ(ImplOf(request)->State(), Impl::StateStream);

    // The buffered forms are refused in the stream state.
    EXPECT_EQ(request->GetResponse(true), nullptr);
    Ptr<IAsyncTask> other;
    EXPECT_FALSE(request->GetResponseAsync(other.ReceiveAddress()));
    request->WaitForResponse();
    EXPECT_TRUE(Logged(logger, "GetResponseStreamAsync was called previously which state is incompatible with "
                               "GetResponse or GetResponseAsync functions."));
    EXPECT_TRUE(Logged(logger, "incompatible with WaitForResponse"));

    Data::Variant value;
    auto* stream = ResultOf<IHttpResponseStream>(task, value);
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(stream->GetStatusCode(), 200);
    EXPECT_TRUE(stream->HasHeader("content-length"));
    EXPECT_STREQ(stream->_abi_GetHeader("Content-Length", nullptr), "200000");
    Ptr<Core::IErrorCode> error;
    EXPECT_EQ(stream->_abi_GetHeader("X-None", error.ReceiveAddress()), nullptr);
    EXPECT_STREQ(error->GetMessage(), "invalid unordered_map<K, T> key");
    Ptr<Data::Interfaces::IVariantDictionary> headers;
    ASSERT_TRUE(stream->_abi_GetHeaders(headers.ReceiveAddress(), nullptr));
    EXPECT_TRUE(headers->HasKey("Response"));

    IAsyncStream* body = stream->_abi_GetAsyncStream(nullptr);
    ASSERT_NE(body, nullptr);
    EXPECT_EQ(body->GetSize(), 200000u);
    std::vector<char> blocks(3 * 16384);
    struct Counter final : Core::LightObjectImplBase<Core::IObject> {
        std::atomic<uint64_t> bytes{0};
    };
    auto counter = Core::MakeObject<Counter>();
    auto callback = [](Core::IObject* object, Core::IErrorCode* failure, uint32_t bytes) {
        EXPECT_EQ(failure, nullptr);
        static_cast<Counter*>(object)->bytes += bytes;
    };
    for (int round = 0; round < 100 && !body->IsEndOfStream(); ++round) {
        // Three reads queued at once; each may come back with fewer bytes than asked.
        for (int i = 0; i < 3; ++i)
            ASSERT_TRUE(body->_abi_QueueReadAsync(blocks.data() + i * 16384, 16384, counter.Raw(), 0, callback, nullptr));
        ASSERT_TRUE(body->WaitForCompletion(30000, false, false));
    }
    EXPECT_EQ(counter->bytes.load(), 200000u);
    EXPECT_TRUE(body->IsEndOfStream());
    value = Data::Variant();
    task = nullptr;
    request->Close();
}

TEST(AsyncStream, QueueChecksInTheirOrder) {
    ScopedRecordingLogger logger;
    auto stream = Core::MakeObject<Impl::impl::AsyncStreamImpl>(Impl::Transport::InvalidHandle(), 0, nullptr);
    char buffer[64];
    Ptr<Core::IErrorCode> error;
    EXPECT_FALSE(stream->_abi_QueueReadAsync(buffer, 8, nullptr, 1, nullptr, error.ReceiveAddress()));
    EXPECT_STREQ(error->GetMessage(), "fileOffset parameter must be 0 as stream seek is not supported!");
    error = nullptr;
    EXPECT_FALSE(stream->_abi_QueueReadAsync(buffer, 8, nullptr, 0, nullptr, error.ReceiveAddress()));
    EXPECT_STREQ(error->GetMessage(),
                 "Async http stream request reference was dropped and cannot queue anymore reads!");
    error = nullptr;
    EXPECT_FALSE(stream->_abi_QueueWriteAsync(buffer, 8, nullptr, 0, nullptr, error.ReceiveAddress()));
    EXPECT_STREQ(error->GetMessage(), "Stream is read only!");

    // A handle value that the transport does not know: the queue takes reads, the overlap rule holds.
    auto live = Core::MakeObject<Impl::impl::AsyncStreamImpl>(reinterpret_cast<void*>(uintptr_t{1} << 40), 0, nullptr);
    ASSERT_TRUE(live->_abi_QueueReadAsync(buffer + 16, 16, nullptr, 0, nullptr, nullptr));
    error = nullptr;
    EXPECT_FALSE(live->_abi_QueueReadAsync(buffer, 16, nullptr, 0, nullptr, error.ReceiveAddress()));
    EXPECT_STREQ(error->GetMessage(), "Another buffer was already queued which overlaps with the buffer area that was "
                                      "provided! Queued reads must not have overlapped memory regions!");
    EXPECT_TRUE(live->_abi_QueueReadAsync(buffer + 32, 16, nullptr, 0, nullptr, nullptr));
    // The unknown handle fails the read: the wait ends and reports the transport's number.
    EXPECT_TRUE(live->WaitForCompletion(1000, false, false));
    EXPECT_TRUE(Logged(logger, "WinHttpReadData failed (6)"));
    EXPECT_FALSE(Logged(logger, "Cannot queue reads"));
}

TEST_F(HttpClientTest, ClosingInFlightCallsBackWithNullAndFreesEverything) {
    RawServer hang(RawServer::Hang);
    ScopedRecordingLogger logger;
    std::atomic<int> liveUserObjects{0};
    std::atomic<int> nullCalls{0};
    {
        auto client = Http::CreateHttpClient(hang.Base().c_str(), "Test/1.0", 0);
        Http::HttpRequest request(NewRequest(client, "/never"));
        client = nullptr; // the request keeps the client alive
        ASSERT_TRUE(request.SendHttpRequestAsync([&](const Http::HttpResponse& response) {
            if (!response) ++nullCalls;
        }));
        ASSERT_TRUE(WaitUntil([&] { return Logged(logger, "http://127.0.0.1"); }));
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        auto marker = Core::MakeObject<Counted>(&liveUserObjects);
        EXPECT_TRUE(request->Close());
        EXPECT_GE(nullCalls.load(), 1);
        EXPECT_TRUE(request->IsClosed());
        EXPECT_FALSE(request->Close());
    }
    // The request went with its last event, and with it the client and every transport handle.
    ASSERT_TRUE(WaitUntil([] { return Impl::Transport::OpenHandleCount() == 0; }));
    EXPECT_TRUE(Logged(logger, "AsyncCallback: WINHTTP_CALLBACK_STATUS_REQUEST_ERROR [12017]"));
    EXPECT_EQ(liveUserObjects.load(), 0);
}

// A request closed as soon as its send was accepted, often before the transport started it,
// still ends with the cancellation, which wakes both kinds of waiter.
TEST_F(HttpClientTest, ClosingRightAfterTheSendWakesEveryWaiter) {
    RawServer hang(RawServer::Hang);
    auto client = Http::CreateHttpClient(hang.Base().c_str(), "Test/1.0", 0);
    for (int i = 0; i < 200; ++i) {
        SCOPED_TRACE(i);
        auto request = NewRequest(client, "/never");
        ASSERT_TRUE(request->Send());
        auto woken = std::make_shared<std::atomic<int>>(0);
        // The waiters own what they touch: a lost wake-up leaves them behind, detached.
        std::thread waiter([request, woken] {
            request->WaitForResponse();
            ++*woken;
        });
        std::thread getter([request, woken] {
            if (!request->GetResponse(true)) ++*woken;
        });
        EXPECT_TRUE(request->Close());
        const bool ended = WaitUntil([&] { return woken->load() == 2; }, std::chrono::seconds(10));
        if (!ended) {
            waiter.detach();
            getter.detach();
            FAIL() << "a waiter never woke";
        }
        waiter.join();
        getter.join();
        EXPECT_FALSE(request->IsCompleted());
    }
}

TEST_F(HttpClientTest, ReleasedClientOutlivesItsAsyncRequests) {
    std::vector<Ptr<IAsyncTask>> tasks;
    {
        auto client = Client();
        for (int i = 0; i < 20; ++i) {
            auto request = NewRequest(client, "/slow?ms=50");
            Ptr<IAsyncTask> task;
            ASSERT_TRUE(request->GetResponseAsync(task.ReceiveAddress()));
            EXPECT_EQ(ImplOf(request)->State(), Impl::StateResponse);
            tasks.push_back(task);
        }
    }
    for (auto& task : tasks) {
        Data::Variant value;
        auto* response = ResultOf<IHttpResponse>(task, value);
        EXPECT_EQ(task->GetState(), AsyncTaskCompleted);
        ASSERT_NE(response, nullptr);
        EXPECT_EQ(BodyOf(response), "slow body");
    }
}

TEST_F(HttpClientTest, ResponsesOfEveryKindAndTheirFetchedText) {
    struct Case {
        const char* path;
        int status;
        size_t size;
        const char* contentType;
    } cases[] = {
        {"/hello", 200, 11, "application/octet-stream"},
        {"/notype", 200, 7, "text/plain"},
        {"/status/404", 404, 10, "text/html"},
        {"/status/500", 500, 10, "text/html"},
        {"/wrongtype", 200, 17, "image/png"},
        {"/empty", 200, 0, "application/octet-stream"},
        {"/status/204", 204, 0, nullptr},
        {"/chunked", 200, 30000, "application/octet-stream"},
        {"/redirect?n=10", 200, 11, "application/octet-stream"},
        {"/redirect?n=3", 200, 11, "application/octet-stream"},
        {"/large", 200, 40u << 20, "application/octet-stream"},
    };
    auto client = Client();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.path);
        auto request = NewRequest(client, c.path);
        IHttpResponse* response = Fetch(request);
        ASSERT_NE(response, nullptr);
        EXPECT_EQ(response->GetStatusCode(), c.status);
        EXPECT_EQ(response->GetBodySize(), c.size);
        if (c.contentType)
            EXPECT_STREQ(response->GetHeader("Content-Type"), c.contentType);
        else
            EXPECT_EQ(response->GetHeader("Content-Type"), nullptr);
        if (c.size == (40u << 20)) {
            EXPECT_TRUE(IsPattern(static_cast<const char*>(response->GetBodyData()), c.size, c.size));
            continue;
        }
        // The text helper counts only a complete 200 answer, and then gives its body.
        auto fetched = Http::FetchUrlText((server.Base() + c.path).c_str());
        EXPECT_EQ(fetched.success, c.status == 200);
        EXPECT_EQ(fetched.text, c.status == 200 ? BodyOf(response) : "");
    }
}

TEST_F(HttpClientTest, ResponseWithoutContentTypeOrLength) {
    RawServer plain([](int fd, const std::string&) {
        RawServer::SendAll(fd, "HTTP/1.0 200 Fine\r\nX-A: 1\r\n\r\nbody until close");
    });
    ScopedRecordingLogger logger;
    auto request = NewRequest(Http::CreateHttpClient(plain.Base().c_str(), "Test/1.0", 0), "/");
    IHttpResponse* response = nullptr;
    const bool ended = Bounded(request, [&] { response = request->GetResponse(true); });
    if (!ended)
        for (const auto& line : logger->Lines()) ADD_FAILURE() << line.text;
    ASSERT_TRUE(ended);
    ASSERT_NE(response, nullptr);
    EXPECT_TRUE(request->IsCompleted()); // no length: complete at the first read of nothing
    EXPECT_EQ(response->GetHeader("Content-Type"), nullptr);
    EXPECT_STREQ(response->GetHeader("x-a"), "1");
    EXPECT_EQ(BodyOf(response), "body until close");
}

TEST_F(HttpClientTest, HeadersAndRefusedMethods) {
    auto client = Client();
    auto request = NewRequest(client, "/headers");
    Ptr<IHttpHeaders> headers;
    ASSERT_TRUE(Http::CreateHttpHeaders(headers.ReceiveAddress()));
    EXPECT_FALSE(request->AddHeaders(headers.Raw()));
    EXPECT_FALSE(request->AddHeaders(nullptr));
    headers->Add("X-Test", "a");
    headers->Add("x-test", "b");
    EXPECT_TRUE(request->AddHeaders(headers.Raw()));
    IHttpResponse* response = Fetch(request);
    ASSERT_NE(response, nullptr);
    const std::string echoed = BodyOf(response);
    EXPECT_NE(echoed.find("X-Test: a;b"), std::string::npos) << echoed;
    EXPECT_NE(echoed.find("User-Agent: Test/1.0"), std::string::npos);
    EXPECT_NE(echoed.find("Accept: */*"), std::string::npos);

    auto options = NewRequest(client, "/hello", Http::HttpMethodOptions);
    EXPECT_FALSE(options->Send());
    EXPECT_EQ(ImplOf(options)->State(), Impl::StateIdle);
    EXPECT_EQ(options->GetResponse(true), nullptr); // refused, then closed
    EXPECT_TRUE(options->IsClosed());
}

TEST_F(HttpClientTest, InMemoryUploads) {
    auto client = Client();
    for (size_t size : {size_t{0}, size_t{1}, size_t{300000}}) {
        for (uint32_t method : {Http::HttpMethodPost, Http::HttpMethodPut, Http::HttpMethodPatch}) {
            const std::string body(size, 'q');
            auto request = NewRequest(client, "/upload", method);
            request->SetBody(body.data(), body.size());
            EXPECT_EQ(request->GetBodySize(), size);
            IHttpResponse* response = Fetch(request);
            ASSERT_NE(response, nullptr);
            EXPECT_EQ(BodyOf(response), Expected(body, "sized", Impl::MethodVerb(method)));
        }
    }
}

TEST_F(HttpClientTest, ThousandsInFlightNothingLost) {
    ScopedRecordingLogger logger;
    logger->level = Platform::LogError;
    auto client = Client();
    constexpr int count = 3000;
    std::vector<Ptr<IAsyncTask>> tasks;
    tasks.reserve(count);
    for (int i = 0; i < count; ++i) {
        Ptr<IAsyncTask> task;
        ASSERT_TRUE(NewRequest(client, "/hello")->GetResponseAsync(task.ReceiveAddress()));
        tasks.push_back(std::move(task));
    }
    int ok = 0;
    for (auto& task : tasks) {
        Data::Variant value;
        auto* response = ResultOf<IHttpResponse>(task, value);
        if (response && response->GetStatusCode() == 200 && response->GetBodySize() == 11) ++ok;
    }
    EXPECT_EQ(ok, count);
    if (ok != count)
        for (const auto& line : logger->Lines()) ADD_FAILURE() << line.text;
}

// Requests with a body stream, sent through the transport block by block.
using RequestStream = HttpClientTest;

Ptr<IHttpRequestStream> NewStreamRequest(const Ptr<IHttpClient>& client, uint32_t method,
                                         const std::string& path = "/upload") {
    Ptr<IHttpRequestStream> request;
    EXPECT_TRUE(client->CreateRequestStream(path.c_str(), AnyType().Raw(), method, request.ReceiveAddress(), nullptr));
    return request;
}

Ptr<IStream> StreamOf(const std::string& bytes) {
    auto stream = Core::MakeObject<Impl::impl::MemoryStreamImpl>();
    stream->Append(bytes.data(), bytes.size());
    return stream;
}

Ptr<IHttpHeaders> Headers(const char* name, const char* value) {
    Ptr<IHttpHeaders> headers;
    Http::CreateHttpHeaders(headers.ReceiveAddress());
    headers->Add(name, value);
    return headers;
}

std::string Pattern(size_t size) {
    std::string text(size, '\0');
    for (size_t i = 0; i < size; ++i) text[i] = PatternByte(i * 5);
    return text;
}

TEST_F(RequestStream, UploadsArriveWhole) {
    struct Case {
        const char* name;
        size_t size;
        const char* transferEncoding; // null for a sized body
        uint32_t method;
    } cases[] = {{"SizedEmpty", 0, nullptr, 1},
                 {"SizedSmall", 1000, nullptr, 1},
                 {"SizedOneFullBlock", Impl::kUploadBlockSize, nullptr, 1},
                 {"SizedTwoBlocks", Impl::kUploadBlockSize + 7, nullptr, 3},
                 {"ChunkedEmpty", 0, "chunked", 1},
                 {"ChunkedSmall", 1000, "CHUNKED", 8},
                 {"ChunkedOneFullBlock", Impl::kUploadBlockSize, "chunked", 1}};
    auto client = Client();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto request = NewStreamRequest(client, c.method);
        const std::string body = Pattern(c.size);
        if (c.transferEncoding) {
            ASSERT_TRUE(request->_abi_AddHeaders(Headers("Transfer-Encoding", c.transferEncoding).Raw(), nullptr));
            EXPECT_TRUE(static_cast<Impl::HttpRequestStreamImpl*>(request.Raw())->IsChunked());
        }
        ASSERT_TRUE(request->_abi_SetBodyStream(StreamOf(body).Raw(), nullptr));
        Ptr<IAsyncTask> task;
        ASSERT_TRUE(request.As<IHttpRequestStream2>()->_abi_SendBufferedAsync(task.ReceiveAddress(), nullptr));
        ASSERT_NE(task.Raw(), nullptr);
        Data::Variant value;
        auto* response = ResultOf<IHttpResponse>(task, value);
        EXPECT_EQ(task->GetState(), AsyncTaskCompleted);
        ASSERT_NE(response, nullptr);
        EXPECT_EQ(BodyOf(response), Expected(body, c.transferEncoding ? c.transferEncoding : "sized",
                                             Impl::MethodVerb(c.method)));
    }
}

TEST_F(RequestStream, OnlyChunkedSetsChunkedAndGuardsHoldNull) {
    auto request = NewStreamRequest(Client(), 1);
    auto* impl = static_cast<Impl::HttpRequestStreamImpl*>(request.Raw());
    ASSERT_TRUE(request->_abi_AddHeaders(Headers("Transfer-Encoding", "gzip").Raw(), nullptr));
    EXPECT_FALSE(impl->IsChunked());
    Ptr<IHttpHeaders> empty;
    Http::CreateHttpHeaders(empty.ReceiveAddress());
    EXPECT_TRUE(request->_abi_AddHeaders(empty.Raw(), nullptr)); // nothing added, still a success

    Ptr<Core::IErrorCode> error;
    EXPECT_FALSE(request->_abi_AddHeaders(nullptr, error.ReceiveAddress()));
    EXPECT_STREQ(error->GetMessage(), "Pointer of struct Platform::Interfaces::IHttpHeaders must not be null!");
    error = nullptr;
    EXPECT_FALSE(request->_abi_SetBodyStream(nullptr, error.ReceiveAddress()));
    EXPECT_STREQ(error->GetMessage(), "Pointer of struct Platform::Interfaces::IStream must not be null!");
    EXPECT_TRUE(request->CloseRequest());
    EXPECT_FALSE(request->CloseRequest());
}

// The streamed mode gives the response stream at the headers, with or without a body sent.
TEST_F(RequestStream, StreamedModeGivesTheResponseStream) {
    const std::string body = Pattern(50000);
    struct Case {
        uint32_t method;
        const char* path;
        std::string body, answer;
    } cases[] = {{1, "/upload", body, Expected(body, "sized")}, {0, "/hello", "", "hello world"}};
    auto client = Client();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        auto request = NewStreamRequest(client, c.method, c.path);
        if (!c.body.empty()) {
            ASSERT_TRUE(request->_abi_SetBodyStream(StreamOf(c.body).Raw(), nullptr));
        }
        Ptr<IAsyncTask> task;
        ASSERT_TRUE(request->_abi_SendAsync(task.ReceiveAddress(), nullptr));
        Data::Variant value;
        auto* stream = ResultOf<IHttpResponseStream>(task, value);
        ASSERT_NE(stream, nullptr);
        EXPECT_EQ(stream->GetStatusCode(), 200);
        auto* async = stream->_abi_GetAsyncStream(nullptr);
        ASSERT_NE(async, nullptr);
        // A read larger than the body brings the body; the next one finds the end.
        std::string text(c.answer.size() + 32, '\0');
        for (int read = 0; read < 2; ++read) {
            ASSERT_TRUE(async->_abi_QueueReadAsync(text.data(), text.size(), nullptr, 0, nullptr, nullptr));
            ASSERT_TRUE(async->WaitForCompletion(30000, false, false));
        }
        EXPECT_EQ(text, c.answer + std::string(32, '\0'));
        EXPECT_TRUE(async->IsEndOfStream());
    }
}

} // namespace
