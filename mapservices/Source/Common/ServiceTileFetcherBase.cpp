#include "ServiceTileFetcherBase.h"

#include "Core/StringFormat.h"

namespace MapServices::impl {

std::string ServiceTileFetcherBase::GetDirPath() {
    return MakeCacheDirectory(
        Core::StringFormat("%s/%s/%u", cacheRoot_.c_str(), cacheFolder_.c_str(), static_cast<uint32_t>(GetCacheHash())),
        "MapServices::impl::ServiceTileFetcherBase::GetDirPath");
}

std::string ServiceTileFetcherBase::ServiceFilePath(uint64_t requestHash) {
    const std::string name =
        Core::StringFormat("%llu%s", static_cast<unsigned long long>(requestHash), fileExtension_.c_str());
    return Core::StringFormat("%s/%s", GetDirPath().c_str(), name.c_str());
}

} // namespace MapServices::impl
