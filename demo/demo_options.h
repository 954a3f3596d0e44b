// The demo's command line: what it chose and how it is read. Reading never
// prints, exits or throws, so anything may be handed to it (main prints and
// exits; a fuzz target just calls it).
#ifndef SW_DEMO_DEMO_OPTIONS_H_
#define SW_DEMO_DEMO_OPTIONS_H_

#include <string>

namespace demo {

// What the command line chose; a field keeps its default unless given.
struct Options {
    unsigned long connections = 4;   // 1 to 1000000, at most 500 with select
    unsigned long messages = 10000;  // 1 to 1000000000
    unsigned long size = 1024;       // 1 to 16777216
    unsigned long workers = 2;       // 1 to 64
    unsigned long port = 0;          // 0 to 65535, 0: the system picks
    double duration = 0;             // 0: not given, else seconds in (0, 31536000]
    int logLevel = 2;                // trace level: debug 0 to error 3, 4: off
    bool traceFiles = false;
    std::string shmKey;  // empty: not given (a given one is never empty)
    bool serve = false;
    // The reactors' back end in ComNetReactor's numbers: 0 select, 1 epoll.
    // main starts it from the library's default.
    int backend = 0;
    // Media mode; its options are refused without --media and the echo
    // mode's (--connections to --port, --serve) with it.
    bool media = false;
    unsigned long streams = 8;   // 1 to 1000, at most 500 with select
    unsigned long period = 10;   // milliseconds, 1 to 1000
    unsigned long frame = 1200;  // kFrameHeaderBytes to kMaxUdpFrame (kMaxTcpFrame over tcp)
    unsigned long load = 0;      // busy threads, 0 to 64
    bool tcp = false;            // the transport: udp unless --transport tcp
};

// A media frame's header (length, stream, sequence number, send time) comes
// first, so a frame is at least that long.
const unsigned long kFrameHeaderBytes = 24;
// What one UDP datagram over IPv4 carries.
const unsigned long kMaxUdpFrame = 65507;
// Frames in a byte stream are bounded so that a receiver's buffer is too.
const unsigned long kMaxTcpFrame = 1048576;
// Media runs this long unless --duration says otherwise.
const double kDefaultMediaSeconds = 10;

enum class ParseResult { kRun, kHelp, kError };

// Reads aArgv[1] to aArgv[aArgc - 1] (aArgv[0], the program's name, is not
// read; a null entry ends the list early) into aOptions, left to right.
// kHelp: --help or -h came before any mistake; kError: aError says what was
// wrong (the first mistake; one between options, such as too many connections
// for select, is found after the whole list); kRun: run with aOptions.
ParseResult ParseOptions(int aArgc, const char* const* aArgv, Options& aOptions,
                         std::string& aError);

// What --help prints.
extern const char kUsage[];

}  // namespace demo

#endif  // SW_DEMO_DEMO_OPTIONS_H_
