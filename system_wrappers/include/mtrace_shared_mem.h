/// @file
/// The shared-memory log channel: a text ring in a System V shared-memory
/// segment, guarded by one System V semaphore, that one process writes and any
/// number of processes on the machine read at their own pace. It reports on
/// standard output with printf only: going through the trace facility could
/// recurse into a host that logs to this very channel.
#ifndef SYSTEM_WRAPPERS_MTRACE_SHARED_MEM_H_
#define SYSTEM_WRAPPERS_MTRACE_SHARED_MEM_H_

#include <stdint.h>

#include "mtrace.h"
#include "sw_export.h"

/// Path of the file from which both IPC keys are derived (ftok ids 83 for the
/// segment and 109 for the semaphore); "/tmp/orvanite_sharedmem" unless changed.
/// Every process of one channel uses the same path (sw_shmlog: `--key PATH`).
/// Point it elsewhere before constructing a channel, while no other thread
/// constructs one; the constructor creates the file (mode 0666) if it is
/// missing, and nothing removes it.
extern SW_EXPORT const char* gSharedMemName;

/// The header at offset 0 of the segment, read the same way by every process;
/// the ring follows directly behind it. Native byte order. Its accessors are
/// called with the channel's semaphore held.
struct SW_EXPORT SharedMemInfoByLog {
    /// The value written to m_magic.
    static const uint32_t kMagic = 10000001;

    /// Resets the header of a segment of aSegmentSize bytes: ring length
    /// aSegmentSize - 20, level 7 (everything passes), write offset 0.
    void InitBySuccess(bool aIsCreator, unsigned int aSegmentSize);
    /// Sets the threshold (syslog numbering, see SharedMemImpl::MatchPublicLevel).
    void UpdateLevel(unsigned int aLevel) { m_level = aLevel; }
    /// The ring offset of the byte after the newest text.
    unsigned int GetWriteOffset() const { return m_writeOffset; }
    /// Sets the ring offset of the byte after the newest text.
    void UpdateWriteOffset(unsigned int aOffset) { m_writeOffset = aOffset; }

    uint32_t m_magic;        ///< kMagic; written, never checked.
    uint32_t m_ringLength;   ///< Segment size - 20; written, never checked.
    uint32_t m_level;        ///< Threshold in syslog numbering (3 error ... 7 debug).
    uint32_t m_writeOffset;  ///< Ring offset of the byte after the newest text; that byte is 0.
    uint32_t m_reserved;     ///< 0; unused.
};

static_assert(sizeof(SharedMemInfoByLog) == 20, "the header layout is shared between processes");

/// One channel endpoint per object.
///
/// The writer constructs it with aIsCreator true: that makes the segment (64
/// pages, 262144 bytes with 4 KiB pages) and the semaphore, or takes over the
/// ones left under the same key, and resets the header (level 7, write offset
/// 0) and the semaphore (free, whoever held it), so construct it before others
/// use the channel. Readers, and processes that only set the level, construct
/// it with false and attach to what exists. The segment and the semaphore
/// outlive their creator: the last process to detach (destroy its object),
/// writer or not, removes both, printing "attention please, delete the shared memory".
/// The library never writes here on its own (the trace facility does not feed
/// the channel): the host calls Write, typically from its log callback.
///
/// The reader tool `sw_shmlog [--key PATH] tail|dump|level LEVEL` attaches as a
/// reader, never creating a channel or its key file: `tail` prints the text
/// written from its start on, `dump` what the ring holds, oldest whole line
/// first, and `level` sets the threshold (debug, info, warning, error). Like any
/// reader it removes the channel when it is the last to detach.
///
/// Every access to the segment, and to this object's positions, happens under
/// the semaphore, so threads sharing an object are serialised as well; IsGood()
/// alone reads without it. The semaphore has no undo: a process that dies
/// inside an operation leaves the channel locked for every process until the
/// semaphore is deleted. Failures print a message on standard output (no trace
/// line) and return -1; internal inconsistencies (a segment no larger than the
/// header, a write position outside the ring) print
/// "system_wrappers/source/mtrace_shared_mem: " with the line and the failed
/// assertion, and abort the process.
class SW_EXPORT SharedMemImpl {
public:
    /// A set of one System V semaphore used as a lock with a single holder.
    /// There is no undo: a process that dies while holding it blocks the
    /// channel until the semaphore is deleted.
    class SW_EXPORT SemphoreImpl {
    public:
        /// No semaphore.
        SemphoreImpl() { Reset(); }

        /// Creates the set (or opens an existing one) and sets its value to 1
        /// (free). 0 (also when one is already held), or -1 after
        /// "create semaphore failed, errno=" or "operate semaphore failed, errno="
        /// and the number.
        int Create(int aKey);
        /// Opens an existing set. 0 (also when one is already held), or -1 after
        /// "get semphore failed, errno=" and the number.
        int Open(int aKey);
        /// Takes the lock, waiting while another holder has it. 0, or -1
        /// without a semaphore or when the operation fails.
        int _P();
        /// Releases the lock. 0, or -1 without a semaphore or on failure.
        int _V();
        /// Removes the set from the system. 0 (also without one), or -1 after
        /// "delete semaphore failed, errno=" and the number.
        int Delete();
        /// Forgets the identifier without touching the semaphore.
        void Reset() { _semId = -1; }

        int _semId;  ///< The set's identifier, -1 when none.
    };

    /// Creates (aIsCreator true) or attaches to (false) the channel keyed by
    /// gSharedMemName; see the class comment. A failing step prints its
    /// message and leaves IsGood() false.
    explicit SharedMemImpl(bool aIsCreator);
    /// Detaches; the last process to detach removes the segment and the
    /// semaphore. It takes the semaphore first, so it waits while the lock is
    /// held, by a dead process too.
    ~SharedMemImpl();
    /// Not copyable.
    SharedMemImpl(const SharedMemImpl&) = delete;
    /// Not copyable.
    SharedMemImpl& operator=(const SharedMemImpl&) = delete;

    /// Appends aLength bytes (cut to ring length - 1, after
    /// "write to much data to shared memory once, conlen=" and the length) and
    /// a terminating 0. Returns the bytes stored, 0 when the header's level
    /// drops the text (MatchPublicLevel(aLevel) above it) or aLength is 0, -1 on failure ("write
    /// shared memory, no data" for null aData, "write shared memory, currptr=null"
    /// when not initialised). Text containing 0 bytes cannot be carried. The
    /// writer never waits for readers: one that falls a ring behind loses text.
    /// Any thread.
    int Write(const unsigned char* aData, unsigned int aLength, MTRACE_LEVEL_TYPE aLevel);
    /// Copies out what was written since this object's previous read, at most
    /// aSize bytes, and terminates it: aBuffer must hold aSize + 1 bytes.
    /// Returns the count (0 when nothing is new) or -1 ("read shared memory, no buffer"
    /// for a null aBuffer or aSize 0, "read shared memory, currptr=null" when not
    /// initialised). Any thread.
    int Read(unsigned char* aBuffer, unsigned int aSize);
    /// Sets the header's threshold to MatchPublicLevel(aLevel) for levels 0 to 3;
    /// aUnused is ignored. 0, or -1: "update flag, no flag update" for another
    /// level (nothing changes). On an object that is not initialised it prints
    /// "update flag, not inited", returns -1 and leaves the semaphore taken,
    /// blocking every user of the channel.
    int UpdateFlag(int aUnused, int aLevel);
    /// Sets up this object's positions; the creator also resets the header.
    /// A reader starts at the ring start, not at the newest text. The
    /// constructor calls it. 0, or -1 after
    /// "init loginfo, semphore P operation failed".
    int InitLogInfo(bool aIsCreator);
    /// Clears this object's positions (IsGood() turns false); the destructor
    /// calls it. 0, or -1 after "deinit loginfo, semphore P operation failed".
    int DeInitLogInfo();
    /// True while the object is attached and initialised. Not locked: call it
    /// while no other thread uses the object.
    bool IsGood() const { return _currPtr != nullptr; }

    /// The header's level for a trace level: 0 -> 7, 2 -> 4, 3 -> 3, others -> 6.
    static unsigned int MatchPublicLevel(MTRACE_LEVEL_TYPE aLevel);

    int _shmId;               ///< The segment's identifier, -1 when none.
    SemphoreImpl _semaphore;  ///< The channel's lock.
    bool _isCreator;          ///< The constructor's aIsCreator.
    void* _shbAddr;           ///< Where the segment is attached; null when not.
    unsigned int _shbLen;     ///< The segment's size in bytes.
    unsigned char* _currPtr;  ///< The writer reloads it from the header; a reader's position.
    unsigned char* _shPtr;    ///< Start of the ring (segment + 20).
    unsigned int _shLen;      ///< Ring length (segment size - 20).
};

#endif  // SYSTEM_WRAPPERS_MTRACE_SHARED_MEM_H_
