#include "test_support.h"

namespace {

using TV = ComTimeValueType;

::testing::AssertionResult Is(const TV& aTv, long aSec, long aUsec) {
    if (aTv.GetSec() == aSec && aTv.GetUsec() == aUsec) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "(" << aTv.GetSec() << ", " << aTv.GetUsec() << ")";
}

TEST(ComTimeValueType, NormalisationArithmeticAndComparisons) {
    const long rows[][4] = {{0, 1500000, 1, 500000}, {0, -1500000, -1, -500000},
                            {1, -1, 0, 999999},      {-1, 1, 0, -999999},
                            {0, -1, 0, -1},          {3, 2500000, 5, 500000},
                            {2, -1000000, 1, 0},     {-3, -2500000, -5, -500000}};
    for (const auto& r : rows) EXPECT_TRUE(Is(TV(r[0], r[1]), r[2], r[3])) << r[0] << "," << r[1];
    EXPECT_TRUE(Is(TV(timeval{4, -250000}), 3, 750000));  // tv_usec keeps its sign

    EXPECT_TRUE(Is(TV(0, 999999) + TV(0, 1), 1, 0));
    EXPECT_TRUE(Is(TV(1, 0) - TV(2, 1), -1, -1));
    EXPECT_TRUE(Is(TV(1, 700000) += TV(0, 600000), 2, 300000));

    EXPECT_TRUE(TV(5, 3) > TV(5, 2));
    EXPECT_FALSE(TV(5, 3) > TV(5, 3));
    EXPECT_TRUE(TV(5, 3) >= TV(5, 3));
    EXPECT_TRUE(TV(4, 999999) <= TV(5, 0));
    EXPECT_TRUE(TV(1, 2) == TV(0, 1000002));

    EXPECT_TRUE(Is(TV::s_tvMax, 2147483647, 999999));
    EXPECT_TRUE(TV::s_tvMax > TV::GetTimeOfDay());
    EXPECT_GT(TV::GetTimeOfDay().GetSec(), 1600000000);  // wall clock, not uptime
}

TEST(CMyMutex, RecursiveAndExclusive) {
    CMyMutex mutex;
    int counter = 0;  // TSan and the count catch a lock that excludes nobody
    RunThreads(2, [&](int) {
        for (int i = 0; i < 20000; ++i) {
            PattAutoLock<CMyMutex> outer(mutex);
            PattAutoLock<CMyMutex> inner(mutex);
            ++counter;
        }
    });
    EXPECT_EQ(40000, counter);
}

}  // namespace
