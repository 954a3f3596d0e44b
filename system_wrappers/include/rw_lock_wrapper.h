/// @file
/// A read/write lock whose writers are not starved (RWLockWrapper) and the
/// scope guards that hold it shared (ReadLockScoped) or exclusive
/// (WriteLockScoped).
#ifndef SYSTEM_WRAPPERS_RW_LOCK_WRAPPER_H_
#define SYSTEM_WRAPPERS_RW_LOCK_WRAPPER_H_

#include "sw_export.h"

namespace webrtc {

/// A read/write lock: many shared holders at once, or one exclusive holder
/// alone. Writers are not starved: once a writer waits, new shared
/// acquisitions wait behind it (so a reader must not acquire it again while
/// it holds it). Neither side is recursive. Any thread may use it.
class SW_EXPORT RWLockWrapper {
public:
    /// A new, free lock; null only when memory runs out. The caller owns it
    /// and frees it with delete.
    static RWLockWrapper* CreateRWLock();

    /// Nobody may hold or wait for the lock when it is deleted.
    virtual ~RWLockWrapper() {}
    /// Waits until the calling thread holds the lock alone: for the writer
    /// before it and for the shared holders already inside.
    virtual void AcquireLockExclusive() = 0;
    /// Releases the exclusive hold; only the thread that acquired it may.
    virtual void ReleaseLockExclusive() = 0;
    /// Waits until no writer holds or waits for the lock, then holds it
    /// shared.
    virtual void AcquireLockShared() = 0;
    /// Releases one shared hold taken by AcquireLockShared.
    virtual void ReleaseLockShared() = 0;
};

/// Holds an RWLockWrapper shared for its scope. Not copyable.
class SW_EXPORT ReadLockScoped {
public:
    /// Acquires aLock shared; aLock is borrowed and must outlive the guard.
    explicit ReadLockScoped(RWLockWrapper& aLock) : m_lock(aLock) { m_lock.AcquireLockShared(); }
    /// Releases the shared hold.
    ~ReadLockScoped() { m_lock.ReleaseLockShared(); }
    ReadLockScoped(const ReadLockScoped&) = delete;
    ReadLockScoped& operator=(const ReadLockScoped&) = delete;

private:
    RWLockWrapper& m_lock;
};

/// Holds an RWLockWrapper exclusive for its scope. Not copyable.
class SW_EXPORT WriteLockScoped {
public:
    /// Acquires aLock exclusive; aLock is borrowed and must outlive the guard.
    explicit WriteLockScoped(RWLockWrapper& aLock) : m_lock(aLock) { m_lock.AcquireLockExclusive(); }
    /// Releases the exclusive hold.
    ~WriteLockScoped() { m_lock.ReleaseLockExclusive(); }
    WriteLockScoped(const WriteLockScoped&) = delete;
    WriteLockScoped& operator=(const WriteLockScoped&) = delete;

private:
    RWLockWrapper& m_lock;
};

}  // namespace webrtc

#endif  // SYSTEM_WRAPPERS_RW_LOCK_WRAPPER_H_
