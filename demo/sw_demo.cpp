// sw_demo: a small engine built on libSystemWrappers through its public
// headers only. A reactor thread serves TCP echo on 127.0.0.1 (echo_service);
// client connections on a second reactor thread send messages that worker
// task threads build and check byte by byte (echo_clients). With --media,
// timed streams send frames to a receiver instead (media). This file holds
// main: the host log callback and the start and shutdown order (the command
// line is read by demo_options).
// Trace lines go to standard error (and optionally the rotating trace files)
// and into the shared-memory log channel that sw_shmlog reads.
//
// Exit codes: 0 every echo matched (every frame arrived intact, once and in
// order), 1 the run failed, 2 bad command line.
#include <dirent.h>
#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/select.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <vector>

#include "demo_options.h"
#include "demo_support.h"
#include "echo_clients.h"
#include "echo_service.h"
#include "media.h"
#include "system_wrappers.h"

namespace {

using namespace demo;

// ---------------------------------------------------------------------------
// Logging: every trace line of the library and of the demo reaches OnLog.

// The command line reads --log as these trace levels (and off as 4).
static_assert(MTRACE_LEVEL_DEBUG == 0 && MTRACE_LEVEL_WARNING == 2 && MTRACE_LEVEL_ERROR == 3);
std::atomic<int> gStderrLevel{MTRACE_LEVEL_WARNING};
std::atomic<bool> gFileTrace{false};
// Set before the first thread starts and cleared after the last one is gone.
std::atomic<SharedMemImpl*> gChannel{nullptr};

// The text after the "[W:ENG+pid:tid] sec.usec " prefix.
const char* LineBody(const char* aLine) {
    const char* bracket = strstr(aLine, "] ");
    if (!bracket) return aLine;
    const char* space = strchr(bracket + 2, ' ');
    return space ? space + 1 : aLine;
}

void OnLog(int, int aLevel, const char* aFormat, ...) {
    va_list args;
    va_start(args, aFormat);
    const char* line = va_arg(args, const char*);
    va_end(args);
    if (!line) return;
    const size_t length = strlen(line);
    if (aLevel >= gStderrLevel.load(std::memory_order_relaxed)) fputs(line, stderr);
    // The channel's own threshold (warning unless sw_shmlog changes it) decides
    // what it keeps.
    if (SharedMemImpl* channel = gChannel.load(std::memory_order_acquire)) {
        channel->Write(reinterpret_cast<const unsigned char*>(line),
                       static_cast<unsigned int>(length), static_cast<MTRACE_LEVEL_TYPE>(aLevel));
    }
    if (gFileTrace.load(std::memory_order_relaxed)) {
        // The file output stamps its own prefix.
        const char* body = LineBody(line);
        size_t bodyLength = length - static_cast<size_t>(body - line);
        if (bodyLength > 0 && body[bodyLength - 1] == '\n') --bodyLength;
        CMyTrace_::Write(MTRACE_OUTPUT_FILE, static_cast<MTRACE_LEVEL_TYPE>(aLevel), body,
                         static_cast<unsigned int>(bodyLength));
    }
}

// ---------------------------------------------------------------------------
// Descriptors

// Options::backend holds the reactor's back-end numbers.
static_assert(ComNetReactor::BACKEND_SELECT == 0 && ComNetReactor::BACKEND_EPOLL == 1);

// Besides two a connection (client and session) or a media stream (sender and
// receiver): the listener, each reactor's wake-up (three descriptors while it
// opens) and the trace files, with room to spare.
const unsigned long long kOwnDescriptors = 16;

// The descriptors open now: the standard streams and whatever the parent left open.
unsigned long long OpenDescriptors() {
    DIR* dir = opendir("/proc/self/fd");
    if (!dir) return 3;
    unsigned long long count = 0;
    while (readdir(dir)) ++count;
    closedir(dir);
    return count - 3;  // ".", ".." and the directory's own
}

// With epoll, raises the soft descriptor limit to the hard one. aNote says what
// the first line reports; false, with aError, when the client connections (or
// media streams) do not fit in what the back end can use.
bool PrepareDescriptors(const Options& aOptions, std::string& aNote, std::string& aError) {
    const bool epoll = aOptions.backend == ComNetReactor::BACKEND_EPOLL;
    aNote = epoll ? "epoll back end" : "select back end";
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return true;  // unknown: connects will tell
    const unsigned long long soft = limit.rlim_cur;
    if (epoll && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        if (setrlimit(RLIMIT_NOFILE, &limit) == 0) {
            aNote += ", descriptor limit raised from " + std::to_string(soft) + " to " +
                     std::to_string(static_cast<unsigned long long>(limit.rlim_max));
        } else {
            fprintf(stderr, "sw_demo: cannot raise the descriptor limit from %llu: %s\n", soft,
                    strerror(errno));
            limit.rlim_cur = soft;
        }
    }
    if (epoll && limit.rlim_cur == soft) aNote += ", descriptor limit " + std::to_string(soft);
    if (aOptions.serve) return true;
    // select() watches descriptors below FD_SETSIZE only.
    const unsigned long long usable =
        epoll ? limit.rlim_cur : std::min<unsigned long long>(limit.rlim_cur, FD_SETSIZE);
    const unsigned long long own = OpenDescriptors() + kOwnDescriptors;
    const unsigned long count = aOptions.media ? aOptions.streams : aOptions.connections;
    const unsigned long long needed = own + 2ull * count;
    if (needed <= usable) return true;
    aError = std::string(aOptions.media ? "--streams " : "--connections ") + std::to_string(count) +
             " needs " + std::to_string(needed) + " descriptors, more than the " +
             std::to_string(usable) + " the " + (epoll ? "epoll" : "select") +
             " back end can use here (at most " +
             std::to_string(usable > own ? (usable - own) / 2 : 0) +
             (aOptions.media ? " streams)" : " connections)");
    return false;
}

// ---------------------------------------------------------------------------
// main

struct Service {
    ComReactorThread* thread = nullptr;
    EchoService* echo = nullptr;
};

bool StartService(const Options& aOptions, Service& aService) {
    ComThreadManger* manager = ComThreadManger::GetInstance();
    if (manager->CreateReactorThread(aService.thread) != COM_OK) {
        fprintf(stderr, "sw_demo: cannot start the service's reactor thread\n");
        return false;
    }
    aService.echo = new EchoService(aService.thread);
    EchoService* echo = aService.echo;
    const unsigned short port = static_cast<unsigned short>(aOptions.port);
    // Handles are registered on the reactor thread itself.
    if (RunOn(aService.thread->GetEventQueue(), [echo, port] { return echo->Open(port); }) !=
        COM_OK) {
        fprintf(stderr, "sw_demo: cannot listen on 127.0.0.1:%u\n", port);
        return false;
    }
    return true;
}

bool StopService(Service& aService) {
    bool ok = true;
    if (aService.thread) {
        // The reactor's shutdown closes the listener and every session.
        ok = ComThreadManger::GetInstance()->DestroyThread(aService.thread) == COM_OK;
        aService.thread = nullptr;
    }
    delete aService.echo;
    aService.echo = nullptr;
    return ok;
}

int Serve(const Options& aOptions, const std::string& aNote) {
    Service service;
    if (!StartService(aOptions, service)) {
        StopService(service);
        return 1;
    }
    printf("sw_demo: echo service on 127.0.0.1:%u; %s; stop it with Ctrl-C\n",
           static_cast<unsigned>(service.echo->m_port.load()), aNote.c_str());
    fflush(stdout);
    const Clock::time_point end =
        Clock::now() + std::chrono::duration_cast<Clock::duration>(
                           std::chrono::duration<double>(aOptions.duration));
    int signal = 0;
    while (signal == 0 && (aOptions.duration == 0 || Clock::now() < end)) {
        signal = WaitForSignal(200);
    }
    const uint64_t accepted = service.echo->m_accepted.load();
    const uint64_t bytes = service.echo->m_bytes.load();
    const bool ok = StopService(service);
    printf("sw_demo: %s; served %llu connections, echoed %llu bytes\n",
           signal == SIGINT    ? "SIGINT"
           : signal == SIGTERM ? "SIGTERM"
                               : "time is up",
           static_cast<unsigned long long>(accepted), static_cast<unsigned long long>(bytes));
    return ok ? 0 : 1;
}

int RunClients(const Options& aOptions, const std::string& aNote) {
    ComThreadManger* manager = ComThreadManger::GetInstance();
    Service service;
    Run run(aOptions);
    std::vector<ClientConnection*> connections;
    Progress progress(run);
    bool ok = StartService(aOptions, service);

    run.workers.resize(aOptions.workers);
    for (Worker& worker : run.workers) {
        if (ok && manager->CreateTaskThread(worker.thread) != COM_OK) {
            fprintf(stderr, "sw_demo: cannot start a worker thread\n");
            ok = false;
        }
    }
    if (ok && manager->CreateReactorThread(run.clientThread) != COM_OK) {
        fprintf(stderr, "sw_demo: cannot start the clients' reactor thread\n");
        ok = false;
    }
    if (ok) {
        const unsigned short port = service.echo->m_port.load();
        char amount[64];
        if (aOptions.duration > 0) {
            snprintf(amount, sizeof(amount), "%g s of messages", aOptions.duration);
        } else {
            snprintf(amount, sizeof(amount), "%lu messages", aOptions.messages);
        }
        printf(
            "sw_demo: echo service on 127.0.0.1:%u; %s; %lu connections x %s of %lu bytes, "
            "%lu workers\n",
            static_cast<unsigned>(port), aNote.c_str(), aOptions.connections, amount, aOptions.size,
            aOptions.workers);
        fflush(stdout);
        for (unsigned long i = 0; i < aOptions.connections && ok; ++i) {
            ClientConnection* connection = new ClientConnection(run, static_cast<uint32_t>(i));
            connections.push_back(connection);
            if (RunOn(run.clientThread->GetEventQueue(),
                      [connection, port] { return connection->Connect(port); }) != COM_OK) {
                fprintf(stderr, "sw_demo: connection %lu cannot connect to 127.0.0.1:%u\n", i,
                        static_cast<unsigned>(port));
                ok = false;
            }
        }
    }

    int signal = 0;
    bool stalled = false;
    if (ok) {
        run.start = Clock::now();
        run.deadline = run.start + std::chrono::duration_cast<Clock::duration>(
                                       std::chrono::duration<double>(aOptions.duration));
        ComTaskThread* first = run.workers[0].thread;
        RunOn(first->GetEventQueue(), [&progress] {
            return progress.m_timer.Schedule(&progress, ComTimeValueType(1, 0), 0);
        });
        for (ClientConnection* connection : connections) run.Start(connection);
        // A run that makes no progress for this long is reported as stalled.
        const auto kStallLimit = std::chrono::seconds(30);
        uint64_t lastCount = 0;
        Clock::time_point lastChange = Clock::now();
        while (run.finished.load() < connections.size()) {
            signal = WaitForSignal(100);
            if (signal) break;
            const uint64_t count = run.messages.load();
            if (count != lastCount) {
                lastCount = count;
                lastChange = Clock::now();
            } else if (Clock::now() - lastChange > kStallLimit) {
                stalled = true;
                break;
            }
        }
        RunOn(first->GetEventQueue(), [&progress] { return progress.m_timer.Cancel(); });
    }
    const Clock::rep end = run.endTime.load();
    const Clock::time_point endTime = end ? Clock::time_point(Clock::duration(end)) : Clock::now();
    const double seconds = std::chrono::duration<double>(endTime - run.start).count();

    // Shutdown: no more cross-thread posts, then every thread in turn.
    run.stopping = true;
    run.router.Close();
    bool clean = true;
    if (run.clientThread) clean = manager->DestroyThread(run.clientThread) == COM_OK && clean;
    for (Worker& worker : run.workers) {
        if (worker.thread) clean = manager->DestroyThread(worker.thread) == COM_OK && clean;
    }
    clean = StopService(service) && clean;
    for (ClientConnection* connection : connections) delete connection;
    if (!ok) return 1;

    Histogram rtt;
    for (const Worker& worker : run.workers) rtt.Merge(worker.rtt);
    const uint64_t messages = run.messages.load();
    const uint64_t bytes = run.bytes.load();
    const uint64_t expected =
        aOptions.duration > 0 ? messages : aOptions.connections * aOptions.messages;
    const double rate = seconds > 0 ? static_cast<double>(messages) / seconds : 0;
    const double mib = static_cast<double>(bytes) / (1024.0 * 1024.0);

    std::string problem;
    if (signal) {
        problem = signal == SIGINT ? "interrupted by SIGINT" : "interrupted by SIGTERM";
    } else if (stalled) {
        problem = "no echo arrived for 30 s";
    } else if (!run.firstFailure.empty()) {
        problem = run.firstFailure;
    } else if (messages != expected) {
        problem = "only " + std::to_string(messages) + " of " + std::to_string(expected) +
                  " messages came back";
    } else if (!clean) {
        problem = "a thread did not shut down cleanly";
    }
    printf("summary:\n");
    printf("  connections  %lu (%lu failed)\n", aOptions.connections, run.failed.load());
    printf("  messages     %llu of %lu bytes (%llu expected, %llu mismatched)\n",
           static_cast<unsigned long long>(messages), aOptions.size,
           static_cast<unsigned long long>(expected),
           static_cast<unsigned long long>(run.mismatches.load()));
    printf("  bytes        %llu each way\n", static_cast<unsigned long long>(bytes));
    printf("  elapsed      %.3f s\n", seconds);
    printf("  throughput   %.0f msg/s, %.1f MiB/s each way\n", rate,
           seconds > 0 ? mib / seconds : 0);
    printf("  round trip   p50 %.0f us, p99 %.0f us, max %.0f us\n", rtt.Quantile(0.5),
           rtt.Quantile(0.99), rtt.MaxMicros());
    if (problem.empty()) {
        printf("  result       OK, every echoed byte matched\n");
    } else {
        printf("  result       FAILED: %s\n", problem.c_str());
    }
    fflush(stdout);
    return problem.empty() ? 0 : 1;
}

}  // namespace

int main(int aArgc, char** aArgv) {
    Options options;
    options.backend = ComNetReactor::get_default_backend();
    std::string error;
    const ParseResult parsed = ParseOptions(aArgc, aArgv, options, error);
    if (parsed == ParseResult::kHelp) {
        fputs(kUsage, stdout);
        return 0;
    }
    std::string note;
    if (parsed == ParseResult::kError || !PrepareDescriptors(options, note, error)) {
        fprintf(stderr, "sw_demo: %s\nrun 'sw_demo --help' for the options\n", error.c_str());
        return 2;
    }

    // Signals are taken by the main thread only; every thread started later
    // inherits the mask, so a Ctrl-C cannot interrupt a reactor's select().
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    gStderrLevel = options.logLevel;
    gFileTrace = options.traceFiles;
    CMyTrace_::SetLogCallback(OnLog);
    // Every reactor thread is created after this.
    if (ComNetReactor::set_default_backend(options.backend) != 0) {
        fprintf(stderr, "sw_demo: no %s back end on this system\n",
                options.backend == ComNetReactor::BACKEND_EPOLL ? "epoll" : "select");
        CMyTrace_::SetLogCallback(nullptr);
        return 1;
    }

    if (!options.shmKey.empty()) gSharedMemName = options.shmKey.c_str();
    SharedMemImpl* channel = new SharedMemImpl(true);
    if (channel->IsGood() && channel->UpdateFlag(0, MTRACE_LEVEL_WARNING) == 0) {
        gChannel = channel;
    } else {
        fprintf(stderr, "sw_demo: no shared-memory log channel under %s; going on without it\n",
                gSharedMemName);
    }

    const int rv = options.media   ? RunMedia(options, note)
                   : options.serve ? Serve(options, note)
                                   : RunClients(options, note);

    // Every library thread is gone: nobody writes to the channel any more.
    gChannel = nullptr;
    delete channel;
    CMyTrace_::SetLogCallback(nullptr);
    return rv;
}
