// A condition variable that sleeps on a CriticalSectionWrapper.
#ifndef SYSTEM_WRAPPERS_CONDITION_VARIABLE_WRAPPER_H_
#define SYSTEM_WRAPPERS_CONDITION_VARIABLE_WRAPPER_H_

#include "critical_section_wrapper.h"
#include "sw_export.h"

namespace webrtc {

class SW_EXPORT ConditionVariableWrapper {
public:
    // Null when memory runs out or the system refuses; the caller deletes it.
    static ConditionVariableWrapper* CreateConditionVariable();

    virtual ~ConditionVariableWrapper() {}
    // The caller holds aCritSect, entered once. It is released while
    // sleeping and held again on return. A return may be spurious.
    virtual void SleepCS(CriticalSectionWrapper& aCritSect) = 0;
    // False when aMaxTimeMs passed without a wake; 0xFFFFFFFF waits for ever.
    virtual bool SleepCS(CriticalSectionWrapper& aCritSect, unsigned long aMaxTimeMs) = 0;
    // With nobody asleep a wake does nothing: it is not remembered.
    virtual void Wake() = 0;
    virtual void WakeAll() = 0;
};

}  // namespace webrtc

#endif  // SYSTEM_WRAPPERS_CONDITION_VARIABLE_WRAPPER_H_
