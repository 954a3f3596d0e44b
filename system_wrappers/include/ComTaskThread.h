// Threads the library starts itself: the thread base with its start handshake,
// the task thread (event queue plus timer queue) and the user-function threads.
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
/// Create, later Stop, Join, Destory. Each thread asks the kernel for the
/// smallest timer slack when it starts, so that its timed waits (and with
/// them its timers) end when due rather than up to 50 us later.
class SW_EXPORT BaseThread {
public:
    enum {
        TT_TASK = 0,
        TT_USER = 1,
        TT_REACTOR = 2,
    };
    enum {
        TF_JOINABLE = 1,
        TF_DETACHED = 2,
    };

    explicit BaseThread(unsigned long aType);
    BaseThread(const BaseThread&) = delete;
    BaseThread& operator=(const BaseThread&) = delete;

    virtual IEventQueue* GetEventQueue();
    virtual ITimerQueue* GetTimerQueue();
    virtual ~BaseThread();
    // Runs on the new thread before Create returns.
    virtual int OnThreadInit();
    virtual int OnThreadRun() = 0;
    // Starts the thread and returns once its OnThreadInit has finished.
    virtual int Create(unsigned long aFlag);
    virtual int Stop(ComTimeValueType* aTimeout) = 0;

    static void* ThreadProc(void* aArg);
    // Deletes the object; it neither stops nor joins the thread.
    int Destory();
    int Join();
    // pthread_cancel's own result (an errno value).
    int Terminate();
    pthread_t GetThreadId() const;
    static pthread_t GetCurrentThreadId();
    static int IsEqualCurrentThread(pthread_t aTid);

    pthread_t m_Tid;
    pthread_t m_TidCreated;
    unsigned long m_Type;
    unsigned long m_Flag;
    ComEvent* m_pEvent4Start;

private:
    // A joinable thread that was started and not yet joined: pthread_join and
    // pthread_cancel are only safe on such a thread.
    std::atomic<bool> m_bJoinable;
    // From pthread_create until a successful Join; Create refuses while set. A
    // detached thread cannot be seen to end, so its object is started once only.
    std::atomic<bool> m_bStarted;
};

// A thread that is stopped by an event it runs itself.
class SW_EXPORT IStopFlagAccess {
public:
    virtual ~IStopFlagAccess();
    virtual void SetStopFlag() = 0;
};

class SW_EXPORT StopThreadEvent : public IEvent {
public:
    explicit StopThreadEvent(IStopFlagAccess* aStopFlagAccess);
    int OnEventFire() override;

    IStopFlagAccess* m_pStopFlagAccess;  // not owned
};

// The worker thread: fires due timers, then up to 5 posted events per pass,
// sleeping on its queue until the next timer is due.
class SW_EXPORT ComTaskThread : public BaseThread, public IStopFlagAccess {
public:
    ComTaskThread();
    ~ComTaskThread() override;

    IEventQueue* GetEventQueue() override;
    ITimerQueue* GetTimerQueue() override;
    int OnThreadInit() override;
    int OnThreadRun() override;
    // Queues a stop event and closes the queue; it does not wait.
    int Stop(ComTimeValueType* aTimeout) override;
    // Meant for the thread itself, from StopThreadEvent.
    void SetStopFlag() override;

    /// Schedules aHandler on this thread's timer queue (aCount 0 repeats for
    /// ever); it fires on this thread. Any thread: scheduled from another
    /// thread, it wakes the loop so that it fires on time. COM_OK for a new
    /// timer; COM_ERROR_FAILURE when stopping, on bad arguments, and when an
    /// earlier timer of aHandler was replaced (the new schedule holds).
    int ScheduleTimer(ITimerHandler* aHandler, void* aArg, const ComTimeValueType& aInterval,
                      unsigned long aCount);
    /// Removes aHandler's timer: COM_OK, or COM_ERROR_FAILURE when it had
    /// none. Any thread, also while the thread winds down.
    int CancelTimer(ITimerHandler* aHandler);
    // A refusal because the thread is stopping leaves the event with the caller.
    int PostEvent(IEvent* aEvent);
    /// Runs aEvent on this thread and returns its result; blocks a caller on
    /// another thread until then. COM_ERROR_FAILURE, and the event ends
    /// unfired, when the thread's loop ends before running it. Any thread.
    int SendEvent(IEvent* aEvent);

    std::atomic<TimerQueueOrderedList*> m_pTimerQueue;
    EventQueueUsingConditionVariable m_EventQueue;
    std::atomic<int> m_bStopFlag;
};

/// Calls the client's function over and over until it returns false or the
/// thread is stopped. Runs with the smallest timer slack (see BaseThread).
class SW_EXPORT ComUserThread : public BaseThread {
public:
    ComUserThread(void* aArg, bool (*aFunc)(void*));
    ~ComUserThread() override;

    int OnThreadInit() override;
    int OnThreadRun() override;
    int Stop(ComTimeValueType* aTimeout) override;

    // Sleeps aMills milliseconds on the user thread; Stop cuts it short.
    int WaitMills(unsigned long aMills);
    // Keeps a thread whose function gave up alive until it is stopped.
    void ProcessBeforeExit();

    void* m_pUserArg;
    bool (*m_ThreadPtr)(void*);
    std::atomic<bool> m_bStopped;  // read by the loop without the lock
    CMyMutex m_Mutex;
    ComConditionVariable m_Cond;
};

// A user thread that also fires up to 5 posted events after each call of the
// function. Its queue is reached through PostEvent and SendEvent only.
class SW_EXPORT ComUserThreadWidthEventQueue : public ComUserThread {
public:
    ComUserThreadWidthEventQueue(void* aArg, bool (*aFunc)(void*));
    ~ComUserThreadWidthEventQueue() override;

    int OnThreadInit() override;
    int OnThreadRun() override;

    // Refused (event left with the caller) before start and after Stop.
    int PostEvent(IEvent* aEvent);
    int SendEvent(IEvent* aEvent);

    ComEventQueueByMutex m_EventQueue;
};

#endif  // SYSTEM_WRAPPERS_COM_TASK_THREAD_H_
