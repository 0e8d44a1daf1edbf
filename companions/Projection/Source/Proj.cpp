#include "Proj.h"

#include <mutex>
#include <stdexcept>
#include <string>

#include <proj_experimental.h>

#include <fmt/format.h>

#include "Core/ObjectImplBase.h"

namespace Tellar::Spatial::Projection::impl {

ContextHandle NewContext() {
    ContextHandle context(proj_context_create());
    if (!context) throw std::runtime_error("Failed to create a PROJ context");
    proj_log_level(context.get(), PJ_LOG_NONE);
    return context;
}

std::string LastError(PJ_CONTEXT* context) {
    const int code = proj_context_errno(context);
    const char* text = code ? proj_context_errno_string(context, code) : nullptr;
    return text && *text ? text : "unknown PROJ error";
}

PjHandle CrsFromEpsg(PJ_CONTEXT* context, uint32_t epsgCode) {
    const std::string code = std::to_string(epsgCode);
    PjHandle crs(proj_create_from_database(context, "EPSG", code.c_str(), PJ_CATEGORY_CRS, false, nullptr));
    if (!crs) throw std::runtime_error(fmt::format("Unknown EPSG code {}: {}", epsgCode, LastError(context)));
    return crs;
}

PjHandle CrsFromInterface(PJ_CONTEXT* context, Interfaces::ICrs* crs) {
    if (const uint32_t code = crs->GetEpsgCode()) return CrsFromEpsg(context, code);
    const char* definition = crs->GetWkt();
    if (!definition || !*definition) definition = crs->GetProj4Text();
    if (!definition || !*definition) throw std::runtime_error("CRS has neither EPSG code nor definition");
    PjHandle result(proj_create(context, definition));
    if (!result || !proj_is_crs(result.get()))
        throw std::runtime_error(fmt::format("Invalid CRS definition: {}", LastError(context)));
    return result;
}

namespace {

bool IsGeographicType(PJ_TYPE type) {
    return type == PJ_TYPE_GEOGRAPHIC_CRS || type == PJ_TYPE_GEOGRAPHIC_2D_CRS || type == PJ_TYPE_GEOGRAPHIC_3D_CRS;
}

// PROJ text of the CRS. A CRS on another datum than WGS 84 is first bound to WGS 84 so that the
// text carries the datum shift ("+towgs84=...") where one is known.
std::string ProjText(PJ_CONTEXT* context, PJ* crs) {
    PjHandle bound(proj_crs_create_bound_crs_to_WGS84(context, crs, nullptr));
    const char* text = bound ? proj_as_proj_string(context, bound.get(), PJ_PROJ_4, nullptr) : nullptr;
    if (!text) text = proj_as_proj_string(context, crs, PJ_PROJ_4, nullptr);
    return text ? text : "";
}

// What a CRS object tells about itself, read from PROJ once.
struct Description {
    std::string projText;
    std::string name;
    std::string wkt;
    bool geographic = false;
};

Description Describe(PJ_CONTEXT* context, PJ* crs) {
    Description description;
    description.projText = ProjText(context, crs);
    description.geographic = IsGeographicType(proj_get_type(crs));
    const char* name = proj_get_name(crs);
    description.name = name ? name : "";
    const char* wkt = proj_as_wkt(context, crs, PJ_WKT2_2019, nullptr);
    description.wkt = wkt ? wkt : "";
    return description;
}

class CrsImpl final : public Core::LightObjectImplBase<Interfaces::ICrs> {
public:
    CrsImpl(PJ_CONTEXT* context, PJ* crs, uint32_t epsgCode)
        : epsgCode_(epsgCode), description_(Describe(context, crs)), geographic_(description_.geographic) {
        std::call_once(described_, [] {});
    }
    // Described on first use, in a context of its own. A description PROJ cannot give (no
    // database) leaves the texts empty.
    CrsImpl(uint32_t epsgCode, bool geographic) : epsgCode_(epsgCode), geographic_(geographic) {}

    uint32_t GetEpsgCode() const noexcept override { return epsgCode_; }
    const char* GetProj4Text() const noexcept override { return Described().projText.c_str(); }
    const char* GetName() const noexcept override { return Described().name.c_str(); }
    const char* GetWkt() const noexcept override { return Described().wkt.c_str(); }
    bool IsGeographic() const noexcept override { return geographic_; }

private:
    const Description& Described() const noexcept {
        std::call_once(described_, [this]() noexcept {
            try {
                ContextHandle context = NewContext();
                PjHandle crs = CrsFromEpsg(context.get(), epsgCode_);
                description_ = Describe(context.get(), crs.get());
            } catch (...) {
            }
        });
        return description_;
    }

    uint32_t epsgCode_;
    mutable std::once_flag described_;
    mutable Description description_;
    bool geographic_;
};

} // namespace

Interfaces::ICrs* NewCrsObject(PJ_CONTEXT* context, PJ* crs, uint32_t epsgCode) {
    return new CrsImpl(context, crs, epsgCode);
}

Interfaces::ICrs* NewWellKnownCrsObject(uint32_t epsgCode) {
    if (epsgCode != 4326 && epsgCode != 3857) return nullptr;
    return new CrsImpl(epsgCode, epsgCode == 4326);
}

} // namespace Tellar::Spatial::Projection::impl
