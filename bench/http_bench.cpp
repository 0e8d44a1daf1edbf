// Downloads many small bodies from a loopback nginx with every request in flight at once through
// GetResponseAsync, and compares the rate with curl's own parallel mode on the same URLs.
// Usage: http_bench [requests]   (default 10000). Starts and stops its own nginx.
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "Core/Ptr.h"
#include "Data/Variant.h"
#include "Platform/Network/Http/Headers.h"
#include "Platform/Network/Http/HttpClient.h"
#include "Platform/Threading/AsyncTask.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;
namespace Http = Platform::Network::Http;

int FreePort() {
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

pid_t Spawn(const std::vector<std::string>& args) {
    std::vector<char*> argv;
    for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    pid_t pid = 0;
    if (posix_spawnp(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) return -1;
    return pid;
}

bool PortOpen(int port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    const bool open = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    ::close(fd);
    return open;
}

double OurRate(const std::string& base, int count) {
    auto client = Http::CreateHttpClient(base.c_str(), "HttpBench/1.0", 0);
    Core::Ptr<Platform::Interfaces::IAcceptTypes> accept;
    Http::CreateAcceptTypes(accept.ReceiveAddress());
    Http::AddContentType(accept.Raw(), Http::ContentTypeAny);
    std::vector<Core::Ptr<Platform::Interfaces::IAsyncTask>> tasks(static_cast<size_t>(count));
    const auto start = Clock::now();
    for (int i = 0; i < count; ++i) {
        Core::Ptr<Platform::Interfaces::IHttpRequest> request;
        const std::string path = "/item/" + std::to_string(i);
        if (!client->CreateRequest(path.c_str(), accept.Raw(), Http::HttpMethodGet, request.ReceiveAddress()) ||
            !request->GetResponseAsync(tasks[static_cast<size_t>(i)].ReceiveAddress())) {
            std::fprintf(stderr, "request %d could not start\n", i);
            return 0;
        }
    }
    int ok = 0;
    for (auto& task : tasks) {
        task->Wait(60000);
        Data::Variant value = Platform::Threading::AsyncTask(task).GetResultVariant();
        auto* response = dynamic_cast<Platform::Interfaces::IHttpResponse*>(value.ToObject());
        if (response && response->GetStatusCode() == 200) ++ok;
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    if (ok != count) std::fprintf(stderr, "only %d of %d answered 200\n", ok, count);
    return count / seconds;
}

double CurlRate(const std::string& base, int count, const std::filesystem::path& dir) {
    const std::filesystem::path config = dir / "urls.cfg";
    {
        std::ofstream out(config);
        for (int i = 0; i < count; ++i)
            out << "url = \"" << base << "/item/" << i << "\"\noutput = \"/dev/null\"\n";
    }
    const auto start = Clock::now();
    const pid_t pid = Spawn({"curl", "--parallel", "--parallel-max", "64", "-s", "-K", config.string()});
    if (pid < 0) return 0;
    int status = 0;
    ::waitpid(pid, &status, 0);
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) std::fprintf(stderr, "curl failed (%d)\n", status);
    return count / seconds;
}

} // namespace

int main(int argc, char** argv) {
    const int count = argc > 1 ? std::atoi(argv[1]) : 10000;
    char pattern[] = "/tmp/http_bench.XXXXXX";
    const std::filesystem::path dir = ::mkdtemp(pattern);
    const int port = FreePort();
    {
        std::ofstream conf(dir / "nginx.conf");
        conf << "daemon off;\nmaster_process off;\nworker_processes 1;\nerror_log " << (dir / "error.log").string()
             << ";\npid " << (dir / "nginx.pid").string() << ";\nevents { worker_connections 4096; }\n"
             << "http {\n  access_log off;\n  keepalive_requests 1000000;\n"
             << "  client_body_temp_path " << dir.string() << ";\n  proxy_temp_path " << dir.string() << ";\n"
             << "  fastcgi_temp_path " << dir.string() << ";\n  uwsgi_temp_path " << dir.string() << ";\n"
             << "  scgi_temp_path " << dir.string() << ";\n"
             << "  server {\n    listen 127.0.0.1:" << port << ";\n"
             << "    location / { default_type text/plain; return 200 \"small body of a tile\\n\"; }\n  }\n}\n";
    }
    const pid_t nginx = Spawn({"nginx", "-p", dir.string(), "-c", (dir / "nginx.conf").string()});
    if (nginx < 0) {
        std::fprintf(stderr, "nginx could not start\n");
        return 1;
    }
    for (int i = 0; i < 500 && !PortOpen(port); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    const std::string base = "http://127.0.0.1:" + std::to_string(port);

    OurRate(base, std::min(count, 500)); // warm-up
    const double ours = OurRate(base, count);
    const double curl = CurlRate(base, count, dir);
    std::printf("requests: %d\nHttpClient (GetResponseAsync, all in flight): %.0f requests/s\n"
                "curl --parallel --parallel-max 64:            %.0f requests/s\nratio: %.0f%%\n",
                count, ours, curl, curl > 0 ? 100.0 * ours / curl : 0.0);

    ::kill(nginx, SIGTERM);
    ::waitpid(nginx, nullptr, 0);
    std::filesystem::remove_all(dir);
    return 0;
}
