#include <atomic>
#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Core/AbiGuard.h"
#include "Data/Values.h"
#include "MessageOf.h"
#include "Platform/Threading/ThreadDispatcher.h"
#include "Platform/Threading/ThreadHelpers.h"
#include "Platform/Threading/ThreadWorker.h"
#include "Platform/Threading/ThreadWorkerManager.h"
#include "RecordingLogger.h"
#include "ThreadingTestSupport.h"

using namespace ThreadingTests;
using namespace Platform::Interfaces;
using Platform::Threading::AlertableEvent;
using Platform::Threading::AsyncTask;
using Platform::Threading::AsyncTaskWithResultBase;
using Platform::Threading::ThreadWorkerManager;
using Platform::Threading::impl::ThreadContext;
using Platform::Threading::impl::ThreadDispatcher;
using Platform::Threading::impl::ThreadWorker;
using TestSupport::MessageOf;
namespace Helpers = Platform::Windows::Threading::ThreadHelpers;

namespace {

Core::Ptr<ThreadWorker> MakeWorker(const std::string& name) {
    return Core::MakeObject<ThreadWorker>(name, true, Helpers::Infinite);
}

// Waits for a task without hanging: the plain wait gives up after the patience.
bool Finished(const AsyncTask& task) {
    task->Wait(Patience);
    return task->IsCompleted() || task->IsCancelled();
}

// Keeps a worker busy until the gate opens.
AsyncTask Block(ThreadWorker& worker, AlertableEvent& gate) {
    return worker.Post([&gate] { Helpers::WaitForSingleObject(gate, Patience, false, false); });
}

// The text a boundary call left in `error` ("<accepted>" when it succeeded); clears `error`.
std::string Refusal(bool accepted, Core::Ptr<Core::IErrorCode>& error) {
    std::string text = accepted ? "<accepted>" : error.Raw() ? std::string(Core::ErrorView(error).View()) : "<no error>";
    error = nullptr;
    return text;
}

bool HasLine(TestSupport::ScopedRecordingLogger& logger, const std::string& line) {
    for (const auto& l : logger->Lines())
        if (l.text == line) return true;
    return false;
}

std::atomic<int32_t> g_received{0};

void StoreParam(const Data::Structures::VARIANT* param, Core::IErrorCode**) {
    g_received = Data::Variant::CopyFrom(*param).ToInt32();
}

void LeaveError(const Data::Structures::VARIANT*, Core::IErrorCode** ppError) {
    *ppError = Core::MakeErrorCode(2, "posted function failed").Detach();
}

// Once touched on a thread, makes that thread's end take a few milliseconds longer: it is torn
// down before the thread's queue, so it widens the gap between a worker's loop ending and its
// queue closing, where a post that raced Stop is queued but never run.
struct SlowThreadEnd {
    ~SlowThreadEnd() { std::this_thread::sleep_for(std::chrono::milliseconds(3)); }
};
thread_local SlowThreadEnd t_slowThreadEnd;

void DoNothingPosted(const Data::Structures::VARIANT*, Core::IErrorCode**) {}

// Posts to `worker` until a post finds its loop ended, through Post or through the boundary.
std::vector<AsyncTask> PostUntilRefused(ThreadWorker& worker, bool boundary) {
    std::vector<AsyncTask> tasks;
    for (;;) {
        AsyncTask task;
        if (boundary) {
            Core::Ptr<IAsyncTask> raw;
            Core::Ptr<Core::IErrorCode> error;
            worker._abi_Post(&DoNothingPosted, nullptr, raw.ReceiveAddress(), error.ReceiveAddress());
            task = AsyncTask(std::move(raw));
        } else {
            task = worker.Post([] {});
        }
        // A null task: the thread had ended, the post failed as QueueUserAPC fails.
        if (!task.Raw()) return tasks;
        const bool refused = task->GetState() == AsyncTaskCompleted && !task.GetResultVariant().IsEmpty();
        tasks.push_back(std::move(task));
        if (refused) return tasks;
    }
}

} // namespace

TEST(Worker, RunsPostedFunctionsOnItsThreadInPostingOrder) {
    TestSupport::ScopedRecordingLogger logger;
    auto worker = MakeWorker("Order Worker");
    EXPECT_TRUE(HasLine(logger, "INFO: ThreadWorker [Order Worker] created with dedicated thread. "
                                "[Platform::Threading::impl::ThreadWorker::ThreadWorker]"));
    // A failing body leaves the loop running.
    AsyncTask failing = worker->Post([] { throw std::runtime_error("bad tile"); });
    std::vector<int> order, expected;
    std::atomic<bool> onWorker{true};
    AsyncTask last;
    for (int i = 0; i < 500; ++i) {
        expected.push_back(i);
        last = worker->Post([&, i] {
            if (Helpers::GetCurrentThreadId() != worker->GetThreadId()) onWorker = false;
            order.push_back(i);
        });
    }
    ASSERT_TRUE(Finished(last));
    EXPECT_EQ(failing->GetState(), AsyncTaskFailed);
    EXPECT_STREQ(failing->GetErrorMessage(), "bad tile");
    EXPECT_EQ(last->GetState(), AsyncTaskCompleted);
    EXPECT_EQ(order, expected);
    EXPECT_TRUE(onWorker);
    EXPECT_TRUE(worker->IsIdle());
    EXPECT_NE(worker->GetThreadId(), Helpers::GetCurrentThreadId());
    EXPECT_TRUE(HasLine(logger, "INFO: Starting event loop on [Order Worker](Tid: " +
                                    std::to_string(worker->GetThreadId()) +
                                    ") [Platform::Threading::impl::ThreadWorker::WorkThreadFunction]"));
}

TEST(Worker, ATaskCancelledBeforeItsTurnNeverRuns) {
    auto worker = MakeWorker("Cancel");
    AlertableEvent gate;
    Block(*worker, gate);
    bool called = false;
    AsyncTask cancelled = worker->Post([&] { called = true; });
    EXPECT_EQ(cancelled->GetState(), AsyncTaskQueued);
    EXPECT_FALSE(worker->IsIdle());
    cancelled->Cancel();
    EXPECT_TRUE(cancelled->Wait(0)); // set at once by Cancel
    AsyncTask after = worker->Post([] {});
    gate.Set();
    ASSERT_TRUE(Finished(after));
    EXPECT_FALSE(called);
    EXPECT_EQ(cancelled->GetState(), AsyncTaskCancelled);
    EXPECT_EQ(MessageOf([&] { AsyncTaskWithResultBase<Data::Array>(cancelled).GetResult(); }),
              "Result is nullptr! Did you set the result? Cancelled tasks do not have any result!");
}

TEST(Worker, AfterStopAPostCompletesAtOnceWithTheError) {
    auto worker = MakeWorker("Stopping");
    ASSERT_TRUE(Finished(worker->Stop()));
    bool called = false;
    AsyncTask late = worker->Post([&] { called = true; });
    ASSERT_TRUE(late.Raw());
    EXPECT_EQ(late->GetState(), AsyncTaskCompleted);
    EXPECT_TRUE(late->Wait(0));
    EXPECT_EQ(MessageOf([&] { AsyncTaskWithResultBase<Data::Array>(late).GetResult(); }),
              "Thread event loop ended. New tasks cannot be queued anymore.");
    EXPECT_FALSE(called);
    // The loop ends after the stop; the thread with it, so nobody can start it again.
    for (int i = 0; i < 1000 && worker->IsRunning(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_FALSE(worker->IsRunning());
    Core::Ptr<Core::IErrorCode> error;
    EXPECT_EQ(Refusal(worker->_abi_Start(error.ReceiveAddress()), error),
              "ThreadWorker [Stopping] cannot start from different thread!");
}

// A post that loses the race with Stop, queued after the loop's last look at its queue and
// before the thread ends, ends as cancelled: every waiter wakes, whatever the interleaving.
TEST(Worker, PostsRacingStopAllEnd) {
    TestSupport::ScopedRecordingLogger logger; // keeps the failed posts' lines out of the output
    int lostRaces = 0;
    for (int round = 0; round < 200; ++round) {
        auto worker = MakeWorker("Racing Stop");
        ASSERT_TRUE(Finished(worker->Post([] { (void)&t_slowThreadEnd; })));
        std::atomic<bool> go{false};
        std::vector<AsyncTask> posted[6];
        std::vector<std::thread> posters;
        for (int p = 0; p < 6; ++p)
            posters.emplace_back([&, p] {
                while (!go.load()) std::this_thread::yield();
                posted[p] = PostUntilRefused(*worker, p == 0);
            });
        go = true;
        AsyncTask stop = worker->Stop();
        for (auto& poster : posters) poster.join();
        ASSERT_TRUE(Finished(stop));
        for (auto& tasks : posted)
            for (auto& task : tasks) {
                ASSERT_TRUE(Finished(task)) << "round " << round << ", state " << task->GetState();
                if (task->GetState() == AsyncTaskCancelled) ++lostRaces;
            }
    }
    RecordProperty("LostRaces", lostRaces);
}
TEST(Worker, StartAndTimeoutBelongToTheWorkersOwnThread) {
    TestSupport::ScopedRecordingLogger logger;
    auto worker = MakeWorker("Owned");
    ASSERT_TRUE(Finished(worker->Post([] {}))); // the loop runs by now
    Core::Ptr<Core::IErrorCode> error;
    EXPECT_EQ(Refusal(worker->_abi_SetTimeout(Helpers::Infinite, error.ReceiveAddress()), error), // unchanged value too
              "Cannot change event loop timeout from different thread on ThreadWorker [Owned]!");
    EXPECT_EQ(Refusal(worker->_abi_Start(error.ReceiveAddress()), error), "ThreadWorker [Owned] is already running!");
    EXPECT_TRUE(HasLine(logger, "FATAL: ThreadWorker [Owned] is already running! "
                                "[Platform::Threading::impl::ThreadWorker::Start]"));

    std::string startInside, timeoutInside;
    AsyncTask task = worker->Post([&] {
        Core::Ptr<Core::IErrorCode> e;
        startInside = Refusal(worker->_abi_Start(e.ReceiveAddress()), e);
        // A short timeout: the loop now wakes on its own; posts must still run.
        timeoutInside = Refusal(worker->_abi_SetTimeout(5, e.ReceiveAddress()), e);
    });
    ASSERT_TRUE(Finished(task));
    EXPECT_EQ(startInside, "ThreadWorker [Owned] is already running!");
    EXPECT_EQ(timeoutInside, "<accepted>");
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_TRUE(Finished(worker->Post([] {})));
}

TEST(Worker, MustBeDetached) {
    TestSupport::ScopedRecordingLogger logger;
    EXPECT_EQ(MessageOf([] { Core::MakeObject<ThreadWorker>("Attached", false, Helpers::Infinite); }),
              "ShouldDetach must be true!");
    EXPECT_TRUE(HasLine(logger, "FATAL: ShouldDetach must be true! [Platform::Threading::impl::ThreadWorker::ThreadWorker]"));
}

TEST(Worker, DestroyedFromAnotherThreadStopsItsThread) {
    ScopedDebugJournal journal;
    std::shared_ptr<ThreadContext> context;
    {
        auto worker = MakeWorker("Short Lived");
        ASSERT_TRUE(Finished(worker->Post([&] { context = ThreadContext::Current(); })));
    }
    EXPECT_TRUE(context->WaitEnded(Patience));
    EXPECT_EQ(journal.Lines(),
              (std::vector<std::string>{"INFO: Destroying ThreadWorker [Short Lived].", "INFO: ThreadWorker [Short Lived] destroyed"}));
}

TEST(Worker, ReleasedLastFromItsOwnThreadNeitherHangsNorCrashes) {
    ScopedDebugJournal journal;
    std::shared_ptr<ThreadContext> context;
    {
        auto worker = MakeWorker("Self Owned");
        AlertableEvent gate;
        Block(*worker, gate);
        // The body keeps the worker alive; it goes with the body, on the worker's thread.
        AsyncTask task = worker->Post([&context, keep = worker] { context = ThreadContext::Current(); });
        worker = nullptr;
        gate.Set();
        ASSERT_TRUE(Finished(task));
    }
    // The thread ends only after the destructor, run on it, has written its lines.
    ASSERT_TRUE(context);
    EXPECT_TRUE(context->WaitEnded(Patience));
    EXPECT_EQ(journal.Lines(),
              (std::vector<std::string>{
                  "INFO: Destroying ThreadWorker [Self Owned].",
                  "ERROR: Thread worker [Self Owned] is being destoyed on its own thread. This usually means that "
                  "task posted to the worker references worker itself. To prevent program crashes thread resources "
                  "might be leaked on purpose.",
                  "INFO: ThreadWorker [Self Owned] destroyed"}));
}

TEST(Worker, GetWorkerMakesOneWorkerPerName) {
    // Workers live as long as the process: a fresh name for each run of the test.
    static int run = 0;
    const std::string name = "Shared " + std::to_string(++run);
    int made = 0;
    auto factory = [&] {
        ++made;
        return MakeWorker(name);
    };
    auto first = ThreadWorkerManager::GetWorker(name, factory);
    EXPECT_EQ(ThreadWorkerManager::GetWorker(name, factory).Raw(), first.Raw());
    EXPECT_EQ(ThreadWorkerManager::GetWorker(name).Raw(), first.Raw());
    EXPECT_EQ(made, 1);
    auto other = ThreadWorkerManager::GetWorker(name + " other");
    EXPECT_NE(other.Raw(), first.Raw());
    EXPECT_TRUE(Finished(other->Post([] {})));
}

TEST(Worker, BoundaryPostChecksItsArgumentsAndLogsAFunctionsError) {
    TestSupport::ScopedRecordingLogger logger;
    auto worker = MakeWorker("Boundary");
    Core::Ptr<Core::IErrorCode> error;
    Core::Ptr<IAsyncTask> task;
    EXPECT_EQ(Refusal(worker->_abi_Post(nullptr, nullptr, task.ReceiveAddress(), error.ReceiveAddress()), error),
              "Pointer of void (Data::Structures::_VARIANT const*, Core::IErrorCode**) must not be null!");
    Data::Structures::VARIANT garbage{};
    garbage.type = 0xCDCDCDCD;
    EXPECT_EQ(Refusal(worker->_abi_Post(&StoreParam, &garbage, task.ReceiveAddress(), error.ReceiveAddress()), error),
              "Variant type is undefined! Did you forget to zero out the VARIANT structure? It appears uninitialized!");

    const Data::Variant five(int32_t{5});
    ASSERT_TRUE(worker->_abi_Post(&StoreParam, &five.Raw(), task.ReceiveAddress(), error.ReceiveAddress()));
    ASSERT_TRUE(Finished(AsyncTask(task)));
    EXPECT_EQ(g_received, 5);
    task = nullptr;
    ASSERT_TRUE(worker->_abi_Post(&LeaveError, nullptr, task.ReceiveAddress(), error.ReceiveAddress()));
    ASSERT_TRUE(Finished(AsyncTask(task)));
    EXPECT_EQ(task->GetState(), AsyncTaskCompleted);
    EXPECT_TRUE(HasLine(logger, "ERROR: posted function failed [Platform::Threading::impl::ThreadWorker::_abi_Post::"
                                "<lambda_1>::()::<lambda_1>::operator ()]"));

    // The result address is checked after the post.
    EXPECT_EQ(Refusal(worker->_abi_Post(&StoreParam, &five.Raw(), nullptr, error.ReceiveAddress()), error),
              "Pointer to a pointer of struct Platform::Interfaces::IAsyncTask must not be null! "
              "Address of return must be specified!");
    EXPECT_EQ(Refusal(worker->_abi_Post(&StoreParam, &five.Raw(), reinterpret_cast<IAsyncTask**>(&task),
                                        error.ReceiveAddress()),
                      error),
              "Pointer of struct Platform::Interfaces::IAsyncTask must be null in order to avoid memory leaks!");
    EXPECT_EQ(Refusal(worker->_abi_Unsupported(error.ReceiveAddress()), error), "Function not implemented");
    // Let the posts whose tasks were not handed out finish before the worker goes.
    EXPECT_TRUE(Finished(worker->Post([] {})));
}

TEST(Dispatcher, RunsNothingUntilItsThreadWaitsAlertably) {
    auto dispatcher = Core::MakeObject<ThreadDispatcher>();
    auto worker = MakeWorker("Round Trip");
    std::atomic<uint32_t> ranOn{0};
    AlertableEvent back;
    AsyncTask callback;
    ASSERT_TRUE(Finished(worker->Post([&] {
        callback = dispatcher->Post([&] {
            ranOn = Helpers::GetCurrentThreadId();
            back.Set();
        });
    })));
    ASSERT_TRUE(callback.Raw());
    EXPECT_FALSE(dispatcher->IsIdle());
    // Plain waits run nothing, and a plain wait that times out still answers true.
    EXPECT_TRUE(callback->Wait(20));
    EXPECT_EQ(callback->GetState(), AsyncTaskQueued);
    EXPECT_EQ(ranOn, 0u);
    // The alertable wait does, on this thread.
    EXPECT_TRUE(Helpers::WaitForSingleObject(back, Patience, true, false));
    EXPECT_EQ(ranOn, Helpers::GetCurrentThreadId());
    EXPECT_TRUE(callback->Wait(0));
    EXPECT_EQ(callback->GetState(), AsyncTaskCompleted);
    EXPECT_TRUE(dispatcher->IsIdle());
}

TEST(Dispatcher, IsAHandleWithoutOwnership) {
    auto dispatcher = Core::MakeObject<ThreadDispatcher>();
    EXPECT_TRUE(dispatcher->IsRunning());
    Core::Ptr<Core::IErrorCode> error;
    Core::Ptr<IAsyncTask> task;
    const std::string consumed =
        "This thread was consumed. Thread start/stop functions work only on created and owned threads.";
    EXPECT_EQ(Refusal(dispatcher->_abi_Start(error.ReceiveAddress()), error), consumed);
    EXPECT_EQ(Refusal(dispatcher->_abi_Stop(task.ReceiveAddress(), error.ReceiveAddress()), error), consumed);
    EXPECT_EQ(Refusal(dispatcher->_abi_SetTimeout(10, error.ReceiveAddress()), error),
              "This thread was consumed. Thread timeout functions work only on created and owned threads.");
}

TEST(Dispatcher, APostToAThreadThatEndedFails) {
    TestSupport::ScopedRecordingLogger logger;
    Core::Ptr<ThreadDispatcher> dispatcher;
    std::thread([&] { dispatcher = Core::MakeObject<ThreadDispatcher>(); }).join();
    bool called = false;
    EXPECT_EQ(dispatcher->Post([&] { called = true; }).Raw(), nullptr);
    EXPECT_FALSE(called);
    EXPECT_TRUE(dispatcher->IsIdle());
    const auto lines = logger->Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].text, "ERROR: QueueUserAPC Error: 3, Thread: [ThreadDispatcher] (Posting from " +
                                 std::to_string(Helpers::GetCurrentThreadId()) +
                                 " to 0) [Platform::Threading::impl::details::PostInternal]");

    // Through the boundary the failed post hands out a null task and succeeds.
    Core::Ptr<IAsyncTask> raw;
    Core::Ptr<Core::IErrorCode> error;
    EXPECT_TRUE(dispatcher->_abi_Post(&StoreParam, nullptr, raw.ReceiveAddress(), error.ReceiveAddress()));
    EXPECT_EQ(raw.Raw(), nullptr);
}

TEST(Dispatcher, APostStillQueuedWhenItsThreadEndsIsCancelled) {
    Core::Ptr<ThreadDispatcher> dispatcher;
    AlertableEvent made, posted;
    std::thread thread([&] {
        dispatcher = Core::MakeObject<ThreadDispatcher>();
        made.Set();
        // Ends without another alertable wait: what was posted never gets its turn.
        Helpers::WaitForSingleObject(posted, Patience, false, false);
    });
    ASSERT_TRUE(Helpers::WaitForSingleObject(made, Patience, false, false));
    bool called = false;
    AsyncTask task = dispatcher->Post([&] { called = true; });
    ASSERT_TRUE(task.Raw());
    posted.Set();
    thread.join();
    EXPECT_TRUE(Finished(task));
    EXPECT_EQ(task->GetState(), AsyncTaskCancelled);
    EXPECT_FALSE(called);
    EXPECT_TRUE(dispatcher->IsIdle());
}
