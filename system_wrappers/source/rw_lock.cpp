#include <pthread.h>

#include <new>

#include "rw_lock_wrapper.h"

namespace webrtc {

namespace {

// glibc's rwlock in its writer-preferring kind: a waiting writer holds back
// new readers, at the cost of the plain rwlock.
class RWLockPosix : public RWLockWrapper {
public:
    bool Init() {
        pthread_rwlockattr_t attr;
        if (pthread_rwlockattr_init(&attr) != 0) return false;
        pthread_rwlockattr_setkind_np(&attr, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
        m_ready = pthread_rwlock_init(&m_lock, &attr) == 0;
        pthread_rwlockattr_destroy(&attr);
        return m_ready;
    }
    ~RWLockPosix() override {
        if (m_ready) pthread_rwlock_destroy(&m_lock);
    }

    void AcquireLockExclusive() override { pthread_rwlock_wrlock(&m_lock); }
    void ReleaseLockExclusive() override { pthread_rwlock_unlock(&m_lock); }
    void AcquireLockShared() override { pthread_rwlock_rdlock(&m_lock); }
    void ReleaseLockShared() override { pthread_rwlock_unlock(&m_lock); }

private:
    pthread_rwlock_t m_lock;
    bool m_ready = false;
};

}  // namespace

RWLockWrapper* RWLockWrapper::CreateRWLock() {
    RWLockPosix* lock = new (std::nothrow) RWLockPosix();
    if (lock && !lock->Init()) {
        delete lock;
        return nullptr;
    }
    return lock;
}

}  // namespace webrtc
