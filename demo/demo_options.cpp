#include "demo_options.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <cmath>

namespace demo {

const char kUsage[] =
    "usage: sw_demo [options]\n"
    "\n"
    "Runs a TCP echo service and clients on library threads, checks every echoed\n"
    "byte and prints a summary. Exit code 0 when every echo matched.\n"
    "\n"
    "  --connections N   client connections (default 4): at most 500 with select,\n"
    "                    with epoll as many as the descriptor limit allows\n"
    "  --messages N      messages per connection (default 10000)\n"
    "  --size BYTES      bytes per message (default 1024, at most 16777216)\n"
    "  --workers N       worker task threads that build and check messages (default 2)\n"
    "  --port N          port of the echo service (default 0: the system picks)\n"
    "  --duration SEC    send for SEC seconds instead of a fixed message count;\n"
    "                    with --serve, stop serving after SEC seconds\n"
    "  --log LEVEL       trace lines on standard error from LEVEL up:\n"
    "                    debug, info, warning (default), error or off\n"
    "  --trace-files     also write every trace line, whatever --log says, to\n"
    "                    zemtrace_linux_0.log and zemtrace_linux_1.log in the\n"
    "                    working directory\n"
    "  --shm-key PATH    key file of the shared-memory log channel\n"
    "                    (default /tmp/orvanite_sharedmem)\n"
    "  --serve           only serve echo until SIGINT or SIGTERM\n"
    "  --backend NAME    what the reactors wait with: select or epoll (default: the\n"
    "                    library's, select unless it was built otherwise); epoll\n"
    "                    raises the soft descriptor limit to the hard one\n"
    "  --help            show this text\n";

namespace {

// Two descriptors a connection (client and session) and the demo's own stay
// below the 1024 that select() can watch.
const unsigned long kSelectConnections = 500;

bool ParseCount(const char* aText, unsigned long aMin, unsigned long aMax, unsigned long& aOut) {
    if (!aText || *aText < '0' || *aText > '9') return false;
    char* end = nullptr;
    errno = 0;
    const unsigned long long value = strtoull(aText, &end, 10);
    if (errno != 0 || *end != '\0' || value < aMin || value > aMax) return false;
    aOut = static_cast<unsigned long>(value);
    return true;
}

}  // namespace

ParseResult ParseOptions(int aArgc, const char* const* aArgv, Options& aOptions,
                         std::string& aError) {
    int argc = 0;
    while (aArgv && argc < aArgc && aArgv[argc]) ++argc;
    for (int i = 1; i < argc; ++i) {
        std::string name = aArgv[i];
        const char* value = nullptr;
        const size_t equals = name.find('=');
        if (name.compare(0, 2, "--") == 0 && equals != std::string::npos) {
            value = aArgv[i] + equals + 1;
            name.resize(equals);
        }
        if (name == "--help" || name == "-h") return ParseResult::kHelp;
        if (name == "--trace-files" || name == "--serve") {
            if (value) {
                aError = name + " takes no value";
                return ParseResult::kError;
            }
            (name == "--serve" ? aOptions.serve : aOptions.traceFiles) = true;
            continue;
        }
        struct Numeric {
            const char* name;
            unsigned long min;
            unsigned long max;
            unsigned long* out;
        };
        const Numeric numerics[] = {
            {"--connections", 1, 1000000, &aOptions.connections},
            {"--messages", 1, 1000000000, &aOptions.messages},
            {"--size", 1, 16 * 1024 * 1024, &aOptions.size},
            {"--workers", 1, 64, &aOptions.workers},
            {"--port", 0, 65535, &aOptions.port},
        };
        const Numeric* numeric = nullptr;
        for (const Numeric& candidate : numerics) {
            if (name == candidate.name) numeric = &candidate;
        }
        const bool known = numeric || name == "--duration" || name == "--log" ||
                           name == "--shm-key" || name == "--backend";
        if (!known) {
            aError = "unknown option '" + name + "'";
            return ParseResult::kError;
        }
        if (!value) {
            if (i + 1 >= argc) {
                aError = name + " needs a value";
                return ParseResult::kError;
            }
            value = aArgv[++i];
        }
        if (numeric) {
            if (!ParseCount(value, numeric->min, numeric->max, *numeric->out)) {
                aError = name + " takes a whole number from " + std::to_string(numeric->min) +
                         " to " + std::to_string(numeric->max) + ", not '" + value + "'";
                return ParseResult::kError;
            }
        } else if (name == "--duration") {
            char* end = nullptr;
            const double seconds = strtod(value, &end);
            if (end == value || *end != '\0' || !std::isfinite(seconds) || seconds <= 0 ||
                seconds > 31536000) {
                aError = "--duration takes a positive number of seconds, not '" +
                         std::string(value) + "'";
                return ParseResult::kError;
            }
            aOptions.duration = seconds;
        } else if (name == "--log") {
            const char* const levels[] = {"debug", "info", "warning", "error", "off"};
            int level = -1;
            for (int k = 0; k < 5; ++k) {
                if (strcmp(value, levels[k]) == 0) level = k;
            }
            if (level < 0) {
                aError = "--log takes debug, info, warning, error or off, not '" +
                         std::string(value) + "'";
                return ParseResult::kError;
            }
            aOptions.logLevel = level;
        } else if (name == "--backend") {
            if (strcmp(value, "select") != 0 && strcmp(value, "epoll") != 0) {
                aError = "--backend takes select or epoll, not '" + std::string(value) + "'";
                return ParseResult::kError;
            }
            aOptions.backend = strcmp(value, "epoll") == 0 ? 1 : 0;
        } else {
            if (*value == '\0') {
                aError = "--shm-key needs a path";
                return ParseResult::kError;
            }
            aOptions.shmKey = value;
        }
    }
    if (aOptions.backend == 0 && aOptions.connections > kSelectConnections) {
        aError = "--connections takes at most " + std::to_string(kSelectConnections) +
                 " with the select back end, not " + std::to_string(aOptions.connections) +
                 "; --backend epoll allows more";
        return ParseResult::kError;
    }
    return ParseResult::kRun;
}

}  // namespace demo
