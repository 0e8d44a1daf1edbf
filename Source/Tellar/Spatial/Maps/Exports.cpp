// The entry points of libTellar.Spatial.Maps.so: the only symbols the library exports.
#include "Tellar/Spatial/Maps/Exports.h"

#include <fmt/format.h>

#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>

#include "Core/AbiGuard.h"
#include "Core/Checked.h"
#include "MapServices/Wcs/WcsCapabilities.h"
#include "MapServices/Wms/WmsCapabilities.h"
#include "MapServices/Wmts/WmtsCapabilities.h"
#include "Platform/Network/Http/HttpClient.h"
#include "Tellar/Interfaces/IEpsg.h"
#include "Tellar/Spatial/Maps/MapServiceImpl.h"
#include "Tellar/Spatial/Maps/WcsServiceImpl.h"
#include "Tellar/Spatial/Maps/WmsServiceImpl.h"
#include "Tms/TmsFetcherImpl.h"
#include "Wcs/WcsFetcher.h"
#include "Wms/WmsFetcher.h"
#include "Wmts/WmtsFetcherImpl.h"

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

// The capabilities document of an OGC service, downloaded on the calling thread. Every protocol
// reports a failure with the same text.
std::string DownloadCapabilities(const char* url) {
    Platform::Network::Http::FetchUrlTextResult result = Platform::Network::Http::FetchUrlText(url, nullptr);
    if (!result.success) throw std::runtime_error(fmt::format("Failed to download wms caps from {}", url));
    return std::move(result.text);
}

// Whether `list` holds an entry whose `key` equals `value`.
template <class List, class Key>
bool Holds(const List& list, Key key, const std::string& value) {
    for (const auto& entry : list)
        if (key(entry) == value) return true;
    return false;
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

bool TellarSpatialMaps_CreateCachedMapServiceFromWmsUrl(IEpsg* epsg, const char* cacheDir, const char* url,
                                                        const char* layer, const char* style, const char* format,
                                                        uint32_t epsgCode, IMapService** ppService,
                                                        Core::IErrorCode** ppError) {
    return Core::AbiGuard(
        [&] {
            Core::ThrowIfNull(url);
            Core::ThrowIfNull(format);
            Core::CheckResultAddress(ppService);
            if (std::strcmp(format, "image/png") != 0)
                throw std::runtime_error("Only image/png format is supported for now");
            auto capabilities = std::make_unique<MapServices::Wms::WmsCapabilities>(DownloadCapabilities(url));
            // Without a name, the first of the list: the last leaf layer of the document.
            MapServices::Wms::WmsLayer chosen = layer ? capabilities->GetLayer(layer) : Core::At(capabilities->layers, 0);
            if (chosen.IsNull()) throw std::runtime_error(fmt::format("Layer {} does not exists", layer));
            if (style) throw std::runtime_error("Style selection is not implemented! Use nullptr for now");
            Core::Ptr<MapServices::Interfaces::ITileFetcher> fetcher =
                Core::MakeObject<MapServices::Wms::impl::WmsFetcher>(chosen);
            Core::Ptr<ICrs> crs = CreateCrs(epsg, epsgCode);
            Finish(Core::MakeObject<Tellar::Spatial::Maps::impl::WmsServiceImpl>(std::move(capabilities),
                                                                                 std::move(fetcher), std::move(crs)),
                   cacheDir, ppService);
        },
        ppError);
}

bool TellarSpatialMaps_CreateMapServiceFromWmsUrl(IEpsg* epsg, const char* url, const char* layer, const char* style,
                                                  const char* format, uint32_t epsgCode, IMapService** ppService,
                                                  Core::IErrorCode** ppError) {
    return TellarSpatialMaps_CreateCachedMapServiceFromWmsUrl(epsg, nullptr, url, layer, style, format, epsgCode,
                                                              ppService, ppError);
}

bool TellarSpatialMaps_CreateCachedMapServiceFromWcsUrl(IEpsg* epsg, const char* cacheDir, const char* url,
                                                        const char* coverage, const char* format, uint32_t epsgCode,
                                                        IMapService** ppService, Core::IErrorCode** ppError) {
    return Core::AbiGuard(
        [&] {
            Core::ThrowIfNull(url);
            Core::ThrowIfNull(format);
            Core::CheckResultAddress(ppService);
            if (std::strcmp(format, "GeoTIFF") != 0) throw std::runtime_error("Only GeoTIFF format is supported for now");
            const MapServices::Wcs::WcsCapabilities capabilities(DownloadCapabilities(url));
            MapServices::Wcs::WcsLayer chosen;
            if (!coverage) {
                chosen = Core::At(capabilities.layers, 0);
            } else {
                for (const MapServices::Wcs::WcsLayer& entry : capabilities.layers) {
                    if (entry->name == coverage) {
                        chosen = entry;
                        break;
                    }
                }
                if (chosen.IsNull()) throw std::runtime_error("Content with name does not exist!");
            }
            Core::Ptr<MapServices::Interfaces::ITileFetcher> fetcher =
                Core::MakeObject<MapServices::Wcs::impl::WcsFetcher>(chosen);
            Core::Ptr<ICrs> crs = CreateCrs(epsg, epsgCode);
            Finish(Core::MakeObject<Tellar::Spatial::Maps::impl::WcsServiceImpl>(std::move(fetcher), std::move(crs)),
                   cacheDir, ppService);
        },
        ppError);
}

bool TellarSpatialMaps_CreateMapServiceFromWcsUrl(IEpsg* epsg, const char* url, const char* coverage,
                                                  const char* format, uint32_t epsgCode, IMapService** ppService,
                                                  Core::IErrorCode** ppError) {
    return TellarSpatialMaps_CreateCachedMapServiceFromWcsUrl(epsg, nullptr, url, coverage, format, epsgCode,
                                                              ppService, ppError);
}

bool TellarSpatialMaps_CreateCachedMapServiceFromWmtsUrl(IEpsg* epsg, const char* cacheDir, const char* url,
                                                         const char* layer, const char* style, const char* format,
                                                         const char* tileMatrixSet, IMapService** ppService,
                                                         Core::IErrorCode** ppError) {
    using MapServices::Wmts::WmtsLayer;
    return Core::AbiGuard(
        [&] {
            Core::ThrowIfNull(url);
            Core::ThrowIfNull(layer);
            Core::CheckResultAddress(ppService);
            const MapServices::Wmts::WmtsCapabilities capabilities(DownloadCapabilities(url));
            WmtsLayer chosen;
            for (const WmtsLayer& entry : capabilities.layers) {
                if (entry->identifier == layer) {
                    chosen = entry;
                    break;
                }
            }
            if (chosen.IsNull()) throw std::runtime_error(fmt::format("Layer {} does not exists", layer));
            if (style) {
                if (!Holds(chosen->GetStyles(), [](const auto& s) { return s.identifier; }, style))
                    throw std::runtime_error(fmt::format("Style {} does not exists", style));
                chosen->SetStyle(style);
            }
            if (format) {
                if (!Holds(chosen->GetTileResources(), [](const auto& r) { return r.format; }, format))
                    throw std::runtime_error(fmt::format("Format {} is not supported", format));
                chosen->SetFormat(format);
            }
            if (tileMatrixSet) {
                if (!Holds(chosen->GetTileMatrixSets(), [](const auto& set) { return set->identifier; }, tileMatrixSet))
                    throw std::runtime_error(fmt::format("TileMatrixSet {} is not supported", tileMatrixSet));
                chosen->SetTileMatrixSet(tileMatrixSet);
            }
            auto fetcher = Core::MakeObject<MapServices::Wmts::impl::WmtsFetcherImpl>(chosen);
            const auto code = static_cast<uint32_t>(chosen->GetCurrentTileMatrixSet()->epsgCode);
            Core::Ptr<ICrs> crs = CreateCrs(epsg, code);
            Finish(Core::MakeObject<Tellar::Spatial::Maps::impl::WmsServiceImpl>(
                       nullptr, Core::Ptr<MapServices::Interfaces::ITileFetcher>(fetcher), std::move(crs)),
                   cacheDir, ppService);
        },
        ppError);
}

bool TellarSpatialMaps_CreateMapServiceFromWmtsUrl(IEpsg* epsg, const char* url, const char* layer, const char* style,
                                                   const char* format, const char* tileMatrixSet,
                                                   IMapService** ppService, Core::IErrorCode** ppError) {
    return TellarSpatialMaps_CreateCachedMapServiceFromWmtsUrl(epsg, nullptr, url, layer, style, format, tileMatrixSet,
                                                               ppService, ppError);
}
