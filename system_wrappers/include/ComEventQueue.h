/// @file
/// Events, the unit of cross-thread work, and the FIFO queues that carry them
/// to the thread that runs them.
#ifndef SYSTEM_WRAPPERS_COM_EVENT_QUEUE_H_
#define SYSTEM_WRAPPERS_COM_EVENT_QUEUE_H_

#include <pthread.h>
#include <stdint.h>

#include <atomic>
#include <list>

#include "ComBase.h"
#include "ComTaskBase.h"
#include "sw_export.h"

/// A piece of work for another thread, made by the caller (with new, unless
/// OnDestorySelf() is overridden) and handed to a queue. The queue's owner
/// thread calls OnEventFire() and then OnDestorySelf(); a discarded or
/// refused event gets only OnDestorySelf(). Every event ends in exactly one
/// OnDestorySelf() call, after which nobody touches it. Both run on the owner
/// thread, except that a refusal (a stopped queue, or a send that cannot be
/// queued) runs OnDestorySelf() on the calling thread, and a discard runs it
/// on the discarding thread (the one that destroys or drains the queue).
class SW_EXPORT IEvent {
public:
    /// Stores aTag and the constructing thread's id.
    explicit IEvent(uint64_t aTag = 0);
    /// The work. Runs once, on the owner thread, outside any queue lock; it
    /// may post to any queue, its own included. Returns a result code, which
    /// SendEvent hands back to its caller and PostEvent ignores.
    virtual int OnEventFire() = 0;
    /// The event's end, called exactly once: after OnEventFire(), or instead
    /// of it when the event is discarded or refused. Deletes the event;
    /// override to recycle it instead.
    virtual void OnDestorySelf();
    /// Virtual, so that OnDestorySelf() deletes the whole event.
    virtual ~IEvent();

    /// The tag given at construction; opaque to the library.
    uint64_t m_tag;
    /// The thread that constructed the event.
    pthread_t m_createThreadId;
};

/// The interface of an event queue, as a thread hands it out
/// (BaseThread::GetEventQueue). Ownership is the same for both deliveries: the
/// queue takes the event over when it accepts it and also when it refuses it
/// because it is stopped (the event's OnDestorySelf() has then already run
/// when the call returns); only a null event has nothing to take. That is the
/// queue's own refusal. A thread's PostEvent and SendEvent
/// (ComTaskThread::PostEvent, ComUserThreadWidthEventQueue::PostEvent) may
/// refuse earlier, before the queue is reached, once the thread's own stop
/// flag is set, and that different refusal leaves the event with the caller.
/// Both return COM_ERROR_FAILURE; see ComTaskThread for which one a thread
/// makes when.
class SW_EXPORT IEventQueue {
public:
    /// Queues aEvent for the owner thread and returns at once; any thread.
    /// COM_OK: queued, the queue owns it. COM_ERROR_FAILURE: a null aEvent
    /// (nothing taken), or a stopped queue, which has taken the event over
    /// and destroyed it already; do not touch it again either way.
    virtual int PostEvent(IEvent* aEvent) = 0;
    /// Runs aEvent on the owner thread and returns its OnEventFire() result;
    /// a caller on another thread blocks until then. Ownership and refusals
    /// as for PostEvent.
    virtual int SendEvent(IEvent* aEvent) = 0;
    /// The number of queued events, read without a lock; any thread.
    virtual uint64_t GetPendingEventsCount() = 0;
    /// Destroying a queue discards what is still queued.
    virtual ~IEventQueue();
};

/// The FIFO of events, without a lock of its own: the locked variants
/// (ComEventQueueByMutex, EventQueueUsingConditionVariable) lock around
/// PostEvent and the pop operations, and SendEvent reaches the list only
/// through the virtual PostEvent. On a bare EventQueueBase, the caller keeps
/// posts, pops and discards apart. One thread, the owner, pops and runs the
/// events outside the lock. Failures trace at error level with ", this=" and
/// the queue's address. An assertion traces, at error level,
/// "system_wrappers/source/ComTaskThread: ", the line number,
/// ", assert failed, " and the expression, and the call then goes on or fails
/// as each method says.
class SW_EXPORT EventQueueBase : public IEventQueue {
public:
    /// An empty, unowned, running queue.
    EventQueueBase();
    /// Discards every queued event (OnDestorySelf() only, on the destroying
    /// thread). No other thread may use the queue by then.
    ~EventQueueBase() override;
    EventQueueBase(const EventQueueBase&) = delete;
    EventQueueBase& operator=(const EventQueueBase&) = delete;

    /// Appends aEvent and returns COM_OK; the queue owns it from then on.
    /// There is no bound on the queue's length. A null aEvent traces the
    /// assertion at line 278, "aEvent", and returns COM_ERROR_FAILURE. On a
    /// stopped queue it traces "EventQueueBase::PostEvent, has been stopped."
    /// (error), calls the event's OnDestorySelf() on the calling thread and
    /// returns COM_ERROR_FAILURE: the event is taken over and gone. Unlocked
    /// here; the locked variants make it safe from any thread.
    int PostEvent(IEvent* aEvent) override;
    /// Runs aEvent on the owner thread and returns its OnEventFire() result.
    /// On the owner thread the event runs at once, ahead of the queue; from
    /// any other thread the caller blocks until the owner has run it (a queue
    /// nobody drains blocks it for good). Any thread. The queue takes the
    /// event over in every case but a null one. Failures: a null aEvent traces
    /// the assertion at line 294, "aEvent" (COM_ERROR_FAILURE); a stopped
    /// queue traces "EventQueueBase::SendEvent, has been stopped." and
    /// destroys the event (COM_ERROR_FAILURE); a queue stopped before the send
    /// could be queued traces "EventQueueBase::SendEvent, post event failed."
    /// and has destroyed the event (COM_ERROR_FAILURE); -1 when memory for
    /// the send runs out (event destroyed). If the owner discards the event
    /// instead of running it (its loop ends, or the queue is destroyed), the
    /// caller is released with COM_ERROR_FAILURE and the trace
    /// "ComEventSynchronous::WaitResultAndDeleteThis, discarded before it ran".
    /// An event whose own result is COM_ERROR_FAILURE looks the same.
    int SendEvent(IEvent* aEvent) override;
    /// The number of queued events, read without a lock; any thread. It may
    /// be stale by the time the caller looks at it.
    uint64_t GetPendingEventsCount() override;

    /// Makes the calling thread the owner; the owner calls it once when it
    /// starts. Same-thread sends then run in place.
    void Reset2CurrentThreadId();
    /// Final: a stopped queue refuses (and destroys) every later event. What
    /// is queued stays until drained or discarded. It wakes nobody: an owner
    /// asleep in EventQueueUsingConditionVariable::PopOrWaitPendingEvents
    /// sleeps on. Any thread.
    void Stop();

    /// Owner thread, under the subclass's lock: moves up to aMaxCount events,
    /// oldest first, to the end of aEvents, which should be empty (else it
    /// traces the assertion "aEvents.empty()" and appends). COM_OK, with the
    /// number left stored through aRemain when it is not null;
    /// COM_ERROR_FAILURE when the queue is empty (aRemain untouched). An
    /// aMaxCount of 0 traces "aMaxCount > 0" and moves nothing. The events
    /// now belong to the caller, who runs them with ProcessEvents.
    int PopPendingEvents(std::list<IEvent*>& aEvents, unsigned long aMaxCount,
                         unsigned long* aRemain);
    /// Owner thread, under the subclass's lock: takes the oldest event into
    /// aEvent, which should be null (else it traces the assertion "!aEvent"),
    /// stores the number left through aRemain when it is not null, and
    /// returns COM_OK; COM_ERROR_FAILURE when empty. The caller then owns the
    /// event and ends it with ProcessOneEvent.
    int PopOnePendingEvent(IEvent*& aEvent, unsigned long* aRemain);
    /// Owner thread, outside the lock: fires and destroys each event of a
    /// popped list, in order; returns COM_OK. The caller clears the list
    /// afterwards and must not process it twice.
    int ProcessEvents(const std::list<IEvent*>& aEvents);
    /// Owner thread: calls aEvent's OnEventFire() (its result is ignored) and
    /// then OnDestorySelf(), and returns COM_OK. A null aEvent traces the
    /// assertion at line 400, "aEvent", and returns COM_ERROR_FAILURE.
    int ProcessOneEvent(IEvent* aEvent);
    /// Destroys every queued event, oldest first, without firing it, on the
    /// calling thread, and empties the queue. Unlocked here; the locked
    /// variants lock around it.
    void DestoryPendingEvents();

    /// The queued events, oldest first; guarded by the subclass's lock.
    std::list<IEvent*> m_Events;
    /// The number of queued events, read without a lock.
    std::atomic<uint64_t> m_nPendingCount;
    /// When the queue was constructed; the library does not read it.
    ComTimeValueType m_createTime;
    /// The owner thread; zero until Reset2CurrentThreadId.
    std::atomic<pthread_t> m_Tid;
    /// 1 once Stop() has run, else 0; read without a lock, so a post racing
    /// Stop() may still be accepted.
    std::atomic<int> m_bStopped;

protected:
    /// True when aEvent may be queued. False for a null event (assertion at
    /// aNullLine, "aEvent") and, on a stopped queue, after tracing aStoppedText
    /// with ", this=" at error level and destroying the event.
    bool Admits(IEvent* aEvent, int aNullLine, const char* aStoppedText);
    /// PostEvent with the list node of the one event in aNode made beforehand,
    /// outside the subclass's lock, so that producers hold it only to link it
    /// in. The caller holds the lock; results and traces as PostEvent.
    int PostNode_l(std::list<IEvent*>& aNode);
    /// Moves the whole list into the empty aEvents and sets the count to 0.
    /// The caller holds the subclass's lock and destroys the events afterwards
    /// with DestroyEvents, outside that lock.
    void TakeAllEvents_l(std::list<IEvent*>& aEvents);
    /// Calls OnDestorySelf() on each event of aEvents, in order, on the
    /// calling thread; the list itself is left as it is.
    static void DestroyEvents(const std::list<IEvent*>& aEvents);
    /// For the locked variants' destructors: stops the queue, so that every
    /// later post is refused (a sender's late trip back included), discards
    /// what is queued, which releases blocked senders with COM_ERROR_FAILURE,
    /// and waits until no sender is still inside this queue and no post is
    /// still waking its consumer, so that none touches it once it is gone.
    /// aMutex is the subclass's lock.
    void CloseForDestruction(CMyMutex& aMutex);
    /// Marks the start of a post's wake-up of the consumer. A post wakes its
    /// consumer after releasing the lock, so that the woken thread does not
    /// go straight back to sleep on it; BeginWake_l (under the lock) and
    /// EndWake bracket that wake-up.
    void BeginWake_l();
    /// Marks the end of a wake-up begun with BeginWake_l; no lock needed.
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
/// owner thread. Made and driven by EventQueueBase::SendEvent only; unlike
/// other events it gets two OnDestorySelf() calls and deletes itself on the
/// second.
class SW_EXPORT ComEventSynchronous : public IEvent {
public:
    /// Wraps aEvent (taken over) for aQueue (borrowed). A null aEvent traces
    /// the assertion at line 525, "m_pEventPost"; a null aQueue the one at
    /// line 526, "m_pEventQueue".
    ComEventSynchronous(IEvent* aEvent, EventQueueBase* aQueue);
    /// Destroys the wrapped event if it is still held, and releases a waiting
    /// sender if no OnDestorySelf() came yet. The wrapper deletes itself; only
    /// a wrapper that was never sent may be destroyed directly.
    ~ComEventSynchronous() override;

    /// Owner thread: runs the wrapped event once, keeps its result and
    /// releases the sender; returns that result (COM_ERROR_FAILURE without a
    /// wrapped event). On the second trip it returns COM_OK at once.
    int OnEventFire() override;
    /// The first call destroys the wrapped event (and, when it never ran,
    /// releases the sender as discarded); the second deletes the wrapper.
    void OnDestorySelf() override;
    /// Sender thread: waits for the owner, returns the wrapped event's result
    /// and sends the wrapper back to the owner for deletion. When the owner
    /// discarded the event unfired, it traces
    /// "ComEventSynchronous::WaitResultAndDeleteThis, discarded before it ran"
    /// (error), deletes the wrapper itself and returns COM_ERROR_FAILURE. A
    /// failed wait returns the wait's code after tracing
    /// "ComEventSynchronous::WaitResultAndDeleteThis, m_SendEvent.Wait() failed!".
    int WaitResultAndDeleteThis();

    /// The wrapped event, owned until its OnDestorySelf() is called; then null.
    IEvent* m_pEventPost;
    /// The wrapped event's result; -1 until it has run.
    long long m_Result;
    /// The queue the wrapper was sent to; borrowed.
    EventQueueBase* m_pEventQueue;
    /// 1 once the first OnDestorySelf() has come, else 0.
    std::atomic<int> m_bFired;
    /// Auto-reset event the sender waits on; signalled when the wrapped event
    /// has run or been discarded.
    ComEvent m_SendEvent;

private:
    // The wrapper is deleted by whichever OnDestorySelf() call finishes
    // second, so the owner's first call never races the sender's delete.
    std::atomic<int> m_nDestroyCalls;
    std::atomic<bool> m_bRan;        // OnEventFire ran the wrapped event
    std::atomic<bool> m_bDiscarded;  // destroyed unfired: the sender fails
};

/// An event queue locked by a mutex, for an owner that polls it from a loop
/// that wakes for other reasons (a user thread with a queue, a foreign
/// thread's record, the reactor's queue). Producers post and send from any
/// thread; the owner pops and runs the events outside the lock. Ownership and
/// refusals are those of IEventQueue.
class SW_EXPORT ComEventQueueByMutex : public EventQueueBase {
public:
    /// An empty, unowned, running queue.
    ComEventQueueByMutex();
    /// Stops the queue, discards what is queued (on the destroying thread),
    /// releases blocked senders with COM_ERROR_FAILURE and waits until they
    /// have left. Other threads must have stopped posting by then.
    ~ComEventQueueByMutex() override;

    /// EventQueueBase::PostEvent under m_Mutex; any thread. A refusal is
    /// traced by the base and again as "[COM]:PostEvent, failed" (error);
    /// returns the base's result, and the event is taken over either way
    /// unless it is null.
    int PostEvent(IEvent* aEvent) override;
    /// Owner thread: EventQueueBase::PopPendingEvents under m_Mutex, but
    /// COM_OK also when the queue is empty (aEvents then stays empty and
    /// aRemain untouched): callers test aEvents.empty().
    int PopPendingEvents(std::list<IEvent*>& aEvents, unsigned long aMaxCount,
                         unsigned long* aRemain);
    /// Empties the queue under m_Mutex and destroys the events, oldest first,
    /// without firing them, outside the lock on the calling thread. Any
    /// thread; the owner calls it when its loop ends.
    void DestoryPendingEvents();

    /// Guards the list and count; recursive, never held while events run.
    CMyMutex m_Mutex;

protected:
    /// PostEvent with the event's list node already made (see PostNode_l);
    /// takes m_Mutex itself.
    int PostNode(std::list<IEvent*>& aNode);
};

/// An event queue locked by a mutex, with a condition variable so that an
/// idle owner sleeps until an event arrives, its time-out ends or Wake() is
/// called; the task thread runs on it. Producers post and send from any
/// thread; one consumer, the owner, pops. Ownership and refusals are those of
/// IEventQueue. Use PopOrWaitPendingEvents and DestoryPendingEvents of this
/// class: the pops inherited from EventQueueBase take no lock.
class SW_EXPORT EventQueueUsingConditionVariable : public EventQueueBase {
public:
    /// An empty, unowned, running queue.
    EventQueueUsingConditionVariable();
    /// Stops the queue, discards what is queued (on the destroying thread),
    /// releases blocked senders with COM_ERROR_FAILURE and waits until they
    /// and any post still waking the owner have left. Other threads must
    /// have stopped posting by then.
    ~EventQueueUsingConditionVariable() override;

    /// EventQueueBase::PostEvent under m_Mutex; any thread. Signals the owner
    /// only on the empty-to-non-empty transition (one consumer). A refusal is
    /// traced by the base and again as "PostEvent, failed" (error); returns
    /// the base's result, and the event is taken over either way unless it is
    /// null.
    int PostEvent(IEvent* aEvent) override;
    /// Owner thread: when the queue is empty, waits once for a post, Wake()
    /// or the end of aTimeout (a duration from now; null waits without limit);
    /// then pops at most aMaxCount events, oldest first, into aEvents, which
    /// should be empty. COM_OK when events were popped; COM_ERROR_FAILURE
    /// with aEvents empty when nothing came (time-out, Wake(), a spurious
    /// wake-up or a failed wait); never COM_ERROR_TIMEOUT. A failed wait
    /// traces, at error level, with the count and the wait's code,
    /// "EventQueueUsingConditionVariable::PopOrWaitPendingEvents, m_Events is not empty. nSize="
    /// and " rv=".
    int PopOrWaitPendingEvents(std::list<IEvent*>& aEvents, ComTimeValueType* aTimeout,
                               unsigned long aMaxCount);
    /// Empties the queue under m_Mutex and destroys the events, oldest first,
    /// without firing them, outside the lock on the calling thread. Any
    /// thread; the owner calls it when its loop ends.
    void DestoryPendingEvents();
    /// Ends the owner's current wait in PopOrWaitPendingEvents, or its next one
    /// if it is not waiting yet, as a spurious wake-up would: the call returns
    /// COM_ERROR_FAILURE with nothing popped when the queue is empty, so that
    /// the owner's loop recomputes its deadline. Any thread.
    void Wake();

    /// Guards the list, the count and the wake flag; recursive, never held
    /// while events run.
    CMyMutex m_Mutex;
    /// Bound to m_Mutex; the owner sleeps on it in PopOrWaitPendingEvents.
    ComConditionVariable m_Cond;

private:
    bool m_bWake;  // a Wake not yet seen by the owner; guarded by m_Mutex
};

#endif  // SYSTEM_WRAPPERS_COM_EVENT_QUEUE_H_
