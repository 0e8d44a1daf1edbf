// tellar-maps: the command-line host of the map-service library.
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "CommandLine.h"
#include "Commands.h"
#include "Demo.h"
#include "Library.h"
#include "LogFile.h"
#include "Progress.h"

namespace {

using namespace TellarMaps;

const char* ServiceOption(ServiceKind kind) {
    switch (kind) {
    case ServiceKind::Wms: return "--wms";
    case ServiceKind::Wmts: return "--wmts";
    case ServiceKind::Wcs: return "--wcs";
    default: return "--tms";
    }
}

JsonObject Run(const Options& options) {
    Progress progress(Progress::Wanted(options.quiet));
    if (options.command == "demo") return RunDemo(options.output.value_or("."), progress);

    const TmsService tms = OpenTmsService(options.url, *options.epsg, options.cacheDir, options.targetEpsg);
    Tellar::Interfaces::IMapService* service = tms.service.Raw();
    if (options.command == "info") return RunInfo(service, "tms");
    if (options.command == "tile") return RunTile(service, *options.zoom, *options.x, *options.y, *options.output);
    if (options.command == "mosaic") {
        MosaicJob job;
        job.zoom = *options.zoom;
        job.bbox = *options.bbox;
        job.bestEffort = options.bestEffort;
        job.tiff = *options.output;
        job.png = options.png;
        return RunMosaic(service, job, progress);
    }
    // The command line admits nothing else for a tile server.
    return RunSeed(service, *options.bbox, options.minZoom.value_or(0), *options.maxZoom, progress);
}

} // namespace

int main(int argc, char** argv) {
    Options options;
    try {
        options = ParseCommandLine(std::vector<std::string>(argv + 1, argv + argc));
    } catch (const UsageError& e) {
        std::fprintf(stderr, "tellar-maps: %s\n\n%s", e.what(), UsageText);
        return 2;
    }
    if (options.help) {
        std::fputs(UsageText, stdout);
        return 0;
    }
    LogFile log;
    if (!log.Open(options.logFile, options.logLevel)) {
        std::fprintf(stderr, "error: cannot open the log file %s\n", options.logFile->c_str());
        return 1;
    }
    if (options.command != "demo" && options.kind != ServiceKind::Tms) {
        log.MarkFailed();
        std::fprintf(stderr, "error: %s services are not available in this build\n", ServiceOption(options.kind));
        return 1;
    }
    try {
        const std::string json = Run(options).Text();
        std::printf("%s\n", json.c_str());
        return 0;
    } catch (const std::exception& e) {
        log.MarkFailed();
        std::fprintf(stderr, "error: %s\n", e.what());
        return 1;
    }
}
