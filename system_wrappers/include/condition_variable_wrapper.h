/// @file
/// A condition variable that sleeps on a CriticalSectionWrapper.
#ifndef SYSTEM_WRAPPERS_CONDITION_VARIABLE_WRAPPER_H_
#define SYSTEM_WRAPPERS_CONDITION_VARIABLE_WRAPPER_H_

#include "critical_section_wrapper.h"
#include "sw_export.h"

namespace webrtc {

/// A condition variable that sleeps on any CriticalSectionWrapper. Time
/// limits run on the monotonic clock. Any thread may call any method.
class SW_EXPORT ConditionVariableWrapper {
public:
    /// A new condition variable; null when memory runs out or the system
    /// refuses. The caller owns it and frees it with delete.
    static ConditionVariableWrapper* CreateConditionVariable();

    /// Nobody may be asleep on it when it is deleted.
    virtual ~ConditionVariableWrapper() {}
    /// Sleeps until a wake. The caller holds aCritSect, entered once. It is
    /// released while sleeping and held again on return. A return may be
    /// spurious: re-check the condition.
    virtual void SleepCS(CriticalSectionWrapper& aCritSect) = 0;
    /// The same, for at most aMaxTimeMs; 0xFFFFFFFF (WEBRTC_EVENT_INFINITE)
    /// waits for ever. False when aMaxTimeMs passed without a wake, true
    /// otherwise (a return may still be spurious).
    virtual bool SleepCS(CriticalSectionWrapper& aCritSect, unsigned long aMaxTimeMs) = 0;
    /// Wakes one sleeper. With nobody asleep a wake does nothing: it is not
    /// remembered.
    virtual void Wake() = 0;
    /// Wakes every sleeper; with nobody asleep it does nothing.
    virtual void WakeAll() = 0;
};

}  // namespace webrtc

#endif  // SYSTEM_WRAPPERS_CONDITION_VARIABLE_WRAPPER_H_
