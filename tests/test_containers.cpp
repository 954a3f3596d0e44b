// The list and map containers against standard-library models (ownership is
// checked by ASan), their refusals, the list's leak line and its lock.
#include <list>
#include <map>
#include <random>

#include "test_support.h"

namespace {

using namespace webrtc;

// What an item holds; pointer list items point at their own value.
unsigned Value(ListItem* aItem) {
    const void* ptr = aItem->GetItem();
    return ptr ? *static_cast<const unsigned*>(ptr) : aItem->GetUnsignedItem();
}
std::pair<int, void*> Value(MapItem* aItem) {
    return {aItem->GetId(), aItem->GetItem()};
}

// The values from First on; walking back from Last must find the same.
template <typename Container>
auto Walk(const Container& aItems) {
    std::list<decltype(Value(aItems.First()))> forward, backward;
    for (auto* i = aItems.First(); i; i = aItems.Next(i)) forward.push_back(Value(i));
    for (auto* i = aItems.Last(); i; i = aItems.Previous(i)) backward.push_front(Value(i));
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
        const unsigned op = rng() % 7;
        // The model takes each edit the list accepts; only removals from an empty list fail.
        int rv = 0;
        if (op == 0 && (rv = list.PushBack(step)) == 0) model.push_back(step);
        if (op == 1 && (rv = list.PushFront(&cells[step])) == 0) model.push_front(step);
        if (op == 2 && (rv = list.InsertBefore(item, new ListItem(&cells[step]))) == 0)
            model.insert(at, step);
        if (op == 3 && (rv = list.Insert(item, new ListItem(step))) == 0)
            model.insert(empty ? at : ++at, step);
        if (op == 4 && (rv = list.Erase(item)) == 0) model.erase(at);
        if (op == 5 && (rv = list.PopBack()) == 0) model.pop_back();
        if (op == 6 && (rv = list.PopFront()) == 0) model.pop_front();
        ASSERT_EQ(empty && op >= 4 ? -1 : 0, rv);
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
        for (unsigned value : {5u, 6u}) other.PushBack(value);
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
    std::mt19937 rng(11);
    char cells[16];
    other.Insert(0, cells);
    MapItem loose(1, cells);
    for (int step = 0; step < 4000; ++step) {
        const int id = static_cast<int>(rng() % 64) - 32;
        MapItem* found = map.Find(id);
        ASSERT_EQ(model.count(id) ? model[id] : nullptr, found ? found->GetItem() : nullptr);
        const unsigned op = rng() % 4;
        if (op < 2) ASSERT_EQ(0, map.Insert(id, model[id] = &cells[rng() % 16]));
        if (op == 2) EXPECT_EQ(model.erase(id) ? 0 : -1, map.Erase(id));
        if (op == 3) EXPECT_EQ(model.erase(id) ? 0 : -1, map.Erase(found));
        ASSERT_EQ(static_cast<int>(model.size()), map.Size());
        ASSERT_EQ(decltype(Walk(map))(model.begin(), model.end()), Walk(map));
        // Items of another map, or of none, are never this map's, whatever their id.
        for (MapItem* foreign : {other.First(), &loose, static_cast<MapItem*>(nullptr)}) {
            ASSERT_EQ(nullptr, map.Next(foreign));
            ASSERT_EQ(nullptr, map.Previous(foreign));
            ASSERT_EQ(-1, map.Erase(foreign));
        }
    }
}

}  // namespace
