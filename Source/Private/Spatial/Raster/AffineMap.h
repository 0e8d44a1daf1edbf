#pragma once
#include "TellarImaging/ITransform.h"

namespace Tellar::Spatial::Raster {

// The six numbers of an ITransform, read once, with the transform's own arithmetic, so that
// a loop over millions of pixels maps them without a virtual call each. Gives the same bits
// as PixelToWorld and WorldToPixel.
struct AffineMap {
    double scaleX = 1.0, scaleY = 1.0, originX = 0.0, originY = 0.0, skewX = 0.0, skewY = 0.0;
    bool axisAligned = true;
    double invXX = 1.0, invXY = 0.0, invYX = 0.0, invYY = 1.0;

    explicit AffineMap(const TellarImaging::ITransform& transform) {
        transform.GetParams(&scaleX, &scaleY, &originX, &originY, &skewX, &skewY);
        axisAligned = skewX == 0.0 && skewY == 0.0;
        const double det = scaleX * scaleY - skewX * skewY;
        invXX = scaleY / det;
        invXY = -skewX / det;
        invYX = -skewY / det;
        invYY = scaleX / det;
    }

    void ToWorld(double px, double py, double& x, double& y) const {
        x = originX + px * scaleX + py * skewX;
        y = originY + px * skewY + py * scaleY;
    }

    void ToPixel(double x, double y, double& px, double& py) const {
        const double dx = x - originX, dy = y - originY;
        if (axisAligned) {
            px = dx / scaleX;
            py = dy / scaleY;
        } else {
            px = invXX * dx + invXY * dy;
            py = invYX * dx + invYY * dy;
        }
    }
};

} // namespace Tellar::Spatial::Raster
