#include "condition_variable_wrapper.h"

#include <errno.h>
#include <pthread.h>

#include <new>

#include "monotonic.h"

namespace webrtc {

namespace {

constexpr unsigned long kInfinite = 0xFFFFFFFF;

// Sleeps on any CriticalSectionWrapper: a private mutex is taken before the
// caller's lock is left, and every wake takes it too, so a wake that follows
// the caller's Leave cannot slip in before the sleep starts.
class ConditionVariablePosix : public ConditionVariableWrapper {
public:
    bool Init() {
        m_ready = InitMonotonicCond(&m_cond) == 0;
        return m_ready;
    }
    ~ConditionVariablePosix() override {
        if (m_ready) pthread_cond_destroy(&m_cond);
        pthread_mutex_destroy(&m_mutex);
    }

    void SleepCS(CriticalSectionWrapper& aCritSect) override { SleepCS(aCritSect, kInfinite); }

    bool SleepCS(CriticalSectionWrapper& aCritSect, unsigned long aMaxTimeMs) override {
        const int64_t deadline =
            aMaxTimeMs == kInfinite ? 0 : MonotonicNowNs() + static_cast<int64_t>(aMaxTimeMs) * kNsPerMs;
        pthread_mutex_lock(&m_mutex);
        aCritSect.Leave();
        const int rv = aMaxTimeMs == kInfinite ? pthread_cond_wait(&m_cond, &m_mutex)
                                               : WaitUntil(&m_cond, &m_mutex, deadline);
        pthread_mutex_unlock(&m_mutex);
        aCritSect.Enter();
        return rv != ETIMEDOUT;
    }

    void Wake() override {
        pthread_mutex_lock(&m_mutex);
        pthread_cond_signal(&m_cond);
        pthread_mutex_unlock(&m_mutex);
    }

    void WakeAll() override {
        pthread_mutex_lock(&m_mutex);
        pthread_cond_broadcast(&m_cond);
        pthread_mutex_unlock(&m_mutex);
    }

private:
    pthread_mutex_t m_mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t m_cond;
    bool m_ready = false;
};

}  // namespace

ConditionVariableWrapper* ConditionVariableWrapper::CreateConditionVariable() {
    ConditionVariablePosix* condition = new (std::nothrow) ConditionVariablePosix();
    if (condition && !condition->Init()) {
        delete condition;
        return nullptr;
    }
    return condition;
}

}  // namespace webrtc
