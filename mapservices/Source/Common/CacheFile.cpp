#include "MapServices/Common/CacheFile.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <string_view>
#include <system_error>
#include <unordered_map>

#include "Core/Checked.h"
#include "Core/StringFormat.h"

namespace MapServices {

namespace {

// Unique among threads and among the calls of one thread.
std::string TemporaryNameFor(const std::string& path) {
    static std::atomic<uint64_t> counter{0};
    thread_local const long thread = static_cast<long>(::syscall(SYS_gettid));
    return Core::StringFormat("%s.%ld.%llu.part", path.c_str(), thread, static_cast<unsigned long long>(++counter));
}

// A temporary file this old was left by a writer that died before its rename: nothing writes
// to one for that long.
constexpr std::chrono::hours StaleAge{1};
// How often one directory is looked through, at most: a zoom level's directory may hold a great
// many tiles, and the write that pays for the listing may be on the transport thread.
constexpr std::chrono::hours SweepInterval{1};
// Directories remembered before the ones not swept lately are forgotten.
constexpr size_t SweptDirectoriesKept = 4096;

// Whether `name` is one of ours: "<file>.<digits>.<digits>.part".
bool IsTemporaryName(std::string_view name) {
    constexpr std::string_view suffix = ".part";
    if (name.size() <= suffix.size() || name.substr(name.size() - suffix.size()) != suffix) return false;
    name.remove_suffix(suffix.size());
    for (int field = 0; field < 2; ++field) {
        const size_t dot = name.rfind('.');
        if (dot == std::string_view::npos || dot + 1 == name.size()) return false;
        for (const char c : name.substr(dot + 1))
            if (c < '0' || c > '9') return false;
        name = name.substr(0, dot);
    }
    return !name.empty();
}

// Whether `directory` is due a sweep; notes the sweep when it is.
bool TakeSweepTurn(const std::filesystem::path& directory) {
    static std::mutex mutex;
    static std::unordered_map<std::string, std::chrono::steady_clock::time_point> swept;
    const auto now = std::chrono::steady_clock::now();
    std::lock_guard lock(mutex);
    if (swept.size() >= SweptDirectoriesKept)
        std::erase_if(swept, [&](const auto& entry) { return now - entry.second >= SweepInterval; });
    if (swept.size() >= SweptDirectoriesKept) swept.clear();
    auto [entry, added] = swept.try_emplace(directory.string(), now);
    if (!added) {
        if (now - entry->second < SweepInterval) return false;
        entry->second = now;
    }
    return true;
}

// Removes the temporary files of `directory` that are older than StaleAge. Never fails: a file
// that can't be looked at or removed is left for a later sweep.
void SweepStaleTemporaries(const std::filesystem::path& directory) {
    if (!TakeSweepTurn(directory)) return;
    namespace fs = std::filesystem;
    std::error_code error;
    fs::directory_iterator it(directory, error);
    if (error) return;
    const auto cutoff = fs::file_time_type::clock::now() - StaleAge;
    for (; it != fs::directory_iterator(); it.increment(error)) {
        if (error) return;
        if (!IsTemporaryName(it->path().filename().native())) continue;
        std::error_code ignored;
        if (!it->is_regular_file(ignored)) continue;
        const auto written = it->last_write_time(ignored);
        if (!ignored && written < cutoff) fs::remove(it->path(), ignored);
    }
}

} // namespace

void WriteCacheFile(const Platform::Network::Http::HttpResponse& response, const std::string& target) {
    // A run killed between writing and renaming leaves its temporary file behind; a later write
    // into the same directory takes the old ones away.
    const std::filesystem::path directory = std::filesystem::path(target).parent_path();
    SweepStaleTemporaries(directory.empty() ? std::filesystem::path(".") : directory);
    const std::string temporary = TemporaryNameFor(target);
    bool saved = false;
    try {
        saved = response.Get()->SaveToFile(temporary.c_str());
    } catch (...) {
        std::error_code ignored;
        std::filesystem::remove(temporary, ignored);
        throw;
    }
    std::error_code error;
    if (!saved) {
        std::filesystem::remove(temporary, error);
        return;
    }
    std::filesystem::rename(temporary, target, error);
    if (error) {
        std::error_code ignored;
        std::filesystem::remove(temporary, ignored);
        Core::ThrowFileSystemError("rename", temporary, error);
    }
}

bool IsTileContentType(const char* header) {
    const std::string_view type = header ? header : "";
    return type.find("mapbox") != std::string_view::npos || type.find("octet-stream") != std::string_view::npos ||
           type.find("image") != std::string_view::npos;
}

} // namespace MapServices
