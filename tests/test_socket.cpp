// The socket wrappers: result conventions, m_error and failure lines.
#include <arpa/inet.h>

#include "test_support.h"

namespace {

// "<aText><aErr>, this=<aObject>": the shape of every failed system call's line.
std::string Failed(const char* aText, unsigned long aErr, const void* aObject) {
    return aText + std::to_string(aErr) + This(aObject);
}

TEST(ComSocket, EmptyObjectIsRefusedWithoutSystemCalls) {
    ProcessResources before;
    TraceCapture trace;
    ComTcpServer sock;
    char byte = 'x';
    unsigned char ubyte = 'x';
    IOVECTOR vector{&byte, 1};
    sockaddr_in addr{};
    // {assertion line, failure result, actual result}: -1 for a status, 0 for a byte count.
    const int calls[][3] = {{36, -1, sock.connect(&addr)},
                            {57, -1, sock.shutdowm(SHUT_RDWR)},
                            {73, -1, sock.set_sock_opt(0, nullptr)},
                            {82, -1, sock.enable_nonblock()},
                            {115, -1, sock.get_local_addr(addr)},
                            {404, -1, sock.accept()},
                            {158, 0, sock.send_v(&vector, 1)},
                            {201, 0, sock.send_data(&ubyte, 1, nullptr)},
                            {219, 0, sock.sendv_to(&vector, 1, &addr)},
                            {259, 0, sock.send_to(&byte, 1, &addr)},
                            {281, 0, sock.recv(&byte, 1)},
                            {299, 0, sock.recv_from(&byte, 1, &addr)}};
    const std::vector<CapturedLine> lines = trace.Lines();  // the assertions and nothing else
    ASSERT_EQ(12u, lines.size());
    for (size_t i = 0; i < lines.size(); ++i) {
        EXPECT_EQ(calls[i][1], calls[i][2]) << "line " << calls[i][0];
        EXPECT_EQ(AssertLine("com_socket_base", calls[i][0], "m_socket != COM_INVALID_SOCKET"),
                  lines[i].text);
        EXPECT_EQ(kError, lines[i].level);
    }
    EXPECT_EQ(0, sock.close());

    // Bad addresses are refused before any socket exists, and a failed create leaves none.
    ComTcpClient client;
    EXPECT_EQ(-1, sock.open(nullptr, 80));
    EXPECT_TRUE(trace.Traced(kError, "[SOCK]:open, invalid addr" + This(&sock)));
    EXPECT_EQ(-1, client.open_cn(nullptr, 80, nullptr, 0));
    EXPECT_EQ(-1, client.open_cn("127.0.0.1", 0, nullptr, 0));
    EXPECT_EQ(2u, trace.Count(kError, "[SOCK]:open_cn, invalid destaddr" + This(&client)));
    EXPECT_EQ(-1, sock.ComSocketBase::open(nullptr, 12345));
    EXPECT_TRUE(trace.Traced(kError, Failed("[SOCK]:open, create failed, err=", EINVAL, &sock)));

    const int first = ::socket(AF_INET, SOCK_STREAM, 0), second = ::socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_EQ(COM_INVALID_SOCKET, sock.assign(first));
    EXPECT_EQ(first, sock.assign(second));
    EXPECT_EQ(0, ::close(first));  // handed back, still open
    EXPECT_EQ(0, sock.close());
    EXPECT_EQ(-1, fcntl(second, F_GETFD));
    EXPECT_EQ(COM_INVALID_SOCKET, sock.get_socket());
    EXPECT_TRUE(before.Same());
}

TEST(ComSocket, LoopbackConnectionFromOpenToRefusal) {
    ProcessResources before;
    TraceCapture trace;
    ComTcpServer server;
    ASSERT_EQ(0, server.open("127.0.0.1", 0));
    EXPECT_TRUE(trace.Traced(kInfo, "[SOCK]:open, addr=127.0.0.1, port=0" + This(&server)));
    sockaddr_in bound{};
    ASSERT_EQ(0, server.get_local_addr(bound));
    EXPECT_EQ(htonl(INADDR_LOOPBACK), bound.sin_addr.s_addr);
    const unsigned short port = ntohs(bound.sin_port);

    ComTcpClient client;
    ASSERT_EQ(0, client.open_cn(nullptr, 0, &bound));  // a real port: 0 would be refused
    ComSocketBase peer;
    EXPECT_EQ(COM_INVALID_SOCKET, peer.assign(server.accept()));
    ASSERT_EQ(0, peer.enable_nonblock());
    ASSERT_TRUE(fcntl(peer.get_socket(), F_GETFL) & O_NONBLOCK);  // else the recvs below block

    char buffer[64];
    EXPECT_EQ(0, peer.recv(buffer, sizeof(buffer)));  // would block: a failure like any other
    EXPECT_EQ(unsigned(EAGAIN), peer.m_error);        // EWOULDBLOCK is the same number here
    EXPECT_TRUE(trace.Traced(kError, Failed("[SOCK]:recv, recv failed, err=", EAGAIN, &peer)));
    EXPECT_EQ(5, client.send("hello", 5));
    EXPECT_EQ("hello", RecvExactly(peer, 5));

    // Only the first 1024 gather elements go out.
    std::vector<char> bytes(1500);
    std::vector<IOVECTOR> vectors(bytes.size());
    for (size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<char>(i % 251);
        vectors[i] = IOVECTOR{&bytes[i], 1};
    }
    EXPECT_EQ(1024, client.send_v(vectors.data(), vectors.size()));
    EXPECT_EQ(std::string(bytes.data(), 1024), RecvExactly(peer, 1024));
    EXPECT_EQ(0, client.send_v(nullptr, 3));
    EXPECT_TRUE(trace.Traced(kError, Failed("[SOCK]:send_v, send failed, err=", EINVAL, &client)));

    // The placeholders succeed, reset the error and send nothing.
    EXPECT_EQ(0, client.set_sock_opt(1, buffer));
    EXPECT_EQ(0, client.sendv_to(vectors.data(), 3, &bound));
    EXPECT_EQ(0u, client.m_error);
    EXPECT_EQ(0, peer.recv(buffer, sizeof(buffer)));
    EXPECT_EQ(unsigned(EAGAIN), peer.m_error);

    // Orderly close: recv gives 0 with no error; sends then fail without a signal.
    EXPECT_EQ(0, client.shutdowm(SHUT_WR));
    EXPECT_EQ("", RecvExactly(peer, 1));
    EXPECT_EQ(0u, peer.m_error);
    EXPECT_EQ(0, client.close());
    EXPECT_TRUE(WaitUntil([&] { return peer.send("x", 1) == 0; }));
    EXPECT_TRUE(peer.m_error == EPIPE || peer.m_error == ECONNRESET) << peer.m_error;
    EXPECT_EQ(0, peer.close());

    // The port is taken: the bind fails and its descriptor stays for the owner to close.
    ComTcpServer second;
    EXPECT_EQ(-1, second.open("127.0.0.1", port));
    EXPECT_TRUE(
        trace.Traced(kError, Failed("[SOCK]:open, bind failed, err=", EADDRINUSE, &second)));
    EXPECT_NE(COM_INVALID_SOCKET, second.get_socket());
    EXPECT_EQ(0, second.close() + server.close());

    // Nobody listens any more: a refused connect, traced by connect and by the 4-argument form.
    trace.Clear();
    EXPECT_EQ(-1, client.open_cn("127.0.0.1", port, "127.0.0.1", 0));
    EXPECT_EQ(unsigned(ECONNREFUSED), client.m_error);
    const std::vector<CapturedLine> lines = trace.Lines();
    ASSERT_EQ(2u, lines.size());
    EXPECT_EQ(Failed("[SOCK]:connect, connect failed, err=", ECONNREFUSED, &client), lines[0].text);
    EXPECT_EQ("[SOCK]:open_cn, open failed" + This(&client), lines[1].text);
    EXPECT_EQ(0, client.close());
    EXPECT_TRUE(before.Same());
}

}  // namespace
