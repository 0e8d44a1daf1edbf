#pragma once
#include <memory>

#include "MapServices/Wms/WmsCapabilities.h"
#include "Tellar/Spatial/Maps/GenericOgcMapServiceT.h"

namespace Tellar::Spatial::Maps::impl {

// The service of one WMS layer, owning the parsed capabilities; also the service of a WMTS
// layer, which has none and answers tiles only.
class WmsServiceImpl final : public GenericOgcMapServiceT<Tellar::Interfaces::IOgcMapService> {
public:
    WmsServiceImpl(std::unique_ptr<MapServices::Wms::WmsCapabilities> capabilities,
                   Core::Ptr<MapServices::Interfaces::ITileFetcher> fetcher, Core::Ptr<Tellar::Interfaces::ICrs> crs);

    // Sets the selected value of the layer's time dimension (null: none, the default applies).
    bool SetTime(Data::Interfaces::IDateTime* time, Core::IErrorCode** ppError) override;
    // The selected value of the time dimension, else its default; null when neither is there.
    bool GetTime(Data::Interfaces::IDateTime** ppTime, Core::IErrorCode** ppError) override;
    // A GetMap of `layer` (null: the service's own) with its first style, time and elevation.
    Core::Ptr<MapServices::Interfaces::IServiceRequest> CreateRequest(const char* layer, int32_t width, int32_t height,
                                                                       Tellar::Interfaces::IBoundingBox2d* box,
                                                                       Data::Interfaces::IDateTime* time) override;

    const MapServices::Wms::WmsCapabilities* GetCapabilities() const { return capabilities_.get(); }

private:
    ~WmsServiceImpl() override = default;

    const MapServices::Wms::WmsLayer& FetcherLayer();

    std::unique_ptr<MapServices::Wms::WmsCapabilities> capabilities_;
};

} // namespace Tellar::Spatial::Maps::impl
