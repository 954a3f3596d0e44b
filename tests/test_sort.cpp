// Sort and KeySort against the standard sorts on every type; aligned allocation.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <numeric>
#include <random>

#include "test_support.h"

namespace {

using webrtc::Type;

// Ascending, NaNs last, -0.0 == +0.0.
template <typename T>
bool Less(T aLeft, T aRight) {
    return std::isnan(aRight) ? !std::isnan(aLeft) : aLeft < aRight;
}

// Drawn from a few random bit patterns so that equal keys abound; floats add
// both zeros, infinities and NaNs. Narrow values leave their top byte 0, which
// takes the radix sort through an odd number of passes.
template <typename T>
std::vector<T> Values(uint32_t aCount, bool aNarrow, std::mt19937_64& aRng) {
    std::vector<T> pool(40);
    for (T& value : pool) {
        uint64_t bits = aRng() >> (aNarrow ? 64 - 8 * (sizeof(T) - 1) : 64 - 8 * sizeof(T));
        memcpy(&value, &bits, sizeof(T));
    }
    if constexpr (std::is_floating_point_v<T>) {
        pool.insert(pool.end(), {T(0), -T(0), T(0), INFINITY, -INFINITY, NAN, -NAN, NAN});
    }
    std::vector<T> values(aCount);
    for (T& value : values) value = pool[aRng() % pool.size()];
    return values;
}

template <typename T>
void CheckType(Type aType) {
    constexpr uint32_t kSizes[] = {1, 2, 3, 4, 8, 16};
    std::mt19937_64 rng(1234 + aType);
    for (uint32_t count : {1u, 200u, 3000u}) {
        for (bool narrow : {false, true}) {
            SCOPED_TRACE(testing::Message() << "type " << aType << " count " << count);
            const std::vector<T> keys = Values<T>(count, narrow && sizeof(T) > 1, rng);
            std::vector<T> sorted = keys, expected = keys;
            std::sort(expected.begin(), expected.end(), Less<T>);
            ASSERT_EQ(0, webrtc::Sort(sorted.data(), count, aType));
            EXPECT_TRUE(std::equal(sorted.begin(), sorted.end(), expected.begin(),
                                   [](T a, T b) { return !Less(a, b) && !Less(b, a); }));

            // KeySort moves each element with its key and keeps the order of
            // equal keys; bit patterns show which of two equal keys went where.
            const uint32_t size = kSizes[(aType + count + narrow) % 6];
            std::vector<uint8_t> data(count * size);
            for (uint8_t& byte : data) byte = static_cast<uint8_t>(rng());
            std::vector<uint32_t> order(count);
            std::iota(order.begin(), order.end(), 0u);
            std::stable_sort(order.begin(), order.end(),
                             [&](uint32_t a, uint32_t b) { return Less(keys[a], keys[b]); });
            std::vector<T> expectedKeys;
            std::vector<uint8_t> expectedData;
            for (uint32_t i : order) {
                expectedKeys.push_back(keys[i]);
                expectedData.insert(expectedData.end(), &data[i * size], &data[(i + 1) * size]);
            }
            std::vector<T> sortedKeys = keys;
            ASSERT_EQ(0, webrtc::KeySort(data.data(), sortedKeys.data(), count, size, aType));
            EXPECT_EQ(0, memcmp(expectedKeys.data(), sortedKeys.data(), count * sizeof(T)));
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
    EXPECT_EQ(-1, webrtc::Sort(nullptr, 4, webrtc::TYPE_UWord32));
    EXPECT_EQ(-1, webrtc::Sort(v, 0, webrtc::TYPE_UWord32));
    EXPECT_EQ(-1, webrtc::Sort(v, 4, static_cast<Type>(10)));
    EXPECT_EQ(-1, webrtc::KeySort(nullptr, v, 4, 1, webrtc::TYPE_UWord32));
    EXPECT_EQ(-1, webrtc::KeySort(v, nullptr, 4, 1, webrtc::TYPE_UWord32));
    EXPECT_EQ(-1, webrtc::KeySort(v, v, 0, 1, webrtc::TYPE_UWord32));
    EXPECT_EQ(-1, webrtc::KeySort(v, v, 4, 0, webrtc::TYPE_UWord32));
    EXPECT_EQ(-1, webrtc::KeySort(v, v, 2, 0x80000000u, webrtc::TYPE_UWord32));
    EXPECT_EQ(-1, webrtc::KeySort(v, v, 4, 1, static_cast<Type>(-1)));
    EXPECT_EQ(3u, v[0]);
}

TEST(AlignedMalloc, AlignsWholeBlocksAndRefuses) {
    for (size_t alignment = 1; alignment <= 4096; alignment *= 2) {
        for (size_t size : {1, 100, 5000}) {
            char* block = webrtc::AlignedMalloc<char>(size, alignment);
            ASSERT_NE(nullptr, block);
            EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(block) % alignment);
            memset(block, 0x5a, size);
            webrtc::AlignedFree(block);
        }
    }
    EXPECT_EQ(nullptr, webrtc::AlignedMalloc(0, 16));
    EXPECT_EQ(nullptr, webrtc::AlignedMalloc(16, 0));
    EXPECT_EQ(nullptr, webrtc::AlignedMalloc(16, 24));
    webrtc::AlignedFree(nullptr);

    EXPECT_EQ(16u, webrtc::GetRightAlign(1, 16));
    EXPECT_EQ(33u, webrtc::GetRightAlign(33, 1));
    EXPECT_EQ(0u, webrtc::GetRightAlign(33, 48));
    EXPECT_EQ(UINTPTR_MAX - 15, webrtc::GetRightAlign(UINTPTR_MAX - 15, 16));
    EXPECT_EQ(0u, webrtc::GetRightAlign(UINTPTR_MAX - 14, 16));
}

}  // namespace
