// The demo's clients: connections on a client reactor thread send messages
// that worker task threads build, and hand every echo back to a worker that
// checks it byte by byte and measures its round trip.
#ifndef SW_DEMO_ECHO_CLIENTS_H_
#define SW_DEMO_ECHO_CLIENTS_H_

#include <errno.h>
#include <stdint.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "demo_support.h"
#include "system_wrappers.h"

namespace demo {

// Hands events to other threads until shutdown begins; afterwards it destroys
// them instead, so no thread posts to one that is being destroyed.
class Router {
public:
    void Post(IEventQueue* aQueue, IEvent* aEvent) {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_open) {
            aQueue->PostEvent(aEvent);  // the queue owns it, accepted or refused
        } else {
            aEvent->OnDestorySelf();
        }
    }
    void Close() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_open = false;
    }

private:
    std::mutex m_mutex;
    bool m_open = true;
};

class ClientConnection;

struct Worker {
    ComTaskThread* thread = nullptr;
    Histogram rtt;  // touched by the worker thread only, until it is joined
};

// What the threads of one run share.
struct Run {
    explicit Run(const Options& aOptions) : options(aOptions) {}

    // The connection is done, with or without success; counted once.
    void Finish(ClientConnection* aConnection, bool aOk);
    void Fail(const std::string& aWhat) {
        std::lock_guard<std::mutex> lock(failMutex);
        if (firstFailure.empty()) firstFailure = aWhat;
    }
    bool WantMore(uint64_t aNextSeq) const {
        if (stopping.load(std::memory_order_relaxed)) return false;
        if (options.duration > 0) return Clock::now() < deadline;
        return aNextSeq < options.messages;
    }
    // On a worker: builds message aSeq of the connection and sends it off.
    void SendNext(ClientConnection* aConnection, uint64_t aSeq);
    // Starts the connection's first message on its worker.
    void Start(ClientConnection* aConnection);

    const Options& options;
    Router router;
    std::vector<Worker> workers;
    ComReactorThread* clientThread = nullptr;
    Clock::time_point start;
    Clock::time_point deadline;
    std::atomic<bool> stopping{false};
    std::atomic<uint64_t> messages{0};
    std::atomic<uint64_t> bytes{0};
    std::atomic<uint64_t> mismatches{0};
    std::atomic<unsigned long> finished{0};
    std::atomic<unsigned long> failed{0};
    std::atomic<Clock::rep> endTime{0};  // when the last connection finished
    std::mutex failMutex;
    std::string firstFailure;
};

class ClientConnection : public ComReactorBase {
public:
    ClientConnection(Run& aRun, uint32_t aId) : m_id(aId), m_run(aRun) {}

    // On the client reactor thread.
    int Connect(unsigned short aPort) {
        if (m_socket.open_cn("127.0.0.1", aPort, nullptr, 0) != 0) {
            DEMO_LOG(MTRACE_LEVEL_ERROR, "[DEMO]:ClientConnection::Connect, failed, id="
                                             << m_id << ", err=" << m_socket.m_error);
            m_socket.close();
            return COM_ERROR_FAILURE;
        }
        m_socket.enable_nonblock();
        NoDelay(m_socket.get_socket());
        m_handle = m_socket.get_socket();
        return SetMask(ComReactorBase::READ_MASK);
    }

    // On the client reactor thread: sends message aSeq and waits for its echo.
    void Send(const ComMessageBlock& aMessage, uint64_t aSeq) {
        if (m_handle == COM_INVALID_SOCKET) return;
        m_out = aMessage;
        m_in = ComMessageBlock(aMessage.GetReadableLength());
        m_seq = aSeq;
        m_sentAt = Clock::now();
        Flush();
    }

    int on_input() override;
    int on_output() override {
        if (m_handle != COM_INVALID_SOCKET) Flush();
        return 0;
    }
    int on_close() override { return m_socket.close(); }
    int get_handle() override { return m_handle; }

    const uint32_t m_id;
    std::atomic<bool> m_finished{false};

private:
    void Flush() {
        const unsigned long left = m_out.GetReadableLength();
        if (left > 0 && Writable(m_handle)) {
            const int sent = m_socket.send(reinterpret_cast<const char*>(m_out.m_pRead),
                                           static_cast<int>(std::min(left, 1ul << 20)));
            if (sent <= 0 && m_socket.m_error != EAGAIN) {
                Abort("send failed");
                return;
            }
            if (sent > 0) m_out.Read(nullptr, static_cast<unsigned long>(sent), true);
        }
        const long mask = ComReactorBase::READ_MASK |
                          (m_out.GetReadableLength() > 0 ? ComReactorBase::WRITE_MASK : 0);
        SetMask(mask);
    }
    int SetMask(long aMask) {
        if (aMask == m_mask) return COM_OK;
        m_mask = aMask;
        return m_run.clientThread->RegisterHandle(this, aMask) == 0 ? COM_OK : COM_ERROR_FAILURE;
    }
    void Abort(const char* aWhy) {
        DEMO_LOG(MTRACE_LEVEL_ERROR, "[DEMO]:ClientConnection, " << aWhy << ", id=" << m_id
                                                                 << ", message=" << m_seq
                                                                 << ", err=" << m_socket.m_error);
        m_run.Fail(std::string("connection ") + std::to_string(m_id) + ": " + aWhy +
                   " at message " + std::to_string(m_seq));
        m_run.clientThread->UnRegisterHandle(this);
        m_socket.close();
        m_handle = COM_INVALID_SOCKET;
        m_run.Finish(this, false);
    }

    Run& m_run;
    ComTcpClient m_socket;
    int m_handle = COM_INVALID_SOCKET;
    long m_mask = 0;
    ComMessageBlock m_out{0ul};
    ComMessageBlock m_in{0ul};
    uint64_t m_seq = 0;
    Clock::time_point m_sentAt;
};

// A progress line once a second, from a timer on the first worker.
class Progress : public ComTimerWrapperSink {
public:
    explicit Progress(Run& aRun) : m_run(aRun) {}
    void OnTimer(ComTimerWrapper*) override {
        const uint64_t messages = m_run.messages.load();
        const double seconds = std::chrono::duration<double>(Clock::now() - m_run.start).count();
        printf("progress: %.0f s, %llu messages, %.1f MiB each way, %llu msg/s\n", seconds,
               static_cast<unsigned long long>(messages),
               static_cast<double>(m_run.bytes.load()) / (1024.0 * 1024.0),
               static_cast<unsigned long long>(messages - m_last));
        fflush(stdout);
        m_last = messages;
    }

    ComTimerWrapper m_timer;

private:
    Run& m_run;
    uint64_t m_last = 0;
};

}  // namespace demo

#endif  // SW_DEMO_ECHO_CLIENTS_H_
