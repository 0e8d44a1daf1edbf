#include "Tellar/Spatial/Maps/TileResponseImpl.h"

#include <stdexcept>

#include "Core/AbiGuard.h"
#include "Tellar/Interfaces/IBoundingBox2d.h"
#include "Tellar/Spatial/Exports.h"
#include "TellarImaging/Exports.h"

namespace Tellar::Spatial::Maps::impl {

Core::Ptr<Tellar::Interfaces::IBoundingBox2d> MakeBoundingBox(const MapServices::BoundingBoxValue& value) {
    Core::Ptr<Tellar::Interfaces::IBoundingBox2d> box;
    Core::Ptr<Core::IErrorCode> error;
    if (!TellarSpatial_CreateBoundingBox2d(box.ReceiveAddress(), error.ReceiveAddress())) Core::ThrowIfError(error);
    box->SetValues(value.minX, value.minY, value.maxX, value.maxY);
    return box;
}

TileResponseImpl::TileResponseImpl(Core::Ptr<Platform::Interfaces::IHttpResponse> httpResponse,
                                   Core::Ptr<Data::Interfaces::IArray> fileData,
                                   const MapServices::BoundingBoxValue& bounds, int32_t epsgCode, int32_t zoom,
                                   int64_t x, int64_t y)
    : httpResponse_(std::move(httpResponse)),
      fileData_(std::move(fileData)),
      bounds_(bounds),
      epsgCode_(epsgCode),
      zoom_(zoom),
      x_(x),
      y_(y) {}

Core::Ptr<TellarImaging::IImage> TileResponseImpl::Decode() {
    const void* data = nullptr;
    uint64_t size = 0;
    if (fileData_.Raw()) {
        size = fileData_->GetSizeInBytes();
        data = fileData_->GetData();
    } else if (httpResponse_.Raw()) {
        size = httpResponse_->GetBodySize();
        data = httpResponse_->GetBodyData();
    } else {
        throw std::runtime_error("Logic bug. Response can only be either network or file.");
    }
    Core::Ptr<TellarImaging::IImage> image;
    Core::Ptr<Core::IErrorCode> error;
    if (!CreateImageFromMemoryStream(data, size, image.ReceiveAddress(), error.ReceiveAddress()))
        Core::ThrowIfError(error);
    return image;
}

bool TileResponseImpl::GetImage(TellarImaging::IImage** ppImage, Core::IErrorCode** ppError) {
    return Core::AbiGuard(
        [&] {
            Core::CheckResultAddress(ppImage);
            *ppImage = Decode().Detach();
        },
        ppError);
}

bool TileResponseImpl::GetTransform(TellarImaging::ITransform** ppTransform, Core::IErrorCode** ppError) {
    return Core::AbiGuard(
        [&] {
            Core::CheckResultAddress(ppTransform);
            const double width = Decode()->GetWidth();
            // Tiles are square: both scales divide by the width.
            const double scaleX = (bounds_.maxX - bounds_.minX) * 0.00390625 / (width * 0.00390625);
            const double scaleY = -(bounds_.maxY - bounds_.minY) * 0.00390625 / (width * 0.00390625);
            Core::Ptr<Core::IErrorCode> error;
            if (!CreateTransformFromParams(scaleX, scaleY, bounds_.minX, bounds_.maxY, 0.0, 0.0, ppTransform,
                                           error.ReceiveAddress()))
                Core::ThrowIfError(error);
        },
        ppError);
}

bool TileResponseImpl::GetBounds(Tellar::Interfaces::IBoundingBox2d** ppBox, Core::IErrorCode** ppError) {
    return Core::AbiGuard(
        [&] {
            Core::CheckResultAddress(ppBox);
            *ppBox = MakeBoundingBox(bounds_).Detach();
        },
        ppError);
}

} // namespace Tellar::Spatial::Maps::impl
