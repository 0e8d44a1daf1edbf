// Coordinate transformations. Each object owns its PROJ context and operations, so different
// objects run on different threads at once without sharing anything of PROJ.
//
// Geographic WGS 84 (EPSG:4326) and Web Mercator (EPSG:3857), the pair every tile map needs, are
// computed here in closed form: PROJ's operation between them is a unit conversion between
// degrees and radians and the spherical Mercator on a = 6378137 m, and the arithmetic below is
// that operation's, step by step, so the results are PROJ's (the tests compare on a dense grid).
// Points outside the plain range of the formulas (beyond 180 degrees of longitude or 90 of
// latitude, outside the Mercator square, infinite or NaN, or with a z PROJ would refuse) are
// handed to PROJ, one batch call for all of them, so they come out exactly as before.
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "Core/AbiGuard.h"
#include "Core/ObjectImplBase.h"
#include "Proj.h"
#include "Tellar/Spatial/ProjectionExports.h"

namespace Tellar::Spatial::Projection::impl {
namespace {

using Interfaces::ICrs;
using Interfaces::TransformDirection;

// The operation from `source` to `target` in `context`, with x = east and y = north.
PjHandle NormalizedOperation(PJ_CONTEXT* context, PJ* source, PJ* target) {
    PjHandle operation(proj_create_crs_to_crs_from_pj(context, source, target, nullptr, nullptr));
    if (!operation) throw std::runtime_error(fmt::format("No transformation between the CRSs: {}", LastError(context)));
    PjHandle normalized(proj_normalize_for_visualization(context, operation.get()));
    if (!normalized) throw std::runtime_error(fmt::format("Failed to normalize the axis order: {}", LastError(context)));
    return normalized;
}

// What a step computes in closed form in its forward direction; None leaves it all to PROJ.
enum class ClosedForm { None, GeographicToWebMercator, WebMercatorToGeographic };

// PROJ's operations, as text, for EPSG:4326 to EPSG:3857 and back once the axes are east, north.
constexpr std::string_view kGeographicToWebMercator =
    "+proj=pipeline +step +proj=unitconvert +xy_in=deg +xy_out=rad "
    "+step +proj=webmerc +lat_0=0 +lon_0=0 +x_0=0 +y_0=0 +ellps=WGS84";
constexpr std::string_view kWebMercatorToGeographic =
    "+proj=pipeline +step +inv +proj=webmerc +lat_0=0 +lon_0=0 +x_0=0 +y_0=0 +ellps=WGS84 "
    "+step +proj=unitconvert +xy_in=rad +xy_out=deg";

// The closed form of `operation` from EPSG `fromCode` to `toCode`: only for the pair 4326 and 3857,
// and only when PROJ made the very operation the formulas repeat.
ClosedForm ClosedFormOf(PJ_CONTEXT* context, PJ* operation, uint32_t fromCode, uint32_t toCode) {
    const char* text = proj_as_proj_string(context, operation, PJ_PROJ_5, nullptr);
    if (!text) return ClosedForm::None;
    if (fromCode == 4326 && toCode == 3857 && text == kGeographicToWebMercator)
        return ClosedForm::GeographicToWebMercator;
    if (fromCode == 3857 && toCode == 4326 && text == kWebMercatorToGeographic)
        return ClosedForm::WebMercatorToGeographic;
    return ClosedForm::None;
}

constexpr double kRadius = 6378137.0;
constexpr double kInverseRadius = 1.0 / kRadius;
// PROJ's unit factors: degrees to radians and back. Its unit conversion multiplies by the factor
// of its forward direction and divides by it in the inverse direction, so which of the two a
// result needs depends on the direction the operation runs in.
constexpr double kDegreesToRadians = 0.017453292519943296;
constexpr double kRadiansToDegrees = 57.295779513082321;
// Half the equator of the sphere: x of longitude 180.
constexpr double kHalfEquator = kRadius * (180.0 * kDegreesToRadians);

struct Points {
    double* x;
    size_t sx;
    double* y;
    size_t sy;
    double* z; // may be null
    size_t sz;

    static double& At(double* base, size_t stride, size_t i) {
        return *reinterpret_cast<double*>(reinterpret_cast<char*>(base) + i * stride);
    }
    double& X(size_t i) const { return At(x, sx, i); }
    double& Y(size_t i) const { return At(y, sy, i); }
    // A z PROJ takes as it is: none, or a finite one.
    bool PlainZ(size_t i) const { return !z || std::isfinite(At(z, sz, i)); }
};

// y of both directions depends on y alone, and the points of a grid come row by row: a run of
// the same y (the same bits, so -0 is not +0) computes its result once.
class LastOf {
public:
    template <class Compute>
    double operator()(double input, Compute&& compute) {
        const auto bits = std::bit_cast<uint64_t>(input);
        if (bits != input_) {
            input_ = bits;
            output_ = compute(input);
        }
        return output_;
    }

private:
    // A NaN: the closed form never sees one, so the first point always computes.
    uint64_t input_ = std::bit_cast<uint64_t>(std::numeric_limits<double>::quiet_NaN());
    double output_ = 0.0;
};

// Longitude and latitude in degrees to Web Mercator metres, for points with |lon| <= 180 and
// |lat| <= 90. `Multiply` says whether degrees become radians by multiplying by
// kDegreesToRadians or by dividing by kRadiansToDegrees. The indices of other points go to
// `others`.
template <bool Multiply>
void ToWebMercator(const Points& p, size_t count, std::vector<size_t>& others) {
    LastOf northing;
    for (size_t i = 0; i < count; ++i) {
        double& x = p.X(i);
        double& y = p.Y(i);
        if (!(std::fabs(x) <= 180.0 && std::fabs(y) <= 90.0 && p.PlainZ(i))) {
            others.push_back(i);
            continue;
        }
        const double lambda = Multiply ? x * kDegreesToRadians : x / kRadiansToDegrees;
        // The added zeros are the false easting and northing: they make a -0 result +0, as in PROJ.
        x = kRadius * lambda + 0.0;
        y = northing(y, [](double lat) {
            const double phi = Multiply ? lat * kDegreesToRadians : lat / kRadiansToDegrees;
            return kRadius * std::asinh(std::tan(phi)) + 0.0;
        });
    }
}

// Web Mercator metres to longitude and latitude in degrees, for points with |x| at most half the
// equator and a finite y. `Multiply` as above, for radians to degrees.
template <bool Multiply>
void ToGeographic(const Points& p, size_t count, std::vector<size_t>& others) {
    LastOf latitude;
    for (size_t i = 0; i < count; ++i) {
        double& x = p.X(i);
        double& y = p.Y(i);
        if (!(std::fabs(x) <= kHalfEquator && std::fabs(y) <= std::numeric_limits<double>::max() && p.PlainZ(i))) {
            others.push_back(i);
            continue;
        }
        // The added zero is the central meridian: it makes a -0 longitude +0, as in PROJ.
        const double lambda = x * kInverseRadius + 0.0;
        x = Multiply ? lambda * kRadiansToDegrees : lambda / kDegreesToRadians;
        y = latitude(y, [](double northing) {
            const double phi = std::atan(std::sinh(northing * kInverseRadius));
            return Multiply ? phi * kRadiansToDegrees : phi / kDegreesToRadians;
        });
    }
}

struct Step {
    PjHandle operation;
    ClosedForm closedForm = ClosedForm::None;
};

class CrsTransformationImpl final : public Core::ObjectImplBase<Interfaces::ICrsTransformation> {
public:
    // An empty `steps` list makes the no-op transformation.
    CrsTransformationImpl(ICrs* source, ICrs* target, ContextHandle context, std::vector<Step> steps)
        : source_(source), target_(target), context_(std::move(context)), steps_(std::move(steps)) {}

    ICrs* GetSourceCrs() const noexcept override { return source_.Raw(); }
    ICrs* GetTargetCrs() const noexcept override { return target_.Raw(); }
    bool IsNoOp() const noexcept override { return steps_.empty(); }

    bool TransformPoints(uint64_t count, double* points, Core::IErrorCode** ppError) noexcept override {
        return Core::AbiGuard(
            [&] {
                if (count == 0 || steps_.empty()) return;
                Core::ThrowIfNull(points);
                constexpr size_t stride = 4 * sizeof(double);
                Run(Interfaces::TransformForward, count, points, stride, points + 1, stride, points + 2, stride);
            },
            ppError);
    }

    bool TransformArrays(uint64_t count, TransformDirection direction, double* x, double* y, double* z,
                         Core::IErrorCode** ppError) noexcept override {
        return Core::AbiGuard(
            [&] {
                if (direction != Interfaces::TransformForward && direction != Interfaces::TransformInverse)
                    throw std::invalid_argument(fmt::format("Invalid transform direction {}", int32_t(direction)));
                if (count == 0 || steps_.empty()) return;
                Core::ThrowIfNull(x);
                Core::ThrowIfNull(y);
                Run(direction, count, x, sizeof(double), y, sizeof(double), z, z ? sizeof(double) : 0);
            },
            ppError);
    }

private:
    // One batch call of PROJ per step, or the closed form; a step applied backwards for the
    // inverse direction.
    void Run(TransformDirection direction, uint64_t count, double* x, size_t sx, double* y, size_t sy, double* z,
             size_t sz) {
        const size_t n = static_cast<size_t>(count);
        const Points points{x, sx, y, sy, z, sz};
        if (direction == Interfaces::TransformForward) {
            for (auto& step : steps_) Apply(step, PJ_FWD, points, n);
        } else {
            for (auto it = steps_.rbegin(); it != steps_.rend(); ++it) Apply(*it, PJ_INV, points, n);
        }
    }

    void Apply(const Step& step, PJ_DIRECTION direction, const Points& p, size_t n) {
        if (step.closedForm == ClosedForm::None) {
            proj_trans_generic(step.operation.get(), direction, p.x, p.sx, n, p.y, p.sy, n, p.z, p.sz, p.z ? n : 0,
                               nullptr, 0, 0);
            // Points PROJ could not transform are already HUGE_VAL; clear the flag for the next call.
            proj_errno_reset(step.operation.get());
            return;
        }
        others_.clear();
        const bool toMercator = (step.closedForm == ClosedForm::GeographicToWebMercator) == (direction == PJ_FWD);
        const bool multiply = direction == PJ_FWD;
        if (toMercator)
            multiply ? ToWebMercator<true>(p, n, others_) : ToWebMercator<false>(p, n, others_);
        else
            multiply ? ToGeographic<true>(p, n, others_) : ToGeographic<false>(p, n, others_);
        if (!others_.empty()) ApplyProjTo(others_, step.operation.get(), direction, p);
    }

    // The points at `indices` through PROJ, gathered into one batch call.
    void ApplyProjTo(const std::vector<size_t>& indices, PJ* operation, PJ_DIRECTION direction, const Points& p) {
        const size_t m = indices.size();
        gathered_.resize(3 * m);
        double* gx = gathered_.data();
        double* gy = gx + m;
        double* gz = gy + m;
        for (size_t k = 0; k < m; ++k) {
            gx[k] = p.X(indices[k]);
            gy[k] = p.Y(indices[k]);
            if (p.z) gz[k] = Points::At(p.z, p.sz, indices[k]);
        }
        constexpr size_t stride = sizeof(double);
        proj_trans_generic(operation, direction, gx, stride, m, gy, stride, m, p.z ? gz : nullptr, p.z ? stride : 0,
                           p.z ? m : 0, nullptr, 0, 0);
        proj_errno_reset(operation);
        for (size_t k = 0; k < m; ++k) {
            p.X(indices[k]) = gx[k];
            p.Y(indices[k]) = gy[k];
            if (p.z) Points::At(p.z, p.sz, indices[k]) = gz[k];
        }
    }

    Core::Ptr<ICrs> source_;
    Core::Ptr<ICrs> target_;
    ContextHandle context_;
    std::vector<Step> steps_;
    // Scratch of the closed form: the points it leaves to PROJ, and their coordinates.
    std::vector<size_t> others_;
    std::vector<double> gathered_;
};

Interfaces::ICrsTransformation* NewTransformation(ICrs* source, ICrs* target, bool viaWgs84) {
    Core::ThrowIfNull(source);
    Core::ThrowIfNull(target);
    ContextHandle context = NewContext();
    PjHandle from = CrsFromInterface(context.get(), source);
    PjHandle to = CrsFromInterface(context.get(), target);
    std::vector<Step> steps;
    auto addStep = [&](PJ* a, uint32_t aCode, PJ* b, uint32_t bCode) {
        Step step{NormalizedOperation(context.get(), a, b)};
        step.closedForm = ClosedFormOf(context.get(), step.operation.get(), aCode, bCode);
        steps.push_back(std::move(step));
    };
    const uint32_t fromCode = source->GetEpsgCode(), toCode = target->GetEpsgCode();
    if (viaWgs84) {
        PjHandle wgs84 = CrsFromEpsg(context.get(), 4326);
        addStep(from.get(), fromCode, wgs84.get(), 4326);
        addStep(wgs84.get(), 4326, to.get(), toCode);
    } else {
        addStep(from.get(), fromCode, to.get(), toCode);
    }
    // The CRS objects of this context are not needed once the operations exist.
    from.reset();
    to.reset();
    return new CrsTransformationImpl(source, target, std::move(context), std::move(steps));
}

} // namespace
} // namespace Tellar::Spatial::Projection::impl

using namespace Tellar::Spatial::Projection::impl;

bool TellarSpatialProjection_CreateCrsTransformation(Tellar::Interfaces::ICrs* source, Tellar::Interfaces::ICrs* target,
                                                     Tellar::Interfaces::ICrsTransformation** ppResult,
                                                     Core::IErrorCode** ppError) {
    return Core::AbiGuard(
        [&] {
            Core::ThrowIfNull(source);
            Core::ThrowIfNull(target);
            Core::CheckResultAddress(ppResult);
            *ppResult = NewTransformation(source, target, false);
        },
        ppError);
}

bool TellarSpatialProjection_CreateCrsNoOpTransformation(Tellar::Interfaces::ICrs* source,
                                                         Tellar::Interfaces::ICrs* target,
                                                         Tellar::Interfaces::ICrsTransformation** ppResult,
                                                         Core::IErrorCode** ppError) {
    return Core::AbiGuard(
        [&] {
            Core::CheckResultAddress(ppResult);
            *ppResult = new CrsTransformationImpl(source, target, nullptr, {});
        },
        ppError);
}

bool TellarSpatialProjection_CreateCrsTransformationWithIntermediateWgs84Transform(
    Tellar::Interfaces::ICrs* source, Tellar::Interfaces::ICrs* target,
    Tellar::Interfaces::ICrsTransformation** ppResult, Core::IErrorCode** ppError) {
    return Core::AbiGuard(
        [&] {
            Core::ThrowIfNull(source);
            Core::ThrowIfNull(target);
            Core::CheckResultAddress(ppResult);
            *ppResult = NewTransformation(source, target, true);
        },
        ppError);
}
