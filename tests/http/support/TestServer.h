#pragma once
// Loopback servers for the HTTP tests: a well-behaved one on cpp-httplib and a raw-socket one
// for answers that a proper server would never give. Both listen on 127.0.0.1, on a port
// chosen at run time, and stop when destroyed.
#include <httplib.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Core/Fnv1a.h"

namespace TestSupport {

// Deterministic body bytes: byte i of a large body.
inline char PatternByte(uint64_t i) { return static_cast<char>('a' + (i * 7 + i / 251) % 26); }

// The pattern repeats every 26 * 251 bytes.
inline constexpr uint64_t PatternPeriod = 26 * 251;

// The first `span` + PatternPeriod pattern bytes: bytes at..at + span of the pattern start at
// data() + at % PatternPeriod, so that large bodies are made and checked by whole blocks.
inline std::string PatternRun(size_t span) {
    std::string run(span + PatternPeriod, '\0');
    for (size_t i = 0; i < run.size(); ++i) run[i] = PatternByte(i);
    return run;
}

// Whether `data` holds exactly the first `size` pattern bytes.
inline bool IsPattern(const char* data, uint64_t actual, uint64_t size) {
    if (actual != size) return false;
    for (uint64_t i = 0; i < size; ++i)
        if (data[i] != PatternByte(i)) return false;
    return true;
}

// `text` deflated: windowBits 31 gives gzip, 15 the zlib wrapper, -15 a bare stream.
inline std::string Deflated(const std::string& text, int windowBits) {
    z_stream stream{};
    deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, windowBits, 8, Z_DEFAULT_STRATEGY);
    std::string out(deflateBound(&stream, text.size()) + 32, '\0');
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
    stream.avail_in = static_cast<uInt>(text.size());
    stream.next_out = reinterpret_cast<Bytef*>(out.data());
    stream.avail_out = static_cast<uInt>(out.size());
    deflate(&stream, Z_FINISH);
    out.resize(stream.total_out);
    deflateEnd(&stream);
    return out;
}

inline std::string Gzip(const std::string& text) { return Deflated(text, 31); }

class TestServer {
public:
    TestServer() {
        server_.new_task_queue = [] { return new httplib::ThreadPool(192); };
        server_.set_keep_alive_max_count(1000);
        server_.set_keep_alive_timeout(1); // bounds how long stop() waits for idle connections
        const auto fixed = [this](const char* path, const std::string& body, const char* type) {
            server_.Get(path, [body, type](const httplib::Request&, httplib::Response& res) {
                if (type)
                    res.set_content(body, type);
                else
                    res.body = body; // no type given
            });
        };
        fixed("/hello", "hello world", "application/octet-stream");
        fixed("/notype", "no type", nullptr);
        fixed("/wrongtype", "this is not a png", "image/png");
        fixed("/empty", "", "application/octet-stream");
        server_.Get("/slow", [](const httplib::Request& req, httplib::Response& res) {
            const int ms = req.has_param("ms") ? std::stoi(req.get_param_value("ms")) : 300;
            std::this_thread::sleep_for(std::chrono::milliseconds(ms));
            res.set_content("slow body", "application/octet-stream");
        });
        server_.Get(R"(/status/(\d+))", [](const httplib::Request& req, httplib::Response& res) {
            res.status = std::stoi(req.matches[1]);
            if (res.status != 204) res.set_content("status " + std::string(req.matches[1]), "text/html");
        });
        server_.Get("/gzip", [](const httplib::Request&, httplib::Response& res) {
            res.set_header("Content-Encoding", "gzip");
            res.set_content(Gzip(GzipText()), "application/octet-stream");
        });
        server_.Get("/chunked", [](const httplib::Request&, httplib::Response& res) {
            res.set_chunked_content_provider("application/octet-stream", [](size_t offset, httplib::DataSink& sink) {
                if (offset >= 30000) {
                    sink.done();
                    return true;
                }
                std::string piece(1000, static_cast<char>('A' + offset / 1000 % 26));
                sink.write(piece.data(), piece.size());
                return true;
            });
        });
        server_.Get("/redirect", [](const httplib::Request& req, httplib::Response& res) {
            const int n = req.has_param("n") ? std::stoi(req.get_param_value("n")) : 1;
            res.set_redirect(n <= 1 ? "/hello" : "/redirect?n=" + std::to_string(n - 1), 302);
        });
        server_.Get("/large", [](const httplib::Request& req, httplib::Response& res) {
            const size_t size = req.has_param("bytes") ? std::stoull(req.get_param_value("bytes")) : 40u << 20;
            res.set_content_provider(size, "application/octet-stream",
                                     [](size_t offset, size_t length, httplib::DataSink& sink) {
                                         std::string block(std::min<size_t>(length, 65536), '\0');
                                         for (size_t i = 0; i < block.size(); ++i) block[i] = PatternByte(offset + i);
                                         sink.write(block.data(), block.size());
                                         return true;
                                     });
        });
        server_.Get("/headers", [](const httplib::Request& req, httplib::Response& res) {
            std::string text;
            for (const auto& [name, value] : req.headers) text += name + ": " + value + "\n";
            res.set_content(text, "application/octet-stream");
        });
        auto upload = [](const httplib::Request& req, httplib::Response& res) {
            const std::string chunked = req.get_header_value("Transfer-Encoding");
            res.set_content(std::to_string(req.body.size()) + " " +
                                std::to_string(Core::Fnv1a64(req.body.data(), req.body.size())) + " " +
                                (chunked.empty() ? "sized" : chunked) + " " + req.method,
                            "application/octet-stream");
        };
        server_.Post("/upload", upload);
        server_.Put("/upload", upload);
        server_.Patch("/upload", upload);
        // The library listens with a backlog of 5; bursts of connections would then stall in
        // SYN retries, so the listening socket gets a deep backlog once bound.
        server_.set_socket_options([this](int fd) {
            int one = 1;
            ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
            listener_ = fd;
        });
        port_ = server_.bind_to_any_port("127.0.0.1");
        ::listen(listener_, 4096);
        thread_ = std::thread([this] { server_.listen_after_bind(); });
        for (int i = 0; i < 2000 && !server_.is_running(); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }

    ~TestServer() {
        server_.stop();
        thread_.join();
    }

    static std::string GzipText() {
        std::string text;
        for (int i = 0; i < 2000; ++i) text += "line " + std::to_string(i) + " of a compressible body\n";
        return text;
    }

    int Port() const { return port_; }
    std::string Base() const { return "http://127.0.0.1:" + std::to_string(port_); }

private:
    httplib::Server server_;
    int listener_ = -1;
    int port_ = 0;
    std::thread thread_;
};

// A server that answers every connection by a given routine over the raw socket.
class RawServer {
public:
    using Handler = std::function<void(int fd, const std::string& request)>;

    explicit RawServer(Handler handler) : handler_(std::move(handler)) {
        listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
        int one = 1;
        ::setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof(address));
        socklen_t length = sizeof(address);
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
        port_ = ntohs(address.sin_port);
        ::listen(listener_, 64);
        thread_ = std::thread([this] { AcceptLoop(); });
    }

    ~RawServer() {
        stopping_ = true;
        ::shutdown(listener_, SHUT_RDWR);
        ::close(listener_);
        thread_.join();
        // No worker is added any more. Join them outside the lock: each takes it on its way out.
        std::vector<std::thread> workers;
        {
            std::lock_guard lock(mutex_);
            for (int fd : open_) ::shutdown(fd, SHUT_RDWR);
            workers.swap(workers_);
        }
        for (auto& worker : workers) worker.join();
    }

    int Port() const { return port_; }
    std::string Base() const { return "http://127.0.0.1:" + std::to_string(port_); }

    static void SendAll(int fd, const std::string& text) {
        size_t sent = 0;
        while (sent < text.size()) {
            const ssize_t n = ::send(fd, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
            if (n <= 0) return;
            sent += static_cast<size_t>(n);
        }
    }

    // Reads until the client goes and never answers.
    static void Hang(int fd, const std::string&) {
        char byte;
        while (::recv(fd, &byte, 1, 0) > 0) {
        }
    }

    // Ends the connection with a reset instead of an orderly close.
    static void Reset(int fd) {
        linger option{1, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &option, sizeof(option));
    }

private:
    void AcceptLoop() {
        for (;;) {
            const int fd = ::accept(listener_, nullptr, nullptr);
            if (fd < 0) return;
            if (stopping_) {
                ::close(fd);
                return;
            }
            std::lock_guard lock(mutex_);
            open_.push_back(fd);
            workers_.emplace_back([this, fd] {
                std::string request;
                char buffer[4096];
                while (request.find("\r\n\r\n") == std::string::npos) {
                    const ssize_t n = ::recv(fd, buffer, sizeof(buffer), 0);
                    if (n <= 0) break;
                    request.append(buffer, static_cast<size_t>(n));
                }
                handler_(fd, request);
                std::lock_guard lock(mutex_);
                open_.erase(std::find(open_.begin(), open_.end(), fd));
                ::close(fd);
            });
        }
    }

    Handler handler_;
    int listener_ = -1;
    int port_ = 0;
    std::atomic<bool> stopping_{false};
    std::thread thread_;
    std::mutex mutex_;
    std::vector<int> open_;
    std::vector<std::thread> workers_;
};

} // namespace TestSupport
