#pragma once
#include "Tellar/Spatial/Maps/GenericOgcMapServiceT.h"

namespace Tellar::Spatial::Maps::impl {

// The service of one WCS coverage: its data come as the server's TIFF bytes.
class WcsServiceImpl final : public GenericOgcMapServiceT<Tellar::Interfaces::IOgcMapService> {
public:
    using GenericOgcMapServiceT::GenericOgcMapServiceT;

    // The time later requests (tiles included) ask for; null asks for none.
    bool SetTime(Data::Interfaces::IDateTime* time, Core::IErrorCode** ppError) override;
    // A copy of that time; null when there is none.
    bool GetTime(Data::Interfaces::IDateTime** ppTime, Core::IErrorCode** ppError) override;
    // A GetCoverage of `layer` (null: the service's coverage) at `time` (null: the service's).
    Core::Ptr<MapServices::Interfaces::IServiceRequest> CreateRequest(const char* layer, int32_t width, int32_t height,
                                                                       Tellar::Interfaces::IBoundingBox2d* box,
                                                                       Data::Interfaces::IDateTime* time) override;

private:
    ~WcsServiceImpl() override = default;
};

} // namespace Tellar::Spatial::Maps::impl
