// The demo engine as a user runs it: a short echo run to a clean summary, the
// command-line refusals, and the serve mode with its log read by sw_shmlog.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <regex>

#include "test_support.h"

namespace {

using DemoTest = ChannelKeyTest;

bool Has(const std::string& aText, const char* aPattern) {
    return std::regex_search(aText, std::regex(aPattern));
}

TEST_F(DemoTest, ShortRunEndsInACleanSummary) {
    ChildProgram demo;
    ASSERT_TRUE(demo.Start({SW_DEMO_PATH, "--connections", "3", "--messages", "150", "--size",
                            "3000", "--workers", "2", "--shm-key", m_path}));
    ASSERT_TRUE(demo.Finish());
    const std::string& out = demo.Out();
    EXPECT_EQ(demo.ExitCode(), 0) << out << demo.Err();
    EXPECT_TRUE(Has(out, "\n  connections  3 \\(0 failed\\)\n")) << out;
    EXPECT_TRUE(Has(out, "\n  messages     450 of 3000 bytes \\(450 expected, 0 mismatched\\)\n"))
        << out;
    EXPECT_TRUE(Has(out, "\n  bytes        1350000 each way\n")) << out;
    EXPECT_TRUE(Has(out, "\n  throughput   [0-9]+ msg/s, [0-9.]+ MiB/s each way\n")) << out;
    EXPECT_TRUE(Has(out, "\n  round trip   p50 [0-9]+ us, p99 [0-9]+ us, max [0-9]+ us\n")) << out;
    EXPECT_TRUE(Has(out, "\n  result       OK, every echoed byte matched\n")) << out;
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
        ASSERT_TRUE(demo.Start(argv));
        ASSERT_TRUE(demo.Finish());
        EXPECT_EQ(demo.ExitCode(), 2) << c.args[0];
        EXPECT_NE(demo.Err().find(c.message), std::string::npos) << demo.Err();
        EXPECT_EQ(demo.Out(), "") << "nothing runs after a refusal";
    }
    ChildProgram help;
    ASSERT_TRUE(help.Start({SW_DEMO_PATH, "--help"}));
    ASSERT_TRUE(help.Finish());
    EXPECT_EQ(help.ExitCode(), 0);
    EXPECT_NE(help.Out().find("usage: sw_demo"), std::string::npos);
}

// Serve mode echoes for any TCP client and writes its lines into the channel,
// where sw_shmlog in a third process reads them.
TEST_F(DemoTest, ServeEchoesAndLogsToTheChannelUntilSigterm) {
    ChildProgram demo;
    ASSERT_TRUE(demo.Start({SW_DEMO_PATH, "--serve", "--shm-key", m_path}));
    int port = 0;
    const std::regex listening("echo service on 127\\.0\\.0\\.1:([0-9]+)");
    ASSERT_TRUE(demo.WaitForOutput([&](const std::string& aOut) {
        std::smatch match;
        if (std::regex_search(aOut, match, listening)) port = std::stoi(match[1].str());
        return port != 0;
    })) << demo.Out()
        << demo.Err();

    // Let info lines into the channel, the way an operator would.
    ChildProgram level;
    ASSERT_TRUE(level.Start({SW_SHMLOG_PATH, "--key", m_path, "level", "info"}));
    ASSERT_TRUE(level.Finish());
    ASSERT_EQ(level.ExitCode(), 0) << level.Out() << level.Err();

    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_NE(fd, -1);
    sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
    const std::string hello = "hello, echo\n";
    ASSERT_EQ(send(fd, hello.data(), hello.size(), 0), static_cast<ssize_t>(hello.size()));
    std::string echoed;
    while (echoed.size() < hello.size()) {
        char buffer[64];
        const ssize_t n = recv(fd, buffer, sizeof(buffer), 0);
        if (n <= 0) break;
        echoed.append(buffer, static_cast<size_t>(n));
    }
    EXPECT_EQ(echoed, hello);
    close(fd);

    // The service's "accepted" line reaches the ring.
    std::string ring;
    for (int attempt = 0; attempt < 100 && ring.find("EchoService, accepted") == std::string::npos;
         ++attempt) {
        ChildProgram dump;
        ASSERT_TRUE(dump.Start({SW_SHMLOG_PATH, "--key", m_path, "dump"}));
        ASSERT_TRUE(dump.Finish());
        ASSERT_EQ(dump.ExitCode(), 0) << dump.Err();
        ring = dump.Out();
        if (ring.find("EchoService, accepted") == std::string::npos) usleep(100000);
    }
    EXPECT_NE(ring.find("[I:ENG+"), std::string::npos) << ring;
    EXPECT_NE(ring.find("[DEMO]:EchoService, accepted"), std::string::npos) << ring;

    demo.Signal(SIGTERM);
    ASSERT_TRUE(demo.Finish());
    EXPECT_EQ(demo.ExitCode(), 0) << demo.Err();
    EXPECT_NE(demo.Out().find("SIGTERM; served 1 connections, echoed 12 bytes"), std::string::npos)
        << demo.Out();
}

}  // namespace
