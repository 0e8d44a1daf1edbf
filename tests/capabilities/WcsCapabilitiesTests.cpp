#include <gtest/gtest.h>

#include <string>

#include "CapabilitiesTestSupport.h"
#include "MapServices/Wcs/WcsCapabilities.h"

using CapabilitiesTests::Missing;
using CapabilitiesTests::Replace;
using MapServices::BoundingBoxValue;
using MapServices::Wcs::WcsCapabilities;
using MapServices::Wcs::WcsLayer;

namespace {

// "P:" stands for the namespace prefix, written as "wcs:" or left out.
constexpr const char* Template = R"(<?xml version="1.0" encoding="UTF-8"?>
<!-- coverage service -->
<P:WCS_Capabilities version="1.0.0" xmlns:wcs="http://www.opengis.net/wcs" xmlns:gml="http://www.opengis.net/gml"
    xmlns:xlink="http://www.w3.org/1999/xlink">
  <P:Service><P:name>MyWCS</P:name><P:label>Heights</P:label></P:Service>
  <P:Capability>
    <P:Request>
      <P:GetCapabilities><P:DCPType><P:HTTP><P:Get><P:OnlineResource xlink:href="http://cov.test/wcs?"/></P:Get></P:HTTP></P:DCPType></P:GetCapabilities>
      <P:GetCoverage>BINDINGS</P:GetCoverage>
    </P:Request>
  </P:Capability>
  <P:ContentMetadata>COVERAGES</P:ContentMetadata>
</P:WCS_Capabilities>)";

std::string Binding(const std::string& method, const std::string& url) {
    return "<P:DCPType><P:HTTP><P:" + method + "><P:OnlineResource xlink:href=\"" + url + "\"/></P:" + method +
           "></P:HTTP></P:DCPType>";
}

const std::string DemCoverage = R"(<P:CoverageOfferingBrief>
  <P:description>Terrain</P:description><P:name>dem</P:name><P:label>DEM</P:label>
  <P:lonLatEnvelope srsName="urn:ogc:def:crs:OGC:1.3:CRS84">
    <gml:pos>15 55</gml:pos><gml:pos>5.5 47.25 100</gml:pos>
    <gml:timePosition>2020-01-02T03:04:05Z</gml:timePosition><gml:timePosition>2021-06-15</gml:timePosition>
  </P:lonLatEnvelope>
</P:CoverageOfferingBrief>)";

const std::string PlainCoverage = R"(<P:CoverageOfferingBrief><P:name>slope</P:name><P:label>Slope</P:label>
  <P:lonLatEnvelope srsName="EPSG:4326"><gml:pos>1 2</gml:pos><gml:pos>3 4</gml:pos></P:lonLatEnvelope>
</P:CoverageOfferingBrief>)";

std::string Document(const std::string& bindings, const std::string& coverages, const std::string& prefix = "wcs:") {
    return Replace(Replace(Replace(Template, "BINDINGS", bindings), "COVERAGES", coverages), "P:", prefix);
}

const std::string Good = Document(Binding("Post", "http://cov.test/post?") + Binding("Get", "http://cov.test/get?"),
                                  DemCoverage + PlainCoverage);

}  // namespace

TEST(WcsCapabilities, ReadsServiceAndCoverages) {
    const WcsCapabilities caps(Good);
    EXPECT_EQ(caps.version, "1.0.0");
    EXPECT_EQ(caps.serviceName, "MyWCS");
    EXPECT_EQ(caps.serviceLabel, "Heights");
    EXPECT_TRUE(caps.formats.empty());
    ASSERT_EQ(caps.layers.size(), 2u);

    const WcsLayer& dem = caps.layers[0];
    EXPECT_EQ(dem->name, "dem");
    EXPECT_EQ(dem->label, "DEM");
    EXPECT_EQ(dem->description, "Terrain");
    EXPECT_EQ(dem->srsName, "urn:ogc:def:crs:OGC:1.3:CRS84");
    EXPECT_EQ(dem->capabilitiesUrl, caps.capabilitiesUrl);
    // The corners as written, even the wrong way round.
    EXPECT_EQ(dem->box, (BoundingBoxValue{15, 55, 5.5, 47.25}));
    ASSERT_EQ(dem->times.size(), 2u);
    EXPECT_EQ(dem->times[0]->GetSecond(), 5);
    EXPECT_EQ(dem->times[1]->GetMonth(), 6);

    const WcsLayer& slope = caps.layers[1];
    EXPECT_EQ(slope->name, "slope");
    EXPECT_TRUE(slope->times.empty());
    EXPECT_EQ(slope->box, (BoundingBoxValue{1, 2, 3, 4}));
}

TEST(WcsCapabilities, PrefixedAndPlainDocumentsParseAlike) {
    const std::string bindings = Binding("Get", "http://cov.test/get");
    const WcsCapabilities prefixed(Document(bindings, DemCoverage));
    const WcsCapabilities plain(Document(bindings, DemCoverage, ""));
    EXPECT_EQ(plain.serviceName, prefixed.serviceName);
    EXPECT_EQ(plain.capabilitiesUrl, prefixed.capabilitiesUrl);
    ASSERT_EQ(plain.layers.size(), 1u);
    EXPECT_EQ(plain.layers[0]->box, prefixed.layers[0]->box);
    EXPECT_EQ(plain.layers[0]->url, prefixed.layers[0]->url);

    // The prefix goes everywhere, URLs included.
    const WcsCapabilities damaged(Document(Binding("Get", "http://cov.test/wcs:8080/ows"), PlainCoverage));
    EXPECT_EQ(damaged.layers.at(0)->url, "http://cov.test/8080/ows");
}

TEST(WcsCapabilities, GetCoverageEndpoint) {
    struct Row {
        const char* name;
        std::string bindings;
        const char* url;
        int32_t method;
    } rows[] = {
        {"GET preferred over POST", Binding("Post", "http://p/") + Binding("Get", "http://g/"), "http://g", 0},
        {"POST alone", Binding("Post", "http://p/wcs?"), "http://p/wcs", 1},
        {"the last GET wins", Binding("Get", "http://g1") + Binding("Get", "http://g2"), "http://g2", 0},
        {"the last POST wins", Binding("Post", "http://p1") + Binding("Post", "http://p2"), "http://p2", 1},
        {"no binding", "", "", 1},
        {"trailing blank, ? and / trimmed", Binding("Get", "http://g/wcs/ ?/"), "http://g/wcs", 0},
        {"a trailing & stays", Binding("Get", "http://g/wcs?map=a&"), "http://g/wcs?map=a&", 0},
        {"looked up with exact case",
         "<P:dcptype><P:http><P:get><P:OnlineResource xlink:href=\"http://g\"/></P:get></P:http></P:dcptype>", "", 1},
    };
    for (const Row& row : rows) {
        const WcsCapabilities caps(Document(row.bindings, PlainCoverage));
        EXPECT_EQ(caps.layers.at(0)->url, row.url) << row.name;
        EXPECT_EQ(caps.layers.at(0)->method, row.method) << row.name;
    }
}

TEST(WcsCapabilities, CapabilitiesUrlJoiner) {
    const std::string query = "SERVICE=wcs&REQUEST=GetCapabilities&VERSION=1.0.0";
    struct Row {
        const char* href;
        const char* url;
        std::string capabilitiesUrl;
    } rows[] = {
        {"http://cov.test/wcs?", "http://cov.test/wcs", "http://cov.test/wcs?" + query},
        {"http://cov.test/wcs?map=a&", "http://cov.test/wcs?map=a", "http://cov.test/wcs?map=a&" + query},
        {"http://cov.test/wcs/ &?/", "http://cov.test/wcs", "http://cov.test/wcs?" + query},
        {"http://cov.test/wcs", "http://cov.test/wcs", "http://cov.test/wcs?" + query},
        {"?/&", "", "?" + query},
    };
    for (const Row& row : rows) {
        const WcsCapabilities caps(Replace(Good, "http://cov.test/wcs?", row.href));
        EXPECT_EQ(caps.url, row.url) << row.href;
        EXPECT_EQ(caps.capabilitiesUrl, row.capabilitiesUrl) << row.href;
    }
}

TEST(WcsCapabilities, DocumentShapes) {
    // The root is searched among the top-level elements; its GetCapabilities path in any case.
    const std::string lowerPath =
        Replace(Replace(Good, "wcs:Capability>", "wcs:capability>", "wcs:Request>", "wcs:REQUEST>"),
                "<wcs:OnlineResource xlink:href=\"http://cov.test/wcs?\"",
                "<wcs:onlineresource xlink:href=\"http://cov.test/wcs?\"", "wcs:GetCapabilities>",
                "wcs:getcapabilities>");
    EXPECT_EQ(WcsCapabilities(lowerPath).url, "http://cov.test/wcs");
    EXPECT_EQ(WcsCapabilities(Replace(Good, "<!-- coverage service -->", "<Other/>")).serviceName, "MyWCS");
    // No coverage is no error; no label is no error.
    const WcsCapabilities empty(Replace(Document("", ""), "<wcs:label>Heights</wcs:label>", ""));
    EXPECT_TRUE(empty.layers.empty());
    EXPECT_EQ(empty.serviceLabel, "");
}

TEST(WcsCapabilities, FailuresAndTheirOrder) {
    const auto R = [](std::string_view from, std::string_view to) { return Replace(Good, from, to); };
    const auto R2 = [](std::string_view a, std::string_view b, std::string_view c, std::string_view d) {
        return Replace(Good, a, b, c, d);
    };
    const std::string version = "WCS Version is not supported. Currently only v1.0.0 is supported";
    const std::string noNode = "Cannot access the node";
    const std::string notWcs = "Xml is not valid WCS";
    CapabilitiesTests::ExpectFailures<WcsCapabilities>({
        {"malformed xml", R("</wcs:WCS_Capabilities>", ""), "unexpected end of data"},
        {"not xml", "WCS", "expected <"},
        {"empty text", "", notWcs},
        {"other root", R("WCS_Capabilities", "WMS_Capabilities"), notWcs},
        {"other root with the prefix kept", R("wcs:WCS_Capabilities", "ows:WCS_Capabilities"), notWcs},
        {"nested root", "<Wrapper>" + Good.substr(Good.find("<wcs:WCS")) + "</Wrapper>", notWcs},
        {"no version", R("<wcs:WCS_Capabilities version=\"1.0.0\"", "<wcs:WCS_Capabilities"), Missing},
        {"version 1.1.0", R("version=\"1.0.0\" xmlns", "version=\"1.1.0\" xmlns"), version},
        {"version with a blank", R("version=\"1.0.0\" xmlns", "version=\"1.0.0 \" xmlns"), version},
        {"no service name", R("<wcs:name>MyWCS</wcs:name>", ""), noNode},
        {"no GetCapabilities href", R("xlink:href=\"http://cov.test/wcs?\"", ""), Missing},
        {"no GetCapabilities binding", R("wcs:GetCapabilities>", "wcs:Other>"), Missing},
        {"GET binding without href", R("xlink:href=\"http://cov.test/get?\"", ""), Missing},
        {"no srsName", R(" srsName=\"EPSG:4326\"", ""), Missing},
        {"one position", R("<gml:pos>3 4</gml:pos>", ""), noNode},
        {"position with one number", R(">5.5 47.25 100<", ">5.5<"), "invalid vector subscript"},
        {"position not a number", R(">15 55<", ">east 55<"), "invalid stod argument"},
        {"position out of range", R(">15 55<", ">15 1e400<"), "stod argument out of range"},
        {"bad time", R("2021-06-15", "yesterday"), "Invalid ISO 8601 date-time: \"yesterday\""},
        {"no label", R("<wcs:label>Slope</wcs:label>", ""), Missing},
        {"no name", R("<wcs:name>dem</wcs:name>", ""), Missing},
        // Which failure comes first.
        {"the parser before the root test", R2("WCS_Capabilities", "X", "</wcs:Service>", ""),
         "unexpected end of data"},
        {"version before service name",
         R2("version=\"1.0.0\" xmlns", "version=\"2\" xmlns", "<wcs:name>MyWCS</wcs:name>", ""),
         version},
        {"service name before href", R2("<wcs:name>MyWCS</wcs:name>", "", "xlink:href=\"http://cov.test/wcs?\"", ""),
         noNode},
        {"srsName before positions", R2(" srsName=\"EPSG:4326\"", "", "<gml:pos>3 4</gml:pos>", ""), Missing},
        {"first position before the missing second", R2("<gml:pos>3 4</gml:pos>", "", ">1 2<", ">1<"),
         "invalid vector subscript"},
        {"positions before times", R2(">15 55<", ">x 55<", "2021-06-15", "never"), "invalid stod argument"},
        {"times before label and name", R2("2021-06-15", "never", "<wcs:label>DEM</wcs:label>", ""),
         "Invalid ISO 8601 date-time: \"never\""},
    });
}
