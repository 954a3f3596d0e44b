// The shared-memory log channel against a model of its ring: every byte each
// endpoint reads back (a reader the writer has lapped included, since the ring
// still determines what it gets), the level filter, and the header and ring
// other processes see. Once the last endpoint goes, so do segment and semaphore.
#include <errno.h>
#include <string.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "fuzz_input.h"
#include "mtrace_shared_mem.h"

namespace {

char gPath[40];                              // the key file of this process's own channel
const unsigned kMapped[] = {7, 6, 4, 3, 6};  // header level per trace level, 4 standing for others

bool Gone() {
    return shmget(ftok(gPath, 83), 0, 0) == -1 && errno == ENOENT &&
           semget(ftok(gPath, 109), 1, 0) == -1 && errno == ENOENT;
}

struct Endpoint {
    std::unique_ptr<SharedMemImpl> shm;
    bool good = false;  // constructed while the channel existed, or as its creator
    unsigned pos = 0;
};

struct Channel {
    unsigned length = static_cast<unsigned>(getpagesize()) * 64 - 20;  // of the ring
    std::string ring;
    unsigned w = 0, level = 7;
    Endpoint ends[3];

    const Endpoint* Attached() const {
        const Endpoint* e = std::find_if(ends, ends + 3, [](const Endpoint& x) { return x.good; });
        return e == ends + 3 ? nullptr : e;
    }
};

void Step(FuzzInput& aIn, Channel& c) {
    Endpoint& e = c.ends[aIn.Below(3)];
    const int op = aIn.Below(6);
    if (e.shm && op == 0) {  // the last one out removes the channel
        e.shm.reset();
        e.good = false;
        FUZZ_CHECK(Gone() == !c.Attached());
    } else if (!e.shm) {
        const bool creator = aIn.Byte() & 1, fresh = !c.Attached();
        e.shm.reset(new SharedMemImpl(creator));
        if (creator && fresh) c.ring.assign(c.length, '\0');  // a new segment is zero-filled
        if (creator) c.w = 0, c.level = 7;
        e.good = creator || !fresh;
        e.pos = 0;  // reading starts at the ring start
    } else if (op <= 2) {
        const int level = aIn.Below(5);
        std::string text = aIn.Bytes(40);
        if (aIn.Byte() < 32) text.resize(aIn.Below(c.length * 3 / 2), 'a' + text.size() % 26);
        if (aIn.Byte() % 8) std::replace(text.begin(), text.end(), '\0', '0');
        const int rv = e.shm->Write(reinterpret_cast<const unsigned char*>(text.data()),
                                    text.size(), MTRACE_LEVEL_TYPE(level));
        if (!e.good || kMapped[level] > c.level) {
            FUZZ_CHECK(rv == (e.good ? 0 : -1));
            return;
        }
        const unsigned n = std::min<size_t>(text.size(), c.length - 1);
        FUZZ_CHECK(rv == static_cast<int>(n));
        for (unsigned k = 0; k < n; ++k) c.ring[(c.w + k) % c.length] = text[k];
        c.w = (c.w + n) % c.length;
        c.ring[c.w] = '\0';
        e.pos = c.w;  // a writer's position follows the newest text
    } else if (op <= 4) {
        const unsigned size = aIn.Byte() < 16 ? aIn.Below(c.length + 9) : aIn.Below(300);
        std::vector<unsigned char> buf(size + 1, 0xee);  // the terminator takes one more
        const int rv = e.shm->Read(buf.data(), size);
        std::string expected;  // up to the writer's zero, wrapping at the ring end
        for (; e.good && expected.size() < std::min(size, c.length - 1) && c.ring[e.pos];
             e.pos = (e.pos + 1) % c.length) {
            expected += c.ring[e.pos];
        }
        FUZZ_CHECK(rv == (size && e.good ? static_cast<int>(expected.size()) : -1));
        FUZZ_CHECK(rv < 0 || (buf[rv] == 0 && !memcmp(buf.data(), expected.data(), rv)));
    } else {
        const int level = static_cast<int>(aIn.Below(6)) - 1;
        const bool known = e.good && level >= 0 && level <= 3;
        FUZZ_CHECK(e.shm->UpdateFlag(aIn.Byte(), level) == (known ? 0 : -1));
        if (known) c.level = kMapped[level];
    }
}

// What every process attached to the segment sees: the header, then the ring.
void Check(const Channel& c) {
    for (const Endpoint& e : c.ends) FUZZ_CHECK(!e.shm || e.shm->IsGood() == e.good);
    const Endpoint* e = c.Attached();
    const auto* header = static_cast<const SharedMemInfoByLog*>(e ? e->shm->_shbAddr : nullptr);
    FUZZ_CHECK(!header || (header->m_magic == 10000001 && header->m_ringLength == c.length &&
                           header->m_level == c.level && header->m_writeOffset == c.w &&
                           memcmp(header + 1, c.ring.data(), c.length) == 0));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    while (!gPath[0] || (gSharedMemName != gPath && !Gone())) {  // keys nobody has left behind
        strcpy(gPath, "/tmp/sw_fuzz_shm_XXXXXX");
        const int fd = mkstemp(gPath);
        FUZZ_CHECK(fd != -1 && close(fd) == 0);
    }
    if (gSharedMemName != gPath) atexit([] { unlink(gPath); });
    gSharedMemName = gPath;
    FuzzInput in(aData, aSize);
    Channel c;
    while (!in.Empty()) {
        Step(in, c);
        Check(c);
    }
    for (Endpoint& e : c.ends) e.shm.reset();
    FUZZ_CHECK(Gone());
    return 0;
}
