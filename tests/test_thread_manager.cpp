// The thread manager, its records for foreign threads, and the timer object
// that finds its queue through it.
#include "test_support.h"

namespace {

std::string Tid(pthread_t aTid) {
    return std::to_string(static_cast<unsigned long>(aTid));
}

bool KeepGoing(void*) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return true;
}

struct RecordingSink : ComTimerWrapperSink {
    void OnTimer(ComTimerWrapper* aTimer) override {
        lastTimer = aTimer;
        firedOn = pthread_self();
        ++fired;
    }
    std::atomic<int> fired{0};
    std::atomic<pthread_t> firedOn{0};
    std::atomic<ComTimerWrapper*> lastTimer{nullptr};
};

}  // namespace

// Must run first: it makes the very first GetInstance calls of the process.
TEST(ThreadManager, ConcurrentFirstInstance) {
    ASSERT_EQ(nullptr, ComThreadManger::s_ThreadManger.load());
    std::atomic<int> ready{0};
    std::vector<ComThreadManger*> seen(8, nullptr);
    RunThreads(8, [&](int i) {
        for (++ready; ready < 8;) continue;  // all eight ask at once
        seen[i] = ComThreadManger::GetInstance();
    });
    ASSERT_NE(nullptr, seen[0]);
    for (ComThreadManger* manager : seen) EXPECT_EQ(seen[0], manager);
}

TEST(ThreadManager, CreatesFindsAndDestroysThreads) {
    ProcessResources before;
    TraceCapture capture;
    ComThreadManger* manager = ComThreadManger::GetInstance();
    const std::string self = This(manager);

    EXPECT_EQ(nullptr, manager->GetCurrentThreadPtr());
    EXPECT_TRUE(capture.Traced(
        kError, "[COM]:GetCurrentThreadPtr, not found, tid=" + Tid(pthread_self()) + self));

    ComTaskThread* task = nullptr;
    ComReactorThread* reactor = nullptr;
    ComUserThread* user = nullptr;
    ComUserThreadWidthEventQueue* userWithQueue = nullptr;
    ASSERT_EQ(0, manager->CreateTaskThread(task));
    ASSERT_EQ(0, manager->CreateReactorThread(reactor));
    ASSERT_EQ(0, manager->CreateUserThread(KeepGoing, nullptr, user));
    ASSERT_EQ(0, manager->CreateUserThreadWithQueue(KeepGoing, nullptr, userWithQueue));
    EXPECT_EQ(4u, manager->m_Threads.size());
    BaseThread* found[3] = {};
    RunOn(task, [&] { found[0] = manager->GetCurrentThreadPtr(); });
    RunOn(reactor, [&] { found[1] = manager->GetCurrentThreadPtr(); });
    userWithQueue->SendEvent(new FnEvent([&] { found[2] = manager->GetCurrentThreadPtr(); }));
    EXPECT_EQ(task, found[0]);
    EXPECT_EQ(reactor, found[1]);
    EXPECT_EQ(userWithQueue, found[2]);

    // The two user-thread factories report the same fault differently.
    ComUserThread* noUser = nullptr;
    ComUserThreadWidthEventQueue* noQueue = nullptr;
    EXPECT_EQ(COM_ERROR_FAILURE, manager->CreateUserThread(nullptr, nullptr, noUser));
    EXPECT_TRUE(capture.Traced(kError, "ComThreadManger::CreateUserThread, funptr=null" + self));
    EXPECT_EQ(-1, manager->CreateUserThreadWithQueue(nullptr, nullptr, noQueue));
    EXPECT_TRUE(capture.Traced(kError, AssertLine("ComThreadManger", 121, "FunPtr != NULL")));

    // Unknown threads are neither stopped nor destroyed.
    ComTaskThread stranger;
    EXPECT_EQ(COM_ERROR_FAILURE, manager->DestroyThread(&stranger));
    EXPECT_TRUE(capture.Traced(kError, "ComThreadManger::DestroyThread, not found" + self));
    EXPECT_EQ(COM_ERROR_FAILURE, manager->DestroyThread(nullptr));
    EXPECT_TRUE(capture.Traced(kError, "ComThreadManger::DestroyThread, threadptr=null" + self));

    for (BaseThread* thread : std::vector<BaseThread*>{task, reactor, user, userWithQueue}) {
        EXPECT_EQ(0, manager->DestroyThread(thread));
    }
    EXPECT_TRUE(manager->m_Threads.empty());
    EXPECT_EQ(5u, capture.Count(kInfo, "ComThreadManger::DestroyThread" + self));
    EXPECT_TRUE(before.Same());
}

TEST(ThreadManager, DummyRecordsAreCountedPerThread) {
    TraceCapture capture;
    ComThreadManger* manager = ComThreadManger::GetInstance();
    ComDummyThread* records[3] = {};
    for (ComDummyThread*& record : records) ASSERT_EQ(0, manager->CreateDummyThread(record));
    EXPECT_EQ(records[0], records[1]);
    EXPECT_EQ(records[0], records[2]);
    EXPECT_EQ(3, records[0]->GetReferCount());
    EXPECT_TRUE(pthread_equal(pthread_self(), records[0]->GetThreadId()));
    manager->DestroyDummyThread(records[2]);
    manager->DestroyDummyThread(records[1]);
    EXPECT_EQ(1, records[0]->GetReferCount());
    EXPECT_EQ(1u, manager->m_DummyThreads.count(pthread_self()));
    const std::string gone = "[COM]:~ComDummyThread" + This(records[0]);
    EXPECT_TRUE(capture.NotTraced(kInfo, gone));
    manager->DestroyDummyThread(records[0]);
    EXPECT_TRUE(capture.Traced(kInfo, gone));
    EXPECT_TRUE(manager->m_DummyThreads.empty());

    // A record the manager does not hold is reported and left alone.
    ComDummyThread* stray = new ComDummyThread;
    stray->AddReferCount();
    manager->DestroyDummyThread(stray);
    EXPECT_TRUE(capture.Traced(kError, "[COM]:DestroyDummyThread, not found" + This(manager)));
    EXPECT_EQ(1, stray->GetReferCount());
    stray->ReleaseReferCount();
}

TEST(TimerWrapper, BindsToTheSchedulingThread) {
    TraceCapture capture;
    ComThreadManger* manager = ComThreadManger::GetInstance();
    ComTaskThread* task = nullptr;
    ComReactorThread* reactor = nullptr;
    ASSERT_EQ(0, manager->CreateTaskThread(task));
    ASSERT_EQ(0, manager->CreateReactorThread(reactor));
    RecordingSink sink;
    ComTimerWrapper* timer = new ComTimerWrapper;
    const std::string self = This(timer);

    // Nothing to cancel yet; a foreign thread has no queue to bind to.
    capture.Clear();
    EXPECT_EQ(COM_OK, timer->Cancel());
    EXPECT_TRUE(capture.Lines().empty());
    EXPECT_EQ(COM_ERROR_FAILURE, timer->Schedule(&sink, ComTimeValueType(0, 1000), 1));
    EXPECT_TRUE(capture.Traced(kError, "[COM]:GetTimerQueue, threadptr=null" + self));
    EXPECT_TRUE(capture.Traced(kError, "[COM]:Schedule, get queue failed" + self));

    // Scheduled and cancelled on the task thread, then fired on the reactor.
    RunOn(task, [&] {
        EXPECT_EQ(COM_OK, timer->Schedule(&sink, ComTimeValueType(3600, 0), 1));
        EXPECT_EQ(task->GetTimerQueue(), timer->_queue);
        EXPECT_EQ(COM_OK, timer->Cancel());
    });
    RunOn(reactor, [&] {
        // Re-scheduling replaces the hour-long timer but reports a failure.
        EXPECT_EQ(COM_OK, timer->Schedule(&sink, ComTimeValueType(3600, 0), 1));
        EXPECT_EQ(COM_ERROR_FAILURE, timer->Schedule(&sink, ComTimeValueType(0, 10000), 1));
    });
    EXPECT_TRUE(capture.Traced(kError, "[COM]:Schedule, failed" + self));
    ASSERT_TRUE(WaitUntil([&] { return sink.fired == 1; }));
    EXPECT_TRUE(pthread_equal(reactor->GetThreadId(), sink.firedOn.load()));
    EXPECT_EQ(timer, sink.lastTimer.load());

    // The fired one-shot is gone from the queue: Cancel fails, then unbinds.
    RunOn(reactor, [&] {
        EXPECT_EQ(COM_ERROR_FAILURE, timer->Cancel());
        EXPECT_EQ(nullptr, timer->_queue);
        EXPECT_EQ(COM_OK, timer->Schedule(&sink, ComTimeValueType(0, 1000), 2));
    });
    EXPECT_TRUE(capture.Traced(kError, "[COM]:Cancel, failed" + self));
    ASSERT_TRUE(WaitUntil([&] { return sink.fired == 3; }));
    RunOn(reactor, [&] { delete timer; });
    EXPECT_EQ(0, manager->DestroyThread(task));
    EXPECT_EQ(0, manager->DestroyThread(reactor));
}
