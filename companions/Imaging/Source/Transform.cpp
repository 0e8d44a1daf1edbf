#include "Transform.h"

#include <cmath>
#include <stdexcept>

#include "Core/ObjectImplBase.h"

namespace TellarImaging::impl {
namespace {

class TransformImpl final : public Core::LightObjectImplBase<ITransform> {
public:
    TransformImpl(double scaleX, double scaleY, double originX, double originY, double skewX, double skewY)
        : scaleX_(scaleX), scaleY_(scaleY), originX_(originX), originY_(originY), skewX_(skewX), skewY_(skewY),
          axisAligned_(skewX == 0.0 && skewY == 0.0) {
        const double det = scaleX * scaleY - skewX * skewY;
        if (det == 0.0 || !std::isfinite(det) || !std::isfinite(originX) || !std::isfinite(originY))
            throw std::runtime_error("Transform is not invertible");
        invXX_ = scaleY / det;
        invXY_ = -skewX / det;
        invYX_ = -skewY / det;
        invYY_ = scaleX / det;
    }

    void PixelToWorld(double x, double y, double* worldX, double* worldY, double* worldZ) const noexcept override {
        if (worldX) *worldX = originX_ + x * scaleX_ + y * skewX_;
        if (worldY) *worldY = originY_ + x * skewY_ + y * scaleY_;
        if (worldZ) *worldZ = 0.0;
    }

    void WorldToPixel(double x, double y, double z, double* pixelX, double* pixelY,
                      double* pixelZ) const noexcept override {
        const double dx = x - originX_, dy = y - originY_;
        // Division keeps a world coordinate on a pixel edge exactly on it.
        if (axisAligned_) {
            if (pixelX) *pixelX = dx / scaleX_;
            if (pixelY) *pixelY = dy / scaleY_;
        } else {
            if (pixelX) *pixelX = invXX_ * dx + invXY_ * dy;
            if (pixelY) *pixelY = invYX_ * dx + invYY_ * dy;
        }
        if (pixelZ) *pixelZ = z;
    }

    void GetParams(double* scaleX, double* scaleY, double* originX, double* originY, double* skewX,
                   double* skewY) const noexcept override {
        if (scaleX) *scaleX = scaleX_;
        if (scaleY) *scaleY = scaleY_;
        if (originX) *originX = originX_;
        if (originY) *originY = originY_;
        if (skewX) *skewX = skewX_;
        if (skewY) *skewY = skewY_;
    }

private:
    double scaleX_, scaleY_, originX_, originY_, skewX_, skewY_;
    bool axisAligned_;
    double invXX_, invXY_, invYX_, invYY_;
};

} // namespace

Core::Ptr<ITransform> NewTransform(double scaleX, double scaleY, double originX, double originY, double skewX,
                                   double skewY) {
    return Core::MakeObject<TransformImpl>(scaleX, scaleY, originX, originY, skewX, skewY);
}

Core::Ptr<ITransform> ShiftTransform(ITransform* transform, int32_t x, int32_t y) {
    if (!transform) return nullptr;
    if (x == 0 && y == 0) return Core::Ptr<ITransform>(transform);
    double sx, sy, ox, oy, kx, ky;
    transform->GetParams(&sx, &sy, &ox, &oy, &kx, &ky);
    transform->PixelToWorld(x, y, &ox, &oy, nullptr);
    return NewTransform(sx, sy, ox, oy, kx, ky);
}

} // namespace TellarImaging::impl
