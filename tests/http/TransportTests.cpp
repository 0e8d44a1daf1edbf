#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
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
    bool readBody = true;
    bool receiveOnSend = true; // false: the test asks for the response itself
    int holdHeadersMs = 0;     // how long the headers' event keeps the transport thread
    std::atomic<int> afterClosing{0};

    std::vector<uint32_t> Events() {
        std::lock_guard lock(mutex);
        return events;
    }
    // The transport is called outside the lock: it may call back on this thread.
    template <class F>
    void Locked(F f) {
        std::lock_guard lock(mutex);
        f();
    }

    static void Callback(T::Handle handle, void* context, uint32_t status, void* info, uint32_t length) {
        auto* x = static_cast<Exchange*>(context);
        if (!x) return;
        if (x->closed) x->afterClosing++;
        x->Locked([&] { x->events.push_back(status); });
        switch (status) {
        case T::StatusSendRequestComplete:
            if (x->receiveOnSend) T::ReceiveResponse(handle, nullptr);
            break;
        case T::StatusHeadersAvailable: {
            uint32_t size = 0;
            EXPECT_FALSE(T::QueryHeaders(handle, T::QueryRawHeadersCrlf, nullptr, nullptr, &size, nullptr));
            EXPECT_EQ(T::GetLastError(), T::ErrorInsufficientBuffer);
            std::string text(size, '\0');
            EXPECT_TRUE(T::QueryHeaders(handle, T::QueryRawHeadersCrlf, nullptr, text.data(), &size, nullptr));
            text.resize(size);
            x->Locked([&] { x->headers = text; });
            std::this_thread::sleep_for(std::chrono::milliseconds(x->holdHeadersMs));
            if (x->readBody) T::ReadData(handle, x->buffer, sizeof(x->buffer), nullptr);
            break;
        }
        case T::StatusReadComplete:
            if (length > 0) {
                x->Locked([&] { x->body.append(static_cast<const char*>(info), length); });
                T::ReadData(handle, x->buffer, sizeof(x->buffer), nullptr);
            } else {
                T::CloseHandle(handle);
            }
            break;
        case T::StatusRequestError: {
            const auto* result = static_cast<const T::AsyncResult*>(info);
            x->Locked([&] {
                x->error = result->error;
                x->errorApi = static_cast<uint32_t>(result->api);
            });
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

    void Start(Exchange& x, const char* path) {
        const char* accept[] = {"*/*", nullptr};
        x.handle = T::OpenRequest(connection_, "GET", path, "HTTP/2.0", nullptr, accept, 0);
        ASSERT_NE(x.handle, nullptr);
        ASSERT_TRUE(T::SendRequest(x.handle, nullptr, 0, nullptr, 0, 0, &x));
    }

private:
    T::Handle session_ = nullptr;
    T::Handle connection_ = nullptr;
};

using Events = std::vector<uint32_t>;

// Runs one GET to `port` and returns once its handle closed.
void RunOne(Exchange& x, int port, const char* path) {
    Session session(port);
    session.Start(x, path);
    ASSERT_TRUE(WaitUntil([&] { return x.closed.load(); }));
}

TEST(Transport, BufferedGetDeliversEventsInOrderAndClosingLast) {
    TestServer server;
    Exchange x;
    RunOne(x, server.Port(), "/hello");
    EXPECT_EQ(x.body, "hello world");
    EXPECT_EQ(x.headers.rfind("HTTP/1.1 200 OK\r\n", 0), 0u) << x.headers;
    EXPECT_NE(x.headers.find("Content-Length: 11\r\n"), std::string::npos);
    EXPECT_EQ(x.headers.substr(x.headers.size() - 4), "\r\n\r\n");
    EXPECT_EQ(x.Events(), (Events{T::StatusSendRequestComplete, T::StatusHeadersAvailable, T::StatusReadComplete,
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
    Session session(server.Port());
    session.Start(x, "/hello");
    EXPECT_FALSE(T::SendRequest(x.handle, nullptr, 0, nullptr, 0, 0, &x));
    EXPECT_EQ(T::GetLastError(), T::ErrorIncorrectHandleState);
    ASSERT_TRUE(WaitUntil([&] { return x.closed.load(); }));
    EXPECT_FALSE(T::ReadData(x.handle, x.buffer, 1, nullptr));
    EXPECT_EQ(T::GetLastError(), T::ErrorInvalidHandle);
}

TEST(Transport, ClosingInFlightGivesCancelledThenOneClosing) {
    RawServer server(RawServer::Hang);
    Exchange x;
    {
        Session session(server.Port());
        session.Start(x, "/hang");
        ASSERT_TRUE(WaitUntil([&] { return !x.Events().empty(); }));
        ASSERT_TRUE(T::CloseHandle(x.handle));
        ASSERT_TRUE(WaitUntil([&] { return x.closed.load(); }));
    }
    EXPECT_EQ(x.Events(), (Events{T::StatusSendRequestComplete, T::StatusRequestError, T::StatusHandleClosing}));
    EXPECT_EQ(x.error, T::ErrorOperationCancelled);
    EXPECT_EQ(x.errorApi, T::ApiReceiveResponse);
}

// Closed at once after the send was accepted, mostly before the transport thread started it:
// the cancellation still comes, once, and the closing after it, whichever thread got there first.
TEST(Transport, ClosingRightAfterSendGivesCancelledThenOneClosing) {
    RawServer server(RawServer::Hang);
    Session session(server.Port());
    const uint32_t before = static_cast<uint32_t>(T::OpenHandleCount());
    for (int i = 0; i < 200; ++i) {
        SCOPED_TRACE(i);
        Exchange x;
        session.Start(x, "/hang");
        ASSERT_TRUE(T::CloseHandle(x.handle));
        ASSERT_TRUE(WaitUntil([&] { return x.closed.load(); }));
        auto events = x.Events();
        // The send may have gone out before the close reached the transport thread.
        if (!events.empty() && events.front() == T::StatusSendRequestComplete) events.erase(events.begin());
        ASSERT_EQ(events, (Events{T::StatusRequestError, T::StatusHandleClosing}));
        EXPECT_EQ(x.error, T::ErrorOperationCancelled);
        EXPECT_EQ(x.afterClosing.load(), 0);
    }
    EXPECT_TRUE(WaitUntil([&] { return T::OpenHandleCount() <= before; }));
}

// Answers a proper server would not give, each with the transport's number and the events it
// delivers. An empty event list asks only for one error and the closing last.
TEST(Transport, MisbehavingServersCarryTheWinHttpNumber) {
    const auto send = [](const char* text) {
        return [text](int fd, const std::string&) { RawServer::SendAll(fd, text); };
    };
    const char* truncated = "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n0123456789";
    // A header block of `bytes`, status line and blank line included, then a body of two.
    const auto headers = [](size_t bytes) {
        const std::string head = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\nX-Fill: ";
        return head + std::string(bytes - head.size() - 4, 'f') + "\r\n\r\nok";
    };
    const std::string largest = headers(64 * 1024), tooLarge = headers(64 * 1024 + 1);
    const Events okEvents = {T::StatusSendRequestComplete, T::StatusHeadersAvailable, T::StatusReadComplete,
                             T::StatusReadComplete, T::StatusHandleClosing};
    const Events lateEvents = {T::StatusSendRequestComplete, T::StatusHeadersAvailable, T::StatusReadComplete,
                               T::StatusRequestError, T::StatusHandleClosing};
    struct Case {
        const char* name;
        RawServer::Handler answer; // empty: nobody listens on the port
        bool askLate;              // the response is asked for only after the transfer ended
        uint32_t error, errorApi; // errorApi 0: not checked
        const char* body;
        Events events;
    } cases[] = {
        {"Truncated", send(truncated), false, T::ErrorConnectionError, 0, "0123456789", {}},
        // A short body wholly arrived before the response is asked for still gives its headers
        // and bytes first, then the failure.
        {"TruncatedAskedLate", send(truncated), true, T::ErrorConnectionError, 0, "0123456789",
         lateEvents},
        {"Reset", [](int fd, const std::string&) { RawServer::Reset(fd); }, false, T::ErrorConnectionError, 0, "", {}},
        {"NoAnswerTimesOut", RawServer::Hang, false, T::ErrorTimeout, 0, "", {}},
        {"Garbage", send("NOT HTTP AT ALL\r\n\r\n"), false, T::ErrorInvalidServerResponse, 0, "",
         {}},
        {"BodyDelimitedByClose", send("HTTP/1.0 200 Fine\r\nX-A: 1\r\n\r\nbody until close"), false, 0, 0,
         "body until close", okEvents},
        {"HeadersOf64KiB", send(largest.c_str()), false, 0, 0, "ok", okEvents},
        {"HeadersPast64KiB", send(tooLarge.c_str()), false, T::ErrorHeaderSizeOverflow, 0, "", {}},
        {"Refused", nullptr, false, T::ErrorCannotConnect, T::ApiSendRequest, "",
         {T::StatusRequestError, T::StatusHandleClosing}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto server = std::make_unique<RawServer>(c.answer ? c.answer : [](int, const std::string&) {});
        const int port = server->Port();
        if (!c.answer) server.reset();
        Exchange x;
        x.receiveOnSend = !c.askLate;
        {
            Session session(port, 500);
            session.Start(x, "/");
            if (c.askLate) {
                ASSERT_TRUE(WaitUntil([&] { return !x.Events().empty(); }));
                // Give the transfer time to end before the response is asked for.
                std::this_thread::sleep_for(std::chrono::milliseconds(200));
                ASSERT_TRUE(T::ReceiveResponse(x.handle, nullptr));
            }
            ASSERT_TRUE(WaitUntil([&] { return x.closed.load(); }));
        }
        EXPECT_EQ(x.error, c.error);
        if (c.errorApi) {
            EXPECT_EQ(x.errorApi, c.errorApi);
        }
        EXPECT_EQ(x.body, c.body);
        const auto events = x.Events();
        if (!c.events.empty()) {
            EXPECT_EQ(events, c.events);
        }
        EXPECT_EQ(std::count(events.begin(), events.end(), T::StatusRequestError), c.error ? 1 : 0);
        EXPECT_EQ(events.back(), T::StatusHandleClosing);
    }
}

TEST(Transport, DecodedBodyLosesLengthAndEncodingHeaders) {
    TestServer server;
    Exchange x;
    RunOne(x, server.Port(), "/gzip");
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
        session.Start(chunked, "/chunked");
        session.Start(redirected, "/redirect?n=10");
        session.Start(tooMany, "/redirect?n=11");
        ASSERT_TRUE(WaitUntil([&] { return chunked.closed && redirected.closed && tooMany.closed; }));
    }
    EXPECT_EQ(chunked.body.size(), 30000u);
    EXPECT_EQ(chunked.body.substr(29990), std::string(10, 'A' + 29 % 26));
    EXPECT_EQ(redirected.body, "hello world");
    EXPECT_EQ(redirected.error, 0u);
    EXPECT_EQ(tooMany.error, T::ErrorRedirectFailed);
}

// Time the transport thread spends in events is not time waited on the network: an answer that
// arrives while another request's event holds the thread past the timeout is still taken.
TEST(Transport, AnAnswerWaitingWhileEventsRunIsNoTimeout) {
    RawServer server([](int fd, const std::string& request) {
        if (request.find("GET /late") != std::string::npos) std::this_thread::sleep_for(std::chrono::milliseconds(300));
        RawServer::SendAll(fd, "HTTP/1.1 200 OK\r\nContent-Length: 2\r\nConnection: close\r\n\r\nok");
    });
    Exchange late, holding;
    holding.holdHeadersMs = 1500;
    {
        Session session(server.Port(), 1000);
        session.Start(late, "/late");
        session.Start(holding, "/now");
        ASSERT_TRUE(WaitUntil([&] { return late.closed && holding.closed; }));
    }
    EXPECT_EQ(late.error, 0u);
    EXPECT_EQ(late.body, "ok");
}

TEST(Transport, LargeBodyReadSlowlyArrivesWhole) {
    TestServer server;
    constexpr size_t size = 40u << 20;
    Exchange x;
    x.readBody = false;
    {
        Session session(server.Port());
        session.Start(x, ("/large?bytes=" + std::to_string(size)).c_str());
        ASSERT_TRUE(WaitUntil([&] { return x.Events().size() >= 2; }));
        // Nobody reads for a while: the transfer must pause, not buffer the whole body.
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        T::ReadData(x.handle, x.buffer, sizeof(x.buffer), nullptr);
        ASSERT_TRUE(WaitUntil([&] { return x.closed.load(); }, std::chrono::seconds(120)));
    }
    EXPECT_TRUE(TestSupport::IsPattern(x.body.data(), x.body.size(), size));
}

} // namespace
