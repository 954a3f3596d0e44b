/// @file
/// Threads the library starts itself: the thread base with its start
/// handshake, the task thread (event queue plus timer queue) and the
/// user-function threads. Create and destroy them through ComThreadManger.
#ifndef SYSTEM_WRAPPERS_COM_TASK_THREAD_H_
#define SYSTEM_WRAPPERS_COM_TASK_THREAD_H_

#include <pthread.h>

#include <atomic>

#include "ComBase.h"
#include "ComEventQueue.h"
#include "ComTaskBase.h"
#include "ComTimerQueue.h"
#include "sw_export.h"

/// The base of every thread the library starts. Order of use: construct,
/// Create, later Stop, Join, Destory (ComThreadManger does all of this).
/// Each thread asks the kernel for the smallest timer slack when it starts,
/// so that its timed waits (and with them its timers) end when due rather
/// than up to 50 us later. Failures are traced at error level and returned
/// as COM_ERROR_FAILURE (1000001); nothing throws.
class SW_EXPORT BaseThread {
public:
    /// Thread types, the constructor's aType; kept in m_Type.
    enum {
        TT_TASK = 0,     ///< ComTaskThread.
        TT_USER = 1,     ///< ComUserThread and ComUserThreadWidthEventQueue.
        TT_REACTOR = 2,  ///< ComReactorThread.
    };
    /// Creation flags, the argument of Create; kept in m_Flag.
    enum {
        TF_JOINABLE = 1,  ///< Joinable: Join waits for the end of the body.
        TF_DETACHED = 2,  ///< Detached: Join returns at once; the object starts once only.
    };

    /// Stores aType (one of TT_TASK, TT_USER, TT_REACTOR); starts nothing.
    explicit BaseThread(unsigned long aType);
    BaseThread(const BaseThread&) = delete;
    BaseThread& operator=(const BaseThread&) = delete;

    /// The thread's event queue, or null when it has none (the base, and
    /// both user threads). Borrowed: it lives as long as the object.
    virtual IEventQueue* GetEventQueue();
    /// The thread's timer queue, or null when it has none (the base, both
    /// user threads, and a task thread not yet started). Borrowed: it lives
    /// as long as the object. ComTimerWrapper binds to it.
    virtual ITimerQueue* GetTimerQueue();
    /// Neither stops nor joins the thread: destroy only an object whose
    /// thread never started or has been joined.
    virtual ~BaseThread();
    /// Runs on the new thread before Create returns, so what it sets up is
    /// visible to the creator. Its result is ignored; the base returns 0.
    /// Under ComThreadManger it runs with the manager's lock held: it must
    /// not call the manager.
    virtual int OnThreadInit();
    /// The thread's body, on the new thread after OnThreadInit; the thread
    /// ends when it returns. Its result is ignored.
    virtual int OnThreadRun() = 0;
    /// Starts the thread, TF_JOINABLE or TF_DETACHED, and returns once its
    /// OnThreadInit has finished. COM_OK, or COM_ERROR_FAILURE: for any
    /// other flag (assertion "aFlag == TF_JOINABLE || aFlag == TF_DETACHED"),
    /// while a thread of this object runs or waits to be joined
    /// ("BaseThread::Create, already running", error; a detached object
    /// starts once only), and when a pthread call fails
    /// ("BaseThread::Create, pthread_create() failed! err=" and the like).
    virtual int Create(unsigned long aFlag);
    /// Asks the thread to end; the subclass says how. It does not wait:
    /// Join afterwards.
    virtual int Stop(ComTimeValueType* aTimeout) = 0;

    /// The start routine given to pthread_create; aArg is the BaseThread.
    /// Used by Create only; returns null.
    static void* ThreadProc(void* aArg);
    /// Deletes the object (which must have come from new) and returns 0; it
    /// neither stops nor joins the thread, so do both first. Traces
    /// "BaseThread::Destory" at info level.
    int Destory();
    /// Waits for the body of a joinable thread to return; afterwards the
    /// object may be started again. 0, also at once for a detached thread
    /// ("BaseThread::Join, join detached thread", warning). COM_ERROR_FAILURE
    /// from the thread itself ("BaseThread::Join, join in the same thread"),
    /// when it was never started or is already joined ("BaseThread::Join,
    /// thread not started or already joined"), or when pthread_join fails;
    /// all at error level. Call it from one other thread.
    int Join();
    /// pthread_cancel's own result (an errno value; ESRCH when the thread was
    /// never started or is already joined). The body gets no chance to
    /// clean up: a last resort.
    int Terminate();
    /// The thread's handle; 0 before Create.
    pthread_t GetThreadId() const;
    /// The calling thread's handle (pthread_self).
    static pthread_t GetCurrentThreadId();
    /// Non-zero when aTid is the calling thread.
    static int IsEqualCurrentThread(pthread_t aTid);

    /// The handle pthread_create filled in; 0 before Create. Read only.
    pthread_t m_Tid;
    /// m_Tid once a thread was created, all ones before. Read only.
    pthread_t m_TidCreated;
    /// The thread type, TT_TASK, TT_USER or TT_REACTOR. Read only.
    unsigned long m_Type;
    /// The flag of the last accepted Create; 0 before. Read only.
    unsigned long m_Flag;
    /// The start handshake, owned; non-null only while Create waits for the
    /// new thread. Not for callers.
    ComEvent* m_pEvent4Start;

private:
    // A joinable thread that was started and not yet joined: pthread_join and
    // pthread_cancel are only safe on such a thread.
    std::atomic<bool> m_bJoinable;
    // From pthread_create until a successful Join; Create refuses while set. A
    // detached thread cannot be seen to end, so its object is started once only.
    std::atomic<bool> m_bStarted;
};

/// A thread that is stopped by an event it runs itself (StopThreadEvent).
class SW_EXPORT IStopFlagAccess {
public:
    /// Destroys the interface.
    virtual ~IStopFlagAccess();
    /// Makes the thread's loop end after its current pass. Meant for the
    /// thread itself, from StopThreadEvent::OnEventFire.
    virtual void SetStopFlag() = 0;
};

/// The event that stops a task or reactor thread: fired on that thread, it
/// calls SetStopFlag. Allocate it with new: the queue deletes it after it
/// fires (OnDestorySelf).
class SW_EXPORT StopThreadEvent : public IEvent {
public:
    /// aStopFlagAccess is borrowed and must outlive the event; null makes
    /// an event that does nothing.
    explicit StopThreadEvent(IStopFlagAccess* aStopFlagAccess);
    /// Calls m_pStopFlagAccess->SetStopFlag() when it is non-null; returns 0.
    int OnEventFire() override;

    /// The thread to stop; not owned.
    IStopFlagAccess* m_pStopFlagAccess;
};

/// The worker thread: fires due timers, then up to 5 posted events per pass,
/// sleeping on its queue until the next timer is due or an event arrives.
/// Every timer handler and every event runs on this thread. Get one from
/// ComThreadManger::CreateTaskThread and end it with DestroyThread, which
/// stops, joins and deletes it; events still queued then are destroyed
/// unfired. PostEvent, SendEvent, ScheduleTimer, CancelTimer and Stop may be
/// called from any thread.
class SW_EXPORT ComTaskThread : public BaseThread, public IStopFlagAccess {
public:
    /// A thread object of type TT_TASK, not started: no timer queue until
    /// Create.
    ComTaskThread();
    /// Destroys queued events unfired and the timer queue (handlers are not
    /// told). Does not stop the thread: stop and join it first.
    ~ComTaskThread() override;

    /// The event queue (m_EventQueue); never null.
    IEventQueue* GetEventQueue() override;
    /// The timer queue, or null before Create.
    ITimerQueue* GetTimerQueue() override;
    /// Creates the timer queue and makes the new thread the event queue's
    /// owner; see BaseThread::OnThreadInit.
    int OnThreadInit() override;
    /// Runs the loop until the stop flag is set, then destroys the events
    /// still queued; see BaseThread::OnThreadRun.
    int OnThreadRun() override;
    /// Queues a StopThreadEvent and closes the queue; it does not wait (Join
    /// afterwards). aTimeout is ignored. Returns 0, or -1 when the stop event
    /// cannot be allocated (assertion "pEvent"). Any thread, the thread itself
    /// included. Events taken in the same pass as the stop event still fire.
    /// A second Stop changes nothing but traces "ComTaskThread::Stop,
    /// PostEvent Failed" (error), as DestroyThread after your own Stop does.
    int Stop(ComTimeValueType* aTimeout) override;
    /// Sets the stop flag: the loop ends after its current pass, and
    /// PostEvent, SendEvent and ScheduleTimer are refused from then on. No
    /// wake-up: meant for the thread itself, from StopThreadEvent.
    void SetStopFlag() override;

    /// Schedules aHandler, with aArg as its token, on this thread's timer
    /// queue (aCount 0 repeats for ever; a zero interval only with aCount 1).
    /// The first firing is one interval from now; OnTimeout runs on this
    /// thread. Any thread: scheduled from another thread, it wakes the loop so
    /// that the timer fires on time. (This call is the thread's; a
    /// ComTimerWrapper bound to this thread is still scheduled and cancelled
    /// on this thread only.) aHandler is borrowed until cancelled or fired for
    /// the last time. COM_OK for a new timer. COM_ERROR_FAILURE before Create
    /// and once the stop flag is set ("ComTaskThread::ScheduleTimer, stopped or
    /// timequeue=null"), and, traced as "ComTaskThread::ScheduleTimer, failed",
    /// on bad arguments and when an earlier timer of aHandler was replaced
    /// (the new schedule holds). Error level.
    int ScheduleTimer(ITimerHandler* aHandler, void* aArg, const ComTimeValueType& aInterval,
                      unsigned long aCount);
    /// Removes aHandler's timer: COM_OK, or COM_ERROR_FAILURE when it had
    /// none, for instance after the last firing of a counted timer
    /// ("ComTaskThread::CancelTimer, failed"), or before Create
    /// ("ComTaskThread::CancelTimer, timequeue=null"); error level. Any thread,
    /// also while the thread winds down. It does not wait for an OnTimeout
    /// already running on this thread: cancel from this thread (or after
    /// Join) before destroying the handler.
    int CancelTimer(ITimerHandler* aHandler);
    /// Queues aEvent; it fires on this thread in posting order (also when
    /// posted from this thread). COM_OK: the event is taken over and ends in
    /// OnDestorySelf(), unfired if the loop ends before it. Besides a null
    /// aEvent, COM_ERROR_FAILURE comes in two cases the result does not tell
    /// apart:
    /// - the stop event has run ("ComTaskThread::PostEvent, stopped", error):
    ///   the event is left with the caller, who must destroy it;
    /// - Stop was called but its event has not run yet: the closed queue has
    ///   already called the event's OnDestorySelf() ("ComTaskThread::PostEvent,
    ///   failed", error); the caller must not touch it.
    ///
    /// So a failure alone does not say whether to destroy the event. To hand
    /// an event over whatever happens, post it with GetEventQueue()->PostEvent():
    /// the queue takes it over on every result, ending it in OnDestorySelf()
    /// (unfired once the thread is stopping). Otherwise post only before Stop
    /// (and DestroyThread, which calls it).
    int PostEvent(IEvent* aEvent);
    /// Runs aEvent on this thread and returns its own OnEventFire() result
    /// (a non-zero one is traced as "ComTaskThread::SendEvent, failed", error).
    /// From another thread it blocks until then; from this thread it runs at
    /// once, ahead of queued events. The event is taken over and ends in
    /// OnDestorySelf(), except in the first refusal below. COM_ERROR_FAILURE:
    /// - the stop event has run ("ComTaskThread::SendEvent, stopped"): the
    ///   event is left with the caller, who must destroy it;
    /// - Stop was called but its event has not run yet, or the loop ended
    ///   before running the event ("ComTaskThread::SendEvent, failed"): the
    ///   event has been destroyed unfired.
    ///
    /// -1 if the send cannot allocate (event destroyed). An event that may
    /// itself return 1000001 cannot be told from a refusal.
    int SendEvent(IEvent* aEvent);

    /// The timer queue, owned; null before Create. Use GetTimerQueue.
    std::atomic<TimerQueueOrderedList*> m_pTimerQueue;
    /// The event queue; PostEvent and SendEvent go through it.
    EventQueueUsingConditionVariable m_EventQueue;
    /// 1 once the stop event has run (SetStopFlag); never cleared. Read only.
    std::atomic<int> m_bStopFlag;
};

/// Calls the client's function over and over on its own thread until the
/// function returns false or the thread is stopped. A function that gives up
/// leaves the thread waiting for Stop, so that DestroyThread works the same
/// either way. No timer queue. Runs with the smallest timer slack (see
/// BaseThread). Get one from ComThreadManger::CreateUserThread.
class SW_EXPORT ComUserThread : public BaseThread {
public:
    /// aFunc is called with aArg (borrowed, must outlive the thread); note
    /// the order: argument first. Counts as stopped until it starts, so
    /// WaitMills (and PostEvent of the queued variant) are refused until then.
    ComUserThread(void* aArg, bool (*aFunc)(void*));
    /// Does not stop the thread: stop and join it first.
    ~ComUserThread() override;

    /// Marks the thread running; see BaseThread::OnThreadInit.
    int OnThreadInit() override;
    /// Calls the function until Stop or until it returns false
    /// ("ComUserThread::OnThreadRun, break by user", warning), then waits for
    /// Stop. With a null function it traces "ComUserThread::OnThreadRun,
    /// threadPtr=null" (error) and ends at once.
    int OnThreadRun() override;
    /// Marks the thread stopped and wakes WaitMills and the final wait;
    /// returns 0 without waiting. The function's current call runs to its end
    /// and is the last. aTimeout is ignored. Any thread.
    int Stop(ComTimeValueType* aTimeout) override;

    /// Sleeps aMills milliseconds; Stop cuts it short. Only on the user
    /// thread, from the function. COM_ERROR_TIMEOUT when the time ran out; 0
    /// when woken early (by Stop, or spuriously); 0 at once when already
    /// stopped ("ComUserThread::WaitMills, thread has stopped", error).
    int WaitMills(unsigned long aMills);
    /// Keeps a thread whose function gave up alive until it is stopped; the
    /// loop calls it on the user thread. Not for callers.
    void ProcessBeforeExit();

    /// The function's argument; not owned.
    void* m_pUserArg;
    /// The client's function.
    bool (*m_ThreadPtr)(void*);
    /// True before the start and after Stop; read without the lock.
    std::atomic<bool> m_bStopped;
    /// Guards m_bStopped changes and the waits on m_Cond.
    CMyMutex m_Mutex;
    /// Wakes WaitMills and ProcessBeforeExit on Stop.
    ComConditionVariable m_Cond;
};

/// A user thread that also fires up to 5 posted events after each call of the
/// function, on the user thread. The loop never waits on the queue: events
/// wait for the end of the current call. Its queue is reached through
/// PostEvent and SendEvent only (GetEventQueue returns null). Get one from
/// ComThreadManger::CreateUserThreadWithQueue.
class SW_EXPORT ComUserThreadWidthEventQueue : public ComUserThread {
public:
    /// As ComUserThread, plus the queue.
    ComUserThreadWidthEventQueue(void* aArg, bool (*aFunc)(void*));
    /// Destroys the events still queued, unfired, and releases a SendEvent
    /// still waiting with COM_ERROR_FAILURE. Stop and join the thread first.
    ~ComUserThreadWidthEventQueue() override;

    /// Marks the thread running and makes it the queue's owner; see
    /// BaseThread::OnThreadInit.
    int OnThreadInit() override;
    /// Alternates one call of the function with up to 5 events until Stop or
    /// until the function returns false ("ComUserThread::OnThreadRun, break
    /// by user", warning); then destroys the queued events unfired and waits
    /// for Stop. A null function: assertion "m_ThreadPtr != NULL", ends at once.
    int OnThreadRun() override;

    /// Queues aEvent, to fire on the user thread after the function's
    /// current call. COM_OK: taken over; it ends in OnDestorySelf(), unfired
    /// if the loop ends first (events posted after the function gave up never
    /// fire). COM_ERROR_FAILURE before the start and after Stop
    /// ("ComUserThreadWidthEventQueue::PostEvent, stopped", error): the event
    /// is left with the caller, who must destroy it. Any thread.
    int PostEvent(IEvent* aEvent);
    /// Runs aEvent on the user thread and returns its own OnEventFire()
    /// result (a non-zero one is traced as
    /// "ComUserThreadWidthEventQueue::SendEvent, failed", error). A caller on
    /// another thread blocks until then (until the thread is destroyed, if
    /// the function has given up); from the user thread it runs at once.
    /// COM_ERROR_FAILURE before the start and after Stop
    /// ("ComUserThreadWidthEventQueue::SendEvent, stopped", error): the event
    /// is left with the caller. COM_ERROR_FAILURE also when the loop ended
    /// before running it: the event has been destroyed unfired. Any thread.
    int SendEvent(IEvent* aEvent);

    /// The event queue; use PostEvent and SendEvent.
    ComEventQueueByMutex m_EventQueue;
};

#endif  // SYSTEM_WRAPPERS_COM_TASK_THREAD_H_
