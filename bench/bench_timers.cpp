// Timers: schedule plus cancel with 10, 100 and 1000 others queued, the cost of
// firing one, and the memory a scheduled timer costs, on the library's timer
// queue and on Asio's steady_timer. Both run on the benchmark thread, the way a
// thread schedules on its own queue.
#include <boost/asio.hpp>

#include <chrono>
#include <memory>
#include <vector>

#include "bench_support.h"

namespace {

constexpr int kFireBatch = 1000;  // timers fired per timed iteration

class CountingHandler : public ITimerHandler {
public:
    void OnTimeout(const ComTimeValueType&, void*) override { ++m_fired; }
    long m_fired = 0;
};

// The queued timers are due from one hour on, a second apart; the measured one
// lands in the middle of them, where an ordered structure has the most to walk.
ComTimeValueType DueIn(int aSecond) {
    return ComTimeValueType(3600 + aSecond, 0);
}

void ScheduleCancelLib(benchmark::State& aState, int queued) {
    TimerQueueOrderedList queue(nullptr);
    std::vector<CountingHandler> others(queued);
    for (int i = 0; i < queued; ++i) {
        BENCH_REQUIRE(aState, queue.ScheduleTimer(&others[i], nullptr, DueIn(i), 1) == COM_OK);
    }
    CountingHandler timer;
    const ComTimeValueType middle = DueIn(queued / 2);
    bool ok = true;
    for (auto _ : aState) {
        ok &= queue.ScheduleTimer(&timer, nullptr, middle, 1) == COM_OK;
        ok &= queue.CancelTimer(&timer) == COM_OK;
    }
    BENCH_REQUIRE(aState, ok);
}

// Asio completes a cancelled wait with operation_aborted, so the iteration
// also runs that handler: without it the handlers would pile up.
void ScheduleCancelAsio(benchmark::State& aState, int queued) {
    boost::asio::io_context io;
    std::vector<std::unique_ptr<boost::asio::steady_timer>> others;
    for (int i = 0; i < queued; ++i) {
        others.emplace_back(new boost::asio::steady_timer(io));
        others.back()->expires_after(std::chrono::seconds(3600 + i));
        others.back()->async_wait([](const boost::system::error_code&) {});
    }
    boost::asio::steady_timer timer(io);
    long aborted = 0;
    for (auto _ : aState) {
        timer.expires_after(std::chrono::seconds(3600 + queued / 2));
        timer.async_wait([&aborted](const boost::system::error_code& aError) {
            aborted += aError == boost::asio::error::operation_aborted;
        });
        timer.cancel();
        io.poll();
    }
    BENCH_REQUIRE(aState, aborted == static_cast<long>(aState.iterations()));
    for (auto& other : others) other->cancel();
    io.poll();
}

// Firing: kFireBatch timers already due are scheduled outside the timing, then
// one expiry check runs them all.
void FireLib(benchmark::State& aState) {
    TimerQueueOrderedList queue(nullptr);
    std::vector<CountingHandler> handlers(kFireBatch);
    long fired = 0;
    for (auto _ : aState) {
        aState.PauseTiming();
        bool ok = true;
        for (auto& handler : handlers) {
            ok &= queue.ScheduleTimer(&handler, nullptr, ComTimeValueType(0, 0), 1) == COM_OK;
        }
        aState.ResumeTiming();
        fired += queue.CheckExpire(nullptr);
        BENCH_REQUIRE(aState, ok);
    }
    BENCH_REQUIRE(aState, fired == static_cast<long>(aState.iterations()) * kFireBatch);
    bench::SetBatch(aState, kFireBatch);
}

void FireAsio(benchmark::State& aState) {
    boost::asio::io_context io;
    std::vector<std::unique_ptr<boost::asio::steady_timer>> timers;
    for (int i = 0; i < kFireBatch; ++i) timers.emplace_back(new boost::asio::steady_timer(io));
    long fired = 0;
    for (auto _ : aState) {
        aState.PauseTiming();
        const auto now = boost::asio::steady_timer::clock_type::now();
        for (auto& timer : timers) {
            timer->expires_at(now);
            timer->async_wait([&fired](const boost::system::error_code&) { ++fired; });
        }
        io.restart();
        aState.ResumeTiming();
        io.run();
    }
    BENCH_REQUIRE(aState, fired == static_cast<long>(aState.iterations()) * kFireBatch);
    bench::SetBatch(aState, kFireBatch);
}

constexpr int kMemoryTimers = 10000;

void MemoryPerTimerLib(benchmark::State& aState) {
    std::vector<CountingHandler> handlers(kMemoryTimers);
    double bytes = 0;
    for (auto _ : aState) {
        TimerQueueOrderedList queue(nullptr);
        const int64_t before = bench::HeapInUse();
        // Scheduled latest first, so each lands at the front and the setup
        // stays linear.
        for (int i = kMemoryTimers - 1; i >= 0; --i) {
            BENCH_REQUIRE(aState,
                          queue.ScheduleTimer(&handlers[i], nullptr, DueIn(i), 1) == COM_OK);
        }
        bytes = static_cast<double>(bench::HeapInUse() - before) / kMemoryTimers;
    }
    aState.counters["bytes"] = bytes;
}

void MemoryPerTimerAsio(benchmark::State& aState) {
    double bytes = 0;
    for (auto _ : aState) {
        boost::asio::io_context io;
        std::vector<std::unique_ptr<boost::asio::steady_timer>> timers;
        for (int i = 0; i < kMemoryTimers; ++i)
            timers.emplace_back(new boost::asio::steady_timer(io));
        const int64_t before = bench::HeapInUse();
        for (int i = 0; i < kMemoryTimers; ++i) {
            timers[i]->expires_after(std::chrono::seconds(3600 + i));
            timers[i]->async_wait([](const boost::system::error_code&) {});
        }
        bytes = static_cast<double>(bench::HeapInUse() - before) / kMemoryTimers;
        for (auto& timer : timers) timer->cancel();
        io.run();
    }
    aState.counters["bytes"] = bytes;
}

const bool kRegistered = [] {
    using bench::Name;
    for (int queued : {10, 100, 1000}) {
        const std::string workload = "timer_schedule_cancel_" + std::to_string(queued);
        benchmark::RegisterBenchmark(Name(workload.c_str(), bench::kLib).c_str(), ScheduleCancelLib,
                                     queued);
        benchmark::RegisterBenchmark(Name(workload.c_str(), bench::kAsio).c_str(),
                                     ScheduleCancelAsio, queued);
    }
    benchmark::RegisterBenchmark(Name("timer_fire", bench::kLib).c_str(), FireLib);
    benchmark::RegisterBenchmark(Name("timer_fire", bench::kAsio).c_str(), FireAsio);
    benchmark::RegisterBenchmark(Name("memory_per_timer", bench::kLib).c_str(), MemoryPerTimerLib)
        ->Iterations(1);
    benchmark::RegisterBenchmark(Name("memory_per_timer", bench::kAsio).c_str(), MemoryPerTimerAsio)
        ->Iterations(1);
    return true;
}();

}  // namespace
