// Throughput of the WMS capabilities reader on a large generated document: a thousand leaf layers
// in ten groups, about 5 MB, each layer with CRS lists, boxes, styles with legends and dimensions.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>

#include "MapServices/Wms/WmsCapabilities.h"

namespace {

constexpr size_t TargetSize = 5 * 1000 * 1000;
constexpr int Groups = 10;
constexpr int LayersPerGroup = 100;

std::string Layer(int index, size_t abstractSize) {
    char number[16];
    std::snprintf(number, sizeof number, "%04d", index);
    const std::string id = number;
    std::string text = "<Layer queryable=\"1\" opaque=\"0\"><Name>layer_" + id + "</Name><Title>Layer number " + id +
                       "</Title><Abstract>";
    text.append(abstractSize, 'x');
    text += "</Abstract>";
    static const char* const crs[] = {"EPSG:4326",  "EPSG:3857", "EPSG:25832", "EPSG:25833", "EPSG:31467",
                                      "EPSG:31468", "EPSG:4258", "EPSG:3035",  "CRS:84",     "EPSG:900913"};
    for (const char* c : crs) text += std::string("<CRS>") + c + "</CRS>";
    text += "<EX_GeographicBoundingBox><westBoundLongitude>5.8" + id + "</westBoundLongitude><eastBoundLongitude>15.0" +
            id + "</eastBoundLongitude><southBoundLatitude>47.2" + id +
            "</southBoundLatitude><northBoundLatitude>55.1" + id + "</northBoundLatitude></EX_GeographicBoundingBox>";
    for (const char* c : crs)
        text += std::string("<BoundingBox CRS=\"") + c + "\" minx=\"280371.25" + id + "\" miny=\"5235855.87" + id +
                "\" maxx=\"921342.12" + id + "\" maxy=\"6101895.33" + id + "\"/>";
    for (const char* style : {"default", "grey", "night"})
        text += std::string("<Style><Name>") + style + "</Name><Title>Style " + style +
                "</Title><LegendURL width=\"180\" height=\"240\"><Format>image/png</Format><OnlineResource "
                "xmlns:xlink=\"http://www.w3.org/1999/xlink\" xlink:type=\"simple\" "
                "xlink:href=\"https://maps.example.test/wms?request=GetLegendGraphic&amp;version=1.3.0&amp;format="
                "image/png&amp;layer=layer_" +
                id + "&amp;style=" + style + "\"/></LegendURL></Style>";
    text += "<Dimension name=\"time\" units=\"ISO8601\" default=\"2024-01-01\">2000-01-01/2024-01-01/P1M</Dimension>";
    text += "<Dimension name=\"elevation\" units=\"m\" default=\"0\">0,100,200,500,1000,2000,5000</Dimension>";
    return text + "</Layer>";
}

std::string Document() {
    const std::string head = R"(<?xml version="1.0" encoding="UTF-8"?>
<WMS_Capabilities version="1.3.0" xmlns="http://www.opengis.net/wms" xmlns:xlink="http://www.w3.org/1999/xlink">
<Service><Name>WMS</Name><Title>Benchmark service</Title><Abstract>Generated</Abstract></Service>
<Capability><Request>
<GetCapabilities><Format>text/xml</Format><DCPType><HTTP><Get><OnlineResource xlink:type="simple" xlink:href="https://maps.example.test/wms?"/></Get></HTTP></DCPType></GetCapabilities>
<GetMap><Format>image/png</Format><Format>image/jpeg</Format><Format>image/tiff</Format></GetMap>
<GetFeatureInfo><Format>text/html</Format><Format>application/json</Format></GetFeatureInfo>
</Request><Exception><Format>XML</Format><Format>INIMAGE</Format><Format>BLANK</Format></Exception>
<Layer><Title>Root</Title><CRS>EPSG:4326</CRS><CRS>EPSG:3857</CRS>
<EX_GeographicBoundingBox><westBoundLongitude>-180</westBoundLongitude><eastBoundLongitude>180</eastBoundLongitude><southBoundLatitude>-90</southBoundLatitude><northBoundLatitude>90</northBoundLatitude></EX_GeographicBoundingBox>
)";
    const std::string tail = "</Layer></Capability></WMS_Capabilities>\n";
    // Size one layer without an abstract, then give each layer the abstract that fills the target.
    const size_t bare = Layer(0, 0).size();
    const size_t groupOverhead = std::string("<Layer><Name>group_00</Name><Title>Group</Title></Layer>\n").size();
    const size_t fixed = head.size() + tail.size() + Groups * groupOverhead + Groups * LayersPerGroup * (bare + 1);
    const size_t abstractSize = fixed < TargetSize ? (TargetSize - fixed) / (Groups * LayersPerGroup) : 0;

    std::string text = head;
    for (int g = 0; g < Groups; ++g) {
        char name[16];
        std::snprintf(name, sizeof name, "%02d", g);
        text += std::string("<Layer><Name>group_") + name + "</Name><Title>Group</Title>";
        for (int i = 0; i < LayersPerGroup; ++i) text += Layer(g * LayersPerGroup + i, abstractSize) + "\n";
        text += "</Layer>\n";
    }
    return text + tail;
}

void ParseWmsCapabilities(benchmark::State& state) {
    const std::string xml = Document();
    size_t layers = 0;
    for (auto _ : state) {
        MapServices::Wms::WmsCapabilities caps(xml);
        layers = caps.layers.size();
        benchmark::DoNotOptimize(caps.layers.data());
    }
    if (layers != Groups * LayersPerGroup) state.SkipWithError("wrong number of layers");
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * xml.size()));
    state.counters["MB/s"] =
        benchmark::Counter(static_cast<double>(xml.size()) / 1e6, benchmark::Counter::kIsIterationInvariantRate);
    state.counters["document_MB"] = static_cast<double>(xml.size()) / 1e6;
    state.counters["layers"] = static_cast<double>(layers);
}
BENCHMARK(ParseWmsCapabilities)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
