#pragma once
// A loopback tile server for the fetch tests. Paths name the behaviour:
//   /t/{z}/{x}/{y}.png   a PNG tile (image/png)          /404/..., /500/...  that status
//   /octet/..., /mvt/...  the path as application/octet-stream or application/vnd.mapbox-vector-tile
//   /xml/...              text/xml                        /empty/...  an empty image/png body
//   /slow/...             a PNG tile after 300 ms          /bad/...    bytes that are no image
//   /xyz/...              a 256-pixel tile of one colour: red x, green y, blue z (each mod 256)
//   /x512/..., /x200/...  the same, 512 or 200 pixels wide   /hole/...   /xyz/, but 404 where x == y
//   /grow/...             /xyz/, but 512 pixels wide in odd columns
//   /ramp/...             a 256-pixel RGBA tile: red the pixel's column, green its row, blue 8x + y
#include <httplib.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "ImageWriters.h"

namespace TestSupport {

// A square RGB tile of one colour.
inline std::string SolidPngTile(int size, uint8_t red, uint8_t green, uint8_t blue) {
    TestImages::PngLayout layout;
    layout.width = layout.height = size;
    layout.colorType = 2; // RGB
    for (int i = 0; i < size * size; ++i) layout.rows.insert(layout.rows.end(), {red, green, blue});
    const TestImages::Bytes bytes = TestImages::EncodePng(layout);
    return std::string(bytes.begin(), bytes.end());
}

// A tile whose every pixel tells where it lies: red the column, green the row, blue the tile.
inline std::string RampPngTile(int x, int y) {
    TestImages::PngLayout layout;
    layout.width = layout.height = 256;
    layout.colorType = 6; // RGBA
    for (int row = 0; row < 256; ++row)
        for (int column = 0; column < 256; ++column)
            layout.rows.insert(layout.rows.end(), {uint8_t(column), uint8_t(row), uint8_t(8 * x + y), 255});
    const TestImages::Bytes bytes = TestImages::EncodePng(layout);
    return std::string(bytes.begin(), bytes.end());
}

class TileServer {
public:
    TileServer() : png_(SolidPngTile(256, 40, 80, 120)) {
        server_.new_task_queue = [] { return new httplib::ThreadPool(128); };
        server_.set_keep_alive_timeout(1);
        server_.Get(R"(/(\w+)/(\d+)/(\d+)/(\d+)\.png)", [this](const httplib::Request& req, httplib::Response& res) {
            const std::string kind = req.matches[1];
            const int z = std::stoi(req.matches[2]), x = std::stoi(req.matches[3]), y = std::stoi(req.matches[4]);
            ++requests_;
            if (kind == "slow") std::this_thread::sleep_for(std::chrono::milliseconds(300));
            if (kind == "404" || kind == "500" || (kind == "hole" && x == y)) {
                res.status = kind == "500" ? 500 : 404;
                res.set_content("no tile", "text/html");
            } else if (kind == "octet" || kind == "mvt") {
                res.set_content(req.path,
                                kind == "octet" ? "application/octet-stream" : "application/vnd.mapbox-vector-tile");
            } else if (kind == "xml") {
                res.set_content("<error/>", "text/xml");
            } else if (kind == "empty" || kind == "bad") {
                res.set_content(kind == "bad" ? "not an image at all" : "", "image/png");
            } else if (kind == "ramp") {
                res.set_content(RampPngTile(x, y), "image/png");
            } else if (kind == "t" || kind == "slow") {
                res.set_content(png_, "image/png");
            } else {
                const int size = kind == "x512" || (kind == "grow" && x % 2 == 1) ? 512 : kind == "x200" ? 200 : 256;
                res.set_content(SolidPngTile(size, uint8_t(x), uint8_t(y), uint8_t(z)), "image/png");
            }
        });
        // The library listens with a backlog of 5; a thousand requests at once would stall in
        // SYN retries, so the socket gets a deep backlog once bound.
        int listener = -1;
        server_.set_socket_options([&listener](int fd) {
            int one = 1;
            ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
            listener = fd;
        });
        port_ = server_.bind_to_any_port("127.0.0.1");
        ::listen(listener, 4096);
        thread_ = std::thread([this] { server_.listen_after_bind(); });
        for (int i = 0; i < 2000 && !server_.is_running(); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ~TileServer() {
        server_.stop();
        thread_.join();
    }

    std::string Template(const std::string& kind) const {
        return "http://127.0.0.1:" + std::to_string(port_) + "/" + kind + "/{z}/{x}/{y}.png";
    }
    int Requests() const { return requests_.load(); }
    const std::string& Png() const { return png_; }

private:
    httplib::Server server_;
    std::thread thread_;
    int port_ = 0;
    std::string png_;
    std::atomic<int> requests_{0};
};

} // namespace TestSupport
