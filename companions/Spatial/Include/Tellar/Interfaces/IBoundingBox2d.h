#pragma once
#include "Core/IObject.h"

namespace Tellar::Interfaces {

// An axis-aligned box of four doubles. A new box is unset: its minima hold the largest double
// and its maxima the negative of it, so that extending it by a point takes min and max per axis.
struct IBoundingBox2d : Core::IObject {
    // Any of the pointers may be null; the others are filled.
    virtual void GetValues(double* minX, double* minY, double* maxX, double* maxY) const noexcept = 0;
    virtual void SetValues(double minX, double minY, double maxX, double maxY) noexcept = 0;
};

} // namespace Tellar::Interfaces
