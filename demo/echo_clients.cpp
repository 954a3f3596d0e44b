#include "echo_clients.h"

namespace demo {

// Checks one echoed message on the connection's worker and starts the next.
class VerifyEvent : public IEvent {
public:
    VerifyEvent(Run& aRun, Worker& aWorker, ClientConnection* aConnection, uint64_t aSeq,
                const ComMessageBlock& aEcho, uint64_t aRttNanos)
        : m_run(aRun),
          m_worker(aWorker),
          m_connection(aConnection),
          m_seq(aSeq),
          m_echo(aEcho),
          m_rttNanos(aRttNanos) {}

    int OnEventFire() override {
        const uint32_t id = m_connection->m_id;
        const unsigned char* data = m_echo.m_pRead;
        const unsigned long length = m_echo.GetReadableLength();
        for (unsigned long i = 0; i < length; ++i) {
            const unsigned char expected = PatternByte(id, m_seq, i);
            if (data[i] != expected) {
                ++m_run.mismatches;
                char what[160];
                snprintf(what, sizeof(what),
                         "connection %u, message %llu, byte %lu: expected 0x%02x, got 0x%02x", id,
                         static_cast<unsigned long long>(m_seq), i, expected, data[i]);
                DEMO_LOG(MTRACE_LEVEL_ERROR, "[DEMO]:VerifyEvent, echo mismatch, " << what);
                m_run.Fail(std::string("echo mismatch on ") + what);
                m_run.Finish(m_connection, false);
                return COM_ERROR_FAILURE;
            }
        }
        m_worker.rtt.Add(m_rttNanos);
        ++m_run.messages;
        m_run.bytes += length;
        if (m_run.WantMore(m_seq + 1)) {
            m_run.SendNext(m_connection, m_seq + 1);
        } else {
            m_run.Finish(m_connection, true);
        }
        return COM_OK;
    }

private:
    Run& m_run;
    Worker& m_worker;
    ClientConnection* m_connection;
    uint64_t m_seq;
    ComMessageBlock m_echo;
    uint64_t m_rttNanos;
};

int ClientConnection::on_input() {
    if (m_handle == COM_INVALID_SOCKET) return 0;
    const unsigned long room = m_in.GetWritableCapacity();
    if (room == 0) {
        Abort("bytes arrived that were never sent");
        return 0;
    }
    const int n = m_socket.recv(reinterpret_cast<char*>(m_in.m_pWrite),
                                static_cast<int>(std::min(room, 1ul << 20)));
    if (n <= 0) {
        if (m_socket.m_error == 0) {
            Abort("the service closed the connection");
        } else if (m_socket.m_error != EAGAIN && m_socket.m_error != EINTR) {
            Abort("receive failed");
        }
        return 0;
    }
    m_in.Write(nullptr, static_cast<unsigned long>(n), true);
    if (m_in.GetWritableCapacity() == 0) {
        const uint64_t rtt = static_cast<uint64_t>(
            std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - m_sentAt).count());
        Worker& worker = m_run.workers[m_id % m_run.workers.size()];
        m_run.router.Post(worker.thread->GetEventQueue(),
                          new VerifyEvent(m_run, worker, this, m_seq, m_in, rtt));
        m_in = ComMessageBlock(0ul);
    }
    return 0;
}

// Hands a built message to the client reactor thread.
class SendMessageEvent : public IEvent {
public:
    SendMessageEvent(ClientConnection* aConnection, const ComMessageBlock& aMessage, uint64_t aSeq)
        : m_connection(aConnection), m_message(aMessage), m_seq(aSeq) {}
    int OnEventFire() override {
        m_connection->Send(m_message, m_seq);
        return COM_OK;
    }

private:
    ClientConnection* m_connection;
    ComMessageBlock m_message;
    uint64_t m_seq;
};

void Run::SendNext(ClientConnection* aConnection, uint64_t aSeq) {
    ComMessageBlock message(options.size);
    if (message.GetWritableCapacity() != options.size) {
        Fail("out of memory for a message");
        Finish(aConnection, false);
        return;
    }
    for (unsigned long i = 0; i < options.size; ++i)
        message.m_pWrite[i] = PatternByte(aConnection->m_id, aSeq, i);
    message.Write(nullptr, options.size, true);
    router.Post(clientThread->GetEventQueue(), new SendMessageEvent(aConnection, message, aSeq));
}

void Run::Finish(ClientConnection* aConnection, bool aOk) {
    if (aConnection->m_finished.exchange(true)) return;
    if (!aOk) ++failed;
    if (++finished == options.connections) endTime = Clock::now().time_since_epoch().count();
}

// The first message of a connection, started on its worker.
class StartEvent : public IEvent {
public:
    StartEvent(Run& aRun, ClientConnection* aConnection) : m_run(aRun), m_connection(aConnection) {}
    int OnEventFire() override {
        if (m_run.WantMore(0)) {
            m_run.SendNext(m_connection, 0);
        } else {
            m_run.Finish(m_connection, true);
        }
        return COM_OK;
    }

private:
    Run& m_run;
    ClientConnection* m_connection;
};

void Run::Start(ClientConnection* aConnection) {
    Worker& worker = workers[aConnection->m_id % workers.size()];
    router.Post(worker.thread->GetEventQueue(), new StartEvent(*this, aConnection));
}

}  // namespace demo
