#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "Core/AbiGuard.h"
#include "Core/ObjectImplBase.h"
#include "Data/Values.h"
#include "Platform/Threading/AsyncTask.h"
#include "RecordingLogger.h"
#include "Threading/AsyncData.h"
#include "ThreadingTestSupport.h"

using namespace Platform::Interfaces;
using Platform::Threading::AsyncTask;
using Platform::Threading::AsyncTaskWithResultBase;
using Platform::Threading::impl::AsyncData;
using Platform::Threading::impl::AsyncTaskImpl;
using Platform::Threading::impl::details::Impl_ThreadworkCallback;

namespace {

// Stands in for a thread: the task only needs its pending count.
struct FakeThread : Core::ObjectImplBase<Core::IObject> {
    std::atomic<int32_t> m_PendingTasks{1};
};

struct RecordingCallback : Core::ObjectImplBase<IAsyncTaskStatusCallback> {
    void OnFailed(IAsyncTask* task) override { Add("failed", task); }
    void OnProgress(IAsyncTask* task) override { Add("progress", task); }
    void OnCompleted(IAsyncTask* task) override { Add("completed", task); }
    void OnCancelled(IAsyncTask* task) override { Add("cancelled", task); }
    void Add(const char* what, IAsyncTask* task) {
        calls += what;
        calls += "(" + std::to_string(task->GetState()) + ") ";
    }
    std::string calls;
};

struct Fixture {
    explicit Fixture(std::function<Data::Variant()> body)
        : thread(Core::MakeObject<FakeThread>()),
          task(Core::Ptr<AsyncData<FakeThread>>::Attach(new AsyncData<FakeThread>(std::move(body), thread))),
          callback(Core::MakeObject<RecordingCallback>()) {
        task->SetStatusCallback(callback.Raw());
    }
    void Run() { Impl_ThreadworkCallback(*task); }

    Core::Ptr<FakeThread> thread;
    Core::Ptr<AsyncData<FakeThread>> task;
    Core::Ptr<RecordingCallback> callback;
};

} // namespace

TEST(Tasks, ARunEndsCompletedAndLetsGoOfEverything) {
    auto witness = std::make_shared<int>(0);
    Fixture f([witness] { return Data::Variant(int32_t{42}); });
    EXPECT_EQ(f.task->GetState(), AsyncTaskCreated);
    f.task->MarkQueued();
    EXPECT_EQ(f.task->GetState(), AsyncTaskQueued);
    EXPECT_EQ(f.callback->calls, "");
    f.Run();

    EXPECT_EQ(f.task->GetState(), AsyncTaskCompleted);
    EXPECT_TRUE(f.task->IsCompleted());
    EXPECT_FALSE(f.task->IsFailed());
    EXPECT_EQ(f.callback->calls, "completed(5) ");
    EXPECT_EQ(AsyncTask(f.task).GetResultVariant().ToInt32(), 42);
    EXPECT_STREQ(f.task->GetErrorMessage(), "");
    // Pending count down, thread reference, body and callback gone, event set.
    EXPECT_EQ(f.thread->m_PendingTasks, 0);
    EXPECT_EQ(f.task->m_Thread.Raw(), nullptr);
    EXPECT_EQ(witness.use_count(), 1);
    f.callback->AddReference();
    EXPECT_EQ(f.callback->Release(), 1u); // only the fixture holds it
    EXPECT_TRUE(f.task->Wait(0));
    // A queued mark that comes late never overwrites the end state.
    f.task->MarkQueued();
    EXPECT_EQ(f.task->GetState(), AsyncTaskCompleted);
}

TEST(Tasks, FailuresOfTheBodyEndInStateSixWithTheirText) {
    TestSupport::ScopedRecordingLogger logger;
    struct Case {
        std::function<Data::Variant()> body;
        std::string message;
    };
    const std::string unknown =
        "Unknown Exception in Async Task: (Tid: " +
        std::to_string(Platform::Windows::Threading::ThreadHelpers::GetCurrentThreadId()) + ")";
    const Case cases[] = {
        {[]() -> Data::Variant { throw std::runtime_error("tile server said no"); }, "tile server said no"},
        {[]() -> Data::Variant { throw 7; }, unknown},
        {nullptr, std::bad_function_call().what()},
    };
    for (const Case& c : cases) {
        Fixture f(c.body);
        f.Run();
        EXPECT_EQ(f.task->GetState(), AsyncTaskFailed);
        EXPECT_TRUE(f.task->IsFailed());
        EXPECT_TRUE(f.task->IsCompleted());
        EXPECT_EQ(f.task->GetErrorMessage(), c.message);
        EXPECT_EQ(f.callback->calls, "failed(6) ");
        EXPECT_EQ(f.thread->m_PendingTasks, 0);
    }
    const auto lines = logger->Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].text, "ERROR: " + unknown + " [Platform::Threading::impl::details::Impl_ThreadworkCallback]");
}

TEST(Tasks, CancelBeforeTheRunSkipsTheBodyAndLeavesNoResult) {
    bool called = false;
    Fixture f([&] {
        called = true;
        return Data::Variant(int32_t{1});
    });
    f.task->Cancel();
    EXPECT_EQ(f.task->GetState(), AsyncTaskCancelRequested);
    EXPECT_TRUE(f.task->IsCancelled());
    EXPECT_TRUE(f.task->Wait(0));
    EXPECT_EQ(f.callback->calls, ""); // Cancel tells nobody
    f.Run();
    EXPECT_FALSE(called);
    EXPECT_EQ(f.task->GetState(), AsyncTaskCancelled);
    EXPECT_EQ(f.callback->calls, "cancelled(4) ");
    AsyncTaskWithResultBase<Data::Array> typed(f.task);
    try {
        typed.GetResult();
        FAIL() << "a cancelled task has no result";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Result is nullptr! Did you set the result? Cancelled tasks do not have any result!");
    }
}

TEST(Tasks, CancelAfterTheEndTurnsACompletedTaskIntoACancelledOne) {
    Fixture f([] { return Data::Variant::FromObject(Data::Array::Create(4)); });
    f.Run();
    ASSERT_TRUE(f.task->IsCompleted());
    f.task->Cancel();
    EXPECT_FALSE(f.task->IsCompleted());
    EXPECT_TRUE(f.task->IsCancelled());
    EXPECT_TRUE(AsyncTask(f.task).GetResultVariant().IsEmpty());
}

TEST(Tasks, AResultTheBodyStoredOnItsOwnTaskStays) {
    AsyncData<FakeThread>* self = nullptr;
    Fixture f([&] {
        const Data::Variant own(int32_t{5});
        self->SetResult(&own.Raw());
        return Data::Variant(int32_t{6});
    });
    self = f.task.Raw();
    f.Run();
    EXPECT_EQ(AsyncTask(f.task).GetResultVariant().ToInt32(), 5);
}

TEST(Tasks, AStatusCallbackSetOnAFinishedTaskHearsAtOnce) {
    Fixture f([] { return Data::Variant(); });
    f.Run();
    auto late = Core::MakeObject<RecordingCallback>();
    f.task->SetStatusCallback(late.Raw());
    EXPECT_EQ(late->calls, "completed(5) ");
    f.task->SetStatusCallback(nullptr);
    late->AddReference();
    EXPECT_EQ(late->Release(), 1u);
}

TEST(Tasks, TypedResultsFollowTheirRulesInOrder) {
    const auto array = Data::Array::Create(3);
    const auto text = Data::String::Create("x");
    struct Case {
        Data::Variant result;
        std::string error; // empty: the array comes back
    };
    const Case cases[] = {
        {Data::Variant::FromObject(Core::MakeErrorCode(0, "Thread event loop ended.")), "Thread event loop ended."},
        {Data::Variant(int32_t{3}),
         "Task result must be of reference type (derived from Core::IObject)! Current type is: struct "
         "Data::Interfaces::IArray"},
        {Data::Variant::Owned(nullptr, Data::Structures::TagArray),
         "Result is nullptr! Did you set the result? Cancelled tasks do not have any result!"},
        {Data::Variant::FromObject(text), "Cannot cast to desired result type: IObject -> struct Data::Interfaces::IArray"},
        {Data::Variant::FromObject(array), ""},
    };
    for (const Case& c : cases) {
        auto task = Core::MakeObject<AsyncData<FakeThread>>(nullptr, nullptr);
        task->SetResult(&c.result.Raw());
        AsyncTaskWithResultBase<Data::Array> typed(task);
        if (c.error.empty()) {
            EXPECT_EQ(typed.GetResult().Raw(), array.Raw());
            continue;
        }
        try {
            typed.GetResult();
            ADD_FAILURE() << "expected: " << c.error;
        } catch (const std::runtime_error& e) {
            EXPECT_EQ(std::string(e.what()), c.error);
        }
    }
    // A null error object passes every rule and gives an empty handle.
    auto task = Core::MakeObject<AsyncData<FakeThread>>(nullptr, nullptr);
    const auto nullError = Data::Variant::Owned(nullptr, Data::Structures::TagErrorCode);
    task->SetResult(&nullError.Raw());
    EXPECT_EQ(AsyncTaskWithResultBase<Data::Array>(task).GetResult().Raw(), nullptr);
}

TEST(Tasks, ResultsAreCopiedWithTheirOwnReference) {
    auto task = Core::MakeObject<AsyncData<FakeThread>>(nullptr, nullptr);
    EXPECT_THROW(
        {
            try {
                task->GetResult(nullptr);
            } catch (const std::runtime_error& e) {
                EXPECT_STREQ(e.what(), "Cannot be nullptr!");
                throw;
            }
        },
        std::runtime_error);
    auto array = Data::Array::Create(1);
    const auto value = Data::Variant::FromObject(array);
    task->SetResult(&value.Raw());
    {
        const Data::Variant copy = AsyncTask(task).GetResultVariant();
        EXPECT_EQ(copy.GetType(), 0x10012u);
        EXPECT_EQ(copy.ToArray().Raw(), array.Raw());
    }
    task->SetResult(nullptr);
    EXPECT_TRUE(AsyncTask(task).GetResultVariant().IsEmpty());
    array->AddReference();
    EXPECT_EQ(array->Release(), 2u); // only `value` and `array` hold it now
}

TEST(Tasks, AWaitWithTimeoutZeroRunsNoQueuedFunction) {
    auto task = Core::MakeObject<AsyncData<FakeThread>>(nullptr, nullptr);
    bool ran = false;
    ASSERT_TRUE(ThreadingTests::QueueTo(*Platform::Threading::impl::ThreadContext::Current(), [&] { ran = true; }));
    EXPECT_TRUE(task->Wait(0));
    EXPECT_TRUE(task->Wait(10));
    EXPECT_FALSE(ran);
    // The alertable wait runs it; the function ends the wait by finishing the task.
    ASSERT_TRUE(ThreadingTests::QueueTo(*Platform::Threading::impl::ThreadContext::Current(), [&] { task->Signal(); }));
    EXPECT_TRUE(task->WaitAlertable());
    EXPECT_TRUE(ran);
}
