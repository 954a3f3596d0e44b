// Links against an installed copy of the library and checks that one trace
// line reaches the host log callback intact. Exits 0 only if it does.
#include "system_wrappers.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <regex>
#include <string>

namespace {

const char kText[] = "hello from consumer";

int g_calls = 0;      // lines carrying kText
int g_malformed = 0;  // calls not shaped (7, level, "%s", line)
std::string g_bad_format;
int g_level = -1;
std::string g_line;

void OnLog(int module, int level, const char* format, ...) {
    // Every call must be (7, level, "%s", line); with any other format the
    // line argument cannot be read safely, so just record the fault.
    if (module != 7 || format == nullptr || std::strcmp(format, "%s") != 0) {
        ++g_malformed;
        g_bad_format = format != nullptr ? format : "(null)";
        return;
    }
    va_list args;
    va_start(args, format);
    const char* line = va_arg(args, const char*);
    va_end(args);
    // The library may trace lines of its own; only ours is checked.
    if (line == nullptr || std::strstr(line, kText) == nullptr) return;
    ++g_calls;
    g_level = level;
    g_line = line;
}

}  // namespace

int main() {
    CMyTrace_::SetLogCallback(OnLog);

    CMyTextFormat text;
    text << kText;
    unsigned int length = 0;
    const char* content = text.GetContent(length);
    CMyTrace_::Write(MTRACE_OUTPUT_CALLBACK, MTRACE_LEVEL_INFO, content, length);

    const std::string expected = "\\[I:ENG\\+" + std::to_string(getpid()) + ":" +
                                 std::to_string(syscall(SYS_gettid)) + "\\] [0-9]+\\.[0-9]{6} " +
                                 kText + "\n";
    const bool ok = g_malformed == 0 && g_calls == 1 && g_level == 1 &&
                    std::regex_match(g_line, std::regex(expected));
    if (!ok) {
        std::fprintf(stderr,
                     "consumer: malformed calls=%d (last format \"%s\"), calls=%d level=%d "
                     "line=\"%s\"\n"
                     "consumer: expected one call (7, 1, \"%%s\", line) with line matching "
                     "\"%s\"\n",
                     g_malformed, g_bad_format.c_str(), g_calls, g_level, g_line.c_str(),
                     expected.c_str());
        return 1;
    }
    std::printf("consumer: received \"%.*s\"\n", static_cast<int>(g_line.size() - 1),
                g_line.c_str());
    return 0;
}
