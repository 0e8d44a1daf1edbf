// What the benchmarks against a real server share: a free loopback port, child processes, an nginx
// that runs in the foreground from a temporary directory with its own configuration, and curl's
// parallel mode as the yardstick.
#pragma once
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

extern char** environ;

namespace Bench {

// A new directory for a benchmark's files, on tmpfs when the machine has one: tiles written to
// a disk file system cost what its inode allocator's state makes them cost, which changes with
// every file any process deleted in the last minute, and swamps the software being measured.
// Empty when none could be made.
inline std::filesystem::path MakeWorkDirectory(const std::string& name) {
    std::string pattern = (::access("/dev/shm", W_OK) == 0 ? "/dev/shm/" : "/tmp/") + name + ".XXXXXX";
    return ::mkdtemp(pattern.data()) ? std::filesystem::path(pattern) : std::filesystem::path();
}

// A port on 127.0.0.1 that nobody listens on right now.
inline int32_t FreePort() {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    socklen_t length = sizeof(address);
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    ::close(fd);
    return ntohs(address.sin_port);
}

// Starts a program found on PATH; -1 when it could not start.
inline pid_t Spawn(const std::vector<std::string>& args) {
    std::vector<char*> argv;
    for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    pid_t pid = 0;
    if (posix_spawnp(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) return -1;
    return pid;
}

inline bool PortOpen(int32_t port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    const bool open = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    ::close(fd);
    return open;
}

// One nginx process (no master, one worker) on a free loopback port. Its configuration, pid file,
// error log, temporary directories and, when asked for, its access log live in `dir`.
// `serverBody` is what stands in the server block after the listen line.
class LoopbackNginx {
public:
    LoopbackNginx(std::filesystem::path dir, std::string serverBody, bool logAccess = false)
        : dir_(std::move(dir)), serverBody_(std::move(serverBody)), logAccess_(logAccess) {}
    ~LoopbackNginx() { Stop(); }
    LoopbackNginx(const LoopbackNginx&) = delete;
    LoopbackNginx& operator=(const LoopbackNginx&) = delete;

    // Writes the configuration, starts nginx and waits up to five seconds for the port to open.
    bool Start() {
        port_ = FreePort();
        const std::string temp = dir_.string();
        {
            std::ofstream conf(dir_ / "nginx.conf");
            conf << "daemon off;\nmaster_process off;\nworker_processes 1;\nerror_log " << (dir_ / "error.log").string()
                 << ";\npid " << (dir_ / "nginx.pid").string() << ";\nevents { worker_connections 4096; }\n"
                 << "http {\n  access_log " << (logAccess_ ? AccessLog().string() : std::string("off"))
                 << ";\n  keepalive_requests 1000000;\n"
                 << "  client_body_temp_path " << temp << ";\n  proxy_temp_path " << temp << ";\n"
                 << "  fastcgi_temp_path " << temp << ";\n  uwsgi_temp_path " << temp << ";\n"
                 << "  scgi_temp_path " << temp << ";\n"
                 << "  server {\n    listen 127.0.0.1:" << port_ << ";\n"
                 << serverBody_ << "\n  }\n}\n";
        }
        pid_ = Spawn({"nginx", "-e", (dir_ / "error.log").string(), "-p", temp, "-c", (dir_ / "nginx.conf").string()});
        if (pid_ < 0) return false;
        for (int32_t i = 0; i < 500; ++i) {
            if (PortOpen(port_)) return true;
            if (::waitpid(pid_, nullptr, WNOHANG) == pid_) {
                pid_ = -1;
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }

    void Stop() {
        if (pid_ < 0) return;
        ::kill(pid_, SIGTERM);
        ::waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }

    int32_t Port() const { return port_; }
    std::string Base() const { return "http://127.0.0.1:" + std::to_string(port_); }
    std::filesystem::path AccessLog() const { return dir_ / "access.log"; }

    // Requests logged so far, and how many of them answered 200 (the default "combined" format).
    std::pair<int32_t, int32_t> LoggedRequests() const {
        std::ifstream in(AccessLog());
        std::string line;
        int32_t all = 0;
        int32_t ok = 0;
        while (std::getline(in, line)) {
            ++all;
            if (line.find("\" 200 ") != std::string::npos) ++ok;
        }
        return {all, ok};
    }

private:
    std::filesystem::path dir_;
    std::string serverBody_;
    bool logAccess_;
    int32_t port_ = 0;
    pid_t pid_ = -1;
};

// How one run of curl went.
struct CurlRun {
    double seconds = 0;
    double cpuSeconds = 0; // user and system time of the curl process
    bool ok = false;
    int32_t status = 0; // as waitpid reports it
};

// Fetches every URL of `urls` with `curl --parallel --parallel-max <parallelMax>`, each body to
// /dev/null, or with `files` to a file of its own there (files/0, files/1, ...). The list goes into
// `config` for `curl -K`; only curl's own run is timed.
inline CurlRun CurlParallel(const std::vector<std::string>& urls, const std::filesystem::path& config,
                            int32_t parallelMax = 64, const std::filesystem::path& files = {}) {
    {
        if (!files.empty()) std::filesystem::create_directories(files);
        std::ofstream out(config);
        for (size_t i = 0; i < urls.size(); ++i)
            out << "url = \"" << urls[i] << "\"\noutput = \""
                << (files.empty() ? std::string("/dev/null") : (files / std::to_string(i)).string()) << "\"\n";
    }
    CurlRun run;
    const auto start = std::chrono::steady_clock::now();
    // -s alone leaves the parallel progress meter on; -S keeps curl's error lines.
    const pid_t pid = Spawn({"curl", "--parallel", "--parallel-max", std::to_string(parallelMax), "-s", "-S",
                             "--no-progress-meter", "-K", config.string()});
    if (pid < 0) return run;
    int status = 0;
    rusage usage{};
    ::wait4(pid, &status, 0, &usage);
    run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    run.cpuSeconds = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                     static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    run.status = status;
    run.ok = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    return run;
}

} // namespace Bench
