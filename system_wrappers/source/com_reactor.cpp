// The select() network reactor and its event queue.
#include <sys/time.h>

#include <vector>

#include "ComReactor.h"
#include "monotonic.h"
#include "sw_trace.h"

using sw::Addr;

namespace {

const char kFile[] = "com_reactor";

// Events run per wake-up, so a flood of posts cannot starve sockets and timers.
constexpr unsigned long kEventsPerWake = 5;

// select() watches at most this many entries per turn.
constexpr int kMaxWatched = 1024;

// Only descriptors inside the fd_set may be put into one or tested: anything
// else would write outside the set.
bool FitsFdSet(int aHandle) {
    return aHandle >= 0 && aHandle < FD_SETSIZE;
}

bool WatchesAny(long aMask) {
    return (aMask & (ComReactorBase::READ_MASK | ComReactorBase::READ_MASK_2 |
                     ComReactorBase::WRITE_MASK)) != 0;
}

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
    PattAutoLock<CMyMutex> lock(m_Mutex);
    const bool wasEmpty = m_Events.empty();
    const int rv = PostNode(node);
    // One token per empty-to-non-empty transition; the reactor asks for the
    // next turn itself while events are left over. Written under the lock,
    // so it never races the reactor closing its pipe.
    if (rv == COM_OK && wasEmpty && m_pReactor != nullptr) {
        const int res = m_pReactor->notify_handle();
        SW_ASSERT_LINE(__LINE__, res == 0, "res == 0");
    }
    return rv;
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
}

ComNetReactor::~ComNetReactor() {
    // A sender's late trip back would wake the loop through the pipe, which
    // goes before the queue: refuse such trips first, and let one already
    // under way finish.
    m_EventQueue.Stop();
    PattAutoLock<CMyMutex> settle(m_EventQueue.m_Mutex);
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
        // Posting threads write wake tokens under the queue's lock.
        PattAutoLock<CMyMutex> lock(m_EventQueue.m_Mutex);
        m_PipeNotify.close();
    }
    m_EventQueue.Stop();
    clear_net_handle();
    return 0;
}

int ComNetReactor::register_handle(ComReactorBase* aHandler, long aMask) {
    if (!SW_ASSERT_LINE(__LINE__, aHandler != nullptr, "aHandler != NULL")) {
        return -1;
    }
    const int handle = aHandler->get_handle();
    if (WatchesAny(aMask) && !FitsFdSet(handle)) {
        // Registered all the same; the loop only reminds of it once a second.
        SW_TRACE_ERROR("[COM]:register_handle, handle out of fd_set range, handle="
                       << handle << ", limit=" << FD_SETSIZE << ", this=" << Addr(this));
    }
    m_Handles[handle] = InScrNetElem(aHandler, aMask);
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
        timeval timeout = {};
        timeval* wait = nullptr;
        if (!(remain == ComTimeValueType::s_tvMax)) {
            if (remain > ComTimeValueType::s_tvZero) {
                timeout.tv_sec = remain.GetSec();
                timeout.tv_usec = remain.GetUsec();
            }
            wait = &timeout;
        }
        fd_set readSet;
        fd_set writeSet;
        int maxHandle = 0;
        if (build_socket_set(readSet, writeSet, maxHandle) == 0) {
            SW_TRACE_ERROR("[COM]:run_loop, no sockets, this=" << Addr(this));
            return -2;
        }
        const int ready = select(maxHandle, &readSet, &writeSet, nullptr, wait);
        if (ready == -1) {
            SW_TRACE_ERROR("[COM]:run_loop, select failed, this=" << Addr(this));
            return -1;
        }
        if (ready > 0) {
            process_handle(static_cast<unsigned long>(ready), readSet, writeSet);
        }
    }
}

int ComNetReactor::build_socket_set(fd_set& aReadSet, fd_set& aWriteSet, int& aMaxHandle) {
    FD_ZERO(&aReadSet);
    FD_ZERO(&aWriteSet);
    int count = 0;
    int maxHandle = 0;
    int outOfRange = 0;
    int firstOutOfRange = 0;
    auto it = m_Handles.begin();
    for (; it != m_Handles.end() && count < kMaxWatched; ++it) {
        const int handle = it->first;
        const long mask = it->second.m_lMask;
        const bool read = (mask & (ComReactorBase::READ_MASK | ComReactorBase::READ_MASK_2)) != 0;
        const bool write = (mask & ComReactorBase::WRITE_MASK) != 0;
        if (!read && !write) {
            continue;
        }
        if (!FitsFdSet(handle)) {
            if (outOfRange++ == 0) {
                firstOutOfRange = handle;
            }
            continue;
        }
        if (read) {
            FD_SET(handle, &aReadSet);
        }
        if (write) {
            FD_SET(handle, &aWriteSet);
        }
        if (handle > maxHandle) {
            maxHandle = handle;
        }
        ++count;
    }
    // One line however many there are, and at most one a second while they
    // stay registered: the loop may turn thousands of times a second.
    const int64_t now = outOfRange != 0 ? webrtc::MonotonicNowNs() : 0;
    if (outOfRange != 0 && now >= m_NextRangeTraceNs) {
        m_NextRangeTraceNs = now + webrtc::kNsPerSecond;
        SW_TRACE_ERROR("[COM]:build_socket_set, handle out of fd_set range, handle="
                       << firstOutOfRange << ", skipped=" << outOfRange << ", limit=" << FD_SETSIZE
                       << ", this=" << Addr(this));
    }
    if (it != m_Handles.end()) {
        SW_TRACE_ERROR("[COM]:build_socket_set, too many sockets, this=" << Addr(this));
    }
    if (count != 0) {
        aMaxHandle = maxHandle + 1;
    }
    return count;
}

int ComNetReactor::process_handle(unsigned long aCount, fd_set& aReadSet, fd_set& aWriteSet) {
    struct Ready {
        int handle;
        ComReactorBase* handler;
    };
    // Handlers may register and unregister during the callbacks, so the walk
    // runs over a snapshot. Entries in neither set would be skipped anyway.
    std::vector<Ready> ready;
    ready.reserve(aCount);
    for (const auto& entry : m_Handles) {
        const int handle = entry.first;
        if (FitsFdSet(handle) && (FD_ISSET(handle, &aReadSet) || FD_ISSET(handle, &aWriteSet))) {
            ready.push_back(Ready{handle, entry.second.m_pHandler});
        }
    }
    for (const Ready& entry : ready) {
        if (aCount == 0) {
            break;
        }
        if (FD_ISSET(entry.handle, &aReadSet)) {
            --aCount;
            entry.handler->on_input();
        }
        if (FD_ISSET(entry.handle, &aWriteSet)) {
            if (!SW_ASSERT_LINE(__LINE__, aCount != 0, "fd_num != 0")) {
                return 0;
            }
            --aCount;
            entry.handler->on_output();
        }
    }
    return 0;
}
