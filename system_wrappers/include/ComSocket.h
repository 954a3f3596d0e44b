/// @file
/// Thin synchronous wrappers over IPv4 BSD sockets: one result convention per
/// kind of operation, the errno of the last failure in m_error, and one trace
/// line per failure.
#ifndef SYSTEM_WRAPPERS_COM_SOCKET_H_
#define SYSTEM_WRAPPERS_COM_SOCKET_H_

#include <netinet/in.h>
#include <stddef.h>

#include "sw_export.h"

/// The descriptor value of an object that holds no socket (-1).
constexpr int COM_INVALID_SOCKET = -1;

/// One element of a gathered send (ComSocketBase::send_v), laid out exactly
/// like the system's iovec.
struct IOVECTOR {
    char* iov_base;  ///< First byte of the element; borrowed for the call only.
    size_t iov_len;  ///< Number of bytes in the element.
};

/// One IPv4 socket descriptor and the error of its last failed call.
///
/// Results: status operations (open, connect, shutdowm, set_non_block,
/// get_local_addr, accept ...) return 0 (accept: the new descriptor) or -1;
/// byte-count operations (send, send_to, send_v, recv, recv_from) return the
/// count, or 0 on failure. Every operation that reaches its system call first
/// resets m_error to 0 and, on failure, stores errno there; the caller reads
/// m_error to tell "would block" (EAGAIN) from a real fault, or a closed peer
/// (a recv of 0 with m_error 0) from a failure.
///
/// Traces: each failure writes one error-level line "[SOCK]:" + method name +
/// failure text + the error number + ", this=" + the object's address, for
/// example "[SOCK]:recv, recv failed, err=11, this=0x...". Non-blocking calls
/// that would block are failures like any other and are traced too. A call on
/// an object without a socket writes the assertion line
/// "system_wrappers/source/com_socket_base: N, assert failed, m_socket != COM_INVALID_SOCKET"
/// (N identifies the method) and returns the failure value without a system call.
///
/// Sends never raise SIGPIPE: a peer that has gone gives 0 with EPIPE (or
/// ECONNRESET) in m_error.
///
/// Not locked: one thread uses an object at a time. The object owns its
/// descriptor, but the destructor does not close it: the owner calls close().
class SW_EXPORT ComSocketBase {
public:
    /// An empty object: no socket, m_error 0, m_addr zeroed.
    ComSocketBase();
    /// Does not close the descriptor: an object destroyed while it holds one
    /// leaks it.
    virtual ~ComSocketBase();

    /// Creates a blocking AF_INET socket of aType (SOCK_STREAM, SOCK_DGRAM),
    /// bound to aLocal unless it is null. 0, or -1 with
    /// "[SOCK]:open, create failed, err=" or "[SOCK]:open, bind failed, err=".
    /// A bind failure leaves the unbound descriptor in m_socket for the caller
    /// to close. A descriptor already held is overwritten, not closed.
    int open(const sockaddr_in* aLocal, int aType);
    /// Connects to aDest (blocking on a blocking socket). 0, or -1 with
    /// "[SOCK]:connect, connect failed, err="; a non-blocking connect still
    /// under way is such a failure (EINPROGRESS). The descriptor stays open
    /// after a failure.
    int connect(const sockaddr_in* aDest);
    /// shutdown(2) with aHow (SHUT_RD, SHUT_WR, SHUT_RDWR); the descriptor stays
    /// open. 0, or -1 with "[SOCK]:shutdowm, shutdown failed, err=".
    int shutdowm(int aHow);
    /// Placeholder: sets no option. 0 (m_error reset), or -1 without a socket.
    int set_sock_opt(unsigned long aOption, void* aValue);
    /// aBlocking == 0 switches non-blocking mode on, any other value switches
    /// it off. 0, or -1 with "[SOCK]:set_non_block, failed, err=".
    int set_non_block(unsigned long aBlocking);
    /// Switches non-blocking mode on: set_non_block(0).
    int enable_nonblock();
    /// Fills aAddr with the bound local address (port in network order). 0, or
    /// -1 with "[SOCK]:get_local_addr, failed, err=".
    int get_local_addr(sockaddr_in& aAddr);

    /// Sends up to aLength bytes. Returns the bytes sent (a non-blocking socket
    /// may take fewer; the caller sends the rest), or 0 on failure, traced
    /// "[SOCK]:send, send failed, err=": EAGAIN when it would block, EPIPE or
    /// ECONNRESET when the peer has gone.
    int send(const char* aData, int aLength);
    /// Sends one datagram to aDest. The bytes sent, or 0 with
    /// "[SOCK]:send_to, send failed, err=".
    int send_to(const char* aData, unsigned long aLength, const sockaddr_in* aDest);
    /// Sends the first min(aCount, 1024) elements in one call; the rest are not
    /// sent. The bytes sent (possibly fewer than asked), or 0 with
    /// "[SOCK]:send_v, send failed, err=" (EINVAL for null aVectors with a
    /// non-zero aCount).
    int send_v(IOVECTOR* aVectors, unsigned long aCount);
    /// Placeholder: sends nothing and returns 0 (m_error reset); 0 also without
    /// a socket, after the assertion line.
    int sendv_to(IOVECTOR* aVectors, unsigned long aCount, const sockaddr_in* aDest);
    /// send_to when aDest is given, else send; returns its result.
    int send_data(unsigned char* aData, unsigned long aLength, sockaddr_in* aDest);
    /// Receives up to aLength bytes. Returns the count; 0 with m_error 0 when
    /// the peer has closed; 0 with m_error EAGAIN when a non-blocking socket
    /// has nothing (traced like any failure); 0 with another errno on failure.
    /// Failures trace "[SOCK]:recv, recv failed, err=".
    int recv(char* aBuffer, int aLength);
    /// Receives one datagram into aBuffer and its sender's address into aFrom.
    /// The count, or 0 with "[SOCK]:recv_from, recv failed, err=".
    int recv_from(char* aBuffer, unsigned long aLength, sockaddr_in* aFrom);

    /// Saves the current errno in m_error.
    void attain_err();
    /// Sets family AF_INET, aPort (in network order) and the dotted address
    /// aIp; other bytes of aAddr are kept, so zero it first. A null or
    /// unparsable aIp gives INADDR_NONE, which bind and connect refuse.
    static void addr_transfer(const char* aIp, unsigned short aPort, sockaddr_in& aAddr);
    /// Empties the object (no socket, m_error 0, m_addr zeroed) without
    /// closing the descriptor it held.
    void set_init_state();
    /// Adopts aSocket (for example a descriptor from ComTcpServer::accept),
    /// which this object then owns. Returns the previous descriptor, which is
    /// neither closed nor otherwise touched: the caller closes it.
    int assign(int aSocket);
    /// Closes the descriptor if any and empties the object; always 0.
    int close();
    /// The descriptor, or COM_INVALID_SOCKET.
    int get_socket() const;

    int m_socket;           ///< The descriptor, COM_INVALID_SOCKET when none.
    unsigned long m_error;  ///< errno of the last failed call; 0 after a success.
    sockaddr_in m_addr;     ///< Zeroed by set_init_state; no operation reads or fills it.
};

/// A stream socket that connects out. Adds nothing to ComSocketBase but the
/// two open_cn forms; an object of this class is also the usual home of a
/// descriptor returned by ComTcpServer::accept (adopt it with assign).
class SW_EXPORT ComTcpClient : public ComSocketBase {
public:
    /// Opens a blocking stream socket (bound to aLocalIp:aLocalPort when
    /// aLocalIp is given) and connects it to aDest. 0, or -1: an open failure
    /// traces open's line and "[SOCK]:open_cn, open failed, this="; a connect
    /// failure traces only "[SOCK]:connect, connect failed, err=". After
    /// either, a descriptor may remain in m_socket: close() it before retrying.
    int open_cn(const char* aLocalIp, unsigned short aLocalPort, const sockaddr_in* aDest);
    /// The same with the destination as a dotted address and port. -1 with
    /// "[SOCK]:open_cn, invalid destaddr, this=" and no socket created when
    /// aDestIp is null or aDestPort is 0; any other failure adds
    /// "[SOCK]:open_cn, open failed, this=" to the first form's lines.
    int open_cn(const char* aDestIp, unsigned short aDestPort, const char* aLocalIp,
                unsigned short aLocalPort);
};

/// A listening stream socket.
class SW_EXPORT ComTcpServer : public ComSocketBase {
public:
    /// Binds a stream socket to aIp:aPort (0: the system picks; read it back
    /// with get_local_addr) and listens with a backlog of 5. Traces
    /// "[SOCK]:open, addr=" ... ", port=" ... ", this=" at info level first.
    /// 0, or -1: a null aIp traces "[SOCK]:open, invalid addr, this="; a socket
    /// or bind failure traces open's line and "[SOCK]:open, open failed, this=";
    /// a listen failure "[SOCK]:open, listen failed, err=". No address reuse:
    /// a port still held elsewhere is refused (EADDRINUSE). A descriptor left by
    /// a failed bind or listen stays in m_socket for the caller to close.
    int open(const char* aIp, unsigned short aPort);
    /// Accepts one connection. Returns the new descriptor (blocking, whatever
    /// the listener's mode), or -1 with "[SOCK]:accept, accept failed, sock="
    /// followed by the error number (the "sock=" value is m_error, not a
    /// descriptor) and ", this=". A non-blocking listener with nothing pending
    /// fails so, with EAGAIN in m_error. The descriptor belongs to the caller:
    /// adopt it into a ComTcpClient or ComSocketBase with assign, whose close()
    /// then closes it, or close it yourself.
    int accept();
};

#endif  // SYSTEM_WRAPPERS_COM_SOCKET_H_
