// Builds WCS GetCoverage requests (query and XML body) and WMS GetMap addresses from drawn
// names, boxes (NaN, infinities and huge values among them), sizes and times. A body made only
// of plain values must parse back with the values where they belong; any body may fail to
// parse, but nothing may crash.
#include <fuzzer/FuzzedDataProvider.h>

#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "Core/StringFormat.h"
#include "Data/Values.h"
#include "MapServices/Common/XmlNode.h"
#include "MapServices/Wms/WmsCapabilities.h"
#include "Wcs/WcsRequestImpl.h"
#include "Wms/WmsRequestImpl.h"

using MapServices::BoundingBoxValue;

namespace {

double Number(FuzzedDataProvider& in) {
    static constexpr double special[] = {std::numeric_limits<double>::quiet_NaN(),
                                         -std::numeric_limits<double>::quiet_NaN(),
                                         std::numeric_limits<double>::infinity(),
                                         -std::numeric_limits<double>::infinity(),
                                         std::numeric_limits<double>::max(),
                                         -std::numeric_limits<double>::max(),
                                         std::numeric_limits<double>::denorm_min(),
                                         -0.0,
                                         1e300,
                                         -180.0,
                                         85.0511287798066};
    switch (in.ConsumeIntegralInRange(0, 2)) {
    case 0: return in.PickValueInArray(special);
    case 1: return std::bit_cast<double>(in.ConsumeIntegral<uint64_t>());
    default: return in.ConsumeFloatingPointInRange(-1e7, 1e7);
    }
}

BoundingBoxValue Box(FuzzedDataProvider& in) {
    if (in.ConsumeBool()) {
        const auto zoom = in.ConsumeIntegral<int32_t>();
        const auto x = in.ConsumeIntegral<int32_t>();
        return MapServices::Wms::impl::TileToBoundingBox(zoom, x, in.ConsumeIntegral<int32_t>());
    }
    BoundingBoxValue box;
    box.minX = Number(in);
    box.minY = Number(in);
    box.maxX = Number(in);
    box.maxY = Number(in);
    return box;
}

// Letters, digits and a few marks: nothing XML would read differently.
bool Plain(const std::string& text) {
    if (text.empty()) return false;
    for (unsigned char c : text)
        if (!std::isalnum(c) && std::string_view(":_.-/").find(char(c)) == std::string_view::npos) return false;
    return true;
}

std::string Fixed(double value) { return Core::StringFormat("%f", value); }

void Wcs(FuzzedDataProvider& in) {
    const std::string version = in.ConsumeRandomLengthString(16);
    const std::string coverage = in.ConsumeRandomLengthString(64);
    const std::string crs = in.ConsumeRandomLengthString(32);
    const BoundingBoxValue box = Box(in);
    const auto width = in.ConsumeIntegral<uint32_t>(), height = in.ConsumeIntegral<uint32_t>();
    Data::DateTime time;
    if (in.ConsumeBool()) {
        try {
            time = Data::DateTime::FromIso8601(in.ConsumeRandomLengthString(40).c_str());
        } catch (const std::exception&) {
        }
    }
    const auto request =
        Core::MakeObject<MapServices::Wcs::impl::WcsRequestImpl>(version, coverage, crs, box, width, height, time);
    (void)request->GetRequestHash();

    const std::string head = "?SERVICE=WCS&VERSION=" + version + "&REQUEST=GetCoverage";
    const auto method = in.ConsumeIntegral<int32_t>();
    const std::string query = request->BuildQuery(method);
    if (query.rfind(head, 0) != 0 || (method != 0 && query != head)) __builtin_trap();
    if (method != 0 &&
        request->BuildQuery(0).find(Core::StringFormat("&WIDTH=%u&HEIGHT=%u", width, height)) == std::string::npos)
        __builtin_trap();

    const std::string xml = request->BuildXml();
    const bool plain = Plain(coverage) && Plain(crs);
    try {
        const MapServices::XmlDocument document(xml);
        const MapServices::XmlNode root = document.FirstElement("GetCoverage");
        if (!plain) return;
        if (root.IsEmpty() || root.FindNode("sourceCoverage").Value() != coverage) __builtin_trap();
        const MapServices::XmlNode envelope = root.FindNode("domainSubset/spatialSubset/gml:Envelope");
        if (envelope.Attribute("srsName").Value() != crs || root.FindNode("output/crs").Value() != crs)
            __builtin_trap();
        const std::vector<MapServices::XmlNode> corners = envelope.FindNodes("gml:pos");
        if (corners.size() != 2 || corners[0].Value() != Fixed(box.minX) + " " + Fixed(box.minY) ||
            corners[1].Value() != Fixed(box.maxX) + " " + Fixed(box.maxY))
            __builtin_trap();
        const MapServices::XmlNode high = root.FindNode(
            "domainSubset/spatialSubset/gml:Grid/gml:limits/"
            "gml:GridEnvelope/gml:high");
        if (high.Value() != std::to_string(width) + " " + std::to_string(height)) __builtin_trap();
        if (root.FindNode("domainSubset/temporalSubset").IsEmpty() == bool(time.Raw())) __builtin_trap();
    } catch (const std::exception&) {
        if (plain) __builtin_trap();
    }
}

void Wms(FuzzedDataProvider& in) {
    const std::string url = in.ConsumeRandomLengthString(64);
    std::vector<MapServices::Wms::WmsLayer> layers;
    std::string names;
    for (int count = in.ConsumeIntegralInRange(0, 4); count > 0; --count) {
        auto layer = Core::MakeObject<MapServices::Wms::impl::WmsLayerImpl>();
        layer->url = url;
        layer->name = in.ConsumeRandomLengthString(32);
        names += (names.empty() && layers.empty() ? "" : ",") + layer->name;
        layers.emplace_back(layer);
    }
    const std::string style = in.ConsumeRandomLengthString(16);
    const std::string crs = in.ConsumeRandomLengthString(32);
    const BoundingBoxValue box = Box(in);
    const auto width = in.ConsumeIntegral<uint32_t>(), height = in.ConsumeIntegral<uint32_t>();
    auto dimension = [&](const char* name) -> std::optional<MapServices::Wms::WmsDimension> {
        if (!in.ConsumeBool()) return std::nullopt;
        MapServices::Wms::WmsDimension value;
        value.name = name;
        value.current = in.ConsumeRandomLengthString(24);
        value.defaultValue = in.ConsumeRandomLengthString(24);
        return value;
    };
    const auto time = dimension("time");
    const auto elevation = dimension("elevation");
    const auto request =
        MapServices::Wms::impl::CreateWmsRequest(url, layers, style, crs, box, width, height, time, elevation);
    (void)request->GetRequestHash();
    const auto* wms = static_cast<const MapServices::Wms::impl::WmsRequestImpl*>(request.Raw());
    for (bool swap : {false, true}) {
        const std::string built = wms->BuildUrl(swap);
        if (built.rfind(url, 0) != 0 ||
            built.find("SERVICE=WMS&VERSION=1.3.0&REQUEST=Getmap&LAYERS=" + names + "&STYLES=" + style + "&CRS=" + crs +
                       "&BBOX=") == std::string::npos ||
            built.find(Core::StringFormat("&WIDTH=%u&HEIGHT=%u", width, height)) == std::string::npos)
            __builtin_trap();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    if (in.ConsumeBool())
        Wcs(in);
    else
        Wms(in);
    return 0;
}
