// A thread that calls a function again and again until it returns false or
// the thread is stopped.
#ifndef SYSTEM_WRAPPERS_THREAD_WRAPPER_H_
#define SYSTEM_WRAPPERS_THREAD_WRAPPER_H_

#include <cstdint>

#include "sw_export.h"

namespace webrtc {

typedef void* ThreadObj;
typedef bool (*ThreadRunFunction)(ThreadObj);

enum ThreadPriority {
    kLowPriority = 1,
    kNormalPriority = 2,
    kHighPriority = 3,
    kHighestPriority = 4,
    kRealtimePriority = 5
};

const uint32_t kThreadMaxNameLength = 64;

class SW_EXPORT ThreadWrapper {
public:
    // Null for a null aFunc, a name of 64 or more characters, or when memory
    // runs out. Low, normal and high priorities keep the default policy;
    // highest and realtime ask for the round-robin realtime policy and fall
    // back to the default one (with a warning line) when that is refused.
    static ThreadWrapper* CreateThread(ThreadRunFunction aFunc = 0, ThreadObj aObj = 0,
                                       ThreadPriority aPriority = kNormalPriority, const char* aThreadName = 0);
    // The calling thread's kernel id.
    static uint32_t GetThreadId();

    // Stops a running thread first.
    virtual ~ThreadWrapper() {}

    // Returns once the thread runs, with aId its kernel id; false when it
    // runs already or could not start. The thread then calls the function at
    // least once, and again while it returns true and the thread is alive.
    // A thread that has ended may start again. The thread asks the kernel for
    // the smallest timer slack first, so its timed waits end when due.
    virtual bool Start(unsigned int& aId) = 0;
    // The loop ends after the current call of the function.
    virtual void SetNotAlive() = 0;
    // Ends the loop and waits up to 10 seconds for the thread. True once it
    // has ended and is joined (or never started); false when it is still
    // inside the function (it ends on its own later) or when called from the
    // thread itself (which then ends after the current call).
    virtual bool Stop() = 0;
    // Pins the running thread to the listed processors; false for a null or
    // empty list, a processor that does not exist, or a thread not running.
    virtual bool SetAffinity(const int* aProcessorNumbers, unsigned int aCount) = 0;
};

}  // namespace webrtc

#endif  // SYSTEM_WRAPPERS_THREAD_WRAPPER_H_
