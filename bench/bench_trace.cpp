// Trace: one formatted line to a host callback that does nothing, to the
// rotating trace file, and to nobody at all; spdlog does the same line with a
// null sink, a basic file sink and its level off. The files land in the
// working directory, which scripts/bench.sh makes a scratch one.
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>

#include <memory>

#include "bench_support.h"

namespace {

// The same fields in the same order on both sides: about 80 characters.
constexpr int kFd = 17;
constexpr unsigned long kBytes = 1500;
const void* const kThis = reinterpret_cast<const void*>(0x7f3a5c001230);

void WriteLine(MTRACE_OUTPUT_WHERE_TYPE aWhere) {
    CMyTextFormat text;
    text << "[BENCH]:EchoSession::on_input, received, fd=" << kFd << ", bytes=" << kBytes
         << ", this=" << kThis;
    unsigned int length = 0;
    const char* content = text.GetContent(length);
    CMyTrace_::Write(aWhere, MTRACE_LEVEL_INFO, content, length);
}

void LogLine(spdlog::logger& aLogger) {
    aLogger.info("[BENCH]:EchoSession::on_input, received, fd={}, bytes={}, this={}", kFd, kBytes,
                 kThis);
}

void IgnoreLine(int, int, const char*, ...) {}

void CallbackLib(benchmark::State& aState) {
    CMyTrace_::SetLogCallback(IgnoreLine);
    for (auto _ : aState) WriteLine(MTRACE_OUTPUT_CALLBACK);
    CMyTrace_::SetLogCallback(nullptr);
}

void CallbackSpdlog(benchmark::State& aState) {
    spdlog::logger logger("bench", std::make_shared<spdlog::sinks::null_sink_mt>());
    for (auto _ : aState) LogLine(logger);
}

void FileLib(benchmark::State& aState) {
    for (auto _ : aState) WriteLine(MTRACE_OUTPUT_FILE);
}

void FileSpdlog(benchmark::State& aState, bool aFlushEachLine) {
    spdlog::logger logger(
        "bench", std::make_shared<spdlog::sinks::basic_file_sink_mt>("spdlog_bench.log", true));
    if (aFlushEachLine) logger.flush_on(spdlog::level::info);
    for (auto _ : aState) LogLine(logger);
}

// Nobody listens: no callback installed, or the logger's level is off.
void UnheardLib(benchmark::State& aState) {
    CMyTrace_::SetLogCallback(nullptr);
    for (auto _ : aState) WriteLine(MTRACE_OUTPUT_CALLBACK);
}

void UnheardSpdlog(benchmark::State& aState) {
    spdlog::logger logger("bench", std::make_shared<spdlog::sinks::null_sink_mt>());
    logger.set_level(spdlog::level::off);
    for (auto _ : aState) LogLine(logger);
}

// The stamp every line gets before delivery: clock, process, thread, time.
void PrefixLib(benchmark::State& aState) {
    CMyTraceImpl_* impl =
        CMyTraceImpl_::Instance(MTRACE_LEVEL_INFO, "zemtrace", 512, 1, 2, 52428800);
    BENCH_REQUIRE(aState, impl != nullptr);
    char prefix[128];
    for (auto _ : aState) {
        benchmark::DoNotOptimize(impl->GetTracePrefix(MTRACE_LEVEL_INFO, prefix, sizeof(prefix)));
    }
}

const bool kRegistered = [] {
    using bench::Name;
    benchmark::RegisterBenchmark(Name("trace_callback", bench::kLib).c_str(), CallbackLib);
    benchmark::RegisterBenchmark(Name("trace_callback", bench::kSpdlog).c_str(), CallbackSpdlog);
    benchmark::RegisterBenchmark(Name("trace_file", bench::kLib).c_str(), FileLib);
    benchmark::RegisterBenchmark(Name("trace_file", bench::kSpdlog).c_str(), FileSpdlog, false);
    // The library flushes every file line; this is what that costs spdlog.
    benchmark::RegisterBenchmark("mechanism_file_flush/spdlog_flush_each_line", FileSpdlog, true);
    benchmark::RegisterBenchmark("mechanism_trace_prefix/lib", PrefixLib);
    benchmark::RegisterBenchmark(Name("trace_unheard", bench::kLib).c_str(), UnheardLib);
    benchmark::RegisterBenchmark(Name("trace_unheard", bench::kSpdlog).c_str(), UnheardSpdlog);
    return true;
}();

}  // namespace
