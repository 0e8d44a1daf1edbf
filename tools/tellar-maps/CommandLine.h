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

    std::optional<int32_t> zoom, minZoom, maxZoom;
    std::optional<int64_t> x, y;
    std::optional<std::array<double, 4>> bbox;
    std::optional<std::array<uint32_t, 2>> size;
    std::optional<std::string> time;
    bool bestEffort = false;
    std::optional<std::string> output;
    std::optional<std::string> png;

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

extern const char* const UsageText;

} // namespace TellarMaps
