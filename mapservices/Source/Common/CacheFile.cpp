#include "MapServices/Common/CacheFile.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <string_view>
#include <system_error>

#include "Core/Checked.h"
#include "Core/StringFormat.h"

namespace MapServices {

namespace {

// Unique among threads and among the calls of one thread.
std::string TemporaryNameFor(const std::string& path) {
    static std::atomic<uint64_t> counter{0};
    return Core::StringFormat("%s.%ld.%llu.part", path.c_str(), static_cast<long>(::syscall(SYS_gettid)),
                              static_cast<unsigned long long>(++counter));
}

} // namespace

void WriteCacheFile(const Platform::Network::Http::HttpResponse& response, const std::string& target) {
    const std::string temporary = TemporaryNameFor(target);
    if (!response.Get()->SaveToFile(temporary.c_str())) return;
    std::error_code error;
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
