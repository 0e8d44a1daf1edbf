#pragma once
// The commands of tellar-maps on a bound service. Each returns the JSON object it prints;
// library failures leave as LibraryFailure, other failures (files) as std::runtime_error.
#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "Json.h"
#include "Progress.h"
#include "Tellar/Interfaces/IMapService.h"

namespace TellarMaps {

JsonObject RunInfo(Tellar::Interfaces::IMapService* service, const char* kind);

// Writes the tile's body as the server sent it; a tile from the cache is written as PNG.
JsonObject RunTile(Tellar::Interfaces::IMapService* service, int32_t zoom, int64_t x, int64_t y,
                   const std::string& path);

struct MosaicJob {
    int32_t zoom = 0;
    std::array<double, 4> bbox{};
    bool bestEffort = false;
    std::string tiff;
    std::optional<std::string> png;
};
// Takes the response of every tile of the box first (which fills the cache of a cached
// service), then asks for the mosaic and writes it as GeoTIFF, and as PNG when asked.
JsonObject RunMosaic(Tellar::Interfaces::IMapService* service, const MosaicJob& job, Progress& progress);

// A picture or a coverage of a box (in the service's CRS) at a pixel size, at a time when given.
struct PictureJob {
    std::array<double, 4> bbox{};
    uint32_t width = 0, height = 0;
    std::optional<std::string> time;
    std::string output;
    std::optional<std::string> png;
};
// Asks a WMS for the picture through its task, waited for on this thread, and writes it as a
// GeoTIFF placed at the box (and as PNG when asked).
JsonObject RunMap(Tellar::Interfaces::IMapService* service, const PictureJob& job);
// Asks a WCS for the coverage through its task and writes the server's bytes, once they read as
// an image.
JsonObject RunCoverage(Tellar::Interfaces::IMapService* service, const PictureJob& job);

// Takes the response of every tile of the box at each zoom, counting where each came from.
JsonObject RunSeed(Tellar::Interfaces::IMapService* service, const std::array<double, 4>& bbox, int32_t minZoom,
                   int32_t maxZoom, Progress& progress);

} // namespace TellarMaps
