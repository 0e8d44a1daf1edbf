#pragma once
// Layers for the OGC fetcher tests, built straight from their fields, and a loopback server that
// records what it receives. Paths name the answer by their first segment:
//   /png/...      a 256-pixel PNG (image/png)        /charset/...  the same PNG as "image/png; charset=UTF-8"
//   /500/...      status 500                         /bytes/...    "coverage bytes" as image/tiff
// and any path given to Serve, answered with its document.
#include <httplib.h>

#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "MapServices/Wcs/WcsCapabilities.h"
#include "MapServices/Wms/WmsCapabilities.h"
#include "MapServices/Wmts/WmtsCapabilities.h"
#include "TileServer.h"

namespace OgcTests {

using MapServices::Wcs::WcsLayer;
using MapServices::Wms::WmsLayer;
using MapServices::Wmts::WmtsLayer;

inline WmsLayer MakeWmsLayer(const std::string& url, const std::string& name,
                             std::vector<MapServices::Wms::WmsDimension> dimensions = {}) {
    auto layer = Core::MakeObject<MapServices::Wms::impl::WmsLayerImpl>();
    layer->url = url;
    layer->name = name;
    layer->styles.emplace_back().name = "default";
    layer->dimensions = std::move(dimensions);
    return WmsLayer(layer);
}

inline WcsLayer MakeWcsLayer(const std::string& url, const std::string& name, int32_t method) {
    auto layer = Core::MakeObject<MapServices::Wcs::impl::WcsLayerImpl>();
    layer->url = url;
    layer->name = name;
    layer->method = method;
    layer->box = {-10, -20, 10, 20};
    return WcsLayer(layer);
}

// Where a set's matrices start: the top-left corner and the coarsest scale denominator.
struct MatrixOrigin {
    double left = -20037508.342789244;
    double top = 20037508.342789244;
    double scale = 559082264.0287178; // the Web-Mercator level 0 at 256 pixels
};

// A layer with one resource and one set of matrices named by `ids`, coarsest first, whose
// scales halve from the origin's.
inline WmtsLayer MakeWmtsLayer(const std::string& urlTemplate, const std::string& format,
                               const std::vector<std::string>& ids, const std::string& setId = "grid",
                               int64_t tileSize = 256, MatrixOrigin origin = {}) {
    auto set = Core::MakeObject<MapServices::Wmts::impl::TileMatrixSetImpl>();
    set->identifier = setId;
    double scale = origin.scale;
    for (const std::string& id : ids) {
        MapServices::Wmts::WmtsTileMatrix matrix;
        matrix.identifier = id;
        matrix.scaleDenominator = scale;
        matrix.topLeftX = origin.left;
        matrix.topLeftY = origin.top;
        matrix.tileWidth = matrix.tileHeight = tileSize;
        set->AddTileMatrix(matrix);
        scale /= 2;
    }
    MapServices::Wmts::WmtsStyle style;
    style.identifier = "main";
    style.isDefault = true;
    return WmtsLayer(Core::MakeObject<MapServices::Wmts::impl::WmtsLayerImpl>(
        "Relief", "relief", "", MapServices::Wmts::WmtsBoundingBox{}, MapServices::BoundingBoxValue{},
        std::vector<MapServices::Wmts::WmtsResourceUrl>{{format, "tile", urlTemplate}},
        std::vector<MapServices::Wmts::WmtsStyle>{style},
        std::vector<MapServices::Wmts::TileMatrixSet>{MapServices::Wmts::TileMatrixSet(set)}));
}

// One request as the server saw it.
struct Received {
    std::string method;
    std::string target;
    std::string contentType;
    std::string body;
};

class RecordingServer {
public:
    RecordingServer() : png_(TestSupport::SolidPngTile(256, 10, 20, 30)) {
        const auto answer = [this](const httplib::Request& req, httplib::Response& res) {
            {
                std::lock_guard lock(mutex_);
                received_.push_back({req.method, req.target, req.get_header_value("Content-Type"), req.body});
            }
            const std::string kind = req.path.substr(1, req.path.find('/', 1) - 1);
            std::unique_lock lock(mutex_);
            if (const auto document = documents_.find(req.path); document != documents_.end()) {
                res.set_content(document->second.first, document->second.second);
                return;
            }
            lock.unlock();
            if (kind == "500") {
                res.status = 500;
                res.set_content("<ServiceExceptionReport/>", "text/xml");
            } else if (kind == "bytes") {
                res.set_content("coverage bytes", "image/tiff");
            } else {
                res.set_content(png_, kind == "charset" ? "image/png; charset=UTF-8" : "image/png");
            }
        };
        server_.Get(".*", answer);
        server_.Post(".*", answer);
        server_.set_keep_alive_timeout(1);
        port_ = server_.bind_to_any_port("127.0.0.1");
        thread_ = std::thread([this] { server_.listen_after_bind(); });
        for (int i = 0; i < 2000 && !server_.is_running(); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ~RecordingServer() {
        server_.stop();
        thread_.join();
    }

    // Answers `path` (whatever the query) with `body` of type `type` from now on.
    void Serve(const std::string& path, const std::string& body, const std::string& type = "text/xml") {
        std::lock_guard lock(mutex_);
        documents_[path] = {body, type};
    }
    std::string Url(const std::string& path) const { return "http://127.0.0.1:" + std::to_string(port_) + path; }
    std::vector<Received> Requests() const {
        std::lock_guard lock(mutex_);
        return received_;
    }

private:
    httplib::Server server_;
    std::thread thread_;
    int port_ = 0;
    std::string png_;
    mutable std::mutex mutex_;
    std::vector<Received> received_;
    std::map<std::string, std::pair<std::string, std::string>> documents_;
};

} // namespace OgcTests
