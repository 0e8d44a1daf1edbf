#pragma once
#include <cstdint>

#include "Core/ObjectImplBase.h"
#include "Core/Ptr.h"
#include "Data/Interfaces/IArray.h"
#include "MapServices/Common/BoundingBoxValue.h"
#include "Platform/Interfaces/IHttpRequest.h"
#include "Tellar/Interfaces/ITileResponse.h"

namespace Tellar::Spatial::Maps::impl {

// A finished tile: the HTTP response it came with, or the bytes of its cache file.
class TileResponseImpl final : public Core::ObjectImplBase<Tellar::Interfaces::ITileResponse> {
public:
    TileResponseImpl(Core::Ptr<Platform::Interfaces::IHttpResponse> httpResponse,
                     Core::Ptr<Data::Interfaces::IArray> fileData, const MapServices::BoundingBoxValue& bounds,
                     int32_t epsgCode, int32_t zoom, int64_t x, int64_t y);

    int32_t GetZoom() override { return zoom_; }
    int64_t GetX() override { return x_; }
    int64_t GetY() override { return y_; }
    bool GetImage(TellarImaging::IImage** ppImage, Core::IErrorCode** ppError) override;
    bool GetTransform(TellarImaging::ITransform** ppTransform, Core::IErrorCode** ppError) override;
    bool GetBounds(Tellar::Interfaces::IBoundingBox2d** ppBox, Core::IErrorCode** ppError) override;
    Platform::Interfaces::IHttpResponse* GetHttpResponse() override { return httpResponse_.Raw(); }
    int32_t GetEpsgCode() override { return epsgCode_; }

private:
    Core::Ptr<TellarImaging::IImage> Decode();

    Core::Ptr<Platform::Interfaces::IHttpResponse> httpResponse_;
    Core::Ptr<Data::Interfaces::IArray> fileData_;
    MapServices::BoundingBoxValue bounds_;
    int32_t epsgCode_;
    int32_t zoom_;
    int64_t x_;
    int64_t y_;
};

// A new box object holding `value`.
Core::Ptr<Tellar::Interfaces::IBoundingBox2d> MakeBoundingBox(const MapServices::BoundingBoxValue& value);

} // namespace Tellar::Spatial::Maps::impl
