/// @file
/// A recursive lock (CriticalSectionWrapper) and its scope guard
/// (CriticalSectionScoped).
#ifndef SYSTEM_WRAPPERS_CRITICAL_SECTION_WRAPPER_H_
#define SYSTEM_WRAPPERS_CRITICAL_SECTION_WRAPPER_H_

#include "sw_export.h"

namespace webrtc {

/// A recursive lock: the thread that holds it may enter again, and leaves as
/// often as it entered. Any thread may enter it.
class SW_EXPORT CriticalSectionWrapper {
public:
    /// A new, free lock; null only when memory runs out. The caller owns it
    /// and frees it with delete.
    static CriticalSectionWrapper* CreateCriticalSection();

    /// Nobody may hold the lock when it is deleted.
    virtual ~CriticalSectionWrapper() {}
    /// Waits until the calling thread holds the lock. The owner may enter
    /// again; it leaves as often as it entered.
    virtual void Enter() = 0;
    /// Leaves once; only the thread that entered may.
    virtual void Leave() = 0;
};

/// Holds a CriticalSectionWrapper for its scope: enters in the constructor,
/// leaves in the destructor. Not copyable.
class SW_EXPORT CriticalSectionScoped {
public:
    /// Enters aCritSect (borrowed; it must outlive the guard). A null
    /// aCritSect makes a guard that holds nothing.
    explicit CriticalSectionScoped(CriticalSectionWrapper* aCritSect) : m_critSect(aCritSect) {
        if (m_critSect) m_critSect->Enter();
    }
    /// Enters aCritSect (borrowed; it must outlive the guard).
    explicit CriticalSectionScoped(CriticalSectionWrapper& aCritSect) : m_critSect(&aCritSect) {
        m_critSect->Enter();
    }
    /// Leaves the lock it entered.
    ~CriticalSectionScoped() {
        if (m_critSect) m_critSect->Leave();
    }
    CriticalSectionScoped(const CriticalSectionScoped&) = delete;
    CriticalSectionScoped& operator=(const CriticalSectionScoped&) = delete;

private:
    CriticalSectionWrapper* m_critSect;
};

}  // namespace webrtc

#endif  // SYSTEM_WRAPPERS_CRITICAL_SECTION_WRAPPER_H_
