// The list and map containers against standard-library models (ownership is
// checked by ASan), their refusals, the list's leak line and its lock.
#include <list>
#include <map>
#include <random>

#include "test_support.h"

namespace {

using webrtc::ListItem;
using webrtc::ListWrapper;
using webrtc::MapItem;
using webrtc::MapWrapper;

// Walks forwards and backwards; pointer items point at their own value.
std::list<unsigned> Walk(const ListWrapper& aList) {
    auto value = [](ListItem* aItem) {
        const void* ptr = aItem->GetItem();
        return ptr ? *static_cast<const unsigned*>(ptr) : aItem->GetUnsignedItem();
    };
    std::list<unsigned> forward, backward;
    for (ListItem* i = aList.First(); i; i = aList.Next(i)) forward.push_back(value(i));
    for (ListItem* i = aList.Last(); i; i = aList.Previous(i)) backward.push_front(value(i));
    EXPECT_EQ(forward, backward);
    return forward;
}

TEST(List, FollowsModelThroughRandomEdits) {
    std::vector<unsigned> cells(3000);
    ListWrapper list;
    std::list<unsigned> model;
    std::mt19937 rng(7);
    for (unsigned step = 0; step < cells.size(); ++step) {
        cells[step] = step;
        const bool empty = model.empty();
        auto at = model.begin();
        ListItem* item = list.First();
        for (size_t k = empty ? 0 : rng() % model.size(); k > 0; --k, ++at) item = list.Next(item);
        const unsigned op = rng() % 6;
        int result = 0;
        if (op == 0) result = list.PushBack(step), model.push_back(step);
        if (op == 1) result = list.PushFront(&cells[step]), model.push_front(step);
        if (op == 2) result = list.InsertBefore(item, new ListItem(&cells[step]));
        if (op == 2) model.insert(at, step);
        if (op == 3) result = list.Insert(item, new ListItem(step));
        if (op == 3) model.insert(empty ? at : std::next(at), step);
        if (op == 4) result = list.Erase(item);
        if (op == 4 && !empty) model.erase(at);
        if (op == 5) result = step % 2 ? list.PopBack() : list.PopFront();
        if (op == 5 && !empty) step % 2 ? model.pop_back() : model.pop_front();
        ASSERT_EQ(empty && op >= 4 ? -1 : 0, result);
        ASSERT_EQ(model.size(), list.GetSize());
        ASSERT_EQ(model.empty(), list.Empty());
        ASSERT_EQ(model, Walk(list));
    }
    while (list.PopFront() == 0) continue;
}

// Ends with a list destroyed while holding items: they are freed, with one line.
TEST(List, RefusalsLeaveEverythingWithItsOwner) {
    TraceCapture trace;
    {
        ListWrapper list, other;
        ListItem spare(7u);  // a stack item: adopting it would end in a bad delete
        EXPECT_EQ(-1, list.Insert(nullptr, nullptr));
        ListItem* only = new ListItem(&spare);
        ASSERT_EQ(0, list.InsertBefore(nullptr, only));
        EXPECT_EQ(0u, only->GetUnsignedItem());
        other.PushBack(5u);
        other.PushBack(6u);
        ListItem* foreign = other.First();
        for (ListItem* item : {foreign, other.Last(), static_cast<ListItem*>(nullptr)}) {
            EXPECT_EQ(nullptr, list.Next(item));
            EXPECT_EQ(nullptr, list.Previous(item));
            EXPECT_EQ(-1, list.Insert(item, &spare));
            EXPECT_EQ(-1, list.InsertBefore(item, &spare));
        }
        EXPECT_EQ(-1, list.Insert(only, foreign));
        EXPECT_EQ(-1, list.InsertBefore(only, only));
        EXPECT_EQ(-1, list.Erase(foreign));
        EXPECT_EQ(0, list.Erase(only));
    }
    ASSERT_EQ(1u, trace.Lines().size());
    EXPECT_EQ(1u, trace.Count(kDebug, "[TF]: id=-1, Potential memory leak in ListWrapper"));
}

TEST(List, ThreadsPushAndPopAtOnce) {
    ListWrapper list;
    RunThreads(4, [&list](int t) {
        // A thread pops only after pushing more than it popped: never from an empty list.
        for (unsigned i = 0; i < 5000; ++i) {
            t % 2 ? list.PushFront(i) : list.PushBack(i);
            if (i % 2) EXPECT_EQ(0, t % 2 ? list.PopBack() : list.PopFront());
        }
    });
    EXPECT_EQ(4u * 5000 / 2, Walk(list).size());
    while (list.PopFront() == 0) continue;
}

TEST(Map, FollowsModelThroughRandomEdits) {
    MapWrapper map, other;
    std::map<int, void*> model;
    std::vector<std::pair<int, void*>> forward, backward;
    std::mt19937 rng(11);
    char cells[16];
    other.Insert(0, cells);
    MapItem loose(1, cells);
    for (int step = 0; step < 4000; ++step) {
        const int id = static_cast<int>(rng() % 64) - 32;
        MapItem* found = map.Find(id);
        ASSERT_EQ(model.count(id) ? model[id] : nullptr, found ? found->GetItem() : nullptr);
        const unsigned op = rng() % 4;
        if (op < 2) model[id] = &cells[rng() % 16];
        if (op < 2) ASSERT_EQ(0, map.Insert(id, model[id]));
        if (op == 2) EXPECT_EQ(model.erase(id) ? 0 : -1, map.Erase(id));
        if (op == 3) EXPECT_EQ(model.erase(id) ? 0 : -1, map.Erase(found));
        ASSERT_EQ(static_cast<int>(model.size()), map.Size());
        forward.clear(), backward.clear();
        for (MapItem* i = map.First(); i; i = map.Next(i))
            forward.emplace_back(i->GetId(), i->GetItem());
        for (MapItem* i = map.Last(); i; i = map.Previous(i))
            backward.emplace(backward.begin(), i->GetId(), i->GetItem());
        ASSERT_EQ(decltype(forward)(model.begin(), model.end()), forward);
        ASSERT_EQ(forward, backward);
        // Items of another map, or of none, are never this map's, whatever their id.
        for (MapItem* foreign : {other.First(), &loose, static_cast<MapItem*>(nullptr)}) {
            ASSERT_EQ(nullptr, map.Next(foreign));
            ASSERT_EQ(nullptr, map.Previous(foreign));
            ASSERT_EQ(-1, map.Erase(foreign));
        }
    }
    EXPECT_EQ(static_cast<unsigned>(-5), MapItem(-5, nullptr).GetUnsignedId());
}

}  // namespace
