// Built against an installed copy of the library through its umbrella header (so
// every installed header compiles and links): exits 0 only if a portable sort answers
// and one trace line reaches the host log callback as (7, 1, "%s", prefixed line).
#include <stdarg.h>

#include <cstdio>
#include <cstring>

#include "system_wrappers.h"

namespace {

int gGood = 0;

void OnLog(int aTag, int aLevel, const char* aFormat, ...) {
    va_list args;
    va_start(args, aFormat);
    const char* line = va_arg(args, const char*);
    va_end(args);
    const char* const end = " hello from consumer\n";  // after "[I:ENG+pid:tid] sec.usec"
    gGood += aTag == 7 && aLevel == 1 && strcmp(aFormat, "%s") == 0 &&
             strncmp(line, "[I:ENG+", 7) == 0 && strlen(line) > strlen(end) + 20 &&
             strcmp(line + strlen(line) - strlen(end), end) == 0;
}

}  // namespace

int main() {
    double values[] = {2.0, -1.0};
    CMyTrace_::SetLogCallback(OnLog);
    const char text[] = "hello from consumer";
    CMyTrace_::Write(MTRACE_OUTPUT_CALLBACK, MTRACE_LEVEL_INFO, text, sizeof(text) - 1);
    if (webrtc::Sort(values, 2, webrtc::TYPE_Float64) != 0 || values[0] != -1.0 || gGood != 1) {
        std::fprintf(stderr, "consumer: the installed library did not answer as expected\n");
        return 1;
    }
    return 0;
}
