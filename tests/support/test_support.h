// What every test program shares: the library, trace capture, waiting helpers,
// events and timer handlers that account for themselves, temporary files and
// shared-memory keys, /proc probes and child programs.
#ifndef SYSTEM_WRAPPERS_TESTS_TEST_SUPPORT_H_
#define SYSTEM_WRAPPERS_TESTS_TEST_SUPPORT_H_

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "system_wrappers.h"

struct CapturedLine {
    int tag;           // first callback argument (always 7)
    int level;         // MTRACE_LEVEL_TYPE value
    std::string line;  // the finished line: prefix, text, newline
    std::string text;  // the line without its prefix and newline
};

// Trace levels as the capture reports them.
constexpr int kDebug = MTRACE_LEVEL_DEBUG, kInfo = MTRACE_LEVEL_INFO,
              kWarning = MTRACE_LEVEL_WARNING, kError = MTRACE_LEVEL_ERROR;

// The prefix every line starts with: "[L:ENG+pid:tid] sec.usec ".
extern const char* const kTracePrefixPattern;

// ", this=<aObject as %p prints it>", the suffix of most lines.
std::string This(const void* aObject);
// "system_wrappers/source/<aFile>: <aLine>, assert failed, <aExpr>"
std::string AssertLine(const char* aFile, int aLine, const std::string& aExpr);

// Installs the host log callback for its lifetime and records every line, from
// any thread. One capture at a time.
class TraceCapture {
public:
    static constexpr int kAnyLevel = -1;
    TraceCapture();
    ~TraceCapture();
    TraceCapture(const TraceCapture&) = delete;
    TraceCapture& operator=(const TraceCapture&) = delete;

    std::vector<CapturedLine> Lines() const;
    void Clear();
    // Lines whose text (prefix and newline stripped) equals aText.
    size_t Count(int aLevel, const std::string& aText) const;
    // Lines whose text matches the regular expression aPattern as a whole.
    size_t CountMatching(int aLevel, const std::string& aPattern) const;
    ::testing::AssertionResult Traced(int aLevel, const std::string& aText) const;
    // For lines traced by another thread; the bound is generous on purpose.
    ::testing::AssertionResult WaitTraced(
        int aLevel, const std::string& aText,
        std::chrono::milliseconds aTimeout = std::chrono::seconds(30)) const;
};

// Waits for a condition set by another thread; the bound only stops a broken
// test from hanging.
inline bool WaitUntil(const std::function<bool()>& aDone,
                      std::chrono::milliseconds aBound = std::chrono::seconds(30)) {
    const auto end = std::chrono::steady_clock::now() + aBound;
    while (!aDone()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// A one-way gate: Wait blocks until Open.
class Gate {
public:
    void Open() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_open = true;
        m_cond.notify_all();
    }
    bool Wait(std::chrono::milliseconds aBound = std::chrono::seconds(30)) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_cond.wait_for(lock, aBound, [this] { return m_open; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_cond;
    bool m_open = false;
};

// Runs aBody(0 .. aCount-1) on as many threads and joins them.
inline void RunThreads(int aCount, const std::function<void(int)>& aBody) {
    std::vector<std::thread> threads;
    for (int t = 0; t < aCount; ++t) threads.emplace_back(aBody, t);
    for (std::thread& thread : threads) thread.join();
}

// The state letter of thread aTid in /proc ('S' asleep), '?' once it is gone:
// how a test knows a thread is blocked or ended without guessing a delay.
inline char ThreadState(uint32_t aTid) {
    std::ifstream stat("/proc/self/task/" + std::to_string(aTid) + "/stat");
    std::string line;
    std::getline(stat, line);
    const size_t end = line.rfind(") ");
    return end == std::string::npos ? '?' : line[end + 2];
}
inline bool Asleep(uint32_t aTid) {
    return ThreadState(aTid) == 'S';
}
inline bool Gone(uint32_t aTid) {
    return ThreadState(aTid) == '?';
}

// Entries of a /proc/self directory: open descriptors ("fd") or threads ("task").
inline int CountProcEntries(const char* aDir) {
    DIR* dir = opendir((std::string("/proc/self/") + aDir).c_str());
    if (dir == nullptr) return -1;
    int count = 0;
    while (dirent* entry = readdir(dir)) count += entry->d_name[0] != '.';
    closedir(dir);
    return count - (aDir[0] == 'f' ? 1 : 0);  // the descriptor of the listing itself
}

// What a test started with; a test that cleans up ends with the same.
struct ProcessResources {
    // A sanitizer runtime starts a helper thread with the first thread of the
    // process; start one first so that helper is counted as already there.
    bool warmedUp = (std::thread([] {}).join(), true);
    int fds = CountProcEntries("fd");
    int threads = CountProcEntries("task");
    bool Same() const {
        // Joined threads leave /proc a moment later on some kernels.
        return fds == CountProcEntries("fd") &&
               WaitUntil([this] { return threads == CountProcEntries("task"); });
    }
};

// What happened to a numbered set of events: how often each fired and was
// destroyed, and the order of everything recorded.
class EventLedger {
public:
    explicit EventLedger(size_t aCount = 0) : m_fired(aCount), m_destroyed(aCount) {}
    void Record(const std::string& aWhat) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_order.push_back(aWhat);
    }
    std::vector<std::string> Order() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_order;
    }
    int Fired(size_t aId) const { return m_fired[aId].load(); }
    int Destroyed(size_t aId) const { return m_destroyed[aId].load(); }

    std::vector<std::atomic<int>> m_fired;
    std::vector<std::atomic<int>> m_destroyed;
    std::atomic<int> m_totalDestroyed{0};

private:
    std::mutex m_mutex;
    std::vector<std::string> m_order;
};

// Records its name when fired, runs an optional action and returns aResult.
class LedgerEvent : public IEvent {
public:
    LedgerEvent(EventLedger& aLedger, size_t aId, std::string aName = std::string(),
                int aResult = COM_OK, std::function<void()> aAction = nullptr)
        : m_ledger(aLedger),
          m_id(aId),
          m_name(std::move(aName)),
          m_result(aResult),
          m_action(std::move(aAction)) {}
    ~LedgerEvent() override {
        if (m_id < m_ledger.m_destroyed.size()) ++m_ledger.m_destroyed[m_id];
        ++m_ledger.m_totalDestroyed;
    }
    int OnEventFire() override {
        if (m_id < m_ledger.m_fired.size()) ++m_ledger.m_fired[m_id];
        if (!m_name.empty()) m_ledger.Record(m_name);
        if (m_action) m_action();
        return m_result;
    }

private:
    EventLedger& m_ledger;
    size_t m_id;
    std::string m_name;
    int m_result;
    std::function<void()> m_action;
};

// Records its name in a ledger (when given) each time it fires; an optional
// action runs inside OnTimeout.
class RecordingHandler : public ITimerHandler {
public:
    explicit RecordingHandler(EventLedger* aLedger = nullptr, std::string aName = "T")
        : m_ledger(aLedger), m_name(std::move(aName)) {}
    void OnTimeout(const ComTimeValueType& aCurTime, void* aToken) override {
        m_lastTime = aCurTime;
        m_lastToken = aToken;
        if (m_ledger) m_ledger->Record(m_name);
        if (m_action) m_action();
        ++m_fired;
    }

    EventLedger* m_ledger;
    std::string m_name;
    std::atomic<int> m_fired{0};
    ComTimeValueType m_lastTime;
    void* m_lastToken = nullptr;
    std::function<void()> m_action;
};

// Runs a function as an event.
class FnEvent : public IEvent {
public:
    explicit FnEvent(std::function<void()> aFn) : m_fn(std::move(aFn)) {}
    int OnEventFire() override { return m_fn(), COM_OK; }

private:
    std::function<void()> m_fn;
};

// Runs aFn on aThread and waits until it has run.
inline int RunOn(BaseThread* aThread, std::function<void()> aFn) {
    IEventQueue* queue = aThread->GetEventQueue();
    return queue != nullptr ? queue->SendEvent(new FnEvent(std::move(aFn))) : COM_ERROR_FAILURE;
}

// Up to aLength bytes from a socket (blocking or not), less at end of stream.
inline std::string RecvExactly(ComSocketBase& aSock, size_t aLength) {
    std::string data(aLength, '\0');
    size_t got = 0;
    for (pollfd p{aSock.get_socket(), POLLIN, 0}; got < aLength && poll(&p, 1, 30000) == 1;) {
        const int n = aSock.recv(&data[got], static_cast<int>(aLength - got));
        if (n == 0) break;
        got += n;
    }
    return data.substr(0, got);
}

inline std::string ReadFile(const std::filesystem::path& aPath) {
    std::stringstream text;
    text << std::ifstream(aPath).rdbuf();
    return text.str();
}

// Each test in a fresh temporary directory, removed with all it holds.
class TempDirTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/sw_test_XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(pattern));
        m_dir = pattern;
        m_path = m_dir + "/data";
    }
    void TearDown() override { std::filesystem::remove_all(m_dir); }
    std::string m_dir, m_path;
};

// Keys the shared-memory log channel by a fresh file; afterwards neither the
// segment nor the semaphore may be left (any that is gets removed, so one
// failure does not spill into the next test).
class ChannelKeyTest : public ::testing::Test {
protected:
    void SetUp() override {
        const int fd = mkstemp(m_path);
        ASSERT_NE(-1, fd);
        close(fd);
        gSharedMemName = m_path;
    }
    void TearDown() override {
        const int shm = shmget(ftok(m_path, 83), 0, 0);
        EXPECT_TRUE(shm == -1 && errno == ENOENT) << "segment left behind";
        const int sem = semget(ftok(m_path, 109), 1, 0);
        EXPECT_TRUE(sem == -1 && errno == ENOENT) << "semaphore left behind";
        if (shm != -1) shmctl(shm, IPC_RMID, nullptr);
        if (sem != -1) semctl(sem, 0, IPC_RMID);
        gSharedMemName = m_savedName;
        unlink(m_path);
    }
    static int Put(SharedMemImpl& aShm, const std::string& aText,
                   MTRACE_LEVEL_TYPE aLevel = MTRACE_LEVEL_ERROR) {
        return aShm.Write(reinterpret_cast<const unsigned char*>(aText.data()),
                          static_cast<unsigned int>(aText.size()), aLevel);
    }

    char m_path[32] = "/tmp/sw_channel_test_XXXXXX";
    const char* const m_savedName = gSharedMemName;
};

// One of the project's programs run as a child, its output streams going to
// temporary files. The bounds only stop a broken program from hanging the
// test: the child is killed when they pass.
class ChildProgram {
public:
    ChildProgram() = default;
    ChildProgram(const ChildProgram&) = delete;
    ChildProgram& operator=(const ChildProgram&) = delete;
    ~ChildProgram() {
        Signal(SIGKILL);
        if (m_pid > 0) waitpid(m_pid, nullptr, 0);
        for (const std::string& path : m_paths) unlink(path.c_str());
    }
    bool Start(const std::vector<std::string>& aArgv);
    bool Run(const std::vector<std::string>& aArgv) { return Start(aArgv) && Finish(); }
    // Waits until aDone(what the child has printed on stdout) holds.
    bool WaitForOutput(const std::function<bool(const std::string&)>& aDone,
                       std::chrono::milliseconds aBound = std::chrono::seconds(60));
    void Signal(int aSignal) {
        if (m_pid > 0) kill(m_pid, aSignal);
    }
    // Waits for the child to end; false when it had to be killed.
    bool Finish(std::chrono::milliseconds aBound = std::chrono::seconds(120));
    std::string Out() const { return ReadFile(m_paths[0]); }
    std::string Err() const { return ReadFile(m_paths[1]); }
    // The exit code, or -1 when the child ended by a signal.
    int ExitCode() const { return WIFEXITED(m_status) ? WEXITSTATUS(m_status) : -1; }

private:
    bool Running();
    pid_t m_pid = -1;
    int m_status = 0;
    std::string m_paths[2];
};

#endif  // SYSTEM_WRAPPERS_TESTS_TEST_SUPPORT_H_
