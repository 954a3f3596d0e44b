// The portable locks and the periodic event timer against what the standard
// library offers: shared acquire/release of the read/write lock from two
// threads (std::shared_mutex), enter/leave of the critical section
// (std::recursive_mutex), and how late each signal of a 10 ms periodic timer
// comes over 5 s (a std::this_thread::sleep_until loop on the same schedule).
#include <chrono>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <thread>
#include <vector>

#include "bench_support.h"

namespace {

using bench::Name;
using Clock = std::chrono::steady_clock;

constexpr int kTimerPeriodMs = 10;
constexpr int kTimerSignals = 500;  // 5 s

// Shared between the two benchmark threads; created once, never freed.
webrtc::RWLockWrapper* const gRWLock = webrtc::RWLockWrapper::CreateRWLock();
std::shared_mutex gSharedMutex;

void RWLockSharedLib(benchmark::State& aState) {
    for (auto _ : aState) {
        gRWLock->AcquireLockShared();
        gRWLock->ReleaseLockShared();
    }
}

void RWLockSharedStd(benchmark::State& aState) {
    for (auto _ : aState) {
        gSharedMutex.lock_shared();
        gSharedMutex.unlock_shared();
    }
}

void CritSectLib(benchmark::State& aState) {
    std::unique_ptr<webrtc::CriticalSectionWrapper> crit(webrtc::CriticalSectionWrapper::CreateCriticalSection());
    for (auto _ : aState) {
        crit->Enter();
        crit->Leave();
    }
}

void CritSectStd(benchmark::State& aState) {
    std::recursive_mutex mutex;
    for (auto _ : aState) {
        mutex.lock();
        mutex.unlock();
    }
}

// Lateness of signal n is its arrival minus start + n periods; the drift is
// the last one's. The time reported is the 5 s.
double MicrosSince(Clock::time_point aStart, int aSignal) {
    const auto due = aStart + std::chrono::milliseconds(aSignal * kTimerPeriodMs);
    return std::chrono::duration<double, std::micro>(Clock::now() - due).count();
}

void TimerLatenessLib(benchmark::State& aState) {
    std::unique_ptr<webrtc::EventWrapper> event(webrtc::EventWrapper::Create());
    std::vector<double> late;
    for (auto _ : aState) {
        late.clear();
        const Clock::time_point start = Clock::now();
        BENCH_REQUIRE(aState, event->StartTimer(true, kTimerPeriodMs));
        for (int n = 1; n <= kTimerSignals; ++n) {
            BENCH_REQUIRE(aState, event->Wait(WEBRTC_EVENT_10_SEC) == webrtc::kEventSignaled);
            late.push_back(MicrosSince(start, n));
        }
        event->StopTimer();
    }
    bench::ReportLateness(aState, late, late.back());
}

void TimerLatenessStd(benchmark::State& aState) {
    std::vector<double> late;
    for (auto _ : aState) {
        late.clear();
        const Clock::time_point start = Clock::now();
        for (int n = 1; n <= kTimerSignals; ++n) {
            std::this_thread::sleep_until(start + std::chrono::milliseconds(n * kTimerPeriodMs));
            late.push_back(MicrosSince(start, n));
        }
    }
    bench::ReportLateness(aState, late, late.back());
}

const bool kRegistered = [] {
    benchmark::RegisterBenchmark(Name("rwlock_shared_2_threads", bench::kLib).c_str(), RWLockSharedLib)->Threads(2);
    benchmark::RegisterBenchmark(Name("rwlock_shared_2_threads", bench::kStd).c_str(), RWLockSharedStd)->Threads(2);
    benchmark::RegisterBenchmark(Name("critsect_enter_leave", bench::kLib).c_str(), CritSectLib);
    benchmark::RegisterBenchmark(Name("critsect_enter_leave", bench::kStd).c_str(), CritSectStd);
    benchmark::RegisterBenchmark(Name("timer_10ms_lateness", bench::kLib).c_str(), TimerLatenessLib)
        ->Iterations(1)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(Name("timer_10ms_lateness", bench::kStd).c_str(), TimerLatenessStd)
        ->Iterations(1)
        ->Unit(benchmark::kMillisecond);
    return true;
}();

}  // namespace
