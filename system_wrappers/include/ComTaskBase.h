/// @file
/// Semaphore, condition variable and event: thin wrappers over POSIX that turn
/// system errors into result codes and trace every failure at error level.
#ifndef SYSTEM_WRAPPERS_COM_TASK_BASE_H_
#define SYSTEM_WRAPPERS_COM_TASK_BASE_H_

#include <pthread.h>
#include <semaphore.h>

#include "ComBase.h"
#include "sw_export.h"

/// Counting semaphore, private to the process. Any thread may call any
/// member.
class SW_EXPORT ComSemaphore {
public:
    /// A semaphore holding aInitialCount. The name and the third argument are
    /// accepted for compatibility and ignored. A count the system refuses
    /// (above SEM_VALUE_MAX; a negative count reads as a huge one) traces
    /// "ComSemaphore::ComSemaphore, sem_init() failed! err=" and the errno,
    /// plus assertion "FALSE"; the semaphore is then unusable.
    explicit ComSemaphore(long aInitialCount = 0, const char* aName = nullptr, long aMaxCount = 0);
    /// Destroys the semaphore; nobody may be waiting on it.
    ~ComSemaphore();
    ComSemaphore(const ComSemaphore&) = delete;
    ComSemaphore& operator=(const ComSemaphore&) = delete;

    /// Waits until the count is above zero and takes one. COM_OK, or
    /// COM_ERROR_FAILURE with "ComSemaphore::Lock, sem_wait() failed! err="
    /// and the errno: an interrupted wait (EINTR) is not retried, it fails.
    int Lock();
    /// Adds one: PostN(1).
    int UnLock();
    /// Adds aCount, one post at a time. COM_OK, or COM_ERROR_FAILURE at the
    /// first failed post ("ComSemaphore::UnLock, sem_post() failed! err=" and
    /// the errno, EOVERFLOW at SEM_VALUE_MAX); posts already made stay made.
    /// An aCount below 1 posts nothing, traces assertion "aCount >= 1" and
    /// returns COM_OK.
    int PostN(long aCount);

private:
    sem_t m_semaphore;
};

/// A condition variable bound for life to one mutex, which must outlive it.
/// Failures of the system calls trace "ComConditionVariable::" and the call's
/// name, then the error number.
class SW_EXPORT ComConditionVariable {
public:
    /// Binds to aMutex (borrowed). A failed initialisation is only traced.
    explicit ComConditionVariable(CMyMutex& aMutex);
    /// Destroys the condition variable; nobody may be waiting on it.
    ~ComConditionVariable();
    ComConditionVariable(const ComConditionVariable&) = delete;
    ComConditionVariable& operator=(const ComConditionVariable&) = delete;

    /// Wakes one waiter, if any; a signal with nobody waiting is lost. With or
    /// without the mutex held. COM_OK, or COM_ERROR_FAILURE
    /// ("ComConditionVariable::Signal, pthread_cond_signal() failed! err=").
    int Signal();
    /// Wakes every waiter. With or without the mutex held. COM_OK, or
    /// COM_ERROR_FAILURE traced as "ComConditionVariable::Signal,
    /// pthread_cond_broadcast() failed! err=" (the text names Signal).
    int Broadcast();
    /// The caller holds the bound mutex. aTimeout is a duration from now (null:
    /// no limit). Waits once: COM_OK on a wake-up (spurious ones and
    /// interruptions included), COM_ERROR_TIMEOUT (1000002, not traced) when
    /// the deadline passed, COM_ERROR_FAILURE when the wait fails (traced).
    /// So re-test your condition after it returns. The deadline is
    /// wall-clock: moving the system clock moves it.
    int Wait(ComTimeValueType* aTimeout = nullptr);

private:
    CMyMutex* m_pMutex;
    pthread_cond_t m_cond;
};

/// Manual-reset (aManualReset 1) or auto-reset event; any thread may call any
/// member. Reset() is refused by contract: an auto-reset event clears itself
/// in Wait(), and Pulse() clears either kind. Should locking its own mutex
/// fail, Wait, Signal and Pulse return that error number instead.
class SW_EXPORT ComEvent {
public:
    /// aManualReset 1 makes a manual-reset event, any other value an
    /// auto-reset one; aInitialState 1 starts it signalled. The name is
    /// ignored.
    explicit ComEvent(int aManualReset = 0, int aInitialState = 0, const char* aName = nullptr);
    /// Destroys the event; nobody may be waiting on it.
    ~ComEvent();
    ComEvent(const ComEvent&) = delete;
    ComEvent& operator=(const ComEvent&) = delete;

    /// Passes at once with COM_OK when the event is signalled (an auto-reset
    /// event is cleared by this). Otherwise waits once for at most aTimeout
    /// from now (null: no limit; a zero duration only polls): COM_OK when
    /// woken by Signal or Pulse, and also on a spurious wake-up or an
    /// interruption; COM_ERROR_TIMEOUT (not traced) when the time ran out;
    /// COM_ERROR_FAILURE when the wait fails. The deadline is wall-clock.
    int Wait(ComTimeValueType* aTimeout = nullptr);
    /// Manual reset: signalled, and every waiter wakes; later Waits pass until
    /// Pulse. Auto reset: wakes one waiter, who consumes the signal, or with
    /// nobody waiting stays signalled for the next Wait. COM_OK, or
    /// COM_ERROR_FAILURE when the system call fails.
    int Signal();
    /// Releases only the threads already waiting (all of them for a
    /// manual-reset event, one for an auto-reset one) and leaves the event not
    /// signalled. COM_OK, or COM_ERROR_FAILURE when the system call fails.
    int Pulse();
    /// Refused: always COM_ERROR_FAILURE, and the event does not change. Use
    /// Pulse to clear it.
    int Reset();

private:
    CMyMutex m_mutex;
    ComConditionVariable m_cond;
    int m_manualReset;
    int m_signaled;
    long long m_waiters;
};

#endif  // SYSTEM_WRAPPERS_COM_TASK_BASE_H_
