#pragma once
// One loopback server that misbehaves on purpose. The first segment of a request's path names
// an answer in its table ("/stall/2/2/1.png" is answered by the entry "stall"); an unknown name
// gets a plain 404. The answers are raw socket routines, so they can do what no proper server
// would: stall, trickle, cut a body short, reset, send garbage or headers without end. Every
// wait of an answer ends when the client leaves or the server stops.
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace TestSupport {
class RawServer;
}

namespace FaultTests {

// An answer writes to the connection `fd`; the server closes it afterwards.
using Answer = std::function<void(int fd, const std::string& request)>;

class FaultServer {
public:
    FaultServer();
    ~FaultServer();
    FaultServer(const FaultServer&) = delete;
    FaultServer& operator=(const FaultServer&) = delete;

    // Answers every path whose first segment is `name` with `answer` from now on.
    void Set(const std::string& name, Answer answer);
    std::string Base() const;
    // How many requests asked for `name`.
    int Requests(const std::string& name) const;

private:
    void Dispatch(int fd, const std::string& request);

    mutable std::mutex mutex_;
    std::map<std::string, Answer> table_;
    std::map<std::string, int> requests_;
    std::unique_ptr<TestSupport::RawServer> server_; // last: stops before the table goes
};

// The answers of the table. Types and bodies are sent as they are given.
namespace Answers {

// A whole response: status line, the headers given (each ending in CRLF), then the body, with
// its Content-Length unless the headers carry a Transfer-Encoding.
Answer Reply(int status, const std::string& headers, const std::string& body);
// Waits `ms` before `then`; nothing at all if the client leaves first.
Answer After(int ms, Answer then);
// A status line and headers announcing `length` bytes, then silence until the client leaves.
Answer Stall(const std::string& type, uint64_t length);
// The body sent whole but for its last `slow` bytes, which follow one every `gapMs`.
Answer Trickle(const std::string& type, const std::string& body, size_t slow, int gapMs);
// Announces `extra` more bytes than the body has, sends the body and closes.
Answer Truncated(const std::string& type, const std::string& body, uint64_t extra);
// Never answers; waits until the client leaves.
Answer Hold();
// Reads the request, then resets the connection (SO_LINGER 0).
Answer Reset();
// Closes without sending a byte.
Answer Close();
// Sends `text` as it stands and closes.
Answer Raw(std::string text);
// The body in chunks of `piece` bytes.
Answer Chunked(const std::string& type, const std::string& body, size_t piece);
// A status-200 body of `size` bytes made while it is sent: PatternByte(i) for byte i.
Answer Huge(const std::string& type, uint64_t size);
// A status line, then header lines of `lineBytes` each, one every `gapMs`, never a blank line;
// it gives up after `limitMs` so that a client that never gives up still ends.
Answer EndlessHeaders(size_t lineBytes, int gapMs, int limitMs);

} // namespace Answers

// A TLS server with a throwaway self-signed certificate (openssl s_server on 127.0.0.1, a port
// of its own choosing); empty Base() when openssl could not be started, with the reason.
class TlsPeer {
public:
    TlsPeer();
    ~TlsPeer();
    TlsPeer(const TlsPeer&) = delete;
    TlsPeer& operator=(const TlsPeer&) = delete;

    const std::string& Base() const { return base_; }
    const std::string& Problem() const { return problem_; }

private:
    std::string directory_;
    std::string base_;
    std::string problem_;
    int pid_ = -1;
};

} // namespace FaultTests
