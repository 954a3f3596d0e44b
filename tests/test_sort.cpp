// The sorts' refusals and aligned allocation. Sort and KeySort are checked against
// the standard sorts by fuzz/fuzz_primitives.cpp, whose corpus the suite replays.
#include <cstring>

#include "test_support.h"

namespace {

using namespace webrtc;

TEST(Sort, RefusalsLeaveTheArraysAlone) {
    uint32_t v[4] = {3, 1, 2, 0};
    EXPECT_EQ(-1, Sort(nullptr, 4, TYPE_UWord32));
    EXPECT_EQ(-1, Sort(v, 0, TYPE_UWord32));
    EXPECT_EQ(-1, Sort(v, 4, static_cast<Type>(10)));
    EXPECT_EQ(-1, KeySort(nullptr, v, 4, 1, TYPE_UWord32));
    EXPECT_EQ(-1, KeySort(v, nullptr, 4, 1, TYPE_UWord32));
    EXPECT_EQ(-1, KeySort(v, v, 0, 1, TYPE_UWord32));
    EXPECT_EQ(-1, KeySort(v, v, 4, 1, static_cast<Type>(-1)));
    EXPECT_EQ(3u, v[0]);
}

TEST(AlignedMalloc, AlignsWholeBlocksAndRefuses) {
    for (size_t alignment = 1; alignment <= 4096; alignment *= 2) {
        for (size_t size : {1, 100, 5000}) {
            char* block = AlignedMalloc<char>(size, alignment);
            ASSERT_NE(nullptr, block);
            EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(block) % alignment);
            memset(block, 0x5a, size);
            AlignedFree(block);
        }
    }
    EXPECT_EQ(nullptr, AlignedMalloc(0, 16));
    EXPECT_EQ(nullptr, AlignedMalloc(16, 0));
    EXPECT_EQ(nullptr, AlignedMalloc(16, 24));
    AlignedFree(nullptr);

    EXPECT_EQ(16u, GetRightAlign(1, 16));
    EXPECT_EQ(33u, GetRightAlign(33, 1));
    EXPECT_EQ(0u, GetRightAlign(33, 48));
    EXPECT_EQ(UINTPTR_MAX - 15, GetRightAlign(UINTPTR_MAX - 15, 16));
    EXPECT_EQ(0u, GetRightAlign(UINTPTR_MAX - 14, 16));
}

}  // namespace
