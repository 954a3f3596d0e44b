// The thread manager and the records it keeps for foreign threads.
#include "ComThreadManger.h"

#include <new>

#include "ComReactor.h"
#include "sw_trace.h"

using sw::Addr;

namespace {

const char kFile[] = "ComThreadManger";

// pthread_t is an integer handle on Linux; print it as one.
unsigned long TidValue(pthread_t aTid) {
    return static_cast<unsigned long>(aTid);
}

}  // namespace

std::atomic<ComThreadManger*> ComThreadManger::s_ThreadManger(nullptr);
CMyMutex ComThreadManger::s_Mutex;
CRefCountBase<CReferOperatSing> ComThreadManger::s_refcnt;

// ---------------------------------------------------------------------------
// Records for foreign threads

ComDummyThread::ComDummyThread() : m_TimerQueue(nullptr), m_Tid(pthread_self()) {
    SW_TRACE_INFO("[COM]:ComDummyThread, this=" << Addr(this));
}

ComDummyThread::~ComDummyThread() {
    SW_TRACE_INFO("[COM]:~ComDummyThread, this=" << Addr(this));
}

pthread_t ComDummyThread::GetThreadId() const {
    return m_Tid;
}

// ---------------------------------------------------------------------------
// Manager

ComThreadManger::ComThreadManger() = default;

ComThreadManger::~ComThreadManger() = default;

ComThreadManger* ComThreadManger::GetInstance() {
    ComThreadManger* manager = s_ThreadManger.load(std::memory_order_acquire);
    if (manager != nullptr) {
        return manager;
    }
    PattAutoLock<CMyMutex> lock(s_Mutex);
    manager = s_ThreadManger.load(std::memory_order_relaxed);
    if (manager == nullptr) {
        manager = new (std::nothrow) ComThreadManger;
        if (manager == nullptr) {
            SW_TRACE_ERROR("ComThreadManger::GetInstance, thread_manger=null");
        }
        s_ThreadManger.store(manager, std::memory_order_release);
    }
    return manager;
}

int ComThreadManger::CreateTaskThread(ComTaskThread*& aThread) {
    ComTaskThread* thread = new (std::nothrow) ComTaskThread;
    if (thread == nullptr) {
        SW_TRACE_ERROR("ComThreadManger::CreateTaskThread, threadptr=null, this=" << Addr(this));
        return COM_ERROR_FAILURE;
    }
    return CreateThreadPrivate(aThread, thread);
}

int ComThreadManger::CreateReactorThread(ComReactorThread*& aThread) {
    ComNetReactor* reactor = new (std::nothrow) ComNetReactor;
    if (!SW_ASSERT_LINE(50, reactor != nullptr, "reactor != NULL")) {
        return -1;
    }
    ComReactorThread* thread = new (std::nothrow) ComReactorThread(reactor);
    if (!SW_ASSERT_LINE(53, thread != nullptr, "new_thread != NULL")) {
        delete reactor;
        return -1;
    }
    return CreateThreadPrivate(aThread, thread);
}

int ComThreadManger::CreateUserThread(bool (*aFunc)(void*), void* aArg, ComUserThread*& aThread) {
    if (aFunc == nullptr) {
        SW_TRACE_ERROR("ComThreadManger::CreateUserThread, funptr=null, this=" << Addr(this));
        return COM_ERROR_FAILURE;
    }
    ComUserThread* thread = new (std::nothrow) ComUserThread(aArg, aFunc);
    if (thread == nullptr) {
        SW_TRACE_ERROR("ComThreadManger::CreateUserThread, threadptr=null, this=" << Addr(this));
        return COM_ERROR_FAILURE;
    }
    return CreateThreadPrivate(aThread, thread);
}

int ComThreadManger::CreateUserThreadWithQueue(bool (*aFunc)(void*), void* aArg,
                                               ComUserThreadWidthEventQueue*& aThread) {
    if (!SW_ASSERT_LINE(121, aFunc != nullptr, "FunPtr != NULL")) {
        return -1;
    }
    ComUserThreadWidthEventQueue* thread =
        new (std::nothrow) ComUserThreadWidthEventQueue(aArg, aFunc);
    if (!SW_ASSERT_LINE(125, thread != nullptr, "thread_with_queue != NULL")) {
        return -1;
    }
    return CreateThreadPrivate(aThread, thread);
}

template <class T>
int ComThreadManger::CreateThreadPrivate(T*& aOut, T* aThread) {
    // Held across the whole start, so thread creation is serialised.
    PattAutoLock<CMyMutex> lock(s_Mutex);
    aOut = aThread;
    const int rv = aThread->Create(BaseThread::TF_JOINABLE);
    if (rv != 0) {
        SW_TRACE_ERROR("ComThreadManger::CreateThreadPrivate, create failed, this=" << Addr(this));
        aOut = nullptr;
        aThread->Destory();
        return rv;
    }
    const pthread_t tid = aThread->GetThreadId();
    if (GetThreadPtr(tid) != nullptr) {
        // A stale entry under a reused handle: keep it, give up the new thread.
        SW_TRACE_ERROR("ComThreadManger::CreateThreadPrivate, id=" << TidValue(tid)
                                                                   << ", this=" << Addr(this));
        aThread->Stop(nullptr);
        aThread->Join();
        aOut = nullptr;
        aThread->Destory();
        return COM_ERROR_FAILURE;
    }
    m_Threads[tid] = aThread;
    return 0;
}

template SW_EXPORT int ComThreadManger::CreateThreadPrivate<ComTaskThread>(ComTaskThread*&,
                                                                           ComTaskThread*);
template SW_EXPORT int ComThreadManger::CreateThreadPrivate<ComReactorThread>(ComReactorThread*&,
                                                                              ComReactorThread*);
template SW_EXPORT int ComThreadManger::CreateThreadPrivate<ComUserThread>(ComUserThread*&,
                                                                           ComUserThread*);
template SW_EXPORT int ComThreadManger::CreateThreadPrivate<ComUserThreadWidthEventQueue>(
    ComUserThreadWidthEventQueue*&, ComUserThreadWidthEventQueue*);

int ComThreadManger::DestroyThread(BaseThread* aThread) {
    if (aThread == nullptr) {
        SW_TRACE_ERROR("ComThreadManger::DestroyThread, threadptr=null, this=" << Addr(this));
        return COM_ERROR_FAILURE;
    }
    SW_TRACE_INFO("ComThreadManger::DestroyThread, this=" << Addr(this));
    {
        PattAutoLock<CMyMutex> lock(s_Mutex);
        // The thread would join itself and delete the object it runs on.
        if (BaseThread::IsEqualCurrentThread(aThread->GetThreadId())) {
            SW_TRACE_ERROR(
                "ComThreadManger::DestroyThread, destroy in the same thread, this=" << Addr(this));
            return COM_ERROR_FAILURE;
        }
        auto it = m_Threads.find(aThread->GetThreadId());
        // Compared by object too: an unknown pointer must not stop a
        // registered thread that happens to share its handle.
        if (it == m_Threads.end() || it->second != aThread) {
            SW_TRACE_ERROR("ComThreadManger::DestroyThread, not found, this=" << Addr(this));
            return COM_ERROR_FAILURE;
        }
        m_Threads.erase(it);
        aThread->Stop(nullptr);
    }
    // Outside the lock: the thread may still use the manager while it winds down.
    aThread->Join();
    aThread->Destory();
    return 0;
}

BaseThread* ComThreadManger::GetCurrentThreadPtr() {
    const pthread_t tid = pthread_self();
    BaseThread* thread = FindCurrentThreadPtr();
    if (thread == nullptr) {
        SW_TRACE_ERROR("[COM]:GetCurrentThreadPtr, not found, tid=" << TidValue(tid)
                                                                    << ", this=" << Addr(this));
    }
    return thread;
}

BaseThread* ComThreadManger::FindCurrentThreadPtr() {
    PattAutoLock<CMyMutex> lock(s_Mutex);
    return GetThreadPtr(pthread_self());
}

BaseThread* ComThreadManger::GetThreadPtr(pthread_t aTid) {
    auto it = m_Threads.find(aTid);
    return it != m_Threads.end() ? it->second : nullptr;
}

int ComThreadManger::CreateDummyThread(ComDummyThread*& aThread) {
    PattAutoLock<CMyMutex> lock(m_DummyMutex);
    const pthread_t tid = pthread_self();
    auto it = m_DummyThreads.find(tid);
    if (it == m_DummyThreads.end()) {
        aThread = new (std::nothrow) ComDummyThread;
        if (!SW_ASSERT_LINE(191, aThread != nullptr, "thread_ptr != NULL")) {
            return -1;
        }
        m_DummyThreads[tid] = aThread;  // the map's reference: count 1
        return 0;
    }
    it->second->AddReferCount();
    aThread = it->second.GetPtr();
    return 0;
}

ComDummyThread* ComThreadManger::GetCurrentDummyThread() {
    PattAutoLock<CMyMutex> lock(m_DummyMutex);
    auto it = m_DummyThreads.find(pthread_self());
    return it != m_DummyThreads.end() ? it->second.GetPtr() : nullptr;
}

void ComThreadManger::DestroyDummyThread(ComDummyThread*& aThread) {
    PattAutoLock<CMyMutex> lock(m_DummyMutex);
    auto it =
        aThread != nullptr ? m_DummyThreads.find(aThread->GetThreadId()) : m_DummyThreads.end();
    if (it == m_DummyThreads.end()) {
        SW_TRACE_ERROR("[COM]:DestroyDummyThread, not found, this=" << Addr(this));
        return;
    }
    if (it->second->GetReferCount() != 1) {
        it->second->ReleaseReferCount();
        return;
    }
    // Only the map's reference is left: dropping it destroys the record.
    it->second = nullptr;
    m_DummyThreads.erase(it);
}
