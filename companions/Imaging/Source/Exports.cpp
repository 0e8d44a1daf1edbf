#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
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
    // No bytes at all (an empty 200 body, a 204) is a failure of its own, not an unknown format.
    if (size == 0) throw std::runtime_error("Empty image data: 0 bytes");
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

// Where a save writes. A regular file, or one that does not exist yet, is written under a
// temporary name beside it and renamed over it once complete, so a failed save leaves the old
// file as it was and removes only its own temporary file. Anything else (a device, a pipe) is
// written in place and never removed.
class SaveTarget {
public:
    SaveTarget(const char* path, const char* kind) : target_(FollowLinks(path)) {
        struct stat status {};
        const bool exists = ::stat(target_.c_str(), &status) == 0;
        if (exists && !S_ISREG(status.st_mode)) {
            path_ = target_;
            return;
        }
        static std::atomic<uint64_t> counter{0};
        const size_t slash = target_.rfind('/');
        const std::string directory = slash == std::string::npos ? std::string() : target_.substr(0, slash + 1);
        const std::string base = slash == std::string::npos ? target_ : target_.substr(slash + 1);
        for (int attempt = 0;; ++attempt) {
            std::string name = fmt::format("{}.{}.{}-{}.tmp", directory, base, ::getpid(), counter++);
            const int fd = ::open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
            if (fd >= 0) {
                // A replaced file keeps its permissions; a new one gets the umask's.
                if (exists) ::fchmod(fd, status.st_mode & 07777);
                ::close(fd);
                path_ = temporary_ = std::move(name);
                return;
            }
            if (errno != EEXIST || attempt == 100)
                throw std::runtime_error(
                    fmt::format("Failed to create {} file {}: {}", kind, path, std::strerror(errno)));
        }
    }
    ~SaveTarget() {
        if (!temporary_.empty()) ::unlink(temporary_.c_str());
    }
    SaveTarget(const SaveTarget&) = delete;
    SaveTarget& operator=(const SaveTarget&) = delete;

    // The file the encoder writes.
    const std::string& Path() const { return path_; }

    void Commit() {
        if (temporary_.empty()) return;
        if (::rename(temporary_.c_str(), target_.c_str()) != 0)
            throw std::runtime_error(fmt::format("Failed to replace {}: {}", target_, std::strerror(errno)));
        temporary_.clear();
    }

private:
    // A symbolic link stays a link: the file it names is the one replaced.
    static std::string FollowLinks(const char* path) {
        struct stat status {};
        if (::lstat(path, &status) != 0 || !S_ISLNK(status.st_mode)) return path;
        char* resolved = ::realpath(path, nullptr);
        if (!resolved) return path;
        std::string result(resolved);
        std::free(resolved);
        return result;
    }

    std::string target_;
    std::string path_;
    std::string temporary_;
};

} // namespace

bool CreateImageFromMemoryStream(const void* data, uint64_t size, IImage** ppImage, Core::IErrorCode** ppError) {
    return Core::AbiGuard(
        [&] {
            // No bytes may come without a buffer; Decode tells the caller the data was empty.
            if (size != 0) Core::ThrowIfNull(static_cast<const char*>(data));
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
            if (format != ImageFileFormatPng && format != ImageFileFormatTiff &&
                format != ImageFileFormatTiffUncompressed)
                throw std::runtime_error(fmt::format("Unknown image file format {}", format));
            const bool png = format == ImageFileFormatPng;
            SaveTarget target(path, png ? "PNG" : "TIFF");
            if (png)
                EncodePng(image, target.Path(), path);
            else
                EncodeTiff(image, target.Path(), path, format == ImageFileFormatTiff);
            target.Commit();
        },
        ppError);
}
