#include "Tellar/Spatial/Maps/WcsServiceImpl.h"

#include "Core/AbiGuard.h"
#include "Core/StringFormat.h"
#include "Tellar/Interfaces/IBoundingBox2d.h"
#include "Wcs/WcsFetcher.h"
#include "Wcs/WcsRequestImpl.h"

namespace Tellar::Spatial::Maps::impl {

namespace {

MapServices::Wcs::impl::WcsFetcher* FetcherOf(MapServices::Interfaces::ITileFetcher* fetcher) {
    return Core::Ptr<MapServices::Interfaces::ITileFetcher>(fetcher).As<MapServices::Wcs::impl::WcsFetcher>().Raw();
}

} // namespace

Core::Ptr<MapServices::Interfaces::IServiceRequest> WcsServiceImpl::CreateRequest(
    const char* layer, int32_t width, int32_t height, Tellar::Interfaces::IBoundingBox2d* box,
    Data::Interfaces::IDateTime* time) {
    const std::string crs = RequestCrsName();
    MapServices::BoundingBoxValue values;
    box->GetValues(&values.minX, &values.minY, &values.maxX, &values.maxY);
    MapServices::Wcs::impl::WcsFetcher* fetcher = FetcherOf(GetFetcher());
    const std::string coverage = layer ? std::string(layer) : fetcher->GetLayer()->name;
    Data::DateTime when = time ? Data::DateTime(Core::Ptr<Data::Interfaces::IDateTime>(time)) : fetcher->GetTime();
    return Core::MakeObject<MapServices::Wcs::impl::WcsRequestImpl>("1.0.0", coverage, crs, values,
                                                                    static_cast<uint32_t>(width),
                                                                    static_cast<uint32_t>(height), std::move(when));
}

bool WcsServiceImpl::SetTime(Data::Interfaces::IDateTime* time, Core::IErrorCode** ppError) {
    return Core::AbiGuard(
        [&] { FetcherOf(GetFetcher())->SetTime(Data::DateTime(Core::Ptr<Data::Interfaces::IDateTime>(time))); },
        ppError);
}

bool WcsServiceImpl::GetTime(Data::Interfaces::IDateTime** ppTime, Core::IErrorCode** ppError) {
    return Core::AbiGuard(
        [&] {
            Core::CheckResultAddress(ppTime);
            const Data::DateTime& time = FetcherOf(GetFetcher())->GetTime();
            if (!time.Raw()) return;
            // A new object of the same instant, to the nanosecond.
            const std::string text = Core::StringFormat(
                "%04d-%02d-%02dT%02d:%02d:%02d.%09dZ", time->GetYear(), time->GetMonth(), time->GetDay(),
                time->GetHour(), time->GetMinute(), time->GetSecond(), time->GetNanoseconds());
            *ppTime = Data::DateTime::FromIso8601(text.c_str()).Detach();
        },
        ppError);
}

} // namespace Tellar::Spatial::Maps::impl
