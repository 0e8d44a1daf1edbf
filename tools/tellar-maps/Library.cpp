#include "Library.h"

#include "Tellar/Spatial/Exports.h"
#include "Tellar/Spatial/Maps/Exports.h"
#include "Tellar/Spatial/ProjectionExports.h"

namespace TellarMaps {

using Core::IErrorCode;
using Core::Ptr;

TmsService OpenTmsService(const std::string& url, uint32_t epsgCode, const std::optional<std::string>& cacheDir,
                          std::optional<uint32_t> targetEpsg) {
    TmsService result;
    Invoke([&](IErrorCode** e) { return TellarSpatialProjection_CreateEpsg(result.epsg.ReceiveAddress(), e); });
    Invoke([&](IErrorCode** e) {
        if (cacheDir)
            return TellarSpatialMaps_CreateCachedMapServiceFromTmsUrl(result.epsg.Raw(), cacheDir->c_str(), url.c_str(),
                                                                      epsgCode, result.service.ReceiveAddress(), e);
        return TellarSpatialMaps_CreateMapServiceFromTmsUrl(result.epsg.Raw(), url.c_str(), epsgCode,
                                                            result.service.ReceiveAddress(), e);
    });
    if (targetEpsg) {
        Ptr<Tellar::Interfaces::ICrs> target;
        Invoke([&](IErrorCode** e) { return result.epsg->CreateCrs(*targetEpsg, target.ReceiveAddress(), e); });
        result.service->SetTargetCrs(target.Raw());
    }
    return result;
}

TmsService OpenService(const Options& o) {
    if (o.kind == ServiceKind::Tms) return OpenTmsService(o.url, *o.epsg, o.cacheDir, o.targetEpsg);
    TmsService result;
    Invoke([&](IErrorCode** e) { return TellarSpatialProjection_CreateEpsg(result.epsg.ReceiveAddress(), e); });
    const auto text = [](const std::optional<std::string>& value) { return value ? value->c_str() : nullptr; };
    const char* cache = text(o.cacheDir);
    auto** out = result.service.ReceiveAddress();
    Invoke([&](IErrorCode** e) {
        switch (o.kind) {
        case ServiceKind::Wms:
            return TellarSpatialMaps_CreateCachedMapServiceFromWmsUrl(result.epsg.Raw(), cache, o.url.c_str(),
                                                                      text(o.layer), text(o.style),
                                                                      o.format.value_or("image/png").c_str(), *o.epsg,
                                                                      out, e);
        case ServiceKind::Wcs:
            return TellarSpatialMaps_CreateCachedMapServiceFromWcsUrl(result.epsg.Raw(), cache, o.url.c_str(),
                                                                      text(o.coverage),
                                                                      o.format.value_or("GeoTIFF").c_str(), *o.epsg,
                                                                      out, e);
        default:
            return TellarSpatialMaps_CreateCachedMapServiceFromWmtsUrl(result.epsg.Raw(), cache, o.url.c_str(),
                                                                       text(o.layer), text(o.style), text(o.format),
                                                                       text(o.matrixSet), out, e);
        }
    });
    if (o.targetEpsg) {
        Ptr<Tellar::Interfaces::ICrs> target;
        Invoke([&](IErrorCode** e) { return result.epsg->CreateCrs(*o.targetEpsg, target.ReceiveAddress(), e); });
        result.service->SetTargetCrs(target.Raw());
    }
    return result;
}

void AwaitTask(Platform::Interfaces::IAsyncTask& task) {
    // An alertable wait also returns after it ran queued functions of other work.
    while (!task.IsCompleted() && !task.IsCancelled()) task.WaitAlertable();
    if (task.IsFailed()) {
        const char* text = task.GetErrorMessage();
        throw LibraryFailure(text && *text ? text : "the task failed without saying why");
    }
    if (!task.IsCompleted()) throw LibraryFailure("the task was cancelled");
}

Ptr<Tellar::Interfaces::IBoundingBox2d> MakeBox(const std::array<double, 4>& values) {
    Ptr<Tellar::Interfaces::IBoundingBox2d> box;
    Invoke([&](IErrorCode** e) { return TellarSpatial_CreateBoundingBox2d(box.ReceiveAddress(), e); });
    box->SetValues(values[0], values[1], values[2], values[3]);
    return box;
}

std::array<double, 4> BoxValues(Tellar::Interfaces::IBoundingBox2d* box) {
    std::array<double, 4> values{};
    box->GetValues(&values[0], &values[1], &values[2], &values[3]);
    return values;
}

} // namespace TellarMaps
