#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "Common/TileRequestImpl.h"
#include "Platform/Threading/ThreadDispatcher.h"
#include "Platform/Threading/ThreadHelpers.h"

using MapServices::impl::TileRequestImpl;
namespace ThreadHelpers = Platform::Windows::Threading::ThreadHelpers;

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
    EXPECT_EQ(request->GetZoom(), 3);
    EXPECT_EQ(request->GetX(), 4);
    EXPECT_EQ(request->GetY(), 5);

    // Another thread (standing in for the worker) fills the result and posts the completion.
    std::thread worker([&, request] {
        request->SetResult(Data::Array::Create(7));
        dispatcher->Post([request] { request->Complete(); });
    });
    worker.join();
    EXPECT_EQ(calls, 0) << "nothing runs before the thread waits alertably";
    EXPECT_FALSE(request->IsDone());
    EXPECT_TRUE(request->Wait());
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(seenSize, 7u);
}

TEST(TileRequest, CancelEndsTheWaitAndDropsTheCallback) {
    auto dispatcher = Core::MakeObject<Platform::Threading::impl::ThreadDispatcher>();
    std::atomic<int> calls{0};
    auto request = Core::MakeObject<TileRequestImpl>(0, 0, 0, [&](const Data::Array&) { ++calls; });
    dispatcher->Post([request] { request->Complete(); });
    request->Cancel();
    EXPECT_TRUE(request->IsCancelled());
    EXPECT_TRUE(request->Wait()) << "returns at once";
    // Let the queued completion run: it finds no callback.
    Platform::Threading::AlertableEvent never;
    ThreadHelpers::WaitForSingleObject(never, 50, true, true);
    EXPECT_EQ(calls, 0);
}

TEST(TileRequest, CompletionWithoutResultGivesTheInitialEmptyArray) {
    Data::Array seen;
    bool called = false;
    auto request = Core::MakeObject<TileRequestImpl>(1, 1, 1, [&](const Data::Array& bytes) {
        seen = bytes;
        called = true;
    });
    request->Complete();
    ASSERT_TRUE(called);
    ASSERT_FALSE(seen.IsNull());
    EXPECT_EQ(seen.GetSizeInBytes(), 0u);

    bool nullSeen = false;
    auto failed =
        Core::MakeObject<TileRequestImpl>(1, 1, 1, [&](const Data::Array& bytes) { nullSeen = bytes.IsNull(); });
    failed->Complete(Data::Array());
    EXPECT_TRUE(nullSeen);
}
