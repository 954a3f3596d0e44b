// An auto-reset event that a one-shot or periodic timer can signal.
#ifndef SYSTEM_WRAPPERS_EVENT_WRAPPER_H_
#define SYSTEM_WRAPPERS_EVENT_WRAPPER_H_

#include "sw_export.h"

#define WEBRTC_EVENT_INFINITE 0xffffffff
#define WEBRTC_EVENT_10_SEC 10000

namespace webrtc {

enum EventTypeWrapper { kEventSignaled = 1, kEventError = 2, kEventTimeout = 3 };

class SW_EXPORT EventWrapper {
public:
    // Null when memory runs out or the system refuses; the caller deletes it.
    static EventWrapper* Create();

    // Stops the timer: it never touches a deleted event.
    virtual ~EventWrapper() {}

    // Releases one waiter, or stays pending until the next Wait; signals do
    // not add up. Returns true.
    virtual bool Set() = 0;
    // Clears a pending signal. Returns true.
    virtual bool Reset() = 0;
    // kEventSignaled (consuming the signal) or kEventTimeout after aMaxTimeMs
    // (WEBRTC_EVENT_INFINITE: never); kEventError when the system call fails.
    virtual EventTypeWrapper Wait(unsigned long aMaxTimeMs) = 0;

    // Sets the event after aTimeMs, once or every aTimeMs. A periodic timer
    // keeps its schedule: signal n is due at start + n * aTimeMs, whatever the
    // lateness of the ones before. False for aTimeMs 0, or while a periodic
    // timer runs (nothing changes then); a pending one-shot restarts from now.
    virtual bool StartTimer(bool aPeriodic, unsigned long aTimeMs) = 0;
    // No signal comes from the timer once this returns. Returns true.
    virtual bool StopTimer() = 0;
};

}  // namespace webrtc

#endif  // SYSTEM_WRAPPERS_EVENT_WRAPPER_H_
