// The demo's command-line parsing: any argument list gives a run within the
// documented ranges, help, or an error that says what was wrong.
#include <math.h>

#include <vector>

#include "demo_options.h"
#include "fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    // Arguments are the input's zero-separated pieces, after the program's name.
    std::vector<std::string> args{"sw_demo"};
    for (size_t i = 0; i < aSize; ++i) {
        if (aData[i] == 0) {
            args.emplace_back();
        } else {
            args.back() += static_cast<char>(aData[i]);
        }
    }
    std::vector<const char*> argv;
    for (const std::string& arg : args) argv.push_back(arg.c_str());
    const int argc = static_cast<int>(argv.size());
    demo::Options options;
    std::string error;
    const demo::ParseResult result = demo::ParseOptions(argc, argv.data(), options, error);
    FUZZ_CHECK(error.empty() == (result != demo::ParseResult::kError));
    if (result == demo::ParseResult::kRun) {
        FUZZ_CHECK(options.backend == 0 || options.backend == 1);
        FUZZ_CHECK(options.connections >= 1 &&
                   options.connections <= (options.backend == 0 ? 500 : 1000000));
        FUZZ_CHECK(options.messages >= 1 && options.messages <= 1000000000);
        FUZZ_CHECK(options.size >= 1 && options.size <= 16777216);
        FUZZ_CHECK(options.workers >= 1 && options.workers <= 64 && options.port <= 65535);
        FUZZ_CHECK(options.duration == 0 || (isfinite(options.duration) && options.duration > 0 &&
                                             options.duration <= 31536000));
        FUZZ_CHECK(options.logLevel >= 0 && options.logLevel <= 4);
        FUZZ_CHECK(options.streams >= 1 && options.streams <= 1000 && options.period >= 1 &&
                   options.period <= 1000 && options.load <= 64);
        FUZZ_CHECK(options.frame >= demo::kFrameHeaderBytes && options.frame <= demo::kMaxTcpFrame);
        // A media run has what its transport and back end can carry, and no echo mode.
        FUZZ_CHECK(!options.media ||
                   ((options.tcp || options.frame <= demo::kMaxUdpFrame) &&
                    (options.backend == 1 || options.streams <= 500) && !options.serve));
    }
    // The same arguments read the same way again.
    demo::Options again;
    std::string againError;
    FUZZ_CHECK(demo::ParseOptions(argc, argv.data(), again, againError) == result &&
               againError == error && again.shmKey == options.shmKey &&
               again.connections == options.connections && again.serve == options.serve &&
               again.backend == options.backend && again.media == options.media &&
               again.streams == options.streams && again.frame == options.frame &&
               again.tcp == options.tcp);
    return 0;
}
