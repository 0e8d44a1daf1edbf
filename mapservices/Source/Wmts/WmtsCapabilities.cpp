#include "MapServices/Wmts/WmtsCapabilities.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>
#include <utility>

#include "Core/Checked.h"
#include "Core/StringFormat.h"
#include "MapServices/Common/XmlNode.h"

namespace MapServices::Wmts {

namespace impl {

std::vector<WmtsTileMatrix> TileMatrixSetImpl::GetTileMatrices() const {
    std::vector<WmtsTileMatrix> list;
    list.reserve(matrices.size());
    for (const auto& entry : matrices) list.push_back(entry.second);
    // A scale that is not a number sorts last, which keeps the order strict and weak.
    const auto key = [](double scale) { return std::isnan(scale) ? -std::numeric_limits<double>::infinity() : scale; };
    std::sort(list.begin(), list.end(), [&](const WmtsTileMatrix& a, const WmtsTileMatrix& b) {
        return key(a.scaleDenominator) > key(b.scaleDenominator);
    });
    return list;
}

void TileMatrixSetImpl::AddTileMatrix(WmtsTileMatrix matrix) {
    std::string key = matrix.identifier;
    matrices.insert_or_assign(std::move(key), std::move(matrix));
}

namespace {

template <class T>
std::vector<T> Values(const StringMap<T>& map) {
    std::vector<T> list;
    list.reserve(map.size());
    for (const auto& entry : map) list.push_back(entry.second);
    return list;
}

bool NamesWebMercator(const std::string& identifier) {
    return identifier.find("900913") != std::string::npos || identifier.find("3857") != std::string::npos;
}

}  // namespace

WmtsLayerImpl::WmtsLayerImpl(std::string title_, std::string identifier_, std::string capabilitiesUrl_,
                             const WmtsBoundingBox& boundingBox, const BoundingBoxValue& wgs84Box_,
                             const std::vector<WmtsResourceUrl>& resources, const std::vector<WmtsStyle>& styleList,
                             const std::vector<TileMatrixSet>& linkedSets)
    : title(std::move(title_)),
      identifier(std::move(identifier_)),
      capabilitiesUrl(std::move(capabilitiesUrl_)),
      crs(boundingBox.crs),
      box(boundingBox.box),
      wgs84Box(wgs84Box_) {
    // Style: the last one marked default, else the first.
    if (styleList.empty()) throw std::runtime_error("WMTS layer \"" + identifier + "\" has no Style");
    const WmtsStyle* chosen = &styleList.front();
    for (const WmtsStyle& style : styleList) {
        styles.insert_or_assign(style.identifier, style);
        if (style.isDefault) chosen = &style;
    }
    currentStyle = chosen->identifier;

    // Formats: the first of each resource type; other types are dropped.
    for (const WmtsResourceUrl& resource : resources) {
        if (resource.resourceType == "tile") {
            tileResources.insert_or_assign(resource.format, resource);
            if (currentFormat.empty()) currentFormat = resource.format;
        } else if (resource.resourceType == "FeatureInfo") {
            featureInfoResources.insert_or_assign(resource.format, resource);
            if (currentFeatureInfoFormat.empty()) currentFeatureInfoFormat = resource.format;
        }
    }

    // Tile matrix set: the last one named for web mercator, else the first whose coarsest
    // matrix has 256 x 256 tiles, else the first linked.
    if (linkedSets.empty()) throw std::runtime_error("WMTS layer \"" + identifier + "\" has no TileMatrixSetLink");
    for (const TileMatrixSet& set : linkedSets) {
        if (set->matrices.empty())
            throw std::runtime_error("WMTS layer \"" + identifier + "\" links the tile matrix set \"" +
                                     set->identifier + "\", which has no TileMatrix");
        tileMatrixSets.insert_or_assign(set->identifier, set);
        if (NamesWebMercator(set->identifier)) currentTileMatrixSet = set->identifier;
    }
    if (currentTileMatrixSet.empty()) {
        for (const TileMatrixSet& set : linkedSets) {
            const std::vector<WmtsTileMatrix> matrices = set->GetTileMatrices();
            if (matrices.front().tileWidth == 256 && matrices.front().tileHeight == 256) {
                currentTileMatrixSet = set->identifier;
                break;
            }
        }
    }
    if (currentTileMatrixSet.empty()) currentTileMatrixSet = linkedSets.front()->identifier;
}

std::vector<WmtsResourceUrl> WmtsLayerImpl::GetTileResources() const { return Values(tileResources); }

std::vector<WmtsStyle> WmtsLayerImpl::GetStyles() const { return Values(styles); }

std::vector<TileMatrixSet> WmtsLayerImpl::GetTileMatrixSets() const { return Values(tileMatrixSets); }

const WmtsStyle& WmtsLayerImpl::GetCurrentStyle() const { return Core::MapAt(styles, currentStyle); }

const TileMatrixSet& WmtsLayerImpl::GetCurrentTileMatrixSet() const {
    return Core::MapAt(tileMatrixSets, currentTileMatrixSet);
}

const WmtsResourceUrl& WmtsLayerImpl::GetCurrentResource() const { return Core::MapAt(tileResources, currentFormat); }

namespace {

template <class Map>
void Choose(const Map& map, const std::string& key, std::string& current) {
    if (map.find(key) == map.end()) throw std::runtime_error("Invalid style identifier");
    current = key;
}

}  // namespace

void WmtsLayerImpl::SetStyle(const std::string& value) { Choose(styles, value, currentStyle); }

void WmtsLayerImpl::SetFormat(const std::string& value) { Choose(tileResources, value, currentFormat); }

void WmtsLayerImpl::SetTileMatrixSet(const std::string& value) { Choose(tileMatrixSets, value, currentTileMatrixSet); }

}  // namespace impl

namespace {

constexpr const char* KvpTileTemplate =
    "%sREQUEST=GetTile&LAYER=%s&FORMAT=%s&TILEMATRIXSET={TileMatrixSet}&TILEMATRIX={TileMatrix}&TILEROW={TileRow}"
    "&TILECOL={TileCol}";

struct Corner {
    double x;
    double y;
};

// "x y": the first two pieces of the text split on a blank, as written (no axis order applied).
Corner ReadCorner(std::string_view text) {
    const std::vector<std::string> pieces = SplitString(text, " ");
    const double x = Core::Stod(Core::At(pieces, 0));
    const double y = Core::Stod(Core::At(pieces, 1));
    return {x, y};
}

int64_t ReadCount(const XmlNode& node) { return static_cast<int32_t>(Core::Stoll(node.Value())); }

TileMatrixSet ReadTileMatrixSet(const XmlNode& element) {
    auto set = Core::MakeObject<impl::TileMatrixSetImpl>();
    set->supportedCrs = element.FindNode("ows:SupportedCRS").Value();
    set->identifier = element.FindNode("ows:Identifier").Value();
    set->abstract = element.FindNode("ows:Abstract").ValueOr("");
    set->title = element.FindNode("ows:Title").ValueOr("");

    const std::string_view crs = set->supportedCrs;
    if (crs.size() < 20 || crs.substr(0, 20) != "urn:ogc:def:crs:EPSG")
        throw std::runtime_error("Unsupported format! Following format is supported: urn:ogc:def:crs:EPSG::4326");
    std::string_view code;
    ForEachSplitPiece(crs, ":", [&](std::string_view piece) { code = piece; });
    set->epsgCode = Core::Stoi(std::string(code));

    for (const XmlNode& node : element.FindNodes("TileMatrix")) {
        WmtsTileMatrix matrix;
        matrix.identifier = node.FindNode("ows:Identifier").Value();
        matrix.scaleDenominator = node.FindNode("ScaleDenominator").ValueAsDouble();
        matrix.tileWidth = ReadCount(node.FindNode("TileWidth"));
        matrix.tileHeight = ReadCount(node.FindNode("TileHeight"));
        matrix.matrixWidth = ReadCount(node.FindNode("MatrixWidth"));
        matrix.matrixHeight = ReadCount(node.FindNode("MatrixHeight"));
        const Corner topLeft = ReadCorner(node.FindNode("TopLeftCorner").View());
        matrix.topLeftX = topLeft.x;
        matrix.topLeftY = topLeft.y;
        set->AddTileMatrix(std::move(matrix));
    }
    return set;
}

// The "xlink:href" of the HTTP GET binding of the first operation of that name; empty when no
// operation has it.
std::string OperationGetHref(const std::vector<XmlNode>& operations, std::string_view name) {
    for (const XmlNode& operation : operations) {
        const XmlAttribute attribute = operation.Attribute("name");
        if (attribute && attribute.View() == name)
            return operation.FindNode("ows:DCP/ows:HTTP/ows:Get", false).Attribute("xlink:href").Value();
    }
    return {};
}

WmtsLayer ReadLayer(const XmlNode& element, const std::vector<XmlNode>& operations,
                    const StringMap<TileMatrixSet>& sets, const std::string& capabilitiesUrl) {
    std::string identifier = element.FindNode("ows:Identifier").Value();

    const Corner upper = ReadCorner(element.FindNode("ows:WGS84BoundingBox/ows:UpperCorner").View());
    const Corner lower = ReadCorner(element.FindNode("ows:WGS84BoundingBox/ows:LowerCorner").View());
    const BoundingBoxValue wgs84Box{lower.x, lower.y, upper.x, upper.y};

    WmtsBoundingBox boundingBox;
    if (!element.FindNode("ows:BoundingBox").IsEmpty()) {
        const Corner low = ReadCorner(element.FindNode("ows:BoundingBox/ows:LowerCorner").View());
        const Corner high = ReadCorner(element.FindNode("ows:BoundingBox/ows:UpperCorner").View());
        boundingBox.box.Extend(low.x, low.y);
        boundingBox.box.Extend(high.x, high.y);
        boundingBox.crs = element.FindNode("ows:BoundingBox").Attribute("crs").Value();
    }

    std::vector<WmtsResourceUrl> resources;
    for (const XmlNode& node : element.FindNodes("ResourceURL")) {
        WmtsResourceUrl resource;
        resource.format = node.Attribute("format").Value();
        resource.resourceType = node.Attribute("resourceType").Value();
        resource.urlTemplate = node.Attribute("template").Value();
        resources.push_back(std::move(resource));
    }
    if (resources.empty()) {
        // Key-value-pair fallback: one GetTile template per "Format" of the layer.
        const std::string href = OperationGetHref(operations, "GetTile");
        for (const XmlNode& node : element.FindNodes("Format")) {
            WmtsResourceUrl resource;
            resource.format = node.Value();
            resource.resourceType = "tile";
            resource.urlTemplate =
                Core::StringFormat(KvpTileTemplate, href.c_str(), identifier.c_str(), resource.format.c_str());
            resources.push_back(std::move(resource));
        }
    }

    std::vector<WmtsStyle> styles;
    for (const XmlNode& node : element.FindNodes("Style")) {
        WmtsStyle style;
        style.title = node.FindNode("ows:Title").ValueOr("");
        style.identifier = node.FindNode("ows:Identifier").Value();
        const XmlNode legend = node.FindNode("LegendURL");
        if (legend) {
            const XmlAttribute href = legend.Attribute("xlink:href");
            style.legendUrl = href ? href.Value() : std::string();
        }
        const XmlAttribute isDefault = node.Attribute("isDefault");
        style.isDefault = isDefault && isDefault.View() == "true";
        styles.push_back(std::move(style));
    }

    std::vector<TileMatrixSet> linked;
    for (const XmlNode& link : element.FindNodes("TileMatrixSetLink/TileMatrixSet"))
        linked.push_back(Core::MapAt(sets, link.View()));

    std::string title = element.FindNode("ows:Title").ValueOr("");
    return Core::MakeObject<impl::WmtsLayerImpl>(std::move(title), std::move(identifier), capabilitiesUrl, boundingBox,
                                                 wgs84Box, resources, styles, linked);
}

}  // namespace

WmtsCapabilities::WmtsCapabilities(std::string text) : xml(std::move(text)) {
    const XmlDocument document(xml);
    const XmlNode root = document.FirstElement();

    const XmlNode identification = root.FindNode("ows:ServiceIdentification");
    const XmlNode contents = root.FindNode("Contents");
    const std::vector<XmlNode> metadataUrls = root.FindNodes("ServiceMetadataURL", false);
    if (identification.IsEmpty() && contents.IsEmpty()) throw std::runtime_error("Not WMTS caps!");

    const XmlNode serviceType = identification.FindNode("ows:ServiceType");
    if (serviceType.IsEmpty() || (serviceType.View() != "OGC WMTS" && serviceType.View() != "WMTS"))
        throw std::runtime_error("Missing <ows:ServiceType>OGC WMTS</ows:ServiceType>!");

    title = identification.FindNode("ows:Title").ValueOr("");
    abstract = identification.FindNode("ows:Abstract").ValueOr("");

    StringMap<TileMatrixSet> sets;
    for (const XmlNode& node : contents.FindNodes("TileMatrixSet")) {
        TileMatrixSet set = ReadTileMatrixSet(node);
        sets.insert_or_assign(set->identifier, set);
        tileMatrixSets.push_back(std::move(set));
    }

    const std::vector<XmlNode> operations = root.FindNodes("ows:OperationsMetadata/ows:Operation");
    if (!metadataUrls.empty()) {
        capabilitiesUrl = metadataUrls.front().Attribute("xlink:href").Value();
    } else {
        for (const XmlNode& operation : operations) {
            const XmlAttribute name = operation.Attribute("name");
            if (name && name.View() == "GetCapabilities") {
                capabilitiesUrl =
                    operation.FindNode("ows:DCP/ows:HTTP/ows:Get", false).Attribute("xlink:href").Value() +
                    "request=GetCapabilities&version=1.0.0";
                break;
            }
        }
    }

    for (const XmlNode& node : contents.FindNodes("Layer"))
        layers.push_back(ReadLayer(node, operations, sets, capabilitiesUrl));
}

}  // namespace MapServices::Wmts
