#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "CapabilitiesTestSupport.h"
#include "MapServices/Wcs/WcsCapabilities.h"

using CapabilitiesTests::FailureCase;
using CapabilitiesTests::MessageOf;
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
    EXPECT_EQ(caps.url, "http://cov.test/wcs");
    EXPECT_EQ(caps.capabilitiesUrl, "http://cov.test/wcs?SERVICE=wcs&REQUEST=GetCapabilities&VERSION=1.0.0");
    EXPECT_TRUE(caps.formats.empty());
    ASSERT_EQ(caps.layers.size(), 2u);

    const WcsLayer& dem = caps.layers[0];
    EXPECT_EQ(dem->name, "dem");
    EXPECT_EQ(dem->label, "DEM");
    EXPECT_EQ(dem->description, "Terrain");
    EXPECT_EQ(dem->srsName, "urn:ogc:def:crs:OGC:1.3:CRS84");
    EXPECT_EQ(dem->url, "http://cov.test/get");
    EXPECT_EQ(dem->method, 0);
    EXPECT_EQ(dem->capabilitiesUrl, caps.capabilitiesUrl);
    // The corners as written, even the wrong way round.
    EXPECT_EQ(dem->box, (BoundingBoxValue{15, 55, 5.5, 47.25}));
    ASSERT_EQ(dem->times.size(), 2u);
    EXPECT_EQ(dem->times[0]->GetYear(), 2020);
    EXPECT_EQ(dem->times[0]->GetSecond(), 5);
    EXPECT_EQ(dem->times[1]->GetMonth(), 6);

    const WcsLayer& slope = caps.layers[1];
    EXPECT_EQ(slope->name, "slope");
    EXPECT_EQ(slope->description, "");
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
    EXPECT_EQ(plain.layers[0]->name, prefixed.layers[0]->name);
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
        SCOPED_TRACE(row.name);
        const WcsCapabilities caps(Document(row.bindings, PlainCoverage));
        EXPECT_EQ(caps.layers.at(0)->url, row.url);
        EXPECT_EQ(caps.layers.at(0)->method, row.method);
    }
}

TEST(WcsCapabilities, CapabilitiesUrlJoiner) {
    struct Row {
        const char* href;
        const char* url;
        const char* capabilitiesUrl;
    } rows[] = {
        {"http://cov.test/wcs?", "http://cov.test/wcs",
         "http://cov.test/wcs?SERVICE=wcs&REQUEST=GetCapabilities&VERSION=1.0.0"},
        {"http://cov.test/wcs?map=a&", "http://cov.test/wcs?map=a",
         "http://cov.test/wcs?map=a&SERVICE=wcs&REQUEST=GetCapabilities&VERSION=1.0.0"},
        {"http://cov.test/wcs/ &?/", "http://cov.test/wcs",
         "http://cov.test/wcs?SERVICE=wcs&REQUEST=GetCapabilities&VERSION=1.0.0"},
        {"http://cov.test/wcs", "http://cov.test/wcs",
         "http://cov.test/wcs?SERVICE=wcs&REQUEST=GetCapabilities&VERSION=1.0.0"},
        {"?/&", "", "?SERVICE=wcs&REQUEST=GetCapabilities&VERSION=1.0.0"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.href);
        const WcsCapabilities caps(Replace(Good, "http://cov.test/wcs?", row.href));
        EXPECT_EQ(caps.url, row.url);
        EXPECT_EQ(caps.capabilitiesUrl, row.capabilitiesUrl);
    }
}

TEST(WcsCapabilities, DocumentShapes) {
    // The root is searched among the top-level elements; its GetCapabilities path in any case.
    const std::string lowerPath =
        Replace(Replace(Replace(Replace(Good, "wcs:Capability>", "wcs:capability>"), "wcs:Request>", "wcs:REQUEST>"),
                        "<wcs:OnlineResource xlink:href=\"http://cov.test/wcs?\"",
                        "<wcs:onlineresource xlink:href=\"http://cov.test/wcs?\""),
                "wcs:GetCapabilities>", "wcs:getcapabilities>");
    EXPECT_EQ(WcsCapabilities(lowerPath).url, "http://cov.test/wcs");
    const std::string secondRoot = Replace(Good, "<!-- coverage service -->", "<Other/>");
    EXPECT_EQ(WcsCapabilities(secondRoot).serviceName, "MyWCS");
    // No coverage is no error; no label is no error.
    const WcsCapabilities empty(Replace(Document("", ""), "<wcs:label>Heights</wcs:label>", ""));
    EXPECT_TRUE(empty.layers.empty());
    EXPECT_EQ(empty.serviceLabel, "");
}

TEST(WcsCapabilities, FailuresAndTheirOrder) {
    const std::string noPositions =
        Replace(Replace(Good, "<gml:pos>15 55</gml:pos>", ""), "<gml:pos>5.5 47.25 100</gml:pos>", "");
    const FailureCase cases[] = {
        {"malformed xml", Replace(Good, "</wcs:WCS_Capabilities>", ""), "unexpected end of data"},
        {"not xml", "WCS", "expected <"},
        {"empty text", "", "Xml is not valid WCS"},
        {"other root", Replace(Good, "WCS_Capabilities", "WMS_Capabilities"), "Xml is not valid WCS"},
        {"other root with the prefix kept", Replace(Good, "wcs:WCS_Capabilities", "ows:WCS_Capabilities"),
         "Xml is not valid WCS"},
        {"nested root", "<Wrapper>" + Good.substr(Good.find("<wcs:WCS")) + "</Wrapper>", "Xml is not valid WCS"},
        {"no version", Replace(Good, "<wcs:WCS_Capabilities version=\"1.0.0\"", "<wcs:WCS_Capabilities"),
         "Attribute does not exist"},
        {"version 1.1.0", Replace(Good, "version=\"1.0.0\" xmlns", "version=\"1.1.0\" xmlns"),
         "WCS Version is not supported. Currently only v1.0.0 is supported"},
        {"short version", Replace(Good, "version=\"1.0.0\" xmlns", "version=\"1.0\" xmlns"),
         "WCS Version is not supported. Currently only v1.0.0 is supported"},
        {"version with a blank", Replace(Good, "version=\"1.0.0\" xmlns", "version=\"1.0.0 \" xmlns"),
         "WCS Version is not supported. Currently only v1.0.0 is supported"},
        {"no service name", Replace(Good, "<wcs:name>MyWCS</wcs:name>", ""), "Cannot access the node"},
        {"no GetCapabilities href", Replace(Good, "xlink:href=\"http://cov.test/wcs?\"", ""),
         "Attribute does not exist"},
        {"no GetCapabilities binding", Replace(Good, "wcs:GetCapabilities>", "wcs:Other>"), "Attribute does not exist"},
        {"GET binding without href", Replace(Good, "xlink:href=\"http://cov.test/get?\"", ""),
         "Attribute does not exist"},
        {"no srsName", Replace(Good, " srsName=\"EPSG:4326\"", ""), "Attribute does not exist"},
        {"no envelope", Replace(Good, "lonLatEnvelope", "envelope"), "Attribute does not exist"},
        {"one position", Replace(Good, "<gml:pos>3 4</gml:pos>", ""), "Cannot access the node"},
        {"no position", noPositions, "Cannot access the node"},
        {"position with one number", Replace(Good, ">5.5 47.25 100<", ">5.5<"), "invalid vector subscript"},
        {"position not a number", Replace(Good, ">15 55<", ">east 55<"), "invalid stod argument"},
        {"position out of range", Replace(Good, ">15 55<", ">15 1e400<"), "stod argument out of range"},
        {"bad time", Replace(Good, "2021-06-15", "yesterday"), "Invalid ISO 8601 date-time: \"yesterday\""},
        {"no label", Replace(Good, "<wcs:label>Slope</wcs:label>", ""), "Attribute does not exist"},
        {"no name", Replace(Good, "<wcs:name>dem</wcs:name>", ""), "Attribute does not exist"},
        // Which failure comes first.
        {"the parser before the root test", Replace(Replace(Good, "WCS_Capabilities", "X"), "</wcs:Service>", ""),
         "unexpected end of data"},
        {"version before service name",
         Replace(Replace(Good, "version=\"1.0.0\" xmlns", "version=\"2\" xmlns"), "<wcs:name>MyWCS</wcs:name>", ""),
         "WCS Version is not supported. Currently only v1.0.0 is supported"},
        {"service name before href",
         Replace(Replace(Good, "<wcs:name>MyWCS</wcs:name>", ""), "xlink:href=\"http://cov.test/wcs?\"", ""),
         "Cannot access the node"},
        {"srsName before positions", Replace(Replace(Good, " srsName=\"EPSG:4326\"", ""), "<gml:pos>3 4</gml:pos>", ""),
         "Attribute does not exist"},
        {"first position before the missing second",
         Replace(Replace(Good, "<gml:pos>3 4</gml:pos>", ""), ">1 2<", ">1<"), "invalid vector subscript"},
        {"positions before times", Replace(Replace(Good, ">15 55<", ">x 55<"), "2021-06-15", "never"),
         "invalid stod argument"},
        {"times before label and name", Replace(Replace(Good, "2021-06-15", "never"), "<wcs:label>DEM</wcs:label>", ""),
         "Invalid ISO 8601 date-time: \"never\""},
    };
    for (const FailureCase& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(MessageOf([&] { WcsCapabilities caps(c.document); }), c.message);
    }
}
