#include "InteropServers.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

extern char** environ;

namespace InteropTests {

namespace {

using Clock = std::chrono::steady_clock;

// Writing to a pipe whose reader has gone must fail with EPIPE rather than end the test binary.
void IgnoreSigpipe() {
    static const bool done = [] {
        ::signal(SIGPIPE, SIG_IGN);
        return true;
    }();
    (void)done;
}

void WriteFile(const std::filesystem::path& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary);
    out << text;
    if (!out) throw std::runtime_error(fmt::format("cannot write {}", path.string()));
}

bool IsExecutable(const std::string& path) { return ::access(path.c_str(), X_OK) == 0; }

// The first of `names` that is not found as an executable in PATH, or empty.
std::string FirstMissingTool(std::initializer_list<const char*> names) {
    const char* path = std::getenv("PATH");
    for (const char* name : names) {
        bool found = false;
        std::stringstream dirs(path ? path : "/usr/bin");
        for (std::string dir; !found && std::getline(dirs, dir, ':');)
            found = !dir.empty() && IsExecutable(dir + "/" + name);
        if (!found) return name;
    }
    return {};
}

std::string MissingGdal() {
    const std::string tool = FirstMissingTool({"gdal_create", "gdal_translate", "ogr2ogr"});
    return tool.empty() ? std::string() : fmt::format("gdal-bin is not installed ({} not found)", tool);
}

// This process's environment with `extra` set on top ("NAME=value" entries; a later one wins).
std::vector<std::string> MergedEnvironment(const std::vector<std::string>& extra) {
    std::vector<std::string> merged;
    auto nameOf = [](const std::string& entry) { return entry.substr(0, entry.find('=')); };
    for (char** e = environ; *e; ++e) {
        const std::string entry = *e;
        bool overridden = false;
        for (const auto& x : extra) overridden = overridden || nameOf(x) == nameOf(entry);
        if (!overridden) merged.push_back(entry);
    }
    merged.insert(merged.end(), extra.begin(), extra.end());
    return merged;
}

std::vector<char*> Pointers(std::vector<std::string>& strings) {
    std::vector<char*> pointers;
    for (auto& s : strings) pointers.push_back(s.data());
    pointers.push_back(nullptr);
    return pointers;
}

// Starts `argv` with the given descriptors as stdin, stdout and stderr, in a new process group,
// with every other descriptor closed. posix_spawn rather than fork: a child forked from this
// process, whose other threads may hold locks (the sanitizers' among them), could wait on one
// of them for ever before it gets to exec.
pid_t Spawn(const std::vector<std::string>& argv, const std::vector<std::string>& environment, int in, int out,
            int err) {
    IgnoreSigpipe();
    std::vector<std::string> args = argv;
    std::vector<std::string> env = MergedEnvironment(environment);
    std::vector<char*> argp = Pointers(args);
    std::vector<char*> envp = Pointers(env);

    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attributes);
    posix_spawn_file_actions_adddup2(&actions, in, 0);
    posix_spawn_file_actions_adddup2(&actions, out, 1);
    posix_spawn_file_actions_adddup2(&actions, err, 2);
    posix_spawn_file_actions_addclosefrom_np(&actions, 3);
    // SIGPIPE is ignored here, and an ignored signal stays ignored across exec.
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGDEF);

    pid_t pid = -1;
    const int failed = ::posix_spawnp(&pid, argp[0], &actions, &attributes, argp.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (failed) throw std::runtime_error(fmt::format("cannot start {}: {}", argv[0], std::strerror(failed)));
    return pid;
}

int WaitExit(pid_t pid) {
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return -1;
}

struct Pipe {
    int read = -1, write = -1;
    Pipe() {
        int fds[2];
        if (::pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("pipe2 failed");
        read = fds[0];
        write = fds[1];
    }
    ~Pipe() {
        CloseRead();
        CloseWrite();
    }
    void CloseRead() {
        if (read >= 0) ::close(read);
        read = -1;
    }
    void CloseWrite() {
        if (write >= 0) ::close(write);
        write = -1;
    }
};

std::string Quote(const std::vector<std::string>& argv) {
    std::string text;
    for (const auto& a : argv) text += (text.empty() ? "" : " ") + a;
    return text;
}

// "http://127.0.0.1:<port><target>" split into port and target.
std::pair<int, std::string> SplitLoopbackUrl(const std::string& url) {
    const std::string prefix = "http://127.0.0.1:";
    if (url.rfind(prefix, 0) != 0) throw std::invalid_argument("not a loopback URL: " + url);
    const size_t slash = url.find('/', prefix.size());
    const int port = std::stoi(url.substr(prefix.size(), slash - prefix.size()));
    return {port, slash == std::string::npos ? "/" : url.substr(slash)};
}

HttpAnswer ToAnswer(const httplib::Result& result) {
    HttpAnswer answer;
    if (!result) return answer;
    answer.status = result->status;
    answer.contentType = result->get_header_value("Content-Type");
    answer.body = result->body;
    return answer;
}

} // namespace

// ---------------------------------------------------------------------------------------------

ProcessResult RunProcess(const std::vector<std::string>& argv, const std::string& input,
                         const std::vector<std::string>& environment, std::chrono::milliseconds timeout) {
    Pipe in, out, err;
    const pid_t pid = Spawn(argv, environment, in.read, out.write, err.write);
    in.CloseRead();
    out.CloseWrite();
    err.CloseWrite();
    if (input.empty())
        in.CloseWrite();
    else
        ::fcntl(in.write, F_SETFL, O_NONBLOCK);

    ProcessResult result;
    size_t written = 0;
    const auto deadline = Clock::now() + timeout;
    char buffer[65536];
    while (out.read >= 0 || err.read >= 0) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0) {
            result.timedOut = true;
            ::kill(-pid, SIGKILL);
            ::kill(pid, SIGKILL);
            break;
        }
        pollfd fds[3] = {{out.read, POLLIN, 0}, {err.read, POLLIN, 0}, {in.write, POLLOUT, 0}};
        if (::poll(fds, 3, int(std::min<long long>(left, 1000))) < 0 && errno != EINTR) break;
        if (in.write >= 0 && (fds[2].revents & (POLLOUT | POLLERR | POLLHUP))) {
            const ssize_t n = ::write(in.write, input.data() + written, input.size() - written);
            if (n > 0) written += size_t(n);
            if (n < 0 && errno != EAGAIN) written = input.size();
            if (written == input.size()) in.CloseWrite();
        }
        for (int i = 0; i < 2; ++i) {
            if (!(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
            const ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
            if (n > 0)
                (i == 0 ? result.out : result.err).append(buffer, size_t(n));
            else if (n == 0 || errno != EINTR)
                (i == 0 ? out : err).CloseRead();
        }
    }
    in.CloseWrite();
    result.exitCode = WaitExit(pid);
    return result;
}

std::string RunChecked(const std::vector<std::string>& argv, std::chrono::milliseconds timeout) {
    const ProcessResult result = RunProcess(argv, {}, {}, timeout);
    if (result.exitCode != 0 || result.timedOut)
        throw std::runtime_error(fmt::format("{} {}: {}{}", Quote(argv),
                                             result.timedOut ? "timed out" : fmt::format("exited {}", result.exitCode),
                                             result.err, result.out));
    return result.out;
}

// ---------------------------------------------------------------------------------------------

ChildProcess::ChildProcess(const std::vector<std::string>& argv, const std::vector<std::string>& environment) {
    Pipe in, out;
    char pattern[] = "/tmp/tellar-child-XXXXXX";
    const int err = ::mkstemp(pattern);
    if (err < 0) throw std::runtime_error("mkstemp failed");
    errorFile_ = pattern;
    pid_ = Spawn(argv, environment, in.read, out.write, err);
    ::close(err);
    stdin_ = in.write;
    in.write = -1;
    stdout_ = out.read;
    out.read = -1;
}

ChildProcess::~ChildProcess() {
    ::close(stdin_);
    ::kill(-pid_, SIGTERM);
    const auto deadline = Clock::now() + std::chrono::seconds(5);
    int status = 0;
    pid_t done = 0;
    while ((done = ::waitpid(pid_, &status, WNOHANG)) == 0 && Clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    if (done == 0) {
        ::kill(-pid_, SIGKILL);
        WaitExit(pid_);
    }
    // Whatever else is left in the group goes too.
    ::kill(-pid_, SIGKILL);
    ::close(stdout_);
    ::unlink(errorFile_.c_str());
}

std::string ChildProcess::ReadLine(std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    for (;;) {
        const size_t newline = stdoutBuffer_.find('\n');
        if (newline != std::string::npos) {
            std::string line = stdoutBuffer_.substr(0, newline);
            stdoutBuffer_.erase(0, newline + 1);
            return line;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0) throw std::runtime_error("no line from the child in time: " + Errors());
        pollfd fd{stdout_, POLLIN, 0};
        if (::poll(&fd, 1, int(left)) <= 0) continue;
        char buffer[4096];
        const ssize_t n = ::read(stdout_, buffer, sizeof buffer);
        if (n == 0) throw std::runtime_error("the child ended: " + Errors());
        if (n > 0) stdoutBuffer_.append(buffer, size_t(n));
    }
}

std::string ChildProcess::Errors() const {
    std::ifstream in(errorFile_);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// ---------------------------------------------------------------------------------------------

CgiServer::CgiServer(std::string name, std::string program, std::chrono::milliseconds timeout)
    : name_(std::move(name)), program_(std::move(program)), timeout_(timeout) {
    server_.new_task_queue = [] { return new httplib::ThreadPool(16); };
    server_.set_keep_alive_timeout(1);
    const std::string pattern = "/" + name_ + "(/.*)?";
    auto handler = [this](const httplib::Request& request, httplib::Response& response) { Answer(request, response); };
    server_.Get(pattern, handler);
    server_.Post(pattern, handler);
    port_ = server_.bind_to_any_port("127.0.0.1");
    if (port_ <= 0) throw std::runtime_error("cannot bind a loopback port");
}

CgiServer::~CgiServer() {
    server_.stop();
    if (thread_.joinable()) thread_.join();
}

void CgiServer::Start() {
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    for (int i = 0; i < 5000 && !server_.is_running(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    if (!server_.is_running()) throw std::runtime_error("the CGI server did not start");
}

std::string CgiServer::Url() const { return fmt::format("http://127.0.0.1:{}/{}", port_, name_); }

void CgiServer::Answer(const httplib::Request& request, httplib::Response& response) {
    ++requests_;
    const size_t question = request.target.find('?');
    const std::string query = question == std::string::npos ? std::string() : request.target.substr(question + 1);
    const std::string script = "/" + name_;
    std::vector<std::string> env = {
        "GATEWAY_INTERFACE=CGI/1.1",
        "SERVER_PROTOCOL=HTTP/1.1",
        "SERVER_SOFTWARE=tellar-interop",
        "SERVER_NAME=127.0.0.1",
        fmt::format("SERVER_PORT={}", port_),
        "REMOTE_ADDR=127.0.0.1",
        "REQUEST_METHOD=" + request.method,
        "REQUEST_URI=" + request.target,
        "SCRIPT_NAME=" + script,
        "PATH_INFO=" + request.path.substr(std::min(script.size(), request.path.size())),
        "QUERY_STRING=" + query,
        "HTTP_HOST=" + fmt::format("127.0.0.1:{}", port_),
    };
    if (request.method == "POST") {
        env.push_back("CONTENT_TYPE=" + request.get_header_value("Content-Type"));
        env.push_back(fmt::format("CONTENT_LENGTH={}", request.body.size()));
    }
    env.insert(env.end(), environment_.begin(), environment_.end());

    const ProcessResult result = RunProcess({program_}, request.body, env, timeout_);
    if (result.timedOut) {
        response.status = 504;
        response.set_content(fmt::format("{} overran {} ms", program_, timeout_.count()), "text/plain");
        return;
    }
    // The header block ends at the first empty line, written as "\r\n\r\n" or "\n\n".
    const size_t crlf = result.out.find("\r\n\r\n"), lf = result.out.find("\n\n");
    const size_t end = std::min(crlf, lf);
    if (end == std::string::npos) {
        response.status = 502;
        response.set_content(fmt::format("{} exited {} without headers: {}", program_, result.exitCode, result.err),
                             "text/plain");
        return;
    }
    const std::string body = result.out.substr(end + (end == crlf ? 4 : 2));
    std::string contentType = "application/octet-stream";
    response.status = 200;
    std::stringstream headers(result.out.substr(0, end));
    for (std::string line; std::getline(headers, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        const size_t colon = line.find(':');
        if (colon == std::string::npos) continue;
        const std::string name = line.substr(0, colon);
        std::string value = line.substr(colon + 1);
        value.erase(0, value.find_first_not_of(' '));
        if (strcasecmp(name.c_str(), "Status") == 0)
            response.status = std::atoi(value.c_str());
        else if (strcasecmp(name.c_str(), "Content-Type") == 0)
            contentType = value;
        else if (strcasecmp(name.c_str(), "Content-Length") != 0)
            response.set_header(name.c_str(), value);
    }
    response.set_content(body, contentType.c_str());
}

HttpAnswer HttpGet(const std::string& url, std::chrono::seconds timeout) {
    const auto [port, target] = SplitLoopbackUrl(url);
    httplib::Client client("127.0.0.1", port);
    client.set_url_encode(false);
    client.set_connection_timeout(timeout);
    client.set_read_timeout(timeout);
    return ToAnswer(client.Get(target));
}

HttpAnswer FirstAnswer(const std::string& url, const std::string& mark) {
    HttpAnswer answer;
    for (int attempt = 0; attempt < 3; ++attempt) {
        answer = HttpGet(url, std::chrono::seconds(10));
        if (answer.status == 200 && answer.body.find(mark) != std::string::npos) break;
    }
    return answer;
}

HttpAnswer HttpPost(const std::string& url, const std::string& body, const std::string& contentType,
                    std::chrono::seconds timeout) {
    const auto [port, target] = SplitLoopbackUrl(url);
    httplib::Client client("127.0.0.1", port);
    client.set_url_encode(false);
    client.set_connection_timeout(timeout);
    client.set_read_timeout(timeout);
    return ToAnswer(client.Post(target, body, contentType));
}

// ---------------------------------------------------------------------------------------------
// MapServer

namespace {

// A three-band GeoTIFF of one colour over `box`, `width` by `height` pixels.
void SolidTiff(const std::filesystem::path& file, const LonLatBox& box, const Rgb& colour, int width, int height) {
    RunChecked({"gdal_create",
                "-q",
                "-of",
                "GTiff",
                "-ot",
                "Byte",
                "-bands",
                "3",
                "-outsize",
                std::to_string(width),
                std::to_string(height),
                "-burn",
                std::to_string(colour.red),
                "-burn",
                std::to_string(colour.green),
                "-burn",
                std::to_string(colour.blue),
                "-a_srs",
                "EPSG:4326",
                "-a_ullr",
                fmt::format("{}", box.minX),
                fmt::format("{}", box.maxY),
                fmt::format("{}", box.maxX),
                fmt::format("{}", box.minY),
                file.string()});
}

// A raster layer; every layer names one style, "default", as map servers usually do.
std::string RasterLayer(const std::string& name, const std::string& group, const std::string& title,
                        const std::string& source, const std::string& metadata, int epsg = 4326) {
    return fmt::format(R"(
  LAYER
    NAME "{}"
    {}
    TYPE RASTER
    STATUS ON
    {}
    PROJECTION "init=epsg:{}" END
    METADATA
      "wms_title" "{}"
      "wms_style" "default"
      "wms_style_default_legendurl_href" "http://127.0.0.1/legend.png"
      "wms_style_default_legendurl_format" "image/png"
      "wms_style_default_legendurl_width" "16"
      "wms_style_default_legendurl_height" "16"
      {}
    END
  END
)",
                       name, group.empty() ? "" : fmt::format("GROUP \"{}\"", group), source, epsg, title, metadata);
}

// An ASCII grid of GridValue over `columns` x `rows` cells, turned into a Float32 GeoTIFF.
void FloatGrid(const std::filesystem::path& file, int columns, int rows, double left, double top, double cell,
               int epsg) {
    std::string grid = fmt::format("ncols {}\nnrows {}\nxllcorner {}\nyllcorner {}\ncellsize {}\n", columns, rows, left,
                                   top - rows * cell, cell);
    for (int row = 0; row < rows; ++row) {
        for (int column = 0; column < columns; ++column)
            grid += fmt::format("{}{}", column ? " " : "", MapServerFixture::GridValue(column, row));
        grid += "\n";
    }
    const std::filesystem::path ascii = file.string() + ".asc";
    WriteFile(ascii, grid);
    RunChecked({"gdal_translate", "-q", "-ot", "Float32", "-a_srs", fmt::format("EPSG:{}", epsg), ascii.string(),
                file.string()});
}

std::string CoverageMetadata(const LonLatBox& box, double cell, int columns, int rows, int epsg) {
    return fmt::format(R"("wms_enable_request" "!*"
      "wcs_label" "Float32 grid"
      "wcs_rangeset_name" "values"
      "wcs_rangeset_label" "values"
      "wcs_formats" "GTiff"
      "wcs_nativeformat" "GTiff"
      "wcs_bandcount" "1"
      "wcs_imagemode" "FLOAT32"
      "wcs_srs" "EPSG:{}"
      "wcs_extent" "{} {} {} {}"
      "wcs_resolution" "{} {}"
      "wcs_size" "{} {}")",
                       epsg, box.minX, box.minY, box.maxX, box.maxY, cell, cell, columns, rows);
}

} // namespace

MapServerFixture::MapServerFixture() {
    if (!IsExecutable(Program)) {
        missing_ = fmt::format("{} is not installed ({} not found)", Package, Program);
        return;
    }
    if (missing_ = MissingGdal(); !missing_.empty()) return;
    const auto& dir = dir_.Path();

    for (const auto& leaf : Leaves) SolidTiff(dir / fmt::format("{}.tif", leaf.name), leaf.box, leaf.colour, 40, 20);

    // The time layer: one raster per day and a tile index whose "day" attribute names the day.
    std::string csv = "WKT,location,day\n";
    const LonLatBox& t = TimeLayerBox;
    for (size_t i = 0; i < Days.size(); ++i) {
        const std::string file = fmt::format("day{}.tif", i + 1);
        SolidTiff(dir / file, t, Days[i].colour, 40, 20);
        csv += fmt::format("\"POLYGON(({0} {1},{2} {1},{2} {3},{0} {3},{0} {1}))\",{4},{5}\n", t.minX, t.minY, t.maxX,
                           t.maxY, file, Days[i].date);
    }
    WriteFile(dir / "days.csv", csv);
    RunChecked({"ogr2ogr", "-f", "ESRI Shapefile", "-a_srs", "EPSG:4326", (dir / "days.shp").string(),
                (dir / "days.csv").string(), "-oo", "GEOM_POSSIBLE_NAMES=WKT", "-oo", "KEEP_GEOM_COLUMNS=NO"});

    // The Float32 grids, in degrees and in UTM metres.
    FloatGrid(dir / "grid.tif", GridColumns, GridRows, GridLeft, GridTop, GridCell, 4326);
    FloatGrid(dir / "grid_utm.tif", GridColumns, GridRows, UtmGridBox.minX, UtmGridBox.maxY, UtmGridCell, UtmEpsg);

    server_ = std::make_unique<CgiServer>("mapserv", Program);

    std::string layers;
    for (const auto& leaf : Leaves)
        layers += RasterLayer(leaf.name, GroupLayer, leaf.name, fmt::format("DATA \"{}.tif\"", leaf.name),
                              R"("wcs_enable_request" "!*")");
    layers += RasterLayer(TimeLayer, {}, "Daily", R"(TILEINDEX "days.shp" TILEITEM "location")",
                          fmt::format(R"("wcs_enable_request" "!*"
      "wms_timeitem" "day"
      "wms_timeextent" "{},{},{}"
      "wms_timedefault" "{}")",
                                      Days[0].date, Days[1].date, Days[2].date, Days[0].date));
    layers += RasterLayer(Coverage, {}, "Grid", R"(DATA "grid.tif")",
                          CoverageMetadata(GridBox, GridCell, GridColumns, GridRows, 4326));
    layers += RasterLayer(UtmCoverage, {}, "Grid in UTM", R"(DATA "grid_utm.tif")",
                          CoverageMetadata(UtmGridBox, UtmGridCell, GridColumns, GridRows, UtmEpsg), UtmEpsg);

    const std::string mapfile =
        fmt::format(R"(MAP
  NAME "{name}"
  EXTENT {minx} {miny} {maxx} {maxy}
  SIZE 256 256
  UNITS DD
  SHAPEPATH "{dir}"
  IMAGECOLOR 255 255 255
  PROJECTION "init=epsg:4326" END
  OUTPUTFORMAT
    NAME "GTiff"
    DRIVER "GDAL/GTiff"
    MIMETYPE "image/tiff"
    IMAGEMODE FLOAT32
    EXTENSION "tif"
  END
  WEB
    METADATA
      "ows_title" "Interop MapServer"
      "ows_onlineresource" "{url}?"
      "ows_srs" "EPSG:4326 EPSG:3857"
      "ows_enable_request" "*"
      "wcs_label" "Interop MapServer"
    END
  END
{layers}END
)",
                    fmt::arg("name", MapName), fmt::arg("minx", MapBox.minX), fmt::arg("miny", MapBox.minY),
                    fmt::arg("maxx", MapBox.maxX), fmt::arg("maxy", MapBox.maxY), fmt::arg("dir", dir.string()),
                    fmt::arg("url", server_->Url()), fmt::arg("layers", layers));
    WriteFile(dir / "interop.map", mapfile);
    WriteFile(dir / "mapserver.conf",
              fmt::format("CONFIG\n  ENV\n    MS_MAPFILE \"{}\"\n  END\nEND\n", (dir / "interop.map").string()));
    server_->SetEnvironment({"MAPSERVER_CONFIG_FILE=" + (dir / "mapserver.conf").string()});
    server_->Start();

    const HttpAnswer answer = FirstAnswer(WmsCapabilitiesUrl(), "<WMS_Capabilities");
    if (answer.status != 200 || answer.body.find("<WMS_Capabilities") == std::string::npos)
        throw std::runtime_error(fmt::format("MapServer does not answer: {} {}", answer.status, answer.body));
}

MapServerFixture::~MapServerFixture() = default;

std::string MapServerFixture::Url() const { return server_ ? server_->Url() : std::string(); }

std::string MapServerFixture::WmsCapabilitiesUrl() const {
    return Url() + "?SERVICE=WMS&REQUEST=GetCapabilities&VERSION=1.3.0";
}

std::string MapServerFixture::WcsCapabilitiesUrl() const {
    return Url() + "?SERVICE=WCS&REQUEST=GetCapabilities&VERSION=1.0.0";
}

std::string MapServerFixture::GetMapUrl(const std::string& layers, const LonLatBox& box, int width, int height,
                                        const std::string& time) const {
    return Url() + fmt::format(
                       "?SERVICE=WMS&REQUEST=GetMap&VERSION=1.3.0&LAYERS={}&STYLES=&CRS=EPSG:4326"
                       "&BBOX={},{},{},{}&WIDTH={}&HEIGHT={}&FORMAT=image/png{}",
                       layers, box.minY, box.minX, box.maxY, box.maxX, width, height,
                       time.empty() ? "" : "&TIME=" + time);
}

std::string MapServerFixture::GetCoverageQuery(const LonLatBox& box, int width, int height) const {
    return fmt::format(
        "SERVICE=WCS&REQUEST=GetCoverage&VERSION=1.0.0&COVERAGE={}&CRS=EPSG:4326"
        "&BBOX={},{},{},{}&WIDTH={}&HEIGHT={}&FORMAT=GTiff",
        Coverage, box.minX, box.minY, box.maxX, box.maxY, width, height);
}

} // namespace InteropTests

// ---------------------------------------------------------------------------------------------
// MapCache

namespace InteropTests {

namespace {

// The resolutions of an EPSG:3857 grid whose level 0 is one tile of `tileSize` pixels.
std::string WebMercatorResolutions(int tileSize, int levels) {
    constexpr double WorldWidth = 2 * 20037508.342789244;
    std::string text;
    for (int z = 0; z < levels; ++z) text += fmt::format("{}{:.10f}", z ? " " : "", WorldWidth / tileSize / (1 << z));
    return text;
}

} // namespace

MapCacheFixture::MapCacheFixture(const MapServerFixture& source) {
    if (!IsExecutable(Program)) {
        missing_ = fmt::format("{} is not installed ({} not found)", Package, Program);
        return;
    }
    if (!source.Missing().empty()) {
        missing_ = source.Missing();
        return;
    }
    const auto& dir = dir_.Path();
    std::filesystem::create_directories(dir / "cache");
    std::filesystem::create_directories(dir / "locks");

    const std::string config =
        fmt::format(R"(<?xml version="1.0" encoding="UTF-8"?>
<mapcache>
  <metadata>
    <title>Interop MapCache</title>
  </metadata>
  <source name="mapserver" type="wms">
    <getmap>
      <params>
        <FORMAT>image/png</FORMAT>
        <LAYERS>{group}</LAYERS>
        <TRANSPARENT>TRUE</TRANSPARENT>
      </params>
    </getmap>
    <http>
      <url>{source}</url>
      <connection_timeout>10</connection_timeout>
      <timeout>30</timeout>
    </http>
  </source>
  <cache name="disk" type="disk">
    <base>{dir}/cache</base>
  </cache>
  <grid name="g512">
    <metadata>
      <title>EPSG:3857 in 512-pixel tiles</title>
    </metadata>
    <srs>EPSG:3857</srs>
    <units>m</units>
    <size>512 512</size>
    <extent>-20037508.342789244 -20037508.342789244 20037508.342789244 20037508.342789244</extent>
    <resolutions>{resolutions}</resolutions>
  </grid>
  <format name="PNG" type="PNG">
    <compression>fast</compression>
  </format>
  <tileset name="{layer}">
    <source>mapserver</source>
    <cache>disk</cache>
    <grid>GoogleMapsCompatible</grid>
    <grid>g512</grid>
    <grid>WGS84</grid>
    <format>PNG</format>
    <metatile>1 1</metatile>
    <metabuffer>0</metabuffer>
  </tileset>
  <default_format>PNG</default_format>
  <service type="wmts" enabled="true"/>
  <service type="tms" enabled="true"/>
  <errors>report</errors>
  <locker type="disk">
    <directory>{dir}/locks</directory>
  </locker>
  <threaded_fetching>false</threaded_fetching>
</mapcache>
)",
                    fmt::arg("group", MapServerFixture::GroupLayer), fmt::arg("source", source.Url()),
                    fmt::arg("dir", dir.string()), fmt::arg("resolutions", WebMercatorResolutions(512, 8)),
                    fmt::arg("layer", Layer));
    WriteFile(dir / "mapcache.xml", config);

    server_ = std::make_unique<CgiServer>("mapcache", Program);
    server_->SetEnvironment({"MAPCACHE_CONFIG_FILE=" + (dir / "mapcache.xml").string()});
    server_->Start();

    const HttpAnswer answer = FirstAnswer(WmtsRestCapabilitiesUrl(), "<Capabilities");
    if (answer.status != 200 || answer.body.find("<Capabilities") == std::string::npos)
        throw std::runtime_error(fmt::format("MapCache does not answer: {} {}", answer.status, answer.body));
}

MapCacheFixture::~MapCacheFixture() = default;

std::string MapCacheFixture::Url() const { return server_ ? server_->Url() : std::string(); }

std::string MapCacheFixture::WmtsRestCapabilitiesUrl() const { return Url() + "/wmts/1.0.0/WMTSCapabilities.xml"; }

std::string MapCacheFixture::WmtsKvpCapabilitiesUrl() const {
    return Url() + "/wmts?SERVICE=WMTS&REQUEST=GetCapabilities&VERSION=1.0.0";
}

std::string MapCacheFixture::RestTileUrl(const std::string& grid, int z, int x, int y) const {
    return Url() + fmt::format("/wmts/1.0.0/{}/default/{}/{}/{}/{}.png", Layer, grid, z, y, x);
}

std::string MapCacheFixture::KvpTileUrl(const std::string& grid, int z, int x, int y) const {
    return Url() + fmt::format(
                       "/wmts?SERVICE=WMTS&REQUEST=GetTile&VERSION=1.0.0&LAYER={}&STYLE=default"
                       "&FORMAT=image/png&TILEMATRIXSET={}&TILEMATRIX={}&TILEROW={}&TILECOL={}",
                       Layer, grid, z, y, x);
}

} // namespace InteropTests

// ---------------------------------------------------------------------------------------------
// MapProxy

namespace InteropTests {

namespace {

constexpr const char* PythonProgram = "/usr/bin/python3";
constexpr const char* MapProxyModule = "/usr/lib/python3/dist-packages/mapproxy";

// Serves MapProxy's WSGI application on a loopback port the kernel picks, prints the port on the
// first line of stdout, and ends when its stdin closes, so that it never outlives the test.
constexpr const char* ServeScript = R"(import os, socketserver, sys, threading
from wsgiref.simple_server import WSGIRequestHandler, WSGIServer, make_server
from mapproxy.wsgiapp import make_wsgi_app

class Server(socketserver.ThreadingMixIn, WSGIServer):
    daemon_threads = True

class Quiet(WSGIRequestHandler):
    def log_message(self, *args):
        pass

app = make_wsgi_app(sys.argv[1])
httpd = make_server('127.0.0.1', 0, app, server_class=Server, handler_class=Quiet)

def watch_stdin():
    sys.stdin.read()
    os._exit(0)

threading.Thread(target=watch_stdin, daemon=True).start()
print(httpd.server_port, flush=True)
httpd.serve_forever()
)";

} // namespace

MapProxyFixture::MapProxyFixture(const MapServerFixture& source) {
    if (!IsExecutable(PythonProgram) || !std::filesystem::is_directory(MapProxyModule)) {
        missing_ = fmt::format("{} is not installed ({} not found)", Package, MapProxyModule);
        return;
    }
    if (!source.Missing().empty()) {
        missing_ = source.Missing();
        return;
    }
    const auto& dir = dir_.Path();
    const std::string config = fmt::format(R"(services:
  wms:
    versions: ['1.3.0']
    srs: ['EPSG:4326', 'EPSG:3857']
    md:
      title: Interop MapProxy
  wmts:
    restful: true
    kvp: true
    md:
      title: Interop MapProxy

layers:
  - name: {layer}
    title: Basemap
    legendurl: http://127.0.0.1/legend.png
    sources: [{layer}_cache]

caches:
  {layer}_cache:
    grids: [GLOBAL_WEBMERCATOR, {geodetic}]
    sources: [mapserver]
    format: image/png

sources:
  mapserver:
    type: wms
    supported_srs: ['EPSG:4326', 'EPSG:3857']
    wms_opts:
      version: '1.3.0'
    http:
      client_timeout: 30
    req:
      url: {source}
      layers: {group}
      transparent: true

grids:
  {geodetic}:
    base: GLOBAL_GEODETIC
    origin: nw

globals:
  cache:
    base_dir: {dir}/cache
    lock_dir: {dir}/locks
    tile_lock_dir: {dir}/tile_locks
)",
                                           fmt::arg("layer", Layer), fmt::arg("source", source.Url()),
                                           fmt::arg("group", MapServerFixture::GroupLayer),
                                           fmt::arg("dir", dir.string()), fmt::arg("geodetic", GeodeticGrid));
    WriteFile(dir / "mapproxy.yaml", config);
    WriteFile(dir / "serve.py", ServeScript);

    process_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{PythonProgram, (dir / "serve.py").string(), (dir / "mapproxy.yaml").string()},
        std::vector<std::string>{"PYTHONDONTWRITEBYTECODE=1"});
    const std::string line = process_->ReadLine(std::chrono::seconds(20));
    port_ = std::atoi(line.c_str());
    if (port_ <= 0) throw std::runtime_error(fmt::format("MapProxy gave no port: {} {}", line, process_->Errors()));

    const HttpAnswer answer = HttpGet(WmsCapabilitiesUrl());
    if (answer.status != 200 || answer.body.find("<WMS_Capabilities") == std::string::npos)
        throw std::runtime_error(
            fmt::format("MapProxy does not answer: {} {} {}", answer.status, answer.body, process_->Errors()));
}

MapProxyFixture::~MapProxyFixture() = default;

std::string MapProxyFixture::Url() const { return port_ ? fmt::format("http://127.0.0.1:{}", port_) : std::string(); }

std::string MapProxyFixture::WmsCapabilitiesUrl() const {
    return Url() + "/service?SERVICE=WMS&REQUEST=GetCapabilities&VERSION=1.3.0";
}

std::string MapProxyFixture::WmtsRestCapabilitiesUrl() const { return Url() + "/wmts/1.0.0/WMTSCapabilities.xml"; }

std::string MapProxyFixture::WmtsKvpCapabilitiesUrl() const {
    return Url() + "/service?SERVICE=WMTS&REQUEST=GetCapabilities&VERSION=1.0.0";
}

std::string MapProxyFixture::RestTileUrl(const std::string& grid, int z, int x, int y) const {
    return Url() + fmt::format("/wmts/{}/{}/{:02}/{}/{}.png", Layer, grid, z, x, y);
}

std::string MapProxyFixture::GetMapUrl(const LonLatBox& box, int width, int height) const {
    return Url() + fmt::format(
                       "/service?SERVICE=WMS&REQUEST=GetMap&VERSION=1.3.0&LAYERS={}&STYLES=&CRS=EPSG:4326"
                       "&BBOX={},{},{},{}&WIDTH={}&HEIGHT={}&FORMAT=image/png",
                       Layer, box.minY, box.minX, box.maxY, box.maxX, width, height);
}

} // namespace InteropTests
