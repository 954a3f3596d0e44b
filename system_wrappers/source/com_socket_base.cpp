// The IPv4 socket wrappers: one system call per method, one result convention
// per kind of method, one trace line per failure.
#include "ComSocket.h"

#include <arpa/inet.h>
#include <errno.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include "sw_trace.h"

// IOVECTOR arrays are copied into iovec arrays element by element, so the two
// layouts must agree.
static_assert(sizeof(IOVECTOR) == sizeof(iovec), "IOVECTOR must match iovec");
static_assert(offsetof(IOVECTOR, iov_base) == offsetof(iovec, iov_base),
              "IOVECTOR::iov_base must match iovec");
static_assert(offsetof(IOVECTOR, iov_len) == offsetof(iovec, iov_len),
              "IOVECTOR::iov_len must match iovec");

using sw::Addr;

namespace {

const char kFile[] = "com_socket_base";

// Every address record is an IPv4 sockaddr_in.
constexpr socklen_t kAddrLen = sizeof(sockaddr_in);
static_assert(kAddrLen == 16, "sockaddr_in is 16 bytes");

// Gather elements per send_v call; the rest of a longer array is not sent.
constexpr unsigned long kMaxVectors = 1024;

constexpr int kListenBacklog = 5;

// Failure results: status methods give -1, byte-count methods give 0.
constexpr int kStatusFailure = -1;
constexpr int kCountFailure = 0;

const sockaddr* Raw(const sockaddr_in* aAddr) {
    return reinterpret_cast<const sockaddr*>(aAddr);
}

sockaddr* Raw(sockaddr_in* aAddr) {
    return reinterpret_cast<sockaddr*>(aAddr);
}

}  // namespace

namespace {

// The shape shared by every method that acts on the socket: refuse an empty
// object with the method's assertion line, reset m_error, make the call, and on
// -1 save errno and trace aFailText (null: the method traces nothing).
template <class Call>
int OnSocket(ComSocketBase& aSock, int aAssertLine, int aFailure, const char* aFailText,
             Call aCall) {
    if (!SW_ASSERT_LINE(aAssertLine, aSock.m_socket != COM_INVALID_SOCKET,
                        "m_socket != COM_INVALID_SOCKET")) {
        return aFailure;
    }
    aSock.m_error = 0;
    const long rv = aCall(aSock.m_socket);
    if (rv != -1) return static_cast<int>(rv);
    aSock.attain_err();
    if (aFailText) SW_TRACE_ERROR(aFailText << aSock.m_error << ", this=" << Addr(&aSock));
    return aFailure;
}

}  // namespace

// ---------------------------------------------------------------------------
// ComSocketBase

ComSocketBase::ComSocketBase() {
    set_init_state();
}

// Owners close the descriptor; destruction leaves it alone.
ComSocketBase::~ComSocketBase() = default;

int ComSocketBase::open(const sockaddr_in* aLocal, int aType) {
    m_error = 0;
    m_socket = ::socket(AF_INET, aType, 0);
    if (m_socket == COM_INVALID_SOCKET) {
        attain_err();
        SW_TRACE_ERROR("[SOCK]:open, create failed, err=" << m_error << ", this=" << Addr(this));
        return kStatusFailure;
    }
    if (!aLocal) return 0;
    if (::bind(m_socket, Raw(aLocal), kAddrLen) == -1) {
        attain_err();
        SW_TRACE_ERROR("[SOCK]:open, bind failed, err=" << m_error << ", this=" << Addr(this));
        return kStatusFailure;
    }
    return 0;
}

int ComSocketBase::connect(const sockaddr_in* aDest) {
    return OnSocket(*this, 36, kStatusFailure, "[SOCK]:connect, connect failed, err=",
                    [&](int aFd) { return ::connect(aFd, Raw(aDest), kAddrLen); });
}

int ComSocketBase::shutdowm(int aHow) {
    return OnSocket(*this, 57, kStatusFailure, "[SOCK]:shutdowm, shutdown failed, err=",
                    [&](int aFd) { return ::shutdown(aFd, aHow); });
}

int ComSocketBase::set_sock_opt(unsigned long /*aOption*/, void* /*aValue*/) {
    return OnSocket(*this, 73, kStatusFailure, nullptr, [](int) { return 0; });
}

int ComSocketBase::set_non_block(unsigned long aBlocking) {
    int on = aBlocking == 0 ? 1 : 0;
    return OnSocket(*this, 82, kStatusFailure, "[SOCK]:set_non_block, failed, err=", [&](int aFd) {
        return ::ioctl(aFd, FIONBIO, &on);
    });
}

int ComSocketBase::enable_nonblock() {
    return set_non_block(0);
}

int ComSocketBase::get_local_addr(sockaddr_in& aAddr) {
    return OnSocket(*this, 115, kStatusFailure,
                    "[SOCK]:get_local_addr, failed, err=", [&](int aFd) {
                        socklen_t length = kAddrLen;
                        return ::getsockname(aFd, Raw(&aAddr), &length);
                    });
}

// MSG_NOSIGNAL on every send: a peer that has gone yields EPIPE in m_error
// instead of a SIGPIPE that would end the host process.
int ComSocketBase::send_v(IOVECTOR* aVectors, unsigned long aCount) {
    return OnSocket(*this, 158, kCountFailure,
                    "[SOCK]:send_v, send failed, err=", [&](int aFd) -> ssize_t {
                        if (!aVectors && aCount != 0) {
                            errno = EINVAL;
                            return -1;
                        }
                        iovec vectors[kMaxVectors];
                        const unsigned long count = aCount < kMaxVectors ? aCount : kMaxVectors;
                        for (unsigned long i = 0; i < count; ++i) {
                            vectors[i].iov_base = aVectors[i].iov_base;
                            vectors[i].iov_len = aVectors[i].iov_len;
                        }
                        // sendmsg rather than writev: the same gather, but with a flag
                        // word to suppress the signal.
                        msghdr message{};
                        message.msg_iov = vectors;
                        message.msg_iovlen = count;
                        return ::sendmsg(aFd, &message, MSG_NOSIGNAL);
                    });
}

int ComSocketBase::send(const char* aData, int aLength) {
    return OnSocket(*this, 201, kCountFailure, "[SOCK]:send, send failed, err=", [&](int aFd) {
        return ::send(aFd, aData, aLength, MSG_NOSIGNAL);
    });
}

int ComSocketBase::sendv_to(IOVECTOR* /*aVectors*/, unsigned long /*aCount*/,
                            const sockaddr_in* /*aDest*/) {
    return OnSocket(*this, 219, kCountFailure, nullptr, [](int) { return 0; });
}

int ComSocketBase::send_to(const char* aData, unsigned long aLength, const sockaddr_in* aDest) {
    return OnSocket(*this, 259, kCountFailure, "[SOCK]:send_to, send failed, err=", [&](int aFd) {
        return ::sendto(aFd, aData, aLength, MSG_NOSIGNAL, Raw(aDest), kAddrLen);
    });
}

int ComSocketBase::send_data(unsigned char* aData, unsigned long aLength, sockaddr_in* aDest) {
    const char* data = reinterpret_cast<const char*>(aData);
    return aDest ? send_to(data, aLength, aDest) : send(data, static_cast<int>(aLength));
}

int ComSocketBase::recv(char* aBuffer, int aLength) {
    return OnSocket(*this, 281, kCountFailure, "[SOCK]:recv, recv failed, err=", [&](int aFd) {
        return ::recv(aFd, aBuffer, aLength, 0);
    });
}

int ComSocketBase::recv_from(char* aBuffer, unsigned long aLength, sockaddr_in* aFrom) {
    return OnSocket(*this, 299, kCountFailure, "[SOCK]:recv_from, recv failed, err=", [&](int aFd) {
        socklen_t length = kAddrLen;
        return ::recvfrom(aFd, aBuffer, aLength, 0, Raw(aFrom), &length);
    });
}

void ComSocketBase::attain_err() {
    m_error = static_cast<unsigned long>(errno);
}

void ComSocketBase::addr_transfer(const char* aIp, unsigned short aPort, sockaddr_in& aAddr) {
    aAddr.sin_family = AF_INET;
    aAddr.sin_port = htons(aPort);
    // No address at all becomes the "none" address, which bind and connect refuse.
    aAddr.sin_addr.s_addr = aIp ? inet_addr(aIp) : INADDR_NONE;
}

void ComSocketBase::set_init_state() {
    m_socket = COM_INVALID_SOCKET;
    m_error = 0;
    memset(&m_addr, 0, sizeof(m_addr));
}

int ComSocketBase::assign(int aSocket) {
    const int previous = m_socket;
    set_init_state();
    m_socket = aSocket;
    return previous;
}

int ComSocketBase::close() {
    if (m_socket != COM_INVALID_SOCKET) (void)::close(m_socket);
    set_init_state();
    return 0;
}

int ComSocketBase::get_socket() const {
    return m_socket;
}

// ---------------------------------------------------------------------------
// ComTcpClient

int ComTcpClient::open_cn(const char* aLocalIp, unsigned short aLocalPort,
                          const sockaddr_in* aDest) {
    sockaddr_in local;
    memset(&local, 0, sizeof(local));
    if (aLocalIp) addr_transfer(aLocalIp, aLocalPort, local);
    const int rv = open(aLocalIp ? &local : nullptr, SOCK_STREAM);
    if (rv != 0) {
        SW_TRACE_ERROR("[SOCK]:open_cn, open failed, this=" << Addr(this));
        return rv;
    }
    return connect(aDest);
}

int ComTcpClient::open_cn(const char* aDestIp, unsigned short aDestPort, const char* aLocalIp,
                          unsigned short aLocalPort) {
    if (!aDestIp || aDestPort == 0) {
        SW_TRACE_ERROR("[SOCK]:open_cn, invalid destaddr, this=" << Addr(this));
        return -1;
    }
    sockaddr_in dest;
    memset(&dest, 0, sizeof(dest));
    addr_transfer(aDestIp, aDestPort, dest);
    const int rv = open_cn(aLocalIp, aLocalPort, &dest);
    if (rv != 0) {
        SW_TRACE_ERROR("[SOCK]:open_cn, open failed, this=" << Addr(this));
        return rv;
    }
    return 0;
}

// ---------------------------------------------------------------------------
// ComTcpServer

int ComTcpServer::open(const char* aIp, unsigned short aPort) {
    if (!aIp) {
        SW_TRACE_ERROR("[SOCK]:open, invalid addr, this=" << Addr(this));
        return -1;
    }
    SW_TRACE_INFO("[SOCK]:open, addr=" << aIp << ", port=" << aPort << ", this=" << Addr(this));
    sockaddr_in local;
    memset(&local, 0, sizeof(local));
    addr_transfer(aIp, aPort, local);
    // No address reuse: a port still held by an earlier listener is refused.
    const int rv = ComSocketBase::open(&local, SOCK_STREAM);
    if (rv != 0) {
        SW_TRACE_ERROR("[SOCK]:open, open failed, this=" << Addr(this));
        return rv;
    }
    if (::listen(m_socket, kListenBacklog) == -1) {
        attain_err();
        SW_TRACE_ERROR("[SOCK]:open, listen failed, err=" << m_error << ", this=" << Addr(this));
        return -1;
    }
    return 0;
}

int ComTcpServer::accept() {
    return OnSocket(*this, 404, kStatusFailure, "[SOCK]:accept, accept failed, sock=", [](int aFd) {
        return ::accept(aFd, nullptr, nullptr);
    });
}
