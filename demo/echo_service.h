// The demo's TCP echo service: a listening handle on a reactor thread that
// accepts connections and echoes every byte back, whatever the client.
#ifndef SW_DEMO_ECHO_SERVICE_H_
#define SW_DEMO_ECHO_SERVICE_H_

#include <stdint.h>

#include <atomic>
#include <set>
#include <vector>

#include "system_wrappers.h"

namespace demo {

class EchoService;

// One accepted connection: echoes what it receives, keeping what the socket
// cannot take yet until it is writable again.
class EchoSession : public ComReactorBase {
public:
    EchoSession(EchoService& aService, int aFd);
    int on_input() override;
    int on_output() override;
    int on_close() override;  // the reactor is going away
    int get_handle() override { return m_handle; }

private:
    static const size_t kMaxPending = 4 * 1024 * 1024;
    void Echo(const char* aData, size_t aLength);
    void Flush();
    void UpdateMask();
    void Close(const char* aWhy);

    EchoService& m_service;
    ComTcpClient m_socket;
    int m_handle;
    std::vector<char> m_pending;
    size_t m_pendingOffset = 0;
    long m_mask = 0;
    bool m_closed = false;
};

// Owns every session. All of it runs on the service's reactor thread, except
// the destructor, which runs once that thread is gone.
class EchoService : public ComReactorBase {
public:
    explicit EchoService(ComReactorThread* aThread) : m_thread(aThread) {}
    ~EchoService() override {
        for (EchoSession* session : m_sessions) delete session;
    }

    // On the reactor thread: listens on 127.0.0.1:aPort (0: the system picks)
    // and registers for new connections.
    int Open(unsigned short aPort);

    // A closed session is freed later: the reactor may still be dispatching
    // the ready handles it listed before the session closed.
    void Retire(EchoSession* aSession) { m_closed.push_back(aSession); }

    int on_input() override;
    int on_output() override { return 0; }
    int on_close() override { return m_server.close(); }
    int get_handle() override { return m_server.get_socket(); }

    ComReactorThread* m_thread;
    ComTcpServer m_server;
    std::atomic<unsigned short> m_port{0};
    std::atomic<uint64_t> m_accepted{0};
    std::atomic<uint64_t> m_bytes{0};
    std::set<EchoSession*> m_sessions;
    std::vector<EchoSession*> m_closed;
    char m_scratch[64 * 1024];  // one reactor thread, one receive buffer
};

}  // namespace demo

#endif  // SW_DEMO_ECHO_SERVICE_H_
