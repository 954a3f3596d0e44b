// Built against an installed copy of the library through its umbrella header (so
// every installed header compiles): exits 0 only if a portable thread and sort answer
// and one trace line reaches the host log callback as (7, 1, "%s", prefixed line).
#include <stdarg.h>

#include <cstdio>
#include <memory>
#include <regex>
#include <string>

#include "system_wrappers.h"

namespace {

std::string gReceived;

void OnLog(int aTag, int aLevel, const char* aFormat, ...) {
    va_list args;
    va_start(args, aFormat);
    const char* line = va_arg(args, const char*);
    va_end(args);
    gReceived += std::to_string(aTag) + "," + std::to_string(aLevel) + "," + aFormat + "," + line;
}

bool Once(webrtc::ThreadObj aRan) {
    *static_cast<bool*>(aRan) = true;
    return false;
}

}  // namespace

int main() {
    bool ran = false;
    std::unique_ptr<webrtc::ThreadWrapper> thread(webrtc::ThreadWrapper::CreateThread(Once, &ran));
    unsigned int id = 0;
    double values[] = {2.0, -1.0};
    const bool portable = thread->Start(id) && thread->Stop() && ran &&
                          webrtc::Sort(values, 2, webrtc::TYPE_Float64) == 0 && values[0] == -1.0;
    CMyTrace_::SetLogCallback(OnLog);
    const char text[] = "hello from consumer";
    CMyTrace_::Write(MTRACE_OUTPUT_CALLBACK, MTRACE_LEVEL_INFO, text, sizeof(text) - 1);
    // The ids in the prefix are checked by the trace tests; here only its shape.
    const std::regex expected(R"(7,1,%s,\[I:ENG\+[0-9]+:[0-9]+\] [0-9]+\.[0-9]{6} )"
                              R"(hello from consumer\n)");
    if (!portable || !std::regex_match(gReceived, expected)) {
        std::fprintf(stderr, "consumer: portable primitives %s, callback calls: \"%s\"\n",
                     portable ? "answered" : "failed", gReceived.c_str());
        return 1;
    }
    return 0;
}
