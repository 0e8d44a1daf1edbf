#include "Commands.h"

#include <fmt/core.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <vector>

#include "Data/Interfaces/IObjectList.h"
#include "Library.h"
#include "Platform/Interfaces/IHttpRequest.h"
#include "Tellar/Interfaces/ICrs.h"
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

JsonObject RunSeed(IMapService* service, const std::array<double, 4>& bbox, int32_t minZoom, int32_t maxZoom,
                   Progress& progress) {
    int64_t tiles = 0, fetched = 0, cached = 0, failed = 0;
    for (int32_t zoom = minZoom; zoom <= maxZoom; ++zoom) {
        const auto list = TilesForBox(service, zoom, bbox);
        const uint64_t count = list->GetCount();
        const std::string label = fmt::format("zoom {}", zoom);
        for (uint64_t i = 0; i < count; ++i) {
            Ptr<ITileResponse> response;
            Ptr<IErrorCode> error;
            if (!RequestAt(list.Raw(), i)->GetResponse(response.ReceiveAddress(), error.ReceiveAddress()) ||
                !response.Raw()) {
                ++failed;
            } else if (Platform::Interfaces::IHttpResponse* http = response->GetHttpResponse()) {
                ++(http->GetStatusCode() == 200 ? fetched : failed);
            } else {
                ++cached;
            }
            progress.Update(label, i + 1, count);
        }
        tiles += static_cast<int64_t>(count);
    }
    progress.Finish();

    JsonObject json;
    json.Add("tiles", tiles).Add("fetched", fetched).Add("cached", cached).Add("failed", failed);
    return json;
}

} // namespace TellarMaps
