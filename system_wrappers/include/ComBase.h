// Result codes, the seconds/microseconds time value and the recursive mutex
// with its scoped lock: the vocabulary every other family speaks.
#ifndef SYSTEM_WRAPPERS_COM_BASE_H_
#define SYSTEM_WRAPPERS_COM_BASE_H_

#include <pthread.h>
#include <sys/time.h>

#include "sw_export.h"

// Every fallible operation returns one of these. Callers test against COM_OK;
// the reason of a failure is in the trace line written where it happened.
constexpr int COM_OK = 0;
constexpr int COM_ERROR_FAILURE = 1000001;
constexpr int COM_ERROR_TIMEOUT = 1000002;  // only from a timed condition-variable wait

// A point in wall-clock time or a duration, kept normalised: |usec| <= 999999
// and seconds and microseconds never carry opposite signs.
class SW_EXPORT ComTimeValueType {
public:
    constexpr ComTimeValueType() : m_lSec(0), m_lUsec(0) {}
    constexpr ComTimeValueType(long aSec, long aUsec) : m_lSec(0), m_lUsec(0) { Set(aSec, aUsec); }
    ComTimeValueType(const timeval& aTv) : m_lSec(0), m_lUsec(0) { Set(aTv); }  // NOLINT

    constexpr void Set(long aSec, long aUsec) {
        m_lSec = aSec;
        m_lUsec = aUsec;
        Normalize();
    }
    void Set(const timeval& aTv) {
        m_lSec = aTv.tv_sec;
        m_lUsec = static_cast<long>(aTv.tv_usec);  // widened with its sign
        Normalize();
    }

    // Carries in single-second steps (values are sums or differences of two
    // normalised values, so the loops run at most once or twice), then aligns
    // the signs. A negative fraction keeps a zero second count.
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

    constexpr long GetSec() const { return m_lSec; }
    constexpr long GetUsec() const { return m_lUsec; }

    // Wall clock (gettimeofday); every deadline of the library is computed from it.
    static ComTimeValueType GetTimeOfDay();

    ComTimeValueType& operator+=(const ComTimeValueType& aOther) {
        m_lSec += aOther.m_lSec;
        m_lUsec += aOther.m_lUsec;
        Normalize();
        return *this;
    }

    static const ComTimeValueType s_tvZero;
    // The sentinel for "no deadline".
    static const ComTimeValueType s_tvMax;

private:
    long m_lSec;
    long m_lUsec;
};

inline ComTimeValueType operator+(const ComTimeValueType& a, const ComTimeValueType& b) {
    return ComTimeValueType(a.GetSec() + b.GetSec(), a.GetUsec() + b.GetUsec());
}
inline ComTimeValueType operator-(const ComTimeValueType& a, const ComTimeValueType& b) {
    return ComTimeValueType(a.GetSec() - b.GetSec(), a.GetUsec() - b.GetUsec());
}
inline bool operator==(const ComTimeValueType& a, const ComTimeValueType& b) {
    return a.GetSec() == b.GetSec() && a.GetUsec() == b.GetUsec();
}
inline bool operator>(const ComTimeValueType& a, const ComTimeValueType& b) {
    if (a.GetSec() != b.GetSec()) return a.GetSec() > b.GetSec();
    return a.GetUsec() > b.GetUsec();
}
inline bool operator>=(const ComTimeValueType& a, const ComTimeValueType& b) {
    if (a.GetSec() != b.GetSec()) return a.GetSec() > b.GetSec();
    return a.GetUsec() >= b.GetUsec();
}
inline bool operator<=(const ComTimeValueType& a, const ComTimeValueType& b) {
    return b >= a;
}

// Recursive: the holder may lock it again (and must unlock as often), so code
// holding a queue's lock can call back into the same queue.
class SW_EXPORT CMyMutex {
public:
    CMyMutex();
    ~CMyMutex();
    CMyMutex(const CMyMutex&) = delete;
    CMyMutex& operator=(const CMyMutex&) = delete;

    int Lock() { return pthread_mutex_lock(&m_mutex); }
    int UnLock() { return pthread_mutex_unlock(&m_mutex); }
    // The native handle, for condition variables that wait on this mutex.
    pthread_mutex_t* GetMutexType() { return &m_mutex; }

private:
    pthread_mutex_t m_mutex;
};

template <class T>
class PattAutoLock {
public:
    explicit PattAutoLock(T& aLock) : m_pLock(&aLock) { m_pLock->Lock(); }
    ~PattAutoLock() { m_pLock->UnLock(); }
    PattAutoLock(const PattAutoLock&) = delete;
    PattAutoLock& operator=(const PattAutoLock&) = delete;

private:
    T* m_pLock;
};

#endif  // SYSTEM_WRAPPERS_COM_BASE_H_
