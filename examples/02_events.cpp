// Posting and sending events, and who owns them: every event ends in exactly
// one OnDestorySelf(), and a refused event may or may not still be yours.
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>

#include "ComThreadManger.h"
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
    fprintf(stderr, "02_events: FAILED: %s\n", aWhat);
    return 1;
}

// The library's trace lines, kept to check what the refusals say.
std::mutex gTraceMutex;
std::string gTrace;
// Called with 7, the level, "%s" and the finished line, from any thread.
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

pthread_t gWorker;
std::atomic<int> gMade{0}, gFired{0}, gDestroyedOnWorker{0}, gDestroyedOnMain{0};

class Job : public IEvent {
public:
    explicit Job(int* aAnswer = nullptr) : m_answer(aAnswer) { ++gMade; }
    // On the thread that owns the queue. The result is a result code.
    int OnEventFire() override {
        ++gFired;
        if (m_answer != nullptr) *m_answer = 42;
        return COM_OK;
    }
    // Exactly once per event, on whichever thread ends it.
    void OnDestorySelf() override {
        ++(pthread_equal(pthread_self(), gWorker) ? gDestroyedOnWorker : gDestroyedOnMain);
        delete this;
    }

private:
    int* m_answer;  // the sender's, alive because SendEvent waits
};

std::atomic<bool> gInGate{false}, gGateOpen{false};
class Gate : public IEvent {  // holds the worker until main opens it
public:
    int OnEventFire() override {
        gInGate = true;
        return WaitFor([] { return gGateOpen.load(); }) ? COM_OK : COM_ERROR_FAILURE;
    }
};

// The safe way to hand over work: the thread's queue takes the event over
// whatever it answers, so after this call the event is never the caller's.
int Post(ComTaskThread* aThread, IEvent* aEvent) {
    return aThread->GetEventQueue()->PostEvent(aEvent);
}

}  // namespace

int main() {
    CMyTrace_::SetLogCallback(OnTrace);
    ComThreadManger* manager = ComThreadManger::GetInstance();
    ComTaskThread* worker = nullptr;
    if (manager->CreateTaskThread(worker) != COM_OK) return Fail("CreateTaskThread");
    gWorker = worker->GetThreadId();

    // Fire and forget: COM_OK means queued; the worker fires and ends them.
    for (int i = 0; i < 3; ++i) {
        if (worker->PostEvent(new Job) != COM_OK) return Fail("PostEvent");
    }
    // Blocks until the worker has fired it and returns OnEventFire()'s result.
    int answer = 0;
    if (worker->SendEvent(new Job(&answer)) != COM_OK || answer != 42) return Fail("SendEvent");
    if (!WaitFor([] { return gDestroyedOnWorker.load() == 4; })) return Fail("not ended");
    if (gFired != 4 || gDestroyedOnMain != 0) return Fail("posted or sent events");
    printf("3 posted and 1 sent event (answer %d) fired and ended on the worker\n", answer);

    // Hold the worker, then stop it: Stop queues a stop event and closes the
    // queue at once, but the thread's own stop flag is set only when the
    // worker runs that event.
    if (worker->PostEvent(new Gate) != COM_OK) return Fail("PostEvent(Gate)");
    if (!WaitFor([] { return gInGate.load(); })) return Fail("the gate never ran");
    worker->Stop(nullptr);

    // Refusal 1: the closed queue refuses the event and destroys it, here.
    if (worker->PostEvent(new Job) != COM_ERROR_FAILURE) return Fail("closed queue took it");
    if (gDestroyedOnMain != 1 || !Traced("ComTaskThread::PostEvent, failed")) {
        return Fail("refused by the queue");
    }

    // Refusal 2: once the stop event has run, the thread refuses the event
    // itself and leaves it with the caller, who must end it.
    gGateOpen = true;
    if (!WaitFor([&] { return worker->m_bStopFlag.load() != 0; })) return Fail("never stopped");
    Job* job = new Job;
    if (worker->PostEvent(job) != COM_ERROR_FAILURE) return Fail("stopped thread took it");
    if (gDestroyedOnMain != 1 || !Traced("ComTaskThread::PostEvent, stopped")) {
        return Fail("refused by the thread");
    }
    job->OnDestorySelf();
    printf("refused by the closed queue: destroyed by it; by the stopped thread: left to us\n");

    // Same result code, different owners. Through the queue it is always the
    // queue's: refused here, and destroyed by it.
    if (Post(worker, new Job) != COM_ERROR_FAILURE) return Fail("Post after stop");
    if (gDestroyedOnMain != 3) return Fail("Post did not end the event");

    if (manager->DestroyThread(worker) != COM_OK) return Fail("DestroyThread");
    CMyTrace_::SetLogCallback(nullptr);
    if (gFired != 4 || gDestroyedOnWorker + gDestroyedOnMain != gMade) return Fail("totals");
    printf("%d events made, %d fired, every one ended exactly once\n", gMade.load(), gFired.load());
    return 0;
}
