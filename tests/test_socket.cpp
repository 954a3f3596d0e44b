// The socket wrappers: result conventions, m_error and failure lines.
#include <arpa/inet.h>

#include "test_support.h"

namespace {

// "<aText><aErr>, this=<aObject>": the shape of every failed system call's line.
std::string Failed(const char* aText, unsigned long aErr, const void* aObject) {
    return aText + std::to_string(aErr) + This(aObject);
}

// One object's life: refused while empty, then a loopback connection and its failures.
TEST(ComSocket, LifecycleFromEmptyObjectToRefusedConnect) {
    ProcessResources before;
    TraceCapture trace;
    ComTcpServer server;
    char byte = 'x';
    unsigned char ubyte = 'x';
    IOVECTOR vector{&byte, 1};
    sockaddr_in addr{};
    // {assertion line, failure result, actual result}: -1 for a status, 0 for a byte count.
    const int calls[][3] = {{36, -1, server.connect(&addr)},
                            {57, -1, server.shutdowm(SHUT_RDWR)},
                            {73, -1, server.set_sock_opt(0, nullptr)},
                            {82, -1, server.enable_nonblock()},
                            {115, -1, server.get_local_addr(addr)},
                            {404, -1, server.accept()},
                            {158, 0, server.send_v(&vector, 1)},
                            {201, 0, server.send_data(&ubyte, 1, nullptr)},
                            {219, 0, server.sendv_to(&vector, 1, &addr)},
                            {259, 0, server.send_to(&byte, 1, &addr)},
                            {281, 0, server.recv(&byte, 1)},
                            {299, 0, server.recv_from(&byte, 1, &addr)}};
    std::vector<CapturedLine> lines = trace.Lines();  // the assertions and nothing else
    ASSERT_EQ(12u, lines.size());
    for (size_t i = 0; i < lines.size(); ++i) {
        EXPECT_EQ(calls[i][1], calls[i][2]) << "line " << calls[i][0];
        EXPECT_EQ(AssertLine("com_socket_base", calls[i][0], "m_socket != COM_INVALID_SOCKET"),
                  lines[i].text);
        EXPECT_EQ(kError, lines[i].level);
    }
    EXPECT_EQ(0, server.close());

    // Bad addresses are refused before any socket exists, and a failed create leaves none.
    ComTcpClient client;
    EXPECT_EQ(-1, server.open(nullptr, 80));
    EXPECT_TRUE(trace.Traced(kError, "[SOCK]:open, invalid addr" + This(&server)));
    EXPECT_EQ(-1, client.open_cn(nullptr, 80, nullptr, 0));
    EXPECT_EQ(-1, client.open_cn("127.0.0.1", 0, nullptr, 0));
    EXPECT_EQ(2u, trace.Count(kError, "[SOCK]:open_cn, invalid destaddr" + This(&client)));
    EXPECT_EQ(-1, server.ComSocketBase::open(nullptr, 12345));
    EXPECT_TRUE(trace.Traced(kError, Failed("[SOCK]:open, create failed, err=", EINVAL, &server)));

    const int first = ::socket(AF_INET, SOCK_STREAM, 0), second = ::socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_EQ(COM_INVALID_SOCKET, server.assign(first));
    EXPECT_EQ(first, server.assign(second));
    EXPECT_EQ(0, ::close(first));  // handed back, still open
    EXPECT_EQ(0, server.close());
    EXPECT_EQ(-1, fcntl(second, F_GETFD));
    EXPECT_EQ(COM_INVALID_SOCKET, server.get_socket());

    // The same object, opened again, listens on loopback.
    ASSERT_EQ(0, server.open("127.0.0.1", 0));
    EXPECT_TRUE(trace.Traced(kInfo, "[SOCK]:open, addr=127.0.0.1, port=0" + This(&server)));
    sockaddr_in bound{};
    ASSERT_EQ(0, server.get_local_addr(bound));
    EXPECT_EQ(htonl(INADDR_LOOPBACK), bound.sin_addr.s_addr);
    const unsigned short port = ntohs(bound.sin_port);
    ASSERT_EQ(0, client.open_cn(nullptr, 0, &bound));  // a real port: 0 would be refused
    ComSocketBase peer;
    EXPECT_EQ(COM_INVALID_SOCKET, peer.assign(server.accept()));
    ASSERT_EQ(0, peer.enable_nonblock());
    ASSERT_TRUE(fcntl(peer.get_socket(), F_GETFL) & O_NONBLOCK);  // else the recvs below block

    char buffer[64];
    EXPECT_EQ(0, peer.recv(buffer, sizeof(buffer)));  // would block: a failure like any other
    EXPECT_TRUE(trace.Traced(kError, Failed("[SOCK]:recv, recv failed, err=", EAGAIN, &peer)));

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

    // The placeholders succeed and reset the error; that they send nothing shows below.
    EXPECT_EQ(0, client.set_sock_opt(1, buffer));
    EXPECT_EQ(0, client.sendv_to(vectors.data(), 3, &bound));
    EXPECT_EQ(0u, client.m_error);

    // Orderly close: recv gives nothing more and no error; sends then fail without a signal.
    EXPECT_EQ(0, client.shutdowm(SHUT_WR));
    EXPECT_EQ("", RecvExactly(peer, 1));
    EXPECT_EQ(0u, peer.m_error);
    EXPECT_EQ(0, client.close());
    EXPECT_TRUE(WaitUntil([&] { return peer.send("x", 1) == 0; }));
    EXPECT_TRUE(peer.m_error == EPIPE || peer.m_error == ECONNRESET) << peer.m_error;
    EXPECT_EQ(0, peer.close());

    // The port is taken: the bind fails and its descriptor stays for the owner to close.
    ComTcpServer rival;
    EXPECT_EQ(-1, rival.open("127.0.0.1", port));
    EXPECT_TRUE(trace.Traced(kError, Failed("[SOCK]:open, bind failed, err=", EADDRINUSE, &rival)));
    EXPECT_NE(COM_INVALID_SOCKET, rival.get_socket());
    EXPECT_EQ(0, rival.close() + server.close());

    // Nobody listens any more: a refused connect, traced by connect and by the 4-argument form.
    trace.Clear();
    EXPECT_EQ(-1, client.open_cn("127.0.0.1", port, "127.0.0.1", 0));
    EXPECT_EQ(unsigned(ECONNREFUSED), client.m_error);
    lines = trace.Lines();
    ASSERT_EQ(2u, lines.size());
    EXPECT_EQ(Failed("[SOCK]:connect, connect failed, err=", ECONNREFUSED, &client), lines[0].text);
    EXPECT_EQ("[SOCK]:open_cn, open failed" + This(&client), lines[1].text);
    EXPECT_EQ(0, client.close());
    EXPECT_TRUE(before.Same());
}

}  // namespace
