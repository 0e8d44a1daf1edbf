#pragma once
#include <cstdint>
#include <string>

#include "Common/TileFetcherBase.h"
#include "Core/ObjectImplBase.h"

namespace MapServices::Tms::impl {

// A tile server addressed by a URL template with the marks {x}, {y} and {z}.
class TmsFetcherImpl : public Core::ObjectImplBase<MapServices::impl::TileFetcherBase> {
public:
    // A URL with "pbf" anywhere in it serves vector tiles, whatever `tileFormat` says.
    TmsFetcherImpl(const std::string& url, int32_t tileFormat);

    // The template's path with every mark replaced; the row is used as given.
    std::string BuildTilePath(int32_t z, int32_t x, int32_t y) const;
    Platform::Network::Http::HttpRequest CreateTileHttpRequest(int32_t z, int32_t x, int32_t y) override;
    uint64_t GetCacheHash() override;
    const std::string& GetTemplate() const { return template_; }

protected:
    ~TmsFetcherImpl() override = default;

private:
    std::string template_;
};

} // namespace MapServices::Tms::impl
