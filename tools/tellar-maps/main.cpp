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

const char* KindName(ServiceKind kind) {
    switch (kind) {
    case ServiceKind::Wms: return "wms";
    case ServiceKind::Wmts: return "wmts";
    case ServiceKind::Wcs: return "wcs";
    default: return "tms";
    }
}

JsonObject Run(const Options& options) {
    Progress progress(Progress::Wanted(options.quiet));
    if (options.command == "demo") return RunDemo(options.output.value_or("."), progress);

    if (options.cacheDir) CheckCacheDirectory(*options.cacheDir);
    // This thread made the service: the completions of its tasks run here, in AwaitTask.
    const TmsService opened = OpenService(options);
    Tellar::Interfaces::IMapService* service = opened.service.Raw();
    if (options.timeoutMs) SetHttpTimeouts(service, *options.timeoutMs);
    if (options.command == "info") return RunInfo(service, KindName(options.kind));
    if (options.command == "tile")
        return RunTile(service, *options.zoom, *options.x, *options.y, *options.output, options.timeoutMs);
    if (options.command == "mosaic") {
        MosaicJob job;
        job.zoom = *options.zoom;
        job.bbox = *options.bbox;
        job.bestEffort = options.bestEffort;
        job.tiff = *options.output;
        job.png = options.png;
        job.compress = options.compress.value_or(true);
        job.timeoutMs = options.timeoutMs;
        return RunMosaic(service, job, progress);
    }
    if (options.command == "map" || options.command == "coverage") {
        PictureJob job;
        job.bbox = *options.bbox;
        job.width = (*options.size)[0];
        job.height = (*options.size)[1];
        job.time = options.time;
        job.output = *options.output;
        job.png = options.png;
        job.compress = options.compress.value_or(true);
        return options.command == "map" ? RunMap(service, job) : RunCoverage(service, job);
    }
    // The command line admits nothing else.
    SeedJob job;
    job.bbox = *options.bbox;
    job.minZoom = options.minZoom.value_or(0);
    job.maxZoom = *options.maxZoom;
    job.timeoutMs = options.timeoutMs;
    if (options.part) job.part = SeedJob::Part{(*options.part)[0], (*options.part)[1]};
    return RunSeed(service, job, progress);
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
    try {
        const std::string json = Run(options).Text();
        std::printf("%s\n", json.c_str());
        return 0;
    } catch (const FailureWithReport& e) {
        log.MarkFailed();
        std::printf("%s\n", e.report.Text().c_str());
        std::fprintf(stderr, "error: %s\n", e.what());
        return 1;
    } catch (const std::exception& e) {
        log.MarkFailed();
        std::fprintf(stderr, "error: %s\n", e.what());
        return 1;
    }
}
