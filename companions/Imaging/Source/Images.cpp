#include "Images.h"

#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "Core/AbiGuard.h"
#include "Core/ObjectImplBase.h"
#include "Transform.h"

namespace TellarImaging::impl {
namespace {

void CheckRectangle(const Raster& raster, int32_t x, int32_t y, int32_t width, int32_t height) {
    if (x < 0 || y < 0 || width < 0 || height < 0 || int64_t(x) + width > raster.width ||
        int64_t(y) + height > raster.height)
        throw std::runtime_error(fmt::format("Sub-image ({}, {}, {}x{}) is outside the image of {}x{}", x, y, width,
                                             height, raster.width, raster.height));
}

// The pixel store and the IImage operations, for every image class.
template <class I>
class ImageT : public Core::ObjectImplBase<I> {
public:
    explicit ImageT(Raster raster) : raster_(std::move(raster)) {}

    int32_t GetWidth() const noexcept override { return raster_.width; }
    int32_t GetHeight() const noexcept override { return raster_.height; }
    int32_t GetBitsPerSample() const noexcept override { return raster_.bitsPerSample; }
    int32_t GetSamplesPerPixel() const noexcept override { return raster_.samplesPerPixel; }

    void* GetPixelPointer(int32_t x, int32_t y) noexcept override {
        if (x < 0 || y < 0 || x >= raster_.width || y >= raster_.height) return nullptr;
        return raster_.Row(y) + size_t(x) * raster_.PixelBytes();
    }

    bool CreateSubImage(int32_t x, int32_t y, int32_t width, int32_t height, IImage** ppResult,
                        Core::IErrorCode** ppError) noexcept override {
        return Core::AbiGuard(
            [&] {
                Core::CheckResultAddress(ppResult);
                CheckRectangle(raster_, x, y, width, height);
                *ppResult = MakeSubImage(raster_.Copy(x, y, width, height), x, y).Detach();
            },
            ppError);
    }

protected:
    virtual Core::Ptr<IImage> MakeSubImage(Raster raster, int32_t x, int32_t y) = 0;

    Raster raster_;
};

class PlainImage final : public ImageT<IImage> {
public:
    using ImageT::ImageT;

protected:
    Core::Ptr<IImage> MakeSubImage(Raster raster, int32_t, int32_t) override {
        return Core::MakeObject<PlainImage>(std::move(raster));
    }
};

// The properties a TIFF image carries beside its pixels.
struct TiffProperties {
    int32_t sampleKind = SampleKindUnsigned;
    int32_t intProperty = -1;
    std::vector<int32_t> list;
    Core::Ptr<ITransform> transform;
    uint32_t epsgCode = 0;
    std::string text;
    std::map<uint32_t, Core::Ptr<Core::IObject>> objects;
};

TiffProperties PropertiesOf(const TiffMetadata& metadata) {
    TiffProperties properties;
    properties.sampleKind = metadata.sampleKind;
    if (const auto& t = metadata.transform) properties.transform = NewTransform((*t)[0], (*t)[1], (*t)[2], (*t)[3], (*t)[4], (*t)[5]);
    properties.epsgCode = metadata.epsgCode;
    properties.text = metadata.description;
    return properties;
}

Core::Ptr<ITiffImage2> NewTiffImageFrom(Raster raster, TiffProperties properties);

// The TIFF properties; guarded by a mutex of their own, so that a reader of one property and
// a writer of another don't tread on each other.
template <class I>
class TiffImageT : public ImageT<I> {
public:
    TiffImageT(Raster raster, TiffProperties properties) : ImageT<I>(std::move(raster)), props_(std::move(properties)) {}

    int32_t GetSampleKind() const noexcept override { return Read([](auto& p) { return p.sampleKind; }); }
    void SetSampleKind(int32_t kind) noexcept override { Write([&](auto& p) { p.sampleKind = kind; }); }
    int32_t GetPixelDataType() const noexcept override {
        const bool isFloat = GetSampleKind() == SampleKindFloat;
        return PixelDataTypeOf(this->raster_.samplesPerPixel, this->raster_.bitsPerSample, isFloat);
    }
    int32_t GetIntProperty() const noexcept override { return Read([](auto& p) { return p.intProperty; }); }
    void SetIntProperty(int32_t value) noexcept override { Write([&](auto& p) { p.intProperty = value; }); }

    uint32_t GetListCount() const noexcept override {
        return Read([](auto& p) { return uint32_t(p.list.size()); });
    }
    int32_t GetListValue(uint32_t index) const noexcept override {
        return Read([&](auto& p) { return index < p.list.size() ? p.list[index] : 0; });
    }
    void SetListValue(uint32_t index, int32_t value) noexcept override {
        // Growing the list may fail only when memory is out; then the value is dropped.
        try {
            Write([&](auto& p) {
                if (index >= p.list.size()) p.list.resize(size_t(index) + 1, 0);
                p.list[index] = value;
            });
        } catch (...) {
        }
    }

    bool GetTransform(ITransform** ppTransform, Core::IErrorCode** ppError) noexcept override {
        return Core::AbiGuard(
            [&] {
                Core::CheckResultAddress(ppTransform);
                *ppTransform = Read([](auto& p) { return p.transform; }).Detach();
            },
            ppError);
    }
    void SetTransform(ITransform* transform) noexcept override {
        Core::Ptr<ITransform> held(transform);
        Write([&](auto& p) { p.transform.Swap(held); });
    }
    uint32_t GetEpsgCode() const noexcept override { return Read([](auto& p) { return p.epsgCode; }); }
    void SetEpsgCode(uint32_t code) noexcept override { Write([&](auto& p) { p.epsgCode = code; }); }

    const char* GetTextProperty() const noexcept override { return Read([](auto& p) { return p.text.c_str(); }); }
    void SetTextProperty(const char* text) noexcept override {
        try {
            std::string copy = text ? text : "";
            Write([&](auto& p) { p.text.swap(copy); });
        } catch (...) {
        }
    }

    bool GetObjectProperty(Core::IObject** ppObject, uint32_t key, Core::IErrorCode** ppError) noexcept override {
        return Core::AbiGuard(
            [&] {
                Core::CheckResultAddress(ppObject);
                *ppObject = Read([&](auto& p) {
                                auto found = p.objects.find(key);
                                return found == p.objects.end() ? Core::Ptr<Core::IObject>() : found->second;
                            }).Detach();
            },
            ppError);
    }
    bool SetObjectProperty(Core::IObject* object, uint32_t key, Core::IErrorCode** ppError) noexcept override {
        return Core::AbiGuard(
            [&] {
                Core::Ptr<Core::IObject> held(object);
                Write([&](auto& p) {
                    if (held.Raw()) p.objects[key].Swap(held);
                    else p.objects.erase(key);
                });
            },
            ppError);
    }

protected:
    TiffProperties CopyProperties(int32_t x, int32_t y) const {
        std::lock_guard lock(mutex_);
        TiffProperties copy = props_;
        copy.transform = ShiftTransform(props_.transform.Raw(), x, y);
        return copy;
    }

    Core::Ptr<IImage> MakeSubImage(Raster raster, int32_t x, int32_t y) override {
        return NewTiffImageFrom(std::move(raster), CopyProperties(x, y));
    }

private:
    template <class F>
    auto Read(F&& f) const {
        std::lock_guard lock(mutex_);
        return f(props_);
    }
    template <class F>
    void Write(F&& f) {
        std::lock_guard lock(mutex_);
        f(props_);
    }

    mutable std::mutex mutex_;
    TiffProperties props_;
};

class TiffImage final : public TiffImageT<ITiffImage2> {
public:
    using TiffImageT::TiffImageT;
};

class TiledTiffImage final : public TiffImageT<ITiledTiffImage> {
public:
    TiledTiffImage(Raster raster, TiffProperties properties, int32_t tileWidth, int32_t tileHeight)
        : TiffImageT(std::move(raster), std::move(properties)), tileWidth_(tileWidth), tileHeight_(tileHeight) {}

    int32_t GetTileWidth() const noexcept override { return tileWidth_; }
    int32_t GetTileHeight() const noexcept override { return tileHeight_; }
    int64_t GetTileRowBytes() const noexcept override { return int64_t(tileWidth_) * int64_t(raster_.PixelBytes()); }
    int64_t GetTileByteCount() const noexcept override { return GetTileRowBytes() * tileHeight_; }
    int32_t GetTilesAcross() const noexcept override { return (raster_.width + tileWidth_ - 1) / tileWidth_; }
    int32_t GetTilesDown() const noexcept override { return (raster_.height + tileHeight_ - 1) / tileHeight_; }

    bool GetTile(int32_t column, int32_t row, IImage** ppTile, Core::IErrorCode** ppError) noexcept override {
        return Core::AbiGuard(
            [&] {
                Core::CheckResultAddress(ppTile);
                if (column < 0 || row < 0 || column >= GetTilesAcross() || row >= GetTilesDown())
                    throw std::runtime_error(fmt::format("Tile ({}, {}) is outside the image", column, row));
                const int32_t x = column * tileWidth_, y = row * tileHeight_;
                *ppTile = NewTiffImageFrom(raster_.Copy(x, y, tileWidth_, tileHeight_), CopyProperties(x, y)).Detach();
            },
            ppError);
    }

private:
    int32_t tileWidth_;
    int32_t tileHeight_;
};

Core::Ptr<ITiffImage2> NewTiffImageFrom(Raster raster, TiffProperties properties) {
    return Core::MakeObject<TiffImage>(std::move(raster), std::move(properties));
}

} // namespace

Core::Ptr<IImage> NewPlainImage(Raster raster) { return Core::MakeObject<PlainImage>(std::move(raster)); }

Core::Ptr<ITiffImage2> NewTiffImage(Raster raster, const TiffMetadata& metadata) {
    if (metadata.tileWidth > 0 && metadata.tileHeight > 0)
        return Core::MakeObject<TiledTiffImage>(std::move(raster), PropertiesOf(metadata), metadata.tileWidth,
                                                metadata.tileHeight);
    return NewTiffImageFrom(std::move(raster), PropertiesOf(metadata));
}

} // namespace TellarImaging::impl
