/// @file
/// Work that a ProcessThread serves when it is due.
#ifndef SYSTEM_WRAPPERS_MODULE_H_
#define SYSTEM_WRAPPERS_MODULE_H_

#include <cstdint>

#include "sw_export.h"

namespace webrtc {

/// Work served by a ProcessThread. The host implements it and keeps
/// ownership; both methods are called on the process thread, one call at a
/// time.
class SW_EXPORT Module {
public:
    /// Delete a module only when no ProcessThread holds it
    /// (ProcessThread::DeRegisterModule).
    virtual ~Module() {}
    /// Milliseconds until the module wants Process; 0 or less means now.
    /// Asked on every pass of the process thread: at least every 100 ms
    /// unless module calls run long, and again after each Process call.
    virtual int32_t TimeUntilNextProcess() = 0;
    /// Does the module's work once it is due; the result is ignored. It may
    /// register and deregister modules, itself included.
    virtual int32_t Process() = 0;
};

}  // namespace webrtc

#endif  // SYSTEM_WRAPPERS_MODULE_H_
