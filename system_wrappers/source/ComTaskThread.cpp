// Event queues, the thread base, the task and user threads and the timer queue.
#include "ComTaskThread.h"

#include <errno.h>
#include <limits.h>
#include <stdint.h>

#include <sched.h>

#include <new>

#include "monotonic.h"
#include "sw_trace.h"

using sw::Addr;

namespace {

const char kFile[] = "ComTaskThread";

// Events taken per pass of a thread loop: bounds how late a due timer (or the
// client's function) can run behind a burst of events.
constexpr unsigned long kEventsPerPass = 5;

// A timer count of all ones repeats for ever and is never decremented.
constexpr unsigned long kCountForever = ULONG_MAX;

int64_t ToUsec(const ComTimeValueType& aTime) {
    return static_cast<int64_t>(aTime.GetSec()) * 1000000 + aTime.GetUsec();
}

// The threads' PostEvent and SendEvent: refused while the thread is stopped
// (the event stays with the caller), otherwise handed to the queue; each
// refusal or failure traced with the thread's own texts.
template <class Deliver>
int DeliverUnlessStopped(bool aStopped, const void* aThread, const char* aStoppedText,
                         const char* aFailedText, Deliver aDeliver) {
    if (aStopped) {
        SW_TRACE_ERROR(aStoppedText << ", this=" << aThread);
        return COM_ERROR_FAILURE;
    }
    const int rv = aDeliver();
    if (rv != COM_OK) {
        SW_TRACE_ERROR(aFailedText << ", this=" << aThread);
    }
    return rv;
}

// A task thread's timer queue. The loop sleeps on its event queue until the
// earliest timer it saw, so a timer scheduled from another thread wakes it
// to look again; the owner itself is awake when it schedules.
class TaskTimerQueue final : public TimerQueueOrderedList {
public:
    explicit TaskTimerQueue(EventQueueUsingConditionVariable& aLoop)
        : TimerQueueOrderedList(nullptr), m_loop(aLoop) {}

    int ScheduleTimer(ITimerHandler* aEh, void* aToken, const ComTimeValueType& aInterval,
                      unsigned long aCount) override {
        const int rv = TimerQueueOrderedList::ScheduleTimer(aEh, aToken, aInterval, aCount);
        if (!pthread_equal(m_loop.m_Tid.load(std::memory_order_acquire), pthread_self())) {
            m_loop.Wake();
        }
        return rv;
    }

private:
    EventQueueUsingConditionVariable& m_loop;
};

}  // namespace

// ---------------------------------------------------------------------------
// Events and the event-queue base

IEvent::IEvent(uint64_t aTag) : m_tag(aTag), m_createThreadId(pthread_self()) {}

IEvent::~IEvent() = default;

void IEvent::OnDestorySelf() {
    delete this;
}

IEventQueue::~IEventQueue() = default;

EventQueueBase::EventQueueBase()
    : m_nPendingCount(0),
      m_createTime(ComTimeValueType::GetTimeOfDay()),
      m_Tid(0),
      m_bStopped(0),
      m_nSenders(0),
      m_nWaking(0) {}

EventQueueBase::~EventQueueBase() {
    EventQueueBase::DestoryPendingEvents();
}

void EventQueueBase::CloseForDestruction(CMyMutex& aMutex) {
    Stop();
    std::list<IEvent*> events;
    {
        PattAutoLock<CMyMutex> lock(aMutex);
        TakeAllEvents_l(events);
    }
    DestroyEvents(events);
    // What is left of a sender is a few steps: the trip back, which the
    // stopped queue now refuses, and leaving SendEvent.
    while (m_nSenders.load(std::memory_order_acquire) != 0) {
        sched_yield();
    }
    WaitForWakers();
}

void EventQueueBase::BeginWake_l() {
    m_nWaking.fetch_add(1, std::memory_order_relaxed);
}

void EventQueueBase::EndWake() {
    m_nWaking.fetch_sub(1, std::memory_order_release);
}

void EventQueueBase::WaitForWakers() {
    while (m_nWaking.load(std::memory_order_acquire) != 0) {
        sched_yield();
    }
}

bool EventQueueBase::Admits(IEvent* aEvent, int aNullLine, const char* aStoppedText) {
    if (!SW_ASSERT_LINE(aNullLine, aEvent, "aEvent")) {
        return false;
    }
    if (m_bStopped.load(std::memory_order_acquire)) {
        // A refused event is still taken over: it ends here.
        SW_TRACE_ERROR(aStoppedText << ", this=" << Addr(this));
        aEvent->OnDestorySelf();
        return false;
    }
    return true;
}

int EventQueueBase::PostEvent(IEvent* aEvent) {
    std::list<IEvent*> node(1, aEvent);
    return PostNode_l(node);
}

int EventQueueBase::PostNode_l(std::list<IEvent*>& aNode) {
    if (!Admits(aNode.front(), 278, "EventQueueBase::PostEvent, has been stopped.")) {
        return COM_ERROR_FAILURE;
    }
    m_Events.splice(m_Events.end(), aNode);
    m_nPendingCount.fetch_add(1, std::memory_order_relaxed);
    return COM_OK;
}

int EventQueueBase::SendEvent(IEvent* aEvent) {
    // Counted from its first touch of the queue to its last, so that the
    // queue's destruction waits for a sender still on its way out.
    m_nSenders.fetch_add(1, std::memory_order_relaxed);
    const int result = SendCounted(aEvent);
    m_nSenders.fetch_sub(1, std::memory_order_release);
    return result;
}

int EventQueueBase::SendCounted(IEvent* aEvent) {
    if (!Admits(aEvent, 294, "EventQueueBase::SendEvent, has been stopped.")) {
        return COM_ERROR_FAILURE;
    }
    if (pthread_equal(m_Tid.load(std::memory_order_acquire), pthread_self())) {
        // The owner sending to itself must not wait on itself: run it now,
        // ahead of everything queued.
        const int result = aEvent->OnEventFire();
        aEvent->OnDestorySelf();
        return result;
    }
    ComEventSynchronous* sync = new (std::nothrow) ComEventSynchronous(aEvent, this);
    if (sync == nullptr) {
        aEvent->OnDestorySelf();
        return -1;
    }
    const int rv = PostEvent(sync);
    if (rv != COM_OK) {
        // The refusal has discarded aEvent through the wrapper's first
        // OnDestorySelf; the wrapper's second one never comes.
        SW_TRACE_ERROR("EventQueueBase::SendEvent, post event failed., this=" << Addr(this));
        return rv;
    }
    return sync->WaitResultAndDeleteThis();
}

uint64_t EventQueueBase::GetPendingEventsCount() {
    return m_nPendingCount.load(std::memory_order_relaxed);
}

void EventQueueBase::Reset2CurrentThreadId() {
    m_Tid.store(pthread_self(), std::memory_order_release);
}

void EventQueueBase::Stop() {
    m_bStopped.store(1, std::memory_order_release);
}

int EventQueueBase::PopPendingEvents(std::list<IEvent*>& aEvents, unsigned long aMaxCount,
                                     unsigned long* aRemain) {
    SW_ASSERT_LINE(336, aEvents.empty(), "aEvents.empty()");
    SW_ASSERT_LINE(337, aMaxCount > 0, "aMaxCount > 0");
    const uint64_t pending = m_nPendingCount.load(std::memory_order_relaxed);
    if (pending == 0) {
        return COM_ERROR_FAILURE;
    }
    if (pending > aMaxCount) {
        for (unsigned long i = 0; i < aMaxCount; ++i) {
            aEvents.splice(aEvents.end(), m_Events, m_Events.begin());
            m_nPendingCount.fetch_sub(1, std::memory_order_relaxed);
        }
        SW_ASSERT_LINE(359, !m_Events.empty(), "!m_Events.empty()");
    } else {
        // Everything fits: one constant-time swap, so the lock is held briefly.
        if (aEvents.empty()) {
            aEvents.swap(m_Events);
        } else {
            aEvents.splice(aEvents.end(), m_Events);
        }
        m_nPendingCount.store(0, std::memory_order_relaxed);
        SW_ASSERT_LINE(349, m_Events.empty(), "m_Events.empty()");
    }
    if (aRemain != nullptr) {
        *aRemain = static_cast<unsigned long>(m_nPendingCount.load(std::memory_order_relaxed));
    }
    return COM_OK;
}

int EventQueueBase::PopOnePendingEvent(IEvent*& aEvent, unsigned long* aRemain) {
    SW_ASSERT_LINE(372, !aEvent, "!aEvent");
    if (m_Events.empty()) {
        return COM_ERROR_FAILURE;
    }
    aEvent = m_Events.front();
    m_Events.pop_front();
    const uint64_t left = m_nPendingCount.fetch_sub(1, std::memory_order_relaxed) - 1;
    if (aRemain != nullptr) {
        *aRemain = static_cast<unsigned long>(left);
    }
    return COM_OK;
}

int EventQueueBase::ProcessEvents(const std::list<IEvent*>& aEvents) {
    for (IEvent* event : aEvents) {
        ProcessOneEvent(event);
    }
    return COM_OK;
}

int EventQueueBase::ProcessOneEvent(IEvent* aEvent) {
    if (!SW_ASSERT_LINE(400, aEvent, "aEvent")) {
        return COM_ERROR_FAILURE;
    }
    aEvent->OnEventFire();
    aEvent->OnDestorySelf();
    return COM_OK;
}

void EventQueueBase::DestoryPendingEvents() {
    std::list<IEvent*> events;
    TakeAllEvents_l(events);
    DestroyEvents(events);
}

void EventQueueBase::TakeAllEvents_l(std::list<IEvent*>& aEvents) {
    aEvents.swap(m_Events);
    m_nPendingCount.store(0, std::memory_order_relaxed);
}

void EventQueueBase::DestroyEvents(const std::list<IEvent*>& aEvents) {
    for (IEvent* event : aEvents) {
        event->OnDestorySelf();
    }
}

// ---------------------------------------------------------------------------
// The synchronous-send wrapper

ComEventSynchronous::ComEventSynchronous(IEvent* aEvent, EventQueueBase* aQueue)
    : IEvent(0),
      m_pEventPost(aEvent),
      m_Result(-1),
      m_pEventQueue(aQueue),
      m_bFired(0),
      m_SendEvent(0, 0, nullptr),
      m_nDestroyCalls(0),
      m_bRan(false),
      m_bDiscarded(false) {
    SW_ASSERT_LINE(525, m_pEventPost, "m_pEventPost");
    SW_ASSERT_LINE(526, m_pEventQueue, "m_pEventQueue");
}

ComEventSynchronous::~ComEventSynchronous() {
    if (m_pEventPost != nullptr) {
        m_pEventPost->OnDestorySelf();
        m_pEventPost = nullptr;
    }
    if (m_bFired.load(std::memory_order_acquire) == 0) {
        // Only a direct destruction gets here: release the sender with -1.
        m_SendEvent.Signal();
    }
}

int ComEventSynchronous::OnEventFire() {
    if (m_bFired.load(std::memory_order_acquire)) {
        return COM_OK;  // the second trip, for deletion
    }
    const int result = m_pEventPost != nullptr ? m_pEventPost->OnEventFire() : COM_ERROR_FAILURE;
    m_Result = result;
    m_bRan.store(true, std::memory_order_release);
    m_SendEvent.Signal();
    return result;
}

void ComEventSynchronous::OnDestorySelf() {
    if (m_bFired.exchange(1, std::memory_order_acq_rel) == 0) {
        IEvent* event = m_pEventPost;
        m_pEventPost = nullptr;
        if (event != nullptr) {
            event->OnDestorySelf();
        }
        if (!m_bRan.load(std::memory_order_acquire)) {
            // Discarded unfired: no answer will come, so the sender must not
            // wait for one.
            m_bDiscarded.store(true, std::memory_order_release);
            m_SendEvent.Signal();
        }
    }
    if (m_nDestroyCalls.fetch_add(1, std::memory_order_acq_rel) == 1) {
        delete this;
    }
}

int ComEventSynchronous::WaitResultAndDeleteThis() {
    // The event's wait ends on any wake-up, a spurious one included: only an
    // answer (ran or discarded) ends this one.
    int rv = COM_OK;
    do {
        rv = m_SendEvent.Wait(nullptr);
    } while (rv == COM_OK && !m_bRan.load(std::memory_order_acquire) &&
             !m_bDiscarded.load(std::memory_order_acquire));
    if (rv != COM_OK) {
        SW_TRACE_ERROR(
            "ComEventSynchronous::WaitResultAndDeleteThis, m_SendEvent.Wait() failed!, this="
            << Addr(this));
        return rv;
    }
    if (m_bDiscarded.load(std::memory_order_acquire)) {
        SW_TRACE_ERROR(
            "ComEventSynchronous::WaitResultAndDeleteThis, discarded before it ran, this="
            << Addr(this));
        // The discarding thread made the first call; this one deletes the
        // wrapper, or leaves that to the first if it has not finished.
        OnDestorySelf();
        return COM_ERROR_FAILURE;
    }
    const int result = static_cast<int>(m_Result);
    if (m_pEventQueue != nullptr) {
        // The owner deletes the wrapper on its next pass (or the refusal of a
        // stopped queue does it here); either way not while it may still be
        // inside Signal().
        m_pEventQueue->PostEvent(this);
    }
    return result;
}

// ---------------------------------------------------------------------------
// Locked queue variants

ComEventQueueByMutex::ComEventQueueByMutex() = default;

ComEventQueueByMutex::~ComEventQueueByMutex() {
    CloseForDestruction(m_Mutex);
}

int ComEventQueueByMutex::PostEvent(IEvent* aEvent) {
    std::list<IEvent*> node(1, aEvent);
    return PostNode(node);
}

int ComEventQueueByMutex::PostNode(std::list<IEvent*>& aNode) {
    PattAutoLock<CMyMutex> lock(m_Mutex);
    const int rv = PostNode_l(aNode);
    if (rv != COM_OK) {
        SW_TRACE_ERROR("[COM]:PostEvent, failed, this=" << Addr(this));
    }
    return rv;
}

int ComEventQueueByMutex::PopPendingEvents(std::list<IEvent*>& aEvents, unsigned long aMaxCount,
                                           unsigned long* aRemain) {
    PattAutoLock<CMyMutex> lock(m_Mutex);
    if (!m_Events.empty()) {
        EventQueueBase::PopPendingEvents(aEvents, aMaxCount, aRemain);
    }
    return COM_OK;
}

void ComEventQueueByMutex::DestoryPendingEvents() {
    std::list<IEvent*> events;
    {
        PattAutoLock<CMyMutex> lock(m_Mutex);
        TakeAllEvents_l(events);
    }
    DestroyEvents(events);
}

EventQueueUsingConditionVariable::EventQueueUsingConditionVariable()
    : m_Cond(m_Mutex), m_bWake(false) {}

EventQueueUsingConditionVariable::~EventQueueUsingConditionVariable() {
    CloseForDestruction(m_Mutex);
}

void EventQueueUsingConditionVariable::Wake() {
    PattAutoLock<CMyMutex> lock(m_Mutex);
    m_bWake = true;
    m_Cond.Signal();
}

int EventQueueUsingConditionVariable::PostEvent(IEvent* aEvent) {
    std::list<IEvent*> node(1, aEvent);
    {
        PattAutoLock<CMyMutex> lock(m_Mutex);
        const bool wasEmpty = m_Events.empty();
        const int rv = PostNode_l(node);
        if (rv != COM_OK) {
            SW_TRACE_ERROR("PostEvent, failed, this=" << Addr(this));
            return rv;
        }
        if (!wasEmpty) {
            return COM_OK;
        }
        BeginWake_l();
    }
    // Signalled after the unlock: the woken owner takes the lock at once.
    m_Cond.Signal();
    EndWake();
    return COM_OK;
}

int EventQueueUsingConditionVariable::PopOrWaitPendingEvents(std::list<IEvent*>& aEvents,
                                                             ComTimeValueType* aTimeout,
                                                             unsigned long aMaxCount) {
    PattAutoLock<CMyMutex> lock(m_Mutex);
    // A Wake made before this call, while the owner was still computing its
    // deadline, must not be lost: the owner does not wait at all then.
    if (m_Events.empty() && !m_bWake) {
        // One wait, not a loop: a spurious wake-up just ends this call early.
        const int rv = m_Cond.Wait(aTimeout);
        if (rv != COM_OK && rv != COM_ERROR_TIMEOUT) {
            SW_TRACE_ERROR(
                "EventQueueUsingConditionVariable::PopOrWaitPendingEvents, m_Events is not empty. "
                "nSize="
                << static_cast<unsigned long long>(m_nPendingCount.load()) << " rv=" << rv
                << ", this=" << Addr(this));
        }
    }
    m_bWake = false;
    return EventQueueBase::PopPendingEvents(aEvents, aMaxCount, nullptr);
}

void EventQueueUsingConditionVariable::DestoryPendingEvents() {
    std::list<IEvent*> events;
    {
        PattAutoLock<CMyMutex> lock(m_Mutex);
        TakeAllEvents_l(events);
    }
    DestroyEvents(events);
}

// ---------------------------------------------------------------------------
// Thread base

BaseThread::BaseThread(unsigned long aType)
    : m_Tid(0),
      m_TidCreated(static_cast<pthread_t>(-1)),
      m_Type(aType),
      m_Flag(0),
      m_pEvent4Start(nullptr),
      m_bJoinable(false),
      m_bStarted(false) {}

BaseThread::~BaseThread() {
    // Left behind only by a failed Create; no thread waits on it.
    delete m_pEvent4Start;
    m_pEvent4Start = nullptr;
}

IEventQueue* BaseThread::GetEventQueue() {
    return nullptr;
}

ITimerQueue* BaseThread::GetTimerQueue() {
    return nullptr;
}

int BaseThread::OnThreadInit() {
    return 0;
}

int BaseThread::Create(unsigned long aFlag) {
    SW_TRACE_INFO("BaseThread::Create, aType=" << m_Type << ", aFlag=" << aFlag
                                               << ", this=" << Addr(this));
    if (!SW_ASSERT_LINE(629, aFlag == TF_JOINABLE || aFlag == TF_DETACHED,
                        "aFlag == TF_JOINABLE || aFlag == TF_DETACHED")) {
        return COM_ERROR_FAILURE;
    }
    // A second thread on this object would run the same body over the same
    // state, and a new handle would leak the one not yet joined.
    if (m_bStarted.load(std::memory_order_acquire)) {
        SW_TRACE_ERROR("BaseThread::Create, already running, this=" << Addr(this));
        return COM_ERROR_FAILURE;
    }
    m_Flag = aFlag;
    if (!SW_ASSERT_LINE(635, !m_pEvent4Start, "!m_pEvent4Start")) {
        // Left by a failed Create: no thread can be waiting on it.
        delete m_pEvent4Start;
    }
    m_pEvent4Start = new (std::nothrow) ComEvent(0, 0, nullptr);
    if (m_pEvent4Start == nullptr) {
        return COM_ERROR_FAILURE;
    }

    pthread_attr_t attr;
    int err = pthread_attr_init(&attr);
    if (err != 0) {
        SW_TRACE_ERROR("BaseThread::Create, pthread_attr_init() failed! err=" << err << ", this="
                                                                              << Addr(this));
        return COM_ERROR_FAILURE;
    }
    int detachState = PTHREAD_CREATE_JOINABLE;
    if (m_Flag & TF_JOINABLE) {
        detachState = PTHREAD_CREATE_JOINABLE;
    } else if (m_Flag & TF_DETACHED) {
        detachState = PTHREAD_CREATE_DETACHED;
    }
    err = pthread_attr_setdetachstate(&attr, detachState);
    if (err != 0) {
        SW_TRACE_ERROR("BaseThread::Create, pthread_attr_setdetachstate() failed! err="
                       << err << ", this=" << Addr(this));
        pthread_attr_destroy(&attr);
        return COM_ERROR_FAILURE;
    }
    // Set first, so that the new thread itself sees it too.
    m_bStarted.store(true, std::memory_order_release);
    err = pthread_create(&m_Tid, &attr, ThreadProc, this);
    if (err != 0) {
        m_bStarted.store(false, std::memory_order_release);
        SW_TRACE_ERROR(
            "BaseThread::Create, pthread_create() failed! err=" << err << ", this=" << Addr(this));
        pthread_attr_destroy(&attr);
        return COM_ERROR_FAILURE;
    }
    pthread_attr_destroy(&attr);
    m_TidCreated = m_Tid;
    m_bJoinable.store(detachState == PTHREAD_CREATE_JOINABLE, std::memory_order_release);
    m_pEvent4Start->Wait(nullptr);
    delete m_pEvent4Start;
    m_pEvent4Start = nullptr;
    return COM_OK;
}

void* BaseThread::ThreadProc(void* aArg) {
    BaseThread* pThread = static_cast<BaseThread*>(aArg);
    if (!SW_ASSERT_LINE(725, pThread, "pThread")) {
        return nullptr;
    }
    webrtc::UseSmallestTimerSlack();
    pThread->OnThreadInit();
    if (SW_ASSERT_LINE(736, pThread->m_pEvent4Start, "pThread->m_pEvent4Start")) {
        // The creator is released here and deletes the event itself.
        pThread->m_pEvent4Start->Signal();
    }
    pThread->OnThreadRun();
    return nullptr;
}

int BaseThread::Destory() {
    SW_TRACE_INFO("BaseThread::Destory, this=" << Addr(this));
    delete this;
    return 0;
}

int BaseThread::Join() {
    SW_TRACE_INFO("BaseThread::Join, this=" << Addr(this));
    if (IsEqualCurrentThread(m_Tid)) {
        SW_TRACE_ERROR("BaseThread::Join, join in the same thread, this=" << Addr(this));
        return COM_ERROR_FAILURE;
    }
    if (m_Flag & TF_DETACHED) {
        SW_TRACE_WARNING("BaseThread::Join, join detached thread, this=" << Addr(this));
        return 0;
    }
    // pthread_join on a thread never started or already joined is undefined.
    if (!m_bJoinable.exchange(false, std::memory_order_acq_rel)) {
        SW_TRACE_ERROR(
            "BaseThread::Join, thread not started or already joined, this=" << Addr(this));
        return COM_ERROR_FAILURE;
    }
    void* result = nullptr;
    const int err = pthread_join(m_Tid, &result);
    if (err != 0) {
        SW_TRACE_ERROR("BaseThread::Join, pthread_join() failed! err=" << err
                                                                       << ", this=" << Addr(this));
        return COM_ERROR_FAILURE;
    }
    m_bStarted.store(false, std::memory_order_release);
    return 0;
}

int BaseThread::Terminate() {
    // Never started, or already joined: the id may belong to another thread.
    if (m_TidCreated == static_cast<pthread_t>(-1) ||
        ((m_Flag & TF_JOINABLE) && !m_bJoinable.load(std::memory_order_acquire))) {
        return ESRCH;
    }
    return pthread_cancel(GetThreadId());
}

pthread_t BaseThread::GetThreadId() const {
    return m_Tid;
}

pthread_t BaseThread::GetCurrentThreadId() {
    return pthread_self();
}

int BaseThread::IsEqualCurrentThread(pthread_t aTid) {
    return pthread_equal(aTid, pthread_self());
}

// ---------------------------------------------------------------------------
// Task thread

IStopFlagAccess::~IStopFlagAccess() = default;

StopThreadEvent::StopThreadEvent(IStopFlagAccess* aStopFlagAccess)
    : IEvent(0), m_pStopFlagAccess(aStopFlagAccess) {}

int StopThreadEvent::OnEventFire() {
    if (m_pStopFlagAccess != nullptr) {
        m_pStopFlagAccess->SetStopFlag();
    }
    return 0;
}

ComTaskThread::ComTaskThread() : BaseThread(TT_TASK), m_pTimerQueue(nullptr), m_bStopFlag(0) {}

ComTaskThread::~ComTaskThread() {
    delete m_pTimerQueue.exchange(nullptr);
}

IEventQueue* ComTaskThread::GetEventQueue() {
    return &m_EventQueue;
}

ITimerQueue* ComTaskThread::GetTimerQueue() {
    return m_pTimerQueue.load(std::memory_order_acquire);
}

int ComTaskThread::OnThreadInit() {
    SW_ASSERT_LINE(836, !m_pTimerQueue.load(), "!m_pTimerQueue");
    TimerQueueOrderedList* queue = new (std::nothrow) TaskTimerQueue(m_EventQueue);
    delete m_pTimerQueue.exchange(queue, std::memory_order_acq_rel);
    SW_ASSERT_LINE(839, queue, "m_pTimerQueue");
    m_EventQueue.Reset2CurrentThreadId();
    return 0;
}

int ComTaskThread::OnThreadRun() {
    SW_TRACE_INFO("ComTaskThread::OnThreadRun, Begin., this=" << Addr(this));
    std::list<IEvent*> events;
    while (!m_bStopFlag.load(std::memory_order_acquire)) {
        ComTimeValueType next = ComTimeValueType::s_tvMax;
        TimerQueueOrderedList* timers = m_pTimerQueue.load(std::memory_order_acquire);
        if (timers != nullptr) {
            timers->CheckExpire(&next);
        }
        ComTimeValueType* wait = next == ComTimeValueType::s_tvMax ? nullptr : &next;
        if (m_EventQueue.PopOrWaitPendingEvents(events, wait, kEventsPerPass) == COM_OK) {
            m_EventQueue.ProcessEvents(events);
        }
        events.clear();
    }
    m_EventQueue.DestoryPendingEvents();
    SW_TRACE_INFO("ComTaskThread::OnThreadRun, End., this=" << Addr(this));
    return 0;
}

int ComTaskThread::Stop(ComTimeValueType* /*aTimeout*/) {
    SW_TRACE_INFO("ComTaskThread::Stop, this=" << Addr(this));
    StopThreadEvent* stop = new (std::nothrow) StopThreadEvent(this);
    if (!SW_ASSERT_LINE(885, stop, "pEvent")) {
        return -1;
    }
    // Posted before the queue closes, so it is always accepted.
    if (m_EventQueue.PostEvent(stop) != COM_OK) {
        SW_TRACE_ERROR("ComTaskThread::Stop, PostEvent Failed, this=" << Addr(this));
    }
    m_EventQueue.Stop();
    return 0;
}

void ComTaskThread::SetStopFlag() {
    m_bStopFlag.store(1, std::memory_order_release);
}

int ComTaskThread::ScheduleTimer(ITimerHandler* aHandler, void* aArg,
                                 const ComTimeValueType& aInterval, unsigned long aCount) {
    TimerQueueOrderedList* timers = m_pTimerQueue.load(std::memory_order_acquire);
    if (m_bStopFlag.load(std::memory_order_acquire) || timers == nullptr) {
        SW_TRACE_ERROR(
            "ComTaskThread::ScheduleTimer, stopped or timequeue=null, this=" << Addr(this));
        return COM_ERROR_FAILURE;
    }
    const int rv = timers->ScheduleTimer(aHandler, aArg, aInterval, aCount);
    if (rv != COM_OK) {
        SW_TRACE_ERROR("ComTaskThread::ScheduleTimer, failed, this=" << Addr(this));
    }
    return rv;
}

int ComTaskThread::CancelTimer(ITimerHandler* aHandler) {
    // The stop flag is not consulted: timers may be cancelled while winding down.
    TimerQueueOrderedList* timers = m_pTimerQueue.load(std::memory_order_acquire);
    if (timers == nullptr) {
        SW_TRACE_ERROR("ComTaskThread::CancelTimer, timequeue=null, this=" << Addr(this));
        return COM_ERROR_FAILURE;
    }
    const int rv = timers->CancelTimer(aHandler);
    if (rv != COM_OK) {
        SW_TRACE_ERROR("ComTaskThread::CancelTimer, failed, this=" << Addr(this));
    }
    return rv;
}

int ComTaskThread::PostEvent(IEvent* aEvent) {
    return DeliverUnlessStopped(
        m_bStopFlag.load(std::memory_order_acquire) != 0, this, "ComTaskThread::PostEvent, stopped",
        "ComTaskThread::PostEvent, failed", [&] { return m_EventQueue.PostEvent(aEvent); });
}

int ComTaskThread::SendEvent(IEvent* aEvent) {
    return DeliverUnlessStopped(
        m_bStopFlag.load(std::memory_order_acquire) != 0, this, "ComTaskThread::SendEvent, stopped",
        "ComTaskThread::SendEvent, failed", [&] { return m_EventQueue.SendEvent(aEvent); });
}

// ---------------------------------------------------------------------------
// User threads

ComUserThread::ComUserThread(void* aArg, bool (*aFunc)(void*))
    : BaseThread(TT_USER),
      m_pUserArg(aArg),
      m_ThreadPtr(aFunc),
      m_bStopped(true),
      m_Cond(m_Mutex) {}

ComUserThread::~ComUserThread() {
    m_pUserArg = nullptr;
    m_ThreadPtr = nullptr;
    m_bStopped = false;
}

int ComUserThread::OnThreadInit() {
    PattAutoLock<CMyMutex> lock(m_Mutex);
    m_bStopped.store(false, std::memory_order_release);
    return 0;
}

int ComUserThread::OnThreadRun() {
    SW_TRACE_INFO("ComUserThread::OnThreadRun, begin, this=" << Addr(this));
    if (m_ThreadPtr == nullptr) {
        SW_TRACE_ERROR("ComUserThread::OnThreadRun, threadPtr=null, this=" << Addr(this));
        return 0;
    }
    bool byUser = false;
    while (!m_bStopped.load(std::memory_order_acquire)) {
        if (!m_ThreadPtr(m_pUserArg)) {
            byUser = true;
            break;
        }
    }
    if (byUser) {
        SW_TRACE_WARNING("ComUserThread::OnThreadRun, break by user, this=" << Addr(this));
    }
    ProcessBeforeExit();
    SW_TRACE_INFO("ComUserThread::OnThreadRun, end, stoped=" << (m_bStopped.load() ? 1 : 0)
                                                             << ", this=" << Addr(this));
    return 0;
}

int ComUserThread::Stop(ComTimeValueType* /*aTimeout*/) {
    SW_TRACE_INFO("ComUserThread::Stop, this=" << Addr(this));
    PattAutoLock<CMyMutex> lock(m_Mutex);
    m_bStopped.store(true, std::memory_order_release);
    m_Cond.Signal();
    return 0;
}

int ComUserThread::WaitMills(unsigned long aMills) {
    ComTimeValueType wait(0, static_cast<long>(aMills) * 1000);
    PattAutoLock<CMyMutex> lock(m_Mutex);
    if (m_bStopped.load(std::memory_order_acquire)) {
        SW_TRACE_ERROR("ComUserThread::WaitMills, thread has stopped, this=" << Addr(this));
        return 0;
    }
    return m_Cond.Wait(&wait);
}

void ComUserThread::ProcessBeforeExit() {
    PattAutoLock<CMyMutex> lock(m_Mutex);
    if (!m_bStopped.load(std::memory_order_acquire)) {
        SW_TRACE_INFO("ComUserThread::ProcessBeforeExit, wait, this=" << Addr(this));
        const int rv = m_Cond.Wait(nullptr);
        if (rv != 0) {
            SW_TRACE_WARNING("ComUserThread::ProcessBeforeExit, res=" << rv << ", stop="
                                                                      << (m_bStopped.load() ? 1 : 0)
                                                                      << ", this=" << Addr(this));
        }
    }
}

ComUserThreadWidthEventQueue::ComUserThreadWidthEventQueue(void* aArg, bool (*aFunc)(void*))
    : ComUserThread(aArg, aFunc) {}

ComUserThreadWidthEventQueue::~ComUserThreadWidthEventQueue() = default;

int ComUserThreadWidthEventQueue::OnThreadInit() {
    ComUserThread::OnThreadInit();
    m_EventQueue.Reset2CurrentThreadId();
    return 0;
}

int ComUserThreadWidthEventQueue::OnThreadRun() {
    SW_TRACE_INFO("ComUserThreadWidthEventQueue::OnThreadRun, begin, this=" << Addr(this));
    if (!SW_ASSERT_LINE(1074, m_ThreadPtr != nullptr, "m_ThreadPtr != NULL")) {
        return 0;
    }
    std::list<IEvent*> events;
    while (!m_bStopped.load(std::memory_order_acquire)) {
        if (!m_ThreadPtr(m_pUserArg)) {
            SW_TRACE_WARNING("ComUserThread::OnThreadRun, break by user, this=" << Addr(this));
            break;
        }
        if (m_EventQueue.PopPendingEvents(events, kEventsPerPass, nullptr) != COM_OK) {
            SW_TRACE_ERROR("ComUserThreadWidthEventQueue::OnThreadRun, end, this=" << Addr(this));
        } else {
            m_EventQueue.ProcessEvents(events);
        }
        events.clear();
    }
    m_EventQueue.DestoryPendingEvents();
    ProcessBeforeExit();
    SW_TRACE_INFO("ComUserThreadWidthEventQueue::OnThreadRun, end, this=" << Addr(this));
    return 0;
}

int ComUserThreadWidthEventQueue::PostEvent(IEvent* aEvent) {
    return DeliverUnlessStopped(m_bStopped.load(std::memory_order_acquire), this,
                                "ComUserThreadWidthEventQueue::PostEvent, stopped",
                                "ComUserThreadWidthEventQueue::PostEvent, failed",
                                [&] { return m_EventQueue.PostEvent(aEvent); });
}

int ComUserThreadWidthEventQueue::SendEvent(IEvent* aEvent) {
    return DeliverUnlessStopped(m_bStopped.load(std::memory_order_acquire), this,
                                "ComUserThreadWidthEventQueue::SendEvent, stopped",
                                "ComUserThreadWidthEventQueue::SendEvent, failed",
                                [&] { return m_EventQueue.SendEvent(aEvent); });
}

// ---------------------------------------------------------------------------
// Timer queue

ITimerHandler::~ITimerHandler() = default;
ITimerQueue::~ITimerQueue() = default;
IObserver::~IObserver() = default;

TimerQueueBase::CNode::CNode(ITimerHandler* aEh, void* aToken)
    : m_pEh(aEh), m_pToken(aToken), m_tvExpired(), m_tvInterval(), m_dwCount(0) {}

TimerQueueBase::TimerQueueBase(IObserver* aObserver) : m_pObserver(aObserver) {}

TimerQueueBase::~TimerQueueBase() = default;

int TimerQueueBase::ScheduleTimer(ITimerHandler* aEh, void* aToken,
                                  const ComTimeValueType& aInterval, unsigned long aCount) {
    if (!SW_ASSERT_LINE(__LINE__, aEh, "aEh")) {
        return COM_ERROR_FAILURE;
    }
    if (!SW_ASSERT_LINE(__LINE__, aInterval > ComTimeValueType::s_tvZero || aCount == 1,
                        "aInterval > ComTimeValueType::s_tvZero || aCount == 1")) {
        return COM_ERROR_FAILURE;
    }
    CNode node(aEh, aToken);
    node.m_tvInterval = aInterval;
    node.m_tvExpired = ComTimeValueType::GetTimeOfDay() + aInterval;
    node.m_dwCount = aCount == 0 ? kCountForever : aCount;

    bool wasEmpty = false;
    int pushed = 0;
    {
        PattAutoLock<CMyMutex> lock(m_Mutex);
        if (m_pObserver != nullptr) {
            ComTimeValueType earliest;
            wasEmpty = GetEarliestTime_l(earliest) == -1;
        }
        pushed = PushNode_l(node);
    }
    if (wasEmpty) {
        m_pObserver->OnObserve("TimerQueue", nullptr);
    }
    return pushed == 0 ? COM_OK : COM_ERROR_FAILURE;
}

int TimerQueueBase::CancelTimer(ITimerHandler* aEh) {
    if (!SW_ASSERT_LINE(__LINE__, aEh, "aEh")) {
        return COM_ERROR_FAILURE;
    }
    PattAutoLock<CMyMutex> lock(m_Mutex);
    return EraseNode_l(aEh) == 0 ? COM_OK : COM_ERROR_FAILURE;
}

int TimerQueueBase::CheckExpire(ComTimeValueType* aRemainTime) {
    // The clock is read once, on the first look that finds a timer: the owner
    // loops call this every pass, most often with no timer queued.
    ComTimeValueType now;
    bool haveNow = false;
    int fired = 0;
    for (;;) {
        CNode node;
        {
            PattAutoLock<CMyMutex> lock(m_Mutex);
            ComTimeValueType earliest;
            if (GetEarliestTime_l(earliest) != 0) {
                if (aRemainTime != nullptr) {
                    *aRemainTime = ComTimeValueType::s_tvMax;
                }
                return fired;
            }
            if (!haveNow) {
                now = ComTimeValueType::GetTimeOfDay();
                haveNow = true;
            }
            if (earliest > now) {
                if (aRemainTime != nullptr) {
                    // Measured from after the handlers that ran, so that the
                    // owner's next wait ends on time rather than late by
                    // their running time.
                    const ComTimeValueType from =
                        fired > 0 ? ComTimeValueType::GetTimeOfDay() : now;
                    *aRemainTime =
                        earliest > from ? earliest - from : ComTimeValueType::s_tvZero;
                }
                return fired;
            }
            const int nRet = PopFirstNode_l(node);
            SW_ASSERT_LINE(__LINE__, nRet == 0, "nRet == 0");
            if (node.m_dwCount != kCountForever) {
                --node.m_dwCount;
            }
            // Re-armed before the handler runs, so that it may cancel or
            // re-schedule itself. The period stays anchored on the old due
            // time; missed periods are skipped, not fired in a burst.
            if (node.m_dwCount != 0 && node.m_tvInterval > ComTimeValueType::s_tvZero) {
                const int64_t interval = ToUsec(node.m_tvInterval);
                const int64_t late = ToUsec(now - node.m_tvExpired);
                const int64_t periods = late / interval + 1;
                const int64_t due = ToUsec(node.m_tvExpired) + periods * interval;
                node.m_tvExpired = ComTimeValueType(static_cast<long>(due / 1000000),
                                                    static_cast<long>(due % 1000000));
                RePushNode_l(node);
            }
        }
        if (!SW_ASSERT_LINE(__LINE__, node.m_pEh, "pEh")) {
            return COM_ERROR_FAILURE;
        }
        node.m_pEh->OnTimeout(now, node.m_pToken);
        ++fired;
    }
}

ComTimeValueType TimerQueueBase::GetEarliestTime() {
    PattAutoLock<CMyMutex> lock(m_Mutex);
    ComTimeValueType earliest;
    return GetEarliestTime_l(earliest) == 0 ? earliest : ComTimeValueType::s_tvMax;
}

TimerQueueOrderedList::TimerQueueOrderedList(IObserver* aObserver) : TimerQueueBase(aObserver) {}

TimerQueueOrderedList::~TimerQueueOrderedList() = default;

int TimerQueueOrderedList::PushNode_l(const CNode& aNode) {
    // One pass: drop the handler's old node and insert the new one ahead of
    // the first node that is due at the same time or later.
    bool foundEqual = false;
    bool inserted = false;
    auto it = m_Nodes.begin();
    while (it != m_Nodes.end()) {
        if (it->m_pEh == aNode.m_pEh) {
            SW_ASSERT_LINE(__LINE__, !foundEqual, "!bFoundEqual");
            it = m_Nodes.erase(it);
            foundEqual = true;
            if (inserted || it == m_Nodes.end()) {
                break;
            }
        }
        if (!inserted && it->m_tvExpired >= aNode.m_tvExpired) {
            m_Nodes.insert(it, aNode);
            inserted = true;
            if (foundEqual) {
                break;
            }
        }
        ++it;
    }
    if (!inserted) {
        m_Nodes.push_back(aNode);
    }
    EnsureSorted();
    return foundEqual ? 1 : 0;
}

int TimerQueueOrderedList::EraseNode_l(ITimerHandler* aEh) {
    for (auto it = m_Nodes.begin(); it != m_Nodes.end(); ++it) {
        if (it->m_pEh == aEh) {
            m_Nodes.erase(it);
            return 0;
        }
    }
    return 1;
}

int TimerQueueOrderedList::RePushNode_l(const CNode& aNode) {
    auto it = m_Nodes.begin();
    while (it != m_Nodes.end() && !(it->m_tvExpired >= aNode.m_tvExpired)) {
        ++it;
    }
    m_Nodes.insert(it, aNode);
    return 0;
}

int TimerQueueOrderedList::PopFirstNode_l(CNode& aNode) {
    if (!SW_ASSERT_LINE(__LINE__, !m_Nodes.empty(), "!m_Nodes.empty()")) {
        return -1;
    }
    aNode = m_Nodes.front();
    m_Nodes.pop_front();
    return 0;
}

int TimerQueueOrderedList::GetEarliestTime_l(ComTimeValueType& aTime) {
    if (m_Nodes.empty()) {
        return -1;
    }
    aTime = m_Nodes.front().m_tvExpired;
    return 0;
}

int TimerQueueOrderedList::EnsureSorted() {
    return 0;
}
