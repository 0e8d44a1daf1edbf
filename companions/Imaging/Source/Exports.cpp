#include <cstdio>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "Codecs.h"
#include "Core/AbiGuard.h"
#include "Images.h"
#include "TellarImaging/Exports.h"
#include "Transform.h"

using namespace TellarImaging;
using namespace TellarImaging::impl;

namespace {

bool StartsWith(const uint8_t* data, size_t size, const char* prefix, size_t length, size_t at = 0) {
    return size >= at + length && std::memcmp(data + at, prefix, length) == 0;
}

Core::Ptr<IImage> Decode(const uint8_t* data, size_t size) {
    if (StartsWith(data, size, "\x89PNG\r\n\x1a\n", 8)) return NewPlainImage(DecodePng(data, size));
    if (StartsWith(data, size, "\xff\xd8\xff", 3)) return NewPlainImage(DecodeJpeg(data, size));
    if (StartsWith(data, size, "RIFF", 4) && StartsWith(data, size, "WEBP", 4, 8))
        return NewPlainImage(DecodeWebp(data, size));
    if (StartsWith(data, size, "II*\0", 4) || StartsWith(data, size, "MM\0*", 4) ||
        StartsWith(data, size, "II+\0", 4) || StartsWith(data, size, "MM\0+", 4))
        return DecodeTiff(data, size);
    throw std::runtime_error("Unknown image format");
}

std::vector<uint8_t> ReadFile(const char* path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error(fmt::format("Failed to open image file {}", path));
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (in.bad()) throw std::runtime_error(fmt::format("Failed to read image file {}", path));
    return bytes;
}

// A TIFF image of the same pixels as any image, read through its interface only.
Core::Ptr<ITiffImage2> CopyToTiff(IImage* image) {
    const int32_t samples = image->GetSamplesPerPixel(), bits = image->GetBitsPerSample();
    TiffMetadata metadata;
    metadata.sampleKind = bits >= 32 ? SampleKindFloat : SampleKindUnsigned;
    CheckLayout(metadata.sampleKind, samples, bits);
    Raster raster(image->GetWidth(), image->GetHeight(), samples, bits);
    for (int32_t y = 0; y < raster.height && raster.width > 0; ++y) {
        const void* row = image->GetPixelPointer(0, y);
        if (!row) throw std::runtime_error("Image has no pixel data");
        std::memcpy(raster.Row(y), row, raster.RowBytes());
    }
    return NewTiffImage(std::move(raster), metadata);
}

} // namespace

bool CreateImageFromMemoryStream(const void* data, uint64_t size, IImage** ppImage, Core::IErrorCode** ppError) {
    return Core::AbiGuard(
        [&] {
            Core::ThrowIfNull(static_cast<const char*>(data));
            Core::CheckResultAddress(ppImage);
            *ppImage = Decode(static_cast<const uint8_t*>(data), size_t(size)).Detach();
        },
        ppError);
}

bool OpenImageA(const char* path, IImage** ppImage, Core::IErrorCode** ppError) {
    return Core::AbiGuard(
        [&] {
            Core::ThrowIfNull(path);
            Core::CheckResultAddress(ppImage);
            const std::vector<uint8_t> bytes = ReadFile(path);
            *ppImage = Decode(bytes.data(), bytes.size()).Detach();
        },
        ppError);
}

bool ConvertImageToTiffImage(IImage* image, ITiffImage** ppTiff, Core::IErrorCode** ppError) {
    return Core::AbiGuard(
        [&] {
            Core::ThrowIfNull(image);
            Core::CheckResultAddress(ppTiff);
            if (auto* tiff = dynamic_cast<ITiffImage*>(image)) {
                tiff->AddReference();
                *ppTiff = tiff;
                return;
            }
            *ppTiff = CopyToTiff(image).Detach();
        },
        ppError);
}

bool CreateTiffImage(int32_t width, int32_t height, int32_t pixelDataType, ITiffImage** ppTiff,
                     Core::IErrorCode** ppError) {
    return Core::AbiGuard(
        [&] {
            Core::CheckResultAddress(ppTiff);
            int32_t samples = 0, bits = 0;
            bool isFloat = false;
            if (!LayoutOf(pixelDataType, &samples, &bits, &isFloat))
                throw std::runtime_error(fmt::format("Unknown pixel data type {}", pixelDataType));
            TiffMetadata metadata;
            metadata.sampleKind = isFloat ? SampleKindFloat : SampleKindUnsigned;
            *ppTiff = NewTiffImage(Raster(width, height, samples, bits), metadata).Detach();
        },
        ppError);
}

bool TellarImaging_CreateMultiChannelTiffImage(int32_t width, int32_t height, int32_t sampleKind,
                                               int32_t samplesPerPixel, int32_t bitsPerSample, IImage** ppImage,
                                               Core::IErrorCode** ppError) {
    return Core::AbiGuard(
        [&] {
            Core::CheckResultAddress(ppImage);
            CheckLayout(sampleKind, samplesPerPixel, bitsPerSample);
            TiffMetadata metadata;
            metadata.sampleKind = sampleKind;
            *ppImage = NewTiffImage(Raster(width, height, samplesPerPixel, bitsPerSample), metadata).Detach();
        },
        ppError);
}

bool CreateTransformFromParams(double scaleX, double scaleY, double originX, double originY, double skewX,
                               double skewY, ITransform** ppTransform, Core::IErrorCode** ppError) {
    return Core::AbiGuard(
        [&] {
            Core::CheckResultAddress(ppTransform);
            *ppTransform = NewTransform(scaleX, scaleY, originX, originY, skewX, skewY).Detach();
        },
        ppError);
}

bool TellarImaging_SaveImage(IImage* image, const char* path, int32_t format, Core::IErrorCode** ppError) {
    return Core::AbiGuard(
        [&] {
            Core::ThrowIfNull(image);
            Core::ThrowIfNull(path);
            if (format != ImageFileFormatPng && format != ImageFileFormatTiff)
                throw std::runtime_error(fmt::format("Unknown image file format {}", format));
            try {
                if (format == ImageFileFormatPng) EncodePng(image, path);
                else EncodeTiff(image, path);
            } catch (...) {
                std::remove(path); // no half-written file stays behind
                throw;
            }
        },
        ppError);
}
