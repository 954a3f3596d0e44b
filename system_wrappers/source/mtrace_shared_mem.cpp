#include "mtrace_shared_mem.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

// The kernel semaphore orders every access of the threads that share one
// object, but ThreadSanitizer cannot see through semop; tell it.
#if defined(__SANITIZE_THREAD__)
#define SW_SHM_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define SW_SHM_TSAN 1
#endif
#endif
#ifdef SW_SHM_TSAN
#include <sanitizer/tsan_interface.h>
#endif

const char* gSharedMemName = "/tmp/orvanite_sharedmem";

namespace {

const int kShmProjectId = 83;   // 'S'
const int kSemProjectId = 109;  // 'm'
const unsigned int kSegmentPages = 64;

// Linux leaves the definition of semctl's fourth argument to its callers.
union semun {
    int val;
    struct semid_ds* buf;
    unsigned short* array;
};

// An inconsistency this channel cannot survive: the ring would be written out
// of bounds. Reported on stdout like every other message of the channel.
[[noreturn]] void AssertFailed(int aLine, const char* aExpression) {
    printf("system_wrappers/source/mtrace_shared_mem: %d, assert failed, %s\n", aLine, aExpression);
    fflush(stdout);
    abort();
}

// Retries a semaphore operation that a signal interrupted.
int SemOperate(int aSemId, short aDelta) {
    struct sembuf operation;
    operation.sem_num = 0;
    operation.sem_op = aDelta;
    operation.sem_flg = 0;  // no SEM_UNDO: a dying holder keeps the lock
    int rv;
    do {
        rv = semop(aSemId, &operation, 1);
    } while (rv == -1 && errno == EINTR);
    return rv;
}

}  // namespace

#define SHM_ASSERT(aCond)                             \
    do {                                              \
        if (!(aCond)) AssertFailed(__LINE__, #aCond); \
    } while (0)

// ---------------------------------------------------------------------------
// SharedMemInfoByLog

void SharedMemInfoByLog::InitBySuccess(bool /*aIsCreator*/, unsigned int aSegmentSize) {
    m_magic = kMagic;
    m_ringLength = aSegmentSize - static_cast<unsigned int>(sizeof(SharedMemInfoByLog));
    m_level = 7;
    m_writeOffset = 0;
    m_reserved = 0;
}

// ---------------------------------------------------------------------------
// SharedMemImpl::SemphoreImpl

int SharedMemImpl::SemphoreImpl::Create(int aKey) {
    if (_semId != -1) return 0;
    const int id = semget(aKey, 1, IPC_CREAT | 0666);
    if (id == -1) {
        printf("create semaphore failed, errno=%d\n", errno);
        return -1;
    }
    // Kept even if the value cannot be set, so that the last detacher still
    // removes the set.
    _semId = id;
    union semun arg;
    arg.val = 1;
    if (semctl(id, 0, SETVAL, arg) == -1) {
        printf("operate semaphore failed, errno=%d\n", errno);
        return -1;
    }
    return 0;
}

int SharedMemImpl::SemphoreImpl::Open(int aKey) {
    if (_semId != -1) return 0;
    const int id = semget(aKey, 1, 0);
    if (id == -1) {
        printf("get semphore failed, errno=%d\n", errno);
        return -1;
    }
    _semId = id;
    return 0;
}

int SharedMemImpl::SemphoreImpl::_P() {
    if (_semId == -1) return -1;
    if (SemOperate(_semId, -1) == -1) return -1;
#ifdef SW_SHM_TSAN
    __tsan_acquire(&_semId);
#endif
    return 0;
}

int SharedMemImpl::SemphoreImpl::_V() {
    if (_semId == -1) return -1;
#ifdef SW_SHM_TSAN
    __tsan_release(&_semId);
#endif
    return SemOperate(_semId, 1) == -1 ? -1 : 0;
}

int SharedMemImpl::SemphoreImpl::Delete() {
    if (_semId == -1) return 0;
    if (semctl(_semId, 1, IPC_RMID) == -1) {
        printf("delete semaphore failed, errno=%d\n", errno);
        return -1;
    }
    _semId = -1;
    return 0;
}

// ---------------------------------------------------------------------------
// SharedMemImpl

SharedMemImpl::SharedMemImpl(bool aIsCreator)
    : _shmId(-1),
      _isCreator(aIsCreator),
      _shbAddr(nullptr),
      _shbLen(0),
      _currPtr(nullptr),
      _shPtr(nullptr),
      _shLen(0) {
    _semaphore.Reset();
    const char* path = gSharedMemName;
    if (!path) {
        printf("get shmkeyId failed, errno=%d\n", EINVAL);
        return;
    }

    // Both keys need an existing file; an existing one makes this open fail.
    const int fd = open(path, O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd != -1) close(fd);

    const key_t shmKey = ftok(path, kShmProjectId);
    if (shmKey == -1) {
        printf("get shmkeyId failed, errno=%d\n", errno);
        return;
    }
    const key_t semKey = ftok(path, kSemProjectId);
    if (semKey == -1) {
        printf("get semkeyId failed, errno=%d\n", errno);
        return;
    }

    const unsigned int createSize = static_cast<unsigned int>(getpagesize()) * kSegmentPages;
    if (aIsCreator) {
        _shmId = shmget(shmKey, createSize, IPC_CREAT | 0666);
        if (_shmId == -1) {
            printf("create shared memory failed, err=%d\n", errno);
            return;
        }
    } else {
        _shmId = shmget(shmKey, 0, 0);
        if (_shmId == -1) {
            printf("get shared memory failed, errno=%d\n", errno);
            return;
        }
    }
    void* addr = shmat(_shmId, nullptr, 0);
    if (addr == reinterpret_cast<void*>(-1)) {
        printf("attach to shared memory failed, errno=%d\n", errno);
        return;
    }
    _shbAddr = addr;

    if (aIsCreator) {
        _shbLen = createSize;
        if (_semaphore.Create(semKey) != 0) {
            printf("create semaphore failed\n");
            return;
        }
    } else {
        // An attaching process takes the size from the segment itself.
        struct shmid_ds info;
        if (shmctl(_shmId, IPC_STAT, &info) == -1) {
            printf("get shared memory information failed, errno=%d\n", errno);
            return;
        }
        _shbLen = static_cast<unsigned int>(info.shm_segsz);
        if (_semaphore.Open(semKey) != 0) {
            printf("open semphore failed\n");
            return;
        }
    }

    InitLogInfo(aIsCreator);
}

SharedMemImpl::~SharedMemImpl() {
    DeInitLogInfo();
    if (_shbAddr) {
        if (shmdt(_shbAddr) == -1) printf("deatttach shared memory failed, errno=%d\n", errno);
        _shbAddr = nullptr;
        _shbLen = 0;
    }
    if (_shmId != -1) {
        struct shmid_ds info;
        if (shmctl(_shmId, IPC_STAT, &info) == -1) {
            printf("get shared memory information failed\n");
        } else if (info.shm_nattch == 0) {
            // The last process out takes the channel with it.
            printf("attention please, delete the shared memory\n");
            _semaphore.Delete();
            if (shmctl(_shmId, IPC_RMID, nullptr) == -1) printf("delete shared memory failed\n");
        }
        _shmId = -1;
    }
}

int SharedMemImpl::InitLogInfo(bool aIsCreator) {
    if (_semaphore._P() != 0) {
        printf("init loginfo, semphore P operation failed\n");
        return -1;
    }
    SHM_ASSERT(_shbLen > sizeof(SharedMemInfoByLog));
    if (aIsCreator) static_cast<SharedMemInfoByLog*>(_shbAddr)->InitBySuccess(aIsCreator, _shbLen);
    _shPtr = static_cast<unsigned char*>(_shbAddr) + sizeof(SharedMemInfoByLog);
    _currPtr = _shPtr;
    _shLen = _shbLen - static_cast<unsigned int>(sizeof(SharedMemInfoByLog));
    if (_semaphore._V() != 0) printf("init loginfo, semphore V operation failed\n");
    return 0;
}

int SharedMemImpl::DeInitLogInfo() {
    if (_semaphore._P() != 0) {
        printf("deinit loginfo, semphore P operation failed\n");
        return -1;
    }
    _currPtr = nullptr;
    _shPtr = nullptr;
    _shLen = 0;
    if (_semaphore._V() != 0) printf("deinit loginfo, semphore V operation failed\n");
    return 0;
}

unsigned int SharedMemImpl::MatchPublicLevel(MTRACE_LEVEL_TYPE aLevel) {
    switch (aLevel) {
        case MTRACE_LEVEL_DEBUG:
            return 7;
        case MTRACE_LEVEL_WARNING:
            return 4;
        case MTRACE_LEVEL_ERROR:
            return 3;
        default:
            return 6;
    }
}

int SharedMemImpl::Write(const unsigned char* aData, unsigned int aLength,
                         MTRACE_LEVEL_TYPE aLevel) {
    if (!aData) {
        printf("write shared memory, no data\n");
        return -1;
    }
    int rv = _semaphore._P();
    if (rv != 0) {
        printf("write, semphore P operation failed\n");
        return rv;
    }
    if (!_currPtr) {
        printf("write shared memory, currptr=null\n");
        _semaphore._V();
        return -1;
    }
    // One byte always stays free for the terminating zero.
    if (aLength >= _shLen) {
        printf("write to much data to shared memory once, conlen=%u\n", aLength);
        aLength = _shLen - 1;
    }

    SharedMemInfoByLog* header = static_cast<SharedMemInfoByLog*>(_shbAddr);
    if (MatchPublicLevel(aLevel) > header->m_level) {
        _semaphore._V();
        return 0;
    }

    const unsigned int offset = header->GetWriteOffset();
    _currPtr = _shPtr + offset;
    if (offset >= _shLen) {
        printf("write shared memory, currptr=%p, shptr=%p\n", static_cast<void*>(_currPtr),
               static_cast<void*>(_shPtr));
        SHM_ASSERT(false);
    }

    const unsigned long used = static_cast<unsigned long>(_currPtr - _shPtr);
    if (used + aLength > _shLen) {
        if (used >= _shLen) {
            printf("write shared memory, didlen=%lu, shblen=%u\n", used, _shLen);
            SHM_ASSERT(false);
        }
        const unsigned int head = _shLen - static_cast<unsigned int>(used);
        memcpy(_currPtr, aData, head);
        memcpy(_shPtr, aData + head, aLength - head);
        _currPtr = _shPtr + (aLength - head);
    } else {
        if (aLength > 0) memcpy(_currPtr, aData, aLength);
        _currPtr += aLength;
        if (_currPtr == _shPtr + _shLen) _currPtr = _shPtr;
    }
    *_currPtr = 0;
    header->UpdateWriteOffset(static_cast<unsigned int>(_currPtr - _shPtr));

    rv = _semaphore._V();
    if (rv != 0) {
        printf("write, semphore V operation failed\n");
        return rv;
    }
    return static_cast<int>(aLength);
}

int SharedMemImpl::Read(unsigned char* aBuffer, unsigned int aSize) {
    if (!aBuffer || aSize == 0) {
        printf("read shared memory, no buffer\n");
        return -1;
    }
    int rv = _semaphore._P();
    if (rv != 0) {
        printf("read, semphore P operation failed\n");
        return rv;
    }
    if (!_currPtr) {
        printf("read shared memory, currptr=null");
        if (_semaphore._V() != 0) printf("write, semphore V operation failed\n");
        return -1;
    }

    const unsigned int limit = aSize < _shLen - 1 ? aSize : _shLen - 1;
    unsigned int count = 0;
    unsigned char* const end = _shPtr + _shLen;
    while (count < limit && *_currPtr != 0) {
        aBuffer[count++] = *_currPtr++;
        if (_currPtr == end) _currPtr = _shPtr;
    }
    aBuffer[count] = 0;

    rv = _semaphore._V();
    if (rv != 0) {
        printf("read semphore V operation failed\n");
        return rv;
    }
    return static_cast<int>(count);
}

int SharedMemImpl::UpdateFlag(int /*aUnused*/, int aLevel) {
    if (_semaphore._P() != 0) {
        printf("update flag, semphore P operation failed\n");
        return -1;
    }
    if (!IsGood()) {
        // Deliberately no V: the channel stays locked for every process.
        printf("update flag, not inited\n");
        return -1;
    }
    const bool known = aLevel >= MTRACE_LEVEL_DEBUG && aLevel <= MTRACE_LEVEL_ERROR;
    if (known) {
        static_cast<SharedMemInfoByLog*>(_shbAddr)->UpdateLevel(
            MatchPublicLevel(static_cast<MTRACE_LEVEL_TYPE>(aLevel)));
    }
    if (_semaphore._V() != 0) printf("update flag, semphore V operation failed\n");
    if (!known) {
        printf("update flag, no flag update\n");
        return -1;
    }
    return 0;
}
