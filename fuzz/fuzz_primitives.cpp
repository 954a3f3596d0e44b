// The primitives' sorts against std::sort and std::stable_sort, and the list
// and map containers against std::list and std::map.
#include <math.h>
#include <string.h>

#include <algorithm>
#include <list>
#include <map>
#include <numeric>
#include <utility>
#include <vector>

#include "fuzz_input.h"
#include "list_wrapper.h"
#include "map_wrapper.h"
#include "sort.h"

namespace {

// Ascending, -0.0 equal to +0.0, every NaN after every number.
template <class T>
bool Less(T aLeft, T aRight) {
    if (std::is_floating_point<T>::value && (isnan(aLeft) || isnan(aRight))) {
        return !isnan(aLeft) && isnan(aRight);
    }
    return aLeft < aRight;
}

template <class T, webrtc::Type kType>
void CheckSorts(FuzzInput& aIn) {
    std::vector<T> keys(aIn.Below(600));  // the radix path starts at 256
    for (T& key : keys) {
        const std::string bytes = aIn.Bytes(sizeof(T));
        memcpy(&key, bytes.data(), bytes.size());  // short reads keep the zeros
    }
    const uint32_t n = static_cast<uint32_t>(keys.size());
    // KeySort moves each element, tagged with its index, with its key; equal keys keep
    // their order. Sort need not be stable, so only the order of its values counts.
    std::vector<uint32_t> order(n);
    std::iota(order.begin(), order.end(), 0);
    std::stable_sort(order.begin(), order.end(),
                     [&](uint32_t a, uint32_t b) { return Less(keys[a], keys[b]); });
    std::vector<T> sorted = keys, keyed = keys;
    FUZZ_CHECK(webrtc::Sort(n ? sorted.data() : nullptr, n, kType) == (n ? 0 : -1));
    const uint32_t size = 4 + aIn.Below(13);
    std::vector<uint8_t> data(static_cast<size_t>(n) * size);
    for (uint32_t i = 0; i < n; ++i) memcpy(&data[i * size], &i, sizeof(i));
    FUZZ_CHECK(webrtc::KeySort(data.data(), n ? keyed.data() : nullptr, n, size, kType) ==
               (n ? 0 : -1));
    for (uint32_t i = 0; i < n; ++i) {
        const T& expected = keys[order[i]];
        FUZZ_CHECK(!Less(sorted[i], expected) && !Less(expected, sorted[i]));
        uint32_t tag;
        memcpy(&tag, &data[i * size], sizeof(tag));
        FUZZ_CHECK(tag == order[i] && memcmp(&keyed[i], &expected, sizeof(T)) == 0);
    }
    // Refused before the data is touched: no element size, or more than 4 GiB of data.
    FUZZ_CHECK(webrtc::KeySort(data.data(), keyed.data(), n, 0, kType) == -1);
    FUZZ_CHECK(webrtc::KeySort(data.data(), keyed.data(), 0x10000000, 16, kType) == -1);
}

void CheckList(FuzzInput& aIn) {
    webrtc::ListWrapper list, other;
    other.PushBack(0u);
    std::list<unsigned int> model;
    unsigned int next = 1;
    while (!aIn.Empty()) {
        const uint32_t index = aIn.Below(model.size() + 2);  // one past the end is null
        webrtc::ListItem* item = list.First();
        for (uint32_t i = 0; item && i < index; ++i) item = list.Next(item);
        if (aIn.Below(8) == 0) item = other.First();  // another list's item is refused
        const bool ours = item && item != other.First();
        auto pos = std::next(model.begin(), ours ? index : model.size());
        const bool front = aIn.Byte() & 1;
        switch (aIn.Below(4)) {
            case 0:
                FUZZ_CHECK((front ? list.PushFront(next) : list.PushBack(next)) == 0);
                model.insert(front ? model.begin() : model.end(), next);
                break;
            case 1:
                FUZZ_CHECK((front ? list.PopFront() : list.PopBack()) == (model.empty() ? -1 : 0));
                if (!model.empty()) model.erase(front ? model.begin() : std::prev(model.end()));
                break;
            case 2:
                FUZZ_CHECK(list.Erase(item) == (ours ? 0 : -1));
                if (ours) model.erase(pos);
                break;
            default: {  // front: InsertBefore, otherwise Insert after
                webrtc::ListItem* fresh = new webrtc::ListItem(next);
                const bool fits = ours || (!item && model.empty());
                const int rv = front ? list.InsertBefore(item, fresh) : list.Insert(item, fresh);
                FUZZ_CHECK(rv == (fits ? 0 : -1));
                if (!fits) delete fresh;  // a refused item stays the caller's
                if (fits) model.insert(ours && !front ? std::next(pos) : pos, next);
                break;
            }
        }
        ++next;
        std::vector<unsigned int> forward, backward;
        for (auto* i = list.First(); i; i = list.Next(i)) forward.push_back(i->GetUnsignedItem());
        for (auto* i = list.Last(); i; i = list.Previous(i)) {
            backward.insert(backward.begin(), i->GetUnsignedItem());
        }
        FUZZ_CHECK(forward == std::vector<unsigned int>(model.begin(), model.end()));
        FUZZ_CHECK(backward == forward && list.GetSize() == model.size() &&
                   list.Empty() == model.empty() && list.Next(other.First()) == nullptr);
    }
}

void CheckMap(FuzzInput& aIn) {
    webrtc::MapWrapper map, other;
    std::map<int, void*> model;
    other.Insert(0, nullptr);  // its item is never this map's, though the id may be
    webrtc::MapItem* const stranger = other.First();
    while (!aIn.Empty()) {
        const int id = static_cast<int>(aIn.Below(16)) - 8;  // few ids, so they collide
        void* value = reinterpret_cast<void*>(static_cast<uintptr_t>(aIn.Byte()) + 1);
        const bool known = model.count(id) != 0;
        webrtc::MapItem* item = aIn.Byte() & 1 ? map.Find(id) : stranger;
        switch (aIn.Below(4)) {
            case 0:
                FUZZ_CHECK(map.Insert(id, value) == 0);  // an existing id takes the new pointer
                model[id] = value;
                break;
            case 1:
                FUZZ_CHECK(map.Erase(id) == (known ? 0 : -1));
                model.erase(id);
                break;
            case 2:
                FUZZ_CHECK(map.Erase(item) == (item != stranger && known ? 0 : -1));
                if (item != stranger) model.erase(id);
                break;
            default:
                if (item != stranger && known) item->SetItem(value), model[id] = value;
                break;
        }
        using Entries = std::vector<std::pair<int, void*>>;
        Entries forward, backward;
        for (auto* i = map.First(); i; i = map.Next(i))
            forward.emplace_back(i->GetId(), i->GetItem());
        for (auto* i = map.Last(); i; i = map.Previous(i)) {
            backward.emplace(backward.begin(), i->GetId(), i->GetItem());
        }
        FUZZ_CHECK(forward == Entries(model.begin(), model.end()) && backward == forward);
        FUZZ_CHECK(map.Size() == static_cast<int>(model.size()) && map.Next(stranger) == nullptr &&
                   (map.Find(id) != nullptr) == (model.count(id) != 0));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    FuzzInput in(aData, aSize);
    static void (*const kChecks[])(FuzzInput&) = {CheckSorts<int8_t, webrtc::TYPE_Word8>,
                                                  CheckSorts<uint8_t, webrtc::TYPE_UWord8>,
                                                  CheckSorts<int16_t, webrtc::TYPE_Word16>,
                                                  CheckSorts<uint16_t, webrtc::TYPE_UWord16>,
                                                  CheckSorts<int32_t, webrtc::TYPE_Word32>,
                                                  CheckSorts<uint32_t, webrtc::TYPE_UWord32>,
                                                  CheckSorts<int64_t, webrtc::TYPE_Word64>,
                                                  CheckSorts<uint64_t, webrtc::TYPE_UWord64>,
                                                  CheckSorts<float, webrtc::TYPE_Float32>,
                                                  CheckSorts<double, webrtc::TYPE_Float64>,
                                                  CheckList,
                                                  CheckMap};
    kChecks[in.Below(12)](in);
    return 0;
}
