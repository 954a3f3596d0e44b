// The shared-memory log channel: a text ring in a System V shared-memory
// segment, guarded by one System V semaphore, that one process writes and any
// number of processes on the machine read at their own pace. It reports on
// standard output with printf only: going through the trace facility could
// recurse into a host that logs to this very channel.
#ifndef SYSTEM_WRAPPERS_MTRACE_SHARED_MEM_H_
#define SYSTEM_WRAPPERS_MTRACE_SHARED_MEM_H_

#include <stdint.h>

#include "mtrace.h"
#include "sw_export.h"

// Path of the file from which both IPC keys are derived (ftok ids 83 for the
// segment and 109 for the semaphore). Point it elsewhere before constructing a
// channel; the constructor creates the file if it is missing.
extern SW_EXPORT const char* gSharedMemName;

// The header at offset 0 of the segment, read the same way by every process;
// the ring follows directly behind it. Native byte order.
struct SW_EXPORT SharedMemInfoByLog {
    static const uint32_t kMagic = 10000001;

    // Resets the header of a segment of aSegmentSize bytes: ring length
    // aSegmentSize - 20, level 7 (everything passes), write offset 0.
    void InitBySuccess(bool aIsCreator, unsigned int aSegmentSize);
    void UpdateLevel(unsigned int aLevel) { m_level = aLevel; }
    unsigned int GetWriteOffset() const { return m_writeOffset; }
    void UpdateWriteOffset(unsigned int aOffset) { m_writeOffset = aOffset; }

    uint32_t m_magic;        // written, never checked
    uint32_t m_ringLength;   // written, never checked
    uint32_t m_level;        // threshold in syslog numbering (3 error ... 7 debug)
    uint32_t m_writeOffset;  // ring offset of the byte after the newest text; that byte is 0
    uint32_t m_reserved;
};

static_assert(sizeof(SharedMemInfoByLog) == 20, "the header layout is shared between processes");

// One channel endpoint per object. The creator makes (or resets) the segment
// and the semaphore; other processes attach to them. The last process to
// detach removes both. Every access to the segment, and to this object's
// positions, happens under the semaphore, so threads sharing an object are
// serialised as well; IsGood() alone reads without it.
class SW_EXPORT SharedMemImpl {
public:
    // A set of one System V semaphore used as a lock with a single holder.
    // There is no undo: a process that dies while holding it blocks the
    // channel until the semaphore is deleted.
    class SW_EXPORT SemphoreImpl {
    public:
        SemphoreImpl() { Reset(); }

        // Creates the set (or opens an existing one) and sets its value to 1.
        int Create(int aKey);
        int Open(int aKey);
        int _P();
        int _V();
        int Delete();
        // Forgets the identifier without touching the semaphore.
        void Reset() { _semId = -1; }

        int _semId;
    };

    explicit SharedMemImpl(bool aIsCreator);
    ~SharedMemImpl();
    SharedMemImpl(const SharedMemImpl&) = delete;
    SharedMemImpl& operator=(const SharedMemImpl&) = delete;

    // Appends aLength bytes (cut to ring length - 1) and a terminating 0.
    // Returns the bytes stored, 0 when the header's level drops the text, -1 on
    // failure. Text containing 0 bytes cannot be carried.
    int Write(const unsigned char* aData, unsigned int aLength, MTRACE_LEVEL_TYPE aLevel);
    // Copies out what was written since this object's previous read, at most
    // aSize bytes, and terminates it: aBuffer must hold aSize + 1 bytes.
    // Returns the count (0 when nothing is new) or -1.
    int Read(unsigned char* aBuffer, unsigned int aSize);
    // Sets the header's threshold to MatchPublicLevel(aLevel) for levels 0 to 3.
    // On an object that is not initialised it returns -1 and leaves the
    // semaphore taken, blocking every user of the channel.
    int UpdateFlag(int aUnused, int aLevel);
    // Sets up this object's positions; the creator also resets the header.
    // A reader starts at the ring start, not at the newest text.
    int InitLogInfo(bool aIsCreator);
    int DeInitLogInfo();
    // Not locked: call it while no other thread uses the object.
    bool IsGood() const { return _currPtr != nullptr; }

    // The header's level for a trace level: 0 -> 7, 2 -> 4, 3 -> 3, others -> 6.
    static unsigned int MatchPublicLevel(MTRACE_LEVEL_TYPE aLevel);

    int _shmId;
    SemphoreImpl _semaphore;
    bool _isCreator;
    void* _shbAddr;
    unsigned int _shbLen;
    unsigned char* _currPtr;  // the writer reloads it from the header; a reader's position
    unsigned char* _shPtr;
    unsigned int _shLen;
};

#endif  // SYSTEM_WRAPPERS_MTRACE_SHARED_MEM_H_
