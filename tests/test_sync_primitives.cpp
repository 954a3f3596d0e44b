// The portable synchronisation primitives: clock, critical section, condition
// variable, event with timer, read/write lock and atomic counter.
#include <ctime>

#include "test_support.h"

namespace {

using namespace webrtc;

TEST(TickTime, WallClockMicrosecondsAndIntervals) {
    const int64_t beforeUs = time(nullptr) * int64_t{1000000};
    TickTime now = TickTime::Now();
    EXPECT_NEAR(beforeUs + 5000000, now.Ticks(), 5000000);  // wall clock, in microseconds
    EXPECT_LE(now.Ticks() / 1000, TickTime::MillisecondTimestamp());
    const TickTime later = now + TickTime::MillisecondsToTicks(1500);
    now -= 500000;
    EXPECT_EQ(2000, (later - now).Milliseconds());
    EXPECT_EQ(TickInterval(3500000), (later - now) + (later - (later - 1500000)));
}

TEST(CriticalSectionAndConditionVariable, ExclusionTimeoutsWakeAndWakeAll) {
    std::unique_ptr<CriticalSectionWrapper> crit(CriticalSectionWrapper::CreateCriticalSection());
    std::unique_ptr<ConditionVariableWrapper> cond(
        ConditionVariableWrapper::CreateConditionVariable());
    // TSan and the count catch a lock that excludes nobody or frees on an inner leave;
    // then the fourth thread wakes the other three at once (a WakeAll missing one hangs).
    int shared = 0, asleep = 0, released = 0;
    RunThreads(4, [&](int aThread) {
        for (int i = 0; i < 20000; ++i) {
            CriticalSectionScoped lock(crit.get());
            crit->Enter();
            crit->Leave();
            ++shared;
        }
        CriticalSectionScoped lock(crit.get());
        if (aThread < 3) {
            ++asleep;
            while (released == 0) cond->SleepCS(*crit);
            return;
        }
        while (asleep < 3) cond->SleepCS(*crit, 1);
        released = 1;
        cond->WakeAll();
    });
    EXPECT_EQ(80000, shared);

    // A timed sleep ends at its limit, or earlier on one Wake (sent once we sleep).
    CriticalSectionScoped lock(*crit);
    EXPECT_FALSE(cond->SleepCS(*crit, 20));
    std::thread waker([&] {
        CriticalSectionScoped lock(*crit);
        released = 2;
        cond->Wake();
    });
    bool inTime = true;
    while (released != 2 && inTime) inTime = cond->SleepCS(*crit, 60000);
    waker.join();  // it has left the lock we hold again
    EXPECT_TRUE(inTime);
}

TEST(Event, AutoResetSignalsAndTimers) {
    std::unique_ptr<EventWrapper> event(EventWrapper::Create());
    EXPECT_EQ(kEventTimeout, event->Wait(0));
    EXPECT_TRUE(event->Set());
    EXPECT_EQ(kEventSignaled, event->Wait(0));
    event->Set();
    EXPECT_TRUE(event->Reset());
    EXPECT_EQ(kEventTimeout, event->Wait(0));

    for (bool periodic : {true, false}) EXPECT_FALSE(event->StartTimer(periodic, 0));
    // A pending one-shot restarts from now with the new time, and fires once.
    ASSERT_TRUE(event->StartTimer(false, 600000));
    ASSERT_TRUE(event->StartTimer(false, 10));
    EXPECT_EQ(kEventSignaled, event->Wait(60000));
    EXPECT_EQ(kEventTimeout, event->Wait(50));
    // A one-shot already due keeps its signal through a restart; Reset takes it.
    for (bool reset : {false, true}) {
        ASSERT_TRUE(event->StartTimer(false, 1));
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        reset ? event->Reset() : event->StartTimer(false, 600000);
        EXPECT_EQ(reset ? kEventTimeout : kEventSignaled, event->Wait(0)) << reset;
    }

    // Periodic: signal n never comes before start + n periods; running, it refuses a restart.
    const int64_t period = 20, start = TickTime::MillisecondTimestamp();
    ASSERT_TRUE(event->StartTimer(true, period));
    for (bool periodic : {true, false}) EXPECT_FALSE(event->StartTimer(periodic, 1));
    for (int n = 1; n <= 10; ++n) {
        ASSERT_EQ(kEventSignaled, event->Wait(60000));
        EXPECT_GE(TickTime::MillisecondTimestamp() - start, n * period - 1) << "signal " << n;
    }
    // An unconsumed signal counts once and outlives StopTimer; none comes after it.
    std::this_thread::sleep_for(std::chrono::milliseconds(5 * period));
    EXPECT_TRUE(event->StopTimer());
    EXPECT_EQ(kEventSignaled, event->Wait(0));
    EXPECT_EQ(kEventTimeout, event->Wait(5 * period));
    EXPECT_TRUE(event->StartTimer(true, 1));  // stopped: may start again
}

TEST(RWLock, SharedHoldersAndWaitingWriterFirst) {
    std::unique_ptr<RWLockWrapper> lock(RWLockWrapper::CreateRWLock());
    lock->AcquireLockShared();
    // A second reader gets in while no writer waits.
    std::thread([&] { ReadLockScoped reader(*lock); }).join();

    EventLedger ledger;
    auto contender = [&](const char* aName, bool aWriter, std::atomic<uint32_t>& aTid) {
        aTid = ThreadWrapper::GetThreadId();
        aWriter ? lock->AcquireLockExclusive() : lock->AcquireLockShared();
        ledger.Record(aName);
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
    EXPECT_EQ((std::vector<std::string>{"writer", "reader"}), ledger.Order());

    // Writers exclude each other and the readers (TSan watches the reads).
    int written = 0;
    RunThreads(4, [&](int aThread) {
        for (int i = 0; i < 5000; ++i) {
            if (aThread < 2) {
                WriteLockScoped hold(*lock);
                written += 2;
            } else {
                ReadLockScoped hold(*lock);
                EXPECT_EQ(0, written % 2);
            }
        }
    });
    EXPECT_EQ(20000, written);
}

TEST(Atomic32, ExactUnderContentionAndWrapping) {
    Atomic32 counter(5);
    RunThreads(4, [&](int aThread) {
        for (int i = 0; i < 50000; ++i) {
            aThread % 2 ? ++counter : --counter;
            aThread % 2 ? counter += 3 : counter -= 2;
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
