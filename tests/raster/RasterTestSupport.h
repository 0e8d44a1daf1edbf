#pragma once
// Images, CRSs and a plain PROJ transformation for the raster tests.
#include <proj.h>

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "BoundaryCalls.h"
#include "Core/Ptr.h"
#include "ImageWriters.h"
#include "Tellar/Spatial/Maps/CrsTransformationHolder.h"
#include "Tellar/Spatial/ProjectionExports.h"
#include "TellarImaging/Exports.h"

namespace RasterTests {

using Core::Ptr;
using Tellar::Interfaces::ICrs;
using Tellar::Spatial::Maps::impl::CrsTransformationHolder;
using TellarImaging::IImage;
using TellarImaging::ITiffImage;
using TellarImaging::ITiffImage2;
using TellarImaging::ITransform;

inline Ptr<ICrs> Crs(uint32_t code) {
    static const Ptr<Tellar::Interfaces::IEpsg> epsg = BoundaryCalls::Made<Tellar::Interfaces::IEpsg>(
        [](auto out, auto error) { TellarSpatialProjection_CreateEpsg(out, error); });
    return BoundaryCalls::Made<ICrs>([&](auto out, auto error) { epsg->CreateCrs(code, out, error); });
}

// The holder that maps `from` coordinates to `to` coordinates.
inline CrsTransformationHolder Holder(uint32_t from, uint32_t to) {
    return CrsTransformationHolder(Crs(from), Crs(to));
}

inline Ptr<ITransform> Transform(double scaleX, double scaleY, double originX, double originY, double skewX = 0.0,
                                 double skewY = 0.0) {
    return BoundaryCalls::Made<ITransform>([&](auto out, auto error) {
        CreateTransformFromParams(scaleX, scaleY, originX, originY, skewX, skewY, out, error);
    });
}

// A zero-filled TIFF image, optionally georeferenced.
inline Ptr<ITiffImage> NewTiff(int32_t width, int32_t height, int32_t kind, int32_t samples, int32_t bits,
                               ITransform* transform = nullptr, uint32_t epsgCode = 0) {
    Ptr<ITiffImage> tiff =
        BoundaryCalls::Made<IImage>([&](auto out, auto error) {
            TellarImaging_CreateMultiChannelTiffImage(width, height, kind, samples, bits, out, error);
        }).As<ITiffImage>();
    tiff->SetTransform(transform);
    tiff->SetEpsgCode(epsgCode);
    return tiff;
}

// RGBA pixels that name their own position: red and green the low bytes of x and y, blue the
// high bits of both, alpha 255.
inline uint32_t PositionColour(int32_t x, int32_t y) {
    const uint8_t rgba[4] = {uint8_t(x), uint8_t(y), uint8_t(((x >> 8) & 15) | ((y >> 8) << 4)), 255};
    uint32_t value;
    std::memcpy(&value, rgba, 4);
    return value;
}

inline void FillPositions(IImage* image) {
    for (int32_t y = 0; y < image->GetHeight(); ++y) {
        auto* row = static_cast<uint32_t*>(image->GetPixelPointer(0, y));
        for (int32_t x = 0; x < image->GetWidth(); ++x) row[x] = PositionColour(x, y);
    }
}

template <class T>
T PixelAs(IImage* image, int32_t x, int32_t y) {
    T value;
    std::memcpy(&value, image->GetPixelPointer(x, y), sizeof value);
    return value;
}

inline std::vector<double> ParamsOf(IImage* image) {
    Ptr<ITransform> transform;
    if (auto* tiff = dynamic_cast<ITiffImage*>(image)) tiff->GetTransform(transform.ReceiveAddress(), nullptr);
    if (!transform.Raw()) return {};
    std::vector<double> p(6);
    transform->GetParams(&p[0], &p[1], &p[2], &p[3], &p[4], &p[5]);
    return p;
}

// RGBA position colours in an image that is no TIFF image: a decoded PNG, as a map tile comes in.
inline Ptr<IImage> PlainImage(int32_t width, int32_t height) {
    // Colour type 6: RGB with alpha.
    TestImages::PngLayout layout{
        .width = width, .height = height, .colorType = 6, .rows = TestImages::Bytes(size_t(width) * height * 4)};
    for (int32_t i = 0; i < width * height; ++i) {
        const uint32_t colour = PositionColour(i % width, i / width);
        std::memcpy(layout.rows.data() + size_t(i) * 4, &colour, 4);
    }
    const TestImages::Bytes png = TestImages::EncodePng(layout);
    return BoundaryCalls::Made<IImage>(
        [&](auto out, auto error) { CreateImageFromMemoryStream(png.data(), png.size(), out, error); });
}

// PROJ straight, from one EPSG code to another with x east and y north: the yardstick.
class ProjDirect {
public:
    ProjDirect(uint32_t from, uint32_t to) {
        context_ = proj_context_create();
        PJ* raw = proj_create_crs_to_crs(context_, ("EPSG:" + std::to_string(from)).c_str(),
                                         ("EPSG:" + std::to_string(to)).c_str(), nullptr);
        if (!raw) throw std::runtime_error("PROJ has no operation");
        op_ = proj_normalize_for_visualization(context_, raw);
        proj_destroy(raw);
    }
    ~ProjDirect() {
        proj_destroy(op_);
        proj_context_destroy(context_);
    }
    ProjDirect(const ProjDirect&) = delete;
    ProjDirect& operator=(const ProjDirect&) = delete;

    void Apply(double& x, double& y) const {
        const PJ_COORD out = proj_trans(op_, PJ_FWD, proj_coord(x, y, 0, 0));
        x = out.xy.x;
        y = out.xy.y;
    }

private:
    PJ_CONTEXT* context_ = nullptr;
    PJ* op_ = nullptr;
};

} // namespace RasterTests
