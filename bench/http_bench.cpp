// Downloads many small bodies from a loopback nginx with every request in flight at once through
// GetResponseAsync, and compares the rate with curl's own parallel mode on the same URLs.
// Usage: http_bench [requests]   (default 10000). Starts and stops its own nginx.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "Core/Ptr.h"
#include "Data/Variant.h"
#include "LoopbackNginx.h"
#include "Platform/Network/Http/Headers.h"
#include "Platform/Network/Http/HttpClient.h"
#include "Platform/Threading/AsyncTask.h"

namespace {

using Clock = std::chrono::steady_clock;
namespace Http = Platform::Network::Http;

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
    std::vector<std::string> urls;
    for (int i = 0; i < count; ++i) urls.push_back(base + "/item/" + std::to_string(i));
    const Bench::CurlRun run = Bench::CurlParallel(urls, dir / "urls.cfg");
    if (run.seconds <= 0) return 0;
    if (!run.ok) std::fprintf(stderr, "curl failed (%d)\n", run.status);
    return count / run.seconds;
}

} // namespace

int main(int argc, char** argv) {
    const int count = argc > 1 ? std::atoi(argv[1]) : 10000;
    char pattern[] = "/tmp/http_bench.XXXXXX";
    const std::filesystem::path dir = ::mkdtemp(pattern);
    Bench::LoopbackNginx nginx(dir,
                               "    location / { default_type text/plain; return 200 \"small body of a tile\\n\"; }");
    if (!nginx.Start()) {
        std::fprintf(stderr, "nginx could not start\n");
        return 1;
    }
    const std::string base = nginx.Base();

    OurRate(base, std::min(count, 500)); // warm-up
    const double ours = OurRate(base, count);
    const double curl = CurlRate(base, count, dir);
    std::printf("requests: %d\nHttpClient (GetResponseAsync, all in flight): %.0f requests/s\n"
                "curl --parallel --parallel-max 64:            %.0f requests/s\nratio: %.0f%%\n",
                count, ours, curl, curl > 0 ? 100.0 * ours / curl : 0.0);

    nginx.Stop();
    std::filesystem::remove_all(dir);
    return 0;
}
