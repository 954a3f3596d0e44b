// Message blocks and buffer wrappers: partial transfers, offsets, sharing
// between copies, and the last reference freeing the block (run under ASan).
#include <string.h>

#include "test_support.h"

namespace {

const unsigned char kTen[] = {'0', '1', '2', '3', '4', '5', '6', '7', '8', '9'};

std::string Readable(const ComMessageBlock& aBlock) {
    return std::string(reinterpret_cast<const char*>(aBlock.m_pRead), aBlock.GetReadableLength());
}

TEST(MessageBlock, PartialTransfersAndOffsets) {
    ComMessageBlock noData(nullptr, 10), noLength(kTen, 0), noCapacity(0UL);
    for (ComMessageBlock* empty : {&noData, &noLength, &noCapacity}) {
        unsigned char byte = 0;
        EXPECT_EQ(nullptr, empty->m_dataBlock.GetPtr());
        EXPECT_EQ(0UL, empty->Read(&byte, 1, true) + empty->Write(&byte, 1, true) +
                           empty->FillByte('x', 4, true) + empty->GetReadableLength());
    }

    ComMessageBlock block(16UL);
    EXPECT_EQ(0UL, block.GetReadableLength());
    // The offset bytes are skipped over, and consumed when advancing.
    EXPECT_EQ(2UL, block.WriteByOffset(kTen, 2, 1));
    EXPECT_EQ(1UL, block.FillByte('-', 1, true));
    EXPECT_EQ(2UL, block.Write(nullptr, 2, true));  // keeps the bytes, advances
    EXPECT_EQ(10UL, block.Write(kTen, 10, true));
    EXPECT_EQ(3UL, block.Write(kTen, 20, true));
    EXPECT_EQ(0UL, block.GetWritableCapacity());
    EXPECT_EQ(
        "-01"
        "0123456789"
        "012",
        Readable(block));

    ComMessageBlock ten(kTen, sizeof(kTen));
    unsigned char out[8] = {};
    EXPECT_EQ(2UL, ten.ReadByOffset(out, 4, 8));
    EXPECT_EQ(0, memcmp(out, "89", 2));
    EXPECT_EQ(0UL, ten.ReadByOffset(out, 4, 10));
    // A huge length or offset cannot wrap around and overrun.
    EXPECT_EQ(0UL, ten.ReadByOffset(out, 1, static_cast<unsigned long>(-1)));
    EXPECT_EQ(10UL, ten.ReadByOffset(nullptr, static_cast<unsigned long>(-1), 0));
    EXPECT_EQ(3UL, ten.Read(nullptr, 3, true));  // skips without copying
    EXPECT_EQ(4UL, ten.Read(out, 4, true));
    EXPECT_EQ(0, memcmp(out, "3456", 4));
    EXPECT_EQ(3UL, ten.Read(out, 4, true));
    EXPECT_EQ(0UL, ten.Read(out, 4, true));
}

TEST(MessageBlock, CopiesShareBytesButNotPositions) {
    auto* original = new ComMessageBlock(20UL);
    original->Write(kTen, 5, true);
    ComMessageBlock copy(*original);
    ComMessageBlock assigned(kTen, 3);
    assigned = copy;
    assigned = assigned;
    EXPECT_EQ(3, copy.m_dataBlock->GetReferCount());

    // Bytes written through one copy show in another only once its own write
    // position covers them.
    original->Write(reinterpret_cast<const unsigned char*>("abc"), 3, true);
    EXPECT_EQ("01234", Readable(copy));
    copy.Write(nullptr, 3, true);
    EXPECT_EQ("01234abc", Readable(copy));
    unsigned char out[2];
    assigned.Read(out, 2, true);
    EXPECT_EQ("234", Readable(assigned));
    EXPECT_EQ("01234abc", Readable(*original));

    // Release the copies on other threads; the last one frees the block.
    delete original;
    RunThreads(4, [&copy](int) { ComMessageBlock again(copy); });
    EXPECT_EQ(2, copy.m_dataBlock->GetReferCount());
    copy.AssignValue(kTen, 2);  // drops its share of the old block
    EXPECT_EQ(1, assigned.m_dataBlock->GetReferCount());
    EXPECT_EQ("01", Readable(copy));
}

TEST(BufferBlockWrapper, OneCursorForReadAndWrite) {
    unsigned char buffer[8] = {'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h'};
    ComBufferBlockWrapper at6(buffer, 8, 6), at9(buffer, 8, 9);
    EXPECT_EQ(2UL, at6.GetReadableLength());
    EXPECT_EQ(2UL, at6.GetWritableCapacity());
    EXPECT_EQ(0UL, at9.GetReadableLength() + at9.GetWritableCapacity());

    unsigned char out[4] = {};
    EXPECT_EQ(0UL, at6.Read(out, 0, true));
    EXPECT_EQ(6UL, at6.m_pos);
    ComBufferBlockWrapper copy(at6);
    EXPECT_EQ(2UL, at6.Read(out, 4, true));
    EXPECT_EQ(0, memcmp(out, "gh", 2));
    EXPECT_EQ(0UL, at6.Read(out, 4, true));
    // The copy has its own cursor over the same buffer.
    EXPECT_EQ(1UL, copy.FillByte('z', 1, true));
    EXPECT_EQ(1UL, copy.Write(kTen, 5, false));
    EXPECT_EQ(7UL, copy.m_pos);
    EXPECT_EQ(0, memcmp(buffer + 6, "z0", 2));
    ComBufferBlockWrapper empty(nullptr, 8, 0);
    EXPECT_EQ(0UL, empty.FillByte('z', 4, true) + empty.Write(kTen, 4, true));
}

}  // namespace
