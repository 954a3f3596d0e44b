#include "echo_service.h"

#include <errno.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>

#include "demo_support.h"

namespace demo {

int EchoService::Open(unsigned short aPort) {
    if (m_server.open("127.0.0.1", aPort) != 0) {
        DEMO_LOG(MTRACE_LEVEL_ERROR, "[DEMO]:EchoService::Open, cannot listen, port="
                                         << aPort << ", err=" << m_server.m_error);
        m_server.close();
        return COM_ERROR_FAILURE;
    }
    // The socket's own backlog of 5 drops most of a burst of connects, which
    // then wait on SYN retries: listen again with the system's.
    if (listen(m_server.get_socket(), SOMAXCONN) != 0) {
        const int err = errno;
        DEMO_LOG(MTRACE_LEVEL_WARNING,
                 "[DEMO]:EchoService::Open, keeping the backlog of 5, err=" << err);
    }
    sockaddr_in local;
    if (m_server.get_local_addr(local) != 0 || m_server.enable_nonblock() != 0 ||
        m_thread->RegisterHandle(this, ComReactorBase::READ_MASK) != 0) {
        m_server.close();
        return COM_ERROR_FAILURE;
    }
    m_port.store(ntohs(local.sin_port));
    DEMO_LOG(MTRACE_LEVEL_INFO,
             "[DEMO]:EchoService::Open, listening, port=" << m_port.load() << ", this=" << this);
    return COM_OK;
}

int EchoService::on_input() {
    // Every session closed before this callback has left the reactor's
    // lists for good.
    for (EchoSession* session : m_closed) {
        m_sessions.erase(session);
        delete session;
    }
    m_closed.clear();
    // Everything that is waiting, not one per turn. Readability is checked
    // first: the socket traces an accept that would block as a failure.
    while (Readable(m_server.get_socket())) {
        const int fd = m_server.accept();
        if (fd == -1) return 0;  // traced by the socket
        if (fd >= FD_SETSIZE &&
            m_thread->_reactor->get_backend() == ComNetReactor::BACKEND_SELECT) {
            // select() cannot watch it: the client would wait forever.
            DEMO_LOG(MTRACE_LEVEL_WARNING, "[DEMO]:EchoService, refused, fd="
                                               << fd << ", beyond the select back end's limit of "
                                               << FD_SETSIZE << " descriptors");
            close(fd);
            continue;
        }
        ++m_accepted;
        EchoSession* session = new EchoSession(*this, fd);
        m_sessions.insert(session);
        DEMO_LOG(MTRACE_LEVEL_INFO,
                 "[DEMO]:EchoService, accepted, fd=" << fd << ", session=" << session);
    }
    return 0;
}

EchoSession::EchoSession(EchoService& aService, int aFd) : m_service(aService), m_handle(aFd) {
    m_socket.assign(aFd);
    m_socket.enable_nonblock();
    NoDelay(aFd);
    UpdateMask();
}

int EchoSession::on_input() {
    if (m_closed) return 0;
    const int n = m_socket.recv(m_service.m_scratch, sizeof(m_service.m_scratch));
    if (n > 0) {
        m_service.m_bytes += static_cast<uint64_t>(n);
        Echo(m_service.m_scratch, static_cast<size_t>(n));
    } else if (m_socket.m_error == 0) {
        Close("peer closed");
    } else if (m_socket.m_error != EAGAIN && m_socket.m_error != EINTR) {
        Close("receive failed");
    }
    return 0;
}

int EchoSession::on_output() {
    if (!m_closed) Flush();
    return 0;
}

int EchoSession::on_close() {
    m_closed = true;
    return m_socket.close();
}

void EchoSession::Echo(const char* aData, size_t aLength) {
    if (m_pending.size() == m_pendingOffset && Writable(m_handle)) {
        const int sent = m_socket.send(aData, static_cast<int>(aLength));
        if (sent <= 0 && m_socket.m_error != EAGAIN) {
            Close("send failed");
            return;
        }
        aData += sent;
        aLength -= static_cast<size_t>(sent);
    }
    m_pending.insert(m_pending.end(), aData, aData + aLength);
    UpdateMask();
}

void EchoSession::Flush() {
    const size_t left = m_pending.size() - m_pendingOffset;
    if (left > 0) {
        const int chunk = static_cast<int>(std::min<size_t>(left, 1 << 20));
        const int sent = m_socket.send(m_pending.data() + m_pendingOffset, chunk);
        if (sent <= 0 && m_socket.m_error != EAGAIN) {
            Close("send failed");
            return;
        }
        m_pendingOffset += static_cast<size_t>(std::max(sent, 0));
        if (m_pendingOffset == m_pending.size()) {
            m_pending.clear();
            m_pendingOffset = 0;
        }
    }
    UpdateMask();
}

void EchoSession::UpdateMask() {
    const size_t left = m_pending.size() - m_pendingOffset;
    // A client that sends without reading is not read from until it catches up.
    long mask = left < kMaxPending ? static_cast<long>(ComReactorBase::READ_MASK) : 0;
    if (left > 0) mask |= ComReactorBase::WRITE_MASK;
    if (mask != m_mask) {
        m_mask = mask;
        m_service.m_thread->RegisterHandle(this, mask);
    }
}

void EchoSession::Close(const char* aWhy) {
    DEMO_LOG(MTRACE_LEVEL_INFO, "[DEMO]:EchoSession::Close, " << aWhy << ", fd=" << m_handle
                                                              << ", err=" << m_socket.m_error);
    m_closed = true;
    m_service.m_thread->UnRegisterHandle(this);
    m_socket.close();
    m_service.Retire(this);
}

}  // namespace demo
