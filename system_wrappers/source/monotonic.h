// Internal: the monotonic clock that every wait and timer of the portable
// primitives runs on, so that a step of the wall clock never stretches or
// shortens a wait.
#ifndef SYSTEM_WRAPPERS_SOURCE_MONOTONIC_H_
#define SYSTEM_WRAPPERS_SOURCE_MONOTONIC_H_

#include <pthread.h>
#ifdef __linux__
#include <sys/prctl.h>
#endif
#include <time.h>

#include <cstdint>

namespace webrtc {

constexpr int64_t kNsPerMs = 1000000;
constexpr int64_t kNsPerSecond = 1000000000;

inline int64_t MonotonicNowNs() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * kNsPerSecond + now.tv_nsec;
}

inline struct timespec ToTimespec(int64_t aNs) {
    struct timespec ts;
    ts.tv_sec = static_cast<time_t>(aNs / kNsPerSecond);
    ts.tv_nsec = static_cast<long>(aNs % kNsPerSecond);
    return ts;
}

// A condition variable whose timed waits take monotonic deadlines.
inline int InitMonotonicCond(pthread_cond_t* aCond) {
    pthread_condattr_t attr;
    int rv = pthread_condattr_init(&attr);
    if (rv != 0) return rv;
    rv = pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    if (rv == 0) rv = pthread_cond_init(aCond, &attr);
    pthread_condattr_destroy(&attr);
    return rv;
}

// Waits on aCond until aDeadlineNs on the monotonic clock; 0 or ETIMEDOUT
// (or another error of the system call).
inline int WaitUntil(pthread_cond_t* aCond, pthread_mutex_t* aMutex, int64_t aDeadlineNs) {
    const struct timespec deadline = ToTimespec(aDeadlineNs);
    return pthread_cond_timedwait(aCond, aMutex, &deadline);
}

// Asks the kernel for the smallest timer slack on the calling thread: Linux
// otherwise lets a thread's timed waits end up to 50 us after their deadline.
// Every thread the library starts calls it first thing.
inline void UseSmallestTimerSlack() {
#ifdef __linux__
    prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
#endif
}

}  // namespace webrtc

#endif  // SYSTEM_WRAPPERS_SOURCE_MONOTONIC_H_
