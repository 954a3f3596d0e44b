#include "test_support.h"

namespace {

const std::string kAssertPrefix = "system_wrappers/source/ComTaskThread: [0-9]+, assert failed, ";

ComTimeValueType Ms(long aMs) {
    return ComTimeValueType(0, aMs * 1000);
}

TimerQueueBase::CNode Node(ITimerHandler* aEh, const ComTimeValueType& aDue) {
    TimerQueueBase::CNode node(aEh, nullptr);
    node.m_tvExpired = aDue;  // no interval: never re-armed
    return node;
}

struct CountingObserver : IObserver {
    void OnObserve(const char* aTopic, void*) override { topics.push_back(aTopic); }
    std::vector<std::string> topics;
};

TEST(TimerQueue, PushReplacesReportsAndOrdersEqualDueTimes) {
    TraceCapture trace;
    CountingObserver observer;
    TimerQueueOrderedList queue(&observer);
    EventLedger log;
    RecordingHandler h, a(&log, "a"), b(&log, "b"), c(&log, "c"), d(&log, "d");
    EXPECT_EQ(COM_OK, queue.ScheduleTimer(&h, nullptr, ComTimeValueType(100, 0), 1));
    const ComTimeValueType before = ComTimeValueType::GetTimeOfDay();
    EXPECT_EQ(COM_ERROR_FAILURE, queue.ScheduleTimer(&h, nullptr, ComTimeValueType(200, 0), 1));
    EXPECT_TRUE(queue.GetEarliestTime() >= before + ComTimeValueType(200, 0));  // 100 s node gone
    EXPECT_EQ(COM_OK, queue.CancelTimer(&h));
    EXPECT_EQ(0u, trace.Lines().size());  // re-scheduling is silent
    EXPECT_TRUE(queue.GetEarliestTime() == ComTimeValueType::s_tvMax);

    EXPECT_EQ(COM_ERROR_FAILURE, queue.ScheduleTimer(nullptr, nullptr, Ms(1), 1));
    EXPECT_EQ(COM_ERROR_FAILURE, queue.CancelTimer(nullptr));
    EXPECT_EQ(2u, trace.CountMatching(kError, kAssertPrefix + "aEh"));
    EXPECT_EQ(COM_ERROR_FAILURE, queue.ScheduleTimer(&h, nullptr, ComTimeValueType(0, 0), 2));
    EXPECT_EQ(COM_ERROR_FAILURE, queue.ScheduleTimer(&h, nullptr, ComTimeValueType(-1, 0), 0));
    EXPECT_EQ(2u, trace.CountMatching(
                      kError,
                      kAssertPrefix + "aInterval > ComTimeValueType::s_tvZero \\|\\| aCount == 1"));
    // Told only when the queue was empty: not of the re-scheduling, but again now
    // (the refusals added nothing).
    EXPECT_EQ(COM_OK, queue.ScheduleTimer(&h, nullptr, ComTimeValueType(10, 0), 1));
    EXPECT_EQ((std::vector<std::string>{"TimerQueue", "TimerQueue"}), observer.topics);

    const ComTimeValueType due = ComTimeValueType::GetTimeOfDay() - Ms(1);
    {
        PattAutoLock<CMyMutex> lock(queue.m_Mutex);
        EXPECT_EQ(0, queue.PushNode_l(Node(&a, due)));
        EXPECT_EQ(0, queue.PushNode_l(Node(&c, due + Ms(1))));
        EXPECT_EQ(0, queue.PushNode_l(Node(&b, due)));
        // Equal due times: the latest pushed fires first, so a replaced moves ahead of b.
        EXPECT_EQ(1, queue.PushNode_l(Node(&a, due)));
        EXPECT_EQ(0, queue.RePushNode_l(Node(&d, due + Ms(1))));  // ahead of c, its equal
    }
    EXPECT_EQ(4, queue.CheckExpire(nullptr));  // h, due in 10 s, stays
    EXPECT_EQ((std::vector<std::string>{"a", "b", "d", "c"}), log.Order());
}

TEST(TimerQueue, CountsRemainingTimeAndHandlersThatChangeThemselves) {
    TimerQueueOrderedList queue(nullptr);
    ComTimeValueType remain;
    EXPECT_EQ(0, queue.CheckExpire(&remain));
    EXPECT_TRUE(remain == ComTimeValueType::s_tvMax);

    RecordingHandler once, three, forever, later, cancelling, rescheduling, late;
    cancelling.m_action = [&] { EXPECT_EQ(COM_OK, queue.CancelTimer(&cancelling)); };
    rescheduling.m_action = [&] {  // replaces the node re-armed before the callback
        EXPECT_EQ(COM_ERROR_FAILURE,
                  queue.ScheduleTimer(&rescheduling, nullptr, ComTimeValueType(3600, 0), 1));
    };
    int token = 0;
    ASSERT_EQ(COM_OK, queue.ScheduleTimer(&once, &token, ComTimeValueType(0, 0), 1));
    ASSERT_EQ(COM_OK, queue.ScheduleTimer(&three, nullptr, Ms(1), 3));
    ASSERT_EQ(COM_OK, queue.ScheduleTimer(&later, nullptr, ComTimeValueType(3600, 0), 1));
    for (RecordingHandler* h : {&forever, &cancelling, &rescheduling})
        ASSERT_EQ(COM_OK, queue.ScheduleTimer(h, nullptr, Ms(1), 0));

    // A zero-interval one-shot fires at the next check, with its token and that check's time.
    const ComTimeValueType before = ComTimeValueType::GetTimeOfDay();
    EXPECT_LE(1, queue.CheckExpire(&remain));
    EXPECT_EQ(&token, once.m_lastToken);
    EXPECT_TRUE(once.m_lastTime >= before);

    ASSERT_TRUE(WaitUntil([&] {
        queue.CheckExpire(&remain);
        return forever.m_fired.load() >= 10 && cancelling.m_fired.load() > 0 &&
               rescheduling.m_fired.load() > 0;
    }));
    ASSERT_EQ(COM_OK, queue.CancelTimer(&forever));
    std::this_thread::sleep_for(std::chrono::milliseconds(5));  // a 1 ms timer left would be due
    EXPECT_EQ(0, queue.CheckExpire(&remain));
    EXPECT_EQ(3, three.m_fired.load());
    EXPECT_TRUE(remain > ComTimeValueType(3500, 0));
    EXPECT_TRUE(remain <= ComTimeValueType(3600, 0));
    ASSERT_EQ(2u, queue.m_Nodes.size());  // later, and rescheduling's one-shot: none re-armed
    for (const TimerQueueBase::CNode& node : queue.m_Nodes) EXPECT_EQ(1u, node.m_dwCount);

    // A late check skips missed periods: the next due time stays on the old
    // grid, strictly after the check's clock reading and within one period.
    ASSERT_EQ(COM_OK, queue.ScheduleTimer(&late, nullptr, Ms(10), 0));
    const ComTimeValueType firstDue = queue.GetEarliestTime();
    std::this_thread::sleep_for(std::chrono::milliseconds(35));
    EXPECT_EQ(1, queue.CheckExpire(nullptr));
    const ComTimeValueType next = queue.GetEarliestTime();
    EXPECT_EQ(0, (next - firstDue).GetUsec() % 10000);
    EXPECT_TRUE(next > late.m_lastTime);
    EXPECT_TRUE(next <= late.m_lastTime + Ms(10));
    ASSERT_EQ(COM_OK, queue.CancelTimer(&late));

    // The time left is counted from after the handlers: a slow handler does
    // not make the owner's next wait end late by its own running time.
    RecordingHandler slow, waiting;
    slow.m_action = [] { std::this_thread::sleep_for(std::chrono::milliseconds(50)); };
    ASSERT_EQ(COM_OK, queue.ScheduleTimer(&waiting, nullptr, Ms(200), 1));
    const ComTimeValueType waitingDue = queue.GetEarliestTime();
    ASSERT_EQ(COM_OK, queue.ScheduleTimer(&slow, nullptr, ComTimeValueType(0, 0), 1));
    const ComTimeValueType checked = ComTimeValueType::GetTimeOfDay();
    EXPECT_LE(1, queue.CheckExpire(&remain));
    EXPECT_TRUE(checked + Ms(49) + remain <= waitingDue);
    EXPECT_EQ(COM_OK, queue.CancelTimer(&waiting));
}

TEST(TimerQueue, OtherThreadsMayScheduleWhileTheOwnerFires) {
    TimerQueueOrderedList queue(nullptr);
    std::vector<RecordingHandler> handlers(8);
    std::atomic<bool> stop{false};
    std::thread owner([&] {
        while (!stop) queue.CheckExpire(nullptr);
    });
    for (int round = 0; round < 200; ++round) {
        for (RecordingHandler& h : handlers) queue.ScheduleTimer(&h, nullptr, Ms(0), 1);
        for (RecordingHandler& h : handlers) queue.CancelTimer(&h);
    }
    stop = true;
    owner.join();
    EXPECT_TRUE(queue.m_Nodes.empty());
}

}  // namespace
