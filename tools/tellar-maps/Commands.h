#pragma once
// The commands of tellar-maps on a bound service. Each returns the JSON object it prints;
// library failures leave as LibraryFailure, other failures (files) as std::runtime_error.
#include <array>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Json.h"
#include "Progress.h"
#include "Tellar/Interfaces/IMapService.h"

namespace TellarMaps {

// A command that failed after it had counted something: main prints the report as on success,
// then the error.
struct FailureWithReport : std::runtime_error {
    FailureWithReport(const std::string& text, JsonObject json) : std::runtime_error(text), report(std::move(json)) {}
    JsonObject report;
};

// The files of one command, each written first to a temporary file beside its target. Commit
// renames them all into place; the temporary files of a command that fails before are removed,
// so a failure leaves the targets as they were.
class StagedFiles {
public:
    StagedFiles() = default;
    StagedFiles(const StagedFiles&) = delete;
    StagedFiles& operator=(const StagedFiles&) = delete;
    ~StagedFiles();

    // The path of a new empty file to write in place of `target`.
    std::string Stage(const std::string& target);
    void Commit();

private:
    struct File {
        std::string temporary, target;
    };
    std::vector<File> staged_;
};

// Refuses a cache path that names something other than a directory, before the library would
// fail on every tile under it.
void CheckCacheDirectory(const std::string& path);

// Sets the connect, send, receive and resolve timeouts of the service's HTTP client a second
// above the tool's own limit for a tile's whole answer.
void SetHttpTimeouts(Tellar::Interfaces::IMapService* service, uint32_t milliseconds);

JsonObject RunInfo(Tellar::Interfaces::IMapService* service, const char* kind);

// Writes the tile's body as the server sent it; a tile from the cache is written as PNG.
// Waits at most `timeoutMs` for the whole answer when given; writes nothing unless it decodes.
JsonObject RunTile(Tellar::Interfaces::IMapService* service, int32_t zoom, int64_t x, int64_t y,
                   const std::string& path, std::optional<uint32_t> timeoutMs);

struct MosaicJob {
    int32_t zoom = 0;
    std::array<double, 4> bbox{};
    bool bestEffort = false;
    std::string tiff;
    std::optional<std::string> png;
    bool compress = true; // the GeoTIFF's strips deflated, else stored
    // A tile of the first pass that takes longer ends the command.
    std::optional<uint32_t> timeoutMs;
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
    bool compress = true; // the GeoTIFF's strips deflated, else stored (map only)
};
// Asks a WMS for the picture through its task, waited for on this thread, and writes it as a
// GeoTIFF placed at the box (and as PNG when asked).
JsonObject RunMap(Tellar::Interfaces::IMapService* service, const PictureJob& job);
// Asks a WCS for the coverage through its task and writes the server's bytes, once they read as
// an image.
JsonObject RunCoverage(Tellar::Interfaces::IMapService* service, const PictureJob& job);

struct SeedJob {
    std::array<double, 4> bbox{};
    int32_t minZoom = 0, maxZoom = 0;
    std::optional<uint32_t> timeoutMs; // for each tile's whole answer
    // Seed only the tiles whose index in each level (row by row over the level's tile range)
    // leaves `index` when divided by `count`: `count` runs, one per index, seed every tile once.
    // Only for services whose tile arithmetic the corner lists span (TMS, EPSG:4326 or 3857).
    struct Part {
        uint32_t index = 0, count = 1;
    };
    std::optional<Part> part;
};
// Takes the response of every tile of the box at each zoom, counting where each came from:
// `fetched` the tiles that came over HTTP as a tile the cache keeps, `cached` those read from
// it, `failed` the rest, the first of them told in `first_error`. Throws FailureWithReport when
// no tile was fetched or read (a part that holds no tile of the box is no failure).
JsonObject RunSeed(Tellar::Interfaces::IMapService* service, const SeedJob& job, Progress& progress);

} // namespace TellarMaps
