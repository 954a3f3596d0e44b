// Message blocks released on several threads at once, and a cursor without a
// buffer. Transfers, offsets and sharing are checked against a model by
// fuzz/fuzz_message_block.cpp, whose corpus the suite replays.
#include "test_support.h"

namespace {

TEST(MessageBlock, CopiesReleasedOnOtherThreadsAndACursorWithoutBuffer) {
    const unsigned char ten[] = "0123456789";
    ComMessageBlock block(ten, 10);
    RunThreads(4, [&block](int) {
        for (int i = 0; i < 5000; ++i) ComMessageBlock(block).Read(nullptr, 1, true);
    });
    EXPECT_EQ(1, block.m_dataBlock->GetReferCount());  // the last copy freed nothing early
    EXPECT_EQ(10UL, block.GetReadableLength());
    unsigned char out[4];
    ComBufferBlockWrapper empty(nullptr, 8, 0);
    EXPECT_EQ(0UL, empty.Read(out, 4, true) + empty.Write(ten, 4, true) + empty.m_pos);
}

}  // namespace
