#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>

#include "test_support.h"

namespace {

// A thread whose body joins itself, then waits to be stopped.
class ProbeThread : public BaseThread {
public:
    ProbeThread() : BaseThread(TT_TASK) {}
    int OnThreadInit() override {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        m_initDone = true;
        return 0;
    }
    int OnThreadRun() override {
        std::shared_ptr<Gate> done = m_done;  // outlives the object when detached
        m_selfJoin = Join();
        m_release.Wait();
        done->Open();
        return 0;
    }
    int Stop(ComTimeValueType*) override { return m_release.Open(), 0; }

    std::atomic<bool> m_initDone{false};
    std::atomic<int> m_selfJoin{0};
    Gate m_release;
    std::shared_ptr<Gate> m_done = std::make_shared<Gate>();
};

TEST(BaseThread, StartHandshakeJoinRulesAndRetryAfterFailedStart) {
    TraceCapture trace;
    ProbeThread* thread = new ProbeThread;
    for (unsigned long flag : {0ul, 3ul}) EXPECT_EQ(COM_ERROR_FAILURE, thread->Create(flag));
    EXPECT_EQ(2u, trace.Count(kError, AssertLine("ComTaskThread", 629,
                                                 "aFlag == TF_JOINABLE || aFlag == TF_DETACHED")));
    EXPECT_EQ(COM_ERROR_FAILURE, thread->Join());  // never started, and no flag was kept

    // A failed start (no room for such a stack) leaves its start event behind.
    pthread_attr_t huge, saved;
    ASSERT_EQ(0, pthread_getattr_default_np(&saved));
    pthread_attr_init(&huge);
    pthread_attr_setstacksize(&huge, static_cast<size_t>(1) << 50);
    ASSERT_EQ(0, pthread_setattr_default_np(&huge));
    const int first = thread->Create(BaseThread::TF_JOINABLE);
    pthread_setattr_default_np(&saved);
    pthread_attr_destroy(&huge);
    pthread_attr_destroy(&saved);
    if (first != COM_OK) {
        EXPECT_EQ(COM_ERROR_FAILURE, first);
        const std::string failed = "BaseThread::Create, pthread_create\\(\\) failed! err=[0-9]+";
        EXPECT_EQ(1u, trace.CountMatching(kError, failed + This(thread)));
        ASSERT_EQ(COM_OK, thread->Create(BaseThread::TF_JOINABLE));
        EXPECT_TRUE(trace.Traced(kError, AssertLine("ComTaskThread", 635, "!m_pEvent4Start")));
    }
    EXPECT_TRUE(thread->m_initDone);  // no waiting: Create returned after OnThreadInit
    EXPECT_TRUE(trace.Traced(kInfo, "BaseThread::Create, aType=0, aFlag=1" + This(thread)));
    // One thread per object: refused while it runs and after its body ended until it is
    // joined; once joined, the object starts again.
    EXPECT_EQ(COM_ERROR_FAILURE, thread->Create(BaseThread::TF_DETACHED));
    thread->Stop(nullptr);
    ASSERT_TRUE(thread->m_done->Wait());
    EXPECT_EQ(COM_ERROR_FAILURE, thread->Create(BaseThread::TF_JOINABLE));
    EXPECT_EQ(2u, trace.Count(kError, "BaseThread::Create, already running" + This(thread)));
    EXPECT_EQ(COM_OK, thread->Join());
    ASSERT_EQ(COM_OK, thread->Create(BaseThread::TF_JOINABLE));
    EXPECT_EQ(COM_OK, thread->Join());
    EXPECT_EQ(COM_ERROR_FAILURE, thread->m_selfJoin.load());
    EXPECT_TRUE(trace.Traced(kError, "BaseThread::Join, join in the same thread" + This(thread)));
    EXPECT_TRUE(trace.Traced(kInfo, "BaseThread::Join" + This(thread)));
    EXPECT_EQ(0, thread->Destory());
    EXPECT_TRUE(trace.Traced(kInfo, "BaseThread::Destory" + This(thread)));

    ProbeThread* detached = new ProbeThread;
    ASSERT_EQ(COM_OK, detached->Create(BaseThread::TF_DETACHED));
    EXPECT_EQ(COM_ERROR_FAILURE, detached->Create(BaseThread::TF_DETACHED));  // its end is unseen
    EXPECT_EQ(COM_OK, detached->Join());
    EXPECT_TRUE(trace.Traced(kWarning, "BaseThread::Join, join detached thread" + This(detached)));
    detached->Stop(nullptr);
    ASSERT_TRUE(detached->m_done->Wait());
    detached->Destory();
    if (first == COM_OK) GTEST_SKIP() << "this runtime ignores the default stack size: no retry";
}

TEST(ComTaskThread, BatchesOfFiveTimersAndStop) {
    TraceCapture trace;
    ComTaskThread* thread = new ComTaskThread;
    EventLedger ledger(8);
    RecordingHandler timer(&ledger);
    EXPECT_EQ(COM_ERROR_FAILURE, thread->CancelTimer(&timer));  // no timer queue before the start
    EXPECT_TRUE(trace.Traced(kError, "ComTaskThread::CancelTimer, timequeue=null" + This(thread)));
    ASSERT_EQ(COM_OK, thread->Create(BaseThread::TF_JOINABLE));
    EXPECT_TRUE(trace.WaitTraced(kInfo, "ComTaskThread::OnThreadRun, Begin." + This(thread)));

    // Queued while the loop is busy, so all of them wait for the passes after it.
    // 1 sends to itself (run at once, ahead of the queue) and adds a timer due next check.
    ASSERT_EQ(COM_OK, thread->PostEvent(new FnEvent([&] {
        EXPECT_EQ(COM_OK, thread->PostEvent(new LedgerEvent(ledger, 1, "1", 0, [&] {
            EXPECT_EQ(42, thread->SendEvent(new LedgerEvent(ledger, 7, "send", 42)));
            thread->ScheduleTimer(&timer, nullptr, ComTimeValueType(0, 0), 1);
        })));
        for (size_t i = 2; i <= 6; ++i)
            EXPECT_EQ(COM_OK, thread->PostEvent(new LedgerEvent(ledger, i, std::to_string(i))));
    })));
    ASSERT_TRUE(WaitUntil([&] { return ledger.m_totalDestroyed.load() == 7; }));
    EXPECT_EQ((std::vector<std::string>{"1", "send", "2", "3", "4", "5", "T", "6"}),
              ledger.Order());

    // A periodic timer scheduled from here fires once the loop wakes for an event:
    // from then on the loop waits no longer than the timer's next due time.
    ASSERT_EQ(COM_OK, thread->ScheduleTimer(&timer, nullptr, ComTimeValueType(0, 2000), 3));
    thread->PostEvent(new LedgerEvent(ledger, 0));
    ASSERT_TRUE(WaitUntil([&] { return timer.m_fired.load() == 4; }));

    // Stopping from inside an event: the queue closes at once, the loop ends only
    // when the stop event runs.
    EventLedger stopped(8);
    ASSERT_EQ(COM_OK, thread->ScheduleTimer(&timer, nullptr, ComTimeValueType(3600, 0), 1));
    ASSERT_EQ(COM_OK, thread->PostEvent(new FnEvent([&] {
        EXPECT_EQ(COM_OK, thread->PostEvent(new StopThreadEvent(thread)));
        for (size_t i = 1; i <= 6; ++i)
            EXPECT_EQ(COM_OK, thread->PostEvent(new LedgerEvent(stopped, i)));
        EXPECT_EQ(0, thread->Stop(nullptr));
        // No stop event has run yet: the closed queue refuses and destroys.
        EXPECT_EQ(COM_ERROR_FAILURE, thread->PostEvent(new LedgerEvent(stopped, 7)));
    })));
    ASSERT_EQ(COM_OK, thread->Join());
    EXPECT_TRUE(trace.Traced(kInfo, "ComTaskThread::Stop" + This(thread)));
    EXPECT_TRUE(trace.Traced(kError, "ComTaskThread::PostEvent, failed" + This(thread)));
    EXPECT_TRUE(trace.Traced(kInfo, "ComTaskThread::OnThreadRun, End." + This(thread)));
    // The pass that ran the first stop event took four more; the rest were discarded.
    for (size_t i = 1; i <= 7; ++i) {
        EXPECT_EQ(i <= 4 ? 1 : 0, stopped.Fired(i)) << i;
        EXPECT_EQ(1, stopped.Destroyed(i)) << i;
    }

    // Once it has run, the thread refuses first and the caller keeps the event
    // (it lives on this stack: deleting it would crash).
    LedgerEvent kept(stopped, 0);
    EXPECT_EQ(COM_ERROR_FAILURE, thread->PostEvent(&kept));
    EXPECT_EQ(COM_ERROR_FAILURE, thread->SendEvent(&kept));
    EXPECT_TRUE(trace.Traced(kError, "ComTaskThread::PostEvent, stopped" + This(thread)));
    EXPECT_TRUE(trace.Traced(kError, "ComTaskThread::SendEvent, stopped" + This(thread)));
    EXPECT_EQ(COM_ERROR_FAILURE, thread->ScheduleTimer(&timer, nullptr, ComTimeValueType(1, 0), 1));
    EXPECT_TRUE(trace.Traced(
        kError, "ComTaskThread::ScheduleTimer, stopped or timequeue=null" + This(thread)));
    // Cancelling still reaches the timer queue.
    EXPECT_EQ(COM_OK, thread->CancelTimer(&timer));
    EXPECT_EQ(COM_ERROR_FAILURE, thread->CancelTimer(&timer));
    EXPECT_TRUE(trace.Traced(kError, "ComTaskThread::CancelTimer, failed" + This(thread)));
    thread->Destory();
}

TEST(ComTaskThread, EveryEventEndsOnceUnderLoad) {
    ComTaskThread* thread = new ComTaskThread;
    ASSERT_EQ(COM_OK, thread->Create(BaseThread::TF_JOINABLE));
    const size_t kProducers = 4, kPerProducer = 400, half = kPerProducer / 2;
    EventLedger ledger(kProducers * kPerProducer);
    std::atomic<size_t> posted{0};
    // Every odd event of the first half is sent (and returns its id), the rest posted.
    auto produce = [&](size_t aFirst, size_t aCount) {
        for (size_t id = aFirst; id < aFirst + aCount; ++id) {
            auto* event = new LedgerEvent(ledger, id, "", static_cast<int>(id));
            if (id % kPerProducer < half && id % 2)
                EXPECT_EQ(static_cast<int>(id), thread->SendEvent(event));
            else if (thread->PostEvent(event) != COM_OK && ledger.Destroyed(id) == 0)
                event->OnDestorySelf();  // refused by the thread: still ours
            ++posted;
        }
    };
    // Sends need a running thread, so they come first; posts race with the stop.
    RunThreads(kProducers, [&](size_t p) { produce(p * kPerProducer, half); });
    RunThreads(kProducers + 1, [&](size_t p) {
        if (p < kProducers) return produce(p * kPerProducer + half, kPerProducer - half);
        WaitUntil([&] { return posted.load() > kProducers * half + 100; });
        thread->Stop(nullptr);
    });
    ASSERT_EQ(COM_OK, thread->Join());
    thread->Destory();  // discards what was accepted but never taken

    for (size_t id = 0; id < kProducers * kPerProducer; ++id) {
        ASSERT_EQ(1, ledger.Destroyed(id)) << id;
        ASSERT_GE(1, ledger.Fired(id)) << id;
        if (id % kPerProducer < half) ASSERT_EQ(1, ledger.Fired(id)) << id;
    }
}

TEST(ComTaskThread, TimersScheduledFromOtherThreadsWakeTheLoop) {
    ComTaskThread* thread = nullptr;
    ComThreadManger* manager = ComThreadManger::GetInstance();
    ASSERT_EQ(0, manager->CreateTaskThread(thread));
    pid_t kernelTid = 0;
    int slack = 0;
    RunOn(thread, [&] { kernelTid = gettid(), slack = prctl(PR_GET_TIMERSLACK); });
    EXPECT_EQ(1, slack);  // the smallest, so that its waits end when due
    RecordingHandler soon, later;
    // Each change is made while the loop sleeps: first without limit, then
    // until the hour-long timer, which a re-schedule brings forward.
    ASSERT_TRUE(WaitUntil([&] { return Asleep(kernelTid); }));
    ASSERT_EQ(COM_OK, thread->ScheduleTimer(&later, nullptr, ComTimeValueType(3600, 0), 1));
    ASSERT_TRUE(WaitUntil([&] { return Asleep(kernelTid); }));
    std::thread([&] {
        EXPECT_EQ(COM_OK, thread->ScheduleTimer(&soon, nullptr, ComTimeValueType(0, 1000), 0));
    }).join();
    EXPECT_TRUE(WaitUntil([&] { return soon.m_fired >= 3; }));
    ASSERT_EQ(COM_OK, thread->CancelTimer(&soon));
    ASSERT_TRUE(WaitUntil([&] { return Asleep(kernelTid); }));
    EXPECT_EQ(COM_ERROR_FAILURE,
              thread->ScheduleTimer(&later, nullptr, ComTimeValueType(0, 1000), 2));
    EXPECT_TRUE(WaitUntil([&] { return later.m_fired == 2; }));
    EXPECT_EQ(0, manager->DestroyThread(thread));
}

// 1 while a signal holds the thread it arrived on, 2 to let it go.
std::atomic<int> gHeld{0};
void HoldThisThread(int) {
    for (gHeld = 1; gHeld != 2;) sched_yield();
}

TEST(ComTaskThread, SendsReturnWhenDiscardedOrRacingTheOwnersEnd) {
    TraceCapture trace;
    ComThreadManger* manager = ComThreadManger::GetInstance();
    ComTaskThread* thread = nullptr;
    ASSERT_EQ(0, manager->CreateTaskThread(thread));
    // An event ends the loop while another thread's send waits behind it: the
    // sender gets a failure and the event ends once, unfired.
    EventLedger ledger(1);
    Gate running, sent;
    ASSERT_EQ(COM_OK, thread->PostEvent(new FnEvent([&] {
        running.Open();
        EXPECT_TRUE(WaitUntil([&] { return thread->m_EventQueue.GetPendingEventsCount() == 1; }));
        thread->SetStopFlag();
    })));
    // Sent only once that event runs, so that the two are not taken together.
    ASSERT_TRUE(running.Wait());
    std::atomic<int> result{0};
    std::thread sender([&] {
        result = thread->SendEvent(new LedgerEvent(ledger, 0, "", 7));
        sent.Open();
    });
    if (!sent.Wait()) {  // the watchdog: a hung sender fails the test, not the run
        sender.detach();
        FAIL() << "the discarded send never returned";
    }
    sender.join();
    EXPECT_EQ(COM_ERROR_FAILURE, result.load());
    EXPECT_EQ(0, ledger.Fired(0));
    EXPECT_EQ(1, ledger.Destroyed(0));
    EXPECT_EQ(1u,
              trace.CountMatching(kError,
                                  "ComEventSynchronous::WaitResultAndDeleteThis, discarded before "
                                  "it ran, this=0x[0-9a-f]+"));
    EXPECT_TRUE(trace.Traced(kError, "ComTaskThread::SendEvent, failed" + This(thread)));
    EXPECT_EQ(0, manager->DestroyThread(thread));

    // The owner is destroyed once the sent event has visibly run, while its
    // sender is held (in a signal handler) before its trip back to the queue.
    struct sigaction hold = {}, saved = {};
    hold.sa_handler = HoldThisThread;
    ASSERT_EQ(0, sigaction(SIGUSR1, &hold, &saved));
    for (int round = 0; round < 20; ++round) {
        ASSERT_EQ(0, manager->CreateTaskThread(thread));
        gHeld = 0;
        std::atomic<pthread_t> sender{};
        std::atomic<pid_t> senderTid{0};
        std::thread racer([&] {
            sender = pthread_self(), senderTid = gettid();
            EXPECT_EQ(7, thread->SendEvent(new LedgerEvent(ledger, 0, "", 7, [&] {
                // Asleep in its wait, so it holds no lock the owner needs.
                EXPECT_TRUE(WaitUntil([&] { return Asleep(senderTid); }));
                pthread_kill(sender, SIGUSR1);
                EXPECT_TRUE(WaitUntil([] { return gHeld == 1; }));
            })));
        });
        ASSERT_TRUE(WaitUntil([&] { return gHeld == 1 && ledger.Destroyed(0) == round + 2; }));
        trace.Clear();
        std::thread destroyer([&] { EXPECT_EQ(0, manager->DestroyThread(thread)); });
        EXPECT_TRUE(trace.WaitTraced(kInfo, "BaseThread::Destory" + This(thread)));
        std::this_thread::sleep_for(std::chrono::milliseconds(5));  // let a broken one free it
        gHeld = 2;
        racer.join();
        destroyer.join();
    }
    sigaction(SIGUSR1, &saved, nullptr);
}

// A user thread's function: the test's body, given the number of the call.
struct UserBody {
    std::function<bool(int)> body;
    std::atomic<int> calls{0};
};

bool RunUserBody(void* aArg) {
    UserBody* user = static_cast<UserBody*>(aArg);
    return user->body(++user->calls);
}

TEST(ComUserThread, GivesUpSleepsFiresEventsOrEndsWithoutAFunction) {
    TraceCapture trace;
    EventLedger ledger(13);
    ComUserThread* asleep = nullptr;
    ComUserThreadWidthEventQueue* withQueue = nullptr;
    std::atomic<int> waitResult{-1};
    UserBody quitter{[](int) { return false; }};
    UserBody sleeper{[&](int) { return waitResult = asleep->WaitMills(10000), true; }};
    // The first call queues twelve events; up to five of them run after each call.
    UserBody queueing{[&](int aCall) {
        if (aCall <= 4) ledger.Record("F");
        for (size_t i = 0; aCall == 1 && i < 12; ++i)
            EXPECT_EQ(COM_OK, withQueue->PostEvent(new LedgerEvent(ledger, i, std::to_string(i))));
        return withQueue->WaitMills(1), true;
    }};
    ComUserThread* gaveUp = new ComUserThread(&quitter, &RunUserBody);
    asleep = new ComUserThread(&sleeper, &RunUserBody);
    withQueue = new ComUserThreadWidthEventQueue(&queueing, &RunUserBody);
    ComUserThread* empty = new ComUserThread(nullptr, nullptr);
    ComUserThread* emptyQueue = new ComUserThreadWidthEventQueue(nullptr, nullptr);

    // Not started yet: refused, and the caller keeps the event (deleting it would crash).
    LedgerEvent early(ledger, 12);
    EXPECT_EQ(COM_ERROR_FAILURE, withQueue->PostEvent(&early));
    EXPECT_EQ(COM_ERROR_FAILURE, withQueue->SendEvent(&early));
    for (const char* text : {"ComUserThreadWidthEventQueue::PostEvent, stopped",
                             "ComUserThreadWidthEventQueue::SendEvent, stopped"})
        EXPECT_TRUE(trace.Traced(kError, text + This(withQueue)));

    ComUserThread* const all[] = {gaveUp, asleep, withQueue, empty, emptyQueue};
    for (ComUserThread* thread : all) ASSERT_EQ(COM_OK, thread->Create(BaseThread::TF_JOINABLE));
    // Without a function a thread ends at once and needs no Stop.
    EXPECT_EQ(COM_OK, empty->Join());
    EXPECT_EQ(COM_OK, emptyQueue->Join());
    EXPECT_TRUE(trace.Traced(kError, "ComUserThread::OnThreadRun, threadPtr=null" + This(empty)));
    EXPECT_TRUE(trace.Traced(kError, AssertLine("ComTaskThread", 1074, "m_ThreadPtr != NULL")));

    ASSERT_TRUE(WaitUntil([&] { return ledger.m_totalDestroyed.load() == 12; }));
    ASSERT_TRUE(WaitUntil([&] { return queueing.calls.load() >= 4; }));
    const std::vector<std::string> expected{"F", "0", "1", "2", "3", "4",  "F",  "5",
                                            "6", "7", "8", "9", "F", "10", "11", "F"};
    EXPECT_EQ(expected, ledger.Order());
    EXPECT_EQ(5, withQueue->SendEvent(new LedgerEvent(ledger, 12, "", 5)));

    EXPECT_TRUE(
        trace.WaitTraced(kWarning, "ComUserThread::OnThreadRun, break by user" + This(gaveUp)));
    EXPECT_TRUE(trace.WaitTraced(kInfo, "ComUserThread::ProcessBeforeExit, wait" + This(gaveUp)));
    ASSERT_TRUE(WaitUntil([&] { return sleeper.calls.load() == 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));  // let it fall asleep
    for (ComUserThread* thread : {gaveUp, asleep, static_cast<ComUserThread*>(withQueue)}) {
        EXPECT_EQ(0, thread->Stop(nullptr));
        ASSERT_EQ(COM_OK, thread->Join());
    }
    EXPECT_TRUE(trace.Traced(kInfo, "ComUserThread::OnThreadRun, end, stoped=1" + This(gaveUp)));
    EXPECT_EQ(1u, trace.CountMatching(kWarning, ".*break by user.*"));  // stopped is not by user
    EXPECT_TRUE(
        trace.Traced(kInfo, "ComUserThreadWidthEventQueue::OnThreadRun, end" + This(withQueue)));
    EXPECT_EQ(1, quitter.calls.load());
    EXPECT_EQ(0, waitResult.load());  // woken (or refused), not timed out
    EXPECT_EQ(0, asleep->WaitMills(10000));
    EXPECT_TRUE(
        trace.Traced(kError, "ComUserThread::WaitMills, thread has stopped" + This(asleep)));
    for (ComUserThread* thread : all) thread->Destory();
}

}  // namespace
