// Timers: schedule plus cancel with 10, 100 and 1000 others queued, the cost of
// firing one, and the memory a scheduled timer costs, on the library's timer
// queue and on Asio's steady_timer. Both run on the benchmark thread, the way a
// thread schedules on its own queue. Last, how late the ticks of a 10 ms
// periodic timer come on a task thread and on an Asio thread.
#include <sys/prctl.h>

#include <boost/asio.hpp>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <thread>
#include <utility>
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

// Timer lateness. Wake-ups on a busy machine vary from minute to minute, so the
// three implementations are measured in interleaved rounds of one measurement,
// taken by whichever of their benchmarks runs first; each then reports its
// share, and repetitions report the same figures.
constexpr int64_t kTickPeriodUs = 10000;
constexpr int kTicksPerRound = 100;  // 1 s
constexpr int kRounds = 10;
// What Linux gives a thread that asks for nothing; the library's threads ask
// for the smallest slack when they start.
constexpr unsigned long kKernelDefaultSlackNs = 50000;

enum LatenessImpl { kTaskThread, kTaskThreadDefaultSlack, kAsioThread, kLatenessImpls };

// Records how late each tick comes, against the queue's own grid.
class LatenessTimer : public ITimerHandler {
public:
    LatenessTimer(std::vector<double>& aLateUs, bench::Signal& aDone)
        : m_lateUs(aLateUs), m_done(aDone) {}

    // On the task thread, the way a stream schedules its own timer.
    bool Start(ComTaskThread* aThread) {
        m_grid.Start(kTickPeriodUs);
        return aThread->ScheduleTimer(this, nullptr, ComTimeValueType(0, kTickPeriodUs),
                                      kTicksPerRound) == COM_OK;
    }

    void OnTimeout(const ComTimeValueType&, void*) override {
        m_lateUs.push_back(m_grid.Tick());
        if (++m_ticks == kTicksPerRound) m_done.Set();
    }

private:
    std::vector<double>& m_lateUs;
    bench::Signal& m_done;
    bench::TimerGrid m_grid;
    int m_ticks = 0;
};

// One round on a fresh task thread. A non-zero aSlackNs is set on that thread
// before the timer starts.
bool LibRound(unsigned long aSlackNs, std::vector<double>& aLateUs) {
    bench::Signal done;
    LatenessTimer timer(aLateUs, done);
    bool ok = false;
    bench::LibThread<ComTaskThread> thread;  // joined before the timer goes
    if (ComThreadManger::GetInstance()->CreateTaskThread(thread.out()) != COM_OK) return false;
    IEvent* start = bench::MakeEvent([&] {
        ok = (aSlackNs == 0 || prctl(PR_SET_TIMERSLACK, aSlackNs, 0UL, 0UL, 0UL) == 0) &&
             timer.Start(thread.get());
        if (!ok) done.Set();
    });
    if (thread->PostEvent(start) != COM_OK) {
        delete start;
        return false;
    }
    done.Wait();
    return ok;
}

// One round of a steady_timer re-armed on its own expiry, so that it keeps to
// its grid, in an io_context run on a thread of its own like the task thread.
bool AsioRound(std::vector<double>& aLateUs) {
    const auto period = std::chrono::microseconds(kTickPeriodUs);
    boost::asio::io_context io;
    boost::asio::steady_timer timer(io);
    int ticks = 0;
    bool ok = true;
    std::function<void(const boost::system::error_code&)> onTick =
        [&](const boost::system::error_code& aError) {
            const auto now = boost::asio::steady_timer::clock_type::now();
            ok &= !aError;
            aLateUs.push_back(
                std::chrono::duration<double, std::micro>(now - timer.expiry()).count());
            if (++ticks == kTicksPerRound || aError) return;
            timer.expires_at(timer.expiry() + period);
            timer.async_wait(onTick);
        };
    timer.expires_after(period);
    timer.async_wait(onTick);
    std::thread runner([&io] { io.run(); });
    runner.join();
    return ok && ticks == kTicksPerRound;
}

struct LatenessRun {
    std::vector<double> lateUs[kLatenessImpls];
    std::vector<double> lastUs[kLatenessImpls];  // each round's last tick
    bool ok = true;
};

// The rounds; which implementation goes first moves on every round, so that
// none always runs right after the same other.
LatenessRun MeasureLateness() {
    LatenessRun run;
    for (int round = 0; round < kRounds && run.ok; ++round) {
        for (int i = 0; i < kLatenessImpls && run.ok; ++i) {
            const int impl = (round + i) % kLatenessImpls;
            std::vector<double>& late = run.lateUs[impl];
            if (impl == kAsioThread) {
                run.ok = AsioRound(late);
            } else {
                run.ok =
                    LibRound(impl == kTaskThreadDefaultSlack ? kKernelDefaultSlackNs : 0, late);
            }
            if (run.ok) run.lastUs[impl].push_back(late.back());
        }
    }
    return run;
}

// The drift is the median of the rounds' last ticks: a grid that slipped would
// show there.
void TaskTimerLateness(benchmark::State& aState, int aImpl) {
    static const LatenessRun kRun = MeasureLateness();
    BENCH_REQUIRE(aState, kRun.ok);
    for (auto _ : aState) {
    }
    bench::ReportLateness(aState, kRun.lateUs[aImpl], bench::Median(kRun.lastUs[aImpl]));
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
    const std::pair<const char*, int> lateness[] = {
        {bench::kLib, kTaskThread},
        {"lib_kernel_default_slack", kTaskThreadDefaultSlack},
        {bench::kAsio, kAsioThread}};
    for (const auto& [impl, index] : lateness) {
        benchmark::RegisterBenchmark(Name("task_timer_lateness", impl).c_str(), TaskTimerLateness,
                                     index)
            ->Iterations(1);
    }
    return true;
}();

}  // namespace
