#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <thread>

#include "Platform/Threading/ThreadHelpers.h"
#include "RecordingLogger.h"
#include "TellarImaging/IImage.h"
#include "TempDir.h"
#include "TileServer.h"
#include "Tms/TmsFetcherImpl.h"
#include "Wait.h"

using MapServices::TileRequest;
using MapServices::Tms::impl::TmsFetcherImpl;
namespace ThreadHelpers = Platform::Windows::Threading::ThreadHelpers;

namespace {

// Lets callbacks posted to this thread run, until `done` holds or the bound runs out.
template <class Predicate>
bool PumpUntil(Predicate done, std::chrono::milliseconds bound = std::chrono::seconds(30)) {
    Platform::Threading::AlertableEvent never;
    const auto end = std::chrono::steady_clock::now() + bound;
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) return false;
        ThreadHelpers::WaitForSingleObject(never, 5, true, true);
    }
    return true;
}

// What one callback saw.
struct Outcome {
    int calls = 0;
    bool null = false;
    std::string bytes;
    std::thread::id thread;
};

MapServices::Interfaces::TileDataCallback Recorder(Outcome& outcome) {
    return [&outcome](const Data::Array& data) {
        ++outcome.calls;
        outcome.thread = std::this_thread::get_id();
        outcome.null = data.IsNull();
        if (!data.IsNull()) outcome.bytes.assign(reinterpret_cast<const char*>(data.GetData()), data.GetSizeInBytes());
    };
}

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

    TestSupport::TileServer server;
    TestSupport::TempDir cacheDir;
};

} // namespace

TEST_F(TileFetchTest, MissWritesTheCacheThenHitsWithoutTheServerOnTheDispatcherThread) {
    auto fetcher = Fetcher("t");
    Outcome first;
    TileRequest request = fetcher->FetchTileDataAsync(3, 2, 1, Recorder(first));
    ASSERT_FALSE(request.IsNull());
    ASSERT_TRUE(TestSupport::WaitUntil([&] { return server.Requests() == 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(first.calls, 0) << "callbacks wait for the thread to wait alertably";
    ASSERT_TRUE(PumpUntil([&] { return first.calls == 1; }));
    EXPECT_EQ(first.thread, std::this_thread::get_id());
    EXPECT_EQ(first.bytes, server.Png());
    const std::string cached = fetcher->GetCachedTilePath(3, 2, 1);
    EXPECT_TRUE(std::filesystem::is_regular_file(cached));
    EXPECT_EQ(std::filesystem::file_size(cached), server.Png().size());
    for (const auto& entry : std::filesystem::directory_iterator(std::filesystem::path(cached).parent_path()))
        EXPECT_EQ(entry.path().extension(), ".png") << "no temporary file is left behind";

    Outcome second;
    ASSERT_FALSE(fetcher->FetchTileDataAsync(3, 2, 1, Recorder(second)).IsNull());
    ASSERT_TRUE(PumpUntil([&] { return second.calls == 1; }));
    EXPECT_EQ(second.bytes, server.Png());
    EXPECT_EQ(server.Requests(), 1) << "a hit asks no server";

    // The plain form never caches.
    auto plain = Fetcher("t", false);
    Outcome third;
    plain->FetchTileDataAsync(3, 2, 1, Recorder(third));
    ASSERT_TRUE(PumpUntil([&] { return third.calls == 1; }));
    EXPECT_EQ(server.Requests(), 2);
}

TEST_F(TileFetchTest, StatusAndContentTypeDecideBetweenBytesAndNull) {
    const std::map<std::string, bool> kinds = {{"404", true},    {"500", true},  {"xml", true},
                                               {"octet", false}, {"mvt", false}, {"t", false}};
    for (const auto& [kind, expectNull] : kinds) {
        auto fetcher = Fetcher(kind, false);
        Outcome outcome;
        fetcher->FetchTileDataAsync(1, 0, 0, Recorder(outcome));
        ASSERT_TRUE(PumpUntil([&] { return outcome.calls == 1; })) << kind;
        EXPECT_EQ(outcome.null, expectNull) << kind;
    }
}

TEST_F(TileFetchTest, RefusedTilesAndFailuresOnTheCallersSide) {
    auto fetcher = Fetcher("t");
    Outcome outcome;
    EXPECT_TRUE(fetcher->FetchTileDataAsync(2, 4, 0, Recorder(outcome)).IsNull()) << "x = 2^z is out of range";
    EXPECT_TRUE(fetcher->FetchTileDataAsync(21, 0, 0, Recorder(outcome)).IsNull());

    // A cache root the file system cannot even ask about: logged, then an empty array.
    TestSupport::ScopedRecordingLogger logger;
    fetcher->SetCacheRoot(cacheDir.Path().string() + "/" + std::string(300, 'n'));
    ASSERT_FALSE(fetcher->FetchTileDataAsync(1, 0, 0, Recorder(outcome)).IsNull());
    ASSERT_TRUE(PumpUntil([&] { return outcome.calls == 1; }));
    EXPECT_FALSE(outcome.null);
    EXPECT_TRUE(outcome.bytes.empty());
    EXPECT_EQ(logger->Lines().at(0).text.rfind("ERROR: Exception: exists: ", 0), 0u) << logger->Lines().at(0).text;
    EXPECT_EQ(server.Requests(), 0);
}

TEST_F(TileFetchTest, ADirectoryNamedLikeATileIsAHitThatReadsNothing) {
    auto fetcher = Fetcher("t");
    std::filesystem::create_directories(fetcher->GetCachedTilePath(4, 1, 1));
    Outcome outcome;
    fetcher->FetchTileDataAsync(4, 1, 1, Recorder(outcome));
    ASSERT_TRUE(PumpUntil([&] { return outcome.calls == 1; }));
    EXPECT_FALSE(outcome.null) << "the request's first, empty array";
    EXPECT_TRUE(outcome.bytes.empty());
    EXPECT_EQ(server.Requests(), 0);
}

TEST_F(TileFetchTest, EmptyBodyLeavesNoCacheFile) {
    auto fetcher = Fetcher("empty");
    Outcome outcome;
    fetcher->FetchTileDataAsync(2, 1, 1, Recorder(outcome));
    ASSERT_TRUE(PumpUntil([&] { return outcome.calls == 1; }));
    EXPECT_FALSE(outcome.null);
    EXPECT_FALSE(std::filesystem::exists(fetcher->GetCachedTilePath(2, 1, 1)));
}

TEST_F(TileFetchTest, CancelBeforeCompletion) {
    auto fetcher = Fetcher("slow");
    Outcome outcome;
    TileRequest request = fetcher->FetchTileDataAsync(2, 0, 0, Recorder(outcome));
    ASSERT_FALSE(request.IsNull());
    request->Cancel();
    EXPECT_TRUE(request->IsCancelled());
    EXPECT_TRUE(request->Wait()) << "returns at once";
    PumpUntil([] { return false; }, std::chrono::milliseconds(600));
    EXPECT_EQ(outcome.calls, 0);
}

TEST_F(TileFetchTest, ReleasingEverythingWhileRequestsAreInFlight) {
    std::atomic<int> calls{0};
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
        const int x = i % 100, y = i / 100;
        ASSERT_FALSE(fetcher
                         ->FetchTileDataAsync(10, x, y,
                                              [&, x, y](const Data::Array& data) {
                                                  ++done;
                                                  if (!data.IsNull()) ++seen[{x, y}];
                                              })
                         .IsNull());
    }
    ASSERT_TRUE(PumpUntil([&] { return done == 1000; }, std::chrono::seconds(120))) << done;
    PumpUntil([] { return false; }, std::chrono::milliseconds(100));
    EXPECT_EQ(done, 1000);
    EXPECT_EQ(seen.size(), 1000u);
    for (const auto& [tile, count] : seen) EXPECT_EQ(count, 1);
}

TEST_F(TileFetchTest, FetchTileAsyncDecodes) {
    auto fetcher = Fetcher("t", false);
    int width = 0, calls = 0;
    fetcher->FetchTileAsync(1, 1, 1, [&](TellarImaging::IImage* image) {
        ++calls;
        width = image ? image->GetWidth() : -1;
    });
    ASSERT_TRUE(PumpUntil([&] { return calls == 1; }));
    EXPECT_EQ(width, 256);

    auto missing = Fetcher("404", false);
    missing->FetchTileAsync(1, 1, 1, [&](TellarImaging::IImage* image) {
        ++calls;
        width = image ? image->GetWidth() : -1;
    });
    ASSERT_TRUE(PumpUntil([&] { return calls == 2; }));
    EXPECT_EQ(width, -1);

    // Bytes that are no image: the decode fails and the callback is not called.
    auto bad = Fetcher("bad", false);
    TileRequest request = bad->FetchTileAsync(1, 1, 1, [&](TellarImaging::IImage*) { ++calls; });
    ASSERT_TRUE(PumpUntil([&] { return server.Requests() == 3; }));
    PumpUntil([] { return false; }, std::chrono::milliseconds(300));
    EXPECT_EQ(calls, 2);
}

TEST_F(TileFetchTest, PyramidDownloadFollowsItsLevelRule) {
    struct Case {
        int32_t startZoom, endZoom, limit;
        int expectedTiles;
    } cases[] = {
        {5, 5, 20, 1}, // span 0: the tile itself
        {2, 4, 3, 5},  // span 2 with limit 3: levels 0 and 1 only (the level plus the span)
        {0, 4, 3, 0},  // span above the limit: nothing after the first progress call
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
    // Span above the real limit of 20: the first progress call, then nothing.
    auto fetcher = Core::MakeObject<LimitedFetcher>(server.Template("t"), 20);
    int first = 0;
    fetcher->DownloadMap(0, 0, 0, 21, cacheDir.Path().string(),
                         [&](uint64_t, uint64_t, int32_t, int64_t, int64_t, bool&) { ++first; });
    EXPECT_EQ(first, 1);

    // Without progress the tiles are fetched all the same; cancel stops at once.
    fetcher->SetCacheEnabled(false);
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
    fetcher->DownloadMap(MapServices::BoundingBoxValue{9.9, 49.9, 10.1, 50.1}, 2, target.Path().string(),
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
    fetcher->DownloadMap(MapServices::BoundingBoxValue{9.9, 49.9, 10.1, 50.1}, 1, target.Path().string(), {});
    EXPECT_EQ(server.Requests(), 5);
}
