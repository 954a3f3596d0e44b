// The network reactor, its wake-up handle and the thread that runs it. A
// reactor waits with select() (the default) or epoll, its back end.
#ifndef SYSTEM_WRAPPERS_COM_REACTOR_H_
#define SYSTEM_WRAPPERS_COM_REACTOR_H_

#include <sys/select.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>

#include "ComEventQueue.h"
#include "ComSocket.h"
#include "ComTaskThread.h"
#include "ComTimerQueue.h"
#include "sw_export.h"

class ComNetReactor;
namespace sw {
class ReactorBackend;
}  // namespace sw

// Anything registered with a reactor. Callbacks run on the reactor thread;
// the reactor ignores their results.
class SW_EXPORT ComReactorBase {
public:
    // Mask bits of register_handle; 1 and 8 both mean read interest.
    enum {
        READ_MASK = 1,
        WRITE_MASK = 2,
        READ_MASK_2 = 8,
    };

    virtual ~ComReactorBase();
    virtual int on_input() = 0;
    virtual int on_output() = 0;
    // The reactor is shutting down and drops the handle.
    virtual int on_close() = 0;
    // Never called by the reactor.
    virtual int on_exception();
    virtual int get_handle() = 0;
};

// A connected pair of loopback TCP sockets, so the read end is an ordinary
// socket descriptor that select() can watch.
class SW_EXPORT ComPipe {
public:
    int open();
    // -1 unless all of aLength went out.
    int write(const char* aData, int aLength);
    int read(char* aBuffer, int aLength);
    int close();
    int get_read_handle() const;

    // [0]: read end (accepted, non-blocking); [1]: write end (blocking).
    ComTcpClient _sockets[2];
};

/// The reactor's wake-up handle: any thread writes a token, and the reactor
/// thread reads exactly one back per on_input and runs posted events. On the
/// select back end the token is 4 bytes through the loopback pipe; on the
/// epoll back end it is one count of an eventfd, and the pipe stays closed.
class SW_EXPORT ComPipeNotify : public ComReactorBase {
public:
    ComPipeNotify();
    ~ComPipeNotify() override;

    void set_reactor(ComNetReactor* aReactor);
    // Opens the pipe (or the eventfd) and registers it for reading.
    int open();
    // Unregisters, closes the pipe and forgets the reactor for good.
    int close();
    /// Writes one wake token: 0, or -1 (with a trace line) when it did not
    /// all go out. Safe from any number of threads at once, also while the
    /// reactor thread closes the pipe.
    int notify();

    int on_input() override;
    int on_output() override;
    int on_close() override;
    int get_handle() override;

    ComPipe _pipe;
    ComNetReactor* _reactor;  // not owned

private:
    // The write end is one socket object whose error field every call
    // rewrites: concurrent notify calls, and close, take turns on it.
    CMyMutex m_WriteMutex;
    std::atomic<int> m_eventFd;  // the epoll back end's wake-up, -1 otherwise
};

// The reactor's event queue: a post that makes it non-empty wakes the loop.
class SW_EXPORT ComEventQueueWithReactor : public ComEventQueueByMutex {
public:
    ComEventQueueWithReactor();
    ~ComEventQueueWithReactor() override;

    void SetReactor(ComNetReactor* aReactor);
    int PostEvent(IEvent* aEvent) override;

    ComNetReactor* m_pReactor;  // not owned
};

/// The single-threaded network loop. Everything but posting to its queue and
/// notify_handle runs on the reactor thread: the handle table has no lock.
///
/// It runs on one of two back ends, fixed when it is constructed:
/// - BACKEND_SELECT: select(), watching at most 1024 handles whose descriptors
///   are below 1024, woken through a loopback TCP connection;
/// - BACKEND_EPOLL (Linux): level-triggered epoll, watching as many handles as
///   the process may open, woken through an eventfd.
/// Both keep the same rules: the mask bits, registration results and traces,
/// ready handles called in ascending descriptor order from a copy of their
/// entries, timers checked before every wait, at most 5 events per wake.
/// A reactor that cannot make its epoll instance traces one error line and
/// runs on select.
class SW_EXPORT ComNetReactor {
public:
    /// The back ends, for set_default_backend and get_backend.
    enum {
        BACKEND_SELECT = 0,
        BACKEND_EPOLL = 1,
    };

    /// Chooses the back end of the reactors constructed after the call (a
    /// reactor thread's reactor is constructed by CreateReactorThread); those
    /// already made keep theirs. 0, or -1 with a trace line for an unknown
    /// back end or one this system lacks (the choice then stays). The build's
    /// SW_REACTOR_BACKEND option gives the choice before any call. Any thread.
    static int set_default_backend(int aBackend);
    /// The back end that reactors constructed now get. Any thread.
    static int get_default_backend();

    struct SW_EXPORT InScrNetElem {
        InScrNetElem();
        InScrNetElem(ComReactorBase* aHandler, long aMask);

        ComReactorBase* m_pHandler;  // not owned
        long m_lMask;
    };

    ComNetReactor();
    virtual ~ComNetReactor();
    ComNetReactor(const ComNetReactor&) = delete;
    ComNetReactor& operator=(const ComNetReactor&) = delete;

    virtual ComEventQueueWithReactor* get_event_queue();
    virtual TimerQueueOrderedList* get_timer_queue();
    /// The back end this reactor runs on (see the class comment). Any thread.
    int get_backend() const;

    // On the reactor thread: binds the queue to it and opens the wake-up pipe.
    int init();
    // Closes the pipe and the queue, and gives every handler its on_close.
    int un_init();
    // Re-registering a descriptor replaces its handler and mask.
    int register_handle(ComReactorBase* aHandler, long aMask);
    // Does not call on_close.
    int unregister_handle(ComReactorBase* aHandler);
    void clear_net_handle();
    // Does not wake the loop; the caller makes select() return.
    void set_stop_flag();
    int notify_handle();
    // Runs at most 5 posted events; asks for another turn if more are left.
    int process_event();
    // 0 after a stop, -2 with nothing to watch, -1 when the wait fails.
    int run_loop();
    // The select back end's two halves of a turn.
    int build_socket_set(fd_set& aReadSet, fd_set& aWriteSet, int& aMaxHandle);
    int process_handle(unsigned long aCount, fd_set& aReadSet, fd_set& aWriteSet);

    ComEventQueueWithReactor m_EventQueue;
    TimerQueueOrderedList m_TimerQueue;
    ComPipeNotify m_PipeNotify;
    std::atomic<bool> m_bStop;
    std::map<int, InScrNetElem> m_Handles;
    // Monotonic time (ns) before which build_socket_set does not report
    // descriptors beyond the fd_set again: once a second, not once a turn.
    int64_t m_NextRangeTraceNs;

private:
    std::unique_ptr<sw::ReactorBackend> m_pBackend;  // never null
};

/// A thread that runs one reactor, which it owns. Posting to it or scheduling
/// a timer on it runs the work on the reactor's loop. Like every library
/// thread it runs with the smallest timer slack (see BaseThread).
class SW_EXPORT ComReactorThread : public BaseThread, public IStopFlagAccess {
public:
    explicit ComReactorThread(ComNetReactor* aReactor);
    ~ComReactorThread() override;

    IEventQueue* GetEventQueue() override;
    ITimerQueue* GetTimerQueue() override;
    int OnThreadInit() override;
    int OnThreadRun() override;
    // Queues a stop event and returns at once.
    int Stop(ComTimeValueType* aTimeout) override;
    void SetStopFlag() override;

    // Only on the reactor thread: in a handle callback, a timer or an event
    // posted to this thread.
    int RegisterHandle(ComReactorBase* aHandler, long aMask);
    int UnRegisterHandle(ComReactorBase* aHandler);
    void destroy_reactor();

    ComNetReactor* _reactor;  // owned
};

#endif  // SYSTEM_WRAPPERS_COM_REACTOR_H_
