// A recursive lock (CriticalSectionWrapper) and its scope guard
// (CriticalSectionScoped).
#ifndef SYSTEM_WRAPPERS_CRITICAL_SECTION_WRAPPER_H_
#define SYSTEM_WRAPPERS_CRITICAL_SECTION_WRAPPER_H_

#include "sw_export.h"

namespace webrtc {

class SW_EXPORT CriticalSectionWrapper {
public:
    // Null only when memory runs out; the caller deletes it.
    static CriticalSectionWrapper* CreateCriticalSection();

    virtual ~CriticalSectionWrapper() {}
    // The owner may enter again; it leaves as often as it entered.
    virtual void Enter() = 0;
    virtual void Leave() = 0;
};

class SW_EXPORT CriticalSectionScoped {
public:
    explicit CriticalSectionScoped(CriticalSectionWrapper* aCritSect) : m_critSect(aCritSect) {
        if (m_critSect) m_critSect->Enter();
    }
    explicit CriticalSectionScoped(CriticalSectionWrapper& aCritSect) : m_critSect(&aCritSect) {
        m_critSect->Enter();
    }
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
