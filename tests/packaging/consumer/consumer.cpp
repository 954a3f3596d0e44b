// Built against an installed copy of the library through its umbrella header
// (so every installed header compiles): exits 0 only if one trace line reaches
// the host log callback as (7, 1, "%s", prefixed line) and a portable thread
// and sort answer.
#include <stdarg.h>
#include <sys/syscall.h>
#include <unistd.h>

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
    if (!thread->Start(id) || !thread->Stop() || !ran ||
        webrtc::Sort(values, 2, webrtc::TYPE_Float64) != 0 || values[0] != -1.0) {
        std::fprintf(stderr, "consumer: a portable primitive failed\n");
        return 1;
    }
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
