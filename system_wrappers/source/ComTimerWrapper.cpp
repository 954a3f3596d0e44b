// The timer object that binds to the calling thread's timer queue.
#include "ComTimerWrapper.h"

#include "ComThreadManger.h"
#include "sw_trace.h"

using sw::Addr;

namespace {

const char kFile[] = "ComTimerWrapper";

}  // namespace

ComTimerWrapperSink::~ComTimerWrapperSink() = default;

ComTimerWrapper::ComTimerWrapper() : _scheduled(false), _queue(nullptr) {}

ComTimerWrapper::~ComTimerWrapper() {
    Cancel();
}

int ComTimerWrapper::Schedule(ComTimerWrapperSink* aSink, const ComTimeValueType& aInterval,
                              unsigned long aCount) {
    if (!SW_ASSERT_LINE(__LINE__, aSink != nullptr, "aSink != NULL")) {
        return COM_ERROR_FAILURE;
    }
    if (_queue == nullptr) {
        const int rv = GetTimerQueue(_queue);
        if (rv != COM_OK) {
            SW_TRACE_ERROR("[COM]:Schedule, get queue failed, this=" << Addr(this));
            return rv;
        }
    }
    // The sink travels as the timer's token.
    const int rv = _queue->ScheduleTimer(this, aSink, aInterval, aCount);
    if (rv != COM_OK) {
        SW_TRACE_ERROR("[COM]:Schedule, failed, this=" << Addr(this));
        return rv;
    }
    _scheduled = true;
    return COM_OK;
}

int ComTimerWrapper::Cancel() {
    if (!_scheduled) {
        return COM_OK;
    }
    if (!SW_ASSERT_LINE(__LINE__, _queue != nullptr, "_queue != NULL")) {
        return COM_ERROR_FAILURE;
    }
    const int rv = _queue->CancelTimer(this);
    if (rv != COM_OK) {
        SW_TRACE_ERROR("[COM]:Cancel, failed, this=" << Addr(this));
    }
    _queue = nullptr;
    _scheduled = false;
    return rv;
}

void ComTimerWrapper::OnTimeout(const ComTimeValueType& /*aCurTime*/, void* aToken) {
    ComTimerWrapperSink* pSink = static_cast<ComTimerWrapperSink*>(aToken);
    if (!SW_ASSERT_LINE(__LINE__, pSink != nullptr, "pSink != NULL")) {
        return;
    }
    pSink->OnTimer(this);
}

int ComTimerWrapper::GetTimerQueue(ITimerQueue*& aQueue) {
    aQueue = nullptr;
    ComThreadManger* manager = ComThreadManger::GetInstance();
    if (manager == nullptr) {
        SW_TRACE_ERROR("[COM]:GetTimerQueue, manger=null, this=" << Addr(this));
        return COM_ERROR_FAILURE;
    }
    ITimerQueue* queue = nullptr;
    if (BaseThread* thread = manager->FindCurrentThreadPtr()) {
        queue = thread->GetTimerQueue();
    } else if (ComDummyThread* dummy = manager->GetCurrentDummyThread()) {
        // A thread the library did not start drives its record's queue itself.
        queue = &dummy->m_TimerQueue;
    } else {
        manager->GetCurrentThreadPtr();  // for its not-found line
        SW_TRACE_ERROR("[COM]:GetTimerQueue, threadptr=null, this=" << Addr(this));
        return COM_ERROR_FAILURE;
    }
    if (queue == nullptr) {
        SW_TRACE_ERROR("[COM]:GetTimerQueue, timerque=null, this=" << Addr(this));
        return COM_ERROR_FAILURE;
    }
    aQueue = queue;
    return COM_OK;
}
