#include <limits>

#include "Core/AbiGuard.h"
#include "Core/ObjectImplBase.h"
#include "Tellar/Spatial/Exports.h"

namespace Tellar::Spatial::impl {
namespace {

constexpr double Unset = std::numeric_limits<double>::max();

class BoundingBox2dImpl final : public Core::LightObjectImplBase<Interfaces::IBoundingBox2d> {
public:
    void GetValues(double* minX, double* minY, double* maxX, double* maxY) const noexcept override {
        if (minX) *minX = minX_;
        if (minY) *minY = minY_;
        if (maxX) *maxX = maxX_;
        if (maxY) *maxY = maxY_;
    }
    void SetValues(double minX, double minY, double maxX, double maxY) noexcept override {
        minX_ = minX;
        minY_ = minY;
        maxX_ = maxX;
        maxY_ = maxY;
    }

private:
    double minX_ = Unset;
    double minY_ = Unset;
    double maxX_ = -Unset;
    double maxY_ = -Unset;
};

} // namespace
} // namespace Tellar::Spatial::impl

bool TellarSpatial_CreateBoundingBox2d(Tellar::Interfaces::IBoundingBox2d** ppBox, Core::IErrorCode** ppError) {
    return Core::AbiGuard(
        [&] {
            Core::CheckResultAddress(ppBox);
            *ppBox = new Tellar::Spatial::impl::BoundingBox2dImpl();
        },
        ppError);
}
