// The thread manager and task threads: create a task thread, hand it work,
// watch the order of its loop (due timers, then at most 5 events per pass),
// and destroy it again.
#include <pthread.h>
#include <stdio.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "ComThreadManger.h"

namespace {

// The example's own bookkeeping: polls for up to five seconds.
template <class F>
bool WaitFor(F aDone) {
    for (int i = 0; i < 5000 && !aDone(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return aDone();
}

int Fail(const char* aWhat) {
    fprintf(stderr, "01_threads: FAILED: %s\n", aWhat);
    return 1;
}

// What the worker did, in order. Only the worker appends; main reads once
// gSteps says everything is in.
std::string gOrder;
std::atomic<int> gSteps{0};
void Note(char aWhat) {
    gOrder += aWhat;
    gSteps.fetch_add(1, std::memory_order_release);
}

// Asks the manager, on the worker, which library thread it is running on.
class WhoAmI : public IEvent {
public:
    explicit WhoAmI(std::atomic<BaseThread*>* aAnswer) : m_answer(aAnswer) {}
    int OnEventFire() override {
        m_answer->store(ComThreadManger::GetInstance()->GetCurrentThreadPtr());
        return COM_OK;
    }

private:
    std::atomic<BaseThread*>* m_answer;
};

// Holds the worker inside one event until main opens the gate, so that the
// events posted meanwhile are all queued when its next pass begins.
std::atomic<bool> gInGate{false}, gGateOpen{false};
class Gate : public IEvent {
public:
    int OnEventFire() override {
        gInGate = true;
        return WaitFor([] { return gGateOpen.load(); }) ? COM_OK : COM_ERROR_FAILURE;
    }
};

class Mark : public ITimerHandler {
public:
    void OnTimeout(const ComTimeValueType&, void*) override { Note('T'); }
};
Mark gMark;  // a handler must outlive its timer

// Step 1 also schedules a one-shot timer with no delay on its own thread.
class Step : public IEvent {
public:
    Step(ComTaskThread* aThread, char aName) : m_thread(aThread), m_name(aName) {}
    int OnEventFire() override {
        if (m_name == '1') m_thread->ScheduleTimer(&gMark, nullptr, ComTimeValueType(0, 0), 1);
        Note(m_name);
        return COM_OK;
    }

private:
    ComTaskThread* m_thread;
    char m_name;
};

}  // namespace

int main() {
    // One manager per process, created on first use and never deleted.
    ComThreadManger* manager = ComThreadManger::GetInstance();
    if (manager == nullptr || manager != ComThreadManger::GetInstance()) return Fail("no manager");
    // main was not started by the library: it has no BaseThread.
    if (manager->GetCurrentThreadPtr() != nullptr) return Fail("main has a thread record");

    // Started, registered and past its OnThreadInit when this returns COM_OK.
    ComTaskThread* worker = nullptr;
    if (manager->CreateTaskThread(worker) != COM_OK || worker == nullptr) {
        return Fail("CreateTaskThread");
    }

    // The queue takes the event over; the worker fires it, then deletes it.
    std::atomic<BaseThread*> seen{nullptr};
    if (worker->PostEvent(new WhoAmI(&seen)) != COM_OK) return Fail("PostEvent");
    if (!WaitFor([&] { return seen.load() != nullptr; })) return Fail("the event never ran");
    if (seen.load() != worker) return Fail("the event ran on another thread");
    printf("an event posted from main ran on the worker, which the manager knows\n");

    // The loop: check timers, then take at most 5 events and run them.
    if (worker->PostEvent(new Gate) != COM_OK) return Fail("PostEvent(Gate)");
    if (!WaitFor([] { return gInGate.load(); })) return Fail("the gate never ran");
    for (char name = '1'; name <= '7'; ++name) {
        if (worker->PostEvent(new Step(worker, name)) != COM_OK) return Fail("PostEvent(Step)");
    }
    gGateOpen = true;
    if (!WaitFor([] { return gSteps.load(std::memory_order_acquire) == 8; })) {
        return Fail("the steps never all ran");
    }
    if (gOrder != "12345T67") return Fail(("order " + gOrder).c_str());
    printf("7 queued events ran as %s: 5, the due timer, then the rest\n", gOrder.c_str());

    // Stops the loop, joins the thread and deletes it: worker dangles now.
    if (manager->DestroyThread(worker) != COM_OK) return Fail("DestroyThread");
    worker = nullptr;
    if (manager->DestroyThread(nullptr) != COM_ERROR_FAILURE) return Fail("DestroyThread(null)");
    printf("the worker was stopped, joined and destroyed\n");
    return 0;
}
