// The reactor's two back ends doing the same small job: a reactor thread
// accepts one loopback connection, echoes what it reads, and a client handle
// on the same reactor reads the echo back. Only the back end differs.
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <string>
#include <thread>

#include "ComReactor.h"
#include "ComThreadManger.h"
#include "mtrace.h"

namespace {

const std::string kMessage = "the same bytes over select and epoll";
std::atomic<int> gErrorLines(0);

// Warnings and errors go to stderr; the library calls this from any thread.
void OnLog(int, int aLevel, const char* aFormat, ...) {
    if (aLevel < MTRACE_LEVEL_WARNING) return;
    ++gErrorLines;
    va_list args;
    va_start(args, aFormat);
    std::vfprintf(stderr, aFormat, args);
    va_end(args);
}

// A connected socket served by the reactor. Every callback runs on the
// reactor thread, which alone may register and unregister handles.
class Session : public ComReactorBase {
public:
    explicit Session(ComReactorThread* aThread) : m_thread(aThread) {}
    int on_input() override {
        char data[256];
        const int count = m_socket.recv(data, sizeof(data));
        if (count > 0) {
            OnData(data, count);
        } else if (m_socket.m_error == 0) {  // the peer closed: stop watching
            m_thread->UnRegisterHandle(this);
            m_socket.close();
        }
        return 0;  // the reactor ignores the result
    }
    int on_output() override { return 0; }
    int on_close() override { return m_socket.close(); }  // the reactor shuts down
    int get_handle() override { return m_socket.get_socket(); }
    virtual void OnData(const char* aData, int aCount) = 0;

    ComReactorThread* m_thread;
    ComTcpClient m_socket;  // the destructor does not close it; on_close does
};

class Echo : public Session {
public:
    using Session::Session;
    void OnData(const char* aData, int aCount) override { m_socket.send(aData, aCount); }
};

class Receiver : public Session {
public:
    using Session::Session;
    void OnData(const char* aData, int aCount) override {
        m_received.append(aData, static_cast<size_t>(aCount));
        if (m_received.size() >= kMessage.size()) m_done = true;
    }
    std::string m_received;  // the reactor thread's until the thread is destroyed
    std::atomic<bool> m_done{false};
};

// Accepts one connection and hands it to an Echo session.
class Listener : public ComReactorBase {
public:
    explicit Listener(ComReactorThread* aThread) : m_thread(aThread), m_session(aThread) {}
    int on_input() override {
        const int handle = m_server.accept();  // ours now
        if (handle == -1) return -1;
        m_session.m_socket.assign(handle);
        m_session.m_socket.enable_nonblock();
        return m_thread->RegisterHandle(&m_session, READ_MASK);
    }
    int on_output() override { return 0; }
    int on_close() override { return m_server.close(); }
    int get_handle() override { return m_server.get_socket(); }

    ComReactorThread* m_thread;
    ComTcpServer m_server;
    Echo m_session;
};

// Runs on the reactor thread: listens on an ephemeral port, connects the
// client to it, sends the message and registers both handles.
class Start : public IEvent {
public:
    Start(Listener* aListener, Receiver* aClient) : m_listener(aListener), m_client(aClient) {}
    int OnEventFire() override {
        ComReactorThread* thread = m_listener->m_thread;
        sockaddr_in address;
        if (m_listener->m_server.open("127.0.0.1", 0) != 0) return COM_ERROR_FAILURE;
        thread->RegisterHandle(m_listener, ComReactorBase::READ_MASK);
        if (m_listener->m_server.get_local_addr(address) != 0 ||
            m_client->m_socket.open_cn(nullptr, 0, &address) != 0 ||  // loopback: at once
            m_client->m_socket.send(kMessage.data(), int(kMessage.size())) !=
                int(kMessage.size()) ||
            m_client->m_socket.enable_nonblock() != 0) {
            m_client->m_socket.close();
            return COM_ERROR_FAILURE;
        }
        return thread->RegisterHandle(m_client, ComReactorBase::READ_MASK);
    }

private:
    Listener* m_listener;
    Receiver* m_client;
};

bool RunEcho(int aBackend, const char* aName) {
    // Reactors made from now on get this back end; existing ones keep theirs.
    if (ComNetReactor::set_default_backend(aBackend) != 0) {
        std::fprintf(stderr, "07_backends: FAILED: no %s back end\n", aName);
        return false;
    }
    ComThreadManger* manager = ComThreadManger::GetInstance();
    ComReactorThread* thread = nullptr;
    if (manager->CreateReactorThread(thread) != COM_OK) return false;
    const int backend = thread->_reactor->get_backend();
    {
        Listener listener(thread);  // the handles outlive the thread that calls them
        Receiver client(thread);
        const int started = thread->GetEventQueue()->SendEvent(new Start(&listener, &client));
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (started == COM_OK && !client.m_done && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        manager->DestroyThread(thread);  // on_close for every handle still registered
        if (backend != aBackend || started != COM_OK || client.m_received != kMessage) {
            std::fprintf(stderr, "07_backends: FAILED: the echo over %s\n", aName);
            return false;
        }
    }
    std::printf("%s back end: echoed %zu bytes\n", aName, kMessage.size());
    return true;
}

}  // namespace

int main() {
    CMyTrace_::SetLogCallback(OnLog);
    if (!RunEcho(ComNetReactor::BACKEND_SELECT, "select") ||
        !RunEcho(ComNetReactor::BACKEND_EPOLL, "epoll"))
        return 1;
    // An unknown back end is refused with one error line; the choice stays.
    if (gErrorLines != 0 || ComNetReactor::set_default_backend(7) != -1 || gErrorLines != 1 ||
        ComNetReactor::get_default_backend() != ComNetReactor::BACKEND_EPOLL) {
        std::fprintf(stderr, "07_backends: FAILED: the refusal of back end 7\n");
        return 1;
    }
    CMyTrace_::SetLogCallback(nullptr);
    std::printf("back end 7 refused with one error line; the default stays epoll\n");
    return 0;
}
