/// @file
/// One thread that serves registered modules when they are due.
#ifndef SYSTEM_WRAPPERS_PROCESS_THREAD_H_
#define SYSTEM_WRAPPERS_PROCESS_THREAD_H_

#include <cstdint>

#include "module.h"
#include "sw_export.h"

namespace webrtc {

/// One thread, named "ProcessThread", that serves its registered modules:
/// it sleeps until the earliest one is due (never longer than 100 ms), then
/// calls Process on each due module in registration order. Modules are
/// borrowed. Any thread may call the methods, a module's own call included.
class SW_EXPORT ProcessThread {
public:
    /// A new, stopped process thread with no module; null when memory runs
    /// out or a synchronisation object cannot be made. Free it with
    /// DestroyProcessThread.
    static ProcessThread* CreateProcessThread();
    /// Stops the thread and deletes aThread; null is ignored. Called from
    /// inside a module's call, it returns at once: the rest of the current
    /// pass is still served, then the thread ends and frees the object.
    static void DestroyProcessThread(ProcessThread* aThread);

    /// Stops the thread first, waiting for as long as a module's call runs.
    /// Never delete the object from inside a module's call: use
    /// DestroyProcessThread there.
    virtual ~ProcessThread() {}

    /// Starts serving: 0, or -1 when already started (also after a Stop that
    /// returned -1, until a later Stop returns 0) or the thread could not
    /// start. The thread runs with the smallest timer slack, so modules are
    /// served when due rather than up to 50 microseconds later.
    virtual int32_t Start() = 0;
    /// Waits for the thread to end and returns 0 (also when not started); a
    /// stopped thread may start again. -1 from inside a module's call (the
    /// thread then ends after the current pass) or when a call has not
    /// returned within 10 seconds (the thread stays; Stop may be called again).
    virtual int32_t Stop() = 0;

    /// Adds aModule (borrowed; it must stay valid until deregistered) and
    /// traces "number of registered modules has increased to %d" (info). A
    /// module due now is served at once. -1 for null, a module already
    /// registered, or when memory runs out.
    virtual int32_t RegisterModule(Module* aModule) = 0;
    /// Removes aModule; -1 when not registered. Once it returns, the module is
    /// not called again and no call of it is running (unless called from that
    /// module's own call), so the caller may delete it.
    virtual int32_t DeRegisterModule(Module* aModule) = 0;
};

}  // namespace webrtc

#endif  // SYSTEM_WRAPPERS_PROCESS_THREAD_H_
