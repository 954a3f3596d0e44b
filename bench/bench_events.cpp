// Cross-thread events: post throughput, synchronous send round trip and the
// memory a queued event costs, on a library task thread, an Asio io_context
// thread and a plain mutex + condition-variable queue.
#include <boost/asio.hpp>

#include <deque>
#include <functional>
#include <list>
#include <future>
#include <memory>
#include <thread>
#include <vector>

#include "bench_support.h"

namespace {

using bench::Signal;

constexpr int kBatch = 10000;  // events per timed iteration

// What an engine writes when the platform layer gives it nothing: one lock,
// one condition variable, and a consumer that takes the whole queue per wake-up.
class PlainQueue {
public:
    PlainQueue() : m_thread([this] { Run(); }) {}
    ~PlainQueue() {
        Post(nullptr);
        m_thread.join();
    }
    // An empty function stops the consumer.
    void Post(std::function<void()> aTask) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_tasks.push_back(std::move(aTask));
        m_cond.notify_one();
    }

private:
    void Run() {
        std::deque<std::function<void()>> batch;
        for (;;) {
            {
                std::unique_lock<std::mutex> lock(m_mutex);
                m_cond.wait(lock, [this] { return !m_tasks.empty(); });
                batch.swap(m_tasks);
            }
            for (auto& task : batch) {
                if (!task) return;
                task();
            }
            batch.clear();
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_cond;
    std::deque<std::function<void()>> m_tasks;
    std::thread m_thread;
};

// The plain queue shaped like the library's: every event a heap object in a
// std::list node, at most five taken per lock. It prices that shape alone.
class ShapedQueue {
public:
    ShapedQueue() : m_thread([this] { Run(); }) {}
    ~ShapedQueue() {
        PostEvent(nullptr);
        m_thread.join();
    }
    template <class F>
    void Post(F aFunc) {
        PostEvent(bench::MakeEvent(aFunc));
    }

private:
    // Takes the event over; a null one stops the consumer.
    void PostEvent(IEvent* aEvent) {
        std::list<IEvent*> node(1, aEvent);
        std::lock_guard<std::mutex> lock(m_mutex);
        const bool wasEmpty = m_events.empty();
        m_events.splice(m_events.end(), node);
        if (wasEmpty) m_cond.notify_one();
    }

    void Run() {
        std::list<IEvent*> batch;
        for (;;) {
            {
                std::unique_lock<std::mutex> lock(m_mutex);
                m_cond.wait(lock, [this] { return !m_events.empty(); });
                auto end = m_events.begin();
                for (int i = 0; i < 5 && end != m_events.end(); ++i) ++end;
                batch.splice(batch.end(), m_events, m_events.begin(), end);
            }
            for (IEvent* event : batch) {
                if (event == nullptr) return;
                event->OnEventFire();
                event->OnDestorySelf();
            }
            batch.clear();
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_cond;
    std::list<IEvent*> m_events;
    std::thread m_thread;
};

// An io_context with its own thread, kept alive by a work guard.
class AsioThread {
public:
    AsioThread() : m_guard(m_io.get_executor()), m_thread([this] { m_io.run(); }) {}
    ~AsioThread() {
        m_guard.reset();
        m_thread.join();
    }
    template <class F>
    void Post(F aFunc) {
        boost::asio::post(m_io, aFunc);
    }

private:
    boost::asio::io_context m_io;
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> m_guard;
    std::thread m_thread;
};

// The work every event does: count on the consumer thread.
struct Counter {
    long value = 0;
};

// Each implementation is driven through the same three calls.
struct LibTarget {
    bench::LibThread<ComTaskThread> thread;
    bool Start() { return ComThreadManger::GetInstance()->CreateTaskThread(thread.out()) == 0; }
    template <class F>
    bool Post(F aFunc) {
        return thread->PostEvent(bench::MakeEvent(aFunc)) == 0;
    }
    template <class F>
    bool Send(F aFunc) {
        return thread->SendEvent(bench::MakeEvent(aFunc)) == 0;
    }
};

// Every peer queue the same way; a synchronous send posts, then waits on a
// promise the event keeps.
template <class Queue>
struct PeerTarget {
    std::unique_ptr<Queue> queue;
    bool Start() {
        queue.reset(new Queue);
        return true;
    }
    template <class F>
    bool Post(F aFunc) {
        queue->Post(aFunc);
        return true;
    }
    template <class F>
    bool Send(F aFunc) {
        std::promise<void> done;
        queue->Post([&] {
            aFunc();
            done.set_value();
        });
        done.get_future().wait();
        return true;
    }
};

// Producers post kBatch counting events between them; the iteration ends when
// a marker posted after them all has run, so every event is in the time.
template <class Target>
void PostThroughput(benchmark::State& aState, int aProducers) {
    Target target;
    BENCH_REQUIRE(aState, target.Start());
    Counter counter;
    Counter* pCounter = &counter;
    Signal drained;
    const int perProducer = kBatch / aProducers;
    bool ok = true;
    for (auto _ : aState) {
        std::vector<std::thread> helpers;
        std::atomic<bool> helpersOk{true};
        for (int p = 1; p < aProducers; ++p) {
            helpers.emplace_back([&] {
                for (int i = 0; i < perProducer; ++i) {
                    if (!target.Post([pCounter] { ++pCounter->value; })) helpersOk = false;
                }
            });
        }
        for (int i = 0; i < perProducer; ++i) ok &= target.Post([pCounter] { ++pCounter->value; });
        for (auto& helper : helpers) helper.join();
        ok &= helpersOk.load() && target.Post([&drained] { drained.Set(); });
        drained.Wait();
        if (!ok) break;
    }
    BENCH_REQUIRE(aState, ok);
    BENCH_REQUIRE(aState, target.Send([] {}));
    BENCH_REQUIRE(
        aState, counter.value == static_cast<long>(aState.iterations()) * perProducer * aProducers);
    bench::SetBatch(aState, perProducer * aProducers);
}

template <class Target>
void SendRoundTrip(benchmark::State& aState) {
    Target target;
    BENCH_REQUIRE(aState, target.Start());
    Counter counter;
    Counter* pCounter = &counter;
    bool ok = true;
    for (auto _ : aState) {
        ok &= target.Send([pCounter] { ++pCounter->value; });
    }
    BENCH_REQUIRE(aState, ok);
    BENCH_REQUIRE(aState, counter.value == static_cast<long>(aState.iterations()));
}

// Heap growth while kBatch events wait behind one that blocks the consumer.
template <class Target>
void MemoryPerEvent(benchmark::State& aState) {
    Target target;
    BENCH_REQUIRE(aState, target.Start());
    Counter counter;
    Counter* pCounter = &counter;
    double bytes = 0;
    for (auto _ : aState) {
        Signal release, drained;
        BENCH_REQUIRE(aState, target.Post([&release] { release.Wait(); }));
        const int64_t before = bench::HeapInUse();
        for (int i = 0; i < kBatch; ++i) {
            BENCH_REQUIRE(aState, target.Post([pCounter] { ++pCounter->value; }));
        }
        bytes = static_cast<double>(bench::HeapInUse() - before) / kBatch;
        release.Set();
        BENCH_REQUIRE(aState, target.Post([&drained] { drained.Set(); }));
        drained.Wait();
    }
    aState.counters["bytes"] = bytes;
}

template <class Target>
void PostOneProducer(benchmark::State& aState) {
    PostThroughput<Target>(aState, 1);
}

template <class Target>
void PostTwoProducers(benchmark::State& aState) {
    PostThroughput<Target>(aState, 2);
}

template <class Target>
void RegisterFor(const char* aImpl) {
    using bench::Name;
    benchmark::RegisterBenchmark(Name("post_1_producer", aImpl).c_str(), PostOneProducer<Target>)
        ->UseRealTime();
    benchmark::RegisterBenchmark(Name("post_2_producers", aImpl).c_str(), PostTwoProducers<Target>)
        ->UseRealTime();
    benchmark::RegisterBenchmark(Name("send_round_trip", aImpl).c_str(), SendRoundTrip<Target>)
        ->UseRealTime();
    benchmark::RegisterBenchmark(Name("memory_per_event", aImpl).c_str(), MemoryPerEvent<Target>)
        ->Iterations(1);
}

const bool kRegistered = [] {
    RegisterFor<LibTarget>(bench::kLib);
    RegisterFor<PeerTarget<AsioThread>>(bench::kAsio);
    RegisterFor<PeerTarget<PlainQueue>>(bench::kMutexCv);
    benchmark::RegisterBenchmark("mechanism_post_1_producer/mutex_cv_heap_events_5_per_lock",
                                 PostOneProducer<PeerTarget<ShapedQueue>>)
        ->UseRealTime();
    return true;
}();

}  // namespace
