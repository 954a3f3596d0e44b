// Sort and KeySort: a least-significant-digit radix sort, one byte per pass,
// over an unsigned image of each value whose natural order is the wanted one.
// Small arrays go to the standard comparison sorts under the same order.
#include "sort.h"

#include <string.h>

#include <algorithm>
#include <limits>
#include <memory>
#include <new>
#include <type_traits>

namespace webrtc {

namespace {

// Below this many elements the per-pass bucket bookkeeping of the radix sort
// costs more than a comparison sort saves.
constexpr uint32_t kRadixThreshold = 256;

template <size_t kBytes>
struct UnsignedOfSize;
template <>
struct UnsignedOfSize<1> {
    using type = uint8_t;
};
template <>
struct UnsignedOfSize<2> {
    using type = uint16_t;
};
template <>
struct UnsignedOfSize<4> {
    using type = uint32_t;
};
template <>
struct UnsignedOfSize<8> {
    using type = uint64_t;
};
template <typename T>
using Unsigned = typename UnsignedOfSize<sizeof(T)>::type;

// The order-preserving image: signed integers flip the sign bit; floats flip
// every bit when negative and only the sign bit otherwise, then -0.0 joins
// +0.0 and every NaN takes the top image. Branch-free where the sign decides,
// since random signs would defeat the branch predictor on every pass.
template <typename T>
Unsigned<T> SortKey(T aValue) {
    using U = Unsigned<T>;
    constexpr int kBits = sizeof(U) * 8;
    constexpr U kSign = static_cast<U>(U(1) << (kBits - 1));
    if constexpr (std::is_unsigned_v<T>) {
        return aValue;
    } else if constexpr (std::is_integral_v<T>) {
        return static_cast<U>(static_cast<U>(aValue) ^ kSign);
    } else {
        static_assert(std::numeric_limits<T>::is_iec559, "IEEE-754 floats only");
        constexpr int kMantissaBits = std::numeric_limits<T>::digits - 1;
        constexpr U kInfinity = static_cast<U>((kSign - 1) & ~((U(1) << kMantissaBits) - 1));
        U bits;
        memcpy(&bits, &aValue, sizeof(bits));
        U key = bits ^ (static_cast<U>(U(0) - (bits >> (kBits - 1))) | kSign);
        // -0.0 lands just below +0.0; lift it onto it.
        key += static_cast<U>(key == kSign - 1);
        key |= static_cast<U>(U(0) - static_cast<U>((bits & (kSign - 1)) > kInfinity));
        return key;
    }
}

template <typename U>
unsigned Digit(U aKey, int aIndex) {
    return static_cast<unsigned>(aKey >> (8 * aIndex)) & 0xFF;
}

// Stable radix sort of aCount items by aKeyOf(item), moving them between
// aItems and aScratch (aCount items each); returns the one holding the result.
// A byte that all keys share costs no pass.
template <typename Item, typename KeyOf>
Item* RadixSort(Item* aItems, Item* aScratch, uint32_t aCount, KeyOf aKeyOf) {
    using U = decltype(aKeyOf(*aItems));
    constexpr int kDigits = sizeof(U);
    uint32_t counts[kDigits][256] = {};
    for (uint32_t i = 0; i < aCount; ++i) {
        const U key = aKeyOf(aItems[i]);
        for (int d = 0; d < kDigits; ++d) ++counts[d][Digit(key, d)];
    }
    const U first = aKeyOf(aItems[0]);
    Item* from = aItems;
    Item* to = aScratch;
    for (int d = 0; d < kDigits; ++d) {
        uint32_t* offsets = counts[d];
        if (offsets[Digit(first, d)] == aCount) continue;
        uint32_t sum = 0;
        for (int bucket = 0; bucket < 256; ++bucket) {
            const uint32_t count = offsets[bucket];
            offsets[bucket] = sum;
            sum += count;
        }
        for (uint32_t i = 0; i < aCount; ++i) {
            const Item item = from[i];
            to[offsets[Digit(aKeyOf(item), d)]++] = item;
        }
        std::swap(from, to);
    }
    return from;
}

template <typename T>
void SortValues(T* aData, uint32_t aCount) {
    const auto keyOf = [](T aValue) { return SortKey(aValue); };
    if (aCount >= kRadixThreshold) {
        std::unique_ptr<T[]> scratch(new (std::nothrow) T[aCount]);
        if (scratch) {
            const T* sorted = RadixSort(aData, scratch.get(), aCount, keyOf);
            if (sorted != aData) memcpy(aData, sorted, static_cast<size_t>(aCount) * sizeof(T));
            return;
        }
        // Without scratch memory the comparison sort still does the job in place.
    }
    std::sort(aData, aData + aCount,
              [&](T aLeft, T aRight) { return keyOf(aLeft) < keyOf(aRight); });
}

// A key's image and where the key stood; sorting these stably is sorting the
// keys stably.
template <typename U>
struct Entry {
    U key;
    uint32_t index;
};

template <size_t kSize, typename E>
void GatherFixed(uint8_t* aTo, const uint8_t* aFrom, const E* aOrder, uint32_t aCount) {
    for (uint32_t i = 0; i < aCount; ++i) {
        memcpy(aTo + static_cast<size_t>(i) * kSize,
               aFrom + static_cast<size_t>(aOrder[i].index) * kSize, kSize);
    }
}

// Copies the elements of aFrom into aTo in aOrder. The common sizes get a
// copy of fixed size, which compiles to a plain load and store.
template <typename E>
void Gather(uint8_t* aTo, const uint8_t* aFrom, const E* aOrder, uint32_t aCount, uint32_t aSize) {
    switch (aSize) {
        case 1:
            return GatherFixed<1>(aTo, aFrom, aOrder, aCount);
        case 2:
            return GatherFixed<2>(aTo, aFrom, aOrder, aCount);
        case 4:
            return GatherFixed<4>(aTo, aFrom, aOrder, aCount);
        case 8:
            return GatherFixed<8>(aTo, aFrom, aOrder, aCount);
        case 16:
            return GatherFixed<16>(aTo, aFrom, aOrder, aCount);
        default:
            for (uint32_t i = 0; i < aCount; ++i) {
                memcpy(aTo + static_cast<size_t>(i) * aSize,
                       aFrom + static_cast<size_t>(aOrder[i].index) * aSize, aSize);
            }
    }
}

template <typename K>
int32_t SortByKeys(uint8_t* aData, K* aKeys, uint32_t aCount, uint32_t aSize) {
    using E = Entry<Unsigned<K>>;
    const size_t dataBytes = static_cast<size_t>(aCount) * aSize;
    // A stable sort that moves elements of any size has no in-place fallback
    // worth having, so without its scratch memory the call is refused and the
    // arrays stay as they were.
    std::unique_ptr<E[]> entries(new (std::nothrow) E[static_cast<size_t>(aCount) * 2]);
    std::unique_ptr<K[]> keys(new (std::nothrow) K[aCount]);
    std::unique_ptr<uint8_t[]> data(new (std::nothrow) uint8_t[dataBytes]);
    if (!entries || !keys || !data) return -1;

    for (uint32_t i = 0; i < aCount; ++i) entries[i] = E{SortKey(aKeys[i]), i};
    const E* order = entries.get();
    if (aCount >= kRadixThreshold) {
        order = RadixSort(entries.get(), entries.get() + aCount, aCount,
                          [](const E& aEntry) { return aEntry.key; });
    } else {
        std::stable_sort(entries.get(), entries.get() + aCount,
                         [](const E& aLeft, const E& aRight) { return aLeft.key < aRight.key; });
    }
    // The keys come from the caller's array, not from their images, so that
    // -0.0 and NaN payloads survive.
    for (uint32_t i = 0; i < aCount; ++i) keys[i] = aKeys[order[i].index];
    Gather(data.get(), aData, order, aCount, aSize);
    memcpy(aKeys, keys.get(), static_cast<size_t>(aCount) * sizeof(K));
    memcpy(aData, data.get(), dataBytes);
    return 0;
}

// Calls aDo with a value of the C++ type that aType names; -1 for an unknown type.
template <typename F>
int32_t WithType(Type aType, F aDo) {
    switch (aType) {
        case TYPE_Word8:
            return aDo(int8_t());
        case TYPE_UWord8:
            return aDo(uint8_t());
        case TYPE_Word16:
            return aDo(int16_t());
        case TYPE_UWord16:
            return aDo(uint16_t());
        case TYPE_Word32:
            return aDo(int32_t());
        case TYPE_UWord32:
            return aDo(uint32_t());
        case TYPE_Word64:
            return aDo(int64_t());
        case TYPE_UWord64:
            return aDo(uint64_t());
        case TYPE_Float32:
            return aDo(float());
        case TYPE_Float64:
            return aDo(double());
    }
    return -1;
}

}  // namespace

int32_t Sort(void* aData, uint32_t aNumOfElements, Type aDataType) {
    if (aData == nullptr || aNumOfElements == 0) return -1;
    return WithType(aDataType, [&](auto aTag) {
        SortValues(static_cast<decltype(aTag)*>(aData), aNumOfElements);
        return 0;
    });
}

int32_t KeySort(void* aData, void* aKey, uint32_t aNumOfElements, uint32_t aSizeOfElement,
                Type aKeyType) {
    if (aData == nullptr || aKey == nullptr || aNumOfElements == 0 || aSizeOfElement == 0) {
        return -1;
    }
    if (static_cast<uint64_t>(aNumOfElements) * aSizeOfElement > UINT32_MAX) return -1;
    return WithType(aKeyType, [&](auto aTag) {
        return SortByKeys(static_cast<uint8_t*>(aData), static_cast<decltype(aTag)*>(aKey),
                          aNumOfElements, aSizeOfElement);
    });
}

}  // namespace webrtc
