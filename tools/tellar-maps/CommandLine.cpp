#include "CommandLine.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <map>
#include <optional>

namespace TellarMaps {

const char* const UsageText = R"(usage: tellar-maps COMMAND SERVICE [options]

Commands:
  info                                         what the factory bound
  tile --zoom Z --x X --y Y -o FILE            one tile's bytes, once they decode as an image
  mosaic --zoom Z --bbox A,B,C,D [--best-effort] -o FILE.tif
  map --bbox A,B,C,D --size WxH [--time ISO] -o FILE.tif
  coverage --bbox A,B,C,D --size WxH [--time ISO] -o FILE.tif
  seed --bbox A,B,C,D --max-zoom Z [--min-zoom Z0] [--part K/N]    (needs --cache)
  demo [-o DIR]                                serves its own tiles; no service options

Service (exactly one; URLs are http:// or https://):
  --tms URL --epsg 3857|4326
  --wms URL [--layer NAME] [--style S] [--format image/png] --epsg N
  --wmts URL --layer NAME [--style S] [--format F] [--matrix-set ID]
  --wcs URL [--coverage NAME] [--format GeoTIFF] --epsg N
  [--cache DIR]            use the cached factory with DIR
  [--target-epsg N]        read --bbox and write mosaics in this CRS
  [--timeout SECONDS]      the longest wait for a tile's whole answer; the HTTP client's
                           connect, send and receive timeouts (the longest silence of a
                           server) are set a second longer

--bbox is min x, min y, max x, max y in the service's CRS, or in --target-epsg when
given: metres for --epsg 3857 (add --target-epsg 4326 to give degrees), degrees for
4326. mosaic and seed of a --tms service cut the box to the grid (+-180 and +-85.0511
degrees, +-20037508.34 m).
--best-effort is the library's tolerant mosaic: it asks for every tile a second time and
leaves out a copy that fails, but a tile whose first request fails, or that the server
answers with no image, still fails the mosaic.
seed --part K/N (--tms only) seeds the K-th of N shares of every level, K from 0 to N-1:
N runs, on one machine or many, fill one cache with every tile once.
Zooms are 0 to 30, tile indices 0 or more. Files are written whole or not at all: a failed
command leaves an existing file as it was.

Options: --quiet, --png FILE (8-bit preview beside a .tif), --help,
  --compress deflate|none (GeoTIFF of mosaic and map: deflated, the default, or stored as
  GDAL stores by default, several times larger and quicker to write),
  --log FILE (the library's log), --log-level N (0 trace .. 7 fatal; default 4)
)";

namespace {

// A whole number; `range` names the allowed values when a number outside them is refused
// ("0 to 30"), else that refusal reads as any other.
template <class T>
T Integer(const std::string& name, const std::string& text, T low, T high, const char* range = nullptr) {
    errno = 0;
    char* end = nullptr;
    const long long value = std::strtoll(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || errno == ERANGE)
        throw UsageError(name + " takes a whole number, not '" + text + "'");
    if (value < static_cast<long long>(low) || value > static_cast<long long>(high))
        throw UsageError(range ? name + " takes " + range + ", not " + text
                               : name + " takes a whole number, not '" + text + "'");
    return static_cast<T>(value);
}

double Number(const std::string& name, const std::string& text) {
    errno = 0;
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || errno == ERANGE) throw UsageError(name + " takes numbers, not '" + text + "'");
    return value;
}

std::array<double, 4> Box(const std::string& text) {
    std::array<double, 4> box{};
    size_t start = 0;
    for (size_t i = 0; i < 4; ++i) {
        const size_t comma = text.find(',', start);
        if ((i < 3) != (comma != std::string::npos))
            throw UsageError("--bbox takes four numbers: min x, min y, max x, max y");
        box[i] = Number("--bbox", text.substr(start, comma == std::string::npos ? std::string::npos : comma - start));
        start = comma + 1;
    }
    for (double value : box)
        if (!std::isfinite(value)) throw UsageError("--bbox takes finite numbers, not '" + text + "'");
    if (box[0] > box[2] || box[1] > box[3]) throw UsageError("--bbox: the minimum must not exceed the maximum");
    if (box[0] == box[2] || box[1] == box[3]) throw UsageError("--bbox: the box has no area");
    return box;
}

std::array<uint32_t, 2> Size(const std::string& text) {
    const size_t by = text.find_first_of("xX");
    if (by == std::string::npos) throw UsageError("--size takes WIDTHxHEIGHT");
    return {Integer<uint32_t>("--size", text.substr(0, by), 1, 65535),
            Integer<uint32_t>("--size", text.substr(by + 1), 1, 65535)};
}

// Seconds, more than none and at most a day, to milliseconds.
uint32_t Timeout(const std::string& text) {
    const double seconds = Number("--timeout", text);
    if (!(seconds > 0 && seconds <= 86400)) throw UsageError("--timeout takes seconds from 0 to 86400, not " + text);
    return static_cast<uint32_t>(std::ceil(seconds * 1000));
}

// K/N with K from 0 to N-1 and N from 1 to a million.
std::array<uint32_t, 2> Part(const std::string& text) {
    const size_t slash = text.find('/');
    const std::string refusal = "--part takes K/N, a share K from 0 to N-1 of N from 1 to 1000000, not '" + text + "'";
    if (slash == std::string::npos) throw UsageError(refusal);
    const auto whole = [&](const std::string& digits) {
        if (digits.empty() || digits.size() > 7 || digits.find_first_not_of("0123456789") != std::string::npos)
            throw UsageError(refusal);
        return static_cast<uint32_t>(std::stoul(digits));
    };
    const uint32_t index = whole(text.substr(0, slash)), count = whole(text.substr(slash + 1));
    if (count < 1 || count > 1000000 || index >= count) throw UsageError(refusal);
    return {index, count};
}

void SetService(Options& options, ServiceKind kind, const std::string& option, const std::string& url) {
    if (options.kind != ServiceKind::None) throw UsageError("give exactly one of --tms, --wms, --wmts and --wcs");
    const auto startsWith = [&](const char* scheme) {
        const size_t n = std::char_traits<char>::length(scheme);
        if (url.size() <= n) return false;
        for (size_t i = 0; i < n; ++i)
            if (std::tolower(static_cast<unsigned char>(url[i])) != scheme[i]) return false;
        return true;
    };
    if (!startsWith("http://") && !startsWith("https://"))
        throw UsageError(option + " takes an http:// or https:// URL, not '" + url + "'");
    options.kind = kind;
    options.url = url;
}

// The tile grid of a --tms service, in the CRS its boxes are read in, drawn a hair inside its
// edges: the right and the bottom edge themselves lie in a column and a row past the last.
std::optional<std::array<double, 4>> TmsGrid(uint32_t boxEpsg) {
    if (boxEpsg == 4326) {
        const double latitude = std::atan(std::sinh(M_PI)) * 180 / M_PI - 1e-9;
        return std::array<double, 4>{-180 + 1e-9, -latitude, 180 - 1e-9, latitude};
    }
    if (boxEpsg == 3857) {
        const double half = 20037508.342789244 - 1e-3;
        return std::array<double, 4>{-half, -half, half, half};
    }
    return std::nullopt;
}

void Require(bool present, const std::string& what) {
    if (!present) throw UsageError(what);
}

void CheckCommand(const Options& o) {
    static const char* const commands[] = {"info", "tile", "mosaic", "map", "coverage", "seed", "demo"};
    bool known = false;
    for (const char* c : commands) known = known || o.command == c;
    if (!known) throw UsageError("unknown command '" + o.command + "'");

    if (o.command == "demo") {
        Require(o.kind == ServiceKind::None, "demo serves its own tiles and takes no service");
        return;
    }
    Require(o.kind != ServiceKind::None, "give one of --tms, --wms, --wmts and --wcs");
    if (o.kind == ServiceKind::Tms || o.kind == ServiceKind::Wms || o.kind == ServiceKind::Wcs)
        Require(o.epsg.has_value(), "this service needs --epsg");
    if (o.kind == ServiceKind::Wmts) Require(o.layer.has_value(), "--wmts needs --layer");

    const bool needsOutput = o.command != "info" && o.command != "seed";
    if (needsOutput) Require(o.output.has_value(), o.command + " needs -o FILE");
    if (o.command == "tile") Require(o.zoom && o.x && o.y, "tile needs --zoom, --x and --y");
    if (o.command == "mosaic") Require(o.zoom && o.bbox, "mosaic needs --zoom and --bbox");
    if (o.command == "map" || o.command == "coverage")
        Require(o.bbox && o.size, o.command + " needs --bbox and --size");
    if (o.command == "map") Require(o.kind == ServiceKind::Wms, "map needs a --wms service");
    if (o.command == "coverage") Require(o.kind == ServiceKind::Wcs, "coverage needs a --wcs service");
    if (o.command == "seed") {
        Require(o.bbox && o.maxZoom, "seed needs --bbox and --max-zoom");
        Require(o.cacheDir.has_value(), "seed fills a cache: give --cache DIR");
        Require(o.minZoom.value_or(0) <= *o.maxZoom, "--min-zoom must not exceed --max-zoom");
        Require(!o.part || o.kind == ServiceKind::Tms, "--part needs a --tms service");
    } else {
        Require(!o.part.has_value(), "--part goes with seed");
    }
    Require(!o.compress.has_value() || o.command == "mosaic" || o.command == "map",
            "--compress goes with mosaic and map");
}

} // namespace

std::array<double, 4> CutToGrid(const std::array<double, 4>& box, uint32_t boxEpsg) {
    const auto grid = TmsGrid(boxEpsg);
    if (!grid) return box;
    const std::array<double, 4> cut{std::max(box[0], (*grid)[0]), std::max(box[1], (*grid)[1]),
                                    std::min(box[2], (*grid)[2]), std::min(box[3], (*grid)[3])};
    if (cut[0] >= cut[2] || cut[1] >= cut[3])
        throw UsageError(boxEpsg == 3857 ? "--bbox lies outside the tile grid: -20037508.34 to 20037508.34 m"
                                         : "--bbox lies outside the tile grid: -180 to 180, -85.0511 to 85.0511 degrees");
    return cut;
}

Options ParseCommandLine(const std::vector<std::string>& args) {
    Options o;
    using Handler = std::function<void(const std::string&)>;
    const std::map<std::string, Handler> withValue = {
        {"--tms", [&](const std::string& v) { SetService(o, ServiceKind::Tms, "--tms", v); }},
        {"--wms", [&](const std::string& v) { SetService(o, ServiceKind::Wms, "--wms", v); }},
        {"--wmts", [&](const std::string& v) { SetService(o, ServiceKind::Wmts, "--wmts", v); }},
        {"--wcs", [&](const std::string& v) { SetService(o, ServiceKind::Wcs, "--wcs", v); }},
        {"--epsg", [&](const std::string& v) { o.epsg = Integer<uint32_t>("--epsg", v, 1, 999999); }},
        {"--target-epsg",
         [&](const std::string& v) { o.targetEpsg = Integer<uint32_t>("--target-epsg", v, 1, 999999); }},
        {"--layer", [&](const std::string& v) { o.layer = v; }},
        {"--style", [&](const std::string& v) { o.style = v; }},
        {"--format", [&](const std::string& v) { o.format = v; }},
        {"--matrix-set", [&](const std::string& v) { o.matrixSet = v; }},
        {"--coverage", [&](const std::string& v) { o.coverage = v; }},
        {"--cache",
         [&](const std::string& v) {
             // An empty path would put the cache's directories at the root of the file system.
             if (v.empty()) throw UsageError("--cache needs a directory, not an empty path");
             o.cacheDir = v;
         }},
        {"--timeout", [&](const std::string& v) { o.timeoutMs = Timeout(v); }},
        {"--zoom", [&](const std::string& v) { o.zoom = Integer<int32_t>("--zoom", v, 0, 30, "0 to 30"); }},
        {"--min-zoom", [&](const std::string& v) { o.minZoom = Integer<int32_t>("--min-zoom", v, 0, 30, "0 to 30"); }},
        {"--max-zoom", [&](const std::string& v) { o.maxZoom = Integer<int32_t>("--max-zoom", v, 0, 30, "0 to 30"); }},
        {"--x", [&](const std::string& v) { o.x = Integer<int64_t>("--x", v, 0, INT32_MAX, "0 or more"); }},
        {"--y", [&](const std::string& v) { o.y = Integer<int64_t>("--y", v, 0, INT32_MAX, "0 or more"); }},
        {"--bbox", [&](const std::string& v) { o.bbox = Box(v); }},
        {"--part", [&](const std::string& v) { o.part = Part(v); }},
        {"--size", [&](const std::string& v) { o.size = Size(v); }},
        {"--time", [&](const std::string& v) { o.time = v; }},
        {"-o", [&](const std::string& v) { o.output = v; }},
        {"--png", [&](const std::string& v) { o.png = v; }},
        {"--compress",
         [&](const std::string& v) {
             if (v != "deflate" && v != "none") throw UsageError("--compress is deflate or none, not '" + v + "'");
             o.compress = v == "deflate";
         }},
        {"--log", [&](const std::string& v) { o.logFile = v; }},
        {"--log-level", [&](const std::string& v) { o.logLevel = Integer<uint32_t>("--log-level", v, 0, 8); }},
    };

    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (arg == "--help" || arg == "-h") {
            o.help = true;
            return o;
        }
        if (arg == "--quiet") {
            o.quiet = true;
        } else if (arg == "--best-effort") {
            o.bestEffort = true;
        } else if (auto it = withValue.find(arg); it != withValue.end()) {
            if (i + 1 >= args.size()) throw UsageError(arg + " needs a value");
            it->second(args[++i]);
        } else if (!arg.empty() && arg[0] == '-') {
            throw UsageError("unknown option '" + arg + "'");
        } else if (o.command.empty()) {
            o.command = arg;
        } else {
            throw UsageError("unexpected argument '" + arg + "'");
        }
    }
    if (o.command.empty()) throw UsageError("no command given");
    CheckCommand(o);
    if (o.kind == ServiceKind::Tms && (o.command == "mosaic" || o.command == "seed"))
        o.bbox = CutToGrid(*o.bbox, o.targetEpsg.value_or(*o.epsg));
    return o;
}

} // namespace TellarMaps
