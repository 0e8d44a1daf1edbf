#include "Commands.h"

#include <fmt/core.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string_view>
#include <vector>

#include "Data/Exports.h"
#include "Data/Interfaces/IArray.h"
#include "Data/Interfaces/IObjectList.h"
#include "Data/Structures.h"
#include "Library.h"
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

struct TileSpan {
    int64_t minX, minY, maxX, maxY;
    bool Holds(int64_t x, int64_t y) const { return x >= minX && x <= maxX && y >= minY && y <= maxY; }
};

// Calls visit(list, index) for every tile of `bbox` at `zoom` once. A box whose list the library
// refuses as too large is cut into quarters until each part's list is allowed; a tile on the
// edge between two parts is in both lists and is visited with the first. `part(n)` is told the
// size of each list before its tiles.
template <class Part, class Visit>
void ForEachTileOfLevel(IMapService* service, int32_t zoom, const std::array<double, 4>& bbox, Part&& part,
                        Visit&& visit) {
    std::vector<TileSpan> done;
    std::vector<std::array<double, 4>> pending{bbox};
    while (!pending.empty()) {
        const std::array<double, 4> box = pending.back();
        pending.pop_back();
        Ptr<Data::Interfaces::IObjectList> list;
        Ptr<IErrorCode> error;
        if (!service->GetTilesForBox(zoom, MakeBox(box).Raw(), list.ReceiveAddress(), error.ReceiveAddress())) {
            const double midX = box[0] / 2 + box[2] / 2, midY = box[1] / 2 + box[3] / 2;
            const bool splits = (midX != box[0] && midX != box[2]) || (midY != box[1] && midY != box[3]);
            if (!TooManyTiles(error) || !splits)
                throw LibraryFailure(error.Raw() ? std::string(error->GetMessage(), error->GetMessageLength())
                                                 : "the library failed without saying why");
            // Taken back to front: the first part is the one of the lowest x and y.
            pending.push_back({midX, midY, box[2], box[3]});
            pending.push_back({box[0], midY, midX, box[3]});
            pending.push_back({midX, box[1], box[2], midY});
            pending.push_back({box[0], box[1], midX, midY});
            continue;
        }
        const uint64_t count = list->GetCount();
        part(count);
        TileSpan span{INT64_MAX, INT64_MAX, INT64_MIN, INT64_MIN};
        for (uint64_t i = 0; i < count; ++i) {
            ITileRequest* request = RequestAt(list.Raw(), i);
            const int64_t x = request->GetX(), y = request->GetY();
            span = {std::min(span.minX, x), std::min(span.minY, y), std::max(span.maxX, x), std::max(span.maxY, y)};
            const bool seen =
                std::any_of(done.begin(), done.end(), [&](const TileSpan& other) { return other.Holds(x, y); });
            visit(request, i, seen);
        }
        if (count) done.push_back(span);
    }
}

} // namespace

JsonObject RunInfo(IMapService* service, const char* kind) {
    JsonObject json;
    json.Add("kind", kind)
        .Add("service_url", service->GetServiceUrl())
        .Add("layer", service->GetLayerName())
        .Add("epsg", static_cast<int64_t>(service->GetCrs()->GetEpsgCode()));
    return json;
}

JsonObject RunTile(IMapService* service, int32_t zoom, int64_t x, int64_t y, const std::string& path) {
    Ptr<ITileRequest> request;
    Invoke([&](IErrorCode** e) { return service->GetTile(zoom, x, y, request.ReceiveAddress(), e); });
    Ptr<ITileResponse> response;
    Invoke([&](IErrorCode** e) { return request->GetResponse(response.ReceiveAddress(), e); });

    Ptr<TellarImaging::IImage> image;
    int64_t bytes = 0;
    if (Platform::Interfaces::IHttpResponse* http = response->GetHttpResponse()) {
        const int32_t status = http->GetStatusCode();
        if (status != 200)
            throw std::runtime_error(
                fmt::format("the server answered tile {}/{}/{} with status {}", zoom, x, y, status));
        WriteFile(path, http->GetBodyData(), http->GetBodySize());
        bytes = static_cast<int64_t>(http->GetBodySize());
        Invoke([&](IErrorCode** e) { return response->GetImage(image.ReceiveAddress(), e); });
    } else {
        // From the cache: the public calls give the decoded tile, not the file's bytes.
        Invoke([&](IErrorCode** e) { return response->GetImage(image.ReceiveAddress(), e); });
        Invoke([&](IErrorCode** e) {
            return TellarImaging_SaveImage(image.Raw(), path.c_str(), TellarImaging::ImageFileFormatPng, e);
        });
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

JsonObject RunMosaic(IMapService* service, const MosaicJob& job, Progress& progress) {
    uint64_t tiles = 0;
    {
        const auto list = TilesForBox(service, job.zoom, job.bbox);
        tiles = list->GetCount();
        for (uint64_t i = 0; i < tiles; ++i) {
            // Failures here are left to the mosaic, which tells them or works around them.
            Ptr<ITileResponse> response;
            Ptr<IErrorCode> ignored;
            RequestAt(list.Raw(), i)->GetResponse(response.ReceiveAddress(), ignored.ReceiveAddress());
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
    Invoke([&](IErrorCode** e) {
        return TellarImaging_SaveImage(image.Raw(), job.tiff.c_str(), TellarImaging::ImageFileFormatTiff, e);
    });
    if (job.png)
        Invoke([&](IErrorCode** e) {
            return TellarImaging_SaveImage(image.Raw(), job.png->c_str(), TellarImaging::ImageFileFormatPng, e);
        });

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
    Invoke([&](IErrorCode** e) {
        return TellarImaging_SaveImage(image.Raw(), job.output.c_str(), TellarImaging::ImageFileFormatTiff, e);
    });
    if (job.png)
        Invoke([&](IErrorCode** e) {
            return TellarImaging_SaveImage(image.Raw(), job.png->c_str(), TellarImaging::ImageFileFormatPng, e);
        });

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
    WriteFile(job.output, bytes->GetData(), bytes->GetSizeInBytes());

    JsonObject json;
    json.Add("bytes", static_cast<int64_t>(bytes->GetSizeInBytes()))
        .Add("width", static_cast<int64_t>(image->GetWidth()))
        .Add("height", static_cast<int64_t>(image->GetHeight()));
    return json;
}

JsonObject RunSeed(IMapService* service, const std::array<double, 4>& bbox, int32_t minZoom, int32_t maxZoom,
                   Progress& progress) {
    int64_t tiles = 0, fetched = 0, cached = 0, failed = 0;
    for (int32_t zoom = minZoom; zoom <= maxZoom; ++zoom) {
        // A level too large for one list comes in parts, each with a bar of its own.
        std::string label;
        int parts = 0;
        uint64_t count = 0;
        ForEachTileOfLevel(
            service, zoom, bbox,
            [&](uint64_t size) {
                count = size;
                label = ++parts == 1 ? fmt::format("zoom {}", zoom) : fmt::format("zoom {} part {}", zoom, parts);
            },
            [&](ITileRequest* request, uint64_t index, bool seen) {
                if (seen) {
                    // Already taken with an earlier part; its download here is not waited for.
                    request->Cancel();
                } else {
                    Ptr<ITileResponse> response;
                    Ptr<IErrorCode> error;
                    if (!request->GetResponse(response.ReceiveAddress(), error.ReceiveAddress()) || !response.Raw()) {
                        ++failed;
                    } else if (Platform::Interfaces::IHttpResponse* http = response->GetHttpResponse()) {
                        ++(http->GetStatusCode() == 200 ? fetched : failed);
                    } else {
                        ++cached;
                    }
                    ++tiles;
                }
                progress.Update(label, index + 1, count);
            });
    }
    progress.Finish();

    JsonObject json;
    json.Add("tiles", tiles).Add("fetched", fetched).Add("cached", cached).Add("failed", failed);
    return json;
}

} // namespace TellarMaps
