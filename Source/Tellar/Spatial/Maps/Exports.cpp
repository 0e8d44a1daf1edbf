// The entry points of libTellar.Spatial.Maps.so: the only symbols the library exports.
#include "Tellar/Spatial/Maps/Exports.h"

#include <stdexcept>
#include <string>

#include "Core/AbiGuard.h"
#include "Tellar/Interfaces/IEpsg.h"
#include "Tellar/Spatial/Maps/MapServiceImpl.h"
#include "Tms/TmsFetcherImpl.h"

namespace {

using Tellar::Interfaces::ICrs;
using Tellar::Interfaces::IEpsg;
using Tellar::Interfaces::IMapService;
using Tellar::Spatial::Maps::impl::MapServiceImpl;

Core::Ptr<ICrs> CreateCrs(IEpsg* epsg, uint32_t epsgCode) {
    if (!epsg) Core::detail::ThrowNullPointer(Core::TypeName<IEpsg>());
    Core::Ptr<ICrs> crs;
    Core::Ptr<Core::IErrorCode> error;
    if (!epsg->CreateCrs(epsgCode, crs.ReceiveAddress(), error.ReceiveAddress())) Core::ThrowIfError(error);
    return crs;
}

// What every factory does last: turn the cache on when a directory was given, hand the
// service over.
template <class Service>
void Finish(const Core::Ptr<Service>& service, const char* cacheDir, IMapService** ppService) {
    if (cacheDir) {
        service->GetFetcher()->SetCacheEnabled(true);
        service->GetFetcher()->SetCacheRoot(std::string(cacheDir));
    }
    *ppService = Core::Ptr<IMapService>(service).Detach();
}

} // namespace

void TellarSpatialMaps_SetLogger(Core::IObject*) {}

bool TellarSpatialMaps_CreateCachedMapServiceFromTmsUrl(IEpsg* epsg, const char* cacheDir, const char* url,
                                                        uint32_t epsgCode, IMapService** ppService,
                                                        Core::IErrorCode** ppError) {
    return Core::AbiGuard(
        [&] {
            Core::ThrowIfNull(url);
            Core::CheckResultAddress(ppService);
            if (epsgCode != 4326 && epsgCode != 3857) throw std::runtime_error("Only EPSG 4326 and 3857 are supported");
            Core::Ptr<MapServices::Interfaces::ITileFetcher> fetcher =
                Core::MakeObject<MapServices::Tms::impl::TmsFetcherImpl>(std::string(url), 0);
            Core::Ptr<ICrs> crs = CreateCrs(epsg, epsgCode);
            Finish(Core::MakeObject<MapServiceImpl>(std::move(fetcher), std::move(crs)), cacheDir, ppService);
        },
        ppError);
}

bool TellarSpatialMaps_CreateMapServiceFromTmsUrl(IEpsg* epsg, const char* url, uint32_t epsgCode,
                                                  IMapService** ppService, Core::IErrorCode** ppError) {
    return TellarSpatialMaps_CreateCachedMapServiceFromTmsUrl(epsg, nullptr, url, epsgCode, ppService, ppError);
}
