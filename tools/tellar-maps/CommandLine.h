#pragma once
#include <array>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace TellarMaps {

enum class ServiceKind { None, Tms, Wms, Wmts, Wcs };

// What the command line asks for, checked for completeness but not against any server.
struct Options {
    std::string command;
    bool help = false;

    ServiceKind kind = ServiceKind::None;
    std::string url;
    std::optional<std::string> layer, style, format, matrixSet, coverage;
    std::optional<uint32_t> epsg;
    std::optional<std::string> cacheDir;
    std::optional<uint32_t> targetEpsg;
    // The HTTP client's timeouts for the run, in milliseconds.
    std::optional<uint32_t> timeoutMs;

    std::optional<int32_t> zoom, minZoom, maxZoom;
    // seed --part K/N: the K-th of N shares of the tiles, K from 0 to N-1.
    std::optional<std::array<uint32_t, 2>> part;
    std::optional<int64_t> x, y;
    std::optional<std::array<double, 4>> bbox;
    std::optional<std::array<uint32_t, 2>> size;
    std::optional<std::string> time;
    bool bestEffort = false;
    std::optional<std::string> output;
    std::optional<std::string> png;
    // --compress: GeoTIFF strips deflated (true, the default) or stored as they are.
    std::optional<bool> compress;

    std::optional<std::string> logFile;
    std::optional<uint32_t> logLevel;
    bool quiet = false;
};

// A command line that can't be carried out; the text says why. The caller prints usage.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// `args` without the program name.
Options ParseCommandLine(const std::vector<std::string>& args);

// A --tms box cut to the tile grid when it is read in EPSG:4326 (±180, ±85.0511 degrees) or
// EPSG:3857 (±20037508.34 m); left as it is in any other CRS. A box outside the grid is refused.
std::array<double, 4> CutToGrid(const std::array<double, 4>& box, uint32_t boxEpsg);

extern const char* const UsageText;

} // namespace TellarMaps
