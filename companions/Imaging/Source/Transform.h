#pragma once
#include "Core/Ptr.h"
#include "TellarImaging/ITransform.h"

namespace TellarImaging::impl {

// Throws "Transform is not invertible" for a singular or non-finite matrix.
Core::Ptr<ITransform> NewTransform(double scaleX, double scaleY, double originX, double originY, double skewX,
                                   double skewY);

// The same transform with pixel (x, y) as its new origin; null stays null.
Core::Ptr<ITransform> ShiftTransform(ITransform* transform, int32_t x, int32_t y);

} // namespace TellarImaging::impl
