// Coordinate transformations. Each object owns its PROJ context and operations, so different
// objects run on different threads at once without sharing anything of PROJ.
#include <cmath>
#include <stdexcept>
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

class CrsTransformationImpl final : public Core::ObjectImplBase<Interfaces::ICrsTransformation> {
public:
    // An empty `steps` list makes the no-op transformation.
    CrsTransformationImpl(ICrs* source, ICrs* target, ContextHandle context, std::vector<PjHandle> steps)
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
    // One batch call of PROJ per step; a step applied backwards for the inverse direction.
    void Run(TransformDirection direction, uint64_t count, double* x, size_t sx, double* y, size_t sy, double* z,
             size_t sz) {
        const size_t n = static_cast<size_t>(count);
        const size_t nz = z ? n : 0;
        auto apply = [&](PJ* step, PJ_DIRECTION pjDirection) {
            proj_trans_generic(step, pjDirection, x, sx, n, y, sy, n, z, sz, nz, nullptr, 0, 0);
            // Points PROJ could not transform are already HUGE_VAL; clear the flag for the next call.
            proj_errno_reset(step);
        };
        if (direction == Interfaces::TransformForward) {
            for (auto& step : steps_) apply(step.get(), PJ_FWD);
        } else {
            for (auto it = steps_.rbegin(); it != steps_.rend(); ++it) apply(it->get(), PJ_INV);
        }
    }

    Core::Ptr<ICrs> source_;
    Core::Ptr<ICrs> target_;
    ContextHandle context_;
    std::vector<PjHandle> steps_;
};

Interfaces::ICrsTransformation* NewTransformation(ICrs* source, ICrs* target, bool viaWgs84) {
    Core::ThrowIfNull(source);
    Core::ThrowIfNull(target);
    ContextHandle context = NewContext();
    PjHandle from = CrsFromInterface(context.get(), source);
    PjHandle to = CrsFromInterface(context.get(), target);
    std::vector<PjHandle> steps;
    if (viaWgs84) {
        PjHandle wgs84 = CrsFromEpsg(context.get(), 4326);
        steps.push_back(NormalizedOperation(context.get(), from.get(), wgs84.get()));
        steps.push_back(NormalizedOperation(context.get(), wgs84.get(), to.get()));
    } else {
        steps.push_back(NormalizedOperation(context.get(), from.get(), to.get()));
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
