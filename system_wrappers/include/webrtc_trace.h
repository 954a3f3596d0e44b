// The trace interface of the portable primitives. It owns no state: every
// accepted Add becomes one "[TF]:" line of the library's trace facility, and
// every configuration call is refused, since output is configured there.
#ifndef SYSTEM_WRAPPERS_WEBRTC_TRACE_H_
#define SYSTEM_WRAPPERS_WEBRTC_TRACE_H_

#include "mtrace.h"
#include "sw_export.h"

namespace webrtc {

// Only the numeric values carry behaviour; the fixed underlying type lets
// callers pass any value.
enum TraceLevel : int {
    kTraceNone = 0,
    kTraceStateInfo = 1,  // 1, 8, 16, 32 and 4096: info lines with the id
    kTraceWarning = 2,    // warning line, no id
    kTraceError = 4,      // error line, no id
    kTraceCallInfo = 8,
    kTraceApiInfo = 16,
    kTraceModuleInfo = 32,
    kTraceMemory = 256,  // debug line with the id
    kTraceDebug = 2048,  // this and every value not listed above: debug lines with the id
    kTraceInfo = 4096,
};

enum TraceModule : int {
    kTraceModuleNone = 0,
    kTraceModuleGeneral = 2,
    kTraceUtility = 3,  // the portable primitives' own lines
    // Modules 1, 7, 8, 9, 10, 11 and 18 are silenced: their lines are dropped.
};

// Declared so that SetTraceCallback has its signature; never called.
class SW_EXPORT TraceCallback;

class SW_EXPORT Trace {
public:
    // Creates the trace facility with the facade's own parameters, or keeps
    // the existing one; null once the facility has been destroyed.
    static CMyTraceImpl_* CreateTrace();
    static void ReturnTrace();

    // Refused (-1): the arguments are neither used nor changed.
    static int SetLevelFilter(unsigned int aFilter);
    static int LevelFilter(unsigned int& aFilter);
    static int SetTraceFile(const char* aFileName, bool aAddFileCounter);
    static int TraceFile(char* aFileName);
    static int SetTraceCallback(TraceCallback* aCallback);

    // At most 1022 characters of the formatted message survive. May be called
    // from any thread.
    static void Add(TraceLevel aLevel, TraceModule aModule, int aId, const char* aFormat, ...)
        __attribute__((format(printf, 4, 5)));
};

}  // namespace webrtc

#endif  // SYSTEM_WRAPPERS_WEBRTC_TRACE_H_
