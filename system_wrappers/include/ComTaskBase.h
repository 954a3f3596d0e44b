// Semaphore, condition variable and event: thin wrappers over POSIX that turn
// system errors into result codes and trace every failure.
#ifndef SYSTEM_WRAPPERS_COM_TASK_BASE_H_
#define SYSTEM_WRAPPERS_COM_TASK_BASE_H_

#include <pthread.h>
#include <semaphore.h>

#include "ComBase.h"
#include "sw_export.h"

// Counting semaphore, private to the process.
class SW_EXPORT ComSemaphore {
public:
    // The name and the third argument are accepted for compatibility and ignored.
    explicit ComSemaphore(long aInitialCount = 0, const char* aName = nullptr, long aMaxCount = 0);
    ~ComSemaphore();
    ComSemaphore(const ComSemaphore&) = delete;
    ComSemaphore& operator=(const ComSemaphore&) = delete;

    // An interrupted wait is not retried: it fails.
    int Lock();
    int UnLock();
    // Posts aCount times; posts already made stay made if one fails.
    int PostN(long aCount);

private:
    sem_t m_semaphore;
};

// A condition variable bound for life to one mutex, which must outlive it.
class SW_EXPORT ComConditionVariable {
public:
    explicit ComConditionVariable(CMyMutex& aMutex);
    ~ComConditionVariable();
    ComConditionVariable(const ComConditionVariable&) = delete;
    ComConditionVariable& operator=(const ComConditionVariable&) = delete;

    int Signal();
    int Broadcast();
    // The caller holds the bound mutex. aTimeout is a duration from now (null:
    // no limit). Waits once: COM_OK on a wake-up (spurious ones included),
    // COM_ERROR_TIMEOUT when the deadline passed. The deadline is wall-clock.
    int Wait(ComTimeValueType* aTimeout = nullptr);

private:
    CMyMutex* m_pMutex;
    pthread_cond_t m_cond;
};

// Manual-reset (1) or auto-reset event. Reset() is refused by contract: an
// auto-reset event clears itself in Wait(), and Pulse() clears either kind.
class SW_EXPORT ComEvent {
public:
    explicit ComEvent(int aManualReset = 0, int aInitialState = 0, const char* aName = nullptr);
    ~ComEvent();
    ComEvent(const ComEvent&) = delete;
    ComEvent& operator=(const ComEvent&) = delete;

    // Any wake-up ends the wait (signal, pulse, time-out, interruption); the
    // result code tells them apart.
    int Wait(ComTimeValueType* aTimeout = nullptr);
    int Signal();
    // Releases only the threads already waiting and leaves the event not signalled.
    int Pulse();
    int Reset();

private:
    CMyMutex m_mutex;
    ComConditionVariable m_cond;
    int m_manualReset;
    int m_signaled;
    long long m_waiters;
};

#endif  // SYSTEM_WRAPPERS_COM_TASK_BASE_H_
