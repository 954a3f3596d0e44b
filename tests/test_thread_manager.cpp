// The thread manager, its records for foreign threads, and the timer object
// that finds its queue through it.
#include "test_support.h"

namespace {

bool KeepGoing(void*) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return true;
}

struct RecordingSink : ComTimerWrapperSink {
    void OnTimer(ComTimerWrapper* aTimer) override {
        lastTimer = aTimer;
        ++fired;
    }
    std::atomic<int> fired{0};
    std::atomic<ComTimerWrapper*> lastTimer{nullptr};
};

}  // namespace

// Must run first: it makes the very first GetInstance calls of the process.
TEST(ThreadManager, ConcurrentFirstInstance) {
    ASSERT_EQ(nullptr, ComThreadManger::s_ThreadManger.load());
    std::atomic<int> ready{0};
    std::vector<ComThreadManger*> seen(8, nullptr);
    RunThreads(8, [&](int i) {
        for (++ready; ready < 8;) std::this_thread::yield();  // all eight ask at once
        seen[i] = ComThreadManger::GetInstance();
    });
    ASSERT_NE(nullptr, seen[0]);
    for (ComThreadManger* manager : seen) EXPECT_EQ(seen[0], manager);
}

TEST(ThreadManager, ThreadsTheirTimersAndForeignThreadRecords) {
    ProcessResources before;
    TraceCapture capture;
    ComThreadManger* manager = ComThreadManger::GetInstance();
    const std::string self = This(manager);
    ComTaskThread* task = nullptr;
    ComReactorThread* reactor = nullptr;
    ComUserThread* user = nullptr;
    ComUserThreadWidthEventQueue* userWithQueue = nullptr;
    ASSERT_EQ(0, manager->CreateTaskThread(task));
    ASSERT_EQ(0, manager->CreateReactorThread(reactor));
    ASSERT_EQ(0, manager->CreateUserThread(KeepGoing, nullptr, user));
    ASSERT_EQ(0, manager->CreateUserThreadWithQueue(KeepGoing, nullptr, userWithQueue));

    // Nothing to cancel yet; this thread is unknown, so there is no queue to bind to.
    RecordingSink sink;
    ComTimerWrapper* timer = new ComTimerWrapper;
    EXPECT_EQ(COM_OK, timer->Cancel());
    EXPECT_EQ(COM_ERROR_FAILURE, timer->Schedule(&sink, ComTimeValueType(0, 1000), 1));
    EXPECT_TRUE(capture.Traced(
        kError, "[COM]:GetCurrentThreadPtr, not found, tid=" +
                    std::to_string(static_cast<unsigned long>(pthread_self())) + self));
    EXPECT_TRUE(capture.Traced(kError, "[COM]:GetTimerQueue, threadptr=null" + This(timer)));
    EXPECT_TRUE(capture.Traced(kError, "[COM]:Schedule, get queue failed" + This(timer)));
    // Scheduled and cancelled on the task thread, then fired on the reactor.
    RunOn(task, [&] {
        EXPECT_EQ(COM_OK, timer->Schedule(&sink, ComTimeValueType(3600, 0), 1));
        EXPECT_EQ(COM_OK, timer->Cancel());
    });
    RunOn(reactor, [&] {
        // Re-scheduling replaces the hour-long timer but reports a failure.
        EXPECT_EQ(COM_OK, timer->Schedule(&sink, ComTimeValueType(3600, 0), 1));
        EXPECT_EQ(COM_ERROR_FAILURE, timer->Schedule(&sink, ComTimeValueType(0, 10000), 1));
    });
    EXPECT_TRUE(capture.Traced(kError, "[COM]:Schedule, failed" + This(timer)));
    ASSERT_TRUE(WaitUntil([&] { return sink.fired == 1; }));
    EXPECT_EQ(timer, sink.lastTimer.load());
    // The fired one-shot is gone from the queue: Cancel fails, then unbinds.
    RunOn(reactor, [&] {
        EXPECT_EQ(COM_ERROR_FAILURE, timer->Cancel());
        EXPECT_EQ(nullptr, timer->_queue);
        EXPECT_EQ(COM_OK, timer->Schedule(&sink, ComTimeValueType(0, 1000), 2));
    });
    EXPECT_TRUE(capture.Traced(kError, "[COM]:Cancel, failed" + This(timer)));
    ASSERT_TRUE(WaitUntil([&] { return sink.fired == 3; }));
    RunOn(reactor, [&] { delete timer; });

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

    // A running thread is not destroyed from itself; it carries on.
    RunOn(task, [&] { EXPECT_EQ(COM_ERROR_FAILURE, manager->DestroyThread(task)); });
    EXPECT_TRUE(capture.Traced(
        kError, "ComThreadManger::DestroyThread, destroy in the same thread" + self));
    BaseThread* found = nullptr;
    EXPECT_EQ(COM_OK, RunOn(task, [&] { found = manager->GetCurrentThreadPtr(); }));
    EXPECT_EQ(task, found);

    for (BaseThread* thread : std::vector<BaseThread*>{task, reactor, user, userWithQueue})
        EXPECT_EQ(0, manager->DestroyThread(thread));
    EXPECT_TRUE(manager->m_Threads.empty());
    EXPECT_EQ(6u, capture.Count(kInfo, "ComThreadManger::DestroyThread" + self));

    // A foreign thread's record is shared by its callers: the last release destroys it.
    ComDummyThread* records[3] = {};
    for (ComDummyThread*& record : records) ASSERT_EQ(0, manager->CreateDummyThread(record));
    const std::string gone = "[COM]:~ComDummyThread" + This(records[0]);
    for (ComDummyThread*& record : records) {
        EXPECT_EQ(0u, capture.Count(kInfo, gone));
        manager->DestroyDummyThread(record);
    }
    EXPECT_TRUE(capture.Traced(kInfo, gone));
    EXPECT_TRUE(manager->m_DummyThreads.empty());

    // A record the manager does not hold is reported and left alone.
    ComDummyThread* stray = new ComDummyThread;
    stray->AddReferCount();
    manager->DestroyDummyThread(stray);
    EXPECT_TRUE(capture.Traced(kError, "[COM]:DestroyDummyThread, not found" + self));
    EXPECT_EQ(1, stray->GetReferCount());
    stray->ReleaseReferCount();
    EXPECT_TRUE(before.Same());
}

TEST(ThreadManager, TimerObjectOnAForeignThreadWithARecord) {
    TraceCapture capture;
    ComThreadManger* manager = ComThreadManger::GetInstance();
    std::thread([&] {
        ComDummyThread* record = nullptr;
        ASSERT_EQ(0, manager->CreateDummyThread(record));
        RecordingSink sink;
        ComTimerWrapper timer;
        // The thread drives its record's queue itself.
        ASSERT_EQ(COM_OK, timer.Schedule(&sink, ComTimeValueType(0, 1000), 2));
        EXPECT_TRUE(
            WaitUntil([&] { return record->m_TimerQueue.CheckExpire(nullptr), sink.fired == 2; }));
        EXPECT_EQ(&timer, sink.lastTimer.load());
        EXPECT_EQ(COM_ERROR_FAILURE, timer.Cancel());  // the counted timer has left the queue
        manager->DestroyDummyThread(record);
    }).join();
    EXPECT_EQ(0u,
              capture.CountMatching(kError, ".*(GetCurrentThreadPtr|GetTimerQueue|Schedule).*"));
}
