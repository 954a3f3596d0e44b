// Built against an installed copy of the library: exits 0 only if one trace
// line reaches the host log callback as (7, 1, "%s", prefixed line).
#include <stdarg.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
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

}  // namespace

int main() {
    CMyTrace_::SetLogCallback(OnLog);
    CMyTextFormat text;
    text << "hello from consumer";
    unsigned int length = 0;
    const char* content = text.GetContent(length);
    CMyTrace_::Write(MTRACE_OUTPUT_CALLBACK, MTRACE_LEVEL_INFO, content, length);

    const std::regex expected("7,1,%s,\\[I:ENG\\+" + std::to_string(getpid()) + ":" +
                              std::to_string(syscall(SYS_gettid)) +
                              "\\] [0-9]+\\.[0-9]{6} hello from consumer\n");
    if (!std::regex_match(gReceived, expected)) {
        std::fprintf(stderr, "consumer: unexpected callback calls: \"%s\"\n", gReceived.c_str());
        return 1;
    }
    return 0;
}
