// The loopback socket pair that wakes a reactor, and the handle that reads it.
#include <errno.h>
#include <poll.h>
#include <stdint.h>
#include <sys/socket.h>
#include <unistd.h>
#ifdef __linux__
#include <sys/eventfd.h>
#endif

#include <chrono>

#include "ComReactor.h"
#include "sw_trace.h"

using sw::Addr;

namespace {

const char kFile[] = "com_pipe";

// The wake token: its content means nothing, one token is one wake-up.
constexpr int kTokenSize = 4;

// How long open waits for its own connection to reach the listener.
constexpr std::chrono::seconds kAcceptBound(5);

// Closes the temporary listener on every path out of ComPipe::open.
struct ListenerGuard {
    ComTcpServer server;
    ~ListenerGuard() { server.close(); }
};

// Accepts the write end's own connection and closes any other: another local
// process may connect to the temporary port first, and as the read end its
// connection would lose every wake-up. -1 when ours is not there in time.
int AcceptOwn(ComTcpServer& aListener, ComTcpClient& aWriteEnd) {
    sockaddr_in own = {};
    if (aWriteEnd.get_local_addr(own) != 0 || aListener.enable_nonblock() != 0) {
        return -1;
    }
    const auto end = std::chrono::steady_clock::now() + kAcceptBound;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            end - std::chrono::steady_clock::now());
        pollfd ready = {aListener.get_socket(), POLLIN, 0};
        const int polled = left.count() > 0 ? ::poll(&ready, 1, static_cast<int>(left.count())) : 0;
        if (polled == -1 && errno == EINTR) {
            continue;
        }
        if (polled != 1) {
            return -1;
        }
        const int accepted = aListener.accept();
        if (accepted == -1) {
            // A connection reset before it was taken leaves nothing to accept.
            if (aListener.m_error == EAGAIN || aListener.m_error == ECONNABORTED) {
                continue;
            }
            return -1;
        }
        sockaddr_in peer = {};
        socklen_t length = sizeof(peer);
        if (::getpeername(accepted, reinterpret_cast<sockaddr*>(&peer), &length) == 0 &&
            peer.sin_family == own.sin_family && peer.sin_port == own.sin_port &&
            peer.sin_addr.s_addr == own.sin_addr.s_addr) {
            return accepted;
        }
        ::close(accepted);
    }
}

// The epoll back end's wake-up: no port and no socket pair. In semaphore
// mode each read takes back one count, as each pipe read takes one token.
int OpenEventFd() {
#ifdef __linux__
    return eventfd(0, EFD_SEMAPHORE | EFD_NONBLOCK | EFD_CLOEXEC);
#else
    errno = ENOSYS;
    return -1;
#endif
}

}  // namespace

// ---------------------------------------------------------------------------
// Pipe

int ComPipe::open() {
    SW_TRACE_INFO("[COM]:open, this=" << Addr(this));
    ListenerGuard listener;
    if (listener.server.open("127.0.0.1", 0) != 0) {
        SW_TRACE_ERROR("[COM]:open, server open failed, this=" << Addr(this));
        return -1;
    }
    sockaddr_in address = {};
    if (listener.server.get_local_addr(address) != 0) {
        SW_TRACE_ERROR("[COM]:open, get local address failed, this=" << Addr(this));
        return -1;
    }
    ComTcpClient& writeEnd = _sockets[1];
    ComTcpClient& readEnd = _sockets[0];
    if (writeEnd.open_cn(nullptr, 0, &address) != 0) {
        SW_TRACE_ERROR("[COM]:open, client connect failed, this=" << Addr(this));
        writeEnd.close();  // a failed connect still holds its descriptor
        return -1;
    }
    const int accepted = AcceptOwn(listener.server, writeEnd);
    if (accepted == -1) {
        SW_TRACE_ERROR("[COM]:open, accept failed, this=" << Addr(this));
        writeEnd.close();
        return -1;
    }
    readEnd.assign(accepted);
    const int res = readEnd.enable_nonblock();
    if (!SW_ASSERT_LINE(__LINE__, res == 0, "res == 0")) {
        // A blocking read end could hang the reactor: give the pair up.
        close();
    }
    return res;
}

int ComPipe::write(const char* aData, int aLength) {
    const int sent = _sockets[1].send(aData, aLength);
    if (sent < aLength) {
        SW_TRACE_ERROR("[COM]:write, sent=" << sent << ", this=" << Addr(this));
        return -1;
    }
    return 0;
}

int ComPipe::read(char* aBuffer, int aLength) {
    return _sockets[0].recv(aBuffer, aLength);
}

int ComPipe::close() {
    _sockets[0].close();
    _sockets[1].close();
    return 0;
}

int ComPipe::get_read_handle() const {
    return _sockets[0].get_socket();
}

// ---------------------------------------------------------------------------
// Wake-up handle

ComPipeNotify::ComPipeNotify() : _reactor(nullptr), m_eventFd(-1) {}

ComPipeNotify::~ComPipeNotify() = default;

void ComPipeNotify::set_reactor(ComNetReactor* aReactor) {
    _reactor = aReactor;
}

int ComPipeNotify::open() {
    if (!SW_ASSERT_LINE(__LINE__, _reactor != nullptr, "_reactor != NULL")) {
        return -1;
    }
    if (_reactor->get_backend() == ComNetReactor::BACKEND_EPOLL) {
        const int fd = OpenEventFd();
        if (fd == -1) {
            SW_TRACE_ERROR("[COM]:open, eventfd failed, err=" << errno << ", this=" << Addr(this));
            return -1;
        }
        PattAutoLock<CMyMutex> lock(m_WriteMutex);
        m_eventFd = fd;
    } else {
        const int rv = _pipe.open();
        if (rv != 0) {
            SW_TRACE_ERROR("[COM]:open, pipe open failed, this=" << Addr(this));
            return rv;
        }
    }
    return _reactor->register_handle(this, ComReactorBase::READ_MASK);
}

int ComPipeNotify::close() {
    if (_reactor != nullptr) {
        _reactor->unregister_handle(this);
    }
    PattAutoLock<CMyMutex> lock(m_WriteMutex);
    const int eventFd = m_eventFd.exchange(-1);
    if (eventFd != -1) {
        ::close(eventFd);
    }
    _pipe.close();
    _reactor = nullptr;
    return 0;
}

int ComPipeNotify::notify() {
    PattAutoLock<CMyMutex> lock(m_WriteMutex);
    const int eventFd = m_eventFd.load();
    if (eventFd != -1) {
        const uint64_t one = 1;
        if (::write(eventFd, &one, sizeof(one)) != static_cast<ssize_t>(sizeof(one))) {
            SW_TRACE_ERROR("[COM]:notify, eventfd write failed, err=" << errno
                                                                      << ", this=" << Addr(this));
            return -1;
        }
        return 0;
    }
    const char token[kTokenSize] = {};
    return _pipe.write(token, kTokenSize);
}

int ComPipeNotify::on_input() {
    if (!SW_ASSERT_LINE(__LINE__, _reactor != nullptr, "_reactor != NULL")) {
        return -1;
    }
    // One token per call: posts write one per wake-up they need.
    const int eventFd = m_eventFd.load();
    if (eventFd != -1) {
        uint64_t count = 0;
        if (::read(eventFd, &count, sizeof(count)) == -1 && errno != EAGAIN) {
            SW_TRACE_ERROR("[COM]:on_input, eventfd read failed, err=" << errno
                                                                       << ", this=" << Addr(this));
        }
    } else {
        char token[kTokenSize];
        _pipe.read(token, kTokenSize);
    }
    return _reactor->process_event();
}

int ComPipeNotify::on_output() {
    return 0;
}

int ComPipeNotify::on_close() {
    return 0;
}

int ComPipeNotify::get_handle() {
    const int eventFd = m_eventFd.load();
    return eventFd != -1 ? eventFd : _pipe.get_read_handle();
}
