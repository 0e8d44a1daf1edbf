#pragma once
// The WMS 1.3.0 capabilities document ("WMS_Capabilities") as a plain record, and one shared
// layer object per leaf layer.
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Core/ObjectImplBase.h"
#include "Core/Ptr.h"
#include "MapServices/Common/BoundingBoxValue.h"

namespace MapServices::Wms {

// One "BoundingBox" element: its CRS and the corners as written, whatever the CRS's axis order.
struct WmsBoundingBox {
    std::string crs;
    BoundingBoxValue box;
};

// One "Style" element.
struct WmsStyle {
    std::string name;
    std::string title;
    std::string abstract;
    std::string legendFormat;
    std::string legendType;
    std::string legendHref;
    int32_t legendWidth = 0;
    int32_t legendHeight = 0;
};

// One "Dimension" element.
struct WmsDimension {
    enum Kind : int32_t { List = 0, Range = 1 };

    std::string name;
    std::string defaultValue;
    std::string units;
    // The listed values (kind List), or the parts of a range such as start/end/period (Range).
    std::vector<std::string> values;
    // The value selected by the user; empty until set.
    std::string current;
    int32_t kind = List;
};

namespace impl {

// One leaf layer of a WMS server.
class WmsLayerImpl : public Core::ObjectImplBase<Core::IObject> {
public:
    WmsLayerImpl() = default;

    // A copy of the first dimension named exactly "time" / "elevation", or nothing.
    std::optional<WmsDimension> GetTimeDimension() const;
    std::optional<WmsDimension> GetElevationDimension() const;
    // The first "time" dimension itself, so that its current value can be set;
    // "Time dimension not present" when there is none.
    WmsDimension& TimeDimension();

    std::string url;
    std::string capabilitiesUrl;
    std::string name;
    std::string title;
    std::string abstract;
    std::vector<WmsBoundingBox> boundingBoxes;
    BoundingBoxValue geographicBox;
    std::vector<std::string> crsList;
    std::vector<WmsStyle> styles;
    std::vector<WmsDimension> dimensions;

protected:
    ~WmsLayerImpl() override = default;
};

}  // namespace impl

using WmsLayer = Core::CheckedPtr<impl::WmsLayerImpl>;

// A parsed WMS GetCapabilities answer. The constructor either yields a complete record or throws.
class WmsCapabilities {
public:
    explicit WmsCapabilities(std::string xml);

    // The first layer of exactly that name, or an empty handle.
    WmsLayer GetLayer(const std::string& name) const;
    std::vector<WmsLayer> GetLayers() const { return layers; }

    std::string url;
    std::string capabilitiesUrl;
    std::string version;
    std::string serviceName;
    std::string serviceTitle;
    std::string serviceAbstract;
    std::string rootLayerTitle;
    std::string rootLayerAbstract;
    std::string xml;
    std::vector<std::string> mapFormats;
    std::vector<std::string> featureInfoFormats;
    std::vector<std::string> exceptionFormats;
    std::vector<std::string> crsList;
    // Leaf layers, last leaf of the document first.
    std::vector<WmsLayer> layers;
    BoundingBoxValue geographicBox;
    std::vector<WmsBoundingBox> boundingBoxes;
};

}  // namespace MapServices::Wms
