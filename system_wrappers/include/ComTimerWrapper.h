/// @file
/// A timer to embed as a member: it binds to the timer queue of the thread that
/// first schedules it and hands every expiry to a sink.
#ifndef SYSTEM_WRAPPERS_COM_TIMER_WRAPPER_H_
#define SYSTEM_WRAPPERS_COM_TIMER_WRAPPER_H_

#include "ComBase.h"
#include "ComTimerQueue.h"
#include "sw_export.h"

class ComTimerWrapper;

/// Receives the expiries of a ComTimerWrapper; implemented by users.
class SW_EXPORT ComTimerWrapperSink {
public:
    /// Destroys the sink; cancel the timers that use it first.
    virtual ~ComTimerWrapperSink();
    /// Called once per expiry of aTimer, on the thread the timer is bound to.
    /// It may Cancel or Schedule aTimer again from here, and post or send
    /// events to other threads' queues like any code on that thread.
    virtual void OnTimer(ComTimerWrapper* aTimer) = 0;
};

/// Schedule, Cancel and destroy a ComTimerWrapper on the thread whose queue it
/// is bound to: the wrapper's own state has no lock, and its sink runs on that
/// thread. This rule is about this object; ComTaskThread::ScheduleTimer, which
/// a task thread offers for your own ITimerHandler, may be called from any
/// thread. To start a wrapper on a task thread from elsewhere, post it an event
/// that calls Schedule there.
///
/// It binds to the calling library thread's timer queue (a task or reactor
/// thread) or, on a thread the library did not start, to the queue of the
/// thread's ComDummyThread record, which that thread drives itself with
/// CheckExpire; with neither, and on a user thread, Schedule fails. Cancel or
/// destroy it before that thread or record goes away.
///
/// Expiry does not change its state: after the last firing of a counted timer
/// (aCount > 0, one-shots included) the timer has left the queue while the
/// wrapper still counts as scheduled, so a later Cancel, or the destructor,
/// returns COM_ERROR_FAILURE and traces "[COM]:Cancel, failed, this=" and its
/// address at error level. To end a timer without that line, schedule it with
/// aCount 0 and Cancel it from OnTimer at the last firing you want (a
/// repeating timer is still queued while its OnTimer runs), or Cancel a
/// counted timer only while it has firings left to come.
class SW_EXPORT ComTimerWrapper : public ITimerHandler {
public:
    /// An unbound, unscheduled timer.
    ComTimerWrapper();
    /// Cancels (see Cancel). On the bound thread while the wrapper is bound;
    /// once cancelled it is unbound, and any thread may destroy it.
    ~ComTimerWrapper() override;

    /// Schedules the timer: aSink->OnTimer runs on the bound thread one
    /// interval from now and then every interval, aCount times (0 repeats for
    /// ever; a zero interval only with aCount 1). Binds to the calling
    /// thread's queue if unbound. aSink is borrowed until Cancel or the last
    /// firing. COM_OK, or COM_ERROR_FAILURE: null aSink (assertion
    /// "aSink != NULL"), no queue to bind to ("[COM]:Schedule, get queue
    /// failed" after GetTimerQueue's line), bad interval or count, and
    /// scheduling again without Cancel, which replaces the timer (the new
    /// schedule holds); the last two trace "[COM]:Schedule, failed". Error
    /// level. Only on the bound thread.
    int Schedule(ComTimerWrapperSink* aSink, const ComTimeValueType& aInterval,
                 unsigned long aCount);
    /// Removes the timer and unbinds, so the next Schedule binds to the
    /// calling thread afresh. COM_OK, also when not scheduled (silent);
    /// COM_ERROR_FAILURE after the last firing of a counted timer ("[COM]:Cancel,
    /// failed", error; see the class comment), unbound all the same. On the
    /// bound thread; an unbound wrapper (never scheduled, or cancelled) may be
    /// cancelled on any thread, which does nothing.
    int Cancel();
    /// Hands the expiry to the sink given to Schedule; called by the bound
    /// queue on its thread. Not for callers.
    void OnTimeout(const ComTimeValueType& aCurTime, void* aToken) override;
    /// The calling thread's timer queue (see the class comment), without
    /// binding: COM_OK, or COM_ERROR_FAILURE with aQueue null and an error
    /// line: "[COM]:GetTimerQueue, threadptr=null" (after the manager's
    /// "[COM]:GetCurrentThreadPtr, not found") on a thread with neither a
    /// library thread nor a record, "[COM]:GetTimerQueue, timerque=null" on a
    /// library thread without a timer queue, "[COM]:GetTimerQueue,
    /// manger=null" without a manager. Any thread.
    int GetTimerQueue(ITimerQueue*& aQueue);

    /// True from a successful Schedule until Cancel; expiry leaves it set.
    /// Read only.
    bool _scheduled;
    /// The bound queue, not owned; null while unbound. Read only.
    ITimerQueue* _queue;
};

#endif  // SYSTEM_WRAPPERS_COM_TIMER_WRAPPER_H_
