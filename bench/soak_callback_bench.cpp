// 100,000 tile requests through FetchTileDataAsync of a TMS fetcher (cache off) against a loopback
// nginx, 4,096 in flight at any time. Every callback must come exactly once, with the tile's bytes,
// on this thread; resident memory and open descriptors are sampled every tenth of the run and must
// stay flat after the first tenth.
// Usage: soak_callback_bench   (no arguments). Starts and stops its own nginx.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <unordered_map>
#include <vector>

#include "Core/Ptr.h"
#include "Data/Values.h"
#include "MapServices/TileRequest.h"
#include "Platform/Threading/AlertableEvent.h"
#include "Platform/Threading/ThreadHelpers.h"
#include "Soak.h"
#include "Tms/TmsFetcherImpl.h"

namespace ThreadHelpers = Platform::Windows::Threading::ThreadHelpers;

int main() {
    Soak::OneTileServer server("soak_callback_bench");
    if (!server.Start()) return 1;
    const std::string& body = server.body;

    auto fetcher = Core::MakeObject<MapServices::Tms::impl::TmsFetcherImpl>(server.UrlTemplate(), 0);
    fetcher->SetCacheEnabled(false);

    std::vector<uint8_t> calls(Soak::Requests, 0);
    int32_t issued = 0, done = 0, wrong = 0, refused = 0;
    std::unordered_map<int32_t, MapServices::TileRequest> open;
    Platform::Threading::AlertableEvent finished;
    Soak::Record record;
    record.Sample(0);
    const auto issue = [&] {
        while (issued < Soak::Requests && issued - done < Soak::InFlight) {
            const int32_t i = issued++;
            MapServices::TileRequest request = fetcher->FetchTileDataAsync(
                Soak::Zoom, Soak::TileX(i), Soak::TileY(i), [&, i](const Data::Array& data) {
                    ++calls[static_cast<size_t>(i)];
                    if (data.IsNull() || data.GetSizeInBytes() != body.size() ||
                        std::memcmp(data.GetData(), body.data(), body.size()) != 0)
                        ++wrong;
                    open.erase(i);
                    if (++done % (Soak::Requests / 10) == 0) record.Sample(done);
                    if (done == Soak::Requests) finished.Set();
                });
            if (request.IsNull()) {
                ++refused;
                if (++done == Soak::Requests) finished.Set();
            } else if (calls[static_cast<size_t>(i)] == 0) {
                open.emplace(i, std::move(request));
            }
        }
    };

    // One pass of the wait at a time: after each batch of callbacks the window is topped up again.
    bool stalled = false;
    while (!finished.IsSet() && !stalled) {
        issue();
        stalled = ThreadHelpers::WaitOnce(&finished, 30000, true) == ThreadHelpers::WaitTimeout;
    }
    if (stalled)
        for (auto& [i, request] : open) request->Cancel();
    open.clear();
    fetcher.Reset();

    int32_t twice = 0, never = 0;
    for (uint8_t n : calls) {
        twice += n > 1;
        never += n == 0;
    }
    const bool flat = record.Report("callback road (FetchTileDataAsync)");
    const bool exact = !stalled && refused == 0 && wrong == 0 && twice == 0 && never == 0;
    std::printf("  callbacks: %d missing, %d more than once, %d without the tile's bytes, %d refused%s\n", never, twice,
                wrong, refused, stalled ? ", stalled for 30 s" : "");
    return exact && flat ? 0 : 1;
}
