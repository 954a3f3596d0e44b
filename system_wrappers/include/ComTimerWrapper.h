// A timer to embed as a member: it binds to the timer queue of the thread that
// first schedules it and hands every expiry to a sink.
#ifndef SYSTEM_WRAPPERS_COM_TIMER_WRAPPER_H_
#define SYSTEM_WRAPPERS_COM_TIMER_WRAPPER_H_

#include "ComBase.h"
#include "ComTimerQueue.h"
#include "sw_export.h"

class ComTimerWrapper;

class SW_EXPORT ComTimerWrapperSink {
public:
    virtual ~ComTimerWrapperSink();
    // Called on the thread the timer is bound to.
    virtual void OnTimer(ComTimerWrapper* aTimer) = 0;
};

/// Schedule, Cancel and destroy it on the thread whose queue it is bound to:
/// timer queues belong to one thread. Expiry does not change its state. It
/// binds to the calling library thread's timer queue or, on a thread the
/// library did not start, to the queue of the thread's ComDummyThread record,
/// which that thread drives itself with CheckExpire; with neither, Schedule
/// fails.
class SW_EXPORT ComTimerWrapper : public ITimerHandler {
public:
    ComTimerWrapper();
    ~ComTimerWrapper() override;

    // aCount 0 repeats for ever. Scheduling again without Cancel replaces the
    // timer but reports COM_ERROR_FAILURE.
    int Schedule(ComTimerWrapperSink* aSink, const ComTimeValueType& aInterval,
                 unsigned long aCount);
    // Unbinds, so the next Schedule binds to the calling thread afresh.
    int Cancel();
    void OnTimeout(const ComTimeValueType& aCurTime, void* aToken) override;
    /// The calling thread's timer queue (see the class comment): COM_OK, or
    /// COM_ERROR_FAILURE with aQueue null and a trace line.
    int GetTimerQueue(ITimerQueue*& aQueue);

    bool _scheduled;
    ITimerQueue* _queue;  // not owned
};

#endif  // SYSTEM_WRAPPERS_COM_TIMER_WRAPPER_H_
