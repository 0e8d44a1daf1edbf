#pragma once
// Real map servers from Debian on loopback, as fixtures for the interop tests.
//
// Every fixture makes its own temporary directory, writes its data there with GDAL's command-line
// tools, writes the server's configuration, starts the server on 127.0.0.1 with a port the kernel
// picks, and waits (bounded) until it answers. The destructor stops the server and every process
// it started and removes the directory.
//
// A missing Debian package does not throw: the constructor stops early and Missing() names the
// package, so that a test can write
//     if (!server.Missing().empty()) GTEST_SKIP() << server.Missing();
// Any other failure while starting (a tool that fails, a server that does not answer in time)
// throws std::runtime_error with the command's output.
//
//   MapServerFixture   mapserv (cgi-mapserver) run as CGI by an in-process HTTP server:
//                      WMS 1.3.0 and WCS 1.0.0 over one mapfile.
//   MapCacheFixture    mapcache (mapcache-cgi) run as CGI by an in-process HTTP server, fed by a
//                      MapServerFixture: WMTS 1.0.0 (REST and KVP) and TMS.
//   MapProxyFixture    MapProxy's WSGI application (mapproxy) in a Python process of its own,
//                      fed by a MapServerFixture: WMS 1.3.0 and WMTS 1.0.0 (REST and KVP).
//
// All URLs are "http://127.0.0.1:<port>/...". The fixtures are safe to use from several threads
// once constructed; CGI requests run in parallel, each in a child process of its own.
#include <httplib.h>
#include <sys/types.h>

#include <array>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "TempDir.h"

namespace InteropTests {

// ---------------------------------------------------------------------------------------------
// Processes

struct ProcessResult {
    int exitCode = -1; // the exit status, or 128 + the signal that ended it
    bool timedOut = false;
    std::string out;
    std::string err;
};

// Runs argv[0] (a path, or a name looked up in PATH) with `environment` added to this process's
// environment, `input` on its stdin, and waits for it. After `timeout` the child and its process
// group are killed (SIGKILL); in every case the child is reaped before this returns.
ProcessResult RunProcess(const std::vector<std::string>& argv, const std::string& input = {},
                         const std::vector<std::string>& environment = {},
                         std::chrono::milliseconds timeout = std::chrono::seconds(60));

// RunProcess that throws std::runtime_error with the command and its stderr unless it exits 0.
std::string RunChecked(const std::vector<std::string>& argv,
                       std::chrono::milliseconds timeout = std::chrono::seconds(60));

// A long-running child in a process group of its own. Its stdin is a pipe that is closed when this
// object goes away, so a child that watches stdin also ends if the test binary dies.
class ChildProcess {
public:
    ChildProcess(const std::vector<std::string>& argv, const std::vector<std::string>& environment);
    // SIGTERM to the group, up to 5 s for it to end, then SIGKILL; the child is reaped.
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // The next line of the child's stdout (without the newline); throws on timeout or EOF.
    std::string ReadLine(std::chrono::milliseconds timeout);
    // What the child wrote to stderr so far (kept in a file), for error messages.
    std::string Errors() const;
    pid_t Pid() const { return pid_; }

private:
    pid_t pid_ = -1;
    int stdin_ = -1;
    int stdout_ = -1;
    std::string stdoutBuffer_;
    std::string errorFile_;
};

// An HTTP server on 127.0.0.1 that answers every GET and POST under "/<name>" by running one CGI
// program: the request becomes the CGI environment (REQUEST_METHOD, QUERY_STRING, PATH_INFO,
// SCRIPT_NAME, CONTENT_TYPE, CONTENT_LENGTH, SERVER_NAME, SERVER_PORT, ...) plus `environment`,
// the body goes to its stdin, and its "Status:", "Content-Type:" and other headers and its body
// become the answer. The child is never signalled unless it overruns `timeout`; then it is killed
// and the answer is 504. A program that exits without a header block gives 502.
class CgiServer {
public:
    CgiServer(std::string name, std::string program, std::chrono::milliseconds timeout = std::chrono::seconds(30));
    ~CgiServer();
    CgiServer(const CgiServer&) = delete;
    CgiServer& operator=(const CgiServer&) = delete;

    // Set before Start(): the port is known once the server is constructed.
    void SetEnvironment(std::vector<std::string> environment) { environment_ = std::move(environment); }
    void Start();

    int Port() const { return port_; }
    // "http://127.0.0.1:<port>/<name>"
    std::string Url() const;
    int Requests() const { return requests_.load(); }

private:
    void Answer(const httplib::Request& request, httplib::Response& response);

    std::string name_;
    std::string program_;
    std::chrono::milliseconds timeout_;
    std::vector<std::string> environment_;
    httplib::Server server_;
    std::thread thread_;
    int port_ = 0;
    std::atomic<int> requests_{0};
};

// The body of a GET to a "http://127.0.0.1:<port>/..." URL, with its status and content type;
// status -1 when the connection failed.
struct HttpAnswer {
    int status = -1;
    std::string contentType;
    std::string body;
};
HttpAnswer HttpGet(const std::string& url, std::chrono::seconds timeout = std::chrono::seconds(30));
// A fixture's first answer that is a 200 holding `mark`, asked for up to three times, ten seconds
// each: a start of the server's program lost on a loaded machine does not fail the whole suite.
HttpAnswer FirstAnswer(const std::string& url, const std::string& mark);
HttpAnswer HttpPost(const std::string& url, const std::string& body, const std::string& contentType,
                    std::chrono::seconds timeout = std::chrono::seconds(30));

// ---------------------------------------------------------------------------------------------
// Data

// Longitude/latitude box in degrees (EPSG:4326, x = longitude).
struct LonLatBox {
    double minX, minY, maxX, maxY;
};

struct Rgb {
    int red, green, blue;
    friend bool operator==(const Rgb&, const Rgb&) = default;
};

// One leaf layer: a raster of one colour over its box.
struct SolidLayer {
    const char* name;
    LonLatBox box;
    Rgb colour;
};

// One day of the time layer: a raster of one colour over TimeLayerBox.
struct Day {
    const char* date; // ISO 8601 date, as listed in the capabilities' Dimension
    Rgb colour;
};

// ---------------------------------------------------------------------------------------------
// MapServer: WMS 1.3.0 and WCS 1.0.0
//
// Map "interop" in EPSG:4326, extent -20,-10,20,10; WMS offers EPSG:4326 and EPSG:3857 (and
// answers GetMap in either); the background is white unless TRANSPARENT=TRUE.
//   WMS group "basemap" (title "Basemap") with the leaves "land" and "water" (see Leaves).
//   WMS layer "daily" with a "time" Dimension "2024-05-01,2024-05-02,2024-05-03", default the
//     first: a tile index with one raster per day, each a different solid colour (see Days).
//     Without TIME the default day is drawn.
//   WCS coverage "grid": Float32, one band, GTiff output. 40 columns by 20 rows of 0.5 degrees,
//     top-left corner lon 0, lat 10, so lon 0..20, lat 0..10. Pixel (col, row), row 0 at the
//     top, holds GridValue(col, row) = 100 * row + col + 0.25 exactly. GetCoverage with
//     BBOX=0,0,20,10&WIDTH=40&HEIGHT=20&CRS=EPSG:4326 returns exactly these pixels.
//     GetCoverage works by GET and by POST of the same parameters form-encoded; an XML GetCoverage
//     body is parsed but refused (see WcsXmlPostRefusal).
class MapServerFixture {
public:
    static constexpr const char* Package = "cgi-mapserver";
    static constexpr const char* Program = "/usr/lib/cgi-bin/mapserv";

    static constexpr const char* MapName = "interop";
    static constexpr LonLatBox MapBox{-20, -10, 20, 10};
    static constexpr const char* GroupLayer = "basemap";
    static constexpr std::array<SolidLayer, 2> Leaves{{
        {"land", {0, 0, 20, 10}, {200, 30, 30}},
        {"water", {-20, -10, 0, 0}, {30, 30, 200}},
    }};
    static constexpr const char* TimeLayer = "daily";
    static constexpr LonLatBox TimeLayerBox{-20, -10, 20, 10};
    static constexpr std::array<Day, 3> Days{{
        {"2024-05-01", {255, 0, 0}},
        {"2024-05-02", {0, 255, 0}},
        {"2024-05-03", {0, 0, 255}},
    }};
    static constexpr const char* Coverage = "grid";
    static constexpr int GridColumns = 40;
    static constexpr int GridRows = 20;
    static constexpr double GridCell = 0.5;
    static constexpr double GridLeft = 0;
    static constexpr double GridTop = 10;
    static constexpr LonLatBox GridBox{0, 0, 20, 10};
    static constexpr float GridValue(int column, int row) { return float(100 * row + column) + 0.25f; }
    // WCS coverage "grid_utm": the same values on a grid of 500 m cells in UTM zone 32 north
    // (EPSG:32632), top-left corner (500000, 4000000).
    static constexpr const char* UtmCoverage = "grid_utm";
    static constexpr int UtmEpsg = 32632;
    static constexpr double UtmGridCell = 500;
    static constexpr LonLatBox UtmGridBox{500000, 4000000 - GridRows* UtmGridCell, 500000 + GridColumns* UtmGridCell,
                                          4000000};
    // Every layer names one style, "default" (MapServer lists none for a raster layer otherwise).
    // The start of the ServiceException text of an XML GetCoverage POST.
    static constexpr const char* WcsXmlPostRefusal =
        "msWCSGetCoverage(): WCS server error. Required parameter CRS was not supplied.";

    MapServerFixture();
    ~MapServerFixture();

    // Empty when the server runs; else which Debian package is missing.
    const std::string& Missing() const { return missing_; }

    // The service endpoint, "http://127.0.0.1:<port>/mapserv"; requests add "?SERVICE=...".
    std::string Url() const;
    std::string WmsCapabilitiesUrl() const;
    std::string WcsCapabilitiesUrl() const;
    // A WMS 1.3.0 GetMap of `layers` in EPSG:4326 (BBOX in lat,lon order as 1.3.0 wants) as PNG;
    // `time` is added when not empty.
    std::string GetMapUrl(const std::string& layers, const LonLatBox& box, int width, int height,
                          const std::string& time = {}) const;
    // A WCS 1.0.0 GetCoverage of the grid as GeoTIFF; the parameters without the URL.
    std::string GetCoverageQuery(const LonLatBox& box, int width, int height) const;
    const std::filesystem::path& Directory() const { return dir_.Path(); }
    int Requests() const { return server_ ? server_->Requests() : 0; }

private:
    TestSupport::TempDir dir_;
    std::string missing_;
    std::unique_ptr<CgiServer> server_;
};

// ---------------------------------------------------------------------------------------------
// MapCache: WMTS 1.0.0, fed with MapServer's WMS
//
// One tileset "basemap" (PNG, disk cache in the fixture's directory) drawn from the MapServer
// group "basemap", on three grids:
//   "GoogleMapsCompatible"  MapCache's own EPSG:3857 grid, 256-pixel tiles
//   "g512"                  EPSG:3857, 512-pixel tiles, the same extent, one tile at level 0
//   "WGS84"                 MapCache's own EPSG:4326 grid, 256-pixel tiles, two tiles at level 0
// Tiles: REST  <Url()>/wmts/1.0.0/basemap/default/<grid>/<z>/<y>/<x>.png
//        KVP   <Url()>/wmts?SERVICE=WMTS&REQUEST=GetTile&...
class MapCacheFixture {
public:
    static constexpr const char* Package = "mapcache-cgi";
    static constexpr const char* Program = "/usr/lib/cgi-bin/mapcache";
    static constexpr const char* Layer = "basemap";
    struct Grid {
        const char* name;
        int epsg;
        int tileSize;
    };
    static constexpr std::array<Grid, 3> Grids{{
        {"GoogleMapsCompatible", 3857, 256},
        {"g512", 3857, 512},
        {"WGS84", 4326, 256},
    }};

    // `source` must outlive this fixture. A source that is itself missing makes this one missing.
    explicit MapCacheFixture(const MapServerFixture& source);
    ~MapCacheFixture();

    const std::string& Missing() const { return missing_; }

    // "http://127.0.0.1:<port>/mapcache"
    std::string Url() const;
    // <Url()>/wmts/1.0.0/WMTSCapabilities.xml
    std::string WmtsRestCapabilitiesUrl() const;
    // <Url()>/wmts?SERVICE=WMTS&REQUEST=GetCapabilities&VERSION=1.0.0
    std::string WmtsKvpCapabilitiesUrl() const;
    std::string RestTileUrl(const std::string& grid, int z, int x, int y) const;
    std::string KvpTileUrl(const std::string& grid, int z, int x, int y) const;
    const std::filesystem::path& Directory() const { return dir_.Path(); }

private:
    TestSupport::TempDir dir_;
    std::string missing_;
    std::unique_ptr<CgiServer> server_;
};

// ---------------------------------------------------------------------------------------------
// MapProxy: WMS 1.3.0 and WMTS 1.0.0, fed with MapServer's WMS
//
// One layer "basemap" drawn from the MapServer group "basemap", cached on disk in the fixture's
// directory on two grids of 256-pixel tiles: MapProxy's "GLOBAL_WEBMERCATOR" (EPSG:3857) and
// "GEODETIC_NW" (EPSG:4326, MapProxy's GLOBAL_GEODETIC with its origin moved to the north-west
// corner; the WMTS service leaves out grids whose origin is in the south).
// The WMS offers EPSG:4326 and EPSG:3857.
//   WMS   <Url()>/service?SERVICE=WMS&...
//   WMTS  <Url()>/wmts/1.0.0/WMTSCapabilities.xml (REST),
//         <Url()>/service?SERVICE=WMTS&REQUEST=GetCapabilities (KVP),
//         tiles <Url()>/wmts/basemap/<grid>/<zz>/<x>/<y>.png (column before row; the matrix
//         identifiers are the level in two digits, "00", "01", ...)
// The SupportedCRS of its sets is written "EPSG:3857" / "EPSG:4326", which the WMTS reader
// refuses; the EPSG:4326 TopLeftCorner is written latitude first ("90.0 -180.0").
class MapProxyFixture {
public:
    static constexpr const char* Package = "mapproxy";
    static constexpr const char* Layer = "basemap";
    static constexpr const char* WebMercatorGrid = "GLOBAL_WEBMERCATOR";
    static constexpr const char* GeodeticGrid = "GEODETIC_NW";

    explicit MapProxyFixture(const MapServerFixture& source);
    ~MapProxyFixture();

    const std::string& Missing() const { return missing_; }

    // "http://127.0.0.1:<port>"
    std::string Url() const;
    std::string WmsCapabilitiesUrl() const;
    std::string WmtsRestCapabilitiesUrl() const;
    std::string WmtsKvpCapabilitiesUrl() const;
    std::string RestTileUrl(const std::string& grid, int z, int x, int y) const;
    // A WMS 1.3.0 GetMap of the layer in EPSG:4326 as PNG.
    std::string GetMapUrl(const LonLatBox& box, int width, int height) const;
    const std::filesystem::path& Directory() const { return dir_.Path(); }

private:
    TestSupport::TempDir dir_;
    std::string missing_;
    std::unique_ptr<ChildProcess> process_;
    int port_ = 0;
};

} // namespace InteropTests
