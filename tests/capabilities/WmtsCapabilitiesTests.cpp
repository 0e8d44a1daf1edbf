#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "CapabilitiesTestSupport.h"
#include "MapServices/Wmts/WmtsCapabilities.h"

using CapabilitiesTests::MessageOf;
using CapabilitiesTests::Missing;
using CapabilitiesTests::Replace;
using CapabilitiesTests::Strings;
using MapServices::BoundingBoxValue;
using MapServices::Wmts::WmtsCapabilities;
using MapServices::Wmts::WmtsLayer;
using MapServices::Wmts::WmtsTileMatrix;

namespace {

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
    const std::string swappedLayer =
        Replace(Layer("swapped", {"WebMercatorQuad"}, DefaultStyle, PngResource, extra),
                "-180 -85</ows:LowerCorner><ows:UpperCorner>180 85", "30 50</ows:LowerCorner><ows:UpperCorner>10 40");
    const std::string otherSet = Set("Other", Matrix("a", "1000"), "urn:ogc:def:crs:EPSG::25832");
    const WmtsCapabilities caps(Document(Layer("osm", {"WebMercatorQuad"}) + swappedLayer, StandardSet + otherSet));
    EXPECT_EQ(caps.title, "Tiles");
    EXPECT_EQ(caps.abstract, "Tiled maps");
    EXPECT_EQ(caps.capabilitiesUrl, "http://tiles.test/wmts?request=GetCapabilities&version=1.0.0");
    ASSERT_EQ(caps.tileMatrixSets.size(), 2u);
    const auto& set = caps.tileMatrixSets[0];
    EXPECT_EQ(set->identifier, "WebMercatorQuad");
    EXPECT_EQ(set->title, "Set WebMercatorQuad");
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
    EXPECT_EQ(matrices[0].matrixWidth, 2);
    EXPECT_EQ(matrices[0].matrixHeight, 3);

    ASSERT_EQ(caps.layers.size(), 2u);
    const WmtsLayer& osm = caps.layers[0];
    EXPECT_EQ(osm->identifier, "osm");
    EXPECT_EQ(osm->title, "Layer osm");
    EXPECT_EQ(osm->capabilitiesUrl, caps.capabilitiesUrl);
    EXPECT_EQ(osm->wgs84Box, (BoundingBoxValue{-180, -85, 180, 85}));
    EXPECT_TRUE(osm->box.IsUnset());
    EXPECT_EQ(osm->GetCurrentStyle().legendUrl, "http://tiles.test/legend.png");
    EXPECT_TRUE(osm->GetCurrentStyle().isDefault);
    EXPECT_EQ(osm->GetCurrentResource().urlTemplate, "http://tiles.test/{TileMatrix}/{TileRow}/{TileCol}.png");
    EXPECT_EQ(osm->GetCurrentTileMatrixSet().Raw(), set.Raw());

    // The WGS 84 corners as written; the other box sorted per axis.
    const WmtsLayer& swapped = caps.layers[1];
    EXPECT_EQ(swapped->wgs84Box, (BoundingBoxValue{30, 50, 10, 40}));
    EXPECT_EQ(swapped->crs, "urn:ogc:def:crs:EPSG::3857");
    EXPECT_EQ(swapped->box, (BoundingBoxValue{-10, 20, 10, 40}));
}

TEST(WmtsCapabilities, CapabilitiesUrlSources) {
    struct Row {
        const char* name;
        std::string document;
        const char* url;
    } rows[] = {
        {"ServiceMetadataURL in any case wins",
         Replace(StandardDocument, "</Capabilities>",
                 "<servicemetadataurl xlink:href=\"http://tiles.test/1.0.0/WMTSCapabilities.xml\"/></Capabilities>"),
         "http://tiles.test/1.0.0/WMTSCapabilities.xml"},
        {"DCP path in any case",
         Replace(StandardDocument, "<ows:DCP><ows:HTTP><ows:Get", "<ows:dcp><ows:http><ows:get"),
         "http://tiles.test/wmts?request=GetCapabilities&version=1.0.0"},
        {"operation element name exact", Replace(StandardDocument, "<ows:Operation ", "<ows:operation "), ""},
        {"operation name exact", Replace(StandardDocument, "name=\"GetCapabilities\"", "name=\"getcapabilities\""), ""},
    };
    for (const Row& row : rows) EXPECT_EQ(WmtsCapabilities(row.document).capabilitiesUrl, row.url) << row.name;
}

TEST(WmtsCapabilities, KvpFallbackMakesOneTemplatePerFormat) {
    const std::string formats = "<Format>image/jpeg</Format><Format>image/png</Format>";
    const std::string kvp = Document(Layer("kvp", {"WebMercatorQuad"}, DefaultStyle, "", formats), StandardSet);
    const WmtsCapabilities caps(kvp);
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
    const std::string noGetTile = Replace(kvp, "name=\"GetTile\"", "name=\"GetFeatureInfo\"");
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
        const WmtsCapabilities caps(Document(Layer("s", {"WebMercatorQuad"}, row.styles), StandardSet));
        EXPECT_EQ(caps.layers.at(0)->currentStyle, row.current) << row.name;
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
        const WmtsCapabilities caps(Document(Layer("t", row.links), sets));
        EXPECT_EQ(caps.layers.at(0)->GetCurrentTileMatrixSet()->identifier, row.current) << row.name;
    }
}

TEST(WmtsCapabilities, RepeatedMatrixIdentifierKeepsTheLater) {
    const WmtsCapabilities caps(Document(Layer("l", {"S"}), Set("S", Matrix("0", "1000") + Matrix("0", "7"))));
    const auto matrices = caps.tileMatrixSets.at(0)->GetTileMatrices();
    ASSERT_EQ(matrices.size(), 1u);
    EXPECT_DOUBLE_EQ(matrices[0].scaleDenominator, 7);
}

TEST(WmtsCapabilities, SettersAndCurrentLookups) {
    const WmtsCapabilities caps(StandardDocument);
    const WmtsLayer& layer = caps.layers.at(0);
    const std::string invalid = "Invalid style identifier";
    EXPECT_EQ(MessageOf([&] { layer->SetStyle("nope"); }), invalid);
    EXPECT_EQ(MessageOf([&] { layer->SetFormat("image/gif"); }), invalid);
    EXPECT_EQ(MessageOf([&] { layer->SetTileMatrixSet("Other"); }), invalid);
    EXPECT_EQ(layer->currentStyle, "default");

    const std::string key = "invalid unordered_map<K, T> key";
    layer->currentStyle = "gone";
    layer->currentFormat = "gone";
    layer->currentTileMatrixSet = "gone";
    EXPECT_EQ(MessageOf([&] { layer->GetCurrentStyle(); }), key);
    EXPECT_EQ(MessageOf([&] { layer->GetCurrentResource(); }), key);
    EXPECT_EQ(MessageOf([&] { layer->GetCurrentTileMatrixSet(); }), key);
}

TEST(WmtsCapabilities, FailuresAndTheirOrder) {
    const std::string& good = StandardDocument;
    const auto R = [&](std::string_view from, std::string_view to) { return Replace(good, from, to); };
    const auto R2 = [&](std::string_view a, std::string_view b, std::string_view c, std::string_view d) {
        return Replace(good, a, b, c, d);
    };
    const auto WithLayer = [](const std::string& layer) { return Document(layer, StandardSet); };
    const std::string noType = "Missing <ows:ServiceType>OGC WMTS</ows:ServiceType>!";
    const std::string crsForm = "Unsupported format! Following format is supported: urn:ogc:def:crs:EPSG::4326";
    const std::string capsGet = "<ows:Get xlink:href=\"http://tiles.test/wmts?\"/>";
    const std::string key = "invalid unordered_map<K, T> key";
    CapabilitiesTests::ExpectFailures<WmtsCapabilities>({
        {"malformed xml", R("</Contents>", ""), "unexpected end of data"},
        {"not xml", "WMTS", "expected <"},
        {"empty text", "", "Not WMTS caps!"},
        {"neither identification nor contents", R2("ows:ServiceIdentification", "ows:Other", "Contents", "Stuff"),
         "Not WMTS caps!"},
        {"contents without identification", R("ows:ServiceIdentification", "ows:Other"), noType},
        {"identification without contents", R("Contents", "Stuff"), "<no exception>"},
        {"no service type", R("<ows:ServiceType>OGC WMTS</ows:ServiceType>", ""), noType},
        {"other service type", R(">OGC WMTS<", ">OGC WMS<"), noType},
        {"plain WMTS is fine", R(">OGC WMTS<", ">WMTS<"), "<no exception>"},
        {"service type with a blank", R(">OGC WMTS<", ">WMTS <"), noType},
        {"short EPSG code", R("urn:ogc:def:crs:EPSG::3857", "EPSG:3857"), crsForm},
        {"OGC CRS URN", R("urn:ogc:def:crs:EPSG::3857", "urn:ogc:def:crs:OGC:1.3:CRS84"), crsForm},
        {"lower-case urn", R("urn:ogc:def:crs:EPSG::3857", "urn:ogc:def:crs:epsg::3857"), crsForm},
        {"unlinked set", Document(Layer("l", {"WebMercatorQuad"}), StandardSet + Set("x", "", "CRS:84")), crsForm},
        {"EPSG code not a number", R("EPSG::3857", "EPSG::web"), "invalid stoi argument"},
        {"EPSG code out of range", R("EPSG::3857", "EPSG::99999999999"), "stoi argument out of range"},
        {"set without identifier", R("<ows:Identifier>WebMercatorQuad</ows:Identifier>", ""), Missing},
        {"set without CRS", R("<ows:SupportedCRS>urn:ogc:def:crs:EPSG::3857</ows:SupportedCRS>", ""), Missing},
        {"matrix without identifier", R("<ows:Identifier>1</ows:Identifier>", ""), Missing},
        {"matrix without corner", R("<TopLeftCorner>-20037508.5 20037508.25</TopLeftCorner>", ""), Missing},
        {"scale not a number", R(">279541132.01<", ">big<"), "invalid stod argument"},
        {"tile width not a number", R("<TileWidth>256", "<TileWidth>px"), "invalid stoll argument"},
        {"matrix height out of range", R("<MatrixHeight>3", "<MatrixHeight>99999999999999999999"),
         "stoll argument out of range"},
        {"corner with one number", R(">-20037508.5 20037508.25<", ">-20037508.5<"), "invalid vector subscript"},
        {"metadata URL without href", R("</Capabilities>", "<ServiceMetadataURL/></Capabilities>"), Missing},
        {"GetCapabilities without GET", R(capsGet, ""), Missing},
        {"layer without identifier", R("<ows:Identifier>osm</ows:Identifier>", ""), Missing},
        {"layer without upper corner", R("<ows:UpperCorner>180 85</ows:UpperCorner>", ""), Missing},
        {"lower corner with one number", R(">-180 -85<", ">-180<"), "invalid vector subscript"},
        {"bounding box without crs",
         R("</ows:WGS84BoundingBox>", "</ows:WGS84BoundingBox><ows:BoundingBox><ows:LowerCorner>0 0</ows:LowerCorner>"
                                      "<ows:UpperCorner>1 1</ows:UpperCorner></ows:BoundingBox>"),
         Missing},
        {"resource without template", R(" template=\"http://tiles.test/{TileMatrix}/{TileRow}/{TileCol}.png\"", ""),
         Missing},
        {"KVP fallback without GET",
         Replace(WithLayer(Layer("l", {"WebMercatorQuad"}, DefaultStyle, "")),
                 "<ows:Get xlink:href=\"http://tiles.test/kvp?\"/>", ""),
         Missing},
        {"style without identifier", R("<ows:Identifier>default</ows:Identifier>", ""), Missing},
        {"link to an unknown set", WithLayer(Layer("l", {"Elsewhere"})), key},
        {"no style", WithLayer(Layer("l", {"WebMercatorQuad"}, "")), "WMTS layer \"l\" has no Style"},
        {"no link", WithLayer(Layer("l", {})), "WMTS layer \"l\" has no TileMatrixSetLink"},
        {"linked set without matrices",
         Document(Layer("l", {"WebMercatorQuad", "Empty"}), StandardSet + Set("Empty", "")),
         "WMTS layer \"l\" links the tile matrix set \"Empty\", which has no TileMatrix"},
        // Which failure comes first.
        {"service type before sets", R2(">OGC WMTS<", ">WMS<", "EPSG::3857", "EPSG::x"), noType},
        {"CRS form before matrices", R2("urn:ogc:def:crs:EPSG::3857", "EPSG:3857", ">279541132.01<", "><"), crsForm},
        {"sets before the capabilities URL", R2("EPSG::3857", "EPSG::x", capsGet, ""), "invalid stoi argument"},
        {"capabilities URL before layers", R2(capsGet, "", ">-180 -85<", ">-180<"), Missing},
        {"upper corner before lower", R2(">180 85<", ">180<", "<ows:LowerCorner>-180 -85</ows:LowerCorner>", ""),
         "invalid vector subscript"},
        {"styles before links", WithLayer(Layer("l", {"Elsewhere"}, "<Style/>")), Missing},
        {"links before the defaults", WithLayer(Layer("l", {"Elsewhere"}, "")), key},
    });
}
