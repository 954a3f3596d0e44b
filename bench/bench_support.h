// Shared by the benchmarks. Every benchmark is named "<workload>/<implementation>"
// with the implementation one of kLib and the peers below; scripts/bench_table.py
// builds its table from those names. A benchmark whose iteration does more than
// one operation says how many in the "batch" counter, and the table divides.
#ifndef SW_BENCH_SUPPORT_H_
#define SW_BENCH_SUPPORT_H_

#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "system_wrappers.h"

namespace bench {

constexpr const char kLib[] = "lib";
constexpr const char kLibEpoll[] = "lib_epoll";  // the library's reactor on epoll
constexpr const char kAsio[] = "asio";
constexpr const char kLibevent[] = "libevent";
constexpr const char kMutexCv[] = "mutex_cv";
constexpr const char kSpdlog[] = "spdlog";
constexpr const char kSharedPtr[] = "shared_ptr";
constexpr const char kStd[] = "std";  // the C++ standard library

inline std::string Name(const char* aWorkload, const char* aImpl) {
    return std::string(aWorkload) + "/" + aImpl;
}

inline void SetBatch(benchmark::State& aState, int64_t aOps) {
    aState.counters["batch"] = static_cast<double>(aOps);
}

// Bytes the heap hands out right now; the memory workloads take differences.
inline int64_t HeapInUse() {
    return static_cast<int64_t>(mallinfo2().uordblks);
}

// Median, 99th percentile and worst of aUs (not empty), as counters named
// aPrefix + "_p50_us", "_p99_us" and "_max_us".
inline void ReportSpread(benchmark::State& aState, const std::string& aPrefix,
                         std::vector<double> aUs) {
    std::sort(aUs.begin(), aUs.end());
    aState.counters[aPrefix + "_p50_us"] = aUs[aUs.size() / 2];
    aState.counters[aPrefix + "_p99_us"] = aUs[aUs.size() * 99 / 100];
    aState.counters[aPrefix + "_max_us"] = aUs.back();
}

// How late the ticks of a periodic timer came, in microseconds: median, 99th
// percentile and worst, and the drift the caller measured. The table script
// prints these counters as a lateness table of their own.
inline void ReportLateness(benchmark::State& aState, std::vector<double> aLateUs, double aDriftUs) {
    ReportSpread(aState, "late", std::move(aLateUs));
    aState.counters["drift_us"] = aDriftUs;
}

// The median of aValues (not empty).
inline double Median(std::vector<double> aValues) {
    std::nth_element(aValues.begin(), aValues.begin() + aValues.size() / 2, aValues.end());
    return aValues[aValues.size() / 2];
}

// The grid of a periodic library timer, to read how late its ticks come. The
// timer queue runs on the wall clock from the moment of scheduling and skips
// the periods it missed instead of firing them in a burst; this follows it.
class TimerGrid {
public:
    // Just before the timer is scheduled.
    void Start(int64_t aPeriodUs) {
        const ComTimeValueType now = ComTimeValueType::GetTimeOfDay();
        m_periodNs = aPeriodUs * 1000;
        m_dueNs = (now.GetSec() * int64_t{1000000} + now.GetUsec()) * 1000 + m_periodNs;
    }
    // On each tick: how late it came, in microseconds.
    double Tick() {
        const int64_t lateNs = std::chrono::duration_cast<std::chrono::nanoseconds>(
                                   std::chrono::system_clock::now().time_since_epoch())
                                   .count() -
                               m_dueNs;
        m_dueNs += (lateNs / m_periodNs + 1) * m_periodNs;
        return lateNs / 1000.0;
    }

private:
    int64_t m_periodNs = 1;
    int64_t m_dueNs = 0;
};

// A one-shot flag another thread sets and this one waits for.
class Signal {
public:
    void Set() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_set = true;
        m_cond.notify_one();
    }
    void Wait() {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_cond.wait(lock, [this] { return m_set; });
        m_set = false;
    }
    // False when aTimeout passed first.
    template <class Duration>
    bool WaitFor(Duration aTimeout) {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (!m_cond.wait_for(lock, aTimeout, [this] { return m_set; })) return false;
        m_set = false;
        return true;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_cond;
    bool m_set = false;
};

// A library event that runs a callable; what the benchmarks post.
template <class F>
class CallEvent : public IEvent {
public:
    explicit CallEvent(F aFunc) : m_func(aFunc) {}
    int OnEventFire() override {
        m_func();
        return 0;
    }

private:
    F m_func;
};

template <class F>
IEvent* MakeEvent(F aFunc) {
    return new CallEvent<F>(aFunc);
}

// A task or reactor thread made through the manager, destroyed with the scope.
template <class T>
class LibThread {
public:
    LibThread() = default;
    ~LibThread() {
        if (m_thread != nullptr) ComThreadManger::GetInstance()->DestroyThread(m_thread);
    }
    LibThread(const LibThread&) = delete;
    LibThread& operator=(const LibThread&) = delete;

    T* operator->() const { return m_thread; }
    T* get() const { return m_thread; }
    T*& out() { return m_thread; }

private:
    T* m_thread = nullptr;
};

// A reactor thread on aBackend (ComNetReactor::BACKEND_*). The default is
// process-wide, so it is put back at once; a reactor that fell back to select
// would measure the wrong thing.
inline bool CreateReactorThread(int aBackend, LibThread<ComReactorThread>& aThread) {
    const int previous = ComNetReactor::get_default_backend();
    const bool ok = ComNetReactor::set_default_backend(aBackend) == 0 &&
                    ComThreadManger::GetInstance()->CreateReactorThread(aThread.out()) == COM_OK;
    ComNetReactor::set_default_backend(previous);
    return ok && aThread->_reactor->get_backend() == aBackend;
}

// The calling code checks the result of every call that may fail and stops the
// benchmark with a message rather than measuring nonsense.
#define BENCH_REQUIRE(aState, aCond)                   \
    do {                                               \
        if (!(aCond)) {                                \
            (aState).SkipWithError("failed: " #aCond); \
            return;                                    \
        }                                              \
    } while (0)

}  // namespace bench

#endif  // SW_BENCH_SUPPORT_H_
