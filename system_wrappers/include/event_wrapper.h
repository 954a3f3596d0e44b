/// @file
/// An auto-reset event that a one-shot or periodic timer can signal.
#ifndef SYSTEM_WRAPPERS_EVENT_WRAPPER_H_
#define SYSTEM_WRAPPERS_EVENT_WRAPPER_H_

#include "sw_export.h"

/// The time limit that makes EventWrapper::Wait (and
/// ConditionVariableWrapper::SleepCS) wait for ever.
#define WEBRTC_EVENT_INFINITE 0xffffffff
/// Ten seconds, in milliseconds, as a time limit.
#define WEBRTC_EVENT_10_SEC 10000

namespace webrtc {

/// The result of EventWrapper::Wait.
enum EventTypeWrapper {
    kEventSignaled = 1,  ///< The event was signalled; the signal is consumed.
    kEventError = 2,     ///< The system call failed.
    kEventTimeout = 3    ///< The time limit passed without a signal.
};

/// An auto-reset event with a timer of its own that can signal it once or
/// periodically. Waits and the timer run on the monotonic clock. Any thread
/// may call any method.
class SW_EXPORT EventWrapper {
public:
    /// A new, unsignalled event with no timer; null when memory runs out or
    /// the system refuses. The caller owns it and frees it with delete.
    static EventWrapper* Create();

    /// Stops the timer: it never touches a deleted event. No thread may be
    /// waiting on the event then.
    virtual ~EventWrapper() {}

    /// Releases one waiter, or stays pending until the next Wait; signals do
    /// not add up. Returns true.
    virtual bool Set() = 0;
    /// Clears a pending signal, one the timer has due included. Returns true.
    virtual bool Reset() = 0;
    /// kEventSignaled at once when a signal is pending, or when one comes
    /// within aMaxTimeMs (consuming it); kEventTimeout once aMaxTimeMs has
    /// passed (0 only polls; WEBRTC_EVENT_INFINITE never times out);
    /// kEventError when the system call fails.
    virtual EventTypeWrapper Wait(unsigned long aMaxTimeMs) = 0;

    /// Sets the event after aTimeMs, once or every aTimeMs. A periodic timer
    /// keeps its schedule: signal n is due at start + n * aTimeMs, whatever
    /// the lateness of the ones before; due points that nobody consumed make
    /// one pending signal. True when the timer starts. False for aTimeMs 0,
    /// or while a periodic timer runs (nothing changes then); a pending
    /// one-shot restarts from now.
    virtual bool StartTimer(bool aPeriodic, unsigned long aTimeMs) = 0;
    /// No signal comes from the timer once this returns; a signal it already
    /// made stays pending. Returns true.
    virtual bool StopTimer() = 0;
};

}  // namespace webrtc

#endif  // SYSTEM_WRAPPERS_EVENT_WRAPPER_H_
