/// @file
/// The process-wide entry point for threads: creates, finds and destroys every
/// library thread, and keeps records for threads the library did not start.
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

/// A reference-counted record for a thread the library did not start, with an
/// event queue and a timer queue of its own. Not a BaseThread. Get it with
/// ComThreadManger::CreateDummyThread and give it back with
/// DestroyDummyThread. Nothing drives its queues: the thread itself calls
/// m_TimerQueue.CheckExpire and pops and fires m_EventQueue. A ComTimerWrapper
/// scheduled on such a thread binds to m_TimerQueue: cancel it before the
/// record's last DestroyDummyThread.
class SW_EXPORT ComDummyThread : public CRefCountBase<CReferOperatMulti> {
public:
    /// Records the calling thread; traces "[COM]:ComDummyThread" (info). Use
    /// CreateDummyThread: a record built directly is not registered.
    ComDummyThread();
    /// Traces "[COM]:~ComDummyThread" (info). Runs on the last reference's
    /// release.
    ~ComDummyThread() override;

    /// The thread that constructed the record.
    pthread_t GetThreadId() const;

    /// Events for the thread, which pops and fires them itself. Not bound to
    /// the thread: call m_EventQueue.Reset2CurrentThreadId() on it before it
    /// sends to itself, or such a send waits for ever.
    ComEventQueueByMutex m_EventQueue;
    /// Timers for the thread, which fires them itself with CheckExpire.
    TimerQueueOrderedList m_TimerQueue;
    /// The constructing thread.
    pthread_t m_Tid;
};

/// The singleton that creates, registers, finds and destroys library
/// threads. Threads are created started and registered, and destroyed through
/// DestroyThread, which stops, joins and deletes them. Thread creation is
/// serialised: OnThreadInit of a new thread runs under the manager's lock, so
/// it must not call the manager. All members may be called from any thread
/// unless said otherwise; failures are traced at error level.
class SW_EXPORT ComThreadManger {
public:
    /// The manager, created on the first call and never deleted. Null only
    /// when that allocation failed ("ComThreadManger::GetInstance,
    /// thread_manger=null"). Any thread.
    static ComThreadManger* GetInstance();

    /// Creates, starts and registers a task thread. 0 with aThread set; free it
    /// with DestroyThread. COM_ERROR_FAILURE when allocation fails
    /// ("ComThreadManger::CreateTaskThread, threadptr=null") or as
    /// CreateThreadPrivate. Read aThread only after 0.
    int CreateTaskThread(ComTaskThread*& aThread);
    /// Creates, starts and registers a reactor thread with a reactor of its
    /// own. 0 with aThread set; free it with DestroyThread. -1 when allocation
    /// fails (assertion "reactor != NULL" or "new_thread != NULL"), otherwise
    /// as CreateThreadPrivate. Read aThread only after 0. A reactor that could
    /// not open its wake-up pipe still returns 0, but its loop has already
    /// ended (traced by the reactor): wait for a posted event's effect with a
    /// bound rather than SendEvent to a fresh reactor thread.
    int CreateReactorThread(ComReactorThread*& aThread);
    /// Creates, starts and registers a ComUserThread that calls aFunc(aArg)
    /// (aArg borrowed until the thread is destroyed). 0 with aThread set; free
    /// it with DestroyThread. COM_ERROR_FAILURE for a null aFunc
    /// ("ComThreadManger::CreateUserThread, funptr=null"), when allocation
    /// fails ("ComThreadManger::CreateUserThread, threadptr=null"), or as
    /// CreateThreadPrivate. Read aThread only after 0.
    int CreateUserThread(bool (*aFunc)(void*), void* aArg, ComUserThread*& aThread);
    /// As CreateUserThread, for a ComUserThreadWidthEventQueue, except that a
    /// null aFunc or a failed allocation returns -1 (assertion "FunPtr !=
    /// NULL" or "thread_with_queue != NULL"). Read aThread only after 0.
    int CreateUserThreadWithQueue(bool (*aFunc)(void*), void* aArg,
                                  ComUserThreadWidthEventQueue*& aThread);
    /// Starts aThread joinable and registers it; aThread is taken over. 0 with
    /// aOut = aThread. On failure aThread is destroyed, aOut cleared and the
    /// result is Create's (COM_ERROR_FAILURE, "ComThreadManger::CreateThreadPrivate,
    /// create failed"), or COM_ERROR_FAILURE when its handle is already
    /// registered ("ComThreadManger::CreateThreadPrivate, id=" and the handle).
    /// Exists for the four thread classes of the Create functions only.
    template <class T>
    int CreateThreadPrivate(T*& aOut, T* aThread);
    /// Unregisters, stops and joins aThread, then deletes it; 0. Blocks until
    /// the thread's body returns (a user thread ends its current call first).
    /// aThread must not be used afterwards. COM_ERROR_FAILURE, with nothing
    /// done, for null ("ComThreadManger::DestroyThread, threadptr=null"),
    /// from aThread itself ("ComThreadManger::DestroyThread, destroy in the
    /// same thread") and for a thread not registered here
    /// ("ComThreadManger::DestroyThread, not found").
    int DestroyThread(BaseThread* aThread);

    /// The calling thread's library thread, or null with the error line
    /// "[COM]:GetCurrentThreadPtr, not found, tid=" and the handle, also on a
    /// thread that holds a ComDummyThread record. Valid until DestroyThread.
    /// Any thread but one inside OnThreadInit.
    BaseThread* GetCurrentThreadPtr();
    /// The calling thread's library thread, or null without a trace line, for
    /// code that asks before it knows. Any thread but one inside OnThreadInit.
    BaseThread* FindCurrentThreadPtr();
    /// The registered thread with handle aTid, or null. Takes no lock: hold
    /// s_Mutex around the call and the use of its result.
    BaseThread* GetThreadPtr(pthread_t aTid);

    /// The calling thread's record: created with one reference on the first
    /// call, the same record with one more reference on later calls. 0, or -1
    /// when allocation fails (assertion "thread_ptr != NULL"). Pair every call
    /// with one DestroyDummyThread.
    int CreateDummyThread(ComDummyThread*& aThread);
    /// Gives back one reference of aThread; the last one destroys the record,
    /// and aThread (not cleared) then dangles. A record not held here, or
    /// null, traces "[COM]:DestroyDummyThread, not found" and changes nothing.
    void DestroyDummyThread(ComDummyThread*& aThread);
    /// The calling thread's dummy record, or null when it holds none; silent.
    /// No reference is added: the record stays valid until the thread's last
    /// DestroyDummyThread. Any thread.
    ComDummyThread* GetCurrentDummyThread();

    /// Registered threads by handle; guarded by s_Mutex. Read only.
    std::map<pthread_t, BaseThread*> m_Threads;
    /// Dummy records by thread, one reference each; guarded by m_DummyMutex.
    std::map<pthread_t, CRefCountAutoPtr<ComDummyThread>> m_DummyThreads;
    /// Guards m_DummyThreads.
    CMyMutex m_DummyMutex;

    /// The singleton; null before the first GetInstance. Never deleted.
    static std::atomic<ComThreadManger*> s_ThreadManger;
    /// Guards the singleton's creation and m_Threads; held across each thread
    /// start.
    static CMyMutex s_Mutex;
    /// Not used by the manager.
    static CRefCountBase<CReferOperatSing> s_refcnt;

private:
    ComThreadManger();
    ~ComThreadManger();
    ComThreadManger(const ComThreadManger&) = delete;
    ComThreadManger& operator=(const ComThreadManger&) = delete;
};

#endif  // SYSTEM_WRAPPERS_COM_THREAD_MANGER_H_
