// The list's refusals, its leak line and its lock. Both containers are checked
// against standard-library models by fuzz/fuzz_primitives.cpp, whose corpus the
// suite replays.
#include "test_support.h"

namespace {

using namespace webrtc;

// Ends with a list destroyed while holding an item: it is freed, with one line.
TEST(List, RefusalsAndTheLeakLine) {
    TraceCapture trace;
    {
        ListWrapper list;
        EXPECT_EQ(-1, list.Insert(nullptr, nullptr));
        ListItem* only = new ListItem(7u);
        ASSERT_EQ(0, list.InsertBefore(nullptr, only));
        EXPECT_EQ(-1, list.InsertBefore(only, only));  // already linked
        EXPECT_EQ(-1, list.Insert(only, nullptr));
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
