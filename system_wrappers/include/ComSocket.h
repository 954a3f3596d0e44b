// Thin synchronous wrappers over IPv4 BSD sockets: one result convention per
// kind of operation, the errno of the last failure in m_error, and one trace
// line per failure.
#ifndef SYSTEM_WRAPPERS_COM_SOCKET_H_
#define SYSTEM_WRAPPERS_COM_SOCKET_H_

#include <netinet/in.h>
#include <stddef.h>

#include "sw_export.h"

// The descriptor value of an object that holds no socket.
constexpr int COM_INVALID_SOCKET = -1;

// One element of a gathered send, laid out like the system's iovec.
struct IOVECTOR {
    char* iov_base;
    size_t iov_len;
};

// Status operations (open, connect, accept, ...) return 0 or -1; byte-count
// operations (send, recv, ...) return the count, or 0 on failure, and the
// caller reads m_error to tell "would block" (EAGAIN) from a real fault or a
// closed peer (0). Not locked: one thread uses an object at a time. The
// destructor does not close the descriptor; its owner calls close().
class SW_EXPORT ComSocketBase {
public:
    ComSocketBase();
    virtual ~ComSocketBase();

    // An AF_INET socket of aType, bound to aLocal unless it is null. A bind
    // failure leaves the unbound descriptor in m_socket for the caller to close.
    int open(const sockaddr_in* aLocal, int aType);
    int connect(const sockaddr_in* aDest);
    int shutdowm(int aHow);
    // Placeholder: sets no option.
    int set_sock_opt(unsigned long aOption, void* aValue);
    // aBlocking == 0 switches non-blocking mode on.
    int set_non_block(unsigned long aBlocking);
    int enable_nonblock();
    int get_local_addr(sockaddr_in& aAddr);

    int send(const char* aData, int aLength);
    int send_to(const char* aData, unsigned long aLength, const sockaddr_in* aDest);
    // Sends at most the first 1024 elements in one call.
    int send_v(IOVECTOR* aVectors, unsigned long aCount);
    // Placeholder: sends nothing and returns 0.
    int sendv_to(IOVECTOR* aVectors, unsigned long aCount, const sockaddr_in* aDest);
    // send_to when aDest is given, else send.
    int send_data(unsigned char* aData, unsigned long aLength, sockaddr_in* aDest);
    int recv(char* aBuffer, int aLength);
    int recv_from(char* aBuffer, unsigned long aLength, sockaddr_in* aFrom);

    // Saves errno in m_error.
    void attain_err();
    // Fills family, port (network order) and address; other bytes are kept.
    static void addr_transfer(const char* aIp, unsigned short aPort, sockaddr_in& aAddr);
    void set_init_state();
    // Adopts aSocket and returns the previous descriptor, untouched.
    int assign(int aSocket);
    // Closes the descriptor if any; always 0.
    int close();
    int get_socket() const;

    int m_socket;
    unsigned long m_error;
    sockaddr_in m_addr;
};

class SW_EXPORT ComTcpClient : public ComSocketBase {
public:
    // Opens a stream socket (bound to aLocalIp:aLocalPort when aLocalIp is
    // given) and connects it to aDest, blocking.
    int open_cn(const char* aLocalIp, unsigned short aLocalPort, const sockaddr_in* aDest);
    int open_cn(const char* aDestIp, unsigned short aDestPort, const char* aLocalIp,
                unsigned short aLocalPort);
};

class SW_EXPORT ComTcpServer : public ComSocketBase {
public:
    // Binds a stream socket to aIp:aPort (0: the system picks) and listens
    // with a backlog of 5.
    int open(const char* aIp, unsigned short aPort);
    // The accepted descriptor belongs to the caller (adopt it with assign).
    int accept();
};

#endif  // SYSTEM_WRAPPERS_COM_SOCKET_H_
