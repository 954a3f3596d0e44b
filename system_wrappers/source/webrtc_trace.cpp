#include "webrtc_trace.h"

#include <stdarg.h>
#include <stdio.h>

#include "sw_trace.h"

namespace webrtc {

CMyTraceImpl_* Trace::CreateTrace() {
    return CMyTraceImpl_::Instance(MTRACE_LEVEL_INFO, "zemtrace", 512, 1, 2, 52428800);
}

void Trace::ReturnTrace() {}

int Trace::SetLevelFilter(unsigned int) {
    return -1;
}

int Trace::LevelFilter(unsigned int&) {
    return -1;
}

int Trace::SetTraceFile(const char*, bool) {
    return -1;
}

int Trace::TraceFile(char*) {
    return -1;
}

int Trace::SetTraceCallback(TraceCallback*) {
    return -1;
}

void Trace::Add(TraceLevel aLevel, TraceModule aModule, int aId, const char* aFormat, ...) {
    switch (static_cast<int>(aModule)) {
        case 1: case 7: case 8: case 9: case 10: case 11: case 18: return;
        default: break;
    }
    if (!aFormat) return;

    char message[1024];
    message[0] = '\0';
    va_list args;
    va_start(args, aFormat);
    vsnprintf(message, sizeof(message) - 1, aFormat, args);
    va_end(args);

    // Error and warning lines carry no id; every other line does.
    switch (static_cast<int>(aLevel)) {
        case 4: SW_TRACE_ERROR("[TF]:" << message); return;
        case 2: SW_TRACE_WARNING("[TF]:" << message); return;
        case 1: case 8: case 16: case 32: case 4096:
            SW_TRACE_INFO("[TF]: id=" << aId << ", " << message);
            return;
        default: SW_TRACE(MTRACE_LEVEL_DEBUG, "[TF]: id=" << aId << ", " << message); return;
    }
}

}  // namespace webrtc
