#include "thread_wrapper.h"

#include <pthread.h>
#include <sched.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <new>

#include "monotonic.h"
#include "webrtc_trace.h"

namespace webrtc {

namespace {

constexpr int64_t kStopWaitNs = 10 * kNsPerSecond;
// What the kernel keeps of a thread's name, without the terminator.
constexpr size_t kKernelNameLength = 15;

// What one run of a thread shares with its object. The run holds a reference
// of its own, so a thread that outlives a Stop that gave up on it, and then
// its object, still has its flag and its end to report.
struct RunState {
    std::atomic<int> refs{2};  // the object's and the thread's
    const void* owner = nullptr;
    ThreadRunFunction func = nullptr;
    ThreadObj obj = nullptr;
    ThreadPriority priority = kNormalPriority;
    char name[kThreadMaxNameLength] = {};
    std::atomic<bool> alive{true};

    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t cond;  // running and ended
    const bool condReady = InitMonotonicCond(&cond) == 0;
    bool running = false;
    bool ended = false;
    uint32_t threadId = 0;

    void Release() {
        if (refs.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
    }
    ~RunState() {
        if (condReady) pthread_cond_destroy(&cond);
        pthread_mutex_destroy(&mutex);
    }
};

// The run of the calling thread, so that Stop from inside needs no lock.
thread_local RunState* tls_run = nullptr;

void ApplyPriority(const RunState& aRun) {
    if (aRun.priority != kHighestPriority && aRun.priority != kRealtimePriority) return;
    const int max = sched_get_priority_max(SCHED_RR);
    const int min = sched_get_priority_min(SCHED_RR);
    struct sched_param param = {};
    param.sched_priority = aRun.priority == kRealtimePriority ? max : (max - 1 > min ? max - 1 : min);
    const int rv = pthread_setschedparam(pthread_self(), SCHED_RR, &param);
    if (rv != 0) {
        Trace::Add(kTraceWarning, kTraceUtility, -1,
                   "Thread with name:%s, realtime priority refused, running at the default priority, err=%d",
                   aRun.name, rv);
    }
}

void* RunThread(void* aRun) {
    RunState* run = static_cast<RunState*>(aRun);
    tls_run = run;
    UseSmallestTimerSlack();
    if (run->name[0] != '\0') {
        char kernelName[kKernelNameLength + 1] = {};
        memcpy(kernelName, run->name, kKernelNameLength);
        pthread_setname_np(pthread_self(), kernelName);
    }
    ApplyPriority(*run);
    Trace::Add(kTraceStateInfo, kTraceUtility, -1, "Thread with name:%s started", run->name);

    pthread_mutex_lock(&run->mutex);
    run->threadId = ThreadWrapper::GetThreadId();
    run->running = true;
    pthread_cond_broadcast(&run->cond);
    pthread_mutex_unlock(&run->mutex);

    // The first call always comes, so a Stop right after Start still lets
    // the function run once.
    while (run->func(run->obj) && run->alive.load(std::memory_order_acquire)) {
    }

    pthread_mutex_lock(&run->mutex);
    run->ended = true;
    pthread_cond_broadcast(&run->cond);
    pthread_mutex_unlock(&run->mutex);
    tls_run = nullptr;
    run->Release();
    return nullptr;
}

class ThreadPosix : public ThreadWrapper {
public:
    ThreadPosix(ThreadRunFunction aFunc, ThreadObj aObj, ThreadPriority aPriority, const char* aName)
        : m_func(aFunc), m_obj(aObj), m_priority(aPriority) {
        // The factory has checked that the name fits with its terminator.
        if (aName) memcpy(m_name, aName, strlen(aName));
    }

    ~ThreadPosix() override {
        Stop();
        pthread_mutex_lock(&m_mutex);
        if (m_run) {
            // Still inside its function (or deleting itself): let it end alone.
            m_run->alive.store(false, std::memory_order_release);
            pthread_detach(m_thread);
            m_run->Release();
            m_run = nullptr;
        }
        pthread_mutex_unlock(&m_mutex);
        pthread_mutex_destroy(&m_mutex);
    }

    bool Start(unsigned int& aId) override {
        pthread_mutex_lock(&m_mutex);
        if (m_run && !Ended(m_run)) {
            pthread_mutex_unlock(&m_mutex);
            return false;
        }
        ReleaseEndedRunLocked();

        RunState* run = new (std::nothrow) RunState();
        if (!run || !run->condReady) {
            delete run;
            pthread_mutex_unlock(&m_mutex);
            return false;
        }
        run->owner = this;
        run->func = m_func;
        run->obj = m_obj;
        run->priority = m_priority;
        memcpy(run->name, m_name, sizeof(m_name));

        const int rv = pthread_create(&m_thread, nullptr, &RunThread, run);
        if (rv != 0) {
            Trace::Add(kTraceError, kTraceUtility, -1, "Thread with name:%s, pthread_create() failed, err=%d",
                       m_name, rv);
            delete run;
            pthread_mutex_unlock(&m_mutex);
            return false;
        }
        pthread_mutex_lock(&run->mutex);
        while (!run->running) pthread_cond_wait(&run->cond, &run->mutex);
        aId = run->threadId;
        pthread_mutex_unlock(&run->mutex);
        m_run = run;
        pthread_mutex_unlock(&m_mutex);
        return true;
    }

    void SetNotAlive() override {
        pthread_mutex_lock(&m_mutex);
        if (m_run) m_run->alive.store(false, std::memory_order_release);
        pthread_mutex_unlock(&m_mutex);
    }

    bool Stop() override {
        if (tls_run && tls_run->owner == this) {
            // A thread cannot wait for itself; it ends after this call.
            tls_run->alive.store(false, std::memory_order_release);
            return false;
        }
        pthread_mutex_lock(&m_mutex);
        RunState* run = m_run;
        if (!run) {
            pthread_mutex_unlock(&m_mutex);
            return true;
        }
        run->alive.store(false, std::memory_order_release);
        run->refs.fetch_add(1, std::memory_order_relaxed);
        // The wait is outside the object's lock, so SetNotAlive and
        // SetAffinity from the thread's own function cannot block on it.
        pthread_mutex_unlock(&m_mutex);

        const int64_t deadline = MonotonicNowNs() + kStopWaitNs;
        pthread_mutex_lock(&run->mutex);
        int rv = 0;
        while (!run->ended && rv == 0) rv = WaitUntil(&run->cond, &run->mutex, deadline);
        const bool ended = run->ended;
        pthread_mutex_unlock(&run->mutex);

        if (ended) {
            pthread_mutex_lock(&m_mutex);
            // Another Stop may have joined it meanwhile.
            if (m_run == run) ReleaseEndedRunLocked();
            pthread_mutex_unlock(&m_mutex);
        }
        run->Release();
        return ended;
    }

    bool SetAffinity(const int* aProcessorNumbers, unsigned int aCount) override {
        if (!aProcessorNumbers || aCount == 0) return false;
        const long processors = sysconf(_SC_NPROCESSORS_CONF);
        cpu_set_t set;
        CPU_ZERO(&set);
        for (unsigned int i = 0; i < aCount; ++i) {
            const int cpu = aProcessorNumbers[i];
            if (cpu < 0 || cpu >= processors || cpu >= CPU_SETSIZE) return false;
            CPU_SET(cpu, &set);
        }
        pthread_mutex_lock(&m_mutex);
        const bool running = m_run && !Ended(m_run);
        const bool pinned = running && pthread_setaffinity_np(m_thread, sizeof(set), &set) == 0;
        pthread_mutex_unlock(&m_mutex);
        return pinned;
    }

private:
    static bool Ended(RunState* aRun) {
        pthread_mutex_lock(&aRun->mutex);
        const bool ended = aRun->ended;
        pthread_mutex_unlock(&aRun->mutex);
        return ended;
    }

    // Joins a run that has ended and drops the object's reference to it.
    void ReleaseEndedRunLocked() {
        if (!m_run) return;
        pthread_join(m_thread, nullptr);
        m_run->Release();
        m_run = nullptr;
    }

    const ThreadRunFunction m_func;
    const ThreadObj m_obj;
    const ThreadPriority m_priority;
    char m_name[kThreadMaxNameLength] = {};

    pthread_mutex_t m_mutex = PTHREAD_MUTEX_INITIALIZER;  // m_run and m_thread
    RunState* m_run = nullptr;
    pthread_t m_thread{};
};

}  // namespace

ThreadWrapper* ThreadWrapper::CreateThread(ThreadRunFunction aFunc, ThreadObj aObj, ThreadPriority aPriority,
                                           const char* aThreadName) {
    if (!aFunc) return nullptr;
    if (aThreadName && strnlen(aThreadName, kThreadMaxNameLength) >= kThreadMaxNameLength) return nullptr;
    return new (std::nothrow) ThreadPosix(aFunc, aObj, aPriority, aThreadName);
}

uint32_t ThreadWrapper::GetThreadId() {
    return static_cast<uint32_t>(syscall(SYS_gettid));
}

}  // namespace webrtc
