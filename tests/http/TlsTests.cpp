// The client over TLS against a loopback nginx: a test CA made with the openssl tool for this run
// only (trusted through CURL_CA_BUNDLE, never installed), HTTP/2 multiplexing, redirects that
// leave https, and a server whose certificate nobody vouches for.
#include <fcntl.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Data/Values.h"
#include "LoopbackNginx.h"
#include "Platform/Network/Http/Headers.h"
#include "Platform/Network/Http/HttpClient.h"
#include "Platform/Threading/AsyncTask.h"
#include "RecordingLogger.h"
#include "TempDir.h"
#include "Transport.h"
#include "support/Wait.h"

namespace Http = Platform::Network::Http;
namespace T = Platform::Windows::Network::Http::Transport;
using Core::Ptr;
using namespace Platform::Interfaces;
using namespace TestSupport;

namespace {

bool OnPath(const std::string& program) {
    const char* path = std::getenv("PATH");
    std::stringstream dirs(path ? path : "/usr/bin:/bin");
    for (std::string dir; std::getline(dirs, dir, ':');)
        if (!dir.empty() && ::access((std::filesystem::path(dir) / program).c_str(), X_OK) == 0) return true;
    return false;
}

// Runs a program with its output thrown away; true when it exits with 0 within `bound`.
bool RunQuietly(const std::vector<std::string>& args, std::chrono::seconds bound = std::chrono::seconds(60)) {
    std::vector<char*> argv;
    for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    pid_t pid = 0;
    const int spawned = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) return false;
    int status = 0;
    const bool ended = WaitUntil([&] { return ::waitpid(pid, &status, WNOHANG) == pid; }, bound);
    if (!ended) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, &status, 0);
    }
    return ended && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// A CA, a certificate for 127.0.0.1 that it signed, and a self-signed one for 127.0.0.1 that no
// trusted party vouches for.
bool MakeCertificates(const std::filesystem::path& dir) {
    const auto at = [&](const char* name) { return (dir / name).string(); };
    const std::vector<std::string> ecKey = {"-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes"};
    const auto req = [&](std::vector<std::string> args) {
        args.insert(args.begin() + 2, ecKey.begin(), ecKey.end());
        return RunQuietly(args);
    };
    {
        std::ofstream ext(dir / "server.ext");
        ext << "subjectAltName = IP:127.0.0.1\nbasicConstraints = CA:FALSE\nextendedKeyUsage = serverAuth\n";
    }
    return req({"openssl", "req", "-x509", "-days", "2", "-subj", "/CN=Tellar Test CA", "-addext",
                "basicConstraints=critical,CA:TRUE", "-addext", "keyUsage=critical,keyCertSign,cRLSign", "-keyout",
                at("ca.key"), "-out", at("ca.crt")}) &&
           req({"openssl", "req", "-subj", "/CN=127.0.0.1", "-keyout", at("server.key"), "-out", at("server.csr")}) &&
           RunQuietly({"openssl", "x509", "-req", "-days", "2", "-in", at("server.csr"), "-CA", at("ca.crt"), "-CAkey",
                       at("ca.key"), "-CAcreateserial", "-extfile", at("server.ext"), "-out", at("server.crt")}) &&
           req({"openssl", "req", "-x509", "-days", "2", "-subj", "/CN=127.0.0.1", "-addext",
                "subjectAltName=IP:127.0.0.1", "-keyout", at("rogue.key"), "-out", at("rogue.crt")});
}

// One nginx on three loopback ports: `tls` with the CA's certificate (HTTP/2, TLS 1.2 and 1.3
// offered), `rogue` with the self-signed one, `plain` without TLS. Every request is logged with its
// connection's serial number, port and protocols.
class TlsNginx {
public:
    TlsNginx(const std::filesystem::path& certs, const std::filesystem::path& dir) : dir_(dir) {
        do {
            tls = Bench::FreePort();
            rogue = Bench::FreePort();
            plain = Bench::FreePort();
        } while (tls == rogue || tls == plain || rogue == plain);
        std::filesystem::create_directories(dir / "www");
        const auto tlsServer = [&](int32_t port, const char* cert) {
            return fmt::format(R"(  server {{
    listen 127.0.0.1:{port} ssl http2;
    ssl_certificate {certs}/{cert}.crt;
    ssl_certificate_key {certs}/{cert}.key;
    ssl_protocols TLSv1.2 TLSv1.3;
    root {dir}/www;
    location = /away {{ return 302 http://127.0.0.1:{plain}/landed; }}
    location = /onward {{ return 302 https://127.0.0.1:{port}/6/0/0.png; }}
  }}
)",
                               fmt::arg("port", port), fmt::arg("certs", certs.string()), fmt::arg("cert", cert),
                               fmt::arg("dir", dir.string()), fmt::arg("plain", plain));
        };
        std::ofstream(dir / "nginx.conf") << fmt::format(
            R"(daemon off;
master_process off;
worker_processes 1;
error_log {dir}/error.log;
pid {dir}/nginx.pid;
events {{ worker_connections 1024; }}
http {{
  log_format tiles '$connection $server_port $server_protocol $ssl_protocol $status $uri';
  access_log {dir}/access.log tiles;
  types {{ image/png png; }}
  client_body_temp_path {dir}; proxy_temp_path {dir}; fastcgi_temp_path {dir};
  uwsgi_temp_path {dir}; scgi_temp_path {dir};
{trusted}{rogue}  server {{
    listen 127.0.0.1:{plain};
    root {dir}/www;
  }}
}}
)",
            fmt::arg("dir", dir.string()), fmt::arg("trusted", tlsServer(tls, "server")),
            fmt::arg("rogue", tlsServer(rogue, "rogue")), fmt::arg("plain", plain));
    }
    ~TlsNginx() {
        if (pid_ < 0) return;
        ::kill(pid_, SIGTERM);
        if (!WaitUntil([&] { return ::waitpid(pid_, nullptr, WNOHANG) == pid_; }, std::chrono::seconds(10))) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
    }
    TlsNginx(const TlsNginx&) = delete;
    TlsNginx& operator=(const TlsNginx&) = delete;

    bool Start() {
        pid_ = Bench::Spawn(
            {"nginx", "-e", (dir_ / "error.log").string(), "-p", dir_.string(), "-c", (dir_ / "nginx.conf").string()});
        if (pid_ < 0) return false;
        return WaitUntil([&] { return Bench::PortOpen(tls) && Bench::PortOpen(rogue) && Bench::PortOpen(plain); },
                         std::chrono::seconds(10));
    }

    std::string Www() const { return (dir_ / "www").string(); }
    std::string ErrorLog() const {
        std::ifstream in(dir_ / "error.log");
        return std::string(std::istreambuf_iterator<char>(in), {});
    }

    struct Logged {
        std::string connection, port, protocol, tls, status, uri;
    };
    std::vector<Logged> Requests() const {
        std::vector<Logged> lines;
        std::ifstream in(dir_ / "access.log");
        for (Logged l; in >> l.connection >> l.port >> l.protocol >> l.tls >> l.status >> l.uri;) lines.push_back(l);
        return lines;
    }

    int32_t tls = 0, rogue = 0, plain = 0;

private:
    std::filesystem::path dir_;
    pid_t pid_ = -1;
};

Ptr<IAcceptTypes> AnyType() {
    Ptr<IAcceptTypes> accept;
    Http::CreateAcceptTypes(accept.ReceiveAddress());
    Http::AddContentType(accept.Raw(), Http::ContentTypeAny);
    return accept;
}

Ptr<IHttpRequest> NewRequest(const Ptr<IHttpClient>& client, const std::string& path) {
    Ptr<IHttpRequest> request;
    EXPECT_TRUE(client->CreateRequest(path.c_str(), AnyType().Raw(), 0, request.ReceiveAddress()));
    return request;
}

std::string BodyOf(IHttpResponse* response) {
    return std::string(static_cast<const char*>(response->GetBodyData()), response->GetBodySize());
}

// The response of a request sent on its own, or null when it failed or outlived its bound.
IHttpResponse* Fetch(const Ptr<IHttpRequest>& request, Data::Variant& keep) {
    Ptr<IAsyncTask> task;
    if (!request->GetResponseAsync(task.ReceiveAddress())) return nullptr;
    if (!WaitUntil([&] { return task->IsCompleted() || task->IsCancelled(); }, std::chrono::seconds(60))) {
        request->Close();
        return nullptr;
    }
    keep = Platform::Threading::AsyncTask(task).GetResultVariant();
    return dynamic_cast<IHttpResponse*>(keep.ToObject());
}

bool Logged(ScopedRecordingLogger& logger, const std::string& text) {
    for (const auto& line : logger->Lines())
        if (line.text.find(text) != std::string::npos) return true;
    return false;
}

class Tls : public testing::Test {
protected:
    static void SetUpTestSuite() {
        if (!OnPath("openssl") || !OnPath("nginx")) {
            skip_ = "needs the openssl tool and nginx on PATH (scripts/install-packages test)";
            return;
        }
        certs_ = new TempDir();
        if (!MakeCertificates(certs_->Path())) {
            skip_ = "the openssl tool could not make the test certificates";
            return;
        }
        // Set before the first session of this program exists, so before any transport thread.
        ::setenv("CURL_CA_BUNDLE", certs_->File("ca.crt").c_str(), 1);
    }
    static void TearDownTestSuite() {
        delete certs_;
        certs_ = nullptr;
    }
    void SetUp() override {
        if (!skip_.empty()) GTEST_SKIP() << skip_;
        // A server of its own for every test: no connection left by one test serves the next.
        nginx_ = std::make_unique<TlsNginx>(certs_->Path(), run_.Path());
        ASSERT_TRUE(nginx_->Start()) << nginx_->ErrorLog();
    }
    void TearDown() override {
        EXPECT_TRUE(WaitUntil([] { return T::OpenHandleCount() == 0; }));
    }

    Ptr<IHttpClient> Client(int32_t port) {
        return Http::CreateHttpClient(("https://127.0.0.1:" + std::to_string(port)).c_str(), "Test/1.0", 0);
    }

    // Runs `work` once on the transport thread, from the send-complete event of a request to the
    // plain server, which is then closed. TearDown waits until the transport let go of it.
    void OnTransportThread(std::function<void()> work) {
        kick_ = std::move(work);
        T::Handle session = T::Open("Test/1.0", T::AccessTypeNoProxy, nullptr, nullptr, T::FlagAsync);
        T::SetStatusCallback(session, &Tls::Kick, T::CallbackFlagAllNotifications);
        T::Handle connection = T::Connect(session, "127.0.0.1", static_cast<uint16_t>(nginx_->plain));
        const char* accept[] = {"*/*", nullptr};
        T::Handle request = T::OpenRequest(connection, "GET", "/", nullptr, nullptr, accept, 0);
        EXPECT_TRUE(T::SendRequest(request, nullptr, 0, nullptr, 0, 0, &kick_));
        T::CloseHandle(connection);
        T::CloseHandle(session);
    }
    static void Kick(T::Handle handle, void* context, uint32_t status, void*, uint32_t) {
        if (status != T::StatusSendRequestComplete) return;
        (*static_cast<std::function<void()>*>(context))();
        T::CloseHandle(handle);
    }

    static inline TempDir* certs_ = nullptr;
    static inline std::string skip_;
    TempDir run_;
    std::unique_ptr<TlsNginx> nginx_;
    std::function<void()> kick_;
};

TEST_F(Tls, TilesAtOnceShareOneHttp2Connection) {
    constexpr int kTiles = 48;
    std::map<std::string, std::string> tiles; // path -> bytes
    for (int i = 0; i < kTiles; ++i) {
        const std::string path = "/6/" + std::to_string(i % 8) + "/" + std::to_string(i / 8) + ".png";
        std::string bytes(2048 + 97 * i, '\0');
        for (size_t k = 0; k < bytes.size(); ++k) bytes[k] = static_cast<char>((k * 31 + i * 7) & 0xFF);
        std::filesystem::create_directories(std::filesystem::path(nginx_->Www() + path).parent_path());
        std::ofstream(nginx_->Www() + path, std::ios::binary) << bytes;
        tiles[path] = bytes;
    }
    auto client = Client(nginx_->tls);
    // The tiles are sent from an event of a plain request, on the transport thread, so that curl
    // gets all of them before it moves any connection on: as on a real network, where the first
    // handshake lasts longer than a burst of requests takes to arrive.
    std::vector<std::pair<std::string, Ptr<IHttpRequest>>> requests;
    for (const auto& [path, bytes] : tiles) requests.emplace_back(path, NewRequest(client, path));
    std::vector<std::pair<std::string, Ptr<IAsyncTask>>> tasks;
    std::promise<void> sent;
    OnTransportThread([&] {
        for (auto& [path, request] : requests) {
            Ptr<IAsyncTask> task;
            EXPECT_TRUE(request->GetResponseAsync(task.ReceiveAddress()));
            tasks.emplace_back(path, std::move(task));
        }
        sent.set_value();
    });
    ASSERT_EQ(sent.get_future().wait_for(std::chrono::seconds(60)), std::future_status::ready);
    ASSERT_EQ(tasks.size(), tiles.size());
    for (auto& [path, task] : tasks) {
        ASSERT_TRUE(WaitUntil([&] { return task->IsCompleted() || task->IsCancelled(); }, std::chrono::seconds(60)));
        Data::Variant value = Platform::Threading::AsyncTask(task).GetResultVariant();
        auto* response = dynamic_cast<IHttpResponse*>(value.ToObject());
        ASSERT_NE(response, nullptr) << path;
        EXPECT_EQ(response->GetStatusCode(), 200) << path;
        EXPECT_TRUE(BodyOf(response) == tiles[path]) << path;
    }

    // nginx writes a line once it has sent the answer, which may be just after the client read it.
    const std::string port = std::to_string(nginx_->tls);
    const auto overTls = [&] {
        std::vector<TlsNginx::Logged> lines;
        for (const auto& line : nginx_->Requests())
            if (line.port == port) lines.push_back(line);
        return lines;
    };
    ASSERT_TRUE(WaitUntil([&] { return overTls().size() >= kTiles; }));
    std::set<std::string> connections;
    for (const auto& line : overTls()) {
        EXPECT_EQ(line.protocol, "HTTP/2.0") << line.uri;
        EXPECT_EQ(line.tls, "TLSv1.2") << line.uri; // the server would take 1.3
        connections.insert(line.connection);
    }
    EXPECT_EQ(connections.size(), 1u) << "connections opened for " << kTiles << " tiles";
}

TEST_F(Tls, RedirectsStayOnHttps) {
    std::ofstream(nginx_->Www() + "/landed") << "over plain http";
    std::filesystem::create_directories(nginx_->Www() + "/6/0");
    std::ofstream(nginx_->Www() + "/6/0/0.png") << "tile";
    auto client = Client(nginx_->tls);

    // To another https address the redirect is followed.
    Data::Variant keepOnward;
    IHttpResponse* onward = Fetch(NewRequest(client, "/onward"), keepOnward);
    ASSERT_NE(onward, nullptr);
    EXPECT_EQ(onward->GetStatusCode(), 200);
    EXPECT_EQ(BodyOf(onward), "tile");

    // To http it is not: the 302 itself is the response, and the plain server hears nothing.
    Data::Variant keepAway;
    IHttpResponse* away = Fetch(NewRequest(client, "/away"), keepAway);
    ASSERT_NE(away, nullptr);
    EXPECT_EQ(away->GetStatusCode(), 302);
    const char* location = away->GetHeader("Location");
    ASSERT_NE(location, nullptr);
    EXPECT_EQ(std::string(location), "http://127.0.0.1:" + std::to_string(nginx_->plain) + "/landed");

    ASSERT_TRUE(WaitUntil([&] { return nginx_->Requests().size() >= 3; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(100)); // room for a request that should not come
    for (const auto& line : nginx_->Requests()) EXPECT_NE(line.port, std::to_string(nginx_->plain)) << line.uri;
}

TEST_F(Tls, UntrustedCertificateIsASecureFailure) {
    std::ofstream(nginx_->Www() + "/secret") << "must not arrive";
    ScopedRecordingLogger logger;
    Data::Variant keep;
    EXPECT_EQ(Fetch(NewRequest(Client(nginx_->rogue), "/secret"), keep), nullptr);
    auto fetched = Http::FetchUrlText(("https://127.0.0.1:" + std::to_string(nginx_->rogue) + "/secret").c_str());
    EXPECT_FALSE(fetched.success);
    EXPECT_EQ(fetched.text, "");
    EXPECT_TRUE(Logged(logger, "WINHTTP_CALLBACK_STATUS_REQUEST_ERROR [12175]"));
    EXPECT_TRUE(nginx_->Requests().empty()); // no request got through the handshake
}

} // namespace
