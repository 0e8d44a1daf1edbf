#include <atomic>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "Core/AbiGuard.h"
#include "Core/ObjectImplBase.h"
#include "Data/Values.h"
#include "MessageOf.h"
#include "Platform/Threading/AsyncTask.h"
#include "RecordingLogger.h"
#include "Threading/AsyncData.h"
#include "ThreadingTestSupport.h"

using namespace Platform::Interfaces;
using Platform::Threading::AsyncTask;
using Platform::Threading::AsyncTaskWithResultBase;
using Platform::Threading::impl::AsyncData;
using Platform::Threading::impl::details::Impl_ThreadworkCallback;
using TestSupport::MessageOf;

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
    void Add(const char* what, IAsyncTask* task) { calls += what + ("(" + std::to_string(task->GetState()) + ") "); }
    std::string calls;
};

// How many references `object` has besides the caller's own.
template <class T>
uint32_t OtherReferences(T* object) {
    object->AddReference();
    return object->Release() - 1;
}

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

const std::string NoResult = "Result is nullptr! Did you set the result? Cancelled tasks do not have any result!";

} // namespace

TEST(Tasks, ARunEndsCompletedAndLetsGoOfEverything) {
    auto witness = std::make_shared<int>(0);
    Fixture f([witness] { return Data::Variant(int32_t{42}); });
    f.task->MarkQueued();
    EXPECT_EQ(f.task->GetState(), AsyncTaskQueued);
    f.Run();
    EXPECT_EQ(f.task->GetState(), AsyncTaskCompleted);
    EXPECT_EQ(f.callback->calls, "completed(5) ");
    EXPECT_EQ(AsyncTask(f.task).GetResultVariant().ToInt32(), 42);
    // Pending count down, thread reference, body and callback gone, event set.
    EXPECT_EQ(f.thread->m_PendingTasks, 0);
    EXPECT_EQ(f.task->m_Thread.Raw(), nullptr);
    EXPECT_EQ(witness.use_count(), 1);
    EXPECT_EQ(OtherReferences(f.callback.Raw()), 0u);
    EXPECT_TRUE(f.task->Wait(0));
    // A queued mark that comes late never overwrites the end state.
    f.task->MarkQueued();
    EXPECT_EQ(f.task->GetState(), AsyncTaskCompleted);

    // A result the body stored on its own task stays; the body's value does not replace it.
    AsyncData<FakeThread>* self = nullptr;
    Fixture storing([&] {
        const Data::Variant own(int32_t{5});
        self->SetResult(&own.Raw());
        return Data::Variant(int32_t{6});
    });
    self = storing.task.Raw();
    storing.Run();
    EXPECT_EQ(AsyncTask(storing.task).GetResultVariant().ToInt32(), 5);
}

TEST(Tasks, FailuresOfTheBodyEndInStateSixWithTheirText) {
    TestSupport::ScopedRecordingLogger logger;
    const std::string unknown =
        "Unknown Exception in Async Task: (Tid: " +
        std::to_string(Platform::Windows::Threading::ThreadHelpers::GetCurrentThreadId()) + ")";
    const struct {
        std::function<Data::Variant()> body;
        std::string message;
    } cases[] = {
        {[]() -> Data::Variant { throw std::runtime_error("tile server said no"); }, "tile server said no"},
        {[]() -> Data::Variant { throw 7; }, unknown},
        {nullptr, std::bad_function_call().what()},
    };
    for (const auto& c : cases) {
        Fixture f(c.body);
        f.Run();
        EXPECT_EQ(f.task->GetState(), AsyncTaskFailed) << c.message;
        EXPECT_TRUE(f.task->IsCompleted()) << c.message;
        EXPECT_EQ(f.task->GetErrorMessage(), c.message);
        EXPECT_EQ(f.callback->calls, "failed(6) ") << c.message;
        EXPECT_EQ(f.thread->m_PendingTasks, 0) << c.message;
    }
    const auto lines = logger->Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].text, "ERROR: " + unknown + " [Platform::Threading::impl::details::Impl_ThreadworkCallback]");
}

TEST(Tasks, CancelSkipsAWaitingBodyAndDropsAFinishedResult) {
    bool called = false;
    Fixture waiting([&] {
        called = true;
        return Data::Variant(int32_t{1});
    });
    waiting.task->Cancel();
    EXPECT_EQ(waiting.task->GetState(), AsyncTaskCancelRequested);
    EXPECT_TRUE(waiting.task->Wait(0));
    EXPECT_EQ(waiting.callback->calls, ""); // Cancel tells nobody
    waiting.Run();
    EXPECT_FALSE(called);
    EXPECT_EQ(waiting.task->GetState(), AsyncTaskCancelled);
    EXPECT_EQ(waiting.callback->calls, "cancelled(4) ");

    Fixture finished([] { return Data::Variant::FromObject(Data::Array::Create(4)); });
    finished.Run();
    ASSERT_FALSE(AsyncTask(finished.task).GetResultVariant().IsEmpty());
    finished.task->Cancel();
    EXPECT_FALSE(finished.task->IsCompleted());
    EXPECT_TRUE(finished.task->IsCancelled());
    EXPECT_TRUE(AsyncTask(finished.task).GetResultVariant().IsEmpty());
}

TEST(Tasks, AStatusCallbackSetOnAFinishedTaskHearsAtOnce) {
    Fixture f([] { return Data::Variant(); });
    f.Run();
    auto late = Core::MakeObject<RecordingCallback>();
    f.task->SetStatusCallback(late.Raw());
    EXPECT_EQ(late->calls, "completed(5) ");
    f.task->SetStatusCallback(nullptr);
    EXPECT_EQ(OtherReferences(late.Raw()), 0u);
}

TEST(Tasks, TypedResultsFollowTheirRulesInOrder) {
    const auto array = Data::Array::Create(3);
    const struct {
        Data::Variant result;
        std::string error; // empty: the array comes back
    } cases[] = {
        {Data::Variant::FromObject(Core::MakeErrorCode(0, "Thread event loop ended.")), "Thread event loop ended."},
        {Data::Variant(int32_t{3}),
         "Task result must be of reference type (derived from Core::IObject)! Current type is: struct "
         "Data::Interfaces::IArray"},
        {Data::Variant::Owned(nullptr, Data::Structures::TagArray), NoResult},
        {Data::Variant(), NoResult}, // never set, or cancelled: "no result" before the reference rule
        {Data::Variant::FromObject(Data::String::Create("x")),
         "Cannot cast to desired result type: IObject -> struct Data::Interfaces::IArray"},
        {Data::Variant::FromObject(array), ""},
    };
    for (const auto& c : cases) {
        auto task = Core::MakeObject<AsyncData<FakeThread>>(nullptr, nullptr);
        task->SetResult(&c.result.Raw());
        AsyncTaskWithResultBase<Data::Array> typed(task);
        if (c.error.empty()) EXPECT_EQ(typed.GetResult().Raw(), array.Raw());
        else EXPECT_EQ(MessageOf([&] { typed.GetResult(); }), c.error);
    }
    // A null error object passes every rule and gives an empty handle.
    auto task = Core::MakeObject<AsyncData<FakeThread>>(nullptr, nullptr);
    const auto nullError = Data::Variant::Owned(nullptr, Data::Structures::TagErrorCode);
    task->SetResult(&nullError.Raw());
    EXPECT_EQ(AsyncTaskWithResultBase<Data::Array>(task).GetResult().Raw(), nullptr);
}

TEST(Tasks, ResultsAreCopiedWithTheirOwnReference) {
    auto task = Core::MakeObject<AsyncData<FakeThread>>(nullptr, nullptr);
    EXPECT_EQ(MessageOf([&] { task->GetResult(nullptr); }), "Cannot be nullptr!");
    auto array = Data::Array::Create(1);
    const auto value = Data::Variant::FromObject(array);
    task->SetResult(&value.Raw());
    EXPECT_EQ(AsyncTask(task).GetResultVariant().ToArray().Raw(), array.Raw());
    task->SetResult(nullptr);
    EXPECT_TRUE(AsyncTask(task).GetResultVariant().IsEmpty());
    EXPECT_EQ(OtherReferences(array.Raw()), 1u); // only `value` holds it besides `array`
}

TEST(Tasks, WaitAlertableRunsQueuedFunctions) {
    auto task = Core::MakeObject<AsyncData<FakeThread>>(nullptr, nullptr);
    // The queued function ends the wait by finishing the task.
    ASSERT_TRUE(ThreadingTests::QueueTo(*Platform::Threading::impl::ThreadContext::Current(), [&] { task->Signal(); }));
    EXPECT_TRUE(task->WaitAlertable());
}
