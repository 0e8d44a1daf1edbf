#include "Private/Spatial/Raster/ImageBase.h"

#include <stdexcept>

#include "Core/AbiGuard.h"
#include "TellarImaging/Exports.h"

namespace TellarImaging {
namespace {

constexpr uint32_t kMaxValueBytes = 4;

void MarkSampleKind(IImage* image, int32_t kind) {
    if (auto* tiff = dynamic_cast<ITiffImage*>(image)) tiff->SetSampleKind(kind);
}

} // namespace

ImageBase CreateImageBase(IImage* image) {
    if (!image) throw std::runtime_error("pImage = null");
    ImageBase result;
    result.image = Core::Ptr<IImage>(image);
    if (auto* tiled = dynamic_cast<ITiledTiffImage*>(image))
        result.accessor = std::make_shared<TilePixelAccessor>(tiled, kMaxValueBytes);
    else
        result.accessor = std::make_shared<MemoryPixelAccessor>(image, kMaxValueBytes);
    return result;
}

ImageBase CreateImageBase(int32_t width, int32_t height, int32_t pixelDataType) {
    Core::Ptr<ITiffImage> tiff;
    if (!CreateTiffImage(width, height, pixelDataType, tiff.ReceiveAddress(), nullptr))
        throw std::runtime_error("Unsupported PixelDataType specified!");
    tiff->SetSampleKind(SampleKindSigned);
    return CreateImageBase(tiff.Raw());
}

ImageBase ToTiffImageBase(IImage* image) {
    Core::Ptr<ITiffImage> tiff;
    if (auto* cast = dynamic_cast<ITiffImage*>(image)) {
        tiff = Core::Ptr<ITiffImage>(cast);
    } else {
        Core::Ptr<Core::IErrorCode> error;
        if (!ConvertImageToTiffImage(image, tiff.ReceiveAddress(), error.ReceiveAddress())) Core::ThrowIfError(error);
    }
    ImageBase result = CreateImageBase(tiff.Raw());
    const int32_t type = tiff->GetPixelDataType();
    if (type == PixelDataTypeFloat32 || type == PixelDataTypeFloat64) tiff->SetSampleKind(SampleKindFloat);
    return result;
}

ImageBase CropImageBase(const ImageBase& source, int32_t x, int32_t y, int32_t width, int32_t height) {
    Core::Ptr<IImage> cropped;
    Core::Ptr<Core::IErrorCode> error;
    if (!source.image->CreateSubImage(x, y, width, height, cropped.ReceiveAddress(), error.ReceiveAddress()))
        Core::ThrowIfError(error);
    MarkSampleKind(cropped.Raw(), SampleKindSigned);
    return CreateImageBase(cropped.Raw());
}

} // namespace TellarImaging
