// The trace facility: the library's lines reach the host only through the log
// callback; standard output and the rotating trace files get only what a
// caller sends there; the shared-memory log channel carries lines to readers
// in other processes. Trace files are written in a temporary working directory.
#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "ComThreadManger.h"
#include "mtrace.h"
#include "mtrace_shared_mem.h"
#include "thread_wrapper.h"

namespace fs = std::filesystem;

namespace {

struct Line {
    int level;
    std::string text;
    uint32_t thread;  // the kernel id of the thread that ran the callback
};
std::mutex gMutex;  // the callback runs on whichever thread traces
std::vector<Line> gLines;
SharedMemImpl* gChannel = nullptr;

// Called with 7, the level (0 debug .. 3 error), "%s" and the finished line.
void OnLog(int aSeven, int aLevel, const char* aFormat, ...) {
    va_list args;
    va_start(args, aFormat);
    const char* line = va_arg(args, const char*);
    va_end(args);
    std::lock_guard<std::mutex> lock(gMutex);
    if (aSeven != 7 || strcmp(aFormat, "%s") != 0) return;  // never happens: the checks fail
    gLines.push_back({aLevel, line, webrtc::ThreadWrapper::GetThreadId()});
    if (gChannel)  // the channel applies its own level threshold
        gChannel->Write(reinterpret_cast<const unsigned char*>(line),
                        static_cast<unsigned int>(strlen(line)), MTRACE_LEVEL_TYPE(aLevel));
}

void Trace(MTRACE_OUTPUT_WHERE_TYPE aWhere, MTRACE_LEVEL_TYPE aLevel, const std::string& aText) {
    CMyTrace_::Write(aWhere, aLevel, aText.data(), static_cast<unsigned int>(aText.size()));
}

// "[I:ENG+<pid>:<thread>] <seconds>.<6 digits> <text>\n", seconds since boot.
bool Formatted(const std::string& aLine, char aLetter, uint32_t aThread, const std::string& aText) {
    char letter = 0, micros[8] = {};
    unsigned int pid = 0, thread = 0;
    unsigned long seconds = 0;
    int text = 0;
    return sscanf(aLine.c_str(), "[%c:ENG+%u:%u] %lu.%7[0-9] %n", &letter, &pid, &thread, &seconds,
                  micros, &text) == 5 &&
           letter == aLetter && pid == unsigned(getpid()) && thread == aThread &&
           strlen(micros) == 6 && aLine.substr(text) == aText + "\n";
}

std::string Read(const char* aPath) {
    std::stringstream text;
    text << std::ifstream(aPath).rdbuf();
    return text.str();
}

// What aWrite printed on standard output.
template <class F>
std::string Stdout(F aWrite) {
    fflush(stdout);
    const int saved = dup(1);
    const int file = open("stdout.txt", O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(file, 1), close(file);
    aWrite();
    fflush(stdout);
    dup2(saved, 1), close(saved);
    return Read("stdout.txt");
}

class TraceOnWorker : public IEvent {
public:
    int OnEventFire() override {
        Trace(MTRACE_OUTPUT_CALLBACK, MTRACE_LEVEL_INFO, "from the worker");
        return static_cast<int>(webrtc::ThreadWrapper::GetThreadId());
    }
};

int Fail(const char* aWhat) {
    std::fprintf(stderr, "06_trace: FAILED: %s\n", aWhat);
    return 1;
}

}  // namespace

int main() {
    // Trace files land in the working directory: use a fresh one, removed at the end.
    char dir[] = "/tmp/sw_example_trace_XXXXXX";
    if (!mkdtemp(dir)) return Fail("mkdtemp");
    struct Restore {
        fs::path home;
        const char* dir;
        ~Restore() { fs::current_path(home), fs::remove_all(dir); }
    } restore{fs::current_path(), dir};
    fs::current_path(dir);

    // The first trace call of the process fixes the facility's parameters; by
    // default the files rotate past 50 MiB. Asking first sets 4 KiB instead.
    if (!CMyTraceImpl_::Instance(MTRACE_LEVEL_INFO, "zemtrace", 512, 1, 2, 4096))
        return Fail("create the trace facility");

    // No callback yet: the library's own lines are dropped. The main thread is
    // no library thread, so this lookup fails and traces an error line.
    ComThreadManger* manager = ComThreadManger::GetInstance();
    if (!Stdout([&] { manager->GetCurrentThreadPtr(); }).empty() ||
        fs::exists("zemtrace_linux_0.log"))
        return Fail("nothing reaches stdout or a file without a callback");

    // With the callback installed every level arrives, on the tracing thread.
    CMyTrace_::SetLogCallback(OnLog);
    const uint32_t self = webrtc::ThreadWrapper::GetThreadId();
    for (int level = 0; level <= 3; ++level)
        Trace(MTRACE_OUTPUT_CALLBACK, MTRACE_LEVEL_TYPE(level), "level " + std::to_string(level));
    manager->GetCurrentThreadPtr();  // the same failure now reaches the callback
    ComTaskThread* worker = nullptr;
    if (manager->CreateTaskThread(worker) != COM_OK) return Fail("CreateTaskThread");
    const uint32_t workerId = uint32_t(worker->SendEvent(new TraceOnWorker));  // waits for it
    manager->DestroyThread(worker);

    std::vector<Line> lines;
    {
        std::lock_guard<std::mutex> lock(gMutex);
        lines = gLines;
    }
    auto find = [&lines](const std::string& aText) {
        for (const Line& line : lines)
            if (line.text.find(aText) != std::string::npos) return line;
        return Line{-1, "", 0};
    };
    for (int level = 0; level <= 3; ++level) {
        const std::string text = "level " + std::to_string(level);
        const Line line = find(text);
        if (line.level != level || line.thread != self ||
            !Formatted(line.text, "DIWE"[level], self, text))
            return Fail("every level reaches the callback, with its letter in the prefix");
    }
    const Line lookup = find("[COM]:GetCurrentThreadPtr, not found");
    const Line fromWorker = find("from the worker");
    if (lookup.level != MTRACE_LEVEL_ERROR || lookup.text.find(", this=0x") == std::string::npos)
        return Fail("the library's error line reaches the callback");
    if (workerId == self || fromWorker.thread != workerId ||
        !Formatted(fromWorker.text, 'I', workerId, "from the worker"))
        return Fail("the callback runs on the thread that traces");

    // Standard output and the files get only the lines written to them.
    const std::string out = Stdout([] { Trace(MTRACE_OUTPUT_STDOUT, MTRACE_LEVEL_WARNING, "hi"); });
    if (!Formatted(out, 'W', self, "hi")) return Fail("a line written to stdout");
    for (int i = 0; i < 60; ++i)
        Trace(MTRACE_OUTPUT_FILE, MTRACE_LEVEL_INFO,
              "file line " + std::to_string(i) + " ......................................");
    const std::string first = Read("zemtrace_linux_0.log");
    const std::string second = Read("zemtrace_linux_1.log");
    const std::string end =
        "=============================== end of this file ====================\n";
    if (first.find("file line 0 ") == std::string::npos ||
        first.rfind(end) + end.size() != first.size() ||
        second.find("file line 59 ") == std::string::npos || second.find(end) != std::string::npos)
        return Fail("past 4 KiB the file is closed with the end line and the next one begins");

    // The shared-memory channel, keyed by a file of our own. The callback copies
    // every line into it; the channel keeps warnings and errors from now on.
    const std::string key = std::string(dir) + "/channel.key";
    gSharedMemName = key.c_str();
    SharedMemImpl* channel = new SharedMemImpl(true);  // creates the segment
    bool kept = false;
    if (channel->IsGood() && channel->UpdateFlag(0, MTRACE_LEVEL_WARNING) == 0) {
        {
            std::lock_guard<std::mutex> lock(gMutex);
            gChannel = channel;
        }
        Trace(MTRACE_OUTPUT_CALLBACK, MTRACE_LEVEL_INFO, "info: below the threshold");
        Trace(MTRACE_OUTPUT_CALLBACK, MTRACE_LEVEL_WARNING, "warning: kept in the ring");
        SharedMemImpl reader(false);   // as another process would attach; reads from the ring start
        unsigned char ring[4096 + 1];  // Read stores a 0 after what it copied
        const int count = reader.Read(ring, 4096);
        const std::string text(reinterpret_cast<char*>(ring), count > 0 ? count : 0);
        kept = Formatted(text, 'W', self, "warning: kept in the ring");
        std::lock_guard<std::mutex> lock(gMutex);
        gChannel = nullptr;
    }
    delete channel;  // the last one to leave removes the segment and the semaphore
    const bool removed =
        shmget(ftok(key.c_str(), 83), 0, 0) == -1 && semget(ftok(key.c_str(), 109), 1, 0) == -1;
    if (!kept || !removed) return Fail("the ring kept the warning only, and is gone");

    CMyTrace_::SetLogCallback(nullptr);
    CMyTrace_::DestroyTrace();  // final for the process: closes the trace file
    std::printf(
        "trace: levels 0-3, the library's error line and a line from thread %u reached"
        " the callback; 60 file lines rotated past 4 KiB; the ring kept the warning\n",
        workerId);
    return 0;
}
