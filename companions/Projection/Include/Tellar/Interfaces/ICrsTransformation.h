#pragma once
#include <cstdint>

#include "Core/ErrorCode.h"
#include "Tellar/Interfaces/ICrs.h"

namespace Tellar::Interfaces {

enum TransformDirection : int32_t {
    TransformForward = 0, // source CRS to target CRS
    TransformInverse = 1, // target CRS to source CRS
};

// Coordinates from one CRS to another. Axis order is always x = easting or longitude,
// y = northing or latitude, angles in degrees. One object is used by one thread at a time;
// different objects may work on different threads at once. A point that can't be transformed
// comes out as infinity (HUGE_VAL) in x and y; that isn't a failure of the call.
struct ICrsTransformation : Core::IObject {
    // Borrowed; null for a no-op transformation made without that side.
    virtual ICrs* GetSourceCrs() const noexcept = 0;
    virtual ICrs* GetTargetCrs() const noexcept = 0;
    // True when the coordinates pass unchanged.
    virtual bool IsNoOp() const noexcept = 0;
    // `count` points of four doubles each (x, y, z, spare) in place; the spare is left alone.
    virtual bool TransformPoints(uint64_t count, double* points, Core::IErrorCode** ppError) noexcept = 0;
    // `count` coordinates held in separate arrays, in place; z may be null (taken as 0).
    virtual bool TransformArrays(uint64_t count, TransformDirection direction, double* x, double* y, double* z,
                                 Core::IErrorCode** ppError) noexcept = 0;
};

} // namespace Tellar::Interfaces
