// The EPSG database object a host hands to the factories.
#include <mutex>
#include <stdexcept>
#include <string>
#include <unordered_map>

#include <fmt/format.h>

#include "Core/AbiGuard.h"
#include "Core/Checked.h"
#include "Core/ObjectImplBase.h"
#include "Proj.h"
#include "Tellar/Spatial/ProjectionExports.h"

namespace Tellar::Spatial::Projection::impl {
namespace {

// One PROJ context behind a mutex; CRS objects are immutable, so each code is made once and
// handed out again as a new reference.
class EpsgImpl final : public Core::ObjectImplBase<Interfaces::IEpsg> {
public:
    EpsgImpl() : context_(NewContext()) {}

    bool CreateCrs(uint32_t epsgCode, Interfaces::ICrs** ppCrs, Core::IErrorCode** ppError) noexcept override {
        return Core::AbiGuard(
            [&] {
                Core::CheckResultAddress(ppCrs);
                std::lock_guard lock(mutex_);
                auto found = byCode_.find(epsgCode);
                if (found == byCode_.end()) {
                    auto made = Core::Ptr<Interfaces::ICrs>::Attach(NewWellKnownCrsObject(epsgCode));
                    if (!made) {
                        PjHandle crs = CrsFromEpsg(context_.get(), epsgCode);
                        made = Core::Ptr<Interfaces::ICrs>::Attach(NewCrsObject(context_.get(), crs.get(), epsgCode));
                    }
                    found = byCode_.emplace(epsgCode, std::move(made)).first;
                }
                *ppCrs = Core::Ptr<Interfaces::ICrs>(found->second).Detach();
            },
            ppError);
    }

    bool CreateCrsFromDefinition(const char* definition, Interfaces::ICrs** ppCrs,
                                 Core::IErrorCode** ppError) noexcept override {
        return Core::AbiGuard(
            [&] {
                Core::ThrowIfNull(definition);
                Core::CheckResultAddress(ppCrs);
                std::lock_guard lock(mutex_);
                PjHandle crs(proj_create(context_.get(), definition));
                if (!crs || !proj_is_crs(crs.get()))
                    throw std::runtime_error(fmt::format("Invalid CRS definition \"{}\": {}", definition,
                                                         crs ? "not a CRS" : LastError(context_.get())));
                uint32_t code = 0;
                const char* authority = proj_get_id_auth_name(crs.get(), 0);
                const char* id = proj_get_id_code(crs.get(), 0);
                if (authority && id && std::string(authority) == "EPSG") code = static_cast<uint32_t>(Core::Stoll(id));
                *ppCrs = NewCrsObject(context_.get(), crs.get(), code);
            },
            ppError);
    }

private:
    std::mutex mutex_;
    ContextHandle context_;
    std::unordered_map<uint32_t, Core::Ptr<Interfaces::ICrs>> byCode_;
};

} // namespace
} // namespace Tellar::Spatial::Projection::impl

bool TellarSpatialProjection_CreateEpsg(Tellar::Interfaces::IEpsg** ppEpsg, Core::IErrorCode** ppError) {
    return Core::AbiGuard(
        [&] {
            Core::CheckResultAddress(ppEpsg);
            *ppEpsg = new Tellar::Spatial::Projection::impl::EpsgImpl();
        },
        ppError);
}
