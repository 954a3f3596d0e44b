/// @file
/// Timer queues: handlers scheduled with an interval and a repeat count, fired
/// by the owning thread's loop through CheckExpire.
#ifndef SYSTEM_WRAPPERS_COM_TIMER_QUEUE_H_
#define SYSTEM_WRAPPERS_COM_TIMER_QUEUE_H_

#include <list>

#include "ComBase.h"
#include "sw_export.h"

/// The callback of a timer, implemented by the user. The queue borrows it:
/// it must stay alive until it is cancelled or has fired for the last time.
class SW_EXPORT ITimerHandler {
public:
    /// Called when the timer fires, on the thread that runs the queue's
    /// CheckExpire (the owner thread), with no queue lock held: it may
    /// schedule or cancel timers, itself included. aCurTime is the time
    /// CheckExpire read once near its start (the same for every handler it
    /// fires), not the due time; aToken is the one given at scheduling.
    virtual void OnTimeout(const ComTimeValueType& aCurTime, void* aToken) = 0;
    /// The queue never deletes a handler.
    virtual ~ITimerHandler();
};

/// Scheduling interface of a timer queue, as a thread hands it out
/// (BaseThread::GetTimerQueue). A handler is the identity of its timer: it
/// has at most one schedule per queue.
class SW_EXPORT ITimerQueue {
public:
    /// Schedules aEh to fire every aInterval, aCount times (0: for ever),
    /// first one interval from now, passing aToken back to OnTimeout.
    /// Re-scheduling a handler replaces its schedule. A zero or negative
    /// interval is allowed only with aCount 1. The handler is borrowed.
    /// Returns COM_OK for a new timer, otherwise a failure (see the
    /// implementation for which one and for the thread rules).
    virtual int ScheduleTimer(ITimerHandler* aEh, void* aToken, const ComTimeValueType& aInterval,
                              unsigned long aCount) = 0;
    /// Removes aEh's timer. COM_OK if it was scheduled, otherwise a failure.
    virtual int CancelTimer(ITimerHandler* aEh) = 0;
    /// Destroying a queue drops its timers without telling their handlers.
    virtual ~ITimerQueue();
};

/// Optional listener of a timer queue, told when a schedule makes an empty
/// queue non-empty. No owner in the library installs one.
class SW_EXPORT IObserver {
public:
    /// Called with aTopic "TimerQueue" and a null aData, on the scheduling
    /// thread, after the queue's lock is released.
    virtual void OnObserve(const char* aTopic, void* aData) = 0;
    /// The queue never deletes its observer.
    virtual ~IObserver();
};

/// A timer queue that belongs to one thread, the owner, which fires the due
/// timers by calling CheckExpire from its loop; handlers run there. The list
/// is guarded by the queue's own recursive mutex, so ScheduleTimer,
/// CancelTimer and GetEarliestTime may be called from any thread (a task
/// thread's queue, for instance, is scheduled from anywhere), while
/// CheckExpire is for the owner only. The mutex is never held while a handler
/// runs, so handlers may schedule and cancel from OnTimeout. This class does
/// not wake its owner: a timer scheduled from another thread is seen at the
/// owner's next CheckExpire (a task thread's queue wakes its loop itself; see
/// ComTaskThread). An assertion traces, at error level,
/// "system_wrappers/source/ComTaskThread: ", the line number,
/// ", assert failed, " and the expression.
class SW_EXPORT TimerQueueBase : public ITimerQueue {
public:
    /// One scheduled timer, copied by value into and out of the list; a
    /// handler has at most one node.
    struct SW_EXPORT CNode {
        /// A node for aEh and aToken with both times zero and a count of 0.
        CNode(ITimerHandler* aEh = nullptr, void* aToken = nullptr);

        /// The handler, which identifies the timer; borrowed.
        ITimerHandler* m_pEh;
        /// Passed back to OnTimeout; opaque to the queue.
        void* m_pToken;
        /// The absolute wall-clock due time.
        ComTimeValueType m_tvExpired;
        /// The period.
        ComTimeValueType m_tvInterval;
        /// Firings left; all ones (the largest unsigned long) means for ever
        /// and is never decremented.
        unsigned long m_dwCount;
    };

    /// An empty queue. aObserver may be null; it is borrowed and must outlive
    /// the queue.
    explicit TimerQueueBase(IObserver* aObserver);
    /// Drops every timer without calling its handler. Nobody may use the
    /// queue by then, CheckExpire included.
    ~TimerQueueBase() override;
    TimerQueueBase(const TimerQueueBase&) = delete;
    TimerQueueBase& operator=(const TimerQueueBase&) = delete;

    /// Schedules aEh (borrowed) to fire every aInterval, aCount times (0: for
    /// ever), the first time one interval from now; aToken goes back to
    /// OnTimeout. A zero-interval one-shot fires at the next CheckExpire. Any
    /// thread. Returns COM_OK for a new timer, and COM_ERROR_FAILURE both for
    /// bad arguments and, silently, when aEh was already scheduled: that
    /// schedule has been replaced and the new one holds. Bad arguments leave
    /// the queue unchanged and trace an assertion: "aEh" for a null handler,
    /// and for a zero or negative interval with a count other than 1
    /// "aInterval > ComTimeValueType::s_tvZero || aCount == 1".
    int ScheduleTimer(ITimerHandler* aEh, void* aToken, const ComTimeValueType& aInterval,
                      unsigned long aCount) override;
    /// Removes aEh's timer; any thread. COM_OK if it was scheduled;
    /// COM_ERROR_FAILURE, silently, if it was not, which includes a counted
    /// timer (and a one-shot) after its last firing, as that already left the
    /// queue. A null aEh traces the assertion "aEh" and fails. A cancel from
    /// another thread does not wait for an OnTimeout already under way on the
    /// owner: destroy the handler on the owner thread, or after the owner has
    /// moved on.
    int CancelTimer(ITimerHandler* aEh) override;

    /// Owner thread only: fires every due timer on the calling thread and
    /// returns how many fired. The clock is read once; a periodic timer is
    /// re-armed before its handler runs, at most once per call, on its old
    /// period grid, so missed periods are skipped, not fired in a burst. A
    /// timer leaves the queue after its last firing (its count reached, or a
    /// zero interval). aRemainTime, when not null, receives the time from
    /// after the handlers ran until the next due timer (zero if that is
    /// already due), or ComTimeValueType::s_tvMax when the queue is empty.
    /// Returns COM_ERROR_FAILURE after the assertion "pEh" only if a node
    /// without a handler was queued by a subclass.
    int CheckExpire(ComTimeValueType* aRemainTime);
    /// The earliest absolute due time, or ComTimeValueType::s_tvMax when the
    /// queue is empty. Any thread.
    ComTimeValueType GetEarliestTime();

    /// Inserts aNode in due order, replacing any node of the same handler.
    /// Returns 1 if one was replaced, else 0. The caller holds m_Mutex.
    virtual int PushNode_l(const CNode& aNode) = 0;
    /// Removes aEh's node. Returns 0 if there was one, 1 if not. The caller
    /// holds m_Mutex.
    virtual int EraseNode_l(ITimerHandler* aEh) = 0;
    /// Inserts aNode, known not to be queued, in due order (no handler
    /// check). The caller holds m_Mutex.
    virtual int RePushNode_l(const CNode& aNode) = 0;
    /// Moves the earliest node into aNode. Returns 0, or -1 when the queue is
    /// empty. The caller holds m_Mutex.
    virtual int PopFirstNode_l(CNode& aNode) = 0;
    /// Copies the earliest due time into aTime. Returns 0, or -1 when the
    /// queue is empty (aTime untouched). The caller holds m_Mutex.
    virtual int GetEarliestTime_l(ComTimeValueType& aTime) = 0;

    /// The listener given at construction; may be null; borrowed.
    IObserver* m_pObserver;
    /// Guards the node list; recursive, never held while a handler runs.
    CMyMutex m_Mutex;
};

/// The timer queue of the library's threads: a list kept sorted by due time,
/// where among equal due times the most recently inserted node comes first
/// (fires first). Insertion and cancellation are linear in the number of
/// timers. Thread rules as for TimerQueueBase.
class SW_EXPORT TimerQueueOrderedList : public TimerQueueBase {
public:
    /// An empty queue; aObserver may be null (borrowed).
    explicit TimerQueueOrderedList(IObserver* aObserver);
    /// Drops every timer without calling its handler.
    ~TimerQueueOrderedList() override;

    /// Inserts before the first node due at the same time or later, removing
    /// the handler's old node. Returns 1 if one was removed, else 0; two nodes
    /// of one handler trace the assertion "!bFoundEqual". Caller holds m_Mutex.
    int PushNode_l(const CNode& aNode) override;
    /// Removes the first node of aEh. Returns 0, or 1 if there was none.
    /// Caller holds m_Mutex.
    int EraseNode_l(ITimerHandler* aEh) override;
    /// Inserts before the first node due at the same time or later; returns 0.
    /// Caller holds m_Mutex.
    int RePushNode_l(const CNode& aNode) override;
    /// Moves the front node into aNode and returns 0; on an empty list traces
    /// the assertion "!m_Nodes.empty()" and returns -1. Caller holds m_Mutex.
    int PopFirstNode_l(CNode& aNode) override;
    /// The front node's due time; returns 0, or -1 when empty (aTime
    /// untouched). Caller holds m_Mutex.
    int GetEarliestTime_l(ComTimeValueType& aTime) override;
    /// Returns 0 and does nothing: every insertion keeps the order.
    int EnsureSorted();

    /// The timers, sorted by ascending due time; guarded by m_Mutex.
    std::list<CNode> m_Nodes;
};

#endif  // SYSTEM_WRAPPERS_COM_TIMER_QUEUE_H_
