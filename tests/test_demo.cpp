// The demo engine as a user runs it: a short echo run and a short media run to
// a clean summary, the command-line refusals, and the serve mode with its log
// read by sw_shmlog.
#include <sys/resource.h>

#include <regex>

#include "test_support.h"

namespace {

using DemoTest = ChannelKeyTest;

long Occurrences(const std::string& aText, const std::string& aPattern) {
    const std::regex pattern(aPattern);
    return std::distance(std::sregex_iterator(aText.begin(), aText.end(), pattern),
                         std::sregex_iterator());
}

TEST_F(DemoTest, ShortRunEndsInACleanSummary) {
    ChildProgram demo;
    ASSERT_TRUE(demo.Run({SW_DEMO_PATH, "--connections", "3", "--messages", "150", "--size", "3000",
                          "--workers", "2", "--shm-key", m_path}));
    EXPECT_EQ(demo.ExitCode(), 0) << demo.Out() << demo.Err();
    EXPECT_EQ(1, Occurrences(demo.Out(),
                             "\n  connections  3 \\(0 failed\\)\n"
                             "  messages     450 of 3000 bytes \\(450 expected, 0 mismatched\\)\n"
                             "  bytes        1350000 each way\n"
                             "  elapsed      [0-9.]+ s\n"
                             "  throughput   [0-9]+ msg/s, [0-9.]+ MiB/s each way\n"
                             "  round trip   p50 [0-9]+ us, p99 [0-9]+ us, max [0-9]+ us\n"
                             "  result       OK, every echoed byte matched\n"))
        << demo.Out();
    EXPECT_EQ(demo.Err(), "");  // a clean run has no warning or error to report
}

// Media over each transport (and back end): every frame sent is received once, intact.
TEST_F(DemoTest, MediaRunReceivesEveryFrameItSent) {
    for (const std::string transport : {"udp", "tcp"}) {
        SCOPED_TRACE(transport);
        ChildProgram demo;
        ASSERT_TRUE(demo.Run({SW_DEMO_PATH, "--media", "--duration", "2", "--streams", "3",
                              "--transport", transport, "--backend",
                              transport == "udp" ? "select" : "epoll", "--shm-key", m_path}));
        const std::string out = demo.Out();
        EXPECT_EQ(demo.ExitCode(), 0) << out << demo.Err();
        std::smatch frames;
        ASSERT_TRUE(
            std::regex_search(out, frames,
                              std::regex("\n  frames +([1-9][0-9]*) sent, \\1 received: 0 "
                                         "lost, 0 duplicated, 0 out of order, 0 corrupt\n")))
            << out;
        EXPECT_EQ(1,
                  Occurrences(out, "\n  timer lateness .*\\(" + frames[1].str() + " ticks\\)\n"));
        EXPECT_EQ(1, Occurrences(out, "\n  result +OK, every frame arrived intact"));
        EXPECT_EQ(demo.Err(), "");
    }
}

TEST_F(DemoTest, CommandLineMistakesExitWithTwoAndHelpWithZero) {
    const struct {
        std::vector<std::string> argv;
        int exitCode;
        const char* message;  // on stderr for a refusal, on stdout for help
    } cases[] = {
        {{SW_DEMO_PATH, "--bogus"}, 2, "unknown option '--bogus'"},
        {{SW_DEMO_PATH, "--size", "0"}, 2, "--size takes a whole number from 1"},
        {{SW_DEMO_PATH, "--connections", "501", "--backend", "select"}, 2, "at most 500 with the"},
        {{SW_DEMO_PATH, "--media", "--frame", "65508"}, 2, "at most 65507 bytes over udp"},
        {{SW_DEMO_PATH, "--help"}, 0, "usage: sw_demo"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.argv[1]);
        ChildProgram demo;
        ASSERT_TRUE(demo.Run(c.argv));
        EXPECT_EQ(demo.ExitCode(), c.exitCode);
        EXPECT_NE((c.exitCode == 0 ? demo.Out() : demo.Err()).find(c.message), std::string::npos);
        if (c.exitCode != 0) EXPECT_EQ(demo.Out(), "") << "nothing runs after a refusal";
    }
}

// Serve mode takes a burst of connects at once (the demo inherits the raised limit) and, on
// select only, closes, one warning each, those select() cannot watch; sw_shmlog steers and
// reads its log.
class DemoServe : public DemoTest, public ::testing::WithParamInterface<std::string> {};
INSTANTIATE_TEST_SUITE_P(, DemoServe, ::testing::Values("select", "epoll"),
                         [](const auto& aInfo) { return aInfo.param; });

TEST_P(DemoServe, TakesBurstsAndClosesWhatItCannotWatch) {
    rlimit limit{};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 4096);
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
    const int count = limit.rlim_cur > 1200 ? 1100 : 300;  // beyond FD_SETSIZE if allowed
    ChildProgram demo, level, dump;
    int port = 0;
    const std::regex listening("echo service on 127\\.0\\.0\\.1:([0-9]+); " + GetParam());
    ASSERT_TRUE(
        demo.Start({SW_DEMO_PATH, "--serve", "--backend", GetParam(), "--shm-key", m_path}));
    ASSERT_TRUE(demo.WaitForOutput([&](const std::string& aOut) {
        std::smatch match;
        if (std::regex_search(aOut, match, listening)) port = std::stoi(match[1].str());
        return port != 0;
    })) << demo.Out()
        << demo.Err();
    // Let info lines into the channel, the way an operator would.
    ASSERT_TRUE(level.Run({SW_SHMLOG_PATH, "--key", m_path, "level", "info"}));
    ASSERT_EQ(level.ExitCode(), 0) << level.Out() << level.Err();

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
                    char c = 0;
                    ++(recv(p.fd, &c, 1, 0) == 1 && c == 'x' ? answered : closed);
                    p.fd = ~p.fd;  // poll skips it from now on
                }
            }
            return answered + closed == count;
        },
        std::chrono::seconds(60));
    // Every session traced its "accepted" line before it could answer.
    ASSERT_TRUE(dump.Run({SW_SHMLOG_PATH, "--key", m_path, "dump"}));
    EXPECT_EQ(answered,
              Occurrences(dump.Out(), "\\[I:ENG\\+[^\n]*\\[DEMO\\]:EchoService, accepted"))
        << dump.Err();
    for (const pollfd& p : peers) close(p.fd < 0 ? ~p.fd : p.fd);
    demo.Signal(SIGTERM);
    ASSERT_TRUE(demo.Finish() && demo.ExitCode() == 0) << demo.Err();
    EXPECT_EQ(answered + closed, count) << "connections left without an answer";
    EXPECT_GE(answered, std::min(count, 1000));
    EXPECT_EQ(closed > 0, GetParam() == "select" && count > FD_SETSIZE);
    EXPECT_EQ(closed,
              Occurrences(demo.Err(), "\\[W:ENG[^\n]*\\[DEMO\\]:EchoService, refused, fd="));
    const std::string served = std::to_string(answered);
    EXPECT_EQ(1, Occurrences(demo.Out(), "SIGTERM; served " + served + " connections, echoed " +
                                             served + " bytes"))
        << demo.Out();
}

}  // namespace
