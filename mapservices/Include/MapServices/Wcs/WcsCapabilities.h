#pragma once
// The WCS 1.0.0 capabilities document ("WCS_Capabilities", with or without the "wcs:" prefix)
// as a plain record, and one shared layer object per coverage offering.
#include <cstdint>
#include <string>
#include <vector>

#include "Core/ObjectImplBase.h"
#include "Core/Ptr.h"
#include "Data/Values.h"
#include "MapServices/Common/BoundingBoxValue.h"

namespace MapServices::Wcs {

namespace impl {

// One "CoverageOfferingBrief".
class WcsLayerImpl : public Core::ObjectImplBase<Core::IObject> {
public:
    enum Method : int32_t { Get = 0, Post = 1 };

    WcsLayerImpl() = default;

    // The GetCoverage endpoint of the service, trailing " ?/" removed.
    std::string url;
    std::string capabilitiesUrl;
    std::string name;
    std::string label;
    std::string description;
    std::string srsName;
    // The two "gml:pos" of the "lonLatEnvelope" as written, not sorted.
    BoundingBoxValue box;
    std::vector<Data::DateTime> times;
    // HTTP method of GetCoverage: 0 GET, 1 POST.
    int32_t method = Post;

protected:
    ~WcsLayerImpl() override = default;
};

}  // namespace impl

using WcsLayer = Core::CheckedPtr<impl::WcsLayerImpl>;

// A parsed WCS 1.0.0 GetCapabilities answer. The constructor either yields a complete record or
// throws; the text it is given is not kept.
class WcsCapabilities {
public:
    explicit WcsCapabilities(std::string_view xml);

    std::string url;
    std::string capabilitiesUrl;
    std::string version;
    std::string serviceName;
    std::string serviceLabel;
    // Nothing fills it.
    std::vector<std::string> formats;
    // Document order.
    std::vector<WcsLayer> layers;
};

}  // namespace MapServices::Wcs
