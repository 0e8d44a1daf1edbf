#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Common/TileRequestImpl.h"
#include "Platform/Threading/ThreadDispatcher.h"
#include "Platform/Threading/ThreadHelpers.h"
#include "RecordingLogger.h"
#include "TellarImaging/IImage.h"
#include "TempDir.h"
#include "TileServer.h"
#include "Tms/TmsFetcherImpl.h"
#include "Wait.h"
#include "PumpUntil.h"

using MapServices::TileRequest;
using MapServices::impl::TileRequestImpl;
using MapServices::Tms::impl::TmsFetcherImpl;
namespace ThreadHelpers = Platform::Windows::Threading::ThreadHelpers;
using TestSupport::PumpUntil;

namespace {


// What one callback saw.
struct Outcome {
    int calls = 0;
    bool null = false;
    std::string bytes;
    std::thread::id thread;
};

// A TMS fetcher whose download limit a test can lower, so the pyramid rule stays small.
class LimitedFetcher : public TmsFetcherImpl {
public:
    LimitedFetcher(const std::string& url, int32_t maxDownloadZoom) : TmsFetcherImpl(url, 0) {
        maxDownloadZoom_ = maxDownloadZoom;
    }
};

class TileFetchTest : public testing::Test {
protected:
    Core::Ptr<TmsFetcherImpl> Fetcher(const std::string& kind, bool cache = true) {
        auto fetcher = Core::MakeObject<TmsFetcherImpl>(server.Template(kind), 0);
        fetcher->SetCacheEnabled(cache);
        fetcher->SetCacheRoot(cacheDir.Path().string());
        return fetcher;
    }

    // Asks for one tile and lets its callback run.
    static Outcome FetchOne(TmsFetcherImpl& fetcher, int32_t z, int32_t x, int32_t y) {
        auto outcome = std::make_shared<Outcome>();
        const TileRequest request = fetcher.FetchTileDataAsync(z, x, y, [outcome](const Data::Array& data) {
            ++outcome->calls;
            outcome->thread = std::this_thread::get_id();
            outcome->null = data.IsNull();
            if (!data.IsNull())
                outcome->bytes.assign(reinterpret_cast<const char*>(data.GetData()), data.GetSizeInBytes());
        });
        EXPECT_FALSE(request.IsNull());
        EXPECT_TRUE(PumpUntil([&] { return outcome->calls == 1; }));
        return *outcome;
    }

    TestSupport::TileServer server;
    TestSupport::TempDir cacheDir;
};

} // namespace

// A completion posted from another thread runs on the request's thread, and only once it waits.
TEST(TileRequest, CompletesOnTheDispatcherOnlyWhileItWaits) {
    auto dispatcher = Core::MakeObject<Platform::Threading::impl::ThreadDispatcher>();
    const auto testThread = std::this_thread::get_id();
    std::atomic<int> calls{0};
    size_t seenSize = 99;
    auto request = Core::MakeObject<TileRequestImpl>(3, 4, 5, [&](const Data::Array& bytes) {
        EXPECT_EQ(std::this_thread::get_id(), testThread);
        seenSize = bytes.GetSizeInBytes();
        ++calls;
    });
    std::thread worker([&, request] {
        request->SetResult(Data::Array::Create(7));
        dispatcher->Post([request] { request->Complete(); });
    });
    worker.join();
    EXPECT_EQ(calls, 0);
    EXPECT_FALSE(request->IsDone());
    EXPECT_TRUE(request->Wait());
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(seenSize, 7u);
}

TEST_F(TileFetchTest, MissWritesTheCacheThenHitsWithoutTheServerOnTheDispatcherThread) {
    auto fetcher = Fetcher("t");
    const Outcome first = FetchOne(*fetcher, 3, 2, 1);
    EXPECT_EQ(first.thread, std::this_thread::get_id());
    EXPECT_EQ(first.bytes, server.Png());
    const std::string cached = fetcher->GetCachedTilePath(3, 2, 1);
    ASSERT_TRUE(std::filesystem::is_regular_file(cached));
    EXPECT_EQ(std::filesystem::file_size(cached), server.Png().size());
    for (const auto& entry : std::filesystem::directory_iterator(std::filesystem::path(cached).parent_path()))
        EXPECT_EQ(entry.path().extension(), ".png") << "no temporary file is left behind";

    EXPECT_EQ(FetchOne(*fetcher, 3, 2, 1).bytes, server.Png());
    EXPECT_EQ(server.Requests(), 1) << "a hit asks no server";
    FetchOne(*Fetcher("t", false), 3, 2, 1);
    EXPECT_EQ(server.Requests(), 2) << "the plain form never caches";
}

TEST_F(TileFetchTest, StatusAndContentTypeDecideBetweenBytesAndNull) {
    const struct {
        const char* kind;
        bool null, cached;
    } cases[] = {{"404", true, false}, {"500", true, false}, {"xml", true, false},   {"octet", false, true},
                 {"mvt", false, true}, {"t", false, true},   {"empty", false, false}};
    for (const auto& c : cases) {
        auto fetcher = Fetcher(c.kind);
        EXPECT_EQ(FetchOne(*fetcher, 1, 0, 0).null, c.null) << c.kind;
        EXPECT_EQ(std::filesystem::exists(fetcher->GetCachedTilePath(1, 0, 0)), c.cached) << c.kind;
    }
}

TEST_F(TileFetchTest, RefusedAndUnreadableTilesAskNoServer) {
    auto fetcher = Fetcher("t");
    EXPECT_TRUE(fetcher->FetchTileDataAsync(2, 4, 0, [](const Data::Array&) {}).IsNull()) << "x = 2^z is out of range";
    EXPECT_TRUE(fetcher->FetchTileDataAsync(21, 0, 0, [](const Data::Array&) {}).IsNull());

    // A directory named like the tile is a hit that reads nothing: the request's first, empty array.
    std::filesystem::create_directories(fetcher->GetCachedTilePath(4, 1, 1));
    const Outcome hit = FetchOne(*fetcher, 4, 1, 1);
    EXPECT_FALSE(hit.null);
    EXPECT_TRUE(hit.bytes.empty());

    // A cache root the file system cannot even ask about: logged, then an empty array.
    TestSupport::ScopedRecordingLogger logger;
    fetcher->SetCacheRoot(cacheDir.Path().string() + "/" + std::string(300, 'n'));
    const Outcome failed = FetchOne(*fetcher, 1, 0, 0);
    EXPECT_FALSE(failed.null);
    EXPECT_TRUE(failed.bytes.empty());
    EXPECT_EQ(logger->Lines().at(0).text.rfind("ERROR: Exception: exists: ", 0), 0u) << logger->Lines().at(0).text;
    EXPECT_EQ(server.Requests(), 0);
}

TEST_F(TileFetchTest, CancelBeforeCompletion) {
    auto fetcher = Fetcher("slow");
    int calls = 0;
    TileRequest request = fetcher->FetchTileDataAsync(2, 0, 0, [&](const Data::Array&) { ++calls; });
    ASSERT_FALSE(request.IsNull());
    request->Cancel();
    EXPECT_TRUE(request->IsCancelled());
    EXPECT_TRUE(request->Wait()) << "returns at once";
    PumpUntil([] { return false; }, std::chrono::milliseconds(600));
    EXPECT_EQ(calls, 0);
}

TEST_F(TileFetchTest, ReleasingEverythingWhileRequestsAreInFlight) {
    int calls = 0;
    {
        auto fetcher = Fetcher("slow");
        for (int x = 0; x < 8; ++x) fetcher->FetchTileDataAsync(3, x, 0, [&](const Data::Array&) { ++calls; });
    }
    // The stages hold the fetcher and the requests; the answers still arrive.
    ASSERT_TRUE(PumpUntil([&] { return calls == 8; }));
}

TEST_F(TileFetchTest, AThousandTilesInFlightEachCallbackOnce) {
    auto fetcher = Fetcher("octet", false);
    std::map<std::pair<int, int>, int> seen;
    int done = 0;
    for (int i = 0; i < 1000; ++i) {
        const auto callback = [&, x = i % 100, y = i / 100](const Data::Array& data) {
            ++done;
            if (!data.IsNull()) ++seen[{x, y}];
        };
        ASSERT_FALSE(fetcher->FetchTileDataAsync(10, i % 100, i / 100, callback).IsNull());
    }
    ASSERT_TRUE(PumpUntil([&] { return done == 1000; }, std::chrono::seconds(120))) << done;
    PumpUntil([] { return false; }, std::chrono::milliseconds(100));
    EXPECT_EQ(done, 1000);
    EXPECT_EQ(seen.size(), 1000u);
    for (const auto& [tile, count] : seen) EXPECT_EQ(count, 1);
}

// A tile gives its image and a 404 none; bytes that are no image fail the decode and call nothing.
TEST_F(TileFetchTest, FetchTileAsyncDecodes) {
    std::vector<int> widths;
    std::vector<Core::Ptr<TmsFetcherImpl>> fetchers = {Fetcher("t", false), Fetcher("404", false),
                                                       Fetcher("bad", false)};
    for (auto& fetcher : fetchers)
        fetcher->FetchTileAsync(
            1, 1, 1, [&](TellarImaging::IImage* image) { widths.push_back(image ? image->GetWidth() : -1); });
    ASSERT_TRUE(PumpUntil([&] { return server.Requests() == 3 && widths.size() == 2; }));
    PumpUntil([] { return false; }, std::chrono::milliseconds(300));
    std::sort(widths.begin(), widths.end());
    EXPECT_EQ(widths, (std::vector<int>{-1, 256}));
}

TEST_F(TileFetchTest, PyramidDownloadFollowsItsLevelRule) {
    struct Case {
        int32_t startZoom, endZoom, limit;
        int expectedTiles;
    } cases[] = {
        {5, 5, 20, 1}, // span 0: the tile itself
        {2, 4, 3, 5},  // span 2 with limit 3: levels 0 and 1 only (the level plus the span)
        {0, 4, 3, 0},  // span above the limit: nothing after the first progress call
        {0, 21, 20, 0},
    };
    for (const auto& c : cases) {
        TestSupport::TempDir target;
        auto fetcher = Core::MakeObject<LimitedFetcher>(server.Template("t"), c.limit);
        fetcher->SetCacheRoot(cacheDir.Path().string());
        std::vector<uint64_t> currents;
        uint64_t total = 0;
        const int before = server.Requests();
        fetcher->DownloadMap(c.startZoom, 1, 1, c.endZoom, target.Path().string(),
                             [&](uint64_t current, uint64_t all, int32_t, int64_t, int64_t, bool&) {
                                 currents.push_back(current);
                                 total = all;
                             });
        ASSERT_EQ(currents.size(), static_cast<size_t>(c.expectedTiles + 1)) << c.startZoom << "-" << c.endZoom;
        EXPECT_EQ(currents.front(), 0u);
        EXPECT_EQ(total, static_cast<uint64_t>((std::pow(4, c.endZoom - c.startZoom + 1) - 1) / 3));
        ASSERT_TRUE(TestSupport::WaitUntil([&] { return server.Requests() == before + c.expectedTiles; }));
        if (c.expectedTiles > 0) {
            EXPECT_TRUE(std::filesystem::is_directory(target.Path() / std::to_string(c.startZoom)));
            ASSERT_TRUE(TestSupport::WaitUntil([&] {
                return std::filesystem::exists(fetcher->GetCachedTilePath(c.startZoom, 1, 1));
            })) << "tiles land in the fetcher's own cache";
        }
    }
    // Without progress the tiles are fetched all the same; cancel stops at once.
    auto fetcher = Fetcher("t", false);
    const int before = server.Requests();
    fetcher->DownloadMap(6, 0, 0, 7, cacheDir.Path().string(), {});
    ASSERT_TRUE(TestSupport::WaitUntil([&] { return server.Requests() == before + 5; }));
    int calls = 0;
    fetcher->DownloadMap(6, 0, 0, 7, cacheDir.Path().string(),
                         [&](uint64_t current, uint64_t, int32_t, int64_t, int64_t, bool& cancel) {
                             ++calls;
                             cancel = current == 2;
                         });
    EXPECT_EQ(calls, 3);
}

TEST_F(TileFetchTest, BoxDownloadIsSynchronousWithAClosingProgressCall) {
    auto fetcher = Fetcher("t");
    TestSupport::TempDir target;
    std::vector<std::tuple<uint64_t, uint64_t, int32_t>> calls;
    // A box around (10 E, 50 N): one tile a zoom level from 0 to 2.
    const MapServices::BoundingBoxValue box{9.9, 49.9, 10.1, 50.1};
    fetcher->DownloadMap(box, 2, target.Path().string(),
                         [&](uint64_t current, uint64_t total, int32_t z, int64_t, int64_t, bool&) {
                             calls.emplace_back(current, total, z);
                         });
    ASSERT_EQ(calls.size(), 4u);
    EXPECT_EQ(calls[0], std::make_tuple(uint64_t{0}, uint64_t{3}, 0));
    EXPECT_EQ(calls[2], std::make_tuple(uint64_t{2}, uint64_t{3}, 2));
    EXPECT_EQ(calls[3], std::make_tuple(uint64_t{3}, uint64_t{3}, 0)) << "the closing call";
    EXPECT_EQ(server.Requests(), 3);
    EXPECT_TRUE(std::filesystem::exists(target.Path() / "2" / "2_2_1.png")) << "written straight to the directory";

    // Without progress: the same tiles, no call.
    fetcher->DownloadMap(box, 1, target.Path().string(), {});
    EXPECT_EQ(server.Requests(), 5);
}
