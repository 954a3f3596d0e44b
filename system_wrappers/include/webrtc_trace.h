/// @file
/// The trace interface of the portable primitives. It owns no state: every
/// accepted Add becomes one "[TF]:" line of the library's trace facility, and
/// every configuration call is refused, since output is configured there.
#ifndef SYSTEM_WRAPPERS_WEBRTC_TRACE_H_
#define SYSTEM_WRAPPERS_WEBRTC_TRACE_H_

#include "mtrace.h"
#include "sw_export.h"

namespace webrtc {

/// The level of a Trace::Add line. Only the numeric values carry behaviour;
/// the fixed underlying type lets callers pass any value.
enum TraceLevel : int {
    kTraceNone = 0,         ///< A debug line with the id.
    kTraceStateInfo = 1,    ///< An info line with the id (so are 8, 16, 32 and 4096).
    kTraceWarning = 2,      ///< A warning line, no id.
    kTraceError = 4,        ///< An error line, no id.
    kTraceCallInfo = 8,     ///< An info line with the id.
    kTraceApiInfo = 16,     ///< An info line with the id.
    kTraceModuleInfo = 32,  ///< An info line with the id.
    kTraceMemory = 256,     ///< A debug line with the id.
    kTraceDebug = 2048,     ///< A debug line with the id, as is every value not listed here.
    kTraceInfo = 4096,      ///< An info line with the id.
};

/// The module a Trace::Add line comes from. Modules 1, 7, 8, 9, 10, 11 and
/// 18 are silenced: their lines are dropped. Every other value passes.
enum TraceModule : int {
    kTraceModuleNone = 0,     ///< No particular module.
    kTraceModuleGeneral = 2,  ///< General lines.
    kTraceUtility = 3,        ///< The portable primitives' own lines.
};

/// @class webrtc::TraceCallback
/// Named by SetTraceCallback so that it has its signature; the library never
/// defines or calls it.
class SW_EXPORT TraceCallback;

/// The primitives' trace interface: all static, no state of its own. Lines
/// reach only the host's log callback of the trace facility (CMyTrace_): with
/// no callback installed, or once the facility has been destroyed, they are
/// lost.
class SW_EXPORT Trace {
public:
    /// Creates the trace facility with the facade's own parameters, or keeps
    /// the existing one, and returns it: owned by the facility, never deleted
    /// by the caller. Null once the facility has been destroyed
    /// (CMyTrace_::DestroyTrace).
    static CMyTraceImpl_* CreateTrace();
    /// Does nothing: the facility lives until CMyTrace_::DestroyTrace.
    static void ReturnTrace();

    /// Refused: returns -1 and ignores aFilter.
    static int SetLevelFilter(unsigned int aFilter);
    /// Refused: returns -1 and leaves aFilter untouched.
    static int LevelFilter(unsigned int& aFilter);
    /// Refused: returns -1 and ignores both arguments.
    static int SetTraceFile(const char* aFileName, bool aAddFileCounter);
    /// Refused: returns -1 and leaves aFileName untouched.
    static int TraceFile(char* aFileName);
    /// Refused: returns -1 and ignores aCallback.
    static int SetTraceCallback(TraceCallback* aCallback);

    /// Formats aFormat as printf does and writes one line. kTraceError gives
    /// an error line and kTraceWarning a warning line: "[TF]:" followed by the
    /// message. Every other level gives "[TF]: id=", aId, ", " and the
    /// message: an info line for 1, 8, 16, 32 and 4096, a debug line
    /// otherwise. Nothing is written for a silenced module or a null format.
    /// At most 1022 characters of the message survive. Any thread.
    static void Add(TraceLevel aLevel, TraceModule aModule, int aId, const char* aFormat, ...)
        __attribute__((format(printf, 4, 5)));
};

}  // namespace webrtc

#endif  // SYSTEM_WRAPPERS_WEBRTC_TRACE_H_
