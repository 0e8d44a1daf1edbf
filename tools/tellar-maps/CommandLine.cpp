#include "CommandLine.h"

#include <cerrno>
#include <cstdlib>
#include <functional>
#include <map>

namespace TellarMaps {

const char* const UsageText = R"(usage: tellar-maps COMMAND SERVICE [options]

Commands:
  info                                         what the factory bound
  tile --zoom Z --x X --y Y -o FILE            one tile's bytes
  mosaic --zoom Z --bbox A,B,C,D [--best-effort] -o FILE.tif
  map --bbox A,B,C,D --size WxH [--time ISO] -o FILE.tif
  coverage --bbox A,B,C,D --size WxH [--time ISO] -o FILE.tif
  seed --bbox A,B,C,D --max-zoom Z [--min-zoom Z0]    (needs --cache)
  demo [-o DIR]                                serves its own tiles; no service options

Service (exactly one):
  --tms URL --epsg 3857|4326
  --wms URL [--layer NAME] [--style S] [--format image/png] --epsg N
  --wmts URL --layer NAME [--style S] [--format F] [--matrix-set ID]
  --wcs URL [--coverage NAME] [--format GeoTIFF] --epsg N
  [--cache DIR]            use the cached factory with DIR
  [--target-epsg N]        answer in this CRS

Options: --quiet, --png FILE (8-bit preview beside a .tif), --help,
  --log FILE (the library's log), --log-level N (0 trace .. 7 fatal; default 4)
)";

namespace {

template <class T>
T Integer(const std::string& name, const std::string& text, T low, T high) {
    errno = 0;
    char* end = nullptr;
    const long long value = std::strtoll(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || errno == ERANGE || value < static_cast<long long>(low) ||
        value > static_cast<long long>(high))
        throw UsageError(name + " takes a whole number, not '" + text + "'");
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
    if (box[0] > box[2] || box[1] > box[3]) throw UsageError("--bbox: the minimum must not exceed the maximum");
    return box;
}

std::array<uint32_t, 2> Size(const std::string& text) {
    const size_t by = text.find_first_of("xX");
    if (by == std::string::npos) throw UsageError("--size takes WIDTHxHEIGHT");
    return {Integer<uint32_t>("--size", text.substr(0, by), 1, 65535),
            Integer<uint32_t>("--size", text.substr(by + 1), 1, 65535)};
}

void SetService(Options& options, ServiceKind kind, const std::string& url) {
    if (options.kind != ServiceKind::None) throw UsageError("give exactly one of --tms, --wms, --wmts and --wcs");
    options.kind = kind;
    options.url = url;
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
    }
}

} // namespace

Options ParseCommandLine(const std::vector<std::string>& args) {
    Options o;
    using Handler = std::function<void(const std::string&)>;
    const std::map<std::string, Handler> withValue = {
        {"--tms", [&](const std::string& v) { SetService(o, ServiceKind::Tms, v); }},
        {"--wms", [&](const std::string& v) { SetService(o, ServiceKind::Wms, v); }},
        {"--wmts", [&](const std::string& v) { SetService(o, ServiceKind::Wmts, v); }},
        {"--wcs", [&](const std::string& v) { SetService(o, ServiceKind::Wcs, v); }},
        {"--epsg", [&](const std::string& v) { o.epsg = Integer<uint32_t>("--epsg", v, 1, 999999); }},
        {"--target-epsg",
         [&](const std::string& v) { o.targetEpsg = Integer<uint32_t>("--target-epsg", v, 1, 999999); }},
        {"--layer", [&](const std::string& v) { o.layer = v; }},
        {"--style", [&](const std::string& v) { o.style = v; }},
        {"--format", [&](const std::string& v) { o.format = v; }},
        {"--matrix-set", [&](const std::string& v) { o.matrixSet = v; }},
        {"--coverage", [&](const std::string& v) { o.coverage = v; }},
        {"--cache", [&](const std::string& v) { o.cacheDir = v; }},
        {"--zoom", [&](const std::string& v) { o.zoom = Integer<int32_t>("--zoom", v, 0, 30); }},
        {"--min-zoom", [&](const std::string& v) { o.minZoom = Integer<int32_t>("--min-zoom", v, 0, 30); }},
        {"--max-zoom", [&](const std::string& v) { o.maxZoom = Integer<int32_t>("--max-zoom", v, 0, 30); }},
        {"--x", [&](const std::string& v) { o.x = Integer<int64_t>("--x", v, INT32_MIN, INT32_MAX); }},
        {"--y", [&](const std::string& v) { o.y = Integer<int64_t>("--y", v, INT32_MIN, INT32_MAX); }},
        {"--bbox", [&](const std::string& v) { o.bbox = Box(v); }},
        {"--size", [&](const std::string& v) { o.size = Size(v); }},
        {"--time", [&](const std::string& v) { o.time = v; }},
        {"-o", [&](const std::string& v) { o.output = v; }},
        {"--png", [&](const std::string& v) { o.png = v; }},
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
    return o;
}

} // namespace TellarMaps
