#pragma once
#include <cstdint>
#include <string>

#include "Common/ServiceTileFetcherBase.h"
#include "Core/ObjectImplBase.h"
#include "Data/Values.h"
#include "MapServices/Wcs/WcsCapabilities.h"

namespace MapServices::Wcs::impl {

// The fetcher of one coverage of a WCS 1.0.0 server, by GET or by POST as the layer says. A
// tile becomes a GetCoverage call for the tile's box in degrees ("EPSG:4326"); answers are TIFF.
class WcsFetcher : public Core::ObjectImplBase<MapServices::impl::ServiceTileFetcherBase> {
public:
    explicit WcsFetcher(WcsLayer layer);

    Platform::Network::Http::HttpRequest CreateTileHttpRequest(int32_t zoom, int32_t x, int32_t y) override;
    uint64_t GetCacheHash() override;
    Platform::Network::Http::HttpRequest CreateServiceHttpRequest(
        const Core::Ptr<Interfaces::IServiceRequest>& request) override;
    bool IsRequestInBounds(const Core::Ptr<Interfaces::IServiceRequest>& request) override;

    const WcsLayer& GetLayer() const { return layer_; }
    const std::string& GetCrs() const { return crs_; }
    // The time the service asks its coverages for; tile requests carry none.
    const Data::DateTime& GetTime() const { return time_; }
    void SetTime(Data::DateTime time) { time_ = std::move(time); }

protected:
    ~WcsFetcher() override = default;

private:
    std::string format_ = "GeoTIFF";
    std::string crs_ = "EPSG:4326";
    WcsLayer layer_;
    Data::DateTime time_;
};

} // namespace MapServices::Wcs::impl
