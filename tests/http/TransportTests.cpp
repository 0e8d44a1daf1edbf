#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Transport.h"
#include "support/TestServer.h"
#include "support/Wait.h"

namespace T = Platform::Windows::Network::Http::Transport;
using TestSupport::RawServer;
using TestSupport::TestServer;
using TestSupport::WaitUntil;

namespace {

// One request driven through the transport the way the client drives it.
struct Exchange {
    std::mutex mutex;
    std::vector<uint32_t> events;
    std::string headers;
    std::string body;
    uint32_t error = 0;
    uint32_t errorApi = 0;
    std::atomic<bool> closed{false};
    T::Handle handle = nullptr;
    char buffer[32768];
    std::vector<std::string> uploads;
    size_t nextUpload = 0;
    bool uploadEndMarker = true;
    bool readBody = true;
    bool receiveOnSend = true; // false: the test asks for the response itself
    std::atomic<int> afterClosing{0};

    std::vector<uint32_t> Events() {
        std::lock_guard lock(mutex);
        return events;
    }

    void Pump() {
        if (nextUpload < uploads.size()) {
            const std::string& block = uploads[nextUpload++];
            T::WriteData(handle, block.data(), static_cast<uint32_t>(block.size()), nullptr);
            return;
        }
        if (uploadEndMarker) T::WriteData(handle, nullptr, 0, nullptr);
        uploadEndMarker = false;
        T::ReceiveResponse(handle, nullptr);
    }

    static void Callback(T::Handle handle, void* context, uint32_t status, void* info, uint32_t length) {
        auto* x = static_cast<Exchange*>(context);
        if (!x) return;
        if (x->closed) x->afterClosing++;
        {
            std::lock_guard lock(x->mutex);
            x->events.push_back(status);
        }
        switch (status) {
        case T::StatusSendRequestComplete:
            if (!x->receiveOnSend) break;
            if (x->uploads.empty())
                T::ReceiveResponse(handle, nullptr);
            else
                x->Pump();
            break;
        case T::StatusWriteComplete: x->Pump(); break;
        case T::StatusHeadersAvailable: {
            uint32_t size = 0;
            EXPECT_FALSE(T::QueryHeaders(handle, T::QueryRawHeadersCrlf, nullptr, nullptr, &size, nullptr));
            EXPECT_EQ(T::GetLastError(), T::ErrorInsufficientBuffer);
            std::string text(size, '\0');
            EXPECT_TRUE(T::QueryHeaders(handle, T::QueryRawHeadersCrlf, nullptr, text.data(), &size, nullptr));
            text.resize(size);
            {
                std::lock_guard lock(x->mutex);
                x->headers = text;
            }
            if (x->readBody) T::ReadData(handle, x->buffer, sizeof(x->buffer), nullptr);
            break;
        }
        case T::StatusReadComplete:
            if (length > 0) {
                {
                    std::lock_guard lock(x->mutex);
                    x->body.append(static_cast<const char*>(info), length);
                }
                T::ReadData(handle, x->buffer, sizeof(x->buffer), nullptr);
            } else {
                T::CloseHandle(handle);
            }
            break;
        case T::StatusRequestError: {
            const auto* result = static_cast<const T::AsyncResult*>(info);
            {
                std::lock_guard lock(x->mutex);
                x->error = result->error;
                x->errorApi = static_cast<uint32_t>(result->api);
            }
            T::CloseHandle(handle);
            break;
        }
        case T::StatusHandleClosing:
            EXPECT_EQ(length, sizeof(T::Handle));
            x->closed = true;
            break;
        default: break;
        }
    }
};

class Session {
public:
    explicit Session(int port, int32_t receiveTimeout = 30000) {
        session_ = T::Open("TransportTest/1.0", T::AccessTypeNoProxy, nullptr, nullptr, T::FlagAsync);
        EXPECT_TRUE(T::SetTimeouts(session_, 0, 60000, 30000, receiveTimeout));
        const uint32_t tls = T::SecureProtocolTls12, http2 = T::ProtocolFlagHttp2, decompress = 3;
        EXPECT_TRUE(T::SetOption(session_, T::OptionSecureProtocols, &tls, 4));
        EXPECT_TRUE(T::SetOption(session_, T::OptionEnableHttpProtocol, &http2, 4));
        EXPECT_TRUE(T::SetOption(session_, T::OptionDecompression, &decompress, 4));
        T::SetStatusCallback(session_, &Exchange::Callback, T::CallbackFlagAllNotifications);
        connection_ = T::Connect(session_, "127.0.0.1", static_cast<uint16_t>(port));
        EXPECT_NE(connection_, nullptr);
    }
    ~Session() {
        T::CloseHandle(connection_);
        T::SetStatusCallback(session_, nullptr, 0);
        T::CloseHandle(session_);
    }

    void Start(Exchange& x, const char* verb, const char* path, const std::string& headers = {},
               const std::string& data = {}) {
        const char* accept[] = {"*/*", nullptr};
        x.handle = T::OpenRequest(connection_, verb, path, "HTTP/2.0", nullptr, accept, 0);
        ASSERT_NE(x.handle, nullptr);
        if (!headers.empty()) {
            ASSERT_TRUE(T::AddRequestHeaders(x.handle, headers.c_str(), -1, T::AddRequestFlagAdd));
        }
        ASSERT_TRUE(T::SendRequest(x.handle, nullptr, 0, data.empty() ? nullptr : data.data(),
                                   static_cast<uint32_t>(data.size()), static_cast<uint32_t>(data.size()), &x));
    }

private:
    T::Handle session_ = nullptr;
    T::Handle connection_ = nullptr;
};

std::vector<uint32_t> Sequence(std::initializer_list<uint32_t> events) { return events; }

TEST(Transport, BufferedGetDeliversEventsInOrderAndClosingLast) {
    TestServer server;
    Exchange x;
    {
        Session session(server.Port());
        session.Start(x, "GET", "/hello");
        ASSERT_TRUE(WaitUntil([&] { return x.closed.load(); }));
    }
    EXPECT_EQ(x.body, "hello world");
    EXPECT_EQ(x.headers.rfind("HTTP/1.1 200 OK\r\n", 0), 0u) << x.headers;
    EXPECT_NE(x.headers.find("Content-Length: 11\r\n"), std::string::npos);
    EXPECT_EQ(x.headers.substr(x.headers.size() - 4), "\r\n\r\n");
    EXPECT_EQ(x.Events(), Sequence({T::StatusSendRequestComplete, T::StatusHeadersAvailable, T::StatusReadComplete,
                                    T::StatusReadComplete, T::StatusHandleClosing}));
    EXPECT_EQ(x.afterClosing.load(), 0);
    EXPECT_TRUE(WaitUntil([] { return T::OpenHandleCount() == 0; }));
}

TEST(Transport, StaleHandlesAndBadArgumentsFail) {
    EXPECT_FALSE(T::CloseHandle(nullptr));
    EXPECT_EQ(T::GetLastError(), T::ErrorInvalidHandle);
    EXPECT_FALSE(T::ReadData(T::InvalidHandle(), nullptr, 0, nullptr));
    TestServer server;
    Exchange x;
    {
        Session session(server.Port());
        session.Start(x, "GET", "/hello");
        EXPECT_FALSE(T::SendRequest(x.handle, nullptr, 0, nullptr, 0, 0, &x));
        EXPECT_EQ(T::GetLastError(), T::ErrorIncorrectHandleState);
        ASSERT_TRUE(WaitUntil([&] { return x.closed.load(); }));
        EXPECT_FALSE(T::ReadData(x.handle, x.buffer, 1, nullptr));
        EXPECT_EQ(T::GetLastError(), T::ErrorInvalidHandle);
    }
}

TEST(Transport, ClosingInFlightGivesCancelledThenOneClosing) {
    RawServer server([](int fd, const std::string&) {
        char byte;
        while (::recv(fd, &byte, 1, 0) > 0) {
        }
    });
    Exchange x;
    {
        Session session(server.Port());
        session.Start(x, "GET", "/hang");
        ASSERT_TRUE(WaitUntil([&] { return !x.Events().empty(); }));
        ASSERT_TRUE(T::CloseHandle(x.handle));
        ASSERT_TRUE(WaitUntil([&] { return x.closed.load(); }));
    }
    EXPECT_EQ(x.Events(), Sequence({T::StatusSendRequestComplete, T::StatusRequestError, T::StatusHandleClosing}));
    EXPECT_EQ(x.error, T::ErrorOperationCancelled);
    EXPECT_EQ(x.errorApi, T::ApiReceiveResponse);
}

TEST(Transport, ClosingBeforeSendGivesOnlyClosing) {
    TestServer server;
    Session session(server.Port());
    const uint32_t before = static_cast<uint32_t>(T::OpenHandleCount());
    Exchange x;
    session.Start(x, "GET", "/slow?ms=2000");
    ASSERT_TRUE(T::CloseHandle(x.handle));
    ASSERT_TRUE(WaitUntil([&] { return x.closed.load(); }));
    const auto events = x.Events();
    ASSERT_FALSE(events.empty());
    EXPECT_EQ(events.back(), T::StatusHandleClosing);
    EXPECT_EQ(std::count(events.begin(), events.end(), T::StatusHandleClosing), 1);
    EXPECT_TRUE(WaitUntil([&] { return T::OpenHandleCount() <= before; }));
}

struct FailureCase {
    const char* name;
    std::function<void(int, const std::string&)> answer;
    uint32_t error;
    const char* partialBody;
};

class TransportFailure : public testing::TestWithParam<FailureCase> {};

TEST_P(TransportFailure, CarriesTheWinHttpNumber) {
    RawServer server(GetParam().answer);
    Exchange x;
    {
        Session session(server.Port(), 500);
        session.Start(x, "GET", "/");
        ASSERT_TRUE(WaitUntil([&] { return x.closed.load(); }));
    }
    EXPECT_EQ(x.error, GetParam().error);
    EXPECT_EQ(x.body, GetParam().partialBody);
    const auto events = x.Events();
    EXPECT_EQ(std::count(events.begin(), events.end(), T::StatusRequestError), 1);
    EXPECT_EQ(events.back(), T::StatusHandleClosing);
}

// A short body that has wholly arrived before the response is asked for still gives its headers
// and bytes first, then the failure.
TEST(Transport, FailureWaitsForTheResponseAskedLate) {
    RawServer server([](int fd, const std::string&) {
        RawServer::SendAll(fd, "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n0123456789");
    });
    Exchange x;
    x.receiveOnSend = false;
    {
        Session session(server.Port());
        session.Start(x, "GET", "/");
        ASSERT_TRUE(WaitUntil([&] { return !x.Events().empty(); }));
        // Give the transfer time to end before the response is asked for.
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        ASSERT_TRUE(T::ReceiveResponse(x.handle, nullptr));
        ASSERT_TRUE(WaitUntil([&] { return x.closed.load(); }));
    }
    EXPECT_EQ(x.body, "0123456789");
    EXPECT_NE(x.headers.find("Content-Length: 100"), std::string::npos);
    EXPECT_EQ(x.error, T::ErrorConnectionError);
    EXPECT_EQ(x.Events(), Sequence({T::StatusSendRequestComplete, T::StatusHeadersAvailable, T::StatusReadComplete,
                                    T::StatusRequestError, T::StatusHandleClosing}));
}

INSTANTIATE_TEST_SUITE_P(
    Answers, TransportFailure,
    testing::Values(
        FailureCase{"Truncated",
                    [](int fd, const std::string&) {
                        RawServer::SendAll(fd, "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n0123456789");
                    },
                    T::ErrorConnectionError, "0123456789"},
        FailureCase{"Reset", [](int fd, const std::string&) { RawServer::Reset(fd); }, T::ErrorConnectionError, ""},
        FailureCase{"NoAnswerTimesOut",
                    [](int fd, const std::string&) {
                        char byte;
                        while (::recv(fd, &byte, 1, 0) > 0) {
                        }
                    },
                    T::ErrorTimeout, ""},
        FailureCase{"Garbage", [](int fd, const std::string&) { RawServer::SendAll(fd, "NOT HTTP AT ALL\r\n\r\n"); },
                    T::ErrorInvalidServerResponse, ""}),
    [](const testing::TestParamInfo<FailureCase>& info) { return std::string(info.param.name); });

TEST(Transport, BodyDelimitedByCloseEndsWithEmptyRead) {
    RawServer server([](int fd, const std::string&) {
        RawServer::SendAll(fd, "HTTP/1.0 200 Fine\r\nX-A: 1\r\n\r\nbody until close");
    });
    Exchange x;
    {
        Session session(server.Port());
        session.Start(x, "GET", "/");
        ASSERT_TRUE(WaitUntil([&] { return x.closed.load(); }));
    }
    EXPECT_EQ(x.error, 0u);
    EXPECT_EQ(x.body, "body until close");
    EXPECT_EQ(x.Events(), Sequence({T::StatusSendRequestComplete, T::StatusHeadersAvailable, T::StatusReadComplete,
                                    T::StatusReadComplete, T::StatusHandleClosing}));
}

TEST(Transport, RefusedConnectionIsCannotConnect) {
    int port;
    {
        RawServer gone([](int, const std::string&) {});
        port = gone.Port();
    }
    Exchange x;
    {
        Session session(port);
        session.Start(x, "GET", "/");
        ASSERT_TRUE(WaitUntil([&] { return x.closed.load(); }));
    }
    EXPECT_EQ(x.error, T::ErrorCannotConnect);
    EXPECT_EQ(x.errorApi, T::ApiSendRequest);
    EXPECT_EQ(x.Events(), Sequence({T::StatusRequestError, T::StatusHandleClosing}));
}

TEST(Transport, DecodedBodyLosesLengthAndEncodingHeaders) {
    TestServer server;
    Exchange x;
    {
        Session session(server.Port());
        session.Start(x, "GET", "/gzip");
        ASSERT_TRUE(WaitUntil([&] { return x.closed.load(); }));
    }
    EXPECT_EQ(x.body, TestServer::GzipText());
    EXPECT_EQ(x.headers.find("Content-Length"), std::string::npos) << x.headers;
    EXPECT_EQ(x.headers.find("Content-Encoding"), std::string::npos) << x.headers;
    EXPECT_NE(x.headers.find("Content-Type: application/octet-stream"), std::string::npos);
}

TEST(Transport, ChunkedResponseAndRedirectsAreFollowed) {
    TestServer server;
    Exchange chunked, redirected, tooMany;
    {
        Session session(server.Port());
        session.Start(chunked, "GET", "/chunked");
        session.Start(redirected, "GET", "/redirect?n=10");
        session.Start(tooMany, "GET", "/redirect?n=11");
        ASSERT_TRUE(WaitUntil([&] { return chunked.closed && redirected.closed && tooMany.closed; }));
    }
    EXPECT_EQ(chunked.body.size(), 30000u);
    EXPECT_EQ(chunked.body.substr(29990), std::string(10, 'A' + 29 % 26));
    EXPECT_EQ(redirected.body, "hello world");
    EXPECT_EQ(redirected.error, 0u);
    EXPECT_EQ(tooMany.error, T::ErrorRedirectFailed);
}

TEST(Transport, LargeBodyReadSlowlyArrivesWhole) {
    TestServer server;
    constexpr size_t size = 40u << 20;
    Exchange x;
    x.readBody = false;
    {
        Session session(server.Port());
        session.Start(x, "GET", ("/large?bytes=" + std::to_string(size)).c_str());
        ASSERT_TRUE(WaitUntil([&] { return x.Events().size() >= 2; }));
        // Nobody reads for a while: the transfer must pause, not buffer the whole body.
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        T::ReadData(x.handle, x.buffer, sizeof(x.buffer), nullptr);
        ASSERT_TRUE(WaitUntil([&] { return x.closed.load(); }, std::chrono::seconds(120)));
    }
    ASSERT_EQ(x.body.size(), size);
    bool same = true;
    for (size_t i = 0; i < size && same; ++i) same = x.body[i] == TestSupport::PatternByte(i);
    EXPECT_TRUE(same);
}

std::string Pattern(size_t size) {
    std::string text(size, '\0');
    for (size_t i = 0; i < size; ++i) text[i] = TestSupport::PatternByte(i * 3);
    return text;
}

std::string Expected(const std::string& body, const char* mode, const char* method = "POST") {
    return std::to_string(body.size()) + " " + std::to_string(Core::Fnv1a64(body.data(), body.size())) + " " + mode +
           " " + method;
}

TEST(Transport, UploadsInMemorySizedAndChunked) {
    TestServer server;
    const std::string body = Pattern(100000);
    Exchange memory, empty, sized, chunked, chunkedEmpty, put;
    {
        Session session(server.Port());
        session.Start(memory, "POST", "/upload", {}, body);
        session.Start(empty, "POST", "/upload");
        session.Start(put, "PUT", "/upload", {}, body);

        sized.uploads = {body.substr(0, 60000), body.substr(60000)};
        session.Start(sized, "POST", "/upload", "Content-Length: 100000\r\n");

        auto frame = [](const std::string& data) {
            char head[32];
            std::snprintf(head, sizeof(head), "%zX\r\n", data.size());
            return head + data + "\r\n";
        };
        chunked.uploads = {frame(body.substr(0, 30000)), frame(body.substr(30000)), "0\r\n\r\n"};
        chunked.uploadEndMarker = false;
        session.Start(chunked, "POST", "/upload", "Transfer-Encoding: chunked\r\n");

        chunkedEmpty.uploads = {"0\r\n\r\n"};
        chunkedEmpty.uploadEndMarker = false;
        session.Start(chunkedEmpty, "POST", "/upload", "Transfer-Encoding: Chunked\r\n");

        ASSERT_TRUE(WaitUntil([&] {
            return memory.closed && empty.closed && sized.closed && chunked.closed && chunkedEmpty.closed && put.closed;
        }));
    }
    EXPECT_EQ(memory.body, Expected(body, "sized"));
    EXPECT_EQ(empty.body, Expected("", "sized"));
    EXPECT_EQ(put.body, Expected(body, "sized", "PUT"));
    EXPECT_EQ(sized.body, Expected(body, "sized"));
    EXPECT_EQ(chunked.body, Expected(body, "chunked"));
    EXPECT_EQ(chunkedEmpty.body, Expected("", "Chunked"));
    const auto events = sized.Events();
    EXPECT_EQ(std::count(events.begin(), events.end(), T::StatusWriteComplete), 2);
}

TEST(Transport, ManyRequestsInFlightAllComplete) {
    TestServer server;
    constexpr int count = 2000;
    std::vector<std::unique_ptr<Exchange>> exchanges;
    {
        Session session(server.Port());
        for (int i = 0; i < count; ++i) {
            exchanges.push_back(std::make_unique<Exchange>());
            session.Start(*exchanges.back(), "GET", "/hello");
        }
        ASSERT_TRUE(WaitUntil(
            [&] {
                return std::all_of(exchanges.begin(), exchanges.end(), [](const auto& x) { return x->closed.load(); });
            },
            std::chrono::seconds(120)));
    }
    for (const auto& x : exchanges) {
        EXPECT_EQ(x->body, "hello world");
        EXPECT_EQ(x->error, 0u);
    }
    EXPECT_TRUE(WaitUntil([] { return T::OpenHandleCount() == 0; }));
}

} // namespace
