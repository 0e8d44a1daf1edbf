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
