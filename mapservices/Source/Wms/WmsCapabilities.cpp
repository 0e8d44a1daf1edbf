#include "MapServices/Wms/WmsCapabilities.h"

#include <stdexcept>
#include <utility>

#include "Core/Checked.h"
#include "MapServices/Common/XmlNode.h"

namespace MapServices::Wms {

namespace impl {

namespace {

const WmsDimension* FindDimension(const std::vector<WmsDimension>& dimensions, std::string_view name) {
    for (const WmsDimension& dimension : dimensions)
        if (dimension.name == name) return &dimension;
    return nullptr;
}

}  // namespace

std::optional<WmsDimension> WmsLayerImpl::GetTimeDimension() const {
    if (const WmsDimension* dimension = FindDimension(dimensions, "time")) return *dimension;
    return std::nullopt;
}

std::optional<WmsDimension> WmsLayerImpl::GetElevationDimension() const {
    if (const WmsDimension* dimension = FindDimension(dimensions, "elevation")) return *dimension;
    return std::nullopt;
}

WmsDimension& WmsLayerImpl::TimeDimension() {
    for (WmsDimension& dimension : dimensions)
        if (dimension.name == "time") return dimension;
    throw std::runtime_error("Time dimension not present");
}

}  // namespace impl

namespace {

// "CRS" children of a layer element, in order, as written.
std::vector<std::string> ReadCrsList(const XmlNode& layer) {
    std::vector<std::string> list;
    for (const XmlNode& crs : layer.FindNodes("CRS")) list.push_back(crs.Value());
    return list;
}

// "EX_GeographicBoundingBox" of a layer element; without one, the fallback when there is one,
// otherwise the unset box.
BoundingBoxValue ReadGeographicBox(const XmlNode& layer, const BoundingBoxValue& fallback, bool hasFallback) {
    if (layer.FindNode("EX_GeographicBoundingBox").IsEmpty()) return hasFallback ? fallback : BoundingBoxValue{};
    const double west = layer.FindNode("EX_GeographicBoundingBox/westBoundLongitude").ValueAsDouble();
    const double south = layer.FindNode("EX_GeographicBoundingBox/southBoundLatitude").ValueAsDouble();
    const double east = layer.FindNode("EX_GeographicBoundingBox/eastBoundLongitude").ValueAsDouble();
    const double north = layer.FindNode("EX_GeographicBoundingBox/northBoundLatitude").ValueAsDouble();
    BoundingBoxValue box;
    box.Extend(west, south);
    box.Extend(east, north);
    return box;
}

// "BoundingBox" children of a layer element, the corners taken as they stand.
std::vector<WmsBoundingBox> ReadBoundingBoxes(const XmlNode& layer) {
    std::vector<WmsBoundingBox> boxes;
    for (const XmlNode& element : layer.FindNodes("BoundingBox")) {
        WmsBoundingBox entry;
        entry.crs = element.Attribute("CRS").Value();
        const double minY = Core::Stod(element.Attribute("miny").Value());
        const double minX = Core::Stod(element.Attribute("minx").Value());
        const double maxY = Core::Stod(element.Attribute("maxy").Value());
        const double maxX = Core::Stod(element.Attribute("maxx").Value());
        entry.box.Extend(minX, minY);
        entry.box.Extend(maxX, maxY);
        boxes.push_back(std::move(entry));
    }
    return boxes;
}

// An optional legend size: 0 when missing, else the number cut to 32 bits.
int32_t ReadLegendSize(const XmlAttribute& attribute) {
    if (attribute.IsEmpty()) return 0;
    return static_cast<int32_t>(Core::Stoll(attribute.Value()));
}

WmsStyle ReadStyle(const XmlNode& element) {
    WmsStyle style;
    style.name = element.FindNode("Name").Value();
    style.title = element.FindNode("Title").ValueOr("");
    style.abstract = element.FindNode("Abstract").ValueOr("");
    const XmlNode legend = element.FindNode("LegendURL");
    if (legend.IsEmpty()) return style;
    style.legendWidth = ReadLegendSize(legend.Attribute("width"));
    style.legendHeight = ReadLegendSize(legend.Attribute("height"));
    style.legendFormat = legend.FindNode("Format").Value();
    const XmlNode resource = legend.FindNode("OnlineResource");
    style.legendType = resource.Attribute("xlink:type").Value();
    style.legendHref = resource.Attribute("xlink:href").Value();
    return style;
}

WmsDimension ReadDimension(const XmlNode& element) {
    WmsDimension dimension;
    const std::string_view text = element.View();
    if (text.find(',') != std::string_view::npos) {
        dimension.kind = WmsDimension::List;
        dimension.values = SplitString(text, ",");
    } else if (text.find('/') != std::string_view::npos) {
        dimension.kind = WmsDimension::Range;
        dimension.values = SplitString(text, "/");
    } else {
        dimension.kind = WmsDimension::List;
        dimension.values = SplitString(text, ",");
    }
    dimension.units = element.Attribute("units").Value();
    dimension.defaultValue = element.Attribute("default").Value();
    dimension.name = element.Attribute("name").Value();
    return dimension;
}

WmsLayer ReadLeafLayer(const XmlNode& element, const WmsCapabilities& capabilities) {
    auto layer = Core::MakeObject<impl::WmsLayerImpl>();
    for (const XmlNode& style : element.FindNodes("Style")) layer->styles.push_back(ReadStyle(style));
    for (const XmlNode& dimension : element.FindNodes("Dimension"))
        layer->dimensions.push_back(ReadDimension(dimension));
    layer->crsList = ReadCrsList(element);
    layer->boundingBoxes = ReadBoundingBoxes(element);
    layer->geographicBox = ReadGeographicBox(element, capabilities.geographicBox, true);
    layer->abstract = element.FindNode("Abstract").ValueOr("");
    layer->title = element.FindNode("Title").ValueOr("");
    layer->name = element.FindNode("Name").Value();
    layer->url = capabilities.url;
    layer->capabilitiesUrl = capabilities.capabilitiesUrl;
    return layer;
}

void AppendTexts(const XmlNode& from, std::string_view path, std::vector<std::string>& out) {
    for (const XmlNode& node : from.FindNodes(path)) out.push_back(node.Value());
}

}  // namespace

WmsCapabilities::WmsCapabilities(std::string text) : xml(std::move(text)) {
    const XmlDocument document(xml);
    const XmlNode root = document.FirstElement();
    if (root.IsEmpty()) throw std::runtime_error("Cannot access the node");
    if (root.Name() != "WMS_Capabilities") throw std::runtime_error("Error wrong file");

    version = root.Attribute("version").Value();

    const XmlNode service = root.FindNode("Service");
    serviceName = service.FindNode("Name").Value();
    serviceTitle = service.FindNode("Title").ValueOr("");
    serviceAbstract = service.FindNode("Abstract").ValueOr("");

    const XmlNode capability = root.FindNode("Capability");
    url =
        capability.FindNode("Request/GetCapabilities/DCPType/HTTP/Get/OnlineResource").Attribute("xlink:href").Value();
    capabilitiesUrl = url + "request=GetCapabilities&version=" + version;

    AppendTexts(capability, "Request/GetMap/Format", mapFormats);
    AppendTexts(capability, "Request/GetFeatureInfo/Format", featureInfoFormats);
    AppendTexts(capability, "Exception/Format", exceptionFormats);

    const XmlNode top = capability.FindNode("Layer");
    rootLayerTitle = top.FindNode("Title").ValueOr("");
    rootLayerAbstract = top.FindNode("Abstract").ValueOr("");
    crsList = ReadCrsList(top);
    geographicBox = ReadGeographicBox(top, BoundingBoxValue{}, false);
    boundingBoxes = ReadBoundingBoxes(top);

    // Depth first with a last-in-first-out stack: the last child is taken first, so the leaves
    // come out in reverse document order and only leaves become layers.
    std::vector<XmlNode> stack{top};
    while (!stack.empty()) {
        const XmlNode node = std::move(stack.back());
        stack.pop_back();
        std::vector<XmlNode> children = node.FindNodes("Layer");
        if (!children.empty()) {
            for (XmlNode& child : children) stack.push_back(std::move(child));
            continue;
        }
        layers.push_back(ReadLeafLayer(node, *this));
    }
}

WmsLayer WmsCapabilities::GetLayer(const std::string& name) const {
    for (const WmsLayer& layer : layers)
        if (layer->name == name) return layer;
    return {};
}

}  // namespace MapServices::Wms
