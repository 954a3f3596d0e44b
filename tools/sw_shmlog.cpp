// sw_shmlog: reads and steers the shared-memory log channel from outside the
// process that writes it. `tail` follows new text, `dump` prints what the ring
// holds, `level` sets the threshold that writers apply.
//
// The channel's semaphore has no undo, so the tool must never die between its
// P and V: the stop signals stay blocked and are only taken by sigtimedwait.
// It must never wait on a semaphore that a dead process left taken either, so
// every call that takes it is preceded by a bounded look at its value.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "mtrace_shared_mem.h"

namespace {

const char kUsage[] =
    "usage: sw_shmlog [--key PATH] COMMAND\n"
    "Reads the shared-memory log channel keyed by PATH (default %s).\n"
    "commands:\n"
    "  tail            print new text as it is written, until SIGINT or SIGTERM\n"
    "  dump            print the text the ring holds, oldest first\n"
    "  level LEVEL     set the writers' threshold: debug, info, warning or error\n"
    "options:\n"
    "  --key PATH      the key file of the channel\n"
    "  --help          print this help\n";

// Indexed by MTRACE_LEVEL_TYPE.
const char* const kLevelNames[] = {"debug", "info", "warning", "error"};
// The channel's ftok project ids for the segment and the semaphore.
const int kShmProjectId = 83;
const int kSemProjectId = 109;
const auto kLockPatience = std::chrono::seconds(3);

const char* gPath;       // the key file
int gSemId = -1;         // the channel's semaphore
SharedMemImpl* gReader;  // kept reachable when a stuck lock forbids deleting it
FILE* gOut;              // the real stdout; the library's printf goes to stderr
sigset_t gStopSignals;
bool gStopped = false;

int Usage(const std::string& aProblem) {
    fprintf(stderr, "sw_shmlog: %s\n", aProblem.c_str());
    fprintf(stderr, kUsage, gSharedMemName);
    return 2;
}

// Reports "<aBefore> PATH<aAfter>" and gives the exit code of a failure.
int Fail(const char* aBefore, const char* aAfter = "") {
    fprintf(stderr, "sw_shmlog: %s %s%s\n", aBefore, gPath, aAfter);
    return 1;
}

int NoChannel() {
    return Fail("no shared-memory log channel under");
}
int Locked() {
    static bool told = false;  // the final detach may meet the same stuck lock
    if (!told) Fail("the channel under", " is locked (a process may have died holding it)");
    told = true;
    return 1;
}
int Gone() {
    return Fail("the shared-memory log channel under", " disappeared");
}

// Sleeps up to aMillis; true when a stop signal arrived meanwhile.
bool Pause(long aMillis) {
    const timespec span = {aMillis / 1000, (aMillis % 1000) * 1000000L};
    if (sigtimedwait(&gStopSignals, nullptr, &span) > 0) gStopped = true;
    return gStopped;
}

enum LockState { kFree, kLocked, kGone, kStopped };

// Waits a few seconds for the semaphore to be free. A stop signal ends the
// wait only when aInterruptible: the final detach must still be tried.
LockState WaitForLock(bool aInterruptible) {
    const auto end = std::chrono::steady_clock::now() + kLockPatience;
    for (;;) {
        const int value = semctl(gSemId, 0, GETVAL);
        if (value == -1) return kGone;
        if (value > 0) return kFree;
        if (std::chrono::steady_clock::now() > end) return kLocked;
        if (Pause(20) && aInterruptible) return kStopped;
    }
}

// Exit code for a lock that is not free; 0 when it is.
int CheckLock() {
    switch (WaitForLock(true)) {
        case kFree:
            return 0;
        case kLocked:
            return Locked();
        case kGone:
            return Gone();
        case kStopped:
            break;
    }
    fprintf(stderr, "sw_shmlog: interrupted\n");
    return 1;
}

// Attaches a reader only to a channel that exists: the library's constructor
// would create a missing key file and report its failures on stdout.
int Attach() {
    struct stat info;
    if (stat(gPath, &info) != 0) {
        if (errno == ENOENT) return NoChannel();
        fprintf(stderr, "sw_shmlog: cannot use %s: %s\n", gPath, strerror(errno));
        return 1;
    }
    const key_t shmKey = ftok(gPath, kShmProjectId);
    const key_t semKey = ftok(gPath, kSemProjectId);
    if (shmKey == -1 || semKey == -1 || shmget(shmKey, 0, 0) == -1 ||
        (gSemId = semget(semKey, 1, 0)) == -1) {
        if (errno == ENOENT) return NoChannel();
        fprintf(stderr, "sw_shmlog: cannot open the channel under %s: %s\n", gPath,
                strerror(errno));
        return 1;
    }
    if (const int rv = CheckLock()) return rv;
    gReader = new SharedMemImpl(false);
    if (!gReader->IsGood()) return Fail("cannot attach to the channel under");
    return 0;
}

// The destructor takes the semaphore as well. A reader that cannot be deleted
// is detached by the kernel when the process ends.
bool Detach() {
    if (!gReader) return true;
    if (WaitForLock(false) == kLocked) {
        Locked();
        return false;
    }
    delete gReader;
    gReader = nullptr;
    return true;
}

SharedMemInfoByLog* Header() {
    return static_cast<SharedMemInfoByLog*>(gReader->_shbAddr);
}

bool Emit(const void* aData, size_t aSize) {
    if (fwrite(aData, 1, aSize, gOut) == aSize && fflush(gOut) == 0) return true;
    fprintf(stderr, "sw_shmlog: cannot write the output: %s\n", strerror(errno));
    return false;
}

int Tail() {
    SharedMemImpl& reader = *gReader;
    // A new reader starts at the ring start; follow from the newest text.
    if (const int rv = CheckLock()) return rv;
    if (reader._semaphore._P() != 0) return Gone();
    const unsigned int offset = Header()->GetWriteOffset();
    if (offset < reader._shLen) reader._currPtr = reader._shPtr + offset;
    reader._semaphore._V();
    if (offset >= reader._shLen) return Fail("bad write offset in the channel under");

    std::vector<unsigned char> buffer(reader._shLen + 1);
    while (!gStopped) {
        switch (WaitForLock(true)) {
            case kFree:
                break;
            case kLocked:
                return Locked();
            case kGone:
                return Gone();
            case kStopped:
                return 0;
        }
        const int count = reader.Read(buffer.data(), reader._shLen);
        if (count < 0) return Gone();
        if (count > 0 && !Emit(buffer.data(), static_cast<size_t>(count))) return 1;
        Pause(100);
    }
    return 0;
}

int Dump() {
    SharedMemImpl& reader = *gReader;
    std::vector<unsigned char> ring(reader._shLen);
    if (const int rv = CheckLock()) return rv;
    if (reader._semaphore._P() != 0) return Gone();
    memcpy(ring.data(), reader._shPtr, ring.size());
    const unsigned int offset = Header()->GetWriteOffset();
    reader._semaphore._V();
    if (offset >= ring.size()) return Fail("bad write offset in the channel under");

    std::string text;
    auto append = [&text](std::vector<unsigned char>::const_iterator aFrom,
                          std::vector<unsigned char>::const_iterator aTo) {
        for (; aFrom != aTo; ++aFrom)
            if (*aFrom != 0) text.push_back(static_cast<char>(*aFrom));
    };
    const auto newest = ring.cbegin() + offset;  // the writer's terminating 0
    const auto older = newest + 1;
    if (std::any_of(older, ring.cend(), [](unsigned char aByte) { return aByte != 0; })) {
        // Wrapped: the oldest text follows the newest, and its first line has
        // lost its start to the newest write.
        const auto cut = std::find(older, ring.cend(), '\n');
        append(cut == ring.cend() ? cut : cut + 1, ring.cend());
    }
    append(ring.cbegin(), newest);
    return Emit(text.data(), text.size()) ? 0 : 1;
}

int SetLevel(int aLevel) {
    if (const int rv = CheckLock()) return rv;
    if (gReader->UpdateFlag(0, aLevel) != 0)
        return Fail("cannot set the level of the channel under");
    fprintf(gOut, "level set to %s\n", kLevelNames[aLevel]);
    return fflush(gOut) == 0 ? 0 : 1;
}

// Keeps the library's printf lines off the data: fd 1 becomes stderr, and the
// tool writes its output to a duplicate of the original stdout.
bool SplitOutput() {
    const int fd = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
    if (fd == -1) return false;
    gOut = fdopen(fd, "w");
    if (!gOut) {
        close(fd);
        return false;
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
    return dup2(STDERR_FILENO, STDOUT_FILENO) != -1;
}

}  // namespace

int main(int argc, char** argv) {
    gPath = gSharedMemName;
    std::vector<std::string> operands;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            printf(kUsage, gSharedMemName);
            return 0;
        }
        if (arg == "--key") {
            if (++i == argc) return Usage("--key needs a path");
            gPath = argv[i];
        } else if (arg.size() > 1 && arg[0] == '-') {
            return Usage("unknown option " + arg);
        } else {
            operands.push_back(arg);
        }
    }
    if (operands.empty()) return Usage("missing command");
    const std::string& command = operands[0];
    int level = -1;
    if (command == "level") {
        if (operands.size() != 2) return Usage("level needs one of debug, info, warning, error");
        for (int i = 0; i < 4; ++i)
            if (operands[1] == kLevelNames[i]) level = i;
        if (level < 0) return Usage("unknown level " + operands[1]);
    } else if (command != "tail" && command != "dump") {
        return Usage("unknown command " + command);
    } else if (operands.size() != 1) {
        return Usage("unexpected argument " + operands[1]);
    }

    sigemptyset(&gStopSignals);
    sigaddset(&gStopSignals, SIGINT);
    sigaddset(&gStopSignals, SIGTERM);
    sigaddset(&gStopSignals, SIGHUP);
    sigprocmask(SIG_BLOCK, &gStopSignals, nullptr);
    signal(SIGPIPE, SIG_IGN);  // a closed reader of our output is a write error
    if (!SplitOutput()) {
        fprintf(stderr, "sw_shmlog: cannot set up the output: %s\n", strerror(errno));
        return 1;
    }

    gSharedMemName = gPath;
    int rv = Attach();
    if (rv == 0) rv = command == "tail" ? Tail() : command == "dump" ? Dump() : SetLevel(level);
    if (!Detach()) rv = 1;
    fclose(gOut);
    return rv;
}
