// The thread that runs one reactor.
#include <new>

#include "ComReactor.h"
#include "sw_trace.h"

using sw::Addr;

namespace {

const char kFile[] = "com_reactor_thread";

}  // namespace

ComReactorThread::ComReactorThread(ComNetReactor* aReactor)
    : BaseThread(TT_REACTOR), _reactor(aReactor) {}

ComReactorThread::~ComReactorThread() {
    destroy_reactor();
}

IEventQueue* ComReactorThread::GetEventQueue() {
    return _reactor != nullptr ? _reactor->get_event_queue() : nullptr;
}

ITimerQueue* ComReactorThread::GetTimerQueue() {
    return _reactor != nullptr ? _reactor->get_timer_queue() : nullptr;
}

int ComReactorThread::OnThreadInit() {
    SW_TRACE_INFO("[COM]:OnThreadInit, this=" << Addr(this));
    if (!SW_ASSERT_LINE(__LINE__, _reactor != nullptr, "_reactor != NULL")) {
        return -1;
    }
    return _reactor->init();
}

int ComReactorThread::OnThreadRun() {
    if (!SW_ASSERT_LINE(__LINE__, _reactor != nullptr, "_reactor != NULL")) {
        return -1;
    }
    return _reactor->run_loop();
}

int ComReactorThread::Stop(ComTimeValueType* /*aTimeout*/) {
    SW_TRACE_INFO("[COM]:Stop, this=" << Addr(this));
    StopThreadEvent* stop = new (std::nothrow) StopThreadEvent(this);
    if (!SW_ASSERT_LINE(__LINE__, stop != nullptr, "pEvent")) {
        return -1;
    }
    IEventQueue* queue = GetEventQueue();
    // A refusing queue destroys the event itself.
    const int rv = queue != nullptr ? queue->PostEvent(stop) : (stop->OnDestorySelf(), -1);
    if (rv != COM_OK) {
        SW_TRACE_ERROR("[COM]:Stop, failed, this=" << Addr(this));
    }
    return 0;
}

void ComReactorThread::SetStopFlag() {
    if (_reactor != nullptr) {
        _reactor->set_stop_flag();
    }
}

int ComReactorThread::RegisterHandle(ComReactorBase* aHandler, long aMask) {
    if (!SW_ASSERT_LINE(__LINE__, _reactor != nullptr, "_reactor != NULL")) {
        return -1;
    }
    return _reactor->register_handle(aHandler, aMask);
}

int ComReactorThread::UnRegisterHandle(ComReactorBase* aHandler) {
    if (!SW_ASSERT_LINE(__LINE__, _reactor != nullptr, "_reactor != NULL")) {
        return -1;
    }
    return _reactor->unregister_handle(aHandler);
}

void ComReactorThread::destroy_reactor() {
    SW_TRACE_INFO("[COM]:destroy_reactor, reactor=" << Addr(_reactor) << ", this=" << Addr(this));
    delete _reactor;
    _reactor = nullptr;
}
