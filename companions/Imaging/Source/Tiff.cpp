// TIFF and GeoTIFF through libtiff and libgeotiff. Errors of libtiff are caught per handle by
// the open options (no global handler, so threads don't share one), and become exceptions once
// the call that failed is back in our code.
#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <geo_normalize.h>
#include <libdeflate.h>
#include <geotiff.h>
#include <geovalues.h>
#include <tiffio.h>
#include <xtiffio.h>

#include <fmt/format.h>

#include "Codecs.h"
#include "Core/AbiGuard.h"
#include "Images.h"

namespace TellarImaging::impl {
namespace {

// The GeoTIFF tags must be known to libtiff before the first file opens.
void RegisterGeoTiffTags() {
    static std::once_flag once;
    std::call_once(once, [] { XTIFFInitialize(); });
}

struct ErrorState {
    std::string message;
};

int OnTiffError(TIFF*, void* user, const char* module, const char* format, va_list args) {
    auto* state = static_cast<ErrorState*>(user);
    if (state->message.empty()) {
        char text[512];
        std::vsnprintf(text, sizeof text, format, args);
        state->message = module && *module ? fmt::format("{}: {}", module, text) : text;
    }
    return 1;
}

int OnTiffWarning(TIFF*, void*, const char*, const char*, va_list) { return 1; }

void OnGeoTiffError(GTIF*, int, const char*, ...) {}

struct OptionsDeleter {
    void operator()(TIFFOpenOptions* options) const noexcept { TIFFOpenOptionsFree(options); }
};
struct TiffDeleter {
    void operator()(TIFF* tif) const noexcept { TIFFClose(tif); }
};
struct GtifDeleter {
    void operator()(GTIF* gtif) const noexcept { GTIFFree(gtif); }
};
using TiffHandle = std::unique_ptr<TIFF, TiffDeleter>;
using GtifHandle = std::unique_ptr<GTIF, GtifDeleter>;

std::unique_ptr<TIFFOpenOptions, OptionsDeleter> Options(ErrorState* state) {
    std::unique_ptr<TIFFOpenOptions, OptionsDeleter> options(TIFFOpenOptionsAlloc());
    if (!options) throw std::bad_alloc();
    TIFFOpenOptionsSetErrorHandlerExtR(options.get(), OnTiffError, state);
    TIFFOpenOptionsSetWarningHandlerExtR(options.get(), OnTiffWarning, nullptr);
    TIFFOpenOptionsSetMaxSingleMemAlloc(options.get(), tmsize_t(MaxRasterBytes));
    return options;
}

[[noreturn]] void Fail(const ErrorState& state, const char* what) {
    throw std::runtime_error(state.message.empty() ? fmt::format("Invalid TIFF image: {}", what)
                                                   : fmt::format("Invalid TIFF image: {}", state.message));
}

// A read-only file in memory for TIFFClientOpen.
struct MemoryFile {
    const uint8_t* data;
    uint64_t size;
    uint64_t position;
};

tmsize_t MemoryRead(thandle_t handle, void* buffer, tmsize_t size) {
    auto* file = static_cast<MemoryFile*>(handle);
    if (size <= 0 || file->position >= file->size) return 0;
    const uint64_t n = std::min<uint64_t>(uint64_t(size), file->size - file->position);
    std::memcpy(buffer, file->data + file->position, size_t(n));
    file->position += n;
    return tmsize_t(n);
}
tmsize_t MemoryWrite(thandle_t, void*, tmsize_t) { return -1; }
toff_t MemorySeek(thandle_t handle, toff_t offset, int whence) {
    auto* file = static_cast<MemoryFile*>(handle);
    uint64_t base = whence == SEEK_CUR ? file->position : whence == SEEK_END ? file->size : 0;
    file->position = base + offset;
    return file->position;
}
int MemoryClose(thandle_t) { return 0; }
toff_t MemorySize(thandle_t handle) { return static_cast<MemoryFile*>(handle)->size; }
int MemoryMap(thandle_t handle, void** base, toff_t* size) {
    auto* file = static_cast<MemoryFile*>(handle);
    *base = const_cast<uint8_t*>(file->data);
    *size = file->size;
    return 1;
}
void MemoryUnmap(thandle_t, void*, toff_t) {}

// Transform and EPSG code from the GeoTIFF tags and keys, where the file has them.
void ReadGeoreference(TIFF* tif, TiffMetadata* metadata) {
    GtifHandle gtif(GTIFNewEx(tif, OnGeoTiffError, nullptr));
    unsigned short rasterType = RasterPixelIsArea;
    if (gtif) {
        unsigned short code = 0;
        if (GTIFKeyGetSHORT(gtif.get(), ProjectedCSTypeGeoKey, &code, 0, 1) && code != 0 && code != KvUserDefined)
            metadata->epsgCode = code;
        else if (GTIFKeyGetSHORT(gtif.get(), GeographicTypeGeoKey, &code, 0, 1) && code != 0 && code != KvUserDefined)
            metadata->epsgCode = code;
        GTIFKeyGetSHORT(gtif.get(), GTRasterTypeGeoKey, &rasterType, 0, 1);
    }

    uint16_t count = 0;
    double* values = nullptr;
    if (TIFFGetField(tif, TIFFTAG_GEOTRANSMATRIX, &count, &values) && count >= 16) {
        metadata->transform = std::vector<double>{values[0], values[5], values[3], values[7], values[1], values[4]};
    } else {
        uint16_t scaleCount = 0, tieCount = 0;
        double *scale = nullptr, *tie = nullptr;
        if (TIFFGetField(tif, TIFFTAG_GEOPIXELSCALE, &scaleCount, &scale) && scaleCount >= 2 &&
            TIFFGetField(tif, TIFFTAG_GEOTIEPOINTS, &tieCount, &tie) && tieCount >= 6) {
            const double originX = tie[3] - tie[0] * scale[0];
            const double originY = tie[4] + tie[1] * scale[1];
            metadata->transform = std::vector<double>{scale[0], -scale[1], originX, originY, 0.0, 0.0};
        }
    }
    // A point raster names pixel centres; the transform here names pixel corners.
    if (metadata->transform && rasterType == RasterPixelIsPoint) {
        auto& t = *metadata->transform;
        t[2] -= 0.5 * (t[0] + t[4]);
        t[3] -= 0.5 * (t[5] + t[1]);
    }
}

// Copies one decoded block (a tile, or a strip as a tile as wide as the image) into the raster.
void PlaceBlock(Raster* raster, const uint8_t* block, size_t blockBytes, int32_t blockWidth, int32_t x, int32_t y,
                int32_t rows, bool separate, int32_t plane) {
    const size_t sampleBytes = size_t(raster->bitsPerSample / 8);
    const size_t pixelBytes = raster->PixelBytes();
    const size_t blockPixelBytes = separate ? sampleBytes : pixelBytes;
    const size_t stride = size_t(blockWidth) * blockPixelBytes;
    const int32_t columns = std::min(blockWidth, raster->width - x);
    if (size_t(rows - 1) * stride + size_t(columns) * blockPixelBytes > blockBytes)
        throw std::runtime_error("Invalid TIFF image: truncated block");
    for (int32_t r = 0; r < rows; ++r) {
        const uint8_t* from = block + size_t(r) * stride;
        uint8_t* to = raster->Row(y + r) + size_t(x) * pixelBytes;
        if (!separate) {
            std::memcpy(to, from, size_t(columns) * pixelBytes);
            continue;
        }
        to += size_t(plane) * sampleBytes;
        for (int32_t c = 0; c < columns; ++c, from += sampleBytes, to += pixelBytes) std::memcpy(to, from, sampleBytes);
    }
}

} // namespace

Core::Ptr<ITiffImage2> DecodeTiff(const uint8_t* data, size_t size) {
    RegisterGeoTiffTags();
    ErrorState state;
    auto options = Options(&state);
    MemoryFile file{data, size, 0};
    TiffHandle tif(TIFFClientOpenExt("memory", "r", &file, MemoryRead, MemoryWrite, MemorySeek, MemoryClose,
                                     MemorySize, MemoryMap, MemoryUnmap, options.get()));
    if (!tif) Fail(state, "cannot open");

    uint32_t width = 0, height = 0;
    uint16_t samples = 1, bits = 1, format = SAMPLEFORMAT_UINT, planar = PLANARCONFIG_CONTIG;
    uint16_t photometric = PHOTOMETRIC_MINISBLACK, compression = COMPRESSION_NONE;
    if (!TIFFGetField(tif.get(), TIFFTAG_IMAGEWIDTH, &width) || !TIFFGetField(tif.get(), TIFFTAG_IMAGELENGTH, &height))
        Fail(state, "missing image size");
    CheckDecodedSize(width, height);
    TIFFGetFieldDefaulted(tif.get(), TIFFTAG_SAMPLESPERPIXEL, &samples);
    TIFFGetFieldDefaulted(tif.get(), TIFFTAG_BITSPERSAMPLE, &bits);
    TIFFGetFieldDefaulted(tif.get(), TIFFTAG_SAMPLEFORMAT, &format);
    TIFFGetFieldDefaulted(tif.get(), TIFFTAG_PLANARCONFIG, &planar);
    TIFFGetFieldDefaulted(tif.get(), TIFFTAG_PHOTOMETRIC, &photometric);
    TIFFGetFieldDefaulted(tif.get(), TIFFTAG_COMPRESSION, &compression);

    TiffMetadata metadata;
    metadata.sampleKind = format;
    CheckLayout(metadata.sampleKind, samples, bits);
    if (photometric == PHOTOMETRIC_YCBCR) {
        if (compression != COMPRESSION_JPEG) throw std::runtime_error("Unsupported TIFF image: YCbCr without JPEG");
        TIFFSetField(tif.get(), TIFFTAG_JPEGCOLORMODE, JPEGCOLORMODE_RGB);
    }

    Raster raster(width, height, samples, bits);
    const bool tiled = TIFFIsTiled(tif.get());
    uint32_t blockWidth = width, blockHeight = height;
    if (tiled) {
        TIFFGetField(tif.get(), TIFFTAG_TILEWIDTH, &blockWidth);
        TIFFGetField(tif.get(), TIFFTAG_TILELENGTH, &blockHeight);
    } else {
        TIFFGetFieldDefaulted(tif.get(), TIFFTAG_ROWSPERSTRIP, &blockHeight);
        blockHeight = std::min(blockHeight, height);
    }
    if (blockWidth == 0 || blockHeight == 0 || blockWidth > INT32_MAX || blockHeight > INT32_MAX)
        Fail(state, "invalid block size");

    const bool separate = planar == PLANARCONFIG_SEPARATE && samples > 1;
    const tmsize_t blockBytes = tiled ? TIFFTileSize(tif.get()) : TIFFStripSize(tif.get());
    if (blockBytes <= 0) Fail(state, "invalid block size");
    // Left unfilled: libtiff writes what it decodes, and PlaceBlock reads no further. A strip can
    // be the whole image, which a few bytes of header can make gigabytes.
    const auto block = std::make_unique_for_overwrite<uint8_t[]>(static_cast<size_t>(blockBytes));
    for (uint16_t plane = 0; plane < (separate ? samples : 1); ++plane) {
        for (uint32_t y = 0; y < height; y += blockHeight) {
            for (uint32_t x = 0; x < width; x += blockWidth) {
                const tmsize_t got =
                    tiled ? TIFFReadEncodedTile(tif.get(), TIFFComputeTile(tif.get(), x, y, 0, plane), block.get(),
                                                blockBytes)
                          : TIFFReadEncodedStrip(tif.get(), TIFFComputeStrip(tif.get(), y, plane), block.get(),
                                                 blockBytes);
                if (got < 0) Fail(state, "cannot read pixel data");
                const int32_t rows = int32_t(std::min(blockHeight, height - y));
                PlaceBlock(&raster, block.get(), size_t(got), int32_t(blockWidth), int32_t(x), int32_t(y), rows,
                           separate, plane);
            }
        }
    }

    char* description = nullptr;
    if (TIFFGetField(tif.get(), TIFFTAG_IMAGEDESCRIPTION, &description) && description)
        metadata.description = description;
    if (tiled) {
        metadata.tileWidth = int32_t(blockWidth);
        metadata.tileHeight = int32_t(blockHeight);
    }
    ReadGeoreference(tif.get(), &metadata);
    return NewTiffImage(std::move(raster), metadata);
}

namespace {

// The sample format a file gets. Mosaics and their crops are marked signed whatever their
// samples; a picture of 8-bit colour or alpha is unsigned all the same, and samples of 32 or
// 64 bits can only be floats.
int32_t StoredSampleKind(int32_t kind, int32_t samples, int32_t bits) {
    if (kind != SampleKindSigned) return kind;
    if (bits == 8 && samples >= 2) return SampleKindUnsigned;
    if (bits == 32 || bits == 64) return SampleKindFloat;
    return kind;
}

// Uncompressed bytes of a strip: enough that deflate's start-up is lost in the data and every
// core gets many strips of a large picture, little enough for a reader to hold.
constexpr size_t StripBytes = size_t(256) << 10;

// Deflate level of the strips: the fastest. With horizontal differencing it packs a picture
// tighter than the default level does without, at a fifth of the time.
constexpr int DeflateLevel = 1;

// Strips compressed together, per thread; their buffers are all that is held beside the image.
constexpr size_t StripsPerThread = 4;

struct CompressorDeleter {
    void operator()(libdeflate_compressor* c) const noexcept { libdeflate_free_compressor(c); }
};

// Horizontal differencing of one row in place (TIFF predictor 2): every sample less the same
// sample of the pixel before, from the right, as unsigned integers of `sampleBytes` bytes in the
// machine's order, which is the file's.
void Difference(uint8_t* row, size_t rowBytes, int32_t samples, int32_t sampleBytes) {
    if (sampleBytes == 1) {
        for (size_t i = rowBytes; i-- > size_t(samples);) row[i] = uint8_t(row[i] - row[i - size_t(samples)]);
        return;
    }
    if (sampleBytes == 2) {
        const size_t count = rowBytes / 2;
        for (size_t i = count; i-- > size_t(samples);) {
            uint16_t value, before;
            std::memcpy(&value, row + 2 * i, 2);
            std::memcpy(&before, row + 2 * (i - size_t(samples)), 2);
            value = uint16_t(value - before);
            std::memcpy(row + 2 * i, &value, 2);
        }
    }
}

// Writes the picture as deflated strips: each strip's rows are copied, differenced when
// `samples` > 0 and deflated on all cores, a window of strips at a time, and the window is then
// written in order. `fail` reports a refused write.
template <class Fail>
void WriteStrips(TIFF* t, IImage& image, uint32_t rowsPerStrip, int32_t samples, int32_t sampleBytes, Fail&& fail) {
    const int32_t height = image.GetHeight();
    const size_t rowBytes = size_t(image.GetWidth()) * size_t(image.GetSamplesPerPixel()) * size_t(sampleBytes);
    const size_t strips = (size_t(height) + rowsPerStrip - 1) / rowsPerStrip;
    const size_t threads = std::clamp<size_t>(strips / StripsPerThread, 1, std::max(1u, std::thread::hardware_concurrency()));
    const size_t window = threads * StripsPerThread;

    struct Slot {
        std::vector<uint8_t> rows, packed;
        size_t size = 0;
    };
    std::vector<Slot> slots(std::min(window, strips));
    std::vector<std::unique_ptr<libdeflate_compressor, CompressorDeleter>> compressors(threads);
    for (auto& compressor : compressors) {
        compressor.reset(libdeflate_alloc_compressor(DeflateLevel));
        if (!compressor) throw std::bad_alloc();
    }
    for (size_t start = 0; start < strips; start += window) {
        const size_t end = std::min(start + window, strips);
        std::atomic<size_t> next{start};
        std::atomic<bool> failed{false};
        const auto work = [&](libdeflate_compressor* compressor) {
            try {
                for (size_t strip = next++; strip < end; strip = next++) {
                    Slot& slot = slots[strip - start];
                    const auto first = int32_t(strip * rowsPerStrip);
                    const int32_t rows = std::min<int32_t>(int32_t(rowsPerStrip), height - first);
                    slot.rows.resize(size_t(rows) * rowBytes);
                    for (int32_t r = 0; r < rows; ++r) {
                        uint8_t* row = slot.rows.data() + size_t(r) * rowBytes;
                        std::memcpy(row, image.GetPixelPointer(0, first + r), rowBytes);
                        if (samples > 0) Difference(row, rowBytes, samples, sampleBytes);
                    }
                    slot.packed.resize(libdeflate_zlib_compress_bound(compressor, slot.rows.size()));
                    slot.size = libdeflate_zlib_compress(compressor, slot.rows.data(), slot.rows.size(),
                                                         slot.packed.data(), slot.packed.size());
                    if (slot.size == 0) failed = true;
                }
            } catch (...) {
                failed = true;
            }
        };
        std::vector<std::thread> helpers;
        for (size_t i = 1; i < threads && start + i < end; ++i) helpers.emplace_back(work, compressors[i].get());
        work(compressors[0].get());
        for (std::thread& helper : helpers) helper.join();
        if (failed) throw std::bad_alloc();
        for (size_t strip = start; strip < end; ++strip) {
            Slot& slot = slots[strip - start];
            if (TIFFWriteRawStrip(t, uint32_t(strip), slot.packed.data(), tmsize_t(slot.size)) < 0) fail();
        }
    }
}

// Writes the picture's rows as they are, a strip at a time: straight from the image where its
// rows lie one after the other, else through one strip of copies.
template <class Fail>
void WritePlainStrips(TIFF* t, IImage& image, uint32_t rowsPerStrip, size_t rowBytes, Fail&& fail) {
    const int32_t height = image.GetHeight();
    std::vector<uint8_t> copy;
    for (uint32_t strip = 0; size_t(strip) * rowsPerStrip < size_t(height); ++strip) {
        const auto first = int32_t(strip * rowsPerStrip);
        const int32_t rows = std::min<int32_t>(int32_t(rowsPerStrip), height - first);
        const auto* start = static_cast<const uint8_t*>(image.GetPixelPointer(0, first));
        bool contiguous = start != nullptr;
        for (int32_t r = 1; r < rows && contiguous; ++r)
            contiguous = image.GetPixelPointer(0, first + r) == start + size_t(r) * rowBytes;
        if (!contiguous) {
            copy.resize(size_t(rows) * rowBytes);
            for (int32_t r = 0; r < rows; ++r)
                std::memcpy(copy.data() + size_t(r) * rowBytes, image.GetPixelPointer(0, first + r), rowBytes);
            start = copy.data();
        }
        if (TIFFWriteRawStrip(t, strip, const_cast<uint8_t*>(start), tmsize_t(size_t(rows) * rowBytes)) < 0) fail();
    }
}

} // namespace

void EncodeTiff(IImage* image, const std::string& path, const std::string& name, bool compress) {
    RegisterGeoTiffTags();
    const int32_t width = image->GetWidth(), height = image->GetHeight();
    const int32_t samples = image->GetSamplesPerPixel(), bits = image->GetBitsPerSample();
    auto* tiff = dynamic_cast<ITiffImage2*>(image);
    auto* plainTiff = tiff ? tiff : dynamic_cast<ITiffImage*>(image);
    const int32_t kind = StoredSampleKind(
        plainTiff ? plainTiff->GetSampleKind() : (bits >= 32 ? SampleKindFloat : SampleKindUnsigned), samples, bits);
    CheckLayout(kind, samples, bits);
    if (width <= 0 || height <= 0) throw std::runtime_error("TIFF can't hold an empty image");

    Core::Ptr<ITransform> transform;
    uint32_t epsg = 0;
    if (plainTiff) {
        Core::Ptr<Core::IErrorCode> error;
        plainTiff->GetTransform(transform.ReceiveAddress(), error.ReceiveAddress());
        Core::ThrowIfError(error);
        epsg = plainTiff->GetEpsgCode();
        if (epsg > 32766) throw std::runtime_error(fmt::format("EPSG code {} does not fit a GeoTIFF key", epsg));
    }

    ErrorState state;
    auto options = Options(&state);
    TiffHandle tif(TIFFOpenExt(path.c_str(), "w", options.get()));
    if (!tif) throw std::runtime_error(fmt::format("Failed to create TIFF file {}: {}", name, state.message));
    TIFF* t = tif.get();
    TIFFSetField(t, TIFFTAG_IMAGEWIDTH, uint32_t(width));
    TIFFSetField(t, TIFFTAG_IMAGELENGTH, uint32_t(height));
    TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, uint16_t(samples));
    TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, uint16_t(bits));
    TIFFSetField(t, TIFFTAG_SAMPLEFORMAT, uint16_t(kind));
    TIFFSetField(t, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(t, TIFFTAG_COMPRESSION, compress ? COMPRESSION_ADOBE_DEFLATE : COMPRESSION_NONE);
    const bool differenced = compress && kind != SampleKindFloat;
    if (compress) TIFFSetField(t, TIFFTAG_PREDICTOR, differenced ? PREDICTOR_HORIZONTAL : PREDICTOR_NONE);
    const bool colour = kind != SampleKindFloat && samples >= 3;
    TIFFSetField(t, TIFFTAG_PHOTOMETRIC, colour ? PHOTOMETRIC_RGB : PHOTOMETRIC_MINISBLACK);
    const int32_t extra = samples - (colour ? 3 : 1);
    if (extra > 0) {
        // The last sample of a grey-alpha or RGBA integer image is alpha; float samples are data.
        uint16_t types[3] = {EXTRASAMPLE_UNSPECIFIED, EXTRASAMPLE_UNSPECIFIED, EXTRASAMPLE_UNSPECIFIED};
        if (kind != SampleKindFloat) types[extra - 1] = EXTRASAMPLE_UNASSALPHA;
        TIFFSetField(t, TIFFTAG_EXTRASAMPLES, uint16_t(extra), types);
    }
    const size_t rowBytes = size_t(width) * size_t(samples) * size_t(bits / 8);
    const auto rowsPerStrip = uint32_t(std::clamp<size_t>(StripBytes / rowBytes, 1, size_t(height)));
    TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, rowsPerStrip);
    if (tiff && *tiff->GetTextProperty()) TIFFSetField(t, TIFFTAG_IMAGEDESCRIPTION, tiff->GetTextProperty());

    if (transform.Raw()) {
        double sx, sy, ox, oy, kx, ky;
        transform->GetParams(&sx, &sy, &ox, &oy, &kx, &ky);
        if (kx == 0.0 && ky == 0.0 && sy < 0.0) {
            double scale[3] = {sx, -sy, 0.0};
            double tie[6] = {0.0, 0.0, 0.0, ox, oy, 0.0};
            TIFFSetField(t, TIFFTAG_GEOPIXELSCALE, 3, scale);
            TIFFSetField(t, TIFFTAG_GEOTIEPOINTS, 6, tie);
        } else {
            double matrix[16] = {sx, kx, 0, ox, ky, sy, 0, oy, 0, 0, 0, 0, 0, 0, 0, 1};
            TIFFSetField(t, TIFFTAG_GEOTRANSMATRIX, 16, matrix);
        }
    }
    if (transform.Raw() || epsg) {
        GtifHandle gtif(GTIFNewEx(t, OnGeoTiffError, nullptr));
        if (!gtif) throw std::runtime_error("Failed to write GeoTIFF keys");
        const bool geographic = epsg && GTIFGetGCSInfo(int(epsg), nullptr, nullptr, nullptr, nullptr);
        GTIFKeySet(gtif.get(), GTModelTypeGeoKey, TYPE_SHORT, 1, geographic ? ModelTypeGeographic : ModelTypeProjected);
        GTIFKeySet(gtif.get(), GTRasterTypeGeoKey, TYPE_SHORT, 1, RasterPixelIsArea);
        if (epsg)
            GTIFKeySet(gtif.get(), geographic ? GeographicTypeGeoKey : ProjectedCSTypeGeoKey, TYPE_SHORT, 1, int(epsg));
        if (!GTIFWriteKeys(gtif.get())) throw std::runtime_error("Failed to write GeoTIFF keys");
    }

    const auto failedWrite = [&] {
        throw std::runtime_error(fmt::format("Failed to write TIFF file {}: {}", name, state.message));
    };
    if (compress)
        WriteStrips(t, *image, rowsPerStrip, differenced ? samples : 0, bits / 8, failedWrite);
    else
        WritePlainStrips(t, *image, rowsPerStrip, rowBytes, failedWrite);
    if (!TIFFFlush(t)) throw std::runtime_error(fmt::format("Failed to write TIFF file {}: {}", name, state.message));
}

} // namespace TellarImaging::impl
