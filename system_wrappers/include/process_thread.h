// One thread that serves registered modules when they are due.
#ifndef SYSTEM_WRAPPERS_PROCESS_THREAD_H_
#define SYSTEM_WRAPPERS_PROCESS_THREAD_H_

#include <cstdint>

#include "module.h"
#include "sw_export.h"

namespace webrtc {

class SW_EXPORT ProcessThread {
public:
    // Null when memory runs out; free it with DestroyProcessThread.
    static ProcessThread* CreateProcessThread();
    // Stops the thread and deletes it; null is ignored.
    static void DestroyProcessThread(ProcessThread* aThread);

    virtual ~ProcessThread() {}

    // 0, or -1 when already started or the thread could not start. The
    // thread runs with the smallest timer slack, so modules are served when
    // due rather than up to 50 us later.
    virtual int32_t Start() = 0;
    // Waits for the thread to end and returns 0; a stopped thread may start
    // again. -1 from inside a module's call (the thread then ends after the
    // current pass) or when a call has not returned within 10 seconds.
    virtual int32_t Stop() = 0;

    // -1 for null or a module already registered. A module due now is served
    // at once. Modules are served in registration order.
    virtual int32_t RegisterModule(Module* aModule) = 0;
    // -1 when not registered. Once it returns, the module is not called again
    // and no call of it is running (unless called from that module's own
    // call), so the caller may delete it.
    virtual int32_t DeRegisterModule(Module* aModule) = 0;
};

}  // namespace webrtc

#endif  // SYSTEM_WRAPPERS_PROCESS_THREAD_H_
