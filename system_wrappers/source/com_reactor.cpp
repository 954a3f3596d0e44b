// The network reactor and its event queue; the back ends that wait for its
// handles live in com_reactor_select.cpp and com_reactor_epoll.cpp.
#include <vector>

#include "ComReactor.h"
#include "reactor_backend.h"
#include "sw_trace.h"

using sw::Addr;

namespace {

const char kFile[] = "com_reactor";

// Events run per wake-up, so a flood of posts cannot starve sockets and timers.
constexpr unsigned long kEventsPerWake = 5;

#ifdef SW_DEFAULT_REACTOR_BACKEND_EPOLL
constexpr int kBuildDefaultBackend = ComNetReactor::BACKEND_EPOLL;
#else
constexpr int kBuildDefaultBackend = ComNetReactor::BACKEND_SELECT;
#endif

std::atomic<int> gDefaultBackend(kBuildDefaultBackend);

}  // namespace

ComReactorBase::~ComReactorBase() = default;

int ComReactorBase::on_exception() {
    return -1;
}

// ---------------------------------------------------------------------------
// Event queue

ComEventQueueWithReactor::ComEventQueueWithReactor() : m_pReactor(nullptr) {}

ComEventQueueWithReactor::~ComEventQueueWithReactor() = default;

void ComEventQueueWithReactor::SetReactor(ComNetReactor* aReactor) {
    m_pReactor = aReactor;
}

int ComEventQueueWithReactor::PostEvent(IEvent* aEvent) {
    // The lock is recursive: the mutex queue's own post (and its failure
    // line) runs inside it, so the emptiness test and the post are one step.
    // The list node is made before the lock.
    std::list<IEvent*> node(1, aEvent);
    bool wake = false;
    {
        PattAutoLock<CMyMutex> lock(m_Mutex);
        const bool wasEmpty = m_Events.empty();
        const int rv = PostNode(node);
        if (rv != COM_OK) {
            return rv;
        }
        // One token per empty-to-non-empty transition; the reactor asks for
        // the next turn itself while events are left over.
        wake = wasEmpty && m_pReactor != nullptr;
        if (wake) {
            BeginWake_l();
        }
    }
    if (wake) {
        // Written after the lock is released: the reactor it wakes goes
        // straight for that lock. un_init closes the pipe only once no
        // waker is left.
        const int res = m_pReactor->notify_handle();
        SW_ASSERT_LINE(__LINE__, res == 0, "res == 0");
        EndWake();
    }
    return COM_OK;
}

// ---------------------------------------------------------------------------
// Reactor

ComNetReactor::InScrNetElem::InScrNetElem() : m_pHandler(nullptr), m_lMask(0) {}

ComNetReactor::InScrNetElem::InScrNetElem(ComReactorBase* aHandler, long aMask)
    : m_pHandler(aHandler), m_lMask(aMask) {}

ComNetReactor::ComNetReactor()
    : m_TimerQueue(nullptr), m_bStop(false), m_NextRangeTraceNs(INT64_MIN) {
    m_PipeNotify.set_reactor(this);
    m_EventQueue.SetReactor(this);
    if (gDefaultBackend.load(std::memory_order_acquire) == BACKEND_EPOLL) {
        m_pBackend = sw::MakeEpollBackend(*this);  // null after its error line
    }
    if (m_pBackend == nullptr) {
        m_pBackend = sw::MakeSelectBackend(*this);
    }
}

ComNetReactor::~ComNetReactor() {
    // A sender's late trip back would wake the loop through the pipe, which
    // goes before the queue: refuse such trips first, and let one already
    // under way finish.
    m_EventQueue.Stop();
    {
        PattAutoLock<CMyMutex> settle(m_EventQueue.m_Mutex);
    }
    m_EventQueue.WaitForWakers();
}

int ComNetReactor::set_default_backend(int aBackend) {
    if (aBackend != BACKEND_SELECT && !(aBackend == BACKEND_EPOLL && sw::HaveEpoll())) {
        SW_TRACE_ERROR("[COM]:set_default_backend, unknown or unavailable, backend=" << aBackend);
        return -1;
    }
    gDefaultBackend.store(aBackend, std::memory_order_release);
    return 0;
}

int ComNetReactor::get_default_backend() {
    return gDefaultBackend.load(std::memory_order_acquire);
}

int ComNetReactor::get_backend() const {
    return m_pBackend->kind();
}

ComEventQueueWithReactor* ComNetReactor::get_event_queue() {
    return &m_EventQueue;
}

TimerQueueOrderedList* ComNetReactor::get_timer_queue() {
    return &m_TimerQueue;
}

int ComNetReactor::init() {
    m_EventQueue.Reset2CurrentThreadId();
    const int rv = m_PipeNotify.open();
    if (rv != 0) {
        SW_TRACE_ERROR("[COM]:init, pipe open failed, this=" << Addr(this));
        return rv;
    }
    return 0;
}

int ComNetReactor::un_init() {
    SW_TRACE_INFO("[COM]:un_init, this=" << Addr(this));
    m_bStop.store(true, std::memory_order_release);
    {
        // Under the queue's lock no post can start a wake-up; those already
        // writing finish before the pipe goes, and the queue is stopped
        // before anyone could post to an empty queue again.
        PattAutoLock<CMyMutex> lock(m_EventQueue.m_Mutex);
        m_EventQueue.WaitForWakers();
        m_PipeNotify.close();
        m_EventQueue.Stop();
    }
    clear_net_handle();
    return 0;
}

int ComNetReactor::register_handle(ComReactorBase* aHandler, long aMask) {
    if (!SW_ASSERT_LINE(__LINE__, aHandler != nullptr, "aHandler != NULL")) {
        return -1;
    }
    const int handle = aHandler->get_handle();
    m_Handles[handle] = InScrNetElem(aHandler, aMask);
    m_pBackend->watch(handle, aMask);
    return 0;
}

int ComNetReactor::unregister_handle(ComReactorBase* aHandler) {
    if (!SW_ASSERT_LINE(__LINE__, aHandler != nullptr, "aHandler != NULL")) {
        return -1;
    }
    const int handle = aHandler->get_handle();
    if (m_Handles.erase(handle) == 0) {
        SW_TRACE_ERROR("[COM]:unregister_handle, not found, ptr="
                       << Addr(aHandler) << ", handle=" << handle << ", this=" << Addr(this));
        return -1;
    }
    m_pBackend->unwatch(handle);
    return 0;
}

void ComNetReactor::clear_net_handle() {
    // Handlers may unregister themselves (or others) from on_close, so the
    // table is walked from a snapshot and cleared afterwards.
    std::vector<ComReactorBase*> handlers;
    handlers.reserve(m_Handles.size());
    for (const auto& entry : m_Handles) {
        handlers.push_back(entry.second.m_pHandler);
    }
    for (ComReactorBase* handler : handlers) {
        handler->on_close();
    }
    for (const auto& entry : m_Handles) {
        m_pBackend->unwatch(entry.first);
    }
    m_Handles.clear();
}

void ComNetReactor::set_stop_flag() {
    m_bStop.store(true, std::memory_order_release);
    m_EventQueue.Stop();
}

int ComNetReactor::notify_handle() {
    return m_PipeNotify.notify();
}

int ComNetReactor::process_event() {
    std::list<IEvent*> events;
    unsigned long remain = 0;
    m_EventQueue.PopPendingEvents(events, kEventsPerWake, &remain);
    if (remain > 0) {
        // Come back next turn, after timers and sockets have had theirs.
        notify_handle();
    }
    m_EventQueue.ProcessEvents(events);
    return 0;
}

int ComNetReactor::run_loop() {
    for (;;) {
        if (m_bStop.load(std::memory_order_acquire)) {
            un_init();
            return 0;
        }
        ComTimeValueType remain = ComTimeValueType::s_tvMax;
        m_TimerQueue.CheckExpire(&remain);
        const int rv = m_pBackend->wait(remain == ComTimeValueType::s_tvMax ? nullptr : &remain);
        if (rv != 0) {
            return rv;
        }
    }
}
