// The list's refusals, its leak line and its lock. Both containers are checked
// against standard-library models by fuzz/fuzz_primitives.cpp, whose corpus the
// suite replays.
#include "test_support.h"

namespace {

using namespace webrtc;

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
    EXPECT_EQ(4u * 5000 / 2, list.GetSize());
    while (list.PopFront() == 0) continue;
}

}  // namespace
