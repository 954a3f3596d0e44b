// One-shot and periodic timers: ComTimerWrapper objects scheduled on the task
// thread that owns them, a counted timer and its trap, and a plain
// ITimerHandler scheduled on a task thread from another thread.
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>

#include "ComThreadManger.h"
#include "ComTimerWrapper.h"
#include "mtrace.h"

namespace {

template <class F>
bool WaitFor(F aDone) {  // polls for up to five seconds
    for (int i = 0; i < 5000 && !aDone(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return aDone();
}

int Fail(const char* aWhat) {
    fprintf(stderr, "03_timers: FAILED: %s\n", aWhat);
    return 1;
}

std::mutex gTraceMutex;
std::string gTrace;  // every line the library traced
void OnTrace(int, int, const char* aFormat, ...) {
    va_list args;
    va_start(args, aFormat);
    const char* line = va_arg(args, const char*);
    va_end(args);
    std::lock_guard<std::mutex> lock(gTraceMutex);
    gTrace += line;
}
bool Traced(const char* aText) {
    std::lock_guard<std::mutex> lock(gTraceMutex);
    return gTrace.find(aText) != std::string::npos;
}

// Runs aCall on aThread and returns its result: SendEvent waits for it.
template <class F>
class Call : public IEvent {
public:
    explicit Call(F aCall) : m_call(aCall) {}
    int OnEventFire() override { return m_call(); }

private:
    F m_call;
};
template <class F>
int RunOn(ComTaskThread* aThread, F aCall) {
    return aThread->SendEvent(new Call<F>(aCall));
}

pthread_t gWorker;
std::atomic<bool> gOffThread{false};  // any callback not on the worker

// A timer and its sink in one object. With aLast set, the sink cancels the
// timer itself on that firing.
class Ticker : public ComTimerWrapperSink {
public:
    explicit Ticker(int aLast = 0) : m_last(aLast) {}
    void OnTimer(ComTimerWrapper* aTimer) override {
        if (!pthread_equal(pthread_self(), gWorker)) gOffThread = true;
        if (++m_fires == m_last) m_cancelled = aTimer->Cancel();
    }

    ComTimerWrapper m_timer;  // bound to the scheduling thread by its first Schedule
    const int m_last;
    std::atomic<int> m_fires{0};
    std::atomic<int> m_cancelled{-1};
};

class Alarm : public ITimerHandler {
public:
    void OnTimeout(const ComTimeValueType&, void* aToken) override {
        if (!pthread_equal(pthread_self(), gWorker)) gOffThread = true;
        m_token = aToken;
        ++m_fires;
    }
    std::atomic<void*> m_token{nullptr};
    std::atomic<int> m_fires{0};
};

}  // namespace

int main() {
    CMyTrace_::SetLogCallback(OnTrace);
    ComThreadManger* manager = ComThreadManger::GetInstance();
    ComTaskThread* worker = nullptr;
    if (manager->CreateTaskThread(worker) != COM_OK) return Fail("CreateTaskThread");
    gWorker = worker->GetThreadId();
    const ComTimeValueType every20ms(0, 20000);

    // main is no library thread: a wrapper has no queue to bind to here.
    Ticker stray;
    if (stray.m_timer.Schedule(&stray, every20ms, 1) != COM_ERROR_FAILURE ||
        !Traced("[COM]:Schedule, get queue failed")) {
        return Fail("Schedule on main");
    }

    // A counted timer: 3 firings, then it leaves the queue on its own, but
    // the wrapper still thinks it is scheduled, so a later Cancel fails.
    Ticker counted;
    if (RunOn(worker, [&] { return counted.m_timer.Schedule(&counted, every20ms, 3); }) != COM_OK) {
        return Fail("Schedule(counted)");
    }
    if (!WaitFor([&] { return counted.m_fires.load() == 3; })) return Fail("counted timer");
    if (RunOn(worker, [&] { return counted.m_timer.Cancel(); }) != COM_ERROR_FAILURE ||
        !Traced("[COM]:Cancel, failed")) {
        return Fail("Cancel after the last firing");
    }
    printf("counted timer fired 3 times; cancelling it afterwards failed\n");

    // The way round it: repeat for ever (count 0) and cancel from the sink on
    // the last firing wanted, while the timer is still in the queue.
    Ticker periodic(3);
    if (RunOn(worker, [&] { return periodic.m_timer.Schedule(&periodic, every20ms, 0); }) !=
        COM_OK) {
        return Fail("Schedule(periodic)");
    }
    if (!WaitFor([&] { return periodic.m_cancelled.load() != -1; })) return Fail("periodic");
    if (periodic.m_cancelled != COM_OK) return Fail("Cancel from the sink");
    printf("periodic timer fired 3 times and was cancelled from its sink\n");

    // A plain handler scheduled from main on the worker's queue: one shot.
    Alarm alarm;
    int token = 7;
    if (worker->ScheduleTimer(&alarm, &token, ComTimeValueType(0, 50000), 1) != COM_OK) {
        return Fail("ScheduleTimer");
    }
    if (!WaitFor([&] { return alarm.m_fires.load() == 1; })) return Fail("one-shot");
    printf("one-shot handler scheduled from main fired on the worker\n");

    // Every wrapper is unscheduled now, so destroying them later needs no queue.
    if (manager->DestroyThread(worker) != COM_OK) return Fail("DestroyThread");
    CMyTrace_::SetLogCallback(nullptr);
    if (gOffThread || counted.m_fires != 3 || periodic.m_fires != 3 || alarm.m_fires != 1 ||
        alarm.m_token.load() != &token || stray.m_fires != 0) {
        return Fail("a timer fired too often, elsewhere or with the wrong token");
    }
    printf("every callback ran on the worker; no timer fired again\n");
    return 0;
}
