#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "CapabilitiesTestSupport.h"
#include "MapServices/Wms/WmsCapabilities.h"

using CapabilitiesTests::MessageOf;
using CapabilitiesTests::Missing;
using CapabilitiesTests::Replace;
using CapabilitiesTests::Strings;
using MapServices::BoundingBoxValue;
using MapServices::Wms::WmsCapabilities;
using MapServices::Wms::WmsDimension;
using MapServices::Wms::WmsLayer;

namespace {

// A service whose top layer "Root" holds LAYERS.
constexpr const char* Template = R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE WMS_Capabilities>
<!-- served by a test -->
<WMS_Capabilities version="1.3.0" xmlns="http://www.opengis.net/wms" xmlns:xlink="http://www.w3.org/1999/xlink">
  <Service><Name>WMS</Name><Title>Demo service</Title><Abstract>About it</Abstract></Service>
  <Capability>
    <Request>
      <GetCapabilities><Format>text/xml</Format>
        <DCPType><HTTP><Get><OnlineResource xlink:type="simple" xlink:href="http://maps.test/wms?"/></Get></HTTP></DCPType>
      </GetCapabilities>
      <GetMap><Format>image/png</Format><Format>image/jpeg</Format></GetMap>
      <GetFeatureInfo><Format>text/html</Format></GetFeatureInfo>
    </Request>
    <Exception><Format>XML</Format><Format>INIMAGE</Format></Exception>
    <Layer>
      <Title>Root</Title><Abstract>Everything</Abstract>
      <CRS>EPSG:4326</CRS><CRS>EPSG:3857</CRS>
      <EX_GeographicBoundingBox>
        <westBoundLongitude>-10</westBoundLongitude><eastBoundLongitude>20</eastBoundLongitude>
        <southBoundLatitude>40</southBoundLatitude><northBoundLatitude>60</northBoundLatitude>
      </EX_GeographicBoundingBox>
      <BoundingBox CRS="EPSG:4326" minx="40" miny="-10" maxx="60" maxy="20"/>
      LAYERS
    </Layer>
  </Capability>
</WMS_Capabilities>)";

std::string Document(const std::string& layers) { return Replace(Template, "LAYERS", layers); }

std::string Leaf(const std::string& name, const std::string& extra = "") {
    return "<Layer><Name>" + name + "</Name>" + extra + "</Layer>";
}

// A leaf with everything a leaf can have.
const std::string FullLeaf = R"(<Layer queryable="1">
  <Name>roads</Name><Title>Roads</Title><Abstract>All roads</Abstract>
  <CRS>EPSG:25832</CRS>
  <EX_GeographicBoundingBox>
    <westBoundLongitude>12</westBoundLongitude><eastBoundLongitude>8</eastBoundLongitude>
    <southBoundLatitude>50</southBoundLatitude><northBoundLatitude>47</northBoundLatitude>
  </EX_GeographicBoundingBox>
  <BoundingBox CRS="EPSG:25832" minx="300000" miny="5200000" maxx="200000" maxy="5300000"/>
  <BoundingBox CRS="EPSG:4326" minx="47" miny="8" maxx="50" maxy="12"/>
  <Style><Name>default</Name><Title>Default</Title><Abstract>Plain</Abstract>
    <LegendURL width="120" height="4294967336">
      <Format>image/png</Format>
      <OnlineResource xlink:type="simple" xlink:href="http://maps.test/legend.png"/>
    </LegendURL>
  </Style>
  <Style><Name>night</Name></Style>
  <Dimension name="time" units="ISO8601" default="2020-01-01">2000-01-01/2020-01-01/P1Y</Dimension>
  <Dimension name="elevation" units="m" default="0">0,100,200</Dimension>
  <Dimension name="time" units="ISO8601" default="x">ignored,second</Dimension>
</Layer>)";

}  // namespace

TEST(WmsCapabilities, ReadsServiceAndTopLayer) {
    const WmsCapabilities caps(Document(Leaf("only")));
    EXPECT_EQ(caps.version, "1.3.0");
    EXPECT_EQ(caps.serviceName, "WMS");
    EXPECT_EQ(caps.serviceTitle, "Demo service");
    EXPECT_EQ(caps.serviceAbstract, "About it");
    EXPECT_EQ(caps.url, "http://maps.test/wms?");
    EXPECT_EQ(caps.capabilitiesUrl, "http://maps.test/wms?request=GetCapabilities&version=1.3.0");
    EXPECT_EQ(caps.mapFormats, (Strings{"image/png", "image/jpeg"}));
    EXPECT_EQ(caps.featureInfoFormats, (Strings{"text/html"}));
    EXPECT_EQ(caps.exceptionFormats, (Strings{"XML", "INIMAGE"}));
    EXPECT_EQ(caps.rootLayerTitle, "Root");
    EXPECT_EQ(caps.rootLayerAbstract, "Everything");
    EXPECT_EQ(caps.crsList, (Strings{"EPSG:4326", "EPSG:3857"}));
    EXPECT_EQ(caps.geographicBox, (BoundingBoxValue{-10, 40, 20, 60}));
    ASSERT_EQ(caps.boundingBoxes.size(), 1u);
    EXPECT_EQ(caps.boundingBoxes[0].crs, "EPSG:4326");
    EXPECT_EQ(caps.boundingBoxes[0].box, (BoundingBoxValue{40, -10, 60, 20}));
}

TEST(WmsCapabilities, ReadsAFullLeaf) {
    const WmsCapabilities caps(Document(FullLeaf));
    ASSERT_EQ(caps.layers.size(), 1u);
    const WmsLayer& layer = caps.layers[0];
    EXPECT_EQ(layer->name, "roads");
    EXPECT_EQ(layer->title, "Roads");
    EXPECT_EQ(layer->abstract, "All roads");
    EXPECT_EQ(layer->capabilitiesUrl, caps.capabilitiesUrl);
    // Only the leaf's own CRS; the geographic box is sorted per axis, the bounding boxes too.
    EXPECT_EQ(layer->crsList, (Strings{"EPSG:25832"}));
    EXPECT_EQ(layer->geographicBox, (BoundingBoxValue{8, 47, 12, 50}));
    ASSERT_EQ(layer->boundingBoxes.size(), 2u);
    EXPECT_EQ(layer->boundingBoxes[0].crs, "EPSG:25832");
    EXPECT_EQ(layer->boundingBoxes[0].box, (BoundingBoxValue{200000, 5200000, 300000, 5300000}));

    ASSERT_EQ(layer->styles.size(), 2u);
    const auto& style = layer->styles[0];
    EXPECT_EQ(style.abstract, "Plain");
    EXPECT_EQ(style.legendFormat, "image/png");
    EXPECT_EQ(style.legendType, "simple");
    EXPECT_EQ(style.legendHref, "http://maps.test/legend.png");
    EXPECT_EQ(style.legendWidth, 120);
    EXPECT_EQ(style.legendHeight, 40);  // 2^32 + 40 cut to 32 bits
    EXPECT_EQ(layer->styles[1].name, "night");
    EXPECT_EQ(layer->styles[1].legendWidth, 0);

    // Of two "time" entries the first counts, and TimeDimension is that entry itself.
    ASSERT_EQ(layer->dimensions.size(), 3u);
    EXPECT_EQ(layer->GetTimeDimension()->values, (Strings{"2000-01-01", "2020-01-01", "P1Y"}));
    EXPECT_EQ(layer->GetTimeDimension()->defaultValue, "2020-01-01");
    EXPECT_EQ(layer->GetElevationDimension()->values, (Strings{"0", "100", "200"}));
    layer->TimeDimension().current = "2010-01-01";
    EXPECT_EQ(layer->dimensions[0].current, "2010-01-01");
}

TEST(WmsCapabilities, DimensionKinds) {
    struct Row {
        const char* text;
        int32_t kind;
        Strings values;
    } rows[] = {
        {"2000/2010/P1Y", WmsDimension::Range, {"2000", "2010", "P1Y"}},
        {"1,2,3", WmsDimension::List, {"1", "2", "3"}},
        {"a/b,c", WmsDimension::List, {"a/b", "c"}},
        {",", WmsDimension::List, {","}},
        {"", WmsDimension::List, {""}},
    };
    for (const Row& row : rows) {
        const WmsCapabilities caps(Document(
            Leaf("l", std::string(R"(<Dimension name="band" units="none" default="1">)") + row.text + "</Dimension>")));
        const WmsDimension& dimension = caps.layers.at(0)->dimensions.at(0);
        EXPECT_EQ(dimension.kind, row.kind) << row.text;
        EXPECT_EQ(dimension.values, row.values) << row.text;
    }
}

TEST(WmsCapabilities, LeavesComeInReverseDocumentOrderAndGroupsAreSkipped) {
    const std::string layers = Leaf("a") + "<Layer><Name>group</Name><Title>G</Title>" + Leaf("b") +
                               "<Layer><Name>inner</Name>" + Leaf("c") + Leaf("d") + "</Layer>" + Leaf("e") +
                               "</Layer>" + Leaf("f");
    const WmsCapabilities caps(Document(layers));
    Strings names;
    for (const WmsLayer& layer : caps.GetLayers()) names.push_back(layer->name);
    EXPECT_EQ(names, (Strings{"f", "e", "d", "c", "b", "a"}));
    EXPECT_EQ(caps.GetLayer("c")->name, "c");
    EXPECT_TRUE(caps.GetLayer("group").IsNull());
    EXPECT_TRUE(caps.GetLayer("C").IsNull());
}

TEST(WmsCapabilities, TopLayerWithoutChildrenIsTheOneLeaf) {
    const WmsCapabilities caps(Replace(Document(""), "<Title>Root</Title>", "<Name>top</Name><Title>Root</Title>",
                                       "<CRS>EPSG:4326</CRS>", ""));
    ASSERT_EQ(caps.layers.size(), 1u);
    EXPECT_EQ(caps.layers[0]->name, "top");
    EXPECT_EQ(caps.layers[0]->crsList, (Strings{"EPSG:3857"}));
}

TEST(WmsCapabilities, LeafInheritsOnlyTheGeographicBox) {
    const WmsCapabilities caps(Document(Leaf("plain")));
    const WmsLayer& layer = caps.layers.at(0);
    EXPECT_EQ(layer->geographicBox, (BoundingBoxValue{-10, 40, 20, 60}));
    EXPECT_TRUE(layer->crsList.empty());
    EXPECT_TRUE(layer->boundingBoxes.empty());
    EXPECT_FALSE(layer->GetTimeDimension().has_value());
    EXPECT_EQ(MessageOf([&] { layer->TimeDimension(); }), "Time dimension not present");

    // A top layer without a box leaves the record's box unset, and its leaves' too.
    const WmsCapabilities unset(Replace(Document(Leaf("plain")), "EX_GeographicBoundingBox", "Ignored"));
    EXPECT_TRUE(unset.geographicBox.IsUnset());
    EXPECT_TRUE(unset.layers.at(0)->geographicBox.IsUnset());
}

TEST(WmsCapabilities, UrlIsTakenAsWrittenAndOptionalPartsMayBeMissing) {
    const std::string document =
        Replace(Document(Leaf("l")), "xlink:href=\"http://maps.test/wms?\"", "xlink:href=\"http://maps.test/wms\"");
    EXPECT_EQ(WmsCapabilities(document).capabilitiesUrl, "http://maps.test/wmsrequest=GetCapabilities&version=1.3.0");
    const std::string bare = Replace(Replace(document, "<Title>Demo service</Title>", ""),
                                     "<GetMap><Format>image/png</Format><Format>image/jpeg</Format></GetMap>", "",
                                     "<Title>Root</Title><Abstract>Everything</Abstract>", "");
    const WmsCapabilities minimal(bare);
    EXPECT_EQ(minimal.serviceTitle, "");
    EXPECT_TRUE(minimal.mapFormats.empty());
    EXPECT_EQ(minimal.rootLayerTitle, "");
}

TEST(WmsCapabilities, GetLayerOnAnEmptyEntryFails) {
    WmsCapabilities caps(Document(Leaf("a")));
    caps.layers.insert(caps.layers.begin(), WmsLayer());
    EXPECT_EQ(MessageOf([&] { caps.GetLayer("a"); }),
              "Interface is not accessible: class MapServices::Wms::impl::WmsLayerImpl");
}

TEST(WmsCapabilities, FailuresAndTheirOrder) {
    const std::string good = Document(FullLeaf);
    const auto R = [&](std::string_view from, std::string_view to) { return Replace(good, from, to); };
    const auto R2 = [&](std::string_view a, std::string_view b, std::string_view c, std::string_view d) {
        return Replace(good, a, b, c, d);
    };
    const std::string badBox = "<BoundingBox CRS=\"c\" minx=\"x\" miny=\"1\" maxx=\"1\" maxy=\"1\"/>";
    const std::string nameless = "<Layer><Title>no name</Title></Layer>";
    CapabilitiesTests::ExpectFailures<WmsCapabilities>({
        {"malformed xml", R("</WMS_Capabilities>", ""), "unexpected end of data"},
        {"malformed before wrong root", "<WMT_MS_Capabilities><a></WMT_MS_Capabilities>", "unexpected end of data"},
        {"empty text", "", "Cannot access the node"},
        {"WMS 1.1 root", R("WMS_Capabilities", "WMT_MS_Capabilities"), "Error wrong file"},
        {"wrong root before missing version", R2("WMS_Capabilities", "Caps", "version=", "v="), "Error wrong file"},
        {"no version", R("version=\"1.3.0\" xmlns", "xmlns"), Missing},
        {"no service name", R("<Name>WMS</Name>", ""), Missing},
        {"no href", R("xlink:href=\"http://maps.test/wms?\"", ""), Missing},
        {"no layer at all", R("<Layer>", "<Skipped>"), Missing},
        {"leaf without name", Document(Leaf("a") + nameless), Missing},
        {"style without name", R("<Name>night</Name>", ""), Missing},
        {"legend without format", R("<Format>image/png</Format>\n", ""), Missing},
        {"legend resource without type", R("xlink:type=\"simple\" xlink:href=\"http://maps.test/legend",
                                           "xlink:href=\"http://maps.test/legend"), Missing},
        {"legend width not a number", R("width=\"120\"", "width=\"wide\""), "invalid stoll argument"},
        {"dimension without units", R("units=\"m\" ", ""), Missing},
        {"dimension without name", R("name=\"elevation\" ", ""), Missing},
        {"bbox without CRS", R("<BoundingBox CRS=\"EPSG:25832\"", "<BoundingBox"), Missing},
        {"bbox corner not a number", R("miny=\"5200000\"", "miny=\"south\""), "invalid stod argument"},
        {"geographic side missing", R("<northBoundLatitude>47</northBoundLatitude>", ""), Missing},
        {"geographic side not a number", R(">12</westBoundLongitude>", ">west</westBoundLongitude>"),
         "invalid stod argument"},
        {"top layer box not a number", R(">-10</westBoundLongitude>", "></westBoundLongitude>"),
         "invalid stod argument"},
        // Which failure comes first.
        {"legend width before its format", R2("width=\"120\"", "width=\"w\"", "<Format>image/png</Format>\n", ""),
         "invalid stoll argument"},
        {"styles before dimensions", R2("width=\"120\"", "width=\"w\"", "units=\"m\" ", ""), "invalid stoll argument"},
        {"dimensions before boxes", R2("units=\"m\" ", "", "miny=\"5200000\"", "miny=\"s\""), Missing},
        {"bbox CRS before corners",
         R2("<BoundingBox CRS=\"EPSG:25832\"", "<BoundingBox", "miny=\"5200000\"", "miny=\"s\""), Missing},
        {"miny before minx", R2("miny=\"5200000\"", "miny=\"s\"", "minx=\"300000\"", ""), "invalid stod argument"},
        {"boxes before the name", R2("miny=\"5200000\"", "miny=\"s\"", "<Name>roads</Name>", ""),
         "invalid stod argument"},
        {"west before south", R2(">12</westBoundLongitude>", ">w</westBoundLongitude>",
                                 "<southBoundLatitude>50</southBoundLatitude>", ""), "invalid stod argument"},
        {"top layer before leaves",
         R2(">-10</westBoundLongitude>", ">w</westBoundLongitude>", "<Name>roads</Name>", ""),
         "invalid stod argument"},
        {"last leaf is read first", Document(Leaf("first", badBox) + nameless), Missing},
        {"last leaf is read first (other way)", Document(nameless + Leaf("last", badBox)), "invalid stod argument"},
    });
}
