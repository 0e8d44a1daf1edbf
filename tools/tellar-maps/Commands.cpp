#include "Commands.h"

#include <fmt/core.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <optional>
#include <utility>
#include <vector>

#include "Data/Exports.h"
#include "Data/Interfaces/IArray.h"
#include "Data/Interfaces/IObjectList.h"
#include "Data/Structures.h"
#include "Library.h"
#include "Platform/Interfaces/IHttpClient.h"
#include "Platform/Interfaces/IHttpRequest.h"
#include "Tellar/Interfaces/ICrs.h"
#include "Tellar/Interfaces/IOgcMapService.h"
#include "Tellar/Interfaces/ITileRequest.h"
#include "Tellar/Interfaces/ITileResponse.h"
#include "TellarImaging/Exports.h"

namespace TellarMaps {

using Core::IErrorCode;
using Core::Ptr;
using Tellar::Interfaces::IMapService;
using Tellar::Interfaces::ITileRequest;
using Tellar::Interfaces::ITileResponse;

namespace {

void WriteFile(const std::string& path, const void* data, size_t size) {
    std::FILE* file = std::fopen(path.c_str(), "wb");
    if (!file) throw std::runtime_error(fmt::format("cannot write {}: {}", path, std::strerror(errno)));
    const bool written = size == 0 || std::fwrite(data, 1, size, file) == size;
    const int savedErrno = errno;
    if (std::fclose(file) != 0 || !written)
        throw std::runtime_error(fmt::format("cannot write {}: {}", path, std::strerror(written ? errno : savedErrno)));
}

// The mode a new file gets from open(2) with 0666: the process's umask, read without changing it.
mode_t NewFileMode() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("Umask:", 0) == 0) return 0666 & ~static_cast<mode_t>(std::stoul(line.substr(6), nullptr, 8));
    return 0644;
}

int64_t FileSize(const std::string& path) {
    std::error_code error;
    const auto size = std::filesystem::file_size(path, error);
    if (error) throw std::runtime_error(fmt::format("cannot read the size of {}: {}", path, error.message()));
    return static_cast<int64_t>(size);
}

Ptr<Data::Interfaces::IObjectList> TilesForBox(IMapService* service, int32_t zoom, const std::array<double, 4>& bbox) {
    const auto box = MakeBox(bbox);
    Ptr<Data::Interfaces::IObjectList> list;
    Invoke([&](IErrorCode** e) { return service->GetTilesForBox(zoom, box.Raw(), list.ReceiveAddress(), e); });
    return list;
}

ITileRequest* RequestAt(Data::Interfaces::IObjectList* list, uint64_t index) {
    auto* request = dynamic_cast<ITileRequest*>(list->GetItem(index));
    if (!request) throw LibraryFailure(fmt::format("item {} of the tile list is not a tile request", index));
    return request;
}

std::vector<double> Transform(TellarImaging::ITiffImage* image) {
    Ptr<TellarImaging::ITransform> transform;
    Invoke([&](IErrorCode** e) { return image->GetTransform(transform.ReceiveAddress(), e); });
    if (!transform.Raw()) return {};
    std::vector<double> p(6);
    transform->GetParams(&p[0], &p[1], &p[2], &p[3], &p[4], &p[5]);
    return p;
}

// Whether the library refused a tile list for holding too many tiles.
bool TooManyTiles(const Ptr<IErrorCode>& error) {
    constexpr std::string_view refusal = "Too many tiles requested";
    return error.Raw() && std::string_view(error->GetMessage(), error->GetMessageLength()).starts_with(refusal);
}

std::string ErrorText(const Ptr<IErrorCode>& error) {
    return error.Raw() ? std::string(error->GetMessage(), error->GetMessageLength())
                       : "the library failed without saying why";
}

// A tile's answer, or the reason there is none.
struct Taken {
    Ptr<ITileResponse> response;
    std::string failure;
    bool late = false;
};

// Waits for the tile. With a limit, a tile whose whole answer takes longer is cancelled: the
// client's receive timeout only bounds a silence, and a server that sends a byte now and then
// would hold the tile for ever.
Taken Take(ITileRequest& request, std::optional<uint32_t> limitMs) {
    Taken taken;
    if (limitMs) {
        using Clock = std::chrono::steady_clock;
        const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(*limitMs);
        std::chrono::milliseconds pause(1);
        while (!request.IsFinished()) {
            const Clock::time_point now = Clock::now();
            if (now >= deadline) {
                request.Cancel();
                taken.failure = fmt::format("no whole answer within {} s", *limitMs / 1000.0);
                taken.late = true;
                return taken;
            }
            std::this_thread::sleep_for(std::min<Clock::duration>(pause, deadline - now));
            pause = std::min(pause * 2, std::chrono::milliseconds(20));
        }
    }
    Ptr<IErrorCode> error;
    if (!request.GetResponse(taken.response.ReceiveAddress(), error.ReceiveAddress()) || !taken.response.Raw())
        taken.failure = ErrorText(error);
    return taken;
}

// Whether `body` starts as a picture of a format the imaging library reads: PNG, JPEG, WebP or
// TIFF.
bool HasImageSignature(const uint8_t* body, uint64_t size) {
    const auto starts = [&](std::string_view mark, uint64_t at = 0) {
        return size >= at + mark.size() && std::memcmp(body + at, mark.data(), mark.size()) == 0;
    };
    return starts("\x89PNG\r\n\x1a\n") || starts("\xff\xd8\xff") || (starts("RIFF") && starts("WEBP", 8)) ||
           starts(std::string_view("II*\0", 4)) || starts(std::string_view("MM\0*", 4));
}

// Why a tile's answer over HTTP is no tile, or nothing when it is one. A body the library keeps
// in its cache (an image, octet-stream or vector-tile type) that is meant to be an image must
// also be one: with `decode` it must decode, and `image` then holds it; without, it must start
// with the signature of a format the library decodes.
std::optional<std::string> AnswerProblem(ITileResponse& response, Platform::Interfaces::IHttpResponse& http,
                                         Ptr<TellarImaging::IImage>& image, bool decode = true) {
    const int32_t status = http.GetStatusCode();
    if (status != 200) return fmt::format("the server answered with status {}", status);
    if (http.GetBodySize() == 0) return std::string("the server answered with an empty body");
    const char* header = http.GetHeader("Content-Type");
    const std::string type = header && *header ? header : "no content type";
    const bool imageType = type.find("image") != std::string::npos;
    if (!imageType && type.find("octet-stream") == std::string::npos && type.find("mapbox") == std::string::npos)
        return fmt::format("the server answered with {}, not a tile", type);
    if (!imageType) return std::nullopt;
    if (!decode) {
        if (HasImageSignature(static_cast<const uint8_t*>(http.GetBodyData()), http.GetBodySize())) return std::nullopt;
        return fmt::format("the server's answer ({}, {} bytes) is no image: Unknown image format", type,
                           http.GetBodySize());
    }
    Ptr<IErrorCode> error;
    if (response.GetImage(image.ReceiveAddress(), error.ReceiveAddress()) && image.Raw()) return std::nullopt;
    return fmt::format("the server's answer ({}, {} bytes) is no image: {}", type, http.GetBodySize(),
                       ErrorText(error));
}

struct TileSpan {
    int64_t minX, minY, maxX, maxY;
    bool Holds(int64_t x, int64_t y) const { return x >= minX && x <= maxX && y >= minY && y <= maxY; }
};

// A part of the box and the tiles its list is expected to hold at the next level.
struct LevelPart {
    std::array<double, 4> box;
    uint64_t expected = 0;
};

// Every tile of a list holds its download until the list goes, so a level is seeded in parts of
// about this many tiles, two parts held at once: memory stays bounded however large the level.
constexpr uint64_t TilesPerList = 1024;

// The four quarters of a box, the one of the lowest x and y last (taken first from the back), or
// nothing when the box is too small to cut.
std::vector<std::array<double, 4>> Quarters(const std::array<double, 4>& box) {
    const double midX = box[0] / 2 + box[2] / 2, midY = box[1] / 2 + box[3] / 2;
    const bool splits = (midX != box[0] && midX != box[2]) || (midY != box[1] && midY != box[3]);
    if (!splits) return {};
    return {{midX, midY, box[2], box[3]}, {box[0], midY, midX, box[3]}, {midX, box[1], box[2], midY},
            {box[0], box[1], midX, midY}};
}

// The next list of `pending` (taken from the back) at `zoom`: a part expected to hold more than
// TilesPerList tiles, or whose list the library refuses as too large, is cut into quarters first.
// Its tiles' downloads start as it is made. Null when nothing is pending.
Ptr<Data::Interfaces::IObjectList> NextList(IMapService* service, int32_t zoom, std::vector<LevelPart>& pending,
                                            LevelPart& taken) {
    while (!pending.empty()) {
        const LevelPart current = pending.back();
        pending.pop_back();
        if (current.expected > TilesPerList) {
            if (auto quarters = Quarters(current.box); !quarters.empty()) {
                for (const auto& quarter : quarters) pending.push_back({quarter, current.expected / 4});
                continue;
            }
        }
        Ptr<Data::Interfaces::IObjectList> list;
        Ptr<IErrorCode> error;
        if (!service->GetTilesForBox(zoom, MakeBox(current.box).Raw(), list.ReceiveAddress(), error.ReceiveAddress())) {
            auto quarters = Quarters(current.box);
            if (!TooManyTiles(error) || quarters.empty())
                throw LibraryFailure(error.Raw() ? std::string(error->GetMessage(), error->GetMessageLength())
                                                 : "the library failed without saying why");
            for (const auto& quarter : quarters) pending.push_back({quarter, 0});
            continue;
        }
        taken = current;
        return list;
    }
    return nullptr;
}

// The lists of a seed, level by level from `minZoom` to `maxZoom` (NextList within a level). A
// level starts as the parts of the one before, each expected to hold four times its tiles there.
class LevelLists {
public:
    struct Item {
        int32_t zoom = 0;
        Ptr<Data::Interfaces::IObjectList> list; // null once every level is done
    };

    LevelLists(IMapService* service, int32_t minZoom, int32_t maxZoom, const std::array<double, 4>& box)
        : service_(service), zoom_(minZoom), maxZoom_(maxZoom), pending_{{box, 0}} {}

    Item Next() {
        while (zoom_ <= maxZoom_) {
            LevelPart taken;
            if (Ptr<Data::Interfaces::IObjectList> list = NextList(service_, zoom_, pending_, taken); list.Raw()) {
                next_.push_back({taken.box, list->GetCount() * 4});
                return {zoom_, std::move(list)};
            }
            pending_.assign(next_.rbegin(), next_.rend());
            next_.clear();
            ++zoom_;
        }
        return {};
    }

private:
    IMapService* service_;
    int32_t zoom_, maxZoom_;
    std::vector<LevelPart> pending_, next_;
};

} // namespace

StagedFiles::~StagedFiles() {
    for (const auto& file : staged_) std::remove(file.temporary.c_str());
}

std::string StagedFiles::Stage(const std::string& target) {
    namespace fs = std::filesystem;
    const fs::path path(target);
    std::error_code error;
    if (fs::is_directory(path, error)) throw std::runtime_error(fmt::format("cannot write {}: it is a directory", target));
    // Beside the target, so that the rename stays on one file system.
    std::string pattern = (path.parent_path() / fmt::format(".{}.XXXXXX", path.filename().string())).string();
    const int fd = ::mkstemp(pattern.data());
    if (fd < 0) throw std::runtime_error(fmt::format("cannot write {}: {}", target, std::strerror(errno)));
    // mkstemp makes the file private; the target keeps its mode, a new one gets the usual.
    struct stat existing {};
    ::fchmod(fd, ::stat(target.c_str(), &existing) == 0 ? existing.st_mode & 07777 : NewFileMode());
    ::close(fd);
    staged_.push_back({pattern, target});
    return pattern;
}

void StagedFiles::Commit() {
    for (const auto& file : staged_)
        if (std::rename(file.temporary.c_str(), file.target.c_str()) != 0)
            throw std::runtime_error(fmt::format("cannot write {}: {}", file.target, std::strerror(errno)));
    staged_.clear();
}

JsonObject RunInfo(IMapService* service, const char* kind) {
    JsonObject json;
    json.Add("kind", kind)
        .Add("service_url", service->GetServiceUrl())
        .Add("layer", service->GetLayerName())
        .Add("epsg", static_cast<int64_t>(service->GetCrs()->GetEpsgCode()));
    return json;
}

JsonObject RunTile(IMapService* service, int32_t zoom, int64_t x, int64_t y, const std::string& path,
                   std::optional<uint32_t> timeoutMs) {
    Ptr<ITileRequest> request;
    Invoke([&](IErrorCode** e) { return service->GetTile(zoom, x, y, request.ReceiveAddress(), e); });
    Taken taken = Take(*request, timeoutMs);
    if (!taken.response.Raw()) throw LibraryFailure(fmt::format("tile {}/{}/{}: {}", zoom, x, y, taken.failure));
    const Ptr<ITileResponse> response = std::move(taken.response);

    // Nothing is written before the answer proved to be an image.
    StagedFiles files;
    Ptr<TellarImaging::IImage> image;
    int64_t bytes = 0;
    if (Platform::Interfaces::IHttpResponse* http = response->GetHttpResponse()) {
        const int32_t status = http->GetStatusCode();
        if (status != 200)
            throw std::runtime_error(
                fmt::format("the server answered tile {}/{}/{} with status {}", zoom, x, y, status));
        if (const auto problem = AnswerProblem(*response, *http, image))
            throw std::runtime_error(fmt::format("tile {}/{}/{}: {}", zoom, x, y, *problem));
        if (!image.Raw()) Invoke([&](IErrorCode** e) { return response->GetImage(image.ReceiveAddress(), e); });
        WriteFile(files.Stage(path), http->GetBodyData(), http->GetBodySize());
        bytes = static_cast<int64_t>(http->GetBodySize());
        files.Commit();
    } else {
        // From the cache: the public calls give the decoded tile, not the file's bytes.
        Invoke([&](IErrorCode** e) { return response->GetImage(image.ReceiveAddress(), e); });
        const std::string staged = files.Stage(path);
        Invoke([&](IErrorCode** e) {
            return TellarImaging_SaveImage(image.Raw(), staged.c_str(), TellarImaging::ImageFileFormatPng, e);
        });
        files.Commit();
        bytes = FileSize(path);
    }

    Ptr<Tellar::Interfaces::IBoundingBox2d> box;
    Invoke([&](IErrorCode** e) { return response->GetBounds(box.ReceiveAddress(), e); });
    const auto bounds = BoxValues(box.Raw());

    JsonObject json;
    json.Add("zoom", static_cast<int64_t>(zoom))
        .Add("x", x)
        .Add("y", y)
        .Add("status", static_cast<int64_t>(200))
        .Add("bytes", bytes)
        .Add("width", static_cast<int64_t>(image->GetWidth()))
        .Add("height", static_cast<int64_t>(image->GetHeight()))
        .Add("bounds", std::vector<double>(bounds.begin(), bounds.end()));
    return json;
}

namespace {

// The picture as GeoTIFF and, when asked, as PNG: both are written before either replaces a file.
void SaveImages(TellarImaging::IImage* image, const std::string& tiff, const std::optional<std::string>& png,
                bool compress) {
    StagedFiles files;
    const std::string stagedTiff = files.Stage(tiff);
    const int32_t format = compress ? TellarImaging::ImageFileFormatTiff : TellarImaging::ImageFileFormatTiffUncompressed;
    Invoke([&](IErrorCode** e) { return TellarImaging_SaveImage(image, stagedTiff.c_str(), format, e); });
    if (png) {
        const std::string stagedPng = files.Stage(*png);
        Invoke([&](IErrorCode** e) {
            return TellarImaging_SaveImage(image, stagedPng.c_str(), TellarImaging::ImageFileFormatPng, e);
        });
    }
    files.Commit();
}

} // namespace

JsonObject RunMosaic(IMapService* service, const MosaicJob& job, Progress& progress) {
    uint64_t tiles = 0;
    {
        const auto list = TilesForBox(service, job.zoom, job.bbox);
        tiles = list->GetCount();
        for (uint64_t i = 0; i < tiles; ++i) {
            // Failures here are left to the mosaic, which tells them or works around them; but a
            // tile cut off at the time limit would only be asked for again, as slowly.
            ITileRequest* request = RequestAt(list.Raw(), i);
            if (const Taken taken = Take(*request, job.timeoutMs); taken.late)
                throw LibraryFailure(
                    fmt::format("tile {}/{}/{}: {}", job.zoom, request->GetX(), request->GetY(), taken.failure));
            progress.Update("tiles", i + 1, tiles);
        }
        progress.Finish();
    }

    const auto box = MakeBox(job.bbox);
    Ptr<TellarImaging::ITiffImage> image;
    Invoke([&](IErrorCode** e) {
        return job.bestEffort ? service->GetImageBestEffort(job.zoom, box.Raw(), image.ReceiveAddress(), e)
                              : service->GetImage(job.zoom, box.Raw(), image.ReceiveAddress(), e);
    });
    if (!image.Raw()) throw LibraryFailure("the library returned no mosaic for the box");
    SaveImages(image.Raw(), job.tiff, job.png, job.compress);

    JsonObject json;
    json.Add("width", static_cast<int64_t>(image->GetWidth()))
        .Add("height", static_cast<int64_t>(image->GetHeight()))
        .Add("epsg", static_cast<int64_t>(image->GetEpsgCode()))
        .Add("transform", Transform(image.Raw()))
        .Add("tiles", static_cast<int64_t>(tiles));
    return json;
}

namespace {

Ptr<Tellar::Interfaces::IOgcMapService> OgcService(IMapService* service) {
    auto* ogc = dynamic_cast<Tellar::Interfaces::IOgcMapService*>(service);
    if (!ogc) throw LibraryFailure("the service answers no pictures or coverages");
    return Ptr<Tellar::Interfaces::IOgcMapService>(ogc);
}

void SetTime(Tellar::Interfaces::IOgcMapService& service, const std::optional<std::string>& text) {
    if (!text) return;
    Ptr<Data::Interfaces::IDateTime> time;
    Invoke([&](IErrorCode** e) { return Data_CreateDateTimeFromIso8601(text->c_str(), time.ReceiveAddress(), e); });
    Invoke([&](IErrorCode** e) { return service.SetTime(time.Raw(), e); });
}

// The object a finished task holds as its result.
template <class T>
Ptr<T> TaskResult(Platform::Interfaces::IAsyncTask& task) {
    Data::Structures::VARIANT raw{};
    task.GetResult(&raw);
    Ptr<T> result;
    if (raw.type & Data::Structures::VariantOwnedObject) {
        result = Ptr<T>(dynamic_cast<T*>(raw.payload.object));
        if (raw.payload.object) raw.payload.object->Release();
    }
    if (!result.Raw()) throw LibraryFailure("the task finished without a result");
    return result;
}

} // namespace

JsonObject RunMap(IMapService* service, const PictureJob& job) {
    const auto ogc = OgcService(service);
    SetTime(*ogc, job.time);
    const auto box = MakeBox(job.bbox);
    Ptr<Platform::Interfaces::IAsyncTask> task;
    Invoke([&](IErrorCode** e) {
        return ogc->GetMapAsync(nullptr, static_cast<int32_t>(job.width), static_cast<int32_t>(job.height), box.Raw(),
                                nullptr, task.ReceiveAddress(), e);
    });
    AwaitTask(*task);
    const auto image = TaskResult<TellarImaging::ITiffImage>(*task);

    // The server drew the box at the size asked: that places the picture.
    const uint32_t epsg = service->GetCrs()->GetEpsgCode();
    Ptr<TellarImaging::ITransform> transform;
    Invoke([&](IErrorCode** e) {
        return CreateTransformFromParams((job.bbox[2] - job.bbox[0]) / image->GetWidth(),
                                         -(job.bbox[3] - job.bbox[1]) / image->GetHeight(), job.bbox[0], job.bbox[3],
                                         0.0, 0.0, transform.ReceiveAddress(), e);
    });
    image->SetEpsgCode(epsg);
    image->SetTransform(transform.Raw());
    SaveImages(image.Raw(), job.output, job.png, job.compress);

    JsonObject json;
    json.Add("width", static_cast<int64_t>(image->GetWidth()))
        .Add("height", static_cast<int64_t>(image->GetHeight()))
        .Add("epsg", static_cast<int64_t>(epsg));
    return json;
}

JsonObject RunCoverage(IMapService* service, const PictureJob& job) {
    const auto ogc = OgcService(service);
    SetTime(*ogc, job.time);
    const auto box = MakeBox(job.bbox);
    Ptr<Platform::Interfaces::IAsyncTask> task;
    Invoke([&](IErrorCode** e) {
        return ogc->GetDataAsync(nullptr, static_cast<int32_t>(job.width), static_cast<int32_t>(job.height), box.Raw(),
                                 nullptr, task.ReceiveAddress(), e);
    });
    AwaitTask(*task);
    const auto bytes = TaskResult<Data::Interfaces::IArray>(*task);

    // A server answers a request it refuses with a report in XML, under status 200.
    Ptr<TellarImaging::IImage> image;
    Ptr<IErrorCode> error;
    if (!CreateImageFromMemoryStream(bytes->GetData(), bytes->GetSizeInBytes(), image.ReceiveAddress(),
                                     error.ReceiveAddress())) {
        const std::string_view text(static_cast<const char*>(bytes->GetData()),
                                    std::min<uint64_t>(bytes->GetSizeInBytes(), 300));
        throw std::runtime_error(fmt::format("the server's answer is no coverage: {}", text));
    }
    StagedFiles files;
    WriteFile(files.Stage(job.output), bytes->GetData(), bytes->GetSizeInBytes());
    files.Commit();

    JsonObject json;
    json.Add("bytes", static_cast<int64_t>(bytes->GetSizeInBytes()))
        .Add("width", static_cast<int64_t>(image->GetWidth()))
        .Add("height", static_cast<int64_t>(image->GetHeight()));
    return json;
}

namespace {

// What a seed has counted so far.
class SeedCount {
public:
    explicit SeedCount(std::optional<uint32_t> timeoutMs) : timeoutMs_(timeoutMs) {}

    // Waits for the tile and counts it. Fetched means kept in the cache: what the library does
    // not keep is no tile.
    void Take(ITileRequest& request) {
        const Taken taken = TellarMaps::Take(request, timeoutMs_);
        Ptr<TellarImaging::IImage> image;
        if (!taken.response.Raw()) {
            Fail(request, taken.failure);
        } else if (Platform::Interfaces::IHttpResponse* http = taken.response->GetHttpResponse()) {
            // Seeding checks a picture's signature, not its pixels: decoding every tile would
            // take longer than fetching and writing it.
            if (const auto problem = AnswerProblem(*taken.response, *http, image, false))
                Fail(request, *problem);
            else
                ++fetched_;
        } else {
            ++cached_;
        }
        ++tiles_;
    }

    JsonObject Report() const {
        JsonObject json;
        json.Add("tiles", tiles_).Add("fetched", fetched_).Add("cached", cached_).Add("failed", failed_);
        if (failed_) json.Add("first_error", firstError_);
        return json;
    }
    int64_t tiles() const { return tiles_; }
    bool AnyTileKept() const { return fetched_ + cached_ > 0; }
    const std::string& firstError() const { return firstError_; }

private:
    void Fail(ITileRequest& request, const std::string& why) {
        if (!failed_++)
            firstError_ = fmt::format("tile {}/{}/{}: {}", request.GetZoom(), request.GetX(), request.GetY(), why);
    }

    std::optional<uint32_t> timeoutMs_;
    int64_t tiles_ = 0, fetched_ = 0, cached_ = 0, failed_ = 0;
    std::string firstError_;
};

// Takes every tile, list by list. The next list is made before the tiles of one are taken, also
// across levels, so that the network is busy while they are: at most two lists are held at once.
// Each list has a bar of its own; a tile on the edge between two parts of a level that an earlier
// part took is not waited for again.
void SeedWholeLevels(IMapService* service, const SeedJob& job, Progress& progress, SeedCount& count) {
    LevelLists lists(service, job.minZoom, job.maxZoom, job.bbox);
    std::vector<TileSpan> done;
    int32_t zoom = -1;
    int parts = 0;
    for (LevelLists::Item item = lists.Next(); item.list.Raw();) {
        // A next list the library refuses fails the run only once this one's tiles are taken.
        LevelLists::Item ahead;
        std::exception_ptr failure;
        try {
            ahead = lists.Next();
        } catch (...) {
            failure = std::current_exception();
        }
        if (item.zoom != zoom) {
            zoom = item.zoom;
            parts = 0;
            done.clear();
        }
        // The list lets its requests go, and each is let go once taken: a request holds its
        // answer's bytes, which a list held to its end would keep all at once.
        const uint64_t size = item.list->GetCount();
        std::vector<Ptr<ITileRequest>> requests;
        requests.reserve(size);
        for (uint64_t i = 0; i < size; ++i) requests.emplace_back(RequestAt(item.list.Raw(), i));
        item.list = nullptr;
        const std::string label = ++parts == 1 ? fmt::format("zoom {}", zoom) : fmt::format("zoom {} part {}", zoom, parts);
        TileSpan span{INT64_MAX, INT64_MAX, INT64_MIN, INT64_MIN};
        for (uint64_t i = 0; i < size; ++i) {
            const Ptr<ITileRequest> request = std::move(requests[i]);
            const int64_t x = request->GetX(), y = request->GetY();
            span = {std::min(span.minX, x), std::min(span.minY, y), std::max(span.maxX, x), std::max(span.maxY, y)};
            if (std::any_of(done.begin(), done.end(), [&](const TileSpan& other) { return other.Holds(x, y); }))
                request->Cancel();
            else
                count.Take(*request);
            progress.Update(label, i + 1, size);
        }
        if (size) done.push_back(span);
        if (failure) std::rethrow_exception(failure);
        item = std::move(ahead);
    }
}

// The tile range of a level, from the lists of the box's four corners. The column and the row of
// a TMS tile grow (or shrink) with one coordinate each, also after a transformation from a target
// CRS, whose corners bound the box the library reads; so the corners' tiles span the box's. Their
// requests are cancelled: the tiles are asked for again by the part they fall to.
TileSpan LevelRange(IMapService* service, int32_t zoom, const std::array<double, 4>& box) {
    TileSpan span{INT64_MAX, INT64_MAX, INT64_MIN, INT64_MIN};
    for (const auto& [x, y] : {std::pair{box[0], box[1]}, {box[0], box[3]}, {box[2], box[1]}, {box[2], box[3]}}) {
        const Ptr<Data::Interfaces::IObjectList> list = TilesForBox(service, zoom, {x, y, x, y});
        for (uint64_t i = 0; i < list->GetCount(); ++i) {
            ITileRequest* request = RequestAt(list.Raw(), i);
            request->Cancel();
            span = {std::min(span.minX, request->GetX()), std::min(span.minY, request->GetY()),
                    std::max(span.maxX, request->GetX()), std::max(span.maxY, request->GetY())};
        }
    }
    return span;
}

// A part's share of every level: the tiles whose index, row by row over the level's range, leaves
// the part's index when divided by the count of parts. At most TilesPerList requests are in
// flight at once.
void SeedShareOfLevels(IMapService* service, const SeedJob& job, Progress& progress, SeedCount& count) {
    const uint64_t index = job.part->index, parts = job.part->count;
    std::vector<Ptr<ITileRequest>> batch;
    for (int32_t zoom = job.minZoom; zoom <= job.maxZoom; ++zoom) {
        const TileSpan span = LevelRange(service, zoom, job.bbox);
        if (span.minX > span.maxX || span.minY > span.maxY) continue;
        const auto width = static_cast<uint64_t>(span.maxX - span.minX) + 1;
        const uint64_t tiles = width * (static_cast<uint64_t>(span.maxY - span.minY) + 1);
        const uint64_t share = tiles / parts + (index < tiles % parts ? 1 : 0);
        const std::string label = fmt::format("zoom {}", zoom);
        uint64_t taken = 0;
        const auto drain = [&] {
            for (auto& request : batch) {
                count.Take(*request);
                request = nullptr; // its answer's bytes go with it
                progress.Update(label, ++taken, share);
            }
            batch.clear();
        };
        for (uint64_t i = index; i < tiles; i += parts) {
            const int64_t x = span.minX + static_cast<int64_t>(i % width), y = span.minY + static_cast<int64_t>(i / width);
            Ptr<ITileRequest> request;
            Invoke([&](IErrorCode** e) { return service->GetTile(zoom, x, y, request.ReceiveAddress(), e); });
            batch.push_back(std::move(request));
            if (batch.size() == TilesPerList) drain();
        }
        drain();
    }
}

} // namespace

JsonObject RunSeed(IMapService* service, const SeedJob& job, Progress& progress) {
    SeedCount count(job.timeoutMs);
    if (job.part)
        SeedShareOfLevels(service, job, progress, count);
    else
        SeedWholeLevels(service, job, progress, count);
    progress.Finish();

    const JsonObject json = count.Report();
    if (!count.AnyTileKept() && !(job.part && count.tiles() == 0))
        throw FailureWithReport(count.tiles() ? "no tile of the run was fetched or read; " + count.firstError()
                                              : std::string("the box holds no tile"),
                                json);
    return json;
}

void CheckCacheDirectory(const std::string& path) {
    std::error_code error;
    const auto status = std::filesystem::status(path, error);
    if (std::filesystem::exists(status) && !std::filesystem::is_directory(status))
        throw std::runtime_error(fmt::format("the cache {} is not a directory", path));
}

void SetHttpTimeouts(IMapService* service, uint32_t milliseconds) {
    Platform::Interfaces::IHttpClient* client = service->GetHttpClient();
    if (!client) throw LibraryFailure("the service has no HTTP client to set timeouts on");
    // A second more than the tool waits for a tile itself, so that a tile's wait ends on the
    // tool's clock with a message that says so; the client's limits bound the downloads the tool
    // does not wait on (those of the mosaic call, map, coverage). Each later request takes them
    // when it is made.
    const uint32_t limit = milliseconds + 1000;
    client->SetResolveTimeout(limit);
    client->SetConnectTimeout(limit);
    client->SetSendTimeout(limit);
    client->SetReceiveTimeout(limit);
}

} // namespace TellarMaps
