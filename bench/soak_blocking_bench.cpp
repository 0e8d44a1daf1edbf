// 100,000 tile requests through the blocking road of a TMS map service (the library's exports, no
// cache): GetTile for 4,096 tiles at a time, then GetResponse of each. Every response must carry the
// tile's bytes; resident memory and open descriptors are sampled every tenth of the run and must stay
// flat after the first tenth.
// Usage: soak_blocking_bench   (no arguments). Starts and stops its own nginx.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <vector>

#include "Core/AbiGuard.h"
#include "Platform/Interfaces/IHttpRequest.h"
#include "Soak.h"
#include "Tellar/Interfaces/IEpsg.h"
#include "Tellar/Interfaces/ITileRequest.h"
#include "Tellar/Interfaces/ITileResponse.h"
#include "Tellar/Spatial/Maps/Exports.h"
#include "Tellar/Spatial/ProjectionExports.h"

using Core::Ptr;

int main() {
    Soak::OneTileServer server("soak_blocking_bench");
    if (!server.Start()) return 1;
    const std::string& body = server.body;

    Ptr<Tellar::Interfaces::IEpsg> epsg;
    TellarSpatialProjection_CreateEpsg(epsg.ReceiveAddress(), nullptr);
    Ptr<Tellar::Interfaces::IMapService> service;
    Ptr<Core::IErrorCode> error;
    const std::string url = server.UrlTemplate();
    if (!TellarSpatialMaps_CreateMapServiceFromTmsUrl(epsg.Raw(), url.c_str(), 3857, service.ReceiveAddress(),
                                                      error.ReceiveAddress())) {
        std::fprintf(stderr, "no service: %s\n", error.Raw() ? error->GetMessage() : "");
        return 1;
    }

    int32_t failed = 0, wrong = 0;
    Soak::Record record;
    record.Sample(0);
    std::vector<Ptr<Tellar::Interfaces::ITileRequest>> batch;
    for (int32_t start = 0; start < Soak::Requests; start += Soak::InFlight) {
        const int32_t end = std::min(Soak::Requests, start + Soak::InFlight);
        for (int32_t i = start; i < end; ++i) {
            Ptr<Tellar::Interfaces::ITileRequest> request;
            if (service->GetTile(Soak::Zoom, Soak::TileX(i), Soak::TileY(i), request.ReceiveAddress(), nullptr))
                batch.push_back(std::move(request));
            else
                ++failed;
        }
        for (auto& request : batch) {
            Ptr<Tellar::Interfaces::ITileResponse> response;
            Platform::Interfaces::IHttpResponse* http = nullptr;
            if (!request->GetResponse(response.ReceiveAddress(), nullptr) || !(http = response->GetHttpResponse())) {
                ++failed;
                continue;
            }
            wrong += http->GetStatusCode() != 200 || http->GetBodySize() != body.size() ||
                     std::memcmp(http->GetBodyData(), body.data(), body.size()) != 0;
        }
        batch.clear();
        if (end % (Soak::Requests / 10) < Soak::InFlight || end == Soak::Requests) record.Sample(end);
    }
    service.Reset();

    const bool flat = record.Report("blocking road (GetTile, GetResponse)");
    std::printf("  responses: %d failed, %d without the tile's bytes\n", failed, wrong);
    return failed == 0 && wrong == 0 && flat ? 0 : 1;
}
