// Sort and KeySort against the standard sorts on every type; aligned allocation.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <numeric>
#include <random>

#include "test_support.h"

namespace {

using namespace webrtc;

// Ascending, NaNs last, -0.0 == +0.0.
template <typename T>
bool Less(T aLeft, T aRight) {
    return std::isnan(aRight) ? !std::isnan(aLeft) : aLeft < aRight;
}

template <typename T>
void CheckType(Type aType) {
    constexpr uint32_t kSizes[] = {1, 2, 3, 4, 8, 16};
    std::mt19937_64 rng(1234 + aType);
    for (uint32_t count : {1u, 200u, 3000u}) {
        for (bool narrow : {false, true}) {
            SCOPED_TRACE(testing::Message() << "type " << aType << " count " << count);
            // Keys from a few random bit patterns, so that equal keys abound; floats
            // add both zeros, infinities and NaNs. Narrow keys leave their top byte
            // 0, which takes the radix sort through an odd number of passes.
            std::vector<T> pool(40), keys(count);
            for (T& key : pool) {
                const uint64_t bits = rng() >> (64 - 8 * (sizeof(T) - (narrow && sizeof(T) > 1)));
                memcpy(&key, &bits, sizeof(T));
            }
            if constexpr (std::is_floating_point_v<T>)
                pool.insert(pool.end(), {T(0), -T(0), T(0), INFINITY, -INFINITY, NAN, -NAN, NAN});
            for (T& key : keys) key = pool[rng() % pool.size()];
            // KeySort moves each element with its key and keeps the order of
            // equal keys; bit patterns show which of two equal keys went where.
            const uint32_t size = kSizes[(aType + count + narrow) % 6];
            std::vector<uint8_t> data(count * size), expectedData;
            for (uint8_t& byte : data) byte = static_cast<uint8_t>(rng());
            std::vector<uint32_t> order(count);
            std::iota(order.begin(), order.end(), 0u);
            std::stable_sort(order.begin(), order.end(),
                             [&](uint32_t a, uint32_t b) { return Less(keys[a], keys[b]); });
            std::vector<T> expected, sorted = keys, sortedKeys = keys;
            for (uint32_t i : order) {
                expected.push_back(keys[i]);
                expectedData.insert(expectedData.end(), &data[i * size], &data[(i + 1) * size]);
            }
            // Sort need not be stable, so only the order of the values counts.
            ASSERT_EQ(0, Sort(sorted.data(), count, aType));
            EXPECT_TRUE(std::equal(sorted.begin(), sorted.end(), expected.begin(),
                                   [](T a, T b) { return !Less(a, b) && !Less(b, a); }));
            ASSERT_EQ(0, KeySort(data.data(), sortedKeys.data(), count, size, aType));
            EXPECT_EQ(0, memcmp(expected.data(), sortedKeys.data(), count * sizeof(T)));
            EXPECT_EQ(expectedData, data);
        }
    }
}

TEST(Sort, EveryTypeMatchesTheStandardSorts) {
    int type = 0;  // the types come in the order of the Type enumerators
    [&](auto... aTags) { (CheckType<decltype(aTags)>(static_cast<Type>(type++)), ...); }(
        int8_t(), uint8_t(), int16_t(), uint16_t(), int32_t(), uint32_t(), int64_t(), uint64_t(),
        float(), double());
}

TEST(Sort, RefusalsLeaveTheArraysAlone) {
    uint32_t v[4] = {3, 1, 2, 0};
    EXPECT_EQ(-1, Sort(nullptr, 4, TYPE_UWord32));
    EXPECT_EQ(-1, Sort(v, 0, TYPE_UWord32));
    EXPECT_EQ(-1, Sort(v, 4, static_cast<Type>(10)));
    EXPECT_EQ(-1, KeySort(nullptr, v, 4, 1, TYPE_UWord32));
    EXPECT_EQ(-1, KeySort(v, nullptr, 4, 1, TYPE_UWord32));
    EXPECT_EQ(-1, KeySort(v, v, 0, 1, TYPE_UWord32));
    EXPECT_EQ(-1, KeySort(v, v, 4, 0, TYPE_UWord32));
    EXPECT_EQ(-1, KeySort(v, v, 2, 0x80000000u, TYPE_UWord32));  // 4 GiB of data
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
