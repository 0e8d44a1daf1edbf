#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "CapabilitiesTestSupport.h"
#include "MapServices/Wmts/WmtsCapabilities.h"

using CapabilitiesTests::FailureCase;
using CapabilitiesTests::MessageOf;
using CapabilitiesTests::Replace;
using MapServices::BoundingBoxValue;
using MapServices::Wmts::WmtsCapabilities;
using MapServices::Wmts::WmtsLayer;
using MapServices::Wmts::WmtsTileMatrix;

namespace {

using Strings = std::vector<std::string>;

constexpr const char* Template = R"(<?xml version="1.0" encoding="UTF-8"?>
<Capabilities xmlns="http://www.opengis.net/wmts/1.0" xmlns:ows="http://www.opengis.net/ows/1.1"
    xmlns:xlink="http://www.w3.org/1999/xlink" version="1.0.0">
  <ows:ServiceIdentification>
    <ows:Title>Tiles</ows:Title><ows:Abstract>Tiled maps</ows:Abstract>
    <ows:ServiceType>OGC WMTS</ows:ServiceType><ows:ServiceTypeVersion>1.0.0</ows:ServiceTypeVersion>
  </ows:ServiceIdentification>
  <ows:OperationsMetadata>
    <ows:Operation name="GetCapabilities"><ows:DCP><ows:HTTP><ows:Get xlink:href="http://tiles.test/wmts?"/></ows:HTTP></ows:DCP></ows:Operation>
    <ows:Operation name="GetTile"><ows:DCP><ows:HTTP><ows:Get xlink:href="http://tiles.test/kvp?"/></ows:HTTP></ows:DCP></ows:Operation>
  </ows:OperationsMetadata>
  <Contents>
LAYERS
SETS
  </Contents>
</Capabilities>)";

std::string Matrix(const std::string& id, const std::string& scale, const std::string& tile = "256") {
    return "<TileMatrix><ows:Identifier>" + id + "</ows:Identifier><ScaleDenominator>" + scale +
           "</ScaleDenominator><TopLeftCorner>-20037508.5 20037508.25</TopLeftCorner><TileWidth>" + tile +
           "</TileWidth><TileHeight>" + tile +
           "</TileHeight><MatrixWidth>2</MatrixWidth><MatrixHeight>3</MatrixHeight>"
           "</TileMatrix>";
}

std::string Set(const std::string& id, const std::string& matrices,
                const std::string& crs = "urn:ogc:def:crs:EPSG::3857") {
    return "<TileMatrixSet><ows:Title>Set " + id + "</ows:Title><ows:Identifier>" + id +
           "</ows:Identifier><ows:SupportedCRS>" + crs + "</ows:SupportedCRS>" + matrices + "</TileMatrixSet>";
}

const std::string DefaultStyle =
    R"(<Style isDefault="true"><ows:Title>Default</ows:Title><ows:Identifier>default</ows:Identifier>
  <LegendURL format="image/png" xlink:href="http://tiles.test/legend.png"/></Style>)";
const std::string PngResource =
    R"(<ResourceURL format="image/png" resourceType="tile" template="http://tiles.test/{TileMatrix}/{TileRow}/{TileCol}.png"/>)";

std::string Layer(const std::string& id, const Strings& links, const std::string& styles = DefaultStyle,
                  const std::string& resources = PngResource, const std::string& extra = "") {
    std::string text = "<Layer><ows:Title>Layer " + id + "</ows:Title><ows:Identifier>" + id +
                       "</ows:Identifier><ows:WGS84BoundingBox><ows:LowerCorner>-180 -85</ows:LowerCorner>"
                       "<ows:UpperCorner>180 85</ows:UpperCorner></ows:WGS84BoundingBox>" +
                       styles + resources + extra;
    for (const std::string& link : links)
        text += "<TileMatrixSetLink><TileMatrixSet>" + link + "</TileMatrixSet></TileMatrixSetLink>";
    return text + "</Layer>";
}

std::string Document(const std::string& layers, const std::string& sets) {
    return Replace(Replace(Template, "LAYERS", layers), "SETS", sets);
}

const std::string StandardSet = Set("WebMercatorQuad", Matrix("1", "279541132.01") + Matrix("0", "559082264.03"));
const std::string StandardDocument = Document(Layer("osm", {"WebMercatorQuad"}), StandardSet);

}  // namespace

TEST(WmtsCapabilities, ReadsServiceSetsAndLayers) {
    const std::string extra = R"(<ows:BoundingBox crs="urn:ogc:def:crs:EPSG::3857">
      <ows:LowerCorner>10 20</ows:LowerCorner><ows:UpperCorner>-10 40</ows:UpperCorner></ows:BoundingBox>)";
    const std::string layer =
        "<Layer><ows:Title>Swapped</ows:Title><ows:Identifier>swapped</ows:Identifier><ows:WGS84BoundingBox>"
        "<ows:LowerCorner>30 50</ows:LowerCorner><ows:UpperCorner>10 40</ows:UpperCorner></ows:WGS84BoundingBox>" +
        DefaultStyle + PngResource + extra +
        "<TileMatrixSetLink><TileMatrixSet>WebMercatorQuad</TileMatrixSet></TileMatrixSetLink></Layer>";
    const WmtsCapabilities caps(
        Document(Layer("osm", {"WebMercatorQuad"}) + layer,
                 StandardSet + Set("Other", Matrix("a", "1000"), "urn:ogc:def:crs:EPSG::25832")));
    EXPECT_EQ(caps.title, "Tiles");
    EXPECT_EQ(caps.abstract, "Tiled maps");
    EXPECT_EQ(caps.capabilitiesUrl, "http://tiles.test/wmts?request=GetCapabilities&version=1.0.0");
    ASSERT_EQ(caps.tileMatrixSets.size(), 2u);
    const auto& set = caps.tileMatrixSets[0];
    EXPECT_EQ(set->identifier, "WebMercatorQuad");
    EXPECT_EQ(set->title, "Set WebMercatorQuad");
    EXPECT_EQ(set->abstract, "");
    EXPECT_EQ(set->supportedCrs, "urn:ogc:def:crs:EPSG::3857");
    EXPECT_EQ(set->epsgCode, 3857);
    EXPECT_EQ(caps.tileMatrixSets[1]->epsgCode, 25832);
    EXPECT_TRUE(set->HasTileMatrix("0"));
    EXPECT_FALSE(set->HasTileMatrix("2"));
    // Given finest first, the matrices come out coarsest first.
    const std::vector<WmtsTileMatrix> matrices = set->GetTileMatrices();
    ASSERT_EQ(matrices.size(), 2u);
    EXPECT_EQ(matrices[0].identifier, "0");
    EXPECT_EQ(matrices[1].identifier, "1");
    EXPECT_DOUBLE_EQ(matrices[0].scaleDenominator, 559082264.03);
    EXPECT_DOUBLE_EQ(matrices[0].topLeftX, -20037508.5);
    EXPECT_DOUBLE_EQ(matrices[0].topLeftY, 20037508.25);
    EXPECT_EQ(matrices[0].tileWidth, 256);
    EXPECT_EQ(matrices[0].tileHeight, 256);
    EXPECT_EQ(matrices[0].matrixWidth, 2);
    EXPECT_EQ(matrices[0].matrixHeight, 3);

    ASSERT_EQ(caps.layers.size(), 2u);
    const WmtsLayer& osm = caps.layers[0];
    EXPECT_EQ(osm->identifier, "osm");
    EXPECT_EQ(osm->title, "Layer osm");
    EXPECT_EQ(osm->capabilitiesUrl, caps.capabilitiesUrl);
    EXPECT_EQ(osm->wgs84Box, (BoundingBoxValue{-180, -85, 180, 85}));
    EXPECT_EQ(osm->crs, "");
    EXPECT_TRUE(osm->box.IsUnset());
    EXPECT_EQ(osm->currentStyle, "default");
    EXPECT_EQ(osm->GetCurrentStyle().title, "Default");
    EXPECT_EQ(osm->GetCurrentStyle().legendUrl, "http://tiles.test/legend.png");
    EXPECT_TRUE(osm->GetCurrentStyle().isDefault);
    EXPECT_EQ(osm->currentFormat, "image/png");
    EXPECT_EQ(osm->GetCurrentResource().urlTemplate, "http://tiles.test/{TileMatrix}/{TileRow}/{TileCol}.png");
    EXPECT_EQ(osm->currentFeatureInfoFormat, "");
    EXPECT_EQ(osm->currentTileMatrixSet, "WebMercatorQuad");
    EXPECT_EQ(osm->GetCurrentTileMatrixSet().Raw(), set.Raw());
    EXPECT_EQ(osm->GetTileMatrixSets().size(), 1u);

    // The WGS 84 corners as written; the other box sorted per axis.
    const WmtsLayer& swapped = caps.layers[1];
    EXPECT_EQ(swapped->wgs84Box, (BoundingBoxValue{30, 50, 10, 40}));
    EXPECT_EQ(swapped->crs, "urn:ogc:def:crs:EPSG::3857");
    EXPECT_EQ(swapped->box, (BoundingBoxValue{-10, 20, 10, 40}));
}

TEST(WmtsCapabilities, CapabilitiesUrlSources) {
    // "ServiceMetadataURL" in any letter case wins over the operations.
    const std::string withMetadata =
        Replace(StandardDocument, "</Capabilities>",
                "<servicemetadataurl xlink:href=\"http://tiles.test/1.0.0/WMTSCapabilities.xml\"/></Capabilities>");
    EXPECT_EQ(WmtsCapabilities(withMetadata).capabilitiesUrl, "http://tiles.test/1.0.0/WMTSCapabilities.xml");
    // The DCP path is matched in any letter case, the operation's element name exactly.
    const std::string lowerDcp =
        Replace(StandardDocument, "<ows:DCP><ows:HTTP><ows:Get", "<ows:dcp><ows:http><ows:get");
    EXPECT_EQ(WmtsCapabilities(lowerDcp).capabilitiesUrl,
              "http://tiles.test/wmts?request=GetCapabilities&version=1.0.0");
    EXPECT_EQ(WmtsCapabilities(Replace(StandardDocument, "<ows:Operation ", "<ows:operation ")).capabilitiesUrl, "");
    EXPECT_EQ(WmtsCapabilities(Replace(StandardDocument, "name=\"GetCapabilities\"", "name=\"getcapabilities\""))
                  .capabilitiesUrl,
              "");
}

TEST(WmtsCapabilities, KvpFallbackMakesOneTemplatePerFormat) {
    const std::string formats = "<Format>image/jpeg</Format><Format>image/png</Format>";
    const WmtsCapabilities caps(Document(Layer("kvp", {"WebMercatorQuad"}, DefaultStyle, "", formats), StandardSet));
    const WmtsLayer& layer = caps.layers.at(0);
    EXPECT_EQ(layer->currentFormat, "image/jpeg");
    EXPECT_EQ(layer->tileResources.size(), 2u);
    EXPECT_EQ(layer->GetCurrentResource().resourceType, "tile");
    EXPECT_EQ(layer->GetCurrentResource().urlTemplate,
              "http://tiles.test/kvp?REQUEST=GetTile&LAYER=kvp&FORMAT=image/jpeg&TILEMATRIXSET={TileMatrixSet}"
              "&TILEMATRIX={TileMatrix}&TILEROW={TileRow}&TILECOL={TileCol}");
    layer->SetFormat("image/png");
    EXPECT_NE(layer->GetCurrentResource().urlTemplate.find("&FORMAT=image/png&"), std::string::npos);

    // Without a GetTile operation the href is empty; with ResourceURL the formats are ignored.
    const std::string noGetTile =
        Replace(Document(Layer("kvp", {"WebMercatorQuad"}, DefaultStyle, "", formats), StandardSet), "name=\"GetTile\"",
                "name=\"GetFeatureInfo\"");
    EXPECT_EQ(WmtsCapabilities(noGetTile).layers.at(0)->GetCurrentResource().urlTemplate.rfind(
                  "REQUEST=GetTile&LAYER=kvp&", 0),
              0u);
    const WmtsCapabilities both(
        Document(Layer("rest", {"WebMercatorQuad"}, DefaultStyle, PngResource, formats), StandardSet));
    EXPECT_EQ(both.layers.at(0)->tileResources.size(), 1u);
}

TEST(WmtsCapabilities, ResourceTypesAndRepeatedFormats) {
    const std::string resources =
        R"(<ResourceURL format="application/json" resourceType="FeatureInfo" template="fi1"/>
           <ResourceURL format="image/png" resourceType="tile" template="first"/>
           <ResourceURL format="image/jpeg" resourceType="tile" template="jpeg"/>
           <ResourceURL format="image/png" resourceType="tile" template="second"/>
           <ResourceURL format="text/xml" resourceType="FeatureInfo" template="fi2"/>
           <ResourceURL format="image/webp" resourceType="Tile" template="dropped"/>)";
    const WmtsCapabilities caps(Document(Layer("r", {"WebMercatorQuad"}, DefaultStyle, resources), StandardSet));
    const WmtsLayer& layer = caps.layers.at(0);
    EXPECT_EQ(layer->currentFormat, "image/png");
    EXPECT_EQ(layer->GetCurrentResource().urlTemplate, "second");
    EXPECT_EQ(layer->GetTileResources().size(), 2u);
    EXPECT_EQ(layer->featureInfoResources.size(), 2u);
    EXPECT_EQ(layer->currentFeatureInfoFormat, "application/json");
}

TEST(WmtsCapabilities, DefaultStyleIsTheLastMarkedElseTheFirst) {
    const auto style = [](const std::string& id, const std::string& isDefault) {
        return "<Style" + (isDefault.empty() ? "" : " isDefault=\"" + isDefault + "\"") + "><ows:Identifier>" + id +
               "</ows:Identifier></Style>";
    };
    struct Row {
        const char* name;
        std::string styles;
        const char* current;
    } rows[] = {
        {"none marked", style("a", "") + style("b", ""), "a"},
        {"last marked wins", style("a", "true") + style("b", "") + style("c", "true"), "c"},
        {"capital TRUE and 1 are false", style("a", "") + style("b", "TRUE") + style("c", "1"), "a"},
        {"false is false", style("a", "false") + style("b", "true"), "b"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const WmtsCapabilities caps(Document(Layer("s", {"WebMercatorQuad"}, row.styles), StandardSet));
        EXPECT_EQ(caps.layers.at(0)->currentStyle, row.current);
    }
}

TEST(WmtsCapabilities, DefaultTileMatrixSet) {
    const std::string sets =
        Set("Plain", Matrix("0", "1000")) + Set("Grid3857", Matrix("0", "1000")) +
        Set("Google900913", Matrix("0", "1000")) + Set("Big", Matrix("0", "1000", "512") + Matrix("1", "500")) +
        Set("AlsoBig", Matrix("0", "2000", "512")) + Set("Small", Matrix("1", "10") + Matrix("0", "5000"));
    struct Row {
        const char* name;
        Strings links;
        const char* current;
    } rows[] = {
        {"named for 3857", {"Plain", "Grid3857"}, "Grid3857"},
        {"last named link wins", {"Grid3857", "Google900913"}, "Google900913"},
        {"last named link wins, other way", {"Google900913", "Plain", "Grid3857"}, "Grid3857"},
        {"256-pixel tiles at the coarsest level", {"Big", "Small"}, "Small"},
        {"all 512: the first link", {"AlsoBig", "Big"}, "AlsoBig"},
        {"plain first with 256", {"Plain", "Small"}, "Plain"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const WmtsCapabilities caps(Document(Layer("t", row.links), sets));
        EXPECT_EQ(caps.layers.at(0)->currentTileMatrixSet, row.current);
        EXPECT_EQ(caps.layers.at(0)->GetCurrentTileMatrixSet()->identifier, row.current);
    }
}

TEST(WmtsCapabilities, RepeatedMatrixIdentifierKeepsTheLater) {
    const WmtsCapabilities caps(Document(Layer("l", {"S"}), Set("S", Matrix("0", "1000") + Matrix("0", "7"))));
    const auto matrices = caps.tileMatrixSets.at(0)->GetTileMatrices();
    ASSERT_EQ(matrices.size(), 1u);
    EXPECT_DOUBLE_EQ(matrices[0].scaleDenominator, 7);
}

TEST(WmtsCapabilities, SettersAndCurrentLookups) {
    const WmtsCapabilities caps(Document(Layer("l", {"WebMercatorQuad"}), StandardSet));
    const WmtsLayer& layer = caps.layers.at(0);
    const std::string invalid = "Invalid style identifier";
    EXPECT_EQ(MessageOf([&] { layer->SetStyle("nope"); }), invalid);
    EXPECT_EQ(MessageOf([&] { layer->SetFormat("image/gif"); }), invalid);
    EXPECT_EQ(MessageOf([&] { layer->SetTileMatrixSet("Other"); }), invalid);
    EXPECT_EQ(layer->currentStyle, "default");
    layer->SetStyle("default");
    layer->SetTileMatrixSet("WebMercatorQuad");

    const std::string key = "invalid unordered_map<K, T> key";
    layer->currentStyle = "gone";
    layer->currentFormat = "gone";
    layer->currentTileMatrixSet = "gone";
    EXPECT_EQ(MessageOf([&] { layer->GetCurrentStyle(); }), key);
    EXPECT_EQ(MessageOf([&] { layer->GetCurrentResource(); }), key);
    EXPECT_EQ(MessageOf([&] { layer->GetCurrentTileMatrixSet(); }), key);
}

TEST(WmtsCapabilities, FailuresAndTheirOrder) {
    const std::string good = StandardDocument;
    const std::string noIdentification = Replace(good, "<ows:ServiceType>OGC WMTS</ows:ServiceType>", "");
    const std::string stateless = Replace(Replace(good, "ows:ServiceIdentification", "ows:Other"), "Contents", "Stuff");
    const FailureCase cases[] = {
        {"malformed xml", Replace(good, "</Contents>", ""), "unexpected end of data"},
        {"unclosed closing tag", good.substr(0, good.size() - 1), "expected >"},
        {"not xml", "WMTS", "expected <"},
        {"empty text", "", "Not WMTS caps!"},
        {"neither identification nor contents", stateless, "Not WMTS caps!"},
        {"contents without identification", Replace(good, "ows:ServiceIdentification", "ows:Other"),
         "Missing <ows:ServiceType>OGC WMTS</ows:ServiceType>!"},
        {"identification without contents", Replace(good, "Contents", "Stuff"), "<no exception>"},
        {"no service type", noIdentification, "Missing <ows:ServiceType>OGC WMTS</ows:ServiceType>!"},
        {"other service type", Replace(good, ">OGC WMTS<", ">OGC WMS<"),
         "Missing <ows:ServiceType>OGC WMTS</ows:ServiceType>!"},
        {"plain WMTS is fine", Replace(good, ">OGC WMTS<", ">WMTS<"), "<no exception>"},
        {"service type with a blank", Replace(good, ">OGC WMTS<", ">WMTS <"),
         "Missing <ows:ServiceType>OGC WMTS</ows:ServiceType>!"},
        {"short EPSG code", Replace(good, "urn:ogc:def:crs:EPSG::3857", "EPSG:3857"),
         "Unsupported format! Following format is supported: urn:ogc:def:crs:EPSG::4326"},
        {"OGC CRS URN", Replace(good, "urn:ogc:def:crs:EPSG::3857", "urn:ogc:def:crs:OGC:1.3:CRS84"),
         "Unsupported format! Following format is supported: urn:ogc:def:crs:EPSG::4326"},
        {"lower-case urn", Replace(good, "urn:ogc:def:crs:EPSG::3857", "urn:ogc:def:crs:epsg::3857"),
         "Unsupported format! Following format is supported: urn:ogc:def:crs:EPSG::4326"},
        {"unlinked set", Document(Layer("l", {"WebMercatorQuad"}), StandardSet + Set("x", "", "CRS:84")),
         "Unsupported format! Following format is supported: urn:ogc:def:crs:EPSG::4326"},
        {"EPSG code not a number", Replace(good, "EPSG::3857", "EPSG::web"), "invalid stoi argument"},
        {"EPSG code missing", Replace(good, "EPSG::3857", "EPSG:"), "invalid stoi argument"},
        {"EPSG code out of range", Replace(good, "EPSG::3857", "EPSG::99999999999"), "stoi argument out of range"},
        {"set without identifier", Replace(good, "<ows:Identifier>WebMercatorQuad</ows:Identifier>", ""),
         "Attribute does not exist"},
        {"set without CRS", Replace(good, "<ows:SupportedCRS>urn:ogc:def:crs:EPSG::3857</ows:SupportedCRS>", ""),
         "Attribute does not exist"},
        {"matrix without identifier", Replace(good, "<ows:Identifier>1</ows:Identifier>", ""),
         "Attribute does not exist"},
        {"matrix without scale", Replace(good, "<ScaleDenominator>279541132.01</ScaleDenominator>", ""),
         "Attribute does not exist"},
        {"matrix without width", Replace(good, "<MatrixWidth>2</MatrixWidth>", ""), "Attribute does not exist"},
        {"matrix without corner", Replace(good, "<TopLeftCorner>-20037508.5 20037508.25</TopLeftCorner>", ""),
         "Attribute does not exist"},
        {"scale not a number", Replace(good, ">279541132.01<", ">big<"), "invalid stod argument"},
        {"tile width not a number", Replace(good, "<TileWidth>256", "<TileWidth>px"), "invalid stoll argument"},
        {"matrix height out of range", Replace(good, "<MatrixHeight>3", "<MatrixHeight>99999999999999999999"),
         "stoll argument out of range"},
        {"corner with one number", Replace(good, ">-20037508.5 20037508.25<", ">-20037508.5<"),
         "invalid vector subscript"},
        {"metadata URL without href", Replace(good, "</Capabilities>", "<ServiceMetadataURL/></Capabilities>"),
         "Attribute does not exist"},
        {"GetCapabilities without GET", Replace(good, "<ows:Get xlink:href=\"http://tiles.test/wmts?\"/>", ""),
         "Attribute does not exist"},
        {"layer without identifier", Replace(good, "<ows:Identifier>osm</ows:Identifier>", ""),
         "Attribute does not exist"},
        {"layer without upper corner", Replace(good, "<ows:UpperCorner>180 85</ows:UpperCorner>", ""),
         "Attribute does not exist"},
        {"lower corner with one number", Replace(good, ">-180 -85<", ">-180<"), "invalid vector subscript"},
        {"bounding box without crs",
         Document(Layer("l", {"WebMercatorQuad"}, DefaultStyle, PngResource,
                        "<ows:BoundingBox><ows:LowerCorner>0 0</ows:LowerCorner><ows:UpperCorner>1 "
                        "1</ows:UpperCorner></ows:BoundingBox>"),
                  StandardSet),
         "Attribute does not exist"},
        {"resource without template",
         Replace(good, " template=\"http://tiles.test/{TileMatrix}/{TileRow}/{TileCol}.png\"", ""),
         "Attribute does not exist"},
        {"KVP fallback without GET",
         Replace(Document(Layer("l", {"WebMercatorQuad"}, DefaultStyle, ""), StandardSet),
                 "<ows:Get xlink:href=\"http://tiles.test/kvp?\"/>", ""),
         "Attribute does not exist"},
        {"style without identifier", Replace(good, "<ows:Identifier>default</ows:Identifier>", ""),
         "Attribute does not exist"},
        {"link to an unknown set", Document(Layer("l", {"Elsewhere"}), StandardSet), "invalid unordered_map<K, T> key"},
        {"no style", Document(Layer("l", {"WebMercatorQuad"}, ""), StandardSet), "WMTS layer \"l\" has no Style"},
        {"no link", Document(Layer("l", {}), StandardSet), "WMTS layer \"l\" has no TileMatrixSetLink"},
        {"linked set without matrices",
         Document(Layer("l", {"WebMercatorQuad", "Empty"}), StandardSet + Set("Empty", "")),
         "WMTS layer \"l\" links the tile matrix set \"Empty\", which has no TileMatrix"},
        // Which failure comes first.
        {"service type before sets", Replace(Replace(good, ">OGC WMTS<", ">WMS<"), "EPSG::3857", "EPSG::x"),
         "Missing <ows:ServiceType>OGC WMTS</ows:ServiceType>!"},
        {"CRS form before matrices",
         Replace(Replace(good, "urn:ogc:def:crs:EPSG::3857", "EPSG:3857"), ">279541132.01<", "><"),
         "Unsupported format! Following format is supported: urn:ogc:def:crs:EPSG::4326"},
        {"sets before the capabilities URL",
         Replace(Replace(good, "EPSG::3857", "EPSG::x"), "<ows:Get xlink:href=\"http://tiles.test/wmts?\"/>", ""),
         "invalid stoi argument"},
        {"capabilities URL before layers",
         Replace(Replace(good, "<ows:Get xlink:href=\"http://tiles.test/wmts?\"/>", ""), ">-180 -85<", ">-180<"),
         "Attribute does not exist"},
        {"upper corner before lower",
         Replace(Replace(good, ">180 85<", ">180<"), "<ows:LowerCorner>-180 -85</ows:LowerCorner>", ""),
         "invalid vector subscript"},
        {"styles before links", Document(Layer("l", {"Elsewhere"}, "<Style/>"), StandardSet),
         "Attribute does not exist"},
        {"links before the defaults", Document(Layer("l", {"Elsewhere"}, ""), StandardSet),
         "invalid unordered_map<K, T> key"},
    };
    for (const FailureCase& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(MessageOf([&] { WmtsCapabilities caps(c.document); }), c.message);
    }
}
