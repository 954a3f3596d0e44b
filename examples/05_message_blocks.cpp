// Message blocks: reference-counted byte buffers. A producer fills a block and
// hands copies to other threads; every copy shares the bytes but keeps its own
// read and write positions. The worker here reads its copy inside an event.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

#include "ComMessageBlock.h"
#include "ComThreadManger.h"

namespace {

int Fail(const char* aWhat) {
    std::fprintf(stderr, "05_message_blocks: FAILED: %s\n", aWhat);
    return 1;
}

// Carries a copy of the frame to the worker. The copy holds one reference, so
// the bytes live until this event is deleted, on the worker, after it ran.
class Consume : public IEvent {
public:
    Consume(const ComMessageBlock& aFrame, std::atomic<int>* aFilled)
        : m_frame(aFrame), m_filled(aFilled) {}

    int OnEventFire() override {
        // On the worker thread. Reading moves only this copy's read position.
        unsigned char tag[4];
        if (m_frame.Read(tag, sizeof(tag), true) != sizeof(tag) || memcmp(tag, "FRM1", 4) != 0) {
            m_filled->store(-1);
            return COM_ERROR_FAILURE;
        }
        int filled = 0;
        unsigned char byte = 0;
        while (m_frame.Read(&byte, 1, true) == 1) filled += byte == 0xAB;
        m_filled->store(filled);
        return COM_OK;
    }

private:
    ComMessageBlock m_frame;
    std::atomic<int>* m_filled;
};

}  // namespace

int main() {
    // From bytes: a private copy of them, all readable, nothing writable.
    const unsigned char text[] = {'H', 'D', 'R', '0', 'h', 'e', 'l', 'l', 'o'};
    ComMessageBlock message(text, sizeof(text));
    if (message.GetReadableLength() != 9 || message.GetWritableCapacity() != 0)
        return Fail("a block made from 9 bytes holds 9 readable bytes");

    // Read(..., true) consumes; ReadByOffset peeks; a null destination skips.
    unsigned char header[4];
    unsigned char word[8] = {};
    if (message.Read(header, 4, true) != 4 || message.ReadByOffset(word, 8, 0) != 5 ||
        memcmp(word, "hello", 5) != 0 || message.GetReadableLength() != 5)
        return Fail("read the header, then peek at the rest");
    if (message.Read(nullptr, 2, true) != 2 || message.Read(word, 8, true) != 3 ||
        memcmp(word, "llo", 3) != 0 || message.Read(word, 8, true) != 0)
        return Fail("skip two bytes, read what is left, then nothing");

    // A copy shares the storage (one more reference) but not the positions:
    // it starts where the original was and reads on by itself.
    ComMessageBlock again(text, sizeof(text));
    ComMessageBlock copy(again);
    if (copy.m_dataBlock.GetPtr() != again.m_dataBlock.GetPtr() ||
        again.m_dataBlock->GetReferCount() != 2)
        return Fail("a copy shares the block");
    copy.Read(nullptr, 4, true);
    if (copy.GetReadableLength() != 5 || again.GetReadableLength() != 9)
        return Fail("copies keep their own read positions");

    // From a capacity: nothing readable until written. Transfers move what
    // fits and say how much that was; 100 fill bytes do not fit in 60.
    ComMessageBlock frame(64);
    const unsigned char tag[] = {'F', 'R', 'M', '1'};
    if (frame.Write(tag, sizeof(tag), true) != 4 || frame.FillByte(0xAB, 100, true) != 60 ||
        frame.GetReadableLength() != 64 || frame.GetWritableCapacity() != 0)
        return Fail("write a tag and fill the rest of a 64-byte block");

    // Hand a copy to a task thread inside an event. The queue owns the event
    // from PostEvent on; the worker runs it and then deletes it.
    ComThreadManger* manager = ComThreadManger::GetInstance();
    ComTaskThread* worker = nullptr;
    if (manager->CreateTaskThread(worker) != COM_OK) return Fail("CreateTaskThread");
    std::atomic<int> filled(0);
    if (worker->PostEvent(new Consume(frame, &filled)) != COM_OK) {
        manager->DestroyThread(worker);
        return Fail("PostEvent");
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (filled.load() == 0 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    manager->DestroyThread(worker);  // stops, joins and deletes: the event is gone
    if (filled.load() != 60) return Fail("the worker read the tag and 60 fill bytes");

    // The worker's reading did not move ours, and its reference is released.
    if (frame.GetReadableLength() != 64 || frame.m_dataBlock->GetReferCount() != 1)
        return Fail("the worker's copy was independent and is gone");

    // A private copy of the readable bytes: new storage, nothing shared.
    ComMessageBlock own(frame.m_pRead, frame.GetReadableLength());
    if (own.m_dataBlock.GetPtr() == frame.m_dataBlock.GetPtr() || own.GetReadableLength() != 64)
        return Fail("constructing from bytes copies them");

    std::printf(
        "message blocks: read, peeked and skipped; a copy shared the bytes (2 references);"
        " the worker read 4 + %d bytes of its copy; 1 reference left\n",
        filled.load());
    return 0;
}
