/// @file
/// A thread that calls a function again and again until it returns false or
/// the thread is stopped.
#ifndef SYSTEM_WRAPPERS_THREAD_WRAPPER_H_
#define SYSTEM_WRAPPERS_THREAD_WRAPPER_H_

#include <cstdint>

#include "sw_export.h"

namespace webrtc {

/// The caller's argument to a ThreadRunFunction, passed through unchanged.
typedef void* ThreadObj;
/// The function a ThreadWrapper runs on its thread, with the ThreadObj given
/// to CreateThread. Returning true asks to be called again; false ends the
/// thread.
typedef bool (*ThreadRunFunction)(ThreadObj);

/// The scheduling a ThreadWrapper asks for when it starts. When the system
/// refuses the realtime policy (no privilege), the thread runs with the
/// default one and says so in a warning line (see ThreadWrapper::Start).
enum ThreadPriority {
    kLowPriority = 1,      ///< The default policy.
    kNormalPriority = 2,   ///< The default policy.
    kHighPriority = 3,     ///< The default policy.
    kHighestPriority = 4,  ///< Round-robin realtime, one step below the top priority.
    kRealtimePriority = 5  ///< Round-robin realtime at the top priority.
};

/// Thread names must be shorter than this, in bytes.
const uint32_t kThreadMaxNameLength = 64;

/// A thread that calls a ThreadRunFunction again and again. Any thread may
/// call the methods; Stop from the thread itself is refused (see Stop).
class SW_EXPORT ThreadWrapper {
public:
    /// A new, stopped thread that will call aFunc(aObj); null for a null
    /// aFunc, a name of 64 or more characters, or when memory runs out. The
    /// caller owns it and frees it with delete. aObj is borrowed and must stay
    /// valid until the function's last call has returned. aThreadName (copied;
    /// may be null) names the thread; the kernel keeps its first 15
    /// characters. See ThreadPriority for what aPriority asks of the system.
    static ThreadWrapper* CreateThread(ThreadRunFunction aFunc = 0, ThreadObj aObj = 0,
                                       ThreadPriority aPriority = kNormalPriority, const char* aThreadName = 0);
    /// The calling thread's kernel id.
    static uint32_t GetThreadId();

    /// Stops a running thread first, as Stop does. A thread still inside its
    /// function after that wait (or deleting its own object) ends on its own
    /// after the current call, never touching the deleted object.
    virtual ~ThreadWrapper() {}

    /// Starts the thread and returns once it runs, with aId its kernel id;
    /// false when it runs already or could not start. A thread that has ended
    /// may start again. The thread calls the function at least once, and again
    /// while it returns true and the thread is alive; it asks the kernel for
    /// the smallest timer slack, so its timed waits end when due. Traces, on
    /// the new thread, "Thread with name:%s started" (info; the empty name
    /// without one) and, when the realtime policy is refused,
    /// "Thread with name:%s, realtime priority refused, running at the default priority, err=%d"
    /// (warning); when the thread cannot be created,
    /// "Thread with name:%s, pthread_create() failed, err=%d" (error).
    virtual bool Start(unsigned int& aId) = 0;
    /// The loop ends after the current call of the function. Returns at once.
    virtual void SetNotAlive() = 0;
    /// Ends the loop and waits up to 10 seconds for the thread. True once it
    /// has ended and is joined (or never started); false when it is still
    /// inside the function (it ends on its own later, and Start stays refused
    /// until then) or when called from the thread itself (which then ends
    /// after the current call).
    virtual bool Stop() = 0;
    /// Pins the running thread to the aCount processors listed in
    /// aProcessorNumbers; false for a null or empty list, a processor that
    /// does not exist, a thread not running, or a refusal of the system.
    virtual bool SetAffinity(const int* aProcessorNumbers, unsigned int aCount) = 0;
};

}  // namespace webrtc

#endif  // SYSTEM_WRAPPERS_THREAD_WRAPPER_H_
