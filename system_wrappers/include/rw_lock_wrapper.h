// A read/write lock whose writers are not starved: once a writer waits, new
// shared acquisitions wait behind it (so a reader must not acquire it again
// while it holds it). Neither side is recursive.
#ifndef SYSTEM_WRAPPERS_RW_LOCK_WRAPPER_H_
#define SYSTEM_WRAPPERS_RW_LOCK_WRAPPER_H_

#include "sw_export.h"

namespace webrtc {

class SW_EXPORT RWLockWrapper {
public:
    // Null when memory runs out or the system refuses; the caller deletes it.
    static RWLockWrapper* CreateRWLock();

    virtual ~RWLockWrapper() {}
    virtual void AcquireLockExclusive() = 0;
    virtual void ReleaseLockExclusive() = 0;
    virtual void AcquireLockShared() = 0;
    virtual void ReleaseLockShared() = 0;
};

class SW_EXPORT ReadLockScoped {
public:
    explicit ReadLockScoped(RWLockWrapper& aLock) : m_lock(aLock) { m_lock.AcquireLockShared(); }
    ~ReadLockScoped() { m_lock.ReleaseLockShared(); }
    ReadLockScoped(const ReadLockScoped&) = delete;
    ReadLockScoped& operator=(const ReadLockScoped&) = delete;

private:
    RWLockWrapper& m_lock;
};

class SW_EXPORT WriteLockScoped {
public:
    explicit WriteLockScoped(RWLockWrapper& aLock) : m_lock(aLock) { m_lock.AcquireLockExclusive(); }
    ~WriteLockScoped() { m_lock.ReleaseLockExclusive(); }
    WriteLockScoped(const WriteLockScoped&) = delete;
    WriteLockScoped& operator=(const WriteLockScoped&) = delete;

private:
    RWLockWrapper& m_lock;
};

}  // namespace webrtc

#endif  // SYSTEM_WRAPPERS_RW_LOCK_WRAPPER_H_
