// A reactor thread with a listening and a connecting socket: both are handlers
// of our own, registered on the reactor thread; one message is echoed back.
#include <arpa/inet.h>
#include <pthread.h>
#include <stdio.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "ComReactor.h"
#include "ComThreadManger.h"

namespace {

template <class F>
bool WaitFor(F aDone) {  // polls for up to five seconds
    for (int i = 0; i < 5000 && !aDone(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return aDone();
}

int Fail(const char* aWhat) {
    fprintf(stderr, "04_reactor: FAILED: %s\n", aWhat);
    return 1;
}

const std::string kMessage = "hello, reactor";
std::atomic<bool> gOffThread{false};  // a callback ran on another thread
ComReactorThread* gReactor = nullptr;
void OnReactor() {
    if (!pthread_equal(pthread_self(), gReactor->GetThreadId())) gOffThread = true;
}

// Posts aCall to the reactor thread and waits (bounded) for its result:
// handlers are registered and unregistered on the reactor thread only.
template <class F>
class Call : public IEvent {
public:
    Call(F aCall, std::shared_ptr<std::atomic<int>> aResult) : m_call(aCall), m_result(aResult) {}
    int OnEventFire() override {
        OnReactor();
        m_result->store(m_call());
        return COM_OK;
    }

private:
    F m_call;
    std::shared_ptr<std::atomic<int>> m_result;  // outlives a wait that gave up
};
template <class F>
int RunOnReactor(F aCall) {
    auto result = std::make_shared<std::atomic<int>>(-100);
    // The queue takes the event over, even when it refuses it.
    if (gReactor->GetEventQueue()->PostEvent(new Call<F>(aCall, result)) != COM_OK) return -1;
    return WaitFor([&] { return result->load() != -100; }) ? result->load() : -1;
}

// A connected socket that the reactor watches: it reads what arrives and,
// with aEcho, sends it straight back.
class Connection : public ComReactorBase {
public:
    explicit Connection(bool aEcho) : m_echo(aEcho) {}
    int on_input() override {
        OnReactor();
        char buffer[256];
        const int n = m_socket.recv(buffer, sizeof(buffer));
        if (n > 0) {
            m_received.append(buffer, n);          // main reads it once m_bytes is full
            if (m_echo) m_socket.send(buffer, n);  // a few bytes: fits at once
            m_bytes += n;
        } else if (m_socket.m_error == 0) {
            Close();  // 0 with no error: the peer closed
            m_peerClosed = true;
        }
        return 0;
    }
    int on_output() override { return 0; }
    int on_close() override {  // only for handlers still registered at shutdown
        ++m_onClose;
        return m_socket.close();
    }
    int get_handle() override { return m_socket.get_socket(); }
    // Not on_close: unregistering does not call it.
    void Close() {
        gReactor->UnRegisterHandle(this);
        m_socket.close();
    }

    ComTcpClient m_socket;
    const bool m_echo;
    std::string m_received;
    std::atomic<int> m_bytes{0}, m_onClose{0};
    std::atomic<bool> m_peerClosed{false};
};

// The listening socket: accepts one connection into an echoing Connection,
// which it owns (the reactor never deletes a handler).
class Listener : public ComReactorBase {
public:
    int Open() {
        sockaddr_in local;
        if (m_server.open("127.0.0.1", 0) != 0 || m_server.get_local_addr(local) != 0) return -1;
        m_port = ntohs(local.sin_port);  // port 0 above: the system chose one
        return gReactor->RegisterHandle(this, ComReactorBase::READ_MASK);
    }
    int on_input() override {
        OnReactor();
        const int fd = m_server.accept();    // the new descriptor is ours
        if (fd == -1) return 0;              // traced by the socket
        if (m_accepted) return ::close(fd);  // this example takes one
        m_accepted.reset(new Connection(true));
        m_accepted->m_socket.assign(fd);
        m_accepted->m_socket.enable_nonblock();
        return gReactor->RegisterHandle(m_accepted.get(), ComReactorBase::READ_MASK);
    }
    int on_output() override { return 0; }
    int on_close() override {
        OnReactor();
        ++m_onClose;
        return m_server.close();
    }
    int get_handle() override { return m_server.get_socket(); }

    ComTcpServer m_server;
    unsigned short m_port = 0;
    std::unique_ptr<Connection> m_accepted;
    std::atomic<int> m_onClose{0};
};

}  // namespace

int main() {
    ComThreadManger* manager = ComThreadManger::GetInstance();
    if (manager->CreateReactorThread(gReactor) != COM_OK) return Fail("CreateReactorThread");

    // Handlers belong to us and must outlive the reactor thread.
    Listener listener;
    Connection client(false);
    if (RunOnReactor([&] { return listener.Open(); }) != 0) return Fail("listen");
    const unsigned short port = listener.m_port;  // written on the reactor before the result
    const int length = static_cast<int>(kMessage.size());
    const int connected = RunOnReactor([&] {
        // A blocking connect; loopback completes it without the listener's help.
        if (client.m_socket.open_cn("127.0.0.1", port, nullptr, 0) != 0) return -1;
        client.m_socket.enable_nonblock();
        gReactor->RegisterHandle(&client, ComReactorBase::READ_MASK);
        return client.m_socket.send(kMessage.data(), length) == length ? 0 : -1;
    });
    if (connected != 0) return Fail("connect and send");
    printf("listening on 127.0.0.1:%d; the client connected and sent \"%s\"\n", port,
           kMessage.c_str());

    if (!WaitFor([&] { return client.m_bytes.load() == length; })) return Fail("no echo");
    if (client.m_received != kMessage) return Fail("the echo differs");
    printf("the echo came back byte for byte\n");

    // The client unregisters and closes; the accepted side reads the end of
    // the stream, then unregisters and closes itself. The listener stays.
    const int closed = RunOnReactor([&] {
        client.Close();
        return 0;
    });
    if (closed != 0) return Fail("close");
    if (!WaitFor([&] { return listener.m_accepted && listener.m_accepted->m_peerClosed; })) {
        return Fail("the accepted side never saw the close");
    }

    // Stops the loop: every handler still registered gets on_close on the
    // reactor thread; then the thread is joined and deleted with its reactor.
    if (manager->DestroyThread(gReactor) != COM_OK) return Fail("DestroyThread");
    if (listener.m_onClose != 1 || client.m_onClose != 0 || listener.m_accepted->m_onClose != 0) {
        return Fail("on_close");
    }
    if (gOffThread) return Fail("a callback ran off the reactor thread");
    printf("only the listener, still registered, got on_close at shutdown\n");
    return 0;
}
