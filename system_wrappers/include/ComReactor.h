/// @file
/// The network reactor, its wake-up handle and the thread that runs it. A
/// reactor waits with select() (the default) or epoll, its back end.
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

/// Anything registered with a reactor: the host's handle objects (usually
/// wrapping a socket of ComSocket.h) and the reactor's own wake-up handle.
///
/// Every callback runs on the reactor thread, and the reactor ignores their
/// results. The reactor borrows a registered handler and never deletes it: the
/// handler must stay alive as long as the reactor may call it (see below).
///
/// Inside on_input or on_output a handler may register, re-register or
/// unregister itself or others. A turn calls the ready handlers from a copy of
/// their entries taken before the first callback, so a change takes effect
/// from the next turn: a handler unregistered during the turn may still be
/// called in it (its own on_output after its on_input when it was ready both
/// ways, or after another callback unregistered it). Posted events run inside
/// the wake-up handle's on_input, in the middle of a turn, so they count as
/// such a callback. Delete a handler only once nothing can call it any more:
/// - after it unregistered itself in its own callback: there, if no callback
///   of it is still due in the turn (in on_output, or in on_input when it
///   watches no writes), or later from an event or a timer;
/// - after another callback or an event unregistered it: not before the turn
///   ends, for example from a timer (timers fire between turns);
/// - in or after its own on_close.
class SW_EXPORT ComReactorBase {
public:
    /// Mask bits of register_handle; they may be combined. Bits other than
    /// these are stored but watch nothing.
    enum {
        READ_MASK = 1,    ///< Read interest: on_input when readable.
        WRITE_MASK = 2,   ///< Write interest: on_output when writable.
        READ_MASK_2 = 8,  ///< A second read bit, treated exactly like READ_MASK.
    };

    /// The reactor never deletes a handler; its owner does.
    virtual ~ComReactorBase();
    /// The descriptor is readable (or hung up). Reactor thread.
    virtual int on_input() = 0;
    /// The descriptor is writable. Reactor thread; after on_input in the same
    /// turn when both apply.
    virtual int on_output() = 0;
    /// The reactor is shutting down (un_init or clear_net_handle) and drops
    /// the handle; it does not touch the handler afterwards, which belongs to
    /// its owner alone from then on. Reactor thread. A handler may delete
    /// itself here, but not another handler still registered: that one's
    /// on_close may still be due.
    virtual int on_close() = 0;
    /// Never called by the reactor; returns -1 unless overridden.
    virtual int on_exception();
    /// The descriptor to watch. The reactor asks at register_handle and at
    /// unregister_handle and keys its table by the answer, so it must not
    /// change in between.
    virtual int get_handle() = 0;
};

/// A connected pair of loopback TCP sockets on "127.0.0.1", so that the read
/// end is an ordinary socket descriptor that select() can watch. Not locked:
/// its owner (the reactor's wake-up handle) serialises its use.
class SW_EXPORT ComPipe {
public:
    /// Connects the pair through a temporary listener on a system-chosen port,
    /// taking only its own connection (it waits at most 5 seconds for it).
    /// Traces "[COM]:open, this=" at info level, then 0; or -1 after one of
    /// "[COM]:open, server open failed", "[COM]:open, get local address failed",
    /// "[COM]:open, client connect failed", "[COM]:open, accept failed" (each
    /// followed by ", this="), with nothing left open.
    int open();
    /// Sends aLength bytes through the write end. 0, or -1 unless all of them
    /// went out, with "[COM]:write, sent=" (the count) and ", this=".
    int write(const char* aData, int aLength);
    /// Reads from the non-blocking read end: what ComSocketBase::recv returns
    /// (0 and a traced EAGAIN when nothing is there).
    int read(char* aBuffer, int aLength);
    /// Closes both ends; always 0.
    int close();
    /// The read end's descriptor, or -1 while closed.
    int get_read_handle() const;

    /// [0]: read end (accepted, non-blocking); [1]: write end (blocking).
    ComTcpClient _sockets[2];
};

/// The reactor's wake-up handle: any thread writes a token, and the reactor
/// thread reads exactly one back per on_input and runs posted events. On the
/// select back end the token is 4 bytes through the loopback pipe; on the
/// epoll back end it is one count of an eventfd, and the pipe stays closed.
/// Each reactor owns one (ComNetReactor::m_PipeNotify); hosts do not make their own.
class SW_EXPORT ComPipeNotify : public ComReactorBase {
public:
    /// No reactor, nothing open.
    ComPipeNotify();
    /// Closes nothing: ComNetReactor::un_init closes the wake-up.
    ~ComPipeNotify() override;

    /// Sets the reactor to wake (not owned); the reactor's constructor calls it.
    void set_reactor(ComNetReactor* aReactor);
    /// Opens the pipe (or the eventfd) and registers it for reading. Reactor
    /// thread (ComNetReactor::init calls it). The result of register_handle
    /// (0), or -1: without a reactor (assertion "_reactor != NULL"), or after
    /// "[COM]:open, pipe open failed, this=" or
    /// "[COM]:open, eventfd failed, err=" ... ", this=".
    int open();
    /// Unregisters, closes the pipe and forgets the reactor for good; always 0.
    /// Reactor thread (ComNetReactor::un_init calls it).
    int close();
    /// Writes one wake token: 0, or -1 (with a trace line) when it did not
    /// all go out. Safe from any number of threads at once, also while the
    /// reactor thread closes the pipe; after close it fails with -1.
    int notify();

    /// Reads one token and runs ComNetReactor::process_event; its result (0),
    /// or -1 without a reactor (assertion "_reactor != NULL"). Reactor thread.
    int on_input() override;
    /// Does nothing; 0.
    int on_output() override;
    /// Does nothing; 0.
    int on_close() override;
    /// The eventfd on the epoll back end, else the pipe's read end; -1 before open.
    int get_handle() override;

    ComPipe _pipe;            ///< The loopback pair (select back end only).
    ComNetReactor* _reactor;  ///< The reactor woken; not owned; null after close.

private:
    // The write end is one socket object whose error field every call
    // rewrites: concurrent notify calls, and close, take turns on it.
    CMyMutex m_WriteMutex;
    std::atomic<int> m_eventFd;  // the epoll back end's wake-up, -1 otherwise
};

/// The reactor's event queue: a post that makes it non-empty wakes the loop
/// with one token; the reactor itself comes back for events left over.
class SW_EXPORT ComEventQueueWithReactor : public ComEventQueueByMutex {
public:
    /// A queue bound to no reactor yet: posts do not wake anything.
    ComEventQueueWithReactor();
    /// Destroys the events still queued, unfired.
    ~ComEventQueueWithReactor() override;

    /// Sets the reactor to wake (not owned); the reactor's constructor calls it.
    void SetReactor(ComNetReactor* aReactor);
    /// Queues aEvent for the reactor thread and wakes the loop when the queue
    /// was empty. Any thread; the queue takes the event over. COM_OK, or
    /// COM_ERROR_FAILURE after "[COM]:PostEvent, failed, this=" when aEvent is
    /// null or the queue is stopped (the reactor has shut down: the event is
    /// destroyed unfired after "EventQueueBase::PostEvent, has been stopped., this="). A wake-up
    /// that cannot be written is the assertion "res == 0": the event stays queued and the post
    /// still succeeds.
    int PostEvent(IEvent* aEvent) override;

    ComNetReactor* m_pReactor;  ///< The reactor woken; not owned.
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
/// A reactor that cannot make its epoll instance traces one error line,
/// "[COM]:ComNetReactor, epoll_create1 failed, running on select, err=" ...
/// ", this=", and runs on select.
///
/// From other threads: get_event_queue()->PostEvent (and SendEvent),
/// notify_handle, get_backend and the two static back-end calls. Timers may be
/// scheduled on get_timer_queue() from any thread, but one scheduled from
/// another thread does not wake the loop: it is seen at the next turn. Every
/// other method, and every handler callback, belongs to the reactor thread;
/// registration from elsewhere goes through an event posted to the reactor.
///
/// A reactor thread (ComReactorThread) owns its reactor; the handlers
/// registered with it stay their owners'.
class SW_EXPORT ComNetReactor {
public:
    /// The back ends, for set_default_backend and get_backend.
    enum {
        BACKEND_SELECT = 0,  ///< select(); descriptors below 1024, 1024 handles a turn.
        BACKEND_EPOLL = 1,   ///< Level-triggered epoll (Linux); no such limits.
    };

    /// Chooses the back end of the reactors constructed after the call (a
    /// reactor thread's reactor is constructed by CreateReactorThread); those
    /// already made keep theirs. 0, or -1 with
    /// "[COM]:set_default_backend, unknown or unavailable, backend=" and the
    /// value for an unknown back end or one this system lacks (the choice then
    /// stays). The build's SW_REACTOR_BACKEND option gives the choice before
    /// any call. Any thread.
    static int set_default_backend(int aBackend);
    /// The back end that reactors constructed now get. Any thread.
    static int get_default_backend();

    /// One entry of the handle table.
    struct SW_EXPORT InScrNetElem {
        /// No handler, mask 0.
        InScrNetElem();
        /// aHandler (not owned) with its mask.
        InScrNetElem(ComReactorBase* aHandler, long aMask);

        ComReactorBase* m_pHandler;  ///< The registered handler; not owned.
        long m_lMask;                ///< Its mask (ComReactorBase::READ_MASK ...).
    };

    /// Wires the queue and the wake-up handle to this reactor and picks the
    /// back end (see set_default_backend). Opens nothing: init does.
    ComNetReactor();
    /// Refuses later posts and waits for any post still waking the loop. Does
    /// not call on_close (un_init does) and never deletes a handler.
    virtual ~ComNetReactor();
    /// Not copyable.
    ComNetReactor(const ComNetReactor&) = delete;
    /// Not copyable.
    ComNetReactor& operator=(const ComNetReactor&) = delete;

    /// The reactor's event queue; posting to it is safe from any thread.
    virtual ComEventQueueWithReactor* get_event_queue();
    /// The reactor's timer queue; its timers fire on the reactor thread.
    virtual TimerQueueOrderedList* get_timer_queue();
    /// The back end this reactor runs on (see the class comment). Any thread.
    int get_backend() const;

    /// On the reactor thread, once, before run_loop: binds the queue to this
    /// thread and opens and registers the wake-up. 0, or the wake-up's failure
    /// (-1) after "[COM]:init, pipe open failed, this="; the reactor must not
    /// be run then.
    int init();
    /// Shuts down for good (run_loop calls it after a stop): traces
    /// "[COM]:un_init, this=" at info level, closes the wake-up, stops the queue
    /// (later posts fail and their events are destroyed) and gives every
    /// handler still registered its on_close. Always 0. Reactor thread.
    int un_init();
    /// Registers aHandler for the descriptor its get_handle returns, with
    /// aMask (ComReactorBase::READ_MASK, WRITE_MASK, READ_MASK_2, combined).
    /// Re-registering a descriptor replaces its handler and mask. The handler
    /// is borrowed. 0, or -1 for a null handler (assertion "aHandler != NULL").
    /// A descriptor the back end cannot watch is registered all the same but
    /// never reported ready, with one error line:
    /// "[COM]:register_handle, handle out of fd_set range, handle=" (select,
    /// descriptors outside 0 to 1023) or
    /// "[COM]:register_handle, epoll_ctl failed, handle=" (epoll). Reactor
    /// thread, a handler's callbacks included.
    int register_handle(ComReactorBase* aHandler, long aMask);
    /// Drops the entry of aHandler's descriptor, whatever handler it holds;
    /// does not call on_close. 0, or -1 for a null handler (assertion
    /// "aHandler != NULL") or an unknown descriptor, traced
    /// "[COM]:unregister_handle, not found, ptr=" ... ", handle=" ... ", this=".
    /// Reactor thread, a handler's callbacks included (see ComReactorBase).
    int unregister_handle(ComReactorBase* aHandler);
    /// Gives every registered handler its on_close, in ascending descriptor
    /// order, then empties the table. Reactor thread.
    void clear_net_handle();
    /// Asks the loop to shut down at its next turn and stops the queue. Does
    /// not wake the loop; the caller makes the wait return. Meant for the
    /// reactor thread (the reactor thread's stop event calls it).
    void set_stop_flag();
    /// Writes one wake token: the result of ComPipeNotify::notify (0 or -1).
    /// Any thread.
    int notify_handle();
    /// Runs at most 5 posted events, oldest first, and asks for another turn
    /// if more are left; always 0. Reactor thread (the wake-up's on_input).
    int process_event();
    /// The loop: stop check, due timers, one wait, the ready handlers, again.
    /// Reactor thread, after init. Returns 0 after a stop (having run
    /// un_init); -2 with nothing to watch, traced "[COM]:run_loop, no sockets, this=";
    /// -1 when the wait fails, an interruption included, traced
    /// "[COM]:run_loop, select failed, this=" or
    /// "[COM]:run_loop, epoll_wait failed, err=" ... ", this=". After -2 or -1
    /// un_init has not run: the handlers get no on_close.
    int run_loop();
    /// The select back end's first half of a turn, used by run_loop: fills the
    /// sets from the table (at most 1024 entries, descriptors below 1024 only)
    /// and returns how many went in; when any did, aMaxHandle becomes the highest
    /// descriptor plus one. Traces "[COM]:build_socket_set, too many sockets, this="
    /// when entries are left over, and
    /// "[COM]:build_socket_set, handle out of fd_set range, handle=" ... at most
    /// once a second while such descriptors stay registered. Reactor thread.
    int build_socket_set(fd_set& aReadSet, fd_set& aWriteSet, int& aMaxHandle);
    /// The select back end's second half: calls on_input and on_output of the
    /// handlers whose descriptors are in the sets, at most aCount calls, from
    /// a copy of the table (see ComReactorBase). Always 0; more ready entries
    /// than aCount end the pass with the assertion "fd_num != 0". Reactor thread.
    int process_handle(unsigned long aCount, fd_set& aReadSet, fd_set& aWriteSet);

    ComEventQueueWithReactor m_EventQueue;  ///< The queue other threads post to.
    TimerQueueOrderedList m_TimerQueue;     ///< Timers run by the loop.
    ComPipeNotify m_PipeNotify;             ///< The wake-up handle.
    std::atomic<bool> m_bStop;              ///< Set by set_stop_flag and un_init.
    /// The handle table, by descriptor in ascending order. Reactor thread only.
    std::map<int, InScrNetElem> m_Handles;
    /// Monotonic time (ns) before which build_socket_set does not report
    /// descriptors beyond the fd_set again: once a second, not once a turn.
    int64_t m_NextRangeTraceNs;

private:
    std::unique_ptr<sw::ReactorBackend> m_pBackend;  // never null
};

/// A thread that runs one reactor, which it owns. Posting to it or scheduling
/// a timer on it runs the work on the reactor's loop. Like every library
/// thread it runs with the smallest timer slack (see BaseThread). Made by
/// ComThreadManger::CreateReactorThread and ended by its DestroyThread.
class SW_EXPORT ComReactorThread : public BaseThread, public IStopFlagAccess {
public:
    /// Takes aReactor over (deleted with this object); does not initialise it.
    explicit ComReactorThread(ComNetReactor* aReactor);
    /// Deletes the reactor (destroy_reactor). Only once the thread has ended.
    ~ComReactorThread() override;

    /// The reactor's event queue, or null once the reactor is gone. Any thread.
    IEventQueue* GetEventQueue() override;
    /// The reactor's timer queue, or null once the reactor is gone. Any
    /// thread, but a timer scheduled from another thread does not wake the loop.
    ITimerQueue* GetTimerQueue() override;
    /// On the new thread: traces "[COM]:OnThreadInit, this=" at info level and
    /// returns the reactor's init (0 or -1); -1 with the assertion
    /// "_reactor != NULL" without a reactor.
    int OnThreadInit() override;
    /// On the new thread: runs the reactor's loop and returns its run_loop
    /// result; -1 with the assertion "_reactor != NULL" without a reactor.
    int OnThreadRun() override;
    /// Queues a stop event and returns at once, without waiting: 0, also when
    /// the post fails ("[COM]:Stop, failed, this="); -1 only if the event
    /// cannot be allocated. Traces "[COM]:Stop, this=" at info level. aTimeout
    /// is not used. Any thread.
    int Stop(ComTimeValueType* aTimeout) override;
    /// Sets the reactor's stop flag; the stop event calls it on the reactor
    /// thread. The loop then gives the remaining handlers on_close and ends.
    void SetStopFlag() override;

    /// The reactor's register_handle. Only on the reactor thread: in a handle
    /// callback, a timer or an event posted to this thread. -1 with the
    /// assertion "_reactor != NULL" without a reactor.
    int RegisterHandle(ComReactorBase* aHandler, long aMask);
    /// The reactor's unregister_handle, on the reactor thread as RegisterHandle.
    int UnRegisterHandle(ComReactorBase* aHandler);
    /// Deletes the reactor and forgets it, tracing
    /// "[COM]:destroy_reactor, reactor=" ... ", this=" at info level. The
    /// destructor calls it; only once the thread has ended.
    void destroy_reactor();

    ComNetReactor* _reactor;  ///< The reactor run; owned; null after destroy_reactor.
};

#endif  // SYSTEM_WRAPPERS_COM_REACTOR_H_
