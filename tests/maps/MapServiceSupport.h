#pragma once
// Helpers of the map-service tests: the CRS database, boxes, services made through the
// library's exports, and tile responses taken or their failure texts.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "Core/AbiGuard.h"
#include "Core/Ptr.h"
#include "Data/Interfaces/IObjectList.h"
#include "Platform/Interfaces/IHttpRequest.h"
#include "Tellar/Interfaces/IBoundingBox2d.h"
#include "Tellar/Interfaces/IEpsg.h"
#include "Tellar/Interfaces/IMapService.h"
#include "Tellar/Interfaces/ITileRequest.h"
#include "Tellar/Interfaces/ITileResponse.h"
#include "Tellar/Spatial/Exports.h"
#include "Tellar/Spatial/Maps/Exports.h"
#include "Tellar/Spatial/ProjectionExports.h"
#include "TellarImaging/IImage.h"

namespace MapTests {

using Tellar::Interfaces::IMapService;
using Tellar::Interfaces::ITileRequest;
using Tellar::Interfaces::ITileResponse;

inline std::string TextOf(const Core::Ptr<Core::IErrorCode>& error) {
    return error.Raw() ? std::string(Core::ErrorView(error).View()) : "<no error>";
}

inline Core::Ptr<Tellar::Interfaces::IEpsg> Epsg() {
    Core::Ptr<Tellar::Interfaces::IEpsg> epsg;
    EXPECT_TRUE(TellarSpatialProjection_CreateEpsg(epsg.ReceiveAddress(), nullptr));
    return epsg;
}

inline Core::Ptr<Tellar::Interfaces::ICrs> Crs(uint32_t code) {
    Core::Ptr<Tellar::Interfaces::ICrs> crs;
    EXPECT_TRUE(Epsg()->CreateCrs(code, crs.ReceiveAddress(), nullptr));
    return crs;
}

inline Core::Ptr<Tellar::Interfaces::IBoundingBox2d> Box(double minX, double minY, double maxX, double maxY) {
    Core::Ptr<Tellar::Interfaces::IBoundingBox2d> box;
    EXPECT_TRUE(TellarSpatial_CreateBoundingBox2d(box.ReceiveAddress(), nullptr));
    box->SetValues(minX, minY, maxX, maxY);
    return box;
}

// A service through the exports; a null `cacheDir` gives the plain factory.
inline Core::Ptr<IMapService> Service(const std::string& url, uint32_t epsgCode, const char* cacheDir = nullptr) {
    Core::Ptr<IMapService> service;
    Core::Ptr<Core::IErrorCode> error;
    const bool made =
        cacheDir ? TellarSpatialMaps_CreateCachedMapServiceFromTmsUrl(Epsg().Raw(), cacheDir, url.c_str(), epsgCode,
                                                                      service.ReceiveAddress(), error.ReceiveAddress())
                 : TellarSpatialMaps_CreateMapServiceFromTmsUrl(Epsg().Raw(), url.c_str(), epsgCode,
                                                                service.ReceiveAddress(), error.ReceiveAddress());
    EXPECT_TRUE(made) << TextOf(error);
    return service;
}

inline Core::Ptr<ITileRequest> Tile(IMapService& service, int32_t z, int64_t x, int64_t y) {
    Core::Ptr<ITileRequest> request;
    Core::Ptr<Core::IErrorCode> error;
    EXPECT_TRUE(service.GetTile(z, x, y, request.ReceiveAddress(), error.ReceiveAddress())) << TextOf(error);
    return request;
}

inline Core::Ptr<ITileResponse> Response(ITileRequest& request) {
    Core::Ptr<ITileResponse> response;
    Core::Ptr<Core::IErrorCode> error;
    EXPECT_TRUE(request.GetResponse(response.ReceiveAddress(), error.ReceiveAddress())) << TextOf(error);
    return response;
}

// The text GetResponse fails with, or "<no error>".
inline std::string ResponseFailure(ITileRequest& request) {
    Core::Ptr<ITileResponse> response;
    Core::Ptr<Core::IErrorCode> error;
    request.GetResponse(response.ReceiveAddress(), error.ReceiveAddress());
    return TextOf(error);
}

struct Mosaic {
    Core::Ptr<TellarImaging::ITiffImage> image;
    std::string failure;
};

inline Mosaic GetMosaic(IMapService& service, int32_t zoom, Tellar::Interfaces::IBoundingBox2d* box,
                        bool bestEffort = false) {
    Mosaic result;
    Core::Ptr<Core::IErrorCode> error;
    const bool done = bestEffort
                          ? service.GetImageBestEffort(zoom, box, result.image.ReceiveAddress(), error.ReceiveAddress())
                          : service.GetImage(zoom, box, result.image.ReceiveAddress(), error.ReceiveAddress());
    if (!done) result.failure = TextOf(error);
    return result;
}

// Pixel (x, y) of an RGBA image as 0xRRGGBB.
inline uint32_t Rgb(TellarImaging::IImage& image, int32_t x, int32_t y) {
    const auto* p = static_cast<const uint8_t*>(image.GetPixelPointer(x, y));
    if (!p) return 0xFFFFFFFFu;
    return static_cast<uint32_t>(p[0]) << 16 | static_cast<uint32_t>(p[1]) << 8 | p[2];
}

} // namespace MapTests
