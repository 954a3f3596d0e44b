/// @file
/// Result codes, the seconds/microseconds time value and the recursive mutex
/// with its scoped lock: the vocabulary every other family speaks.
#ifndef SYSTEM_WRAPPERS_COM_BASE_H_
#define SYSTEM_WRAPPERS_COM_BASE_H_

#include <pthread.h>
#include <sys/time.h>

#include "sw_export.h"

/// Success (0). Every fallible operation returns COM_OK or a failure code;
/// callers test against COM_OK, and the reason of a failure is in the error
/// trace line written where it happened.
constexpr int COM_OK = 0;
/// Any failure (1000001): a null or invalid argument, a stopped object, a
/// failed system call, an item not found. A few allocation failures return -1
/// instead; each function names its own codes.
constexpr int COM_ERROR_FAILURE = 1000001;
/// A bounded wait ran out (1000002). Only the timed waits of
/// ComConditionVariable::Wait and ComEvent::Wait return it; the event queues
/// built on them report a time-out as COM_ERROR_FAILURE with nothing popped.
constexpr int COM_ERROR_TIMEOUT = 1000002;

/// A point in wall-clock time (since the Unix epoch) or a duration: signed
/// seconds and microseconds, kept normalised so that the microseconds lie
/// within plus or minus 999999 and never carry the opposite sign of the
/// seconds (a negative fraction of a second has zero seconds and negative
/// microseconds). The type does not record whether it is a time or a
/// duration. A plain value: copy it freely; one object is not shared between
/// threads without a lock. Nothing here allocates, fails or traces, and
/// arithmetic does not check for overflow.
class SW_EXPORT ComTimeValueType {
public:
    /// Zero seconds, zero microseconds.
    constexpr ComTimeValueType() : m_lSec(0), m_lUsec(0) {}
    /// The normalised value of aSec seconds plus aUsec microseconds, so
    /// (0, 1500000) becomes (1, 500000) and (1, -1) becomes (0, 999999).
    constexpr ComTimeValueType(long aSec, long aUsec) : m_lSec(0), m_lUsec(0) { Set(aSec, aUsec); }
    /// The normalised value of aTv; a negative tv_usec keeps its sign.
    ComTimeValueType(const timeval& aTv) : m_lSec(0), m_lUsec(0) { Set(aTv); }  // NOLINT

    /// Stores aSec seconds plus aUsec microseconds, normalised.
    constexpr void Set(long aSec, long aUsec) {
        m_lSec = aSec;
        m_lUsec = aUsec;
        Normalize();
    }
    /// Stores aTv, normalised; a negative tv_usec keeps its sign.
    void Set(const timeval& aTv) {
        m_lSec = aTv.tv_sec;
        m_lUsec = static_cast<long>(aTv.tv_usec);  // widened with its sign
        Normalize();
    }

    /// Brings the microseconds back within plus or minus 999999 and gives
    /// both fields the same sign; a negative fraction keeps a zero second
    /// count. It carries one second per step, so it is meant for sums and
    /// differences of normalised values: a huge microsecond count costs one
    /// step per second.
    constexpr void Normalize() {
        if (m_lUsec >= 1000000) {
            do {
                ++m_lSec;
                m_lUsec -= 1000000;
            } while (m_lUsec >= 1000000);
        } else if (m_lUsec <= -1000000) {
            do {
                --m_lSec;
                m_lUsec += 1000000;
            } while (m_lUsec <= -1000000);
        }
        if (m_lSec >= 1 && m_lUsec < 0) {
            --m_lSec;
            m_lUsec += 1000000;
        } else if (m_lSec < 0 && m_lUsec > 0) {
            ++m_lSec;
            m_lUsec -= 1000000;
        }
    }

    /// The whole seconds (signed).
    constexpr long GetSec() const { return m_lSec; }
    /// The microseconds, within plus or minus 999999, never of the opposite
    /// sign to the seconds.
    constexpr long GetUsec() const { return m_lUsec; }

    /// The current wall-clock time (gettimeofday), not a monotonic clock:
    /// every deadline of the library is computed from it, so setting the
    /// system clock moves them. Any thread.
    static ComTimeValueType GetTimeOfDay();

    /// Adds aOther field by field, normalises, and returns this object.
    ComTimeValueType& operator+=(const ComTimeValueType& aOther) {
        m_lSec += aOther.m_lSec;
        m_lUsec += aOther.m_lUsec;
        Normalize();
        return *this;
    }

    /// Zero (0 s, 0 us). Set before any code of the library or its host runs.
    static const ComTimeValueType s_tvZero;
    /// The sentinel for "no deadline" (2147483647 s, 999999 us): an empty
    /// timer queue reports it, and a thread loop whose next deadline is
    /// s_tvMax waits without a limit. Set before any code runs.
    static const ComTimeValueType s_tvMax;

private:
    long m_lSec;
    long m_lUsec;
};

/// The normalised sum of a and b.
inline ComTimeValueType operator+(const ComTimeValueType& a, const ComTimeValueType& b) {
    return ComTimeValueType(a.GetSec() + b.GetSec(), a.GetUsec() + b.GetUsec());
}
/// The normalised difference a minus b; it may be negative (no clamping).
inline ComTimeValueType operator-(const ComTimeValueType& a, const ComTimeValueType& b) {
    return ComTimeValueType(a.GetSec() - b.GetSec(), a.GetUsec() - b.GetUsec());
}
/// True when seconds and microseconds are both equal.
inline bool operator==(const ComTimeValueType& a, const ComTimeValueType& b) {
    return a.GetSec() == b.GetSec() && a.GetUsec() == b.GetUsec();
}
/// True when a is later (or longer) than b: seconds first, then microseconds,
/// both compared signed. There is no operator< or operator!=; negate these.
inline bool operator>(const ComTimeValueType& a, const ComTimeValueType& b) {
    if (a.GetSec() != b.GetSec()) return a.GetSec() > b.GetSec();
    return a.GetUsec() > b.GetUsec();
}
/// True when a is not earlier (or shorter) than b.
inline bool operator>=(const ComTimeValueType& a, const ComTimeValueType& b) {
    if (a.GetSec() != b.GetSec()) return a.GetSec() > b.GetSec();
    return a.GetUsec() >= b.GetUsec();
}
/// True when a is not later (or longer) than b; defined as b >= a.
inline bool operator<=(const ComTimeValueType& a, const ComTimeValueType& b) {
    return b >= a;
}

/// The library's mutex: one recursive POSIX mutex. The thread that holds it
/// may lock it again and must unlock it as many times, so code holding a
/// queue's lock can call back into the same queue. Neither copied nor
/// assigned. Nothing here traces; initialisation failures go unnoticed.
class SW_EXPORT CMyMutex {
public:
    /// Creates the recursive mutex, unlocked.
    CMyMutex();
    /// Destroys the mutex; it must not be locked by anyone then.
    ~CMyMutex();
    CMyMutex(const CMyMutex&) = delete;
    CMyMutex& operator=(const CMyMutex&) = delete;

    /// Blocks until the calling thread holds the mutex (at once if it already
    /// does). Returns 0, or the pthread_mutex_lock error number unchanged.
    int Lock() { return pthread_mutex_lock(&m_mutex); }
    /// Gives up one level of the calling thread's hold; only the holder may
    /// call it. Returns 0, or the pthread_mutex_unlock error number unchanged.
    int UnLock() { return pthread_mutex_unlock(&m_mutex); }
    /// The native mutex inside this object, for a condition variable that
    /// waits on it (ComConditionVariable); borrowed, lives as long as this.
    pthread_mutex_t* GetMutexType() { return &m_mutex; }

private:
    pthread_mutex_t m_mutex;
};

/// Scoped lock: locks aLock on construction and unlocks it on destruction,
/// on the same thread. It cannot be released early or copied, and it ignores
/// the results of Lock() and UnLock(). T is any type with Lock() and UnLock()
/// (the library uses CMyMutex); the lock must outlive the guard.
template <class T>
class PattAutoLock {
public:
    /// Locks aLock (blocking) and keeps a pointer to it.
    explicit PattAutoLock(T& aLock) : m_pLock(&aLock) { m_pLock->Lock(); }
    /// Unlocks the lock taken by the constructor.
    ~PattAutoLock() { m_pLock->UnLock(); }
    PattAutoLock(const PattAutoLock&) = delete;
    PattAutoLock& operator=(const PattAutoLock&) = delete;

private:
    T* m_pLock;
};

#endif  // SYSTEM_WRAPPERS_COM_BASE_H_
