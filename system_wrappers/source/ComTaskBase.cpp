#include "ComTaskBase.h"

#include <errno.h>
#include <time.h>

#include "sw_trace.h"

namespace {
const char kFile[] = "ComTaskBase";
}  // namespace

ComSemaphore::ComSemaphore(long aInitialCount, const char* /*aName*/, long /*aMaxCount*/) {
    if (sem_init(&m_semaphore, 0, static_cast<unsigned int>(aInitialCount)) == -1) {
        SW_TRACE_ERROR("ComSemaphore::ComSemaphore, sem_init() failed! err="
                       << errno << ", this=" << static_cast<void*>(this));
        SW_ASSERT_AT(kFile, 78, false, "FALSE");
    }
}

ComSemaphore::~ComSemaphore() {
    if (sem_destroy(&m_semaphore) == -1) {
        SW_TRACE_ERROR("ComSemaphore::~ComSemaphore, sem_destroy() failed! err="
                       << errno << ", this=" << static_cast<void*>(this));
    }
}

int ComSemaphore::Lock() {
    if (sem_wait(&m_semaphore) == -1) {
        SW_TRACE_ERROR("ComSemaphore::Lock, sem_wait() failed! err=" << errno << ", this="
                                                                     << static_cast<void*>(this));
        return COM_ERROR_FAILURE;
    }
    return COM_OK;
}

int ComSemaphore::UnLock() {
    return PostN(1);
}

int ComSemaphore::PostN(long aCount) {
    SW_ASSERT_AT(kFile, 129, aCount >= 1, "aCount >= 1");
    for (long i = 0; i < aCount; ++i) {
        if (sem_post(&m_semaphore) == -1) {
            SW_TRACE_ERROR("ComSemaphore::UnLock, sem_post() failed! err="
                           << errno << ", this=" << static_cast<void*>(this));
            return COM_ERROR_FAILURE;
        }
    }
    return COM_OK;
}

ComConditionVariable::ComConditionVariable(CMyMutex& aMutex) : m_pMutex(&aMutex) {
    int rv = pthread_cond_init(&m_cond, nullptr);
    if (rv != 0) {
        SW_TRACE_ERROR(
            "ComConditionVariable::ComConditionVariable, pthread_cond_init() failed! err="
            << rv << ", this=" << static_cast<void*>(this));
        SW_ASSERT_AT(kFile, 176, false, "FALSE");
    }
}

ComConditionVariable::~ComConditionVariable() {
    int rv = pthread_cond_destroy(&m_cond);
    if (rv != 0) {
        SW_TRACE_ERROR(
            "ComConditionVariable::~ComConditionVariable, pthread_cond_destroy() failed! err="
            << rv << ", this=" << static_cast<void*>(this));
    }
}

int ComConditionVariable::Signal() {
    int rv = pthread_cond_signal(&m_cond);
    if (rv != 0) {
        SW_TRACE_ERROR("ComConditionVariable::Signal, pthread_cond_signal() failed! err="
                       << rv << ", this=" << static_cast<void*>(this));
        return COM_ERROR_FAILURE;
    }
    return COM_OK;
}

int ComConditionVariable::Broadcast() {
    int rv = pthread_cond_broadcast(&m_cond);
    if (rv != 0) {
        // Log readers match this text as it has always been, naming Signal.
        SW_TRACE_ERROR("ComConditionVariable::Signal, pthread_cond_broadcast() failed! err="
                       << rv << ", this=" << static_cast<void*>(this));
        return COM_ERROR_FAILURE;
    }
    return COM_OK;
}

int ComConditionVariable::Wait(ComTimeValueType* aTimeout) {
    if (!aTimeout) {
        int rv = pthread_cond_wait(&m_cond, m_pMutex->GetMutexType());
        if (rv != 0) {
            SW_TRACE_ERROR("ComConditionVariable::Wait, pthread_cond_wait() failed! err="
                           << rv << ", this=" << static_cast<void*>(this));
            return COM_ERROR_FAILURE;
        }
        return COM_OK;
    }

    ComTimeValueType deadline = ComTimeValueType::GetTimeOfDay() + *aTimeout;
    timespec abstime;
    abstime.tv_sec = deadline.GetSec();
    abstime.tv_nsec = deadline.GetUsec() * 1000;
    int rv = pthread_cond_timedwait(&m_cond, m_pMutex->GetMutexType(), &abstime);
    switch (rv) {
        case 0:
            return COM_OK;
        case ETIMEDOUT:
            return COM_ERROR_TIMEOUT;
        case EINTR:
            return COM_OK;  // the caller re-tests its predicate
        default:
            SW_TRACE_ERROR("ComConditionVariable::Wait, pthread_cond_timedwait() failed! err="
                           << rv << ", this=" << static_cast<void*>(this));
            return COM_ERROR_FAILURE;
    }
}

ComEvent::ComEvent(int aManualReset, int aInitialState, const char* /*aName*/)
    : m_cond(m_mutex), m_manualReset(aManualReset), m_signaled(aInitialState), m_waiters(0) {}

ComEvent::~ComEvent() = default;

int ComEvent::Wait(ComTimeValueType* aTimeout) {
    int rv = m_mutex.Lock();
    if (!SW_ASSERT_AT(kFile, 432, rv == COM_OK, "rv == COM_OK")) return rv;
    if (m_signaled != 1) {
        ++m_waiters;
        rv = m_cond.Wait(aTimeout);
        --m_waiters;
    } else {
        if (m_manualReset == 0) m_signaled = 0;  // an auto-reset event consumes the signal
        rv = COM_OK;
    }
    m_mutex.UnLock();
    return rv;
}

int ComEvent::Signal() {
    int rv = m_mutex.Lock();
    if (!SW_ASSERT_AT(kFile, 467, rv == COM_OK, "rv == COM_OK")) return rv;
    if (m_manualReset == 1) {
        m_signaled = 1;
        rv = m_cond.Broadcast();
    } else if (m_waiters != 0) {
        rv = m_cond.Signal();  // the woken waiter consumes the signal
    } else {
        m_signaled = 1;  // the next Wait() passes at once and clears it
    }
    m_mutex.UnLock();
    return rv;
}

int ComEvent::Pulse() {
    int rv = m_mutex.Lock();
    if (!SW_ASSERT_AT(kFile, 500, rv == COM_OK, "rv == COM_OK")) return rv;
    rv = (m_manualReset == 1) ? m_cond.Broadcast() : m_cond.Signal();
    m_signaled = 0;
    m_mutex.UnLock();
    return rv;
}

int ComEvent::Reset() {
    return COM_ERROR_FAILURE;
}
