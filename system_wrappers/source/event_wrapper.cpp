#include "event_wrapper.h"

#include <errno.h>
#include <pthread.h>

#include <new>

#include "monotonic.h"

namespace webrtc {

namespace {

// The timer needs no thread of its own: its signals are due at known points of
// the monotonic clock, so every call first applies the ones that have come
// (Due), and a waiter sleeps no longer than the next one. A waiter is thus
// woken by the clock itself, as directly as a sleep_until loop would be, and
// nothing is left running that could touch a deleted event.
class EventPosix : public EventWrapper {
public:
    bool Init() {
        m_ready = InitMonotonicCond(&m_cond) == 0;
        return m_ready;
    }

    ~EventPosix() override {
        if (m_ready) pthread_cond_destroy(&m_cond);
        pthread_mutex_destroy(&m_mutex);
    }

    bool Set() override {
        pthread_mutex_lock(&m_mutex);
        m_signaled = true;
        pthread_cond_signal(&m_cond);
        pthread_mutex_unlock(&m_mutex);
        return true;
    }

    bool Reset() override {
        pthread_mutex_lock(&m_mutex);
        Due(MonotonicNowNs());
        m_signaled = false;
        pthread_mutex_unlock(&m_mutex);
        return true;
    }

    EventTypeWrapper Wait(unsigned long aMaxTimeMs) override {
        const bool forever = aMaxTimeMs == WEBRTC_EVENT_INFINITE;
        const int64_t deadline = forever ? 0 : MonotonicNowNs() + static_cast<int64_t>(aMaxTimeMs) * kNsPerMs;
        EventTypeWrapper result = kEventTimeout;
        pthread_mutex_lock(&m_mutex);
        for (;;) {
            const int64_t now = MonotonicNowNs();
            Due(now);
            if (m_signaled) {
                m_signaled = false;
                result = kEventSignaled;
                break;
            }
            if (!forever && now >= deadline) break;
            // Sleep until the caller's limit or the timer's next signal.
            const bool timed = m_armed || !forever;
            int64_t wakeAt = forever ? NextDueNs() : deadline;
            if (m_armed && NextDueNs() < wakeAt) wakeAt = NextDueNs();
            const int rv = timed ? WaitUntil(&m_cond, &m_mutex, wakeAt) : pthread_cond_wait(&m_cond, &m_mutex);
            if (rv != 0 && rv != ETIMEDOUT) {
                result = kEventError;
                break;
            }
        }
        pthread_mutex_unlock(&m_mutex);
        return result;
    }

    bool StartTimer(bool aPeriodic, unsigned long aTimeMs) override {
        if (aTimeMs == 0) return false;
        pthread_mutex_lock(&m_mutex);
        const int64_t now = MonotonicNowNs();
        Due(now);
        const bool started = !(m_armed && m_periodic);
        if (started) {
            m_armed = true;
            m_periodic = aPeriodic;
            m_periodNs = static_cast<int64_t>(aTimeMs) * kNsPerMs;
            m_startNs = now;
            m_passed = 0;
            // Waiters recompute how long to sleep.
            pthread_cond_broadcast(&m_cond);
        }
        pthread_mutex_unlock(&m_mutex);
        return started;
    }

    bool StopTimer() override {
        pthread_mutex_lock(&m_mutex);
        Due(MonotonicNowNs());  // a signal already due stays
        m_armed = false;
        pthread_mutex_unlock(&m_mutex);
        return true;
    }

private:
    int64_t NextDueNs() const { return m_startNs + (m_passed + 1) * m_periodNs; }

    // Signals the event when the timer's next point has come. Points that
    // passed meanwhile make one signal, not several: the event has only one.
    void Due(int64_t aNow) {
        if (!m_armed || aNow < NextDueNs()) return;
        m_signaled = true;
        if (m_periodic) {
            m_passed = (aNow - m_startNs) / m_periodNs;
        } else {
            m_armed = false;
        }
    }

    pthread_mutex_t m_mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t m_cond;
    bool m_ready = false;
    bool m_signaled = false;

    bool m_armed = false;
    bool m_periodic = false;
    int64_t m_periodNs = 0;
    int64_t m_startNs = 0;
    int64_t m_passed = 0;  // points of the schedule already signalled
};

}  // namespace

EventWrapper* EventWrapper::Create() {
    EventPosix* event = new (std::nothrow) EventPosix();
    if (event && !event->Init()) {
        delete event;
        return nullptr;
    }
    return event;
}

}  // namespace webrtc
