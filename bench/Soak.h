// What the two soak benchmarks share: one tile body that nginx serves for every tile address, the
// tile addresses of a run, and a record of the process's resident memory and open descriptors.
#pragma once
#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "LoopbackNginx.h"

namespace Soak {

// SOAK_REQUESTS sets another count, for a longer soak.
inline const int32_t Requests = [] {
    const char* text = std::getenv("SOAK_REQUESTS");
    const int32_t count = text ? std::atoi(text) : 0;
    return count >= 10 ? count : 100000;
}();
constexpr int32_t InFlight = 4096;
// Zoom 9 has 512 x 512 tiles: every request of a run asks for a tile of its own.
constexpr int32_t Zoom = 9;
constexpr int32_t Side = 1 << Zoom;
constexpr int32_t TileX(int32_t i) { return i % Side; }
constexpr int32_t TileY(int32_t i) { return (i / Side) % Side; }

// A PNG signature and IHDR in front of 3 KiB of filler: the bytes a tile carries, not a picture.
inline std::string TileBody() {
    static const unsigned char head[] = {0x89, 'P', 'N', 'G',  0x0D, 0x0A, 0x1A, 0x0A, 0x00, 0x00, 0x00, 0x0D, 'I',
                                         'H',  'D', 'R', 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x01, 0x00, 0x08, 0x06};
    std::string body(reinterpret_cast<const char*>(head), sizeof head);
    for (uint32_t i = 0; body.size() < 3072; ++i) body.push_back(static_cast<char>((i * 2654435761u) >> 24));
    return body;
}

// An nginx in a temporary directory of its own that answers every tile address with `body`, from
// www/tile.png there; the directory goes with it.
class OneTileServer {
public:
    explicit OneTileServer(const char* name) : body(TileBody()) {
        std::string pattern = std::string("/tmp/") + name + ".XXXXXX";
        if (::mkdtemp(pattern.data())) dir_ = pattern;
    }
    ~OneTileServer() {
        if (nginx_) nginx_->Stop();
        std::error_code ignored;
        if (!dir_.empty()) std::filesystem::remove_all(dir_, ignored);
    }
    bool Start() {
        if (dir_.empty()) return false;
        std::filesystem::create_directories(dir_ / "www");
        std::ofstream(dir_ / "www" / "tile.png", std::ios::binary)
            .write(body.data(), static_cast<std::streamsize>(body.size()));
        nginx_ = std::make_unique<Bench::LoopbackNginx>(
            dir_, "    root " + (dir_ / "www").string() +
                      ";\n    types { image/png png; }\n    location / { rewrite ^ /tile.png break; }");
        if (nginx_->Start()) return true;
        std::fprintf(stderr, "nginx could not start\n");
        return false;
    }
    std::string UrlTemplate() const { return nginx_->Base() + "/{z}/{x}/{y}.png"; }

    const std::string body;

private:
    std::filesystem::path dir_;
    std::unique_ptr<Bench::LoopbackNginx> nginx_;
};

inline double ResidentMiB() {
    std::ifstream statm("/proc/self/statm");
    uint64_t size = 0, resident = 0;
    statm >> size >> resident;
    return static_cast<double>(resident) * static_cast<double>(::sysconf(_SC_PAGESIZE)) / (1024.0 * 1024.0);
}

inline int32_t OpenDescriptors() {
    int32_t count = 0;
    if (DIR* fds = ::opendir("/proc/self/fd")) {
        while (const dirent* entry = ::readdir(fds)) count += entry->d_name[0] != '.';
        ::closedir(fds);
    }
    return count - 1; // the directory's own descriptor
}

// Resident memory and descriptors every tenth of the run. The allocator's arenas grow in steps for
// a while and then go up and down, so flat means that the highest resident size of the second half
// of the run is within `slackMiB` of the highest of the first half (a leak of a kilobyte a request
// would add 50 MiB over 50,000 requests), and that no descriptor is added after the first half.
class Record {
public:
    void Sample(int32_t done) {
        samples_.push_back({done, ResidentMiB(), OpenDescriptors(),
                            std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count()});
    }
    bool Report(const char* road, double slackMiB = 16) const {
        std::printf("%s: %d requests, %d in flight\n  %9s %10s %5s %8s\n", road, Requests, InFlight, "done", "RSS MiB",
                    "fds", "seconds");
        for (const Sample_& s : samples_) std::printf("  %9d %10.1f %5d %8.2f\n", s.done, s.rss, s.fds, s.seconds);
        double firstRss = 0, secondRss = 0;
        int32_t firstFds = 0, secondFds = 0;
        for (size_t i = 1; i < samples_.size(); ++i) {
            const bool first = samples_[i].done <= Requests / 2;
            (first ? firstRss : secondRss) = std::max(first ? firstRss : secondRss, samples_[i].rss);
            (first ? firstFds : secondFds) = std::max(first ? firstFds : secondFds, samples_[i].fds);
        }
        const bool flat = firstRss > 0 && secondRss <= firstRss + slackMiB && secondFds <= firstFds;
        std::printf("  highest in the first half %.1f MiB, %d fds; in the second half %.1f MiB, %d fds: %s\n", firstRss,
                    firstFds, secondRss, secondFds, flat ? "flat" : "GROWING");
        return flat;
    }

private:
    struct Sample_ {
        int32_t done;
        double rss;
        int32_t fds;
        double seconds;
    };
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
    std::vector<Sample_> samples_;
};

} // namespace Soak
