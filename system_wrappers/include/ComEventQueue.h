// Events, the unit of cross-thread work, and the FIFO queues that carry them to
// the thread that runs them.
#ifndef SYSTEM_WRAPPERS_COM_EVENT_QUEUE_H_
#define SYSTEM_WRAPPERS_COM_EVENT_QUEUE_H_

#include <pthread.h>
#include <stdint.h>

#include <atomic>
#include <list>

#include "ComBase.h"
#include "ComTaskBase.h"
#include "sw_export.h"

// A piece of work for another thread. The queue's owner thread calls
// OnEventFire() and then OnDestorySelf(); a discarded event gets only
// OnDestorySelf(). Every event ends in exactly one OnDestorySelf() call.
class SW_EXPORT IEvent {
public:
    explicit IEvent(uint64_t aTag = 0);
    virtual int OnEventFire() = 0;
    // Deletes the event; override to recycle it instead.
    virtual void OnDestorySelf();
    virtual ~IEvent();

    uint64_t m_tag;              // opaque to the library
    pthread_t m_createThreadId;  // the constructing thread
};

class SW_EXPORT IEventQueue {
public:
    // Both take the event over, also when they fail on a stopped queue.
    virtual int PostEvent(IEvent* aEvent) = 0;
    virtual int SendEvent(IEvent* aEvent) = 0;
    virtual uint64_t GetPendingEventsCount() = 0;
    virtual ~IEventQueue();
};

// The unlocked FIFO. Subclasses lock around PostEvent and the pop operations;
// SendEvent reaches the list only through the virtual PostEvent.
class SW_EXPORT EventQueueBase : public IEventQueue {
public:
    EventQueueBase();
    ~EventQueueBase() override;
    EventQueueBase(const EventQueueBase&) = delete;
    EventQueueBase& operator=(const EventQueueBase&) = delete;

    int PostEvent(IEvent* aEvent) override;
    /// Runs aEvent on the owner thread and returns its OnEventFire() result.
    /// On the owner thread the event runs at once, ahead of the queue; from any
    /// other thread the caller blocks until the owner has run it. If the owner
    /// discards the event instead (its loop ends, or the queue is destroyed),
    /// the caller is released with COM_ERROR_FAILURE. Any thread; the queue
    /// takes the event over in every case but a null one.
    int SendEvent(IEvent* aEvent) override;
    uint64_t GetPendingEventsCount() override;

    // Makes the calling thread the owner; same-thread sends then run in place.
    void Reset2CurrentThreadId();
    // Final: a stopped queue refuses (and destroys) every later event.
    void Stop();

    // Moves up to aMaxCount events, oldest first, to the end of aEvents.
    int PopPendingEvents(std::list<IEvent*>& aEvents, unsigned long aMaxCount,
                         unsigned long* aRemain);
    int PopOnePendingEvent(IEvent*& aEvent, unsigned long* aRemain);
    // Fires and destroys each event in order; the caller clears the list.
    int ProcessEvents(const std::list<IEvent*>& aEvents);
    int ProcessOneEvent(IEvent* aEvent);
    // Destroys every queued event, oldest first, without firing it.
    void DestoryPendingEvents();

    std::list<IEvent*> m_Events;
    std::atomic<uint64_t> m_nPendingCount;  // read without a lock
    ComTimeValueType m_createTime;
    std::atomic<pthread_t> m_Tid;  // the owner; zero until Reset2CurrentThreadId
    std::atomic<int> m_bStopped;

protected:
    // Post and send refuse a null event (assertion at aNullLine) and, on a
    // stopped queue, destroy the event after tracing aStoppedText.
    bool Admits(IEvent* aEvent, int aNullLine, const char* aStoppedText);
    // PostEvent with the list node of the one event in aNode made beforehand,
    // outside the subclass's lock, so that producers hold it only to link it in.
    int PostNode_l(std::list<IEvent*>& aNode);
    // Empties the list into aEvents (the caller holds the subclass's lock) and
    // destroys them afterwards with DestroyEvents, outside that lock.
    void TakeAllEvents_l(std::list<IEvent*>& aEvents);
    static void DestroyEvents(const std::list<IEvent*>& aEvents);
    // For the locked variants' destructors: refuses every later post (a
    // sender's late trip back included), discards what is queued, which
    // releases blocked senders, and waits until no sender is still inside
    // this queue, so that none touches it once it is gone.
    void CloseForDestruction(CMyMutex& aMutex);
    // A post wakes its consumer after releasing the lock, so that the woken
    // thread does not go straight back to sleep on it. BeginWake_l (under the
    // lock) and EndWake bracket that wake-up; WaitForWakers returns once no
    // wake-up is under way, and CloseForDestruction waits for it too.
    void BeginWake_l();
    void EndWake();

public:
    /// Returns once no post is still waking this queue's consumer. The reactor
    /// calls it, holding the queue's lock, before it closes its wake-up pipe.
    void WaitForWakers();

private:
    int SendCounted(IEvent* aEvent);

    // Threads inside SendEvent on this queue.
    std::atomic<unsigned> m_nSenders;
    // Posts between releasing the lock and waking the consumer.
    std::atomic<unsigned> m_nWaking;
};

/// Carries one event of a cross-thread SendEvent and releases the sender once
/// the owner thread has run it. It travels the queue twice: the first trip runs
/// the event, the second (posted back by the sender) deletes the wrapper on the
/// owner thread. Made and driven by EventQueueBase::SendEvent only.
class SW_EXPORT ComEventSynchronous : public IEvent {
public:
    ComEventSynchronous(IEvent* aEvent, EventQueueBase* aQueue);
    ~ComEventSynchronous() override;

    /// Owner thread: runs the wrapped event once and releases the sender.
    int OnEventFire() override;
    /// The first call destroys the wrapped event (and, when it never ran,
    /// releases the sender as discarded); the second deletes the wrapper.
    void OnDestorySelf() override;
    /// Sender thread: waits for the owner, returns the wrapped event's result
    /// and sends the wrapper back to the owner for deletion. When the owner
    /// discarded the event unfired, it traces one line, deletes the wrapper
    /// itself and returns COM_ERROR_FAILURE.
    int WaitResultAndDeleteThis();

    IEvent* m_pEventPost;
    long long m_Result;
    EventQueueBase* m_pEventQueue;
    std::atomic<int> m_bFired;
    ComEvent m_SendEvent;

private:
    // The wrapper is deleted by whichever OnDestorySelf() call finishes
    // second, so the owner's first call never races the sender's delete.
    std::atomic<int> m_nDestroyCalls;
    std::atomic<bool> m_bRan;        // OnEventFire ran the wrapped event
    std::atomic<bool> m_bDiscarded;  // destroyed unfired: the sender fails
};

// Locked by a mutex; the owner polls it from a loop that wakes for other reasons.
class SW_EXPORT ComEventQueueByMutex : public EventQueueBase {
public:
    ComEventQueueByMutex();
    ~ComEventQueueByMutex() override;

    int PostEvent(IEvent* aEvent) override;
    // COM_OK also when the queue is empty: callers test aEvents.empty().
    int PopPendingEvents(std::list<IEvent*>& aEvents, unsigned long aMaxCount,
                         unsigned long* aRemain);
    void DestoryPendingEvents();

    CMyMutex m_Mutex;

protected:
    // PostEvent with the event's list node already made (see PostNode_l).
    int PostNode(std::list<IEvent*>& aNode);
};

// Locked by a mutex, with a condition variable so that an idle owner sleeps
// until an event arrives or its time-out ends.
class SW_EXPORT EventQueueUsingConditionVariable : public EventQueueBase {
public:
    EventQueueUsingConditionVariable();
    ~EventQueueUsingConditionVariable() override;

    // Signals only on the empty-to-non-empty transition (one consumer).
    int PostEvent(IEvent* aEvent) override;
    // Waits once while the queue is empty (null: no limit), then pops at most
    // aMaxCount. COM_ERROR_FAILURE with aEvents empty when nothing came.
    int PopOrWaitPendingEvents(std::list<IEvent*>& aEvents, ComTimeValueType* aTimeout,
                               unsigned long aMaxCount);
    void DestoryPendingEvents();
    /// Ends the owner's current wait in PopOrWaitPendingEvents, or its next one
    /// if it is not waiting yet, as a spurious wake-up would: the call returns
    /// COM_ERROR_FAILURE with nothing popped when the queue is empty, so that
    /// the owner's loop recomputes its deadline. Any thread.
    void Wake();

    CMyMutex m_Mutex;
    ComConditionVariable m_Cond;

private:
    bool m_bWake;  // a Wake not yet seen by the owner; guarded by m_Mutex
};

#endif  // SYSTEM_WRAPPERS_COM_EVENT_QUEUE_H_
