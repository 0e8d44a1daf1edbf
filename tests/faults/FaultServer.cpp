#include "FaultServer.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string_view>
#include <thread>
#include <vector>

#include "TestServer.h"

extern char** environ;

namespace FaultTests {

namespace {

using TestSupport::RawServer;
using Clock = std::chrono::steady_clock;

// Waits up to `ms` on the connection. False as soon as the client has left (or the server shut
// the socket down while stopping); anything the client sends meanwhile is read and dropped.
bool Idle(int fd, int ms) {
    const auto end = Clock::now() + std::chrono::milliseconds(ms);
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
        if (left <= 0) return true;
        pollfd watch{fd, POLLIN | POLLRDHUP, 0};
        const int ready = ::poll(&watch, 1, static_cast<int>(left));
        if (ready < 0 && errno == EINTR) continue;
        if (ready < 0 || (watch.revents & (POLLRDHUP | POLLHUP | POLLERR))) return false;
        if (ready == 0) return true;
        char buffer[512];
        if (::recv(fd, buffer, sizeof(buffer), MSG_DONTWAIT) <= 0) return false;
    }
}

// Sends all of `text`; false when the client has gone.
bool Send(int fd, std::string_view text) {
    size_t sent = 0;
    while (sent < text.size()) {
        const ssize_t n = ::send(fd, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) return false;
        sent += static_cast<size_t>(n);
    }
    return true;
}

std::string StatusLine(int status) {
    const char* reason = status == 200   ? "OK"
                         : status == 204 ? "No Content"
                         : status == 302 ? "Found"
                         : status == 304 ? "Not Modified"
                         : status == 404 ? "Not Found"
                         : status == 500 ? "Internal Server Error"
                                         : "Status";
    return "HTTP/1.1 " + std::to_string(status) + " " + reason + "\r\nConnection: close\r\n";
}

std::string Head(int status, const std::string& type, uint64_t length) {
    return StatusLine(status) + "Content-Type: " + type + "\r\nContent-Length: " + std::to_string(length) + "\r\n\r\n";
}

std::string FirstSegment(const std::string& request) {
    const size_t start = request.find(" /");
    if (start == std::string::npos) return "";
    const size_t end = request.find_first_of("/? ", start + 2);
    return request.substr(start + 2, end == std::string::npos ? std::string::npos : end - start - 2);
}

pid_t Spawn(const std::vector<std::string>& argv, const std::string& output) {
    std::vector<char*> pointers;
    for (const std::string& arg : argv) pointers.push_back(const_cast<char*>(arg.c_str()));
    pointers.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    pid_t pid = -1;
    const int failed = ::posix_spawnp(&pid, argv[0].c_str(), &actions, nullptr, pointers.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    return failed ? -1 : pid;
}

std::string ReadAll(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

} // namespace

FaultServer::FaultServer()
    : server_(std::make_unique<RawServer>([this](int fd, const std::string& request) { Dispatch(fd, request); })) {}

FaultServer::~FaultServer() { server_.reset(); }

void FaultServer::Set(const std::string& name, Answer answer) {
    std::lock_guard lock(mutex_);
    table_[name] = std::move(answer);
}

std::string FaultServer::Base() const { return server_->Base(); }

int FaultServer::Requests(const std::string& name) const {
    std::lock_guard lock(mutex_);
    const auto found = requests_.find(name);
    return found == requests_.end() ? 0 : found->second;
}

void FaultServer::Dispatch(int fd, const std::string& request) {
    const std::string name = FirstSegment(request);
    Answer answer;
    {
        std::lock_guard lock(mutex_);
        ++requests_[name];
        if (const auto found = table_.find(name); found != table_.end()) answer = found->second;
    }
    if (answer)
        answer(fd, request);
    else
        Send(fd, Head(404, "text/plain", 7) + "unknown");
}

namespace Answers {

Answer Reply(int status, const std::string& headers, const std::string& body) {
    const bool framed = headers.find("Transfer-Encoding") != std::string::npos;
    std::string text = StatusLine(status) + headers;
    if (!framed) text += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    text += "\r\n" + body;
    return [text](int fd, const std::string&) { Send(fd, text); };
}

Answer After(int ms, Answer then) {
    return [ms, then](int fd, const std::string& request) {
        if (Idle(fd, ms)) then(fd, request);
    };
}

Answer Stall(const std::string& type, uint64_t length) {
    const std::string head = Head(200, type, length);
    return [head](int fd, const std::string&) {
        if (Send(fd, head))
            while (Idle(fd, 1000)) {
            }
    };
}

Answer Trickle(const std::string& type, const std::string& body, size_t slow, int gapMs) {
    const std::string head = Head(200, type, body.size());
    return [head, body, slow, gapMs](int fd, const std::string&) {
        const size_t fast = body.size() - slow;
        if (!Send(fd, head + body.substr(0, fast))) return;
        for (size_t i = fast; i < body.size(); ++i)
            if (!Idle(fd, gapMs) || !Send(fd, body.substr(i, 1))) return;
    };
}

Answer Truncated(const std::string& type, const std::string& body, uint64_t extra) {
    const std::string text = Head(200, type, body.size() + extra) + body;
    return [text](int fd, const std::string&) { Send(fd, text); };
}

Answer Hold() {
    return [](int fd, const std::string&) {
        while (Idle(fd, 1000)) {
        }
    };
}

Answer Reset() {
    return [](int fd, const std::string&) { RawServer::Reset(fd); };
}

Answer Close() {
    return [](int, const std::string&) {};
}

Answer Raw(std::string text) {
    return [text](int fd, const std::string&) { Send(fd, text); };
}

Answer Chunked(const std::string& type, const std::string& body, size_t piece) {
    std::ostringstream text;
    text << StatusLine(200) << "Content-Type: " << type << "\r\nTransfer-Encoding: chunked\r\n\r\n";
    for (size_t at = 0; at < body.size(); at += piece) {
        const std::string part = body.substr(at, piece);
        text << std::hex << part.size() << "\r\n" << part << "\r\n";
    }
    text << "0\r\n\r\n";
    return Raw(text.str());
}

Answer Huge(const std::string& type, uint64_t size) {
    const std::string head = Head(200, type, size);
    return [head, size](int fd, const std::string&) {
        if (!Send(fd, head)) return;
        constexpr size_t block = 1 << 16;
        static const std::string run = TestSupport::PatternRun(block);
        for (uint64_t at = 0; at < size; at += block) {
            const size_t length = std::min<uint64_t>(block, size - at);
            if (!Send(fd, std::string_view(run).substr(at % TestSupport::PatternPeriod, length))) return;
        }
    };
}

Answer EndlessHeaders(size_t lineBytes, int gapMs, int limitMs) {
    return [lineBytes, gapMs, limitMs](int fd, const std::string&) {
        if (!Send(fd, StatusLine(200) + "Content-Type: image/png\r\n")) return;
        const auto end = Clock::now() + std::chrono::milliseconds(limitMs);
        for (int n = 0; Clock::now() < end; ++n) {
            const std::string name = "X-Filler-" + std::to_string(n) + ": ";
            if (!Send(fd, name + std::string(lineBytes - name.size() - 2, 'f') + "\r\n")) return;
            if (!Idle(fd, gapMs)) return;
        }
    };
}

} // namespace Answers

TlsPeer::TlsPeer() {
    std::string pattern = (std::filesystem::temp_directory_path() / "tellar-tls-XXXXXX").string();
    if (!::mkdtemp(pattern.data())) {
        problem_ = "no temporary directory";
        return;
    }
    directory_ = pattern;
    const std::string key = directory_ + "/key.pem", cert = directory_ + "/cert.pem", log = directory_ + "/log";
    const pid_t maker = Spawn({"openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
                               "-nodes", "-keyout", key, "-out", cert, "-days", "1", "-subj", "/CN=127.0.0.1"},
                              log);
    int status = -1;
    if (maker < 0 || ::waitpid(maker, &status, 0) != maker || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        problem_ = "openssl could not make a certificate: " + ReadAll(log);
        return;
    }
    pid_ = Spawn({"openssl", "s_server", "-accept", "127.0.0.1:0", "-cert", cert, "-key", key, "-www"}, log);
    if (pid_ < 0) {
        problem_ = "openssl s_server could not be started";
        return;
    }
    // The server says where it listens once it does.
    for (int i = 0; i < 500; ++i) {
        const std::string text = ReadAll(log);
        const size_t at = text.find("ACCEPT 127.0.0.1:");
        const size_t end = at == std::string::npos ? at : text.find('\n', at);
        if (end != std::string::npos) {
            base_ = "https://127.0.0.1:" + text.substr(at + 17, end - at - 17);
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    problem_ = "openssl s_server did not start listening: " + ReadAll(log);
}

TlsPeer::~TlsPeer() {
    if (pid_ > 0) {
        ::kill(pid_, SIGTERM);
        ::waitpid(pid_, nullptr, 0);
    }
    std::error_code ignored;
    if (!directory_.empty()) std::filesystem::remove_all(directory_, ignored);
}

} // namespace FaultTests
