// The network thread: how fast a post wakes a sleeping reactor, how much of
// that is the wake mechanism alone, and a TCP echo round trip over loopback
// against this library's echo service and the peers' canonical echo servers.
// The library's reactor runs once on each back end: "lib" on select, "lib_epoll"
// on epoll.
#include <arpa/inet.h>
#include <errno.h>
#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <event2/listener.h>
#include <event2/thread.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdint.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <boost/asio.hpp>
#include <chrono>
#include <memory>
#include <set>
#include <thread>
#include <vector>

#include "bench_support.h"
#include "echo_service.h"

namespace {

using Clock = std::chrono::steady_clock;
using boost::asio::ip::tcp;

// ---------------------------------------------------------------------------
// Plain sockets

// A descriptor closed with the scope.
struct Fd {
    explicit Fd(int aFd = -1) : fd(aFd) {}
    ~Fd() { reset(); }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    void reset(int aFd = -1) {
        if (fd >= 0) close(fd);
        fd = aFd;
    }
    int fd;
};

void NoDelay(int aFd) {
    const int on = 1;
    setsockopt(aFd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
}

sockaddr_in Loopback(unsigned short aPort) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(aPort);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

// The port a socket is bound to, or 0.
unsigned short LocalPort(int aFd) {
    sockaddr_in address = {};
    socklen_t length = sizeof(address);
    const bool ok = getsockname(aFd, reinterpret_cast<sockaddr*>(&address), &length) == 0;
    return ok ? ntohs(address.sin_port) : 0;
}

bool WriteAll(int aFd, const char* aData, size_t aLength) {
    while (aLength > 0) {
        const ssize_t n = send(aFd, aData, aLength, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        aData += n;
        aLength -= static_cast<size_t>(n);
    }
    return true;
}

// False on an error or at the end of the stream.
bool ReadAll(int aFd, char* aBuffer, size_t aLength) {
    while (aLength > 0) {
        const ssize_t n = recv(aFd, aBuffer, aLength, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        aBuffer += n;
        aLength -= static_cast<size_t>(n);
    }
    return true;
}

// A blocking TCP_NODELAY connection to 127.0.0.1:aPort, or -1.
int Connect(unsigned short aPort) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = Loopback(aPort);
    if (fd >= 0 && connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
        NoDelay(fd);
        return fd;
    }
    if (fd >= 0) close(fd);
    return -1;
}

// A connected loopback pair, both ends blocking and TCP_NODELAY.
bool TcpPair(Fd& aReader, Fd& aWriter) {
    Fd listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_in address = Loopback(0);
    if (listener.fd < 0 ||
        bind(listener.fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(listener.fd, 1) != 0) {
        return false;
    }
    aWriter.reset(Connect(LocalPort(listener.fd)));
    if (aWriter.fd >= 0) aReader.reset(accept4(listener.fd, nullptr, nullptr, SOCK_CLOEXEC));
    if (aReader.fd < 0) return false;
    NoDelay(aReader.fd);
    return true;
}

// ---------------------------------------------------------------------------
// The library's reactor thread

using bench::CreateReactorThread;
using bench::kLibEpoll;
constexpr int kSelect = ComNetReactor::BACKEND_SELECT;
constexpr int kEpoll = ComNetReactor::BACKEND_EPOLL;

// ---------------------------------------------------------------------------
// Echo servers. Start() listens on 127.0.0.1 and serves from a thread of its
// own; the destructor stops that thread and frees every session.

// An event_base looping on its own thread. It is stopped through an event
// activated on the base: a loopbreak issued before the loop has started is
// forgotten when it starts.
class LibeventLoop {
public:
    ~LibeventLoop() {
        Stop();
        if (m_stop != nullptr) event_free(m_stop);
        if (m_base != nullptr) event_base_free(m_base);
    }
    bool Open() {
        // Once, before the first base: it gives bases the locks and the
        // notification that posting from another thread needs.
        static const bool threads = evthread_use_pthreads() == 0;
        m_base = threads ? event_base_new() : nullptr;
        if (m_base != nullptr) m_stop = event_new(m_base, -1, 0, &LibeventLoop::OnStop, m_base);
        return m_stop != nullptr;
    }
    void Start() {
        event_base* base = m_base;
        m_thread = std::thread([base] { event_base_loop(base, EVLOOP_NO_EXIT_ON_EMPTY); });
    }
    // Everything on the base may be freed afterwards.
    void Stop() {
        if (!m_thread.joinable()) return;
        event_active(m_stop, 0, 0);
        m_thread.join();
    }
    event_base* base() const { return m_base; }

private:
    static void OnStop(evutil_socket_t, short, void* aBase) {
        event_base_loopbreak(static_cast<event_base*>(aBase));
    }
    event_base* m_base = nullptr;
    event* m_stop = nullptr;
    std::thread m_thread;
};

template <int kBackend>
class LibEchoServer {
public:
    bool Start() {
        if (!CreateReactorThread(kBackend, m_thread)) return false;
        m_service.reset(new demo::EchoService(m_thread.get()));
        demo::EchoService* service = m_service.get();
        int rv = COM_ERROR_FAILURE;
        // Handles are registered on the reactor thread itself.
        m_thread->GetEventQueue()->SendEvent(
            bench::MakeEvent([service, &rv] { rv = service->Open(0); }));
        return rv == COM_OK;
    }
    unsigned short Port() const { return m_service->m_port.load(); }

private:
    // The reactor closes the listener and sessions as it stops; the service
    // is freed after it (members go in reverse order).
    std::unique_ptr<demo::EchoService> m_service;
    bench::LibThread<ComReactorThread> m_thread;
};

class AsioEchoServer {
public:
    ~AsioEchoServer() {
        m_io.stop();
        if (m_thread.joinable()) m_thread.join();
        // The io_context frees the sessions held by their pending handlers.
    }
    bool Start() {
        boost::system::error_code error;
        m_acceptor.open(tcp::v4(), error);
        if (!error) {
            m_acceptor.bind(tcp::endpoint(boost::asio::ip::address_v4::loopback(), 0), error);
        }
        if (!error) m_acceptor.listen(64, error);
        if (!error) m_port = m_acceptor.local_endpoint(error).port();
        if (error) return false;
        Accept();
        m_thread = std::thread([this] { m_io.run(); });
        return true;
    }
    unsigned short Port() const { return m_port; }
    boost::asio::io_context& io() { return m_io; }

private:
    struct Session : std::enable_shared_from_this<Session> {
        explicit Session(tcp::socket aSocket) : socket(std::move(aSocket)), buffer(64 * 1024) {}
        void Read() {
            auto self = shared_from_this();
            socket.async_read_some(boost::asio::buffer(buffer),
                                   [self](boost::system::error_code aError, size_t aLength) {
                                       if (!aError) self->Write(aLength);
                                   });
        }
        void Write(size_t aLength) {
            auto self = shared_from_this();
            boost::asio::async_write(socket, boost::asio::buffer(buffer.data(), aLength),
                                     [self](boost::system::error_code aError, size_t) {
                                         if (!aError) self->Read();
                                     });
        }
        tcp::socket socket;
        std::vector<char> buffer;
    };

    void Accept() {
        m_acceptor.async_accept([this](boost::system::error_code aError, tcp::socket aSocket) {
            if (aError) return;
            aSocket.set_option(tcp::no_delay(true), aError);
            std::make_shared<Session>(std::move(aSocket))->Read();
            Accept();
        });
    }

    boost::asio::io_context m_io{1};
    tcp::acceptor m_acceptor{m_io};
    unsigned short m_port = 0;
    std::thread m_thread;
};

class LibeventEchoServer {
public:
    ~LibeventEchoServer() {
        m_loop.Stop();
        // The loop thread is gone: the sessions are ours to free.
        for (bufferevent* session : m_sessions) bufferevent_free(session);
        if (m_listener != nullptr) evconnlistener_free(m_listener);
    }
    bool Start() {
        if (!m_loop.Open()) return false;
        const sockaddr_in address = Loopback(0);
        m_listener = evconnlistener_new_bind(
            m_loop.base(), &OnAccept, this, LEV_OPT_CLOSE_ON_FREE | LEV_OPT_CLOSE_ON_EXEC, -1,
            reinterpret_cast<const sockaddr*>(&address), sizeof(address));
        if (m_listener != nullptr) m_port = LocalPort(evconnlistener_get_fd(m_listener));
        if (m_port == 0) return false;
        m_loop.Start();
        return true;
    }
    unsigned short Port() const { return m_port; }

private:
    static void OnAccept(evconnlistener*, evutil_socket_t aFd, sockaddr*, int, void* aSelf) {
        LibeventEchoServer* self = static_cast<LibeventEchoServer*>(aSelf);
        NoDelay(aFd);
        bufferevent* session =
            bufferevent_socket_new(self->m_loop.base(), aFd, BEV_OPT_CLOSE_ON_FREE);
        if (session == nullptr) {
            evutil_closesocket(aFd);
            return;
        }
        bufferevent_setcb(session, &OnRead, nullptr, &OnEvent, self);
        bufferevent_enable(session, EV_READ | EV_WRITE);
        self->m_sessions.insert(session);
    }
    static void OnRead(bufferevent* aSession, void*) {
        evbuffer_add_buffer(bufferevent_get_output(aSession), bufferevent_get_input(aSession));
    }
    static void OnEvent(bufferevent* aSession, short aWhat, void* aSelf) {
        if ((aWhat & (BEV_EVENT_EOF | BEV_EVENT_ERROR)) == 0) return;
        static_cast<LibeventEchoServer*>(aSelf)->m_sessions.erase(aSession);
        bufferevent_free(aSession);
    }

    LibeventLoop m_loop;
    evconnlistener* m_listener = nullptr;
    std::set<bufferevent*> m_sessions;  // only on the loop thread while it runs
    unsigned short m_port = 0;
};

// ---------------------------------------------------------------------------
// Wake-up latency: from just before the post to the first line of the handler.
// The wait for the handler to report back is outside the measured time.

struct Wake {
    // On the woken thread. Atomic: the Signal orders each write before the
    // reader, but nothing orders the reader before the next write.
    void Fire(bool aOk = true) {
        ran = Clock::now().time_since_epoch().count();
        ok = aOk;
        done.Set();
    }
    std::atomic<Clock::rep> ran{0};
    std::atomic<bool> ok{true};
    bench::Signal done;
};

template <class Post>
void MeasureWakeups(benchmark::State& aState, Wake& aWake, Post aPost) {
    for (auto _ : aState) {
        const Clock::time_point start = Clock::now();
        if (!aPost()) {
            aState.SkipWithError("post failed");
            break;
        }
        aWake.done.Wait();
        if (!aWake.ok) {
            aState.SkipWithError("the woken thread failed");
            break;
        }
        const Clock::time_point ran{Clock::duration(aWake.ran.load())};
        aState.SetIterationTime(std::chrono::duration<double>(ran - start).count());
    }
}

template <int kBackend>
void ReactorWakeupLib(benchmark::State& aState) {
    bench::LibThread<ComReactorThread> thread;
    BENCH_REQUIRE(aState, CreateReactorThread(kBackend, thread));
    IEventQueue* queue = thread->GetEventQueue();
    Wake wake;
    MeasureWakeups(aState, wake, [queue, &wake] {
        return queue->PostEvent(bench::MakeEvent([&wake] { wake.Fire(); })) == COM_OK;
    });
}

void ReactorWakeupAsio(benchmark::State& aState) {
    // The echo server's thread waits in epoll with a listening socket, like a
    // network thread.
    AsioEchoServer server;
    BENCH_REQUIRE(aState, server.Start());
    Wake wake;
    MeasureWakeups(aState, wake, [&server, &wake] {
        boost::asio::post(server.io(), [&wake] { wake.Fire(); });
        return true;
    });
}

void ReactorWakeupLibevent(benchmark::State& aState) {
    LibeventLoop loop;
    BENCH_REQUIRE(aState, loop.Open());
    Wake wake;
    event* ev = event_new(
        loop.base(), -1, 0,
        [](evutil_socket_t, short, void* aWake) { static_cast<Wake*>(aWake)->Fire(); }, &wake);
    BENCH_REQUIRE(aState, ev != nullptr);
    loop.Start();
    MeasureWakeups(aState, wake, [ev] {
        event_active(ev, 0, 0);
        return true;
    });
    loop.Stop();
    event_free(ev);
}

// The wake mechanisms alone, with nothing around them: a plain thread blocks in
// aWaitOnce until a post arrives; aWaitOnce returns false when it fails.
template <class WaitOnce, class Post>
void MeasureMechanism(benchmark::State& aState, WaitOnce aWaitOnce, Post aPost) {
    Wake wake;
    std::atomic<bool> stop{false};
    std::thread waiter([&wake, &stop, &aWaitOnce] {
        bool ok = true;
        while ((ok = aWaitOnce()) && !stop.load()) wake.Fire();
        if (!ok) wake.Fire(false);
    });
    MeasureWakeups(aState, wake, aPost);
    stop = true;
    aPost();  // lets the waiter see the stop
    waiter.join();
}

void MechanismWakeSelectTcp(benchmark::State& aState) {
    Fd reader;
    Fd writer;
    BENCH_REQUIRE(aState, TcpPair(reader, writer));
    const auto waitOnce = [fd = reader.fd] {
        char token[4];
        for (;;) {
            fd_set set;
            FD_ZERO(&set);
            FD_SET(fd, &set);
            const int ready = select(fd + 1, &set, nullptr, nullptr, nullptr);
            if (ready >= 0 || errno != EINTR) {
                return ready == 1 && ReadAll(fd, token, sizeof(token));
            }
        }
    };
    const auto post = [fd = writer.fd] {
        const char token[4] = {};
        return WriteAll(fd, token, sizeof(token));
    };
    MeasureMechanism(aState, waitOnce, post);
}

void MechanismWakeEpollEventfd(benchmark::State& aState) {
    const Fd eventFd(eventfd(0, EFD_CLOEXEC));
    const Fd epollFd(epoll_create1(EPOLL_CLOEXEC));
    epoll_event interest = {};
    interest.events = EPOLLIN;
    BENCH_REQUIRE(aState, eventFd.fd >= 0 && epollFd.fd >= 0 &&
                              epoll_ctl(epollFd.fd, EPOLL_CTL_ADD, eventFd.fd, &interest) == 0);
    const auto waitOnce = [efd = eventFd.fd, epfd = epollFd.fd] {
        uint64_t count = 0;
        for (;;) {
            epoll_event ready;
            const int n = epoll_wait(epfd, &ready, 1, -1);
            if (n >= 0 || errno != EINTR) {
                return n == 1 && read(efd, &count, sizeof(count)) == sizeof(count);
            }
        }
    };
    const auto post = [efd = eventFd.fd] {
        const uint64_t one = 1;
        return write(efd, &one, sizeof(one)) == sizeof(one);
    };
    MeasureMechanism(aState, waitOnce, post);
}

// ---------------------------------------------------------------------------
// TCP echo round trip

// One iteration: the message goes out whole and its echo comes back whole.
// Each message carries its iteration number in the last byte, so a lost,
// repeated or shifted echo shows.
template <class Server, size_t kSize>
void TcpEcho(benchmark::State& aState) {
    Server server;
    BENCH_REQUIRE(aState, server.Start());
    const Fd client(Connect(server.Port()));
    BENCH_REQUIRE(aState, client.fd >= 0);
    std::vector<char> out(kSize);
    std::vector<char> in(kSize);
    for (size_t i = 0; i < kSize; ++i) out[i] = static_cast<char>('a' + i % 26);
    // The first round trip also waits out the accept; every byte must match.
    BENCH_REQUIRE(aState, WriteAll(client.fd, out.data(), kSize) &&
                              ReadAll(client.fd, in.data(), kSize) && in == out);
    unsigned char stamp = 0;
    for (auto _ : aState) {
        out[kSize - 1] = static_cast<char>(++stamp);
        if (!WriteAll(client.fd, out.data(), kSize) || !ReadAll(client.fd, in.data(), kSize)) {
            aState.SkipWithError("connection failed");
            break;
        }
        if (in[kSize - 1] != out[kSize - 1]) {
            aState.SkipWithError("echo mismatch");
            break;
        }
    }
}

}  // namespace

// A fixed count keeps each run short (the suite repeats every benchmark), and
// unlike a minimum time it leaves the name in the form the table reads.
#define SW_NET_BENCHMARK(aTime, aWorkload, aImpl, ...) \
    BENCHMARK(__VA_ARGS__)->Name(bench::Name(aWorkload, aImpl))->aTime()->Iterations(10000)

SW_NET_BENCHMARK(UseManualTime, "reactor_wakeup", bench::kLib, ReactorWakeupLib<kSelect>);
SW_NET_BENCHMARK(UseManualTime, "reactor_wakeup", kLibEpoll, ReactorWakeupLib<kEpoll>);
SW_NET_BENCHMARK(UseManualTime, "reactor_wakeup", bench::kAsio, ReactorWakeupAsio);
SW_NET_BENCHMARK(UseManualTime, "reactor_wakeup", bench::kLibevent, ReactorWakeupLibevent);
SW_NET_BENCHMARK(UseManualTime, "mechanism_wake", "select_tcp", MechanismWakeSelectTcp);
SW_NET_BENCHMARK(UseManualTime, "mechanism_wake", "epoll_eventfd", MechanismWakeEpollEventfd);
SW_NET_BENCHMARK(UseRealTime, "tcp_echo_64", bench::kLib, TcpEcho<LibEchoServer<kSelect>, 64>);
SW_NET_BENCHMARK(UseRealTime, "tcp_echo_64", kLibEpoll, TcpEcho<LibEchoServer<kEpoll>, 64>);
SW_NET_BENCHMARK(UseRealTime, "tcp_echo_64", bench::kAsio, TcpEcho<AsioEchoServer, 64>);
SW_NET_BENCHMARK(UseRealTime, "tcp_echo_64", bench::kLibevent, TcpEcho<LibeventEchoServer, 64>);
SW_NET_BENCHMARK(UseRealTime, "tcp_echo_16k", bench::kLib, TcpEcho<LibEchoServer<kSelect>, 16384>);
SW_NET_BENCHMARK(UseRealTime, "tcp_echo_16k", kLibEpoll, TcpEcho<LibEchoServer<kEpoll>, 16384>);
SW_NET_BENCHMARK(UseRealTime, "tcp_echo_16k", bench::kAsio, TcpEcho<AsioEchoServer, 16384>);
SW_NET_BENCHMARK(UseRealTime, "tcp_echo_16k", bench::kLibevent, TcpEcho<LibeventEchoServer, 16384>);
