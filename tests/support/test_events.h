// Events and timer handlers that account for themselves, and small waiting
// helpers, shared by the tests of queues, timers and threads.
#ifndef SYSTEM_WRAPPERS_TESTS_TEST_EVENTS_H_
#define SYSTEM_WRAPPERS_TESTS_TEST_EVENTS_H_

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <dirent.h>
#include <poll.h>

#include "ComEventQueue.h"
#include "ComSocket.h"
#include "ComTaskThread.h"
#include "ComTimerQueue.h"

// Waits for a condition set by another thread; the bound only stops a broken
// test from hanging.
inline bool WaitUntil(const std::function<bool()>& aDone,
                      std::chrono::milliseconds aBound = std::chrono::seconds(30)) {
    const auto end = std::chrono::steady_clock::now() + aBound;
    while (!aDone()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
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
        if (m_id < m_ledger.m_destroyed.size()) {
            ++m_ledger.m_destroyed[m_id];
        }
        ++m_ledger.m_totalDestroyed;
    }
    int OnEventFire() override {
        if (m_id < m_ledger.m_fired.size()) {
            ++m_ledger.m_fired[m_id];
        }
        if (!m_name.empty()) {
            m_ledger.Record(m_name);
        }
        if (m_action) {
            m_action();
        }
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
        m_firedOn = pthread_self();
        if (m_ledger) m_ledger->Record(m_name);
        if (m_action) m_action();
        ++m_fired;
    }

    EventLedger* m_ledger;
    std::string m_name;
    std::atomic<int> m_fired{0};
    std::atomic<pthread_t> m_firedOn{0};
    ComTimeValueType m_lastTime;
    void* m_lastToken = nullptr;
    std::function<void()> m_action;
};

// Runs a function as an event.
class FnEvent : public IEvent {
public:
    explicit FnEvent(std::function<void()> aFn) : m_fn(std::move(aFn)) {}
    int OnEventFire() override {
        m_fn();
        return COM_OK;
    }

private:
    std::function<void()> m_fn;
};

// Runs aFn on aThread and waits until it has run.
inline int RunOn(BaseThread* aThread, std::function<void()> aFn) {
    IEventQueue* queue = aThread->GetEventQueue();
    return queue != nullptr ? queue->SendEvent(new FnEvent(std::move(aFn))) : COM_ERROR_FAILURE;
}

// Up to aLength bytes from a socket (blocking or not), waiting for each part; less at end of
// stream.
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

// Entries of a /proc/self directory: open descriptors ("fd") or threads ("task").
inline int CountProcEntries(const char* aDir) {
    const std::string path = std::string("/proc/self/") + aDir;
    DIR* dir = opendir(path.c_str());
    if (dir == nullptr) return -1;
    int count = 0;
    while (dirent* entry = readdir(dir)) {
        if (entry->d_name[0] != '.') ++count;
    }
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

#endif  // SYSTEM_WRAPPERS_TESTS_TEST_EVENTS_H_
