// Round trips of posted functions: the caller posts to a worker, the worker posts back to the
// caller's dispatcher, and the caller runs that function in an alertable wait. Beside it the
// same traffic over a plain queue of std::mutex + std::condition_variable. Rates are functions
// per second (two per round trip).
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

#include <benchmark/benchmark.h>

#include "Platform/Threading/AlertableEvent.h"
#include "Platform/Threading/ThreadDispatcher.h"
#include "Platform/Threading/ThreadHelpers.h"
#include "Platform/Threading/ThreadWorker.h"

namespace {

using Platform::Threading::AlertableEvent;
using Platform::Threading::impl::ThreadDispatcher;
using Platform::Threading::impl::ThreadWorker;
namespace Helpers = Platform::Windows::Threading::ThreadHelpers;

// A plain blocking queue of functions: the baseline.
class PlainQueue {
public:
    void Push(std::function<void()> function) {
        {
            std::lock_guard lock(m_Mutex);
            m_Items.push_back(std::move(function));
        }
        m_Ready.notify_one();
    }
    std::function<void()> Pop() {
        std::unique_lock lock(m_Mutex);
        m_Ready.wait(lock, [this] { return !m_Items.empty(); });
        std::function<void()> function = std::move(m_Items.front());
        m_Items.pop_front();
        return function;
    }

private:
    std::mutex m_Mutex;
    std::condition_variable m_Ready;
    std::deque<std::function<void()>> m_Items;
};

// A thread that runs what its queue gets until it runs a stop.
class PlainWorker {
public:
    PlainWorker()
        : m_Thread([this] {
              while (!m_Stop) m_Queue.Pop()();
          }) {}
    ~PlainWorker() {
        m_Queue.Push([this] { m_Stop = true; });
        m_Thread.join();
    }
    void Post(std::function<void()> function) { m_Queue.Push(std::move(function)); }

private:
    PlainQueue m_Queue;
    bool m_Stop = false;
    std::thread m_Thread;
};

void RoundTrip_ThreadWorker(benchmark::State& state) {
    const int64_t batch = state.range(0);
    auto dispatcher = Core::MakeObject<ThreadDispatcher>();
    auto worker = Core::MakeObject<ThreadWorker>("Bench Worker", true, Helpers::Infinite);
    for (auto _ : state) {
        AlertableEvent done;
        int64_t back = 0;
        for (int64_t i = 0; i < batch; ++i)
            worker->Post([&] {
                dispatcher->Post([&] {
                    if (++back == batch) done.Set();
                });
            });
        Helpers::WaitForSingleObject(done, Helpers::Infinite, true, false);
    }
    state.SetItemsProcessed(state.iterations() * batch * 2);
}

void RoundTrip_MutexCondvar(benchmark::State& state) {
    const int64_t batch = state.range(0);
    PlainQueue home;
    PlainWorker worker;
    for (auto _ : state) {
        int64_t back = 0;
        for (int64_t i = 0; i < batch; ++i)
            worker.Post([&] { home.Push([&] { ++back; }); });
        while (back < batch) home.Pop()();
    }
    state.SetItemsProcessed(state.iterations() * batch * 2);
}

} // namespace

// One function in flight at a time (latency), and a thousand at once (throughput).
BENCHMARK(RoundTrip_ThreadWorker)->Arg(1)->Arg(1000)->UseRealTime();
BENCHMARK(RoundTrip_MutexCondvar)->Arg(1)->Arg(1000)->UseRealTime();

BENCHMARK_MAIN();
