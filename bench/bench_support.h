// Shared by the benchmarks. Every benchmark is named "<workload>/<implementation>"
// with the implementation one of kLib and the peers below; scripts/bench_table.py
// builds its table from those names. A benchmark whose iteration does more than
// one operation says how many in the "batch" counter, and the table divides.
#ifndef SW_BENCH_SUPPORT_H_
#define SW_BENCH_SUPPORT_H_

#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "system_wrappers.h"

namespace bench {

constexpr const char kLib[] = "lib";
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

// How late the ticks of a periodic timer came, in microseconds: median, 99th
// percentile and worst, and the drift the caller measured. The table script
// prints these counters as a lateness table of their own.
inline void ReportLateness(benchmark::State& aState, std::vector<double> aLateUs, double aDriftUs) {
    std::sort(aLateUs.begin(), aLateUs.end());
    aState.counters["late_p50_us"] = aLateUs[aLateUs.size() / 2];
    aState.counters["late_p99_us"] = aLateUs[aLateUs.size() * 99 / 100];
    aState.counters["late_max_us"] = aLateUs.back();
    aState.counters["drift_us"] = aDriftUs;
}

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
