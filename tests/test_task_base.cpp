#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include "ComTaskBase.h"
#include "trace_capture.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

std::string Ptr(const void* aPtr) {
    char buf[32];
    snprintf(buf, sizeof(buf), "%p", aPtr);
    return buf;
}

// Runs aFn on another thread; true if it has not finished within a short while.
template <class Fn>
bool StaysBlocked(std::future<Fn>& aFuture) {
    return aFuture.wait_for(100ms) == std::future_status::timeout;
}

TEST(ComSemaphore, PostNAndLock) {
    TraceCapture capture;
    ComSemaphore sem(0, "ignored", 0);

    EXPECT_EQ(COM_OK, sem.PostN(0));
    EXPECT_TRUE(capture.Traced(
        MTRACE_LEVEL_ERROR, "system_wrappers/source/ComTaskBase: 129, assert failed, aCount >= 1"));

    EXPECT_EQ(COM_OK, sem.PostN(3));
    for (int i = 0; i < 3; ++i) EXPECT_EQ(COM_OK, sem.Lock());

    auto fourth = std::async(std::launch::async, [&] { return sem.Lock(); });
    EXPECT_TRUE(StaysBlocked(fourth));  // PostN(0) added nothing
    EXPECT_EQ(COM_OK, sem.UnLock());
    EXPECT_EQ(COM_OK, fourth.get());
}

TEST(ComSemaphore, FailuresAreTracedWithErrnoAndAddress) {
    TraceCapture capture;
    // A count beyond SEM_VALUE_MAX is refused by sem_init (EINVAL).
    ComSemaphore sem(-1);
    EXPECT_TRUE(
        capture.Traced(MTRACE_LEVEL_ERROR, "ComSemaphore::ComSemaphore, sem_init() failed! err=" +
                                               std::to_string(EINVAL) + ", this=" + Ptr(&sem)));
    EXPECT_TRUE(capture.Traced(MTRACE_LEVEL_ERROR,
                               "system_wrappers/source/ComTaskBase: 78, assert failed, FALSE"));
}

TEST(ComConditionVariable, TimedWaits) {
    TraceCapture capture;
    CMyMutex mutex;
    ComConditionVariable cond(mutex);

    PattAutoLock<CMyMutex> lock(mutex);
    ComTimeValueType zero(0, 0);
    EXPECT_EQ(COM_ERROR_TIMEOUT, cond.Wait(&zero));

    ComTimeValueType timeout(1, 500000);
    auto start = Clock::now();
    EXPECT_EQ(COM_ERROR_TIMEOUT, cond.Wait(&timeout));
    EXPECT_GE(Clock::now() - start, 1400ms);
    EXPECT_EQ(0u, capture.Lines().size());  // a time-out is not a failure
}

TEST(ComConditionVariable, SignalAndBroadcastWakeWaiters) {
    CMyMutex mutex;
    ComConditionVariable cond(mutex);
    bool ready = false;
    std::atomic<int> woken{0};

    auto waiter = [&] {
        PattAutoLock<CMyMutex> lock(mutex);
        while (!ready) {
            ComTimeValueType limit(30, 0);
            if (cond.Wait(&limit) != COM_OK) return;  // timed out: leave woken unchanged
        }
        ++woken;
    };
    std::thread a(waiter), b(waiter);
    {
        PattAutoLock<CMyMutex> lock(mutex);
        ready = true;
        EXPECT_EQ(COM_OK, cond.Broadcast());
    }
    a.join();
    b.join();
    EXPECT_EQ(2, woken.load());

    ready = false;
    std::thread c([&] {
        PattAutoLock<CMyMutex> lock(mutex);
        while (!ready) cond.Wait();
        ++woken;
    });
    {
        PattAutoLock<CMyMutex> lock(mutex);
        ready = true;
        EXPECT_EQ(COM_OK, cond.Signal());
    }
    c.join();
    EXPECT_EQ(3, woken.load());
}

TEST(ComEvent, AutoResetLetsOneWaiterThroughPerSignal) {
    ComEvent event(0, 0, "ignored");
    EXPECT_EQ(COM_OK, event.Signal());  // nobody waiting: the signal is kept
    ComTimeValueType none(0, 0);
    EXPECT_EQ(COM_OK, event.Wait(&none));
    EXPECT_EQ(COM_ERROR_TIMEOUT, event.Wait(&none));  // consumed

    ComEvent initiallySet(0, 1, nullptr);
    EXPECT_EQ(COM_OK, initiallySet.Wait(&none));
    EXPECT_EQ(COM_ERROR_TIMEOUT, initiallySet.Wait(&none));

    // With a waiter, Signal wakes it and leaves nothing behind for the next.
    auto waiter = std::async(std::launch::async, [&] {
        ComTimeValueType limit(30, 0);
        return event.Wait(&limit);
    });
    while (waiter.wait_for(10ms) == std::future_status::timeout) {
        event.Signal();  // repeats until the waiter has really blocked and woken
    }
    EXPECT_EQ(COM_OK, waiter.get());
}

TEST(ComEvent, ManualResetStaysSignalledUntilPulse) {
    ComEvent event(1, 0, nullptr);
    ComTimeValueType none(0, 0);
    EXPECT_EQ(COM_ERROR_TIMEOUT, event.Wait(&none));

    auto first = std::async(std::launch::async, [&] { return event.Wait(); });
    auto second = std::async(std::launch::async, [&] { return event.Wait(); });
    EXPECT_TRUE(StaysBlocked(first));
    EXPECT_EQ(COM_OK, event.Signal());  // broadcast: every waiter passes
    EXPECT_EQ(COM_OK, first.get());
    EXPECT_EQ(COM_OK, second.get());
    EXPECT_EQ(COM_OK, event.Wait(&none));
    EXPECT_EQ(COM_OK, event.Wait(&none));

    EXPECT_EQ(COM_ERROR_FAILURE, event.Reset());  // refused: stays signalled
    EXPECT_EQ(COM_OK, event.Wait(&none));

    EXPECT_EQ(COM_OK, event.Pulse());  // nobody waiting: just clears
    EXPECT_EQ(COM_ERROR_TIMEOUT, event.Wait(&none));
}

TEST(ComEvent, PulseReleasesOnlyCurrentWaiters) {
    for (int manual : {0, 1}) {
        SCOPED_TRACE(manual ? "manual" : "auto");
        ComEvent event(manual, 0, nullptr);
        EXPECT_EQ(COM_OK, event.Pulse());  // nobody waiting: wakes no later waiter
        ComTimeValueType shortWait(0, 50000);
        EXPECT_EQ(COM_ERROR_TIMEOUT, event.Wait(&shortWait));

        auto waiter = std::async(std::launch::async, [&] {
            ComTimeValueType limit(30, 0);
            return event.Wait(&limit);
        });
        while (waiter.wait_for(10ms) == std::future_status::timeout) event.Pulse();
        EXPECT_EQ(COM_OK, waiter.get());
        EXPECT_EQ(COM_ERROR_TIMEOUT, event.Wait(&shortWait));
    }
}

}  // namespace
