#pragma once
#include "Core/ErrorCode.h"

namespace TellarImaging {

// Affine pixel-to-world mapping: world x = originX + px · scaleX + py · skewX,
// world y = originY + px · skewY + py · scaleY. Pixel (0, 0) is the outer corner of the first
// pixel; a north-up image has a negative scaleY. Immutable, so safe to call from any thread.
// z passes unchanged.
struct ITransform : Core::IObject {
    virtual void PixelToWorld(double x, double y, double* worldX, double* worldY, double* worldZ) const noexcept = 0;
    virtual void WorldToPixel(double x, double y, double z, double* pixelX, double* pixelY,
                              double* pixelZ) const noexcept = 0;
    // The six numbers the transform was made from; any pointer may be null.
    virtual void GetParams(double* scaleX, double* scaleY, double* originX, double* originY, double* skewX,
                           double* skewY) const noexcept = 0;
};

} // namespace TellarImaging
