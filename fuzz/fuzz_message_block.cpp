// Message blocks and the buffer cursor against a model of their bytes and
// positions: every count, every byte read back, and the block's reference
// count, which must equal the number of message blocks sharing it.
#include <string.h>

#include <memory>
#include <vector>

#include "ComMessageBlock.h"
#include "fuzz_input.h"

namespace {

// -1 marks storage bytes never written: their value is not promised.
using Bytes = std::vector<int>;

struct Model {
    std::shared_ptr<Bytes> bytes;  // null while the block is empty
    size_t read = 0;
    size_t write = 0;
};

const unsigned char* Source(const std::string& aData, bool aNull) {
    return aNull ? nullptr : reinterpret_cast<const unsigned char*>(aData.data());
}

void Attach(Model& aModel, const std::string& aData, bool aNull, size_t aLength) {
    aModel.bytes = std::make_shared<Bytes>(aLength, -1);
    aModel.read = 0;
    aModel.write = aNull ? 0 : aLength;
    for (size_t k = 0; !aNull && k < aLength; ++k) {
        (*aModel.bytes)[k] = static_cast<unsigned char>(aData[k]);
    }
}

void Check(const ComMessageBlock& aBlock, const Model& aModel) {
    const size_t capacity = aModel.bytes ? aModel.bytes->size() : 0;
    FUZZ_CHECK(aBlock.GetReadableLength() == aModel.write - aModel.read);
    FUZZ_CHECK(aBlock.GetWritableCapacity() == capacity - aModel.write);
    FUZZ_CHECK((aBlock.m_dataBlock.GetPtr() == nullptr) == !aModel.bytes);
    if (aModel.bytes) {
        FUZZ_CHECK(aBlock.m_dataBlock->GetReferCount() == aModel.bytes.use_count());
    }
}

// Moves as much as fits once aOffset bytes are skipped; huge values must not wrap.
size_t Transfer(size_t aRoom, size_t aLength, size_t aOffset) {
    return aOffset >= aRoom ? 0 : std::min(aLength, aRoom - aOffset);
}

void BlockOp(FuzzInput& aIn, std::unique_ptr<ComMessageBlock> (&aBlocks)[4], Model (&aModels)[4]) {
    const int i = aIn.Below(4);
    const int other = aIn.Below(4);
    const bool null = aIn.Byte() % 4 == 0;
    const bool advance = aIn.Byte() & 1;
    const std::string data = aIn.Bytes(48);
    const size_t length = null ? aIn.Below(48) : data.size();
    const size_t offsets[] = {0, 0, aIn.Below(64), ~0UL - aIn.Below(64)};
    const size_t offset = offsets[aIn.Below(4)];
    Model& m = aModels[i];
    const uint8_t op = aIn.Below(9);
    if (!aBlocks[i] || op == 0) {  // (re)create from bytes or as a capacity
        const bool fromBytes = aIn.Byte() & 1;
        aBlocks[i].reset(fromBytes ? new ComMessageBlock(Source(data, null), length)
                                   : new ComMessageBlock(length));
        m = Model();
        if (length && !(fromBytes && null)) Attach(m, data, !fromBytes, length);
    } else if (op == 1 && aBlocks[other]) {  // copy shares the bytes, not the positions
        if (aIn.Byte() & 1) {
            aBlocks[i].reset(new ComMessageBlock(*aBlocks[other]));
        } else {
            *aBlocks[i] = *aBlocks[other];
        }
        m = aModels[other];
    } else if (op == 2) {
        aBlocks[i]->AssignValue(Source(data, null), length);
        Attach(m, data, null, length);
    } else if (op == 3 || op == 4) {
        std::vector<unsigned char> out(length + 1, 0xee);
        const bool copy = aIn.Byte() % 4 != 0;
        const size_t got =
            op == 3 ? aBlocks[i]->Read(copy ? out.data() : nullptr, length, advance)
                    : aBlocks[i]->ReadByOffset(copy ? out.data() : nullptr, length, offset);
        const size_t skip = op == 3 ? 0 : offset;
        FUZZ_CHECK(got == (m.bytes ? Transfer(m.write - m.read, length, skip) : 0));
        for (size_t k = 0; copy && k < got; ++k) {
            const int expected = (*m.bytes)[m.read + skip + k];
            FUZZ_CHECK(expected == -1 || out[k] == expected);
        }
        FUZZ_CHECK(out[got] == 0xee);  // nothing past the count
        if (op == 3 && advance) m.read += got;
    } else if (op == 5 || op == 6) {
        const size_t skip = op == 5 ? 0 : offset;
        const size_t got = op == 5 ? aBlocks[i]->Write(Source(data, null), length, advance)
                                   : aBlocks[i]->WriteByOffset(Source(data, null), length, offset);
        FUZZ_CHECK(got == (m.bytes ? Transfer(m.bytes->size() - m.write, length, skip) : 0));
        for (size_t k = 0; !null && k < got; ++k) {
            (*m.bytes)[m.write + skip + k] = static_cast<unsigned char>(data[k]);
        }
        if (op == 5 && advance) m.write += got;
    } else if (op == 7) {
        const size_t got = aBlocks[i]->FillByte(data.empty() ? 0 : data[0], length, advance);
        FUZZ_CHECK(got == (m.bytes ? std::min(length, m.bytes->size() - m.write) : 0));
        for (size_t k = 0; k < got; ++k) {
            (*m.bytes)[m.write + k] = static_cast<unsigned char>(data.empty() ? 0 : data[0]);
        }
        if (advance) m.write += got;
    } else {
        aBlocks[i].reset();
        m = Model();
    }
    for (int k = 0; k < 4; ++k)
        if (aBlocks[k]) Check(*aBlocks[k], aModels[k]);
}

// The cursor over a caller's buffer: one position for reading and writing.
void WrapperOp(FuzzInput& aIn, std::vector<unsigned char>& aBuffer, ComBufferBlockWrapper& aCursor,
               size_t& aPos) {
    const bool advance = aIn.Byte() & 1;
    const size_t length = aIn.Below(24);
    const size_t room = aBuffer.size() > aPos ? aBuffer.size() - aPos : 0;
    const size_t fits = std::min(length, room);
    std::vector<unsigned char> data(length + 1);
    for (unsigned char& byte : data) byte = aIn.Byte();
    std::vector<unsigned char> expected = aBuffer;
    size_t got = 0;
    switch (aIn.Below(4)) {
        case 0: {
            std::vector<unsigned char> out(length + 1, 0xee);
            got = aCursor.Read(out.data(), length, advance);
            FUZZ_CHECK(got == (aBuffer.empty() ? 0 : fits) && out[got] == 0xee);
            FUZZ_CHECK(
                std::equal(out.begin(), out.begin() + got, aBuffer.begin() + (got ? aPos : 0)));
            break;
        }
        case 1:
            got = aCursor.Write(data.data(), length, advance);
            FUZZ_CHECK(got == (aBuffer.empty() ? 0 : fits));
            std::copy(data.begin(), data.begin() + got, expected.begin() + (got ? aPos : 0));
            break;
        case 2:
            got = aCursor.FillByte(data[0], length, advance);
            FUZZ_CHECK(got == fits);
            std::fill_n(expected.begin() + (got ? aPos : 0), got, data[0]);
            break;
        default:
            aCursor = ComBufferBlockWrapper(aCursor);  // copies carry the same cursor
            break;
    }
    FUZZ_CHECK(aBuffer == expected);
    if (advance) aPos += got;
    FUZZ_CHECK(aCursor.m_pos == aPos && aCursor.GetReadableLength() == room - (advance ? got : 0) &&
               aCursor.GetWritableCapacity() == aCursor.GetReadableLength());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    FuzzInput in(aData, aSize);
    std::unique_ptr<ComMessageBlock> blocks[4];
    Model models[4];
    std::vector<unsigned char> buffer(in.Below(32), 0);
    buffer.reserve(32);  // a real address even for an empty buffer
    size_t pos = in.Below(40);
    ComBufferBlockWrapper cursor(buffer.data(), buffer.size(), pos);
    while (!in.Empty()) {
        if (in.Byte() % 4 == 0) {
            WrapperOp(in, buffer, cursor, pos);
        } else {
            BlockOp(in, blocks, models);
        }
    }
    return 0;
}
