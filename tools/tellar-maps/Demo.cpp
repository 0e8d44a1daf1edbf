#include "Demo.h"

#include <httplib.h>
#include <sys/socket.h>

#include <charconv>
#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include "Commands.h"
#include "DemoRelief.h"
#include "Library.h"
#include "PngEncode.h"

namespace TellarMaps {

namespace {

// The box, in degrees, and the zoom of the demo picture.
constexpr std::array<double, 4> DemoBox = {-14.0, -60.0, 34.0, -34.0};
constexpr int32_t DemoZoom = 5;
constexpr int32_t DemoMaxZoom = 22;

bool ParseNumber(const std::string& text, int64_t& value) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc() && end == text.data() + text.size();
}

// A tile server on 127.0.0.1 at a port the system picks, for as long as the object lives.
class ReliefTileServer {
public:
    ReliefTileServer() {
        server_.Get(R"(/(\d+)/(\d+)/(\d+)\.png)", [](const httplib::Request& request, httplib::Response& response) {
            int64_t z = 0, x = 0, y = 0;
            if (!ParseNumber(request.matches[1], z) || !ParseNumber(request.matches[2], x) ||
                !ParseNumber(request.matches[3], y) || z > DemoMaxZoom || x >= (int64_t{1} << z) ||
                y >= (int64_t{1} << z)) {
                response.status = 404;
                response.set_content("no such tile", "text/plain");
                return;
            }
            const auto pixels =
                RenderReliefTile(static_cast<int32_t>(z), static_cast<int32_t>(x), static_cast<int32_t>(y));
            response.set_content(EncodeRgbaPng(pixels, ReliefTileSize, ReliefTileSize), "image/png");
        });
        // Idle connections of the client end within a second, so that stopping does not wait long.
        server_.set_keep_alive_timeout(1);
        // httplib listens with a backlog of 5; the client opens many connections at once, and a
        // short queue would leave some of them waiting for SYN retries.
        int listener = -1;
        server_.set_socket_options([&listener](int fd) {
            int one = 1;
            ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
            listener = fd;
        });
        port_ = server_.bind_to_any_port("127.0.0.1");
        if (port_ <= 0 || listener < 0) throw std::runtime_error("the demo tile server cannot bind to 127.0.0.1");
        ::listen(listener, 1024);
        thread_ = std::thread([this] { server_.listen_after_bind(); });
        for (int i = 0; i < 5000 && !server_.is_running(); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        if (!server_.is_running()) {
            Stop();
            throw std::runtime_error("the demo tile server did not start");
        }
    }
    ~ReliefTileServer() { Stop(); }
    ReliefTileServer(const ReliefTileServer&) = delete;
    ReliefTileServer& operator=(const ReliefTileServer&) = delete;

    std::string Template() const { return "http://127.0.0.1:" + std::to_string(port_) + "/{z}/{x}/{y}.png"; }

    void Stop() {
        if (!thread_.joinable()) return;
        server_.stop();
        thread_.join();
    }

private:
    httplib::Server server_;
    std::thread thread_;
    int port_ = 0;
};

} // namespace

JsonObject RunDemo(const std::string& directory, Progress& progress) {
    const std::filesystem::path dir(directory.empty() ? "." : directory);
    std::error_code error;
    std::filesystem::create_directories(dir, error);
    if (error) throw std::runtime_error("cannot create " + dir.string() + ": " + error.message());

    // The port, and so the URL template that names the cache directory, changes from run to run:
    // each run starts from an empty cache instead of leaving one more directory behind.
    const std::filesystem::path cache = dir / "demo-cache";
    std::filesystem::remove_all(cache, error);
    if (error) throw std::runtime_error("cannot clear " + cache.string() + ": " + error.message());

    ReliefTileServer server;
    MosaicJob job;
    job.zoom = DemoZoom;
    job.bbox = DemoBox;
    job.tiff = (dir / "demo.tif").string();
    job.png = (dir / "demo.png").string();
    JsonObject json;
    {
        // The service is released before the server stops: nothing is left in flight.
        const TmsService tms = OpenTmsService(server.Template(), 4326, cache.string(), 4326);
        json = RunMosaic(tms.service.Raw(), job, progress);
    }
    server.Stop();
    return json;
}

} // namespace TellarMaps
