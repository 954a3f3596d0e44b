// Sorting a million values of each width, and a key sort carrying 8-byte
// elements, against std::sort and std::stable_sort on the same input. Every
// iteration copies the input back into the work buffer inside the timing, on
// both sides alike: a sort consumes its input.
#include <algorithm>
#include <random>
#include <utility>
#include <vector>

#include "bench_support.h"

namespace {

constexpr size_t kCount = 1000000;

template <typename T>
std::vector<T> RandomInput() {
    std::mt19937_64 rng(20240611);
    std::vector<T> values(kCount);
    if constexpr (std::is_floating_point_v<T>) {
        std::uniform_real_distribution<T> range(-1e6, 1e6);
        for (T& value : values) value = range(rng);
    } else {
        for (T& value : values) value = static_cast<T>(rng());
    }
    return values;
}

template <typename T, webrtc::Type kType>
void SortLib(benchmark::State& aState) {
    const std::vector<T> input = RandomInput<T>();
    std::vector<T> work(kCount);
    for (auto _ : aState) {
        std::copy(input.begin(), input.end(), work.begin());
        BENCH_REQUIRE(aState, webrtc::Sort(work.data(), kCount, kType) == 0);
        benchmark::ClobberMemory();
    }
    BENCH_REQUIRE(aState, std::is_sorted(work.begin(), work.end()));
}

template <typename T>
void SortStd(benchmark::State& aState) {
    const std::vector<T> input = RandomInput<T>();
    std::vector<T> work(kCount);
    for (auto _ : aState) {
        std::copy(input.begin(), input.end(), work.begin());
        std::sort(work.begin(), work.end());
        benchmark::ClobberMemory();
    }
}

// 32-bit keys from a range of 2^20, so that equal keys occur and stability
// matters; the element is the key's original position.
std::vector<uint32_t> RandomKeys() {
    std::vector<uint32_t> keys = RandomInput<uint32_t>();
    for (uint32_t& key : keys) key >>= 12;
    return keys;
}

void KeySortLib(benchmark::State& aState) {
    const std::vector<uint32_t> keys = RandomKeys();
    std::vector<uint64_t> elements(kCount);
    for (size_t i = 0; i < kCount; ++i) elements[i] = i;
    std::vector<uint32_t> workKeys(kCount);
    std::vector<uint64_t> workElements(kCount);
    for (auto _ : aState) {
        std::copy(keys.begin(), keys.end(), workKeys.begin());
        std::copy(elements.begin(), elements.end(), workElements.begin());
        BENCH_REQUIRE(aState, webrtc::KeySort(workElements.data(), workKeys.data(), kCount,
                                              sizeof(uint64_t), webrtc::TYPE_UWord32) == 0);
        benchmark::ClobberMemory();
    }
    BENCH_REQUIRE(aState, std::is_sorted(workKeys.begin(), workKeys.end()));
}

void KeySortStd(benchmark::State& aState) {
    const std::vector<uint32_t> keys = RandomKeys();
    std::vector<std::pair<uint32_t, uint64_t>> input(kCount);
    for (size_t i = 0; i < kCount; ++i) input[i] = {keys[i], i};
    std::vector<std::pair<uint32_t, uint64_t>> work(kCount);
    for (auto _ : aState) {
        std::copy(input.begin(), input.end(), work.begin());
        std::stable_sort(work.begin(), work.end(), [](const auto& aLeft, const auto& aRight) {
            return aLeft.first < aRight.first;
        });
        benchmark::ClobberMemory();
    }
}

const bool kRegistered = [] {
    using bench::Name;
    const auto both = [](const char* aWorkload, auto aLib, auto aStd) {
        benchmark::RegisterBenchmark(Name(aWorkload, bench::kLib).c_str(), aLib)
            ->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark(Name(aWorkload, bench::kStd).c_str(), aStd)
            ->Unit(benchmark::kMillisecond);
    };
    both("sort_u32_1m", SortLib<uint32_t, webrtc::TYPE_UWord32>, SortStd<uint32_t>);
    both("sort_i64_1m", SortLib<int64_t, webrtc::TYPE_Word64>, SortStd<int64_t>);
    both("sort_f32_1m", SortLib<float, webrtc::TYPE_Float32>, SortStd<float>);
    both("sort_f64_1m", SortLib<double, webrtc::TYPE_Float64>, SortStd<double>);
    both("keysort_u32_1m", KeySortLib, KeySortStd);
    return true;
}();

}  // namespace
