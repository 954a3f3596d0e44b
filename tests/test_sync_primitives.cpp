// The portable synchronisation primitives: clock, critical section, condition
// variable, event with timer, read/write lock and atomic counter.
#include <sys/time.h>
#include <climits>
#include <cstdio>

#include "test_support.h"

namespace {

using namespace webrtc;

TEST(TickTime, WallClockMicrosecondsAndIntervals) {
    struct timeval before;
    gettimeofday(&before, nullptr);
    TickTime now = TickTime::Now();
    const int64_t beforeUs = static_cast<int64_t>(before.tv_sec) * 1000000 + before.tv_usec;
    EXPECT_LE(beforeUs, now.Ticks());
    EXPECT_LT(now.Ticks() - beforeUs, 10 * 1000000);
    EXPECT_LE(now.Ticks() / 1000, TickTime::MillisecondTimestamp());
    const TickTime later = now + TickTime::MillisecondsToTicks(1500);
    now -= 500000;
    EXPECT_EQ(2000, (later - now).Milliseconds());
    EXPECT_EQ(TickInterval(3500000), (later - now) + (later - (later - 1500000)));
}

TEST(CriticalSection, RecursiveAndExclusive) {
    std::unique_ptr<CriticalSectionWrapper> crit(CriticalSectionWrapper::CreateCriticalSection());
    ASSERT_TRUE(crit);
    std::atomic<uint32_t> otherTid{0};
    std::atomic<bool> otherIn{false};
    crit->Enter();
    crit->Enter();  // the owner enters again
    std::thread other([&] {
        otherTid = ThreadWrapper::GetThreadId();
        CriticalSectionScoped lock(*crit);
        otherIn = true;
    });
    crit->Leave();  // still held once
    ASSERT_TRUE(WaitUntil([&] { return otherTid != 0 && Asleep(otherTid); }));
    EXPECT_FALSE(otherIn);
    crit->Leave();
    other.join();
    EXPECT_TRUE(otherIn);

    int shared = 0;  // TSan and the count catch a lock that excludes nobody
    RunThreads(4, [&](int) {
        for (int i = 0; i < 20000; ++i) {
            CriticalSectionScoped lock(crit.get());
            ++shared;
        }
    });
    EXPECT_EQ(80000, shared);
}

TEST(ConditionVariable, TimeoutsWakeAndWakeAll) {
    std::unique_ptr<CriticalSectionWrapper> crit(CriticalSectionWrapper::CreateCriticalSection());
    std::unique_ptr<ConditionVariableWrapper> cond(
        ConditionVariableWrapper::CreateConditionVariable());
    ASSERT_TRUE(crit && cond);
    // A wake with nobody asleep is not remembered.
    cond->Wake();
    cond->WakeAll();
    crit->Enter();
    EXPECT_FALSE(cond->SleepCS(*crit, 20));
    crit->Leave();

    int asleep = 0, woken = 0, released = 0;
    std::thread sleepers([&] {
        RunThreads(3, [&](int) {
            CriticalSectionScoped lock(crit.get());
            ++asleep;
            while (released == 0) cond->SleepCS(*crit);
            ++woken;
        });
    });
    ASSERT_TRUE(WaitUntil([&] {
        CriticalSectionScoped lock(crit.get());
        return asleep == 3;
    }));
    {
        CriticalSectionScoped lock(crit.get());
        released = 1;
        cond->WakeAll();
    }
    sleepers.join();
    EXPECT_EQ(3, woken);

    // One Wake releases a timed sleeper before its limit.
    std::thread waker([&] {
        CriticalSectionScoped lock(crit.get());
        released = 2;
        cond->Wake();
    });
    crit->Enter();
    bool inTime = true;
    while (released != 2 && inTime) inTime = cond->SleepCS(*crit, 60000);
    crit->Leave();
    waker.join();
    EXPECT_TRUE(inTime);
}

TEST(Event, AutoResetSignalsAndTimers) {
    std::unique_ptr<EventWrapper> event(EventWrapper::Create());
    ASSERT_TRUE(event);
    EXPECT_EQ(kEventTimeout, event->Wait(0));
    EXPECT_TRUE(event->Set());
    EXPECT_TRUE(event->Set());  // signals do not add up
    EXPECT_EQ(kEventSignaled, event->Wait(0));
    EXPECT_EQ(kEventTimeout, event->Wait(10));
    event->Set();
    EXPECT_TRUE(event->Reset());
    EXPECT_EQ(kEventTimeout, event->Wait(0));
    std::thread setter([&] { event->Set(); });
    EXPECT_EQ(kEventSignaled, event->Wait(WEBRTC_EVENT_INFINITE));
    setter.join();

    EXPECT_FALSE(event->StartTimer(true, 0));
    EXPECT_FALSE(event->StartTimer(false, 0));
    // A pending one-shot restarts from now with the new time, and fires once.
    ASSERT_TRUE(event->StartTimer(false, 600000));
    ASSERT_TRUE(event->StartTimer(false, 10));
    EXPECT_EQ(kEventSignaled, event->Wait(60000));
    EXPECT_EQ(kEventTimeout, event->Wait(50));

    // Periodic: signal n never comes before start + n periods, and a running
    // periodic timer refuses to restart.
    const int64_t period = 20;
    const int64_t start = TickTime::MillisecondTimestamp();
    ASSERT_TRUE(event->StartTimer(true, period));
    EXPECT_FALSE(event->StartTimer(true, 1));
    EXPECT_FALSE(event->StartTimer(false, 1));
    for (int n = 1; n <= 10; ++n) {
        ASSERT_EQ(kEventSignaled, event->Wait(60000));
        EXPECT_GE(TickTime::MillisecondTimestamp() - start, n * period - 1) << "signal " << n;
    }
    // A signal nobody consumed is counted once.
    std::this_thread::sleep_for(std::chrono::milliseconds(5 * period));
    EXPECT_EQ(kEventSignaled, event->Wait(0));
    EXPECT_EQ(kEventTimeout, event->Wait(0));

    EXPECT_TRUE(event->StopTimer());
    event->Reset();
    EXPECT_EQ(kEventTimeout, event->Wait(5 * period));
    ASSERT_TRUE(event->StartTimer(true, 1));  // stopped: may start again
    EXPECT_EQ(kEventSignaled, event->Wait(60000));
}

TEST(RWLock, SharedHoldersAndWaitingWriterFirst) {
    std::unique_ptr<RWLockWrapper> lock(RWLockWrapper::CreateRWLock());
    ASSERT_TRUE(lock);
    lock->AcquireLockShared();
    // A second reader gets in while no writer waits.
    std::thread([&] { ReadLockScoped reader(*lock); }).join();

    std::mutex orderMutex;
    std::vector<std::string> order;
    auto contender = [&](const char* aName, bool aWriter, std::atomic<uint32_t>& aTid) {
        aTid = ThreadWrapper::GetThreadId();
        aWriter ? lock->AcquireLockExclusive() : lock->AcquireLockShared();
        std::lock_guard<std::mutex> guard(orderMutex);
        order.push_back(aName);
        aWriter ? lock->ReleaseLockExclusive() : lock->ReleaseLockShared();
    };
    std::atomic<uint32_t> writerTid{0}, readerTid{0};
    std::thread writer(contender, "writer", true, std::ref(writerTid));
    ASSERT_TRUE(WaitUntil([&] { return writerTid != 0 && Asleep(writerTid); }));
    // A new reader queues behind the waiting writer.
    std::thread reader(contender, "reader", false, std::ref(readerTid));
    ASSERT_TRUE(WaitUntil([&] { return readerTid != 0 && Asleep(readerTid); }));
    lock->ReleaseLockShared();
    writer.join();
    reader.join();
    EXPECT_EQ((std::vector<std::string>{"writer", "reader"}), order);

    // Writers exclude each other and the readers (TSan watches the reads).
    int written = 0;
    std::atomic<int> odd{0};  // readers share the lock, so their own count is atomic
    RunThreads(4, [&](int aThread) {
        for (int i = 0; i < 5000; ++i) {
            if (aThread < 2) {
                WriteLockScoped hold(*lock);
                written += 2;
            } else {
                ReadLockScoped hold(*lock);
                odd += written % 2;
            }
        }
    });
    EXPECT_EQ(20000, written);
    EXPECT_EQ(0, odd);
}

TEST(Atomic32, ExactUnderContentionAndWrapping) {
    Atomic32 counter(5);
    RunThreads(4, [&](int aThread) {
        for (int i = 0; i < 50000; ++i) {
            if (aThread % 2) {
                ++counter;
                counter += 3;
            } else {
                --counter;
                counter -= 2;
            }
        }
    });
    EXPECT_EQ(5 + 2 * 50000 * 4 - 2 * 50000 * 3, counter.Value());

    Atomic32 edge(INT32_MAX);
    EXPECT_EQ(INT32_MIN, ++edge);
    EXPECT_EQ(INT32_MAX, --edge);
    EXPECT_EQ(INT32_MIN + 1, edge += 2);
    EXPECT_EQ(INT32_MAX - 1, edge -= 3);
    EXPECT_FALSE(edge.CompareExchange(1, 6));
    EXPECT_TRUE(edge.CompareExchange(1, INT32_MAX - 1));
    EXPECT_EQ(1, edge.Value());
}

}  // namespace
