// Timer queues: handlers scheduled with an interval and a repeat count, fired
// by the owning thread's loop through CheckExpire.
#ifndef SYSTEM_WRAPPERS_COM_TIMER_QUEUE_H_
#define SYSTEM_WRAPPERS_COM_TIMER_QUEUE_H_

#include <list>

#include "ComBase.h"
#include "sw_export.h"

class SW_EXPORT ITimerHandler {
public:
    // aCurTime is the time read once at the start of the firing CheckExpire
    // call, not the due time; aToken is the one given at scheduling.
    virtual void OnTimeout(const ComTimeValueType& aCurTime, void* aToken) = 0;
    virtual ~ITimerHandler();
};

class SW_EXPORT ITimerQueue {
public:
    // aCount 0 repeats for ever; a zero interval is allowed for one shot only.
    virtual int ScheduleTimer(ITimerHandler* aEh, void* aToken, const ComTimeValueType& aInterval,
                              unsigned long aCount) = 0;
    virtual int CancelTimer(ITimerHandler* aEh) = 0;
    virtual ~ITimerQueue();
};

class SW_EXPORT IObserver {
public:
    virtual void OnObserve(const char* aTopic, void* aData) = 0;
    virtual ~IObserver();
};

// Owned by one thread. The list is guarded by the queue's own mutex so that
// other threads may schedule and cancel; the mutex is never held while a
// handler runs, so handlers may schedule and cancel from OnTimeout.
class SW_EXPORT TimerQueueBase : public ITimerQueue {
public:
    // One scheduled timer; a handler has at most one node.
    struct SW_EXPORT CNode {
        CNode(ITimerHandler* aEh = nullptr, void* aToken = nullptr);

        ITimerHandler* m_pEh;
        void* m_pToken;
        ComTimeValueType m_tvExpired;   // absolute due time
        ComTimeValueType m_tvInterval;  // period
        unsigned long m_dwCount;        // firings left; all ones: for ever
    };

    explicit TimerQueueBase(IObserver* aObserver);
    ~TimerQueueBase() override;
    TimerQueueBase(const TimerQueueBase&) = delete;
    TimerQueueBase& operator=(const TimerQueueBase&) = delete;

    // COM_OK for a new timer; COM_ERROR_FAILURE for bad arguments and also
    // when an existing timer of aEh was replaced (the new schedule holds).
    int ScheduleTimer(ITimerHandler* aEh, void* aToken, const ComTimeValueType& aInterval,
                      unsigned long aCount) override;
    int CancelTimer(ITimerHandler* aEh) override;

    // Fires every due timer on the calling thread and returns how many fired.
    // aRemainTime (optional) gets the time until the next due timer, or
    // s_tvMax when none is left.
    int CheckExpire(ComTimeValueType* aRemainTime);
    // The earliest absolute due time, or s_tvMax when empty.
    ComTimeValueType GetEarliestTime();

    // Node operations; the caller holds m_Mutex.
    // Inserts, replacing any node of the same handler: 1 if one was replaced.
    virtual int PushNode_l(const CNode& aNode) = 0;
    // 0 if a node of aEh was removed, 1 if there was none.
    virtual int EraseNode_l(ITimerHandler* aEh) = 0;
    // Inserts a node known not to be queued.
    virtual int RePushNode_l(const CNode& aNode) = 0;
    // 0, or -1 when empty.
    virtual int PopFirstNode_l(CNode& aNode) = 0;
    // 0, or -1 when empty (aTime untouched).
    virtual int GetEarliestTime_l(ComTimeValueType& aTime) = 0;

    IObserver* m_pObserver;
    CMyMutex m_Mutex;
};

// A list kept sorted by due time; among equal due times the most recently
// inserted node comes first.
class SW_EXPORT TimerQueueOrderedList : public TimerQueueBase {
public:
    explicit TimerQueueOrderedList(IObserver* aObserver);
    ~TimerQueueOrderedList() override;

    int PushNode_l(const CNode& aNode) override;
    int EraseNode_l(ITimerHandler* aEh) override;
    int RePushNode_l(const CNode& aNode) override;
    int PopFirstNode_l(CNode& aNode) override;
    int GetEarliestTime_l(ComTimeValueType& aTime) override;
    // Every insertion keeps the order, so there is nothing to do.
    int EnsureSorted();

    std::list<CNode> m_Nodes;
};

#endif  // SYSTEM_WRAPPERS_COM_TIMER_QUEUE_H_
