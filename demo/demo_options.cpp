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
    "With --media it streams timed media frames instead (see below).\n"
    "\n"
    "  --connections N   client connections (default 4): at most 500 with select,\n"
    "                    with epoll as many as the descriptor limit allows\n"
    "  --messages N      messages per connection (default 10000)\n"
    "  --size BYTES      bytes per message (default 1024, at most 16777216)\n"
    "  --workers N       worker task threads that build and check messages (default 2)\n"
    "  --port N          port of the echo service (default 0: the system picks)\n"
    "  --duration SEC    send for SEC seconds instead of a fixed message count;\n"
    "                    with --serve, stop serving after SEC seconds; with\n"
    "                    --media, stream for SEC seconds (default 10)\n"
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
    "  --help            show this text\n"
    "\n"
    "Media mode: every stream is a task thread whose periodic timer builds a\n"
    "numbered frame on each tick; a sender reactor thread sends it, a receiver\n"
    "reactor thread checks every byte and measures timer lateness and latency.\n"
    "Exit code 0 when every frame arrived intact, once and in order.\n"
    "  --media           run the media mode (with --duration, --backend and the\n"
    "                    log options above, not the echo options)\n"
    "  --streams N       streams, each a task thread and a socket (default 8, at\n"
    "                    most 1000; at most 500 with select)\n"
    "  --period MS       time between a stream's frames (default 10 ms, 1 to 1000)\n"
    "  --frame BYTES     bytes per frame, its 24-byte header included (default 1200;\n"
    "                    at most 65507, one datagram, over udp and 1048576 over tcp)\n"
    "  --load N          busy threads competing for processors (default 0, at most 64)\n"
    "  --transport NAME  udp (default, one datagram a frame) or tcp (one connection a\n"
    "                    stream, frames back to back)\n";

namespace {

// Two descriptors a connection (client and session) or a media stream (sender
// and receiver) and the demo's own stay below the 1024 that select() can watch.
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
    std::string firstMediaOnly;
    std::string firstEchoOnly;
    for (int i = 1; i < argc; ++i) {
        std::string name = aArgv[i];
        const char* value = nullptr;
        const size_t equals = name.find('=');
        if (name.compare(0, 2, "--") == 0 && equals != std::string::npos) {
            value = aArgv[i] + equals + 1;
            name.resize(equals);
        }
        if (name == "--help" || name == "-h") return ParseResult::kHelp;
        // The first option given that belongs to one mode only, to refuse it in the other.
        const bool mediaOnly = name == "--streams" || name == "--period" || name == "--frame" ||
                               name == "--load" || name == "--transport";
        const bool echoOnly = name == "--connections" || name == "--messages" || name == "--size" ||
                              name == "--workers" || name == "--port" || name == "--serve";
        if (mediaOnly && firstMediaOnly.empty()) firstMediaOnly = name;
        if (echoOnly && firstEchoOnly.empty()) firstEchoOnly = name;
        if (name == "--trace-files" || name == "--serve" || name == "--media") {
            if (value) {
                aError = name + " takes no value";
                return ParseResult::kError;
            }
            (name == "--serve"   ? aOptions.serve
             : name == "--media" ? aOptions.media
                                 : aOptions.traceFiles) = true;
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
            {"--streams", 1, 1000, &aOptions.streams},
            {"--period", 1, 1000, &aOptions.period},
            {"--frame", kFrameHeaderBytes, kMaxTcpFrame, &aOptions.frame},
            {"--load", 0, 64, &aOptions.load},
        };
        const Numeric* numeric = nullptr;
        for (const Numeric& candidate : numerics) {
            if (name == candidate.name) numeric = &candidate;
        }
        const bool known = numeric || name == "--duration" || name == "--log" ||
                           name == "--shm-key" || name == "--backend" || name == "--transport";
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
                const std::string range = name == "--frame"
                                              ? " (its header) to " + std::to_string(kMaxUdpFrame) +
                                                    " over udp or " + std::to_string(kMaxTcpFrame) +
                                                    " over tcp"
                                              : " to " + std::to_string(numeric->max);
                aError = name + " takes a whole number from " + std::to_string(numeric->min) +
                         range + ", not '" + value + "'";
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
        } else if (name == "--transport") {
            if (strcmp(value, "udp") != 0 && strcmp(value, "tcp") != 0) {
                aError = "--transport takes udp or tcp, not '" + std::string(value) + "'";
                return ParseResult::kError;
            }
            aOptions.tcp = strcmp(value, "tcp") == 0;
        } else {
            if (*value == '\0') {
                aError = "--shm-key needs a path";
                return ParseResult::kError;
            }
            aOptions.shmKey = value;
        }
    }
    if (aOptions.media) {
        if (!firstEchoOnly.empty()) {
            aError = firstEchoOnly + " is an option of the echo mode, not of --media";
            return ParseResult::kError;
        }
        if (!aOptions.tcp && aOptions.frame > kMaxUdpFrame) {
            aError = "--frame takes at most " + std::to_string(kMaxUdpFrame) +
                     " bytes over udp (one datagram), not " + std::to_string(aOptions.frame) +
                     "; --transport tcp allows " + std::to_string(kMaxTcpFrame);
            return ParseResult::kError;
        }
        if (aOptions.backend == 0 && aOptions.streams > kSelectConnections) {
            aError = "--streams takes at most " + std::to_string(kSelectConnections) +
                     " with the select back end, not " + std::to_string(aOptions.streams) +
                     "; --backend epoll allows more";
            return ParseResult::kError;
        }
        return ParseResult::kRun;
    }
    if (!firstMediaOnly.empty()) {
        aError = firstMediaOnly + " is an option of --media";
        return ParseResult::kError;
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
