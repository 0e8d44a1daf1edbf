#include <pthread.h>

#include <atomic>
#include <thread>

#include <gtest/gtest.h>

#include "Platform/Threading/ThreadHelpers.h"
#include "ThreadingTestSupport.h"

using namespace ThreadingTests;
using Platform::Threading::AlertableEvent;
using Platform::Threading::impl::ThreadContext;
namespace Helpers = Platform::Windows::Threading::ThreadHelpers;

TEST(Waits, PassCodesTellEventQueuedFunctionsAndTimeoutApart) {
    AlertableEvent event;
    EXPECT_EQ(Helpers::WaitOnce(&event, 0, true), Helpers::WaitTimeout);
    EXPECT_EQ(Helpers::WaitOnce(nullptr, 5, true), Helpers::WaitTimeout);
    event.Set();
    event.Set();
    // Queued functions run before a set event is reported.
    int ran = 0;
    ASSERT_TRUE(QueueTo(*ThreadContext::Current(), [&] { ++ran; }));
    EXPECT_EQ(Helpers::WaitOnce(&event, 0, true), Helpers::WaitIoCompletion);
    EXPECT_EQ(ran, 1);
    EXPECT_EQ(Helpers::WaitOnce(&event, Helpers::Infinite, true), Helpers::WaitObject0);
    EXPECT_EQ(Helpers::WaitOnce(&event, 0, false), Helpers::WaitObject0);
}

TEST(Waits, PlainWaitIsTrueOnTimeoutAndNeverRunsQueuedFunctions) {
    AlertableEvent event;
    bool ran = false;
    ASSERT_TRUE(QueueTo(*ThreadContext::Current(), [&] { ran = true; }));
    EXPECT_TRUE(Helpers::WaitForSingleObject(event, 20, false, false));
    EXPECT_FALSE(ran);
    // The alertable form lets it run, then times out since nobody sets the event.
    EXPECT_FALSE(Helpers::WaitForSingleObject(event, 20, true, false));
    EXPECT_TRUE(ran);
}

TEST(Waits, AnEventSetElsewhereWakesEveryWaiter) {
    AlertableEvent event;
    std::atomic<int> woken{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 4; ++i)
        waiters.emplace_back([&, i] {
            // Half plain, half alertable: both kinds must see the event.
            if (i % 2 == 0 ? Helpers::WaitForSingleObject(event, Patience, true, false)
                           : Helpers::WaitOnce(&event, Patience, false) == Helpers::WaitObject0)
                ++woken;
        });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    event.Set();
    for (std::thread& t : waiters) t.join();
    EXPECT_EQ(woken, 4);
}

TEST(Waits, QueuedFunctionsWaitAgainPlainlyOrAlertably) {
    ThreadContext& self = *ThreadContext::Current();
    AlertableEvent outer, inner, never;
    std::vector<std::string> order;
    ASSERT_TRUE(QueueTo(self, [&] {
        order.push_back("A begins");
        // A plain wait holds B back; B and C run inside the alertable one, and C ends it.
        Helpers::WaitForSingleObject(never, 20, false, false);
        order.push_back("A waited plainly");
        EXPECT_TRUE(Helpers::WaitForSingleObject(inner, Patience, true, false));
        order.push_back("A ends");
        outer.Set();
    }));
    ASSERT_TRUE(QueueTo(self, [&] { order.push_back("B"); }));
    ASSERT_TRUE(QueueTo(self, [&] {
        order.push_back("C");
        inner.Set();
    }));
    EXPECT_TRUE(Helpers::WaitForSingleObject(outer, Patience, true, false));
    EXPECT_EQ(order, (std::vector<std::string>{"A begins", "A waited plainly", "B", "C", "A ends"}));
}

TEST(Waits, AThreadThatEndsDropsWhatItNeverRan) {
    // Queued but never run: dropped (and freed) when the thread ends, never called.
    auto witness = std::make_shared<int>(0);
    std::shared_ptr<ThreadContext> context;
    AlertableEvent ready, leave;
    std::thread t([&] {
        context = ThreadContext::Current();
        ready.Set();
        Helpers::WaitForSingleObject(leave, Patience, false, false);
    });
    ASSERT_TRUE(Helpers::WaitForSingleObject(ready, Patience, true, false));
    ASSERT_TRUE(QueueTo(*context, [witness] { *witness = 1; }));
    leave.Set();
    t.join();
    EXPECT_TRUE(context->WaitEnded(0));
    EXPECT_EQ(*witness, 0);
    EXPECT_EQ(witness.use_count(), 1);
}

TEST(Waits, ThreadNamesAreCutToFifteenBytesOnACharacterBoundary) {
    AlertableEvent named, leave;
    std::shared_ptr<ThreadContext> context;
    char seen[2][32] = {};
    std::thread t([&] {
        context = ThreadContext::Current();
        context->SetName("Tile Response Worker");
        pthread_getname_np(pthread_self(), seen[0], sizeof seen[0]);
        context->SetName("Kartenkacheldienstü"); // the ü would straddle byte 15
        pthread_getname_np(pthread_self(), seen[1], sizeof seen[1]);
        named.Set();
        Helpers::WaitForSingleObject(leave, Patience, false, false);
    });
    ASSERT_TRUE(Helpers::WaitForSingleObject(named, Patience, true, false));
    leave.Set();
    t.join();
    EXPECT_STREQ(seen[0], "Tile Response W");
    EXPECT_STREQ(seen[1], "Kartenkacheldie");
    context->SetName("after the end"); // must not touch a thread that is gone
}

TEST(Waits, WakeUpsHeldInABatchComeWhenItEndsOrItsThreadWaits) {
    std::shared_ptr<ThreadContext> sleeper;
    AlertableEvent ready, leave;
    std::thread t([&] {
        sleeper = ThreadContext::Current();
        ready.Set();
        // No timeout: only a wake-up lets the queued functions run.
        Helpers::WaitForSingleObject(leave, Helpers::Infinite, true, false);
    });
    ASSERT_TRUE(Helpers::WaitForSingleObject(ready, Patience, true, false));
    std::this_thread::sleep_for(std::chrono::milliseconds(20)); // let it fall asleep

    // Held until the batch ends: this thread does not wait meanwhile, it polls.
    std::atomic<int> ran{0};
    {
        Platform::Threading::impl::WakeBatch wakes;
        for (int i = 0; i < 3; ++i) ASSERT_TRUE(QueueTo(*sleeper, [&] { ++ran; }));
        Platform::Threading::impl::WakeBatch nested;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(Patience);
    while (ran < 3 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_EQ(ran, 3);

    // A thread that waits inside a batch gives what it held first, or it would wait for ever on
    // an answer that is never woken; an event set inside a batch is held the same way.
    AlertableEvent answered;
    {
        Platform::Threading::impl::WakeBatch wakes;
        ASSERT_TRUE(QueueTo(*sleeper, [&] { answered.Set(); }));
        EXPECT_TRUE(Helpers::WaitForSingleObject(answered, Patience, false, false));
        EXPECT_TRUE(answered.IsSet());
        leave.Set();
    }
    t.join();
}
