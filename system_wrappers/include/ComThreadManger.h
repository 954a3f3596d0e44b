// The process-wide entry point for threads: creates, finds and destroys every
// library thread, and keeps records for threads the library did not start.
#ifndef SYSTEM_WRAPPERS_COM_THREAD_MANGER_H_
#define SYSTEM_WRAPPERS_COM_THREAD_MANGER_H_

#include <pthread.h>

#include <atomic>
#include <map>

#include "ComBase.h"
#include "ComEventQueue.h"
#include "ComRefCount.h"
#include "ComTaskThread.h"
#include "ComTimerQueue.h"
#include "sw_export.h"

class ComReactorThread;

// A reference-counted record for a thread the library did not start, with an
// event queue and a timer queue of its own. Not a BaseThread.
class SW_EXPORT ComDummyThread : public CRefCountBase<CReferOperatMulti> {
public:
    ComDummyThread();
    ~ComDummyThread() override;

    pthread_t GetThreadId() const;

    ComEventQueueByMutex m_EventQueue;
    TimerQueueOrderedList m_TimerQueue;
    pthread_t m_Tid;  // the constructing thread
};

// Threads are created started and registered, and destroyed through
// DestroyThread, which stops, joins and deletes them. OnThreadInit of a new
// thread runs under the manager's lock, so it must not call the manager.
class SW_EXPORT ComThreadManger {
public:
    static ComThreadManger* GetInstance();

    int CreateTaskThread(ComTaskThread*& aThread);
    int CreateReactorThread(ComReactorThread*& aThread);
    int CreateUserThread(bool (*aFunc)(void*), void* aArg, ComUserThread*& aThread);
    int CreateUserThreadWithQueue(bool (*aFunc)(void*), void* aArg,
                                  ComUserThreadWidthEventQueue*& aThread);
    // Starts aThread joinable and registers it; on failure aThread is
    // destroyed and aOut cleared.
    template <class T>
    int CreateThreadPrivate(T*& aOut, T* aThread);
    // aThread must not be used afterwards.
    int DestroyThread(BaseThread* aThread);

    // The calling thread's library thread, or null (with a trace line).
    BaseThread* GetCurrentThreadPtr();
    /// The calling thread's library thread, or null without a trace line, for
    /// code that asks before it knows. Any thread.
    BaseThread* FindCurrentThreadPtr();
    // Unlocked: the manager calls it under s_Mutex.
    BaseThread* GetThreadPtr(pthread_t aTid);

    // Pair every CreateDummyThread with one DestroyDummyThread; calls on one
    // thread share one record.
    int CreateDummyThread(ComDummyThread*& aThread);
    void DestroyDummyThread(ComDummyThread*& aThread);
    /// The calling thread's dummy record, or null when it holds none; silent.
    /// No reference is added: the record stays valid until the thread's last
    /// DestroyDummyThread. Any thread.
    ComDummyThread* GetCurrentDummyThread();

    std::map<pthread_t, BaseThread*> m_Threads;
    std::map<pthread_t, CRefCountAutoPtr<ComDummyThread>> m_DummyThreads;
    CMyMutex m_DummyMutex;

    static std::atomic<ComThreadManger*> s_ThreadManger;  // never deleted
    static CMyMutex s_Mutex;
    static CRefCountBase<CReferOperatSing> s_refcnt;

private:
    ComThreadManger();
    ~ComThreadManger();
    ComThreadManger(const ComThreadManger&) = delete;
    ComThreadManger& operator=(const ComThreadManger&) = delete;
};

#endif  // SYSTEM_WRAPPERS_COM_THREAD_MANGER_H_
