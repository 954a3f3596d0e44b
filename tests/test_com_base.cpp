#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "ComBase.h"

namespace {

void ExpectTv(const ComTimeValueType& aTv, long aSec, long aUsec) {
    EXPECT_EQ(aSec, aTv.GetSec());
    EXPECT_EQ(aUsec, aTv.GetUsec());
}

TEST(ComTimeValueType, NormalisesCarryAndSigns) {
    struct Row {
        long sec, usec, wantSec, wantUsec;
    } rows[] = {
        {0, 1500000, 1, 500000},
        {0, -1500000, -1, -500000},
        {1, -1, 0, 999999},
        {-1, 1, 0, -999999},
        {0, -1, 0, -1},
        {3, 2500000, 5, 500000},
        {-3, -2500000, -5, -500000},
        {2, -1000000, 1, 0},
        {0, 999999, 0, 999999},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(testing::Message() << "(" << r.sec << ", " << r.usec << ")");
        ExpectTv(ComTimeValueType(r.sec, r.usec), r.wantSec, r.wantUsec);
        ComTimeValueType set;
        set.Set(r.sec, r.usec);
        ExpectTv(set, r.wantSec, r.wantUsec);
    }

    timeval tv{4, -250000};  // a negative tv_usec keeps its sign
    ExpectTv(ComTimeValueType(tv), 3, 750000);
    ExpectTv(ComTimeValueType(), 0, 0);
}

TEST(ComTimeValueType, ArithmeticAndComparisons) {
    ExpectTv(ComTimeValueType(0, 999999) + ComTimeValueType(0, 1), 1, 0);
    ExpectTv(ComTimeValueType(1, 0) - ComTimeValueType(2, 0), -1, 0);
    ExpectTv(ComTimeValueType(1, 0) - ComTimeValueType(1, 1), 0, -1);
    ExpectTv(ComTimeValueType(0, 500000) - ComTimeValueType(2, 0), -1, -500000);
    ComTimeValueType acc(1, 700000);
    acc += ComTimeValueType(0, 600000);
    ExpectTv(acc, 2, 300000);

    EXPECT_TRUE(ComTimeValueType(5, 3) > ComTimeValueType(5, 2));
    EXPECT_FALSE(ComTimeValueType(5, 3) > ComTimeValueType(5, 3));
    EXPECT_TRUE(ComTimeValueType(5, 3) >= ComTimeValueType(5, 3));
    EXPECT_TRUE(ComTimeValueType(4, 999999) <= ComTimeValueType(5, 0));
    EXPECT_FALSE(ComTimeValueType(5, 0) <= ComTimeValueType(4, 999999));
    // Signed: a negative fraction is below zero, and seconds decide first.
    EXPECT_TRUE(ComTimeValueType::s_tvZero > ComTimeValueType(0, -1));
    EXPECT_TRUE(ComTimeValueType(-1, 0) <= ComTimeValueType(0, -999999));
    EXPECT_TRUE(ComTimeValueType(6, 0) > ComTimeValueType(5, 999999));
    EXPECT_TRUE(ComTimeValueType(1, 2) == ComTimeValueType(0, 1000002));
    EXPECT_FALSE(ComTimeValueType(1, 2) == ComTimeValueType(1, 3));
}

TEST(ComTimeValueType, ConstantsAndClock) {
    ExpectTv(ComTimeValueType::s_tvZero, 0, 0);
    ExpectTv(ComTimeValueType::s_tvMax, 2147483647, 999999);
    ComTimeValueType now = ComTimeValueType::GetTimeOfDay();
    EXPECT_TRUE(ComTimeValueType::s_tvMax > now);
    EXPECT_FALSE(now == ComTimeValueType::s_tvMax);
    EXPECT_TRUE(ComTimeValueType::s_tvMax == ComTimeValueType(2147483647, 999999));
    EXPECT_GT(now.GetSec(), 1600000000);  // wall clock, not uptime
    EXPECT_GE(now.GetUsec(), 0);
    EXPECT_LE(now.GetUsec(), 999999);
}

TEST(CMyMutex, RecursiveLockNeedsAsManyUnlocksBeforeAnotherThreadGetsIt) {
    CMyMutex mutex;
    ASSERT_EQ(0, mutex.Lock());
    ASSERT_EQ(0, mutex.Lock());
    EXPECT_NE(nullptr, mutex.GetMutexType());

    std::atomic<int> stage{0};
    std::thread other([&] {
        mutex.Lock();
        stage = 2;
        mutex.UnLock();
    });
    ASSERT_EQ(0, mutex.UnLock());
    // Still held once: the other thread must not get in.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(0, stage.load());
    stage = 1;
    ASSERT_EQ(0, mutex.UnLock());
    other.join();
    EXPECT_EQ(2, stage.load());
}

TEST(PattAutoLock, HoldsForItsScopeAndNests) {
    CMyMutex mutex;
    int counter = 0;
    auto work = [&] {
        for (int i = 0; i < 20000; ++i) {
            PattAutoLock<CMyMutex> outer(mutex);
            PattAutoLock<CMyMutex> inner(mutex);  // recursive: no deadlock
            ++counter;
        }
    };
    std::thread a(work), b(work);
    a.join();
    b.join();
    EXPECT_EQ(40000, counter);
}

}  // namespace
