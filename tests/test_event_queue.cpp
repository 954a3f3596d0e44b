#include "test_support.h"

namespace {

// Posts events 0..aCount-1 of aLedger.
void PostNumbered(EventQueueBase& aQueue, EventLedger& aLedger, size_t aCount) {
    for (size_t i = 0; i < aCount; ++i)
        ASSERT_EQ(COM_OK, aQueue.PostEvent(new LedgerEvent(aLedger, i, std::to_string(i))));
}

TEST(EventQueueBase, PopsOldestFirstInBoundedBatchesAndToleratesMisuse) {
    TraceCapture trace;
    EventLedger ledger(5);
    EventQueueBase queue;
    PostNumbered(queue, ledger, 5);
    std::list<IEvent*> batch;
    unsigned long remain = 99;
    ASSERT_EQ(COM_OK, queue.PopPendingEvents(batch, 2, &remain));
    EXPECT_EQ(3u, remain);
    queue.ProcessEvents(batch);
    batch.clear();
    // A count equal to the limit takes the whole list.
    ASSERT_EQ(COM_OK, queue.PopPendingEvents(batch, 3, &remain));
    EXPECT_EQ(0u, remain);
    queue.ProcessEvents(batch);
    // Empty: failure, and the remain value is left alone.
    batch.clear();
    remain = 42;
    EXPECT_EQ(COM_ERROR_FAILURE, queue.PopPendingEvents(batch, 5, &remain));
    EXPECT_EQ(42u, remain);
    IEvent* first = nullptr;
    EXPECT_EQ(COM_ERROR_FAILURE, queue.PopOnePendingEvent(first, &remain));
    EXPECT_TRUE(trace.Lines().empty());

    // Misuse is traced and tolerated.
    EXPECT_EQ(COM_ERROR_FAILURE, queue.PostEvent(nullptr));
    EXPECT_EQ(COM_ERROR_FAILURE, queue.SendEvent(nullptr));
    EXPECT_EQ(COM_ERROR_FAILURE, queue.ProcessOneEvent(nullptr));
    for (int line : {278, 294, 400})
        EXPECT_TRUE(trace.Traced(kError, AssertLine("ComTaskThread", line, "aEvent")));
    PostNumbered(queue, ledger, 3);
    EXPECT_EQ(COM_OK, queue.PopPendingEvents(batch, 0, &remain));
    EXPECT_TRUE(trace.Traced(kError, AssertLine("ComTaskThread", 337, "aMaxCount > 0")));
    EXPECT_EQ(3u, remain);  // nothing taken, and the null posts added nothing
    // A non-empty output list is appended to, not replaced (the order shows it).
    ASSERT_EQ(COM_OK, queue.PopOnePendingEvent(first, &remain));
    EXPECT_EQ(2u, remain);
    batch.push_back(first);
    EXPECT_EQ(COM_OK, queue.PopPendingEvents(batch, 10, nullptr));
    EXPECT_TRUE(trace.Traced(kError, AssertLine("ComTaskThread", 336, "aEvents.empty()")));
    EXPECT_EQ(COM_ERROR_FAILURE, queue.PopOnePendingEvent(first, nullptr));
    EXPECT_TRUE(trace.Traced(kError, AssertLine("ComTaskThread", 372, "!aEvent")));
    queue.ProcessEvents(batch);
    EXPECT_EQ((std::vector<std::string>{"0", "1", "2", "3", "4", "0", "1", "2"}), ledger.Order());
}

// A queue that refuses every post, as a stopped queue racing a send would.
class RefusingQueue : public EventQueueBase {
public:
    int PostEvent(IEvent* aEvent) override {
        aEvent->OnDestorySelf();
        return COM_ERROR_FAILURE;
    }
};

TEST(EventQueues, RefusedAndDiscardedEventsEndOnceUnfired) {
    TraceCapture trace;
    EventLedger ledger(10);
    {
        EventQueueBase queue;
        ComEventQueueByMutex byMutex;
        EventQueueUsingConditionVariable byCond;
        // Empty locked queues: the mutex one hides the failure.
        std::list<IEvent*> batch;
        EXPECT_EQ(COM_OK, byMutex.PopPendingEvents(batch, 5, nullptr));
        ComTimeValueType zero(0, 0);
        EXPECT_EQ(COM_ERROR_FAILURE, byCond.PopOrWaitPendingEvents(batch, &zero, 5));

        PostNumbered(queue, ledger, 4);
        queue.Stop();
        byMutex.Stop();
        byCond.Stop();
        EXPECT_EQ(COM_ERROR_FAILURE, queue.PostEvent(new LedgerEvent(ledger, 4)));
        EXPECT_EQ(COM_ERROR_FAILURE, queue.SendEvent(new LedgerEvent(ledger, 5)));
        EXPECT_EQ(COM_ERROR_FAILURE, byMutex.PostEvent(new LedgerEvent(ledger, 6)));
        EXPECT_EQ(COM_ERROR_FAILURE, byCond.PostEvent(new LedgerEvent(ledger, 7)));
        EXPECT_TRUE(
            trace.Traced(kError, "EventQueueBase::PostEvent, has been stopped." + This(&queue)));
        EXPECT_TRUE(
            trace.Traced(kError, "EventQueueBase::SendEvent, has been stopped." + This(&queue)));
        // A locked queue traces its refusal again, after the base.
        EXPECT_TRUE(trace.Traced(kError, "[COM]:PostEvent, failed" + This(&byMutex)));
        EXPECT_TRUE(trace.Traced(kError, "PostEvent, failed" + This(&byCond)));
        EXPECT_EQ(4u, queue.GetPendingEventsCount());
    }  // the pending four are discarded here

    // A send whose wrapper is refused, and a wrapper deleted unfired, discard the event.
    RefusingQueue refusing;
    EXPECT_EQ(COM_ERROR_FAILURE, refusing.SendEvent(new LedgerEvent(ledger, 8)));
    EXPECT_TRUE(
        trace.Traced(kError, "EventQueueBase::SendEvent, post event failed." + This(&refusing)));
    delete new ComEventSynchronous(new LedgerEvent(ledger, 9), &refusing);
    for (size_t i = 0; i < 10; ++i) {
        EXPECT_EQ(0, ledger.Fired(i)) << i;
        EXPECT_EQ(1, ledger.Destroyed(i)) << i;
    }

    ComEventSynchronous empty(nullptr, nullptr);
    EXPECT_TRUE(trace.Traced(kError, AssertLine("ComTaskThread", 525, "m_pEventPost")));
    EXPECT_TRUE(trace.Traced(kError, AssertLine("ComTaskThread", 526, "m_pEventQueue")));
    EXPECT_EQ(COM_ERROR_FAILURE, empty.OnEventFire());
}

}  // namespace
