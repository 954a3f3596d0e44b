// The demo engine as a user runs it: a short echo run to a clean summary, the
// command-line refusals, and the serve mode with its log read by sw_shmlog.
#include <sys/resource.h>

#include <regex>

#include "test_support.h"

namespace {

using DemoTest = ChannelKeyTest;

bool Has(const std::string& aText, const char* aPattern) {
    return std::regex_search(aText, std::regex(aPattern));
}

TEST_F(DemoTest, ShortRunEndsInACleanSummary) {
    ChildProgram demo;
    ASSERT_TRUE(demo.Run({SW_DEMO_PATH, "--connections", "3", "--messages", "150", "--size", "3000",
                          "--workers", "2", "--shm-key", m_path}));
    EXPECT_EQ(demo.ExitCode(), 0) << demo.Out() << demo.Err();
    EXPECT_TRUE(Has(demo.Out(),
                    "\n  connections  3 \\(0 failed\\)\n"
                    "  messages     450 of 3000 bytes \\(450 expected, 0 mismatched\\)\n"
                    "  bytes        1350000 each way\n"
                    "  elapsed      [0-9.]+ s\n"
                    "  throughput   [0-9]+ msg/s, [0-9.]+ MiB/s each way\n"
                    "  round trip   p50 [0-9]+ us, p99 [0-9]+ us, max [0-9]+ us\n"
                    "  result       OK, every echoed byte matched\n"))
        << demo.Out();
    // A clean run has no warning or error to report.
    EXPECT_EQ(demo.Err(), "");
}

TEST_F(DemoTest, CommandLineMistakesExitWithTwo) {
    const struct {
        std::vector<std::string> args;
        const char* message;
    } cases[] = {
        {{"--bogus"}, "unknown option '--bogus'"},
        {{"--size", "0"}, "--size takes a whole number from 1"},
        {{"--connections"}, "--connections needs a value"},
        {{"--workers=-3"}, "--workers takes a whole number"},
        {{"--log", "loud"}, "--log takes debug, info, warning, error or off"},
        {{"--duration", "soon"}, "--duration takes a positive number"},
        {{"--serve=yes"}, "--serve takes no value"},
    };
    for (const auto& c : cases) {
        std::vector<std::string> argv = {SW_DEMO_PATH};
        argv.insert(argv.end(), c.args.begin(), c.args.end());
        ChildProgram demo;
        ASSERT_TRUE(demo.Run(argv));
        EXPECT_EQ(demo.ExitCode(), 2) << c.args[0];
        EXPECT_NE(demo.Err().find(c.message), std::string::npos) << demo.Err();
        EXPECT_EQ(demo.Out(), "") << "nothing runs after a refusal";
    }
    ChildProgram help;
    ASSERT_TRUE(help.Run({SW_DEMO_PATH, "--help"}));
    EXPECT_EQ(help.ExitCode(), 0);
    EXPECT_NE(help.Out().find("usage: sw_demo"), std::string::npos);
}

// Starts serve mode; the port it listens on, or 0.
int StartServing(ChildProgram& aDemo, const char* aKey) {
    int port = 0;
    const std::regex listening("echo service on 127\\.0\\.0\\.1:([0-9]+)");
    aDemo.Start({SW_DEMO_PATH, "--serve", "--shm-key", aKey}) &&
        aDemo.WaitForOutput([&](const std::string& aOut) {
            std::smatch match;
            if (std::regex_search(aOut, match, listening)) port = std::stoi(match[1].str());
            return port != 0;
        });
    return port;
}

// Serve mode echoes for any TCP client and writes its lines into the channel,
// where sw_shmlog in a third process reads them.
TEST_F(DemoTest, ServeEchoesAndLogsToTheChannelUntilSigterm) {
    ChildProgram demo;
    const int port = StartServing(demo, m_path);
    ASSERT_NE(port, 0) << demo.Out() << demo.Err();

    // Let info lines into the channel, the way an operator would.
    ChildProgram level;
    ASSERT_TRUE(level.Run({SW_SHMLOG_PATH, "--key", m_path, "level", "info"}));
    ASSERT_EQ(level.ExitCode(), 0) << level.Out() << level.Err();

    ComTcpClient client;
    ASSERT_EQ(0, client.open_cn("127.0.0.1", static_cast<unsigned short>(port), nullptr, 0));
    ASSERT_EQ(12, client.send("hello, echo\n", 12));
    EXPECT_EQ("hello, echo\n", RecvExactly(client, 12));
    client.close();

    // The service's "accepted" line reaches the ring.
    std::string ring;
    EXPECT_TRUE(WaitUntil([&] {
        ChildProgram dump;
        ring = dump.Run({SW_SHMLOG_PATH, "--key", m_path, "dump"}) ? dump.Out() : dump.Err();
        return Has(ring, "\\[I:ENG\\+[^\n]*\\[DEMO\\]:EchoService, accepted") ||
               (usleep(50000), false);
    })) << ring;

    demo.Signal(SIGTERM);
    ASSERT_TRUE(demo.Finish());
    EXPECT_EQ(demo.ExitCode(), 0) << demo.Err();
    EXPECT_NE(demo.Out().find("SIGTERM; served 1 connections, echoed 12 bytes"), std::string::npos)
        << demo.Out();
}

// A burst of connects is served at once, not after SYN retries; connections that select() cannot
// watch (the demo inherits the raised limit) are closed at once, one warning each.
TEST_F(DemoTest, ServeTakesBurstsAndClosesWhatItCannotWatch) {
    rlimit limit{};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 4096);
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
    const int count = limit.rlim_cur > 1200 ? 1100 : 300;  // beyond FD_SETSIZE if allowed
    ChildProgram demo;
    const int port = StartServing(demo, m_path);
    ASSERT_NE(port, 0) << demo.Out() << demo.Err();
    sockaddr_in addr{};
    ComSocketBase::addr_transfer("127.0.0.1", static_cast<unsigned short>(port), addr);
    std::vector<pollfd> peers;
    for (int i = 0; i < count; ++i) {
        const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
        connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
        peers.push_back({fd, POLLOUT, 0});
    }
    // Each peer sends one byte once connected and then reads its echo or the end.
    int answered = 0, closed = 0;
    WaitUntil(
        [&] {
            poll(peers.data(), peers.size(), 100);
            for (pollfd& p : peers) {
                if (p.events == POLLOUT && (p.revents & POLLOUT)) {
                    send(p.fd, "x", 1, MSG_NOSIGNAL);
                    p.events = POLLIN;
                } else if (p.fd >= 0 && (p.revents & (POLLIN | POLLHUP | POLLERR))) {
                    char c;
                    ++(recv(p.fd, &c, 1, 0) == 1 ? answered : closed);
                    p.fd = ~p.fd;  // poll skips it from now on
                }
            }
            return answered + closed == count;
        },
        std::chrono::seconds(60));
    for (const pollfd& p : peers) close(p.fd < 0 ? ~p.fd : p.fd);
    demo.Signal(SIGTERM);
    ASSERT_TRUE(demo.Finish() && demo.ExitCode() == 0) << demo.Err();
    EXPECT_EQ(answered + closed, count) << "connections left without an answer";
    EXPECT_GE(answered, std::min(count, 1000));
    EXPECT_EQ(closed > 0, count > FD_SETSIZE);
    const std::string err = demo.Err();
    const std::regex refused("\\[W:ENG[^\n]*\\[DEMO\\]:EchoService, refused, fd=");
    EXPECT_EQ(closed, std::distance(std::sregex_iterator(err.begin(), err.end(), refused),
                                    std::sregex_iterator()));
}

}  // namespace
