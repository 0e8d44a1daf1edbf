#include "Tellar/Spatial/Maps/WmsServiceImpl.h"

#include "Core/AbiGuard.h"
#include "Core/Checked.h"
#include "Data/Exports.h"
#include "Data/Variant.h"
#include "Tellar/Interfaces/IBoundingBox2d.h"
#include "Wms/WmsFetcher.h"
#include "Wms/WmsRequestImpl.h"

namespace Tellar::Spatial::Maps::impl {

namespace {

using MapServices::Wms::WmsLayer;
using MapServices::Wms::impl::WmsFetcher;

} // namespace

WmsServiceImpl::WmsServiceImpl(std::unique_ptr<MapServices::Wms::WmsCapabilities> capabilities,
                               Core::Ptr<MapServices::Interfaces::ITileFetcher> fetcher,
                               Core::Ptr<Tellar::Interfaces::ICrs> crs)
    : GenericOgcMapServiceT(std::move(fetcher), std::move(crs)), capabilities_(std::move(capabilities)) {}

const WmsLayer& WmsServiceImpl::FetcherLayer() {
    return Core::Ptr<MapServices::Interfaces::ITileFetcher>(GetFetcher()).As<WmsFetcher>()->GetLayer();
}

Core::Ptr<MapServices::Interfaces::IServiceRequest> WmsServiceImpl::CreateRequest(
    const char* layer, int32_t width, int32_t height, Tellar::Interfaces::IBoundingBox2d* box,
    Data::Interfaces::IDateTime* time) {
    const std::string crs = RequestCrsName();
    MapServices::BoundingBoxValue values;
    box->GetValues(&values.minX, &values.minY, &values.maxX, &values.maxY);

    WmsLayer chosen = FetcherLayer();
    // A WMTS service has no capabilities to look a layer up in: its request has no layer.
    if (layer) chosen = capabilities_ ? capabilities_->GetLayer(layer) : WmsLayer();
    std::optional<MapServices::Wms::WmsDimension> timeDimension = chosen->GetTimeDimension();
    if (timeDimension && time) timeDimension->current = Data::FormatDateTime(*time);
    std::optional<MapServices::Wms::WmsDimension> elevation = chosen->GetElevationDimension();
    const std::string& style = Core::At(chosen->styles, 0).name;
    return MapServices::Wms::impl::CreateWmsRequest(chosen->url, {chosen}, style, crs, values,
                                                    static_cast<uint32_t>(width), static_cast<uint32_t>(height),
                                                    std::move(timeDimension), std::move(elevation));
}

bool WmsServiceImpl::SetTime(Data::Interfaces::IDateTime* time, Core::IErrorCode** ppError) {
    return Core::AbiGuard(
        [&] {
            const WmsLayer& layer = FetcherLayer();
            layer->TimeDimension().current = time ? Data::FormatDateTime(*time) : std::string();
        },
        ppError);
}

bool WmsServiceImpl::GetTime(Data::Interfaces::IDateTime** ppTime, Core::IErrorCode** ppError) {
    return Core::AbiGuard(
        [&] {
            Core::CheckResultAddress(ppTime);
            const auto dimension = FetcherLayer()->GetTimeDimension();
            if (!dimension) return;
            const std::string text = MapServices::Wms::impl::DimensionValue(*dimension);
            if (text.empty()) return;
            Core::Ptr<Data::Interfaces::IDateTime> parsed;
            Core::Ptr<Core::IErrorCode> error;
            if (!Data_CreateDateTimeFromIso8601(text.c_str(), parsed.ReceiveAddress(), error.ReceiveAddress()))
                Core::ThrowIfError(error);
            *ppTime = parsed.Detach();
        },
        ppError);
}

} // namespace Tellar::Spatial::Maps::impl
