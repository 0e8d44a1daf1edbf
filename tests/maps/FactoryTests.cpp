#include <cstdio>
#include <set>
#include <sstream>
#include <string>

#include "MapServiceSupport.h"
#include "TileServer.h"

namespace {

using namespace MapTests;

// Names of the functions the shared library exports, from its dynamic symbol table.
std::set<std::string> ExportedFunctions() {
    std::set<std::string> names;
    const std::string command = std::string("nm -D --defined-only ") + TELLAR_MAPS_LIBRARY;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (!pipe) return names;
    char line[1024];
    while (std::fgets(line, sizeof line, pipe)) {
        std::istringstream fields(line);
        std::string address, type, name;
        if (fields >> address >> type >> name) names.insert(type + " " + name);
    }
    ::pclose(pipe);
    return names;
}

TEST(MapServiceFactory, LibraryExportsOnlyItsEntryPoints) {
    std::set<std::string> expected = {"T TellarSpatialMaps_SetLogger"};
    for (const char* kind : {"Tms", "Wms", "Wcs", "Wmts"}) {
        expected.insert(std::string("T TellarSpatialMaps_CreateMapServiceFrom") + kind + "Url");
        expected.insert(std::string("T TellarSpatialMaps_CreateCachedMapServiceFrom") + kind + "Url");
    }
    EXPECT_EQ(ExportedFunctions(), expected);
}

// The guards run in a fixed order: each row breaks one more rule than the rows below it fix.
TEST(MapServiceFactory, GuardsReportInOrder) {
    auto epsg = Epsg();
    Core::Ptr<IMapService> filled = Service("http://127.0.0.1:9/t/{z}/{x}/{y}.png", 4326);
    IMapService* occupied = filled.Raw();
    IMapService* empty = nullptr;
    struct Case {
        Tellar::Interfaces::IEpsg* epsg;
        const char* url;
        uint32_t code;
        IMapService** out;
        std::string text;
    };
    const Case cases[] = {
        {nullptr, nullptr, 1, nullptr, "Pointer of char must not be null!"},
        {nullptr, "http://h/{z}", 1, nullptr,
         "Pointer to a pointer of struct Tellar::Interfaces::IMapService must not be null! Address of return must be "
         "specified!"},
        {nullptr, "http://h/{z}", 1, &occupied,
         "Pointer of struct Tellar::Interfaces::IMapService must be null in order to avoid memory leaks!"},
        {nullptr, "http://h/{z}", 2056, &empty, "Only EPSG 4326 and 3857 are supported"},
        {nullptr, "http://h/{z}", 3857, &empty,
         "Null pointer exception! Interface is not accessible: struct Tellar::Interfaces::IEpsg"},
    };
    for (const Case& c : cases) {
        for (const bool cached : {false, true}) {
            Core::Ptr<Core::IErrorCode> error;
            const bool made = cached ? TellarSpatialMaps_CreateCachedMapServiceFromTmsUrl(c.epsg, "/tmp", c.url, c.code,
                                                                                          c.out, error.ReceiveAddress())
                                     : TellarSpatialMaps_CreateMapServiceFromTmsUrl(c.epsg, c.url, c.code, c.out,
                                                                                    error.ReceiveAddress());
            EXPECT_FALSE(made);
            EXPECT_EQ(TextOf(error), c.text);
        }
    }
    EXPECT_EQ(occupied, filled.Raw());
    EXPECT_EQ(empty, nullptr);
    // Without an error holder false is the only sign.
    EXPECT_FALSE(TellarSpatialMaps_CreateMapServiceFromTmsUrl(epsg.Raw(), nullptr, 4326, &empty, nullptr));
    EXPECT_EQ(empty, nullptr);
}

// Without a cache directory every request goes to the server.
TEST(MapServiceFactory, PlainServiceNeverCaches) {
    TestSupport::TileServer server;
    auto service = Service(server.Template("t"), 4326);
    EXPECT_NE(service->GetHttpClient(), nullptr);
    for (int round = 0; round < 2; ++round) {
        auto response = Response(*Tile(*service, 3, 1, 2));
        ASSERT_TRUE(response.Raw() && response->GetHttpResponse()) << "round " << round;
    }
    EXPECT_EQ(server.Requests(), 2);
}

} // namespace
