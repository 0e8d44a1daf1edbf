#include "MapServices/Wcs/WcsCapabilities.h"

#include <stdexcept>
#include <utility>

#include "Core/Checked.h"
#include "Core/StringFormat.h"
#include "MapServices/Common/XmlNode.h"

namespace MapServices::Wcs {

namespace {

// The text with every "wcs:" deleted, wherever it stands.
std::string WithoutWcsPrefix(std::string_view text) {
    constexpr std::string_view prefix = "wcs:";
    std::string result;
    result.reserve(text.size());
    size_t position = 0;
    for (size_t found = text.find(prefix); found != std::string_view::npos; found = text.find(prefix, position)) {
        result.append(text.substr(position, found - position));
        position = found + prefix.size();
    }
    result.append(text.substr(position));
    return result;
}

std::string TrimEnd(std::string text, std::string_view characters) {
    const size_t last = text.find_last_not_of(characters);
    text.erase(last == std::string::npos ? 0 : last + 1);
    return text;
}

[[noreturn]] void ThrowCannotAccess() { throw std::runtime_error("Cannot access the node"); }

struct Corner {
    double x;
    double y;
};

// The first two pieces of a "gml:pos" split on a blank.
Corner ReadPosition(const std::vector<XmlNode>& positions, size_t index) {
    if (index >= positions.size()) ThrowCannotAccess();
    const std::vector<std::string> pieces = SplitString(positions[index].View(), " ");
    const double x = Core::Stod(Core::At(pieces, 0));
    const double y = Core::Stod(Core::At(pieces, 1));
    return {x, y};
}

WcsLayer ReadCoverage(const XmlNode& element, const std::string& endpoint, int32_t method,
                      const std::string& capabilitiesUrl) {
    auto layer = Core::MakeObject<impl::WcsLayerImpl>();
    layer->srsName = element.FindNode("lonLatEnvelope").Attribute("srsName").Value();

    const std::vector<XmlNode> positions = element.FindNodes("lonLatEnvelope/gml:pos");
    const std::vector<XmlNode> times = element.FindNodes("lonLatEnvelope/gml:timePosition");
    const Corner min = ReadPosition(positions, 0);
    const Corner max = ReadPosition(positions, 1);
    layer->box = BoundingBoxValue{min.x, min.y, max.x, max.y};

    for (const XmlNode& time : times) layer->times.push_back(Data::DateTime::FromIso8601(time.Value().c_str()));

    layer->description = element.FindNode("description").ValueOr("");
    layer->label = element.FindNode("label").Value();
    layer->name = element.FindNode("name").Value();
    layer->url = endpoint;
    layer->capabilitiesUrl = capabilitiesUrl;
    layer->method = method;
    return layer;
}

}  // namespace

WcsCapabilities::WcsCapabilities(std::string_view xml) {
    const XmlDocument document(WithoutWcsPrefix(xml));
    const XmlNode root = document.FirstElement("WCS_Capabilities");
    if (root.IsEmpty()) throw std::runtime_error("Xml is not valid WCS");

    version = root.Attribute("version").Value();
    if (version != "1.0.0")
        throw std::runtime_error("WCS Version is not supported. Currently only v1.0.0 is supported");

    const XmlNode name = root.FindNode("Service/name");
    if (name.IsEmpty()) ThrowCannotAccess();
    serviceName = name.Value();
    const XmlNode label = root.FindNode("Service/label");
    if (label) serviceLabel = label.Value();

    url = TrimEnd(root.FindNode("Capability/Request/GetCapabilities/DCPType/HTTP/Get/OnlineResource", false)
                      .Attribute("xlink:href")
                      .Value(),
                  " ?/&");
    const char* joiner = url.find('?') == std::string::npos ? "?" : "&";
    capabilitiesUrl = Core::StringFormat("%s%sSERVICE=wcs&REQUEST=GetCapabilities&VERSION=1.0.0", url.c_str(), joiner);

    // GetCoverage: GET whenever offered (the last entry wins), else POST.
    std::string endpoint;
    int32_t method = impl::WcsLayerImpl::Post;
    const std::vector<XmlNode> bindings = root.FindNodes("Capability/Request/GetCoverage/DCPType");
    for (const XmlNode& binding : bindings) {
        const XmlNode resource = binding.FindNode("HTTP/Get/OnlineResource");
        if (resource.IsEmpty()) continue;
        endpoint = resource.Attribute("xlink:href").Value();
        method = impl::WcsLayerImpl::Get;
    }
    if (endpoint.empty()) {
        for (const XmlNode& binding : bindings) {
            const XmlNode resource = binding.FindNode("HTTP/Post/OnlineResource");
            if (resource.IsEmpty()) continue;
            endpoint = resource.Attribute("xlink:href").Value();
            method = impl::WcsLayerImpl::Post;
        }
    }
    endpoint = TrimEnd(std::move(endpoint), " ?/");

    for (const XmlNode& coverage : root.FindNodes("ContentMetadata/CoverageOfferingBrief"))
        layers.push_back(ReadCoverage(coverage, endpoint, method, capabilitiesUrl));
}

}  // namespace MapServices::Wcs
