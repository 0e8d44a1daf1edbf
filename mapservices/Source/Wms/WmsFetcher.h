#pragma once
#include <cstdint>
#include <string>

#include "Common/ServiceTileFetcherBase.h"
#include "Core/ObjectImplBase.h"
#include "MapServices/Wms/WmsCapabilities.h"

namespace MapServices::Wms::impl {

// The fetcher of one layer of a WMS server: a tile becomes a GetMap call for the tile's box in
// degrees ("CRS:84"); the services ask for pictures of their own boxes through GetMapAsync.
class WmsFetcher : public Core::ObjectImplBase<MapServices::impl::ServiceTileFetcherBase> {
public:
    explicit WmsFetcher(WmsLayer layer);

    Platform::Network::Http::HttpRequest CreateTileHttpRequest(int32_t zoom, int32_t x, int32_t y) override;
    uint64_t GetCacheHash() override;
    Platform::Network::Http::HttpRequest CreateServiceHttpRequest(
        const Core::Ptr<Interfaces::IServiceRequest>& request) override;
    bool IsRequestInBounds(const Core::Ptr<Interfaces::IServiceRequest>& request) override;

    const WmsLayer& GetLayer() const { return layer_; }
    const std::string& GetCrs() const { return crs_; }
    bool GetSwapAxes() const { return swapAxes_; }

protected:
    ~WmsFetcher() override = default;

private:
    std::string format_ = "image/png";
    std::string crs_ = "CRS:84";
    WmsLayer layer_;
    bool swapAxes_ = false;
};

} // namespace MapServices::Wms::impl
