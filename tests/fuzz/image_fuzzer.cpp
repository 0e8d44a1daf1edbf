// Feeds arbitrary bytes to the image decoder (PNG, JPEG, WebP, TIFF by their signatures) and
// reads what comes out: the size and layout, pixels at the corners, every byte of a small image
// and the first and last rows of a large one, a TIFF image's properties and its corner tiles.
#include <cstddef>
#include <cstdint>

#include "Core/Ptr.h"
#include "TellarImaging/Exports.h"

using namespace TellarImaging;

namespace {

// Reads `count` bytes so that the sanitizers see every one of them.
uint8_t Touch(const void* pixels, size_t count) {
    const auto* bytes = static_cast<const volatile uint8_t*>(pixels);
    uint8_t sum = 0;
    for (size_t i = 0; i < count; ++i) sum = uint8_t(sum + bytes[i]);
    return sum;
}

void Walk(IImage* image) {
    const int32_t width = image->GetWidth(), height = image->GetHeight();
    const int32_t samples = image->GetSamplesPerPixel(), bits = image->GetBitsPerSample();
    if (width < 0 || height < 0 || samples < 1 || bits < 8 || bits % 8 != 0) __builtin_trap();
    if (image->GetPixelPointer(-1, 0) || image->GetPixelPointer(0, -1) || image->GetPixelPointer(width, 0) ||
        image->GetPixelPointer(0, height))
        __builtin_trap();
    if (width == 0 || height == 0) return;

    const size_t rowBytes = size_t(width) * size_t(samples) * size_t(bits / 8);
    const void* first = image->GetPixelPointer(0, 0);
    const void* last = image->GetPixelPointer(width - 1, height - 1);
    if (!first || !last) __builtin_trap();
    // Rows are packed, so a small image is one block from its first pixel.
    if (rowBytes * size_t(height) <= (size_t(1) << 24)) {
        (void)Touch(first, rowBytes * size_t(height));
    } else {
        (void)Touch(first, rowBytes);
        (void)Touch(image->GetPixelPointer(0, height - 1), rowBytes);
    }

    Core::Ptr<IImage> corner;
    if (image->CreateSubImage(width - 1, height - 1, 1, 1, corner.ReceiveAddress(), nullptr))
        (void)Touch(corner->GetPixelPointer(0, 0), size_t(samples) * size_t(bits / 8));

    auto* tiff = dynamic_cast<ITiffImage2*>(image);
    if (!tiff) return;
    (void)tiff->GetPixelDataType();
    (void)tiff->GetEpsgCode();
    if (!tiff->GetTextProperty()) __builtin_trap();
    Core::Ptr<ITransform> transform;
    tiff->GetTransform(transform.ReceiveAddress(), nullptr);

    auto* tiled = dynamic_cast<ITiledTiffImage*>(image);
    if (!tiled) return;
    const int32_t across = tiled->GetTilesAcross(), down = tiled->GetTilesDown();
    for (auto [column, row] : {std::pair{0, 0}, std::pair{across - 1, down - 1}}) {
        Core::Ptr<IImage> tile;
        if (!tiled->GetTile(column, row, tile.ReceiveAddress(), nullptr)) continue;
        const int64_t tileBytes = tiled->GetTileByteCount();
        if (tileBytes <= 0 || tileBytes > (int64_t(1) << 24)) continue;
        (void)Touch(tile->GetPixelPointer(0, 0), size_t(tileBytes));
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Core::Ptr<IImage> image;
    Core::Ptr<Core::IErrorCode> error;
    const bool made = CreateImageFromMemoryStream(data, size, image.ReceiveAddress(), error.ReceiveAddress());
    if (made != (image.Raw() != nullptr) || made == (error.Raw() != nullptr)) __builtin_trap();
    if (made) Walk(image.Raw());
    return 0;
}
