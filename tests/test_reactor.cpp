// The reactor, its wake-up pipe and the reactor thread.
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>

#include <deque>
#include <regex>

#include "test_support.h"

namespace {

// A handle that counts its callbacks; its descriptor need not be real.
struct CountingHandle : ComReactorBase {
    explicit CountingHandle(int aFd) : fd(aFd) {}
    int on_input() override {
        ++inputs;
        if (onInput) onInput();
        return 0;
    }
    int on_output() override { return ++outputs, 0; }
    int on_close() override { return ++closes, 0; }
    int get_handle() override { return fd; }

    int fd;
    std::atomic<int> inputs{0}, outputs{0}, closes{0};
    std::function<void()> onInput;
};

// Both back ends keep the same rules, so every reactor test runs on each.
class Reactor : public ::testing::TestWithParam<int> {
protected:
    void SetUp() override { ASSERT_EQ(0, ComNetReactor::set_default_backend(GetParam())); }
    void TearDown() override { ComNetReactor::set_default_backend(m_saved); }
    const int m_saved = ComNetReactor::get_default_backend();
    const bool m_epoll = GetParam() == ComNetReactor::BACKEND_EPOLL;
};

}  // namespace

INSTANTIATE_TEST_SUITE_P(
    , Reactor, ::testing::Values(ComNetReactor::BACKEND_SELECT, ComNetReactor::BACKEND_EPOLL),
    [](const auto& aInfo) { return std::string(aInfo.param ? "epoll" : "select"); });

TEST_P(Reactor, WatchedSetLimitsWakeTokensAndEventTurns) {
    TraceCapture capture;
    ProcessResources before;
    {
        ComNetReactor reactor;
        ASSERT_EQ(GetParam(), reactor.get_backend());
        EXPECT_EQ(-1, ComNetReactor::set_default_backend(7));  // and the choice stays
        EXPECT_TRUE(
            capture.Traced(kError, "[COM]:set_default_backend, unknown or unavailable, backend=7"));
        EXPECT_EQ(GetParam(), ComNetReactor::get_default_backend());
        CountingHandle any(0);  // the table is keyed by descriptor: one object serves for all
        for (; any.fd < 1100; ++any.fd) reactor.register_handle(&any, any.fd % 2 ? 1 : 8);
        fd_set readSet, writeSet;
        int bound = 0;
        EXPECT_EQ(1024, reactor.build_socket_set(readSet, writeSet, bound));
        EXPECT_TRUE(FD_ISSET(3, &readSet) && FD_ISSET(4, &readSet) && !FD_ISSET(3, &writeSet));
        EXPECT_TRUE(
            capture.Traced(kError, "[COM]:build_socket_set, too many sockets" + This(&reactor)));

        // Re-registering replaces; a descriptor beyond the set is never put in one.
        reactor.clear_net_handle();
        CountingHandle low(7), high(FD_SETSIZE + 5), higher(FD_SETSIZE + 9);
        reactor.register_handle(&low, 1);
        reactor.register_handle(&low, 2);
        reactor.register_handle(&high, 1);
        reactor.register_handle(&higher, 2);
        EXPECT_EQ(1, reactor.build_socket_set(readSet, writeSet, bound));
        EXPECT_EQ(8, bound);
        EXPECT_TRUE(FD_ISSET(7, &writeSet) && !FD_ISSET(7, &readSet));
        const std::string range = "handle out of fd_set range, handle=" + std::to_string(high.fd);
        const std::string end = ", limit=" + std::to_string(FD_SETSIZE) + This(&reactor);
        EXPECT_TRUE(
            capture.Traced(kError, "[COM]:build_socket_set, " + range + ", skipped=2" + end));
        const std::string warning =
            m_epoll ? "epoll_ctl failed, handle=1029, err=9" + This(&reactor) : range + end;
        EXPECT_TRUE(capture.Traced(kError, "[COM]:register_handle, " + warning));
        EXPECT_EQ(0, reactor.unregister_handle(&high));
        EXPECT_EQ(-1, reactor.unregister_handle(&high));
        EXPECT_EQ(-1, reactor.unregister_handle(nullptr));
        EXPECT_EQ(1u, capture.CountMatching(
                          kError, ".*/com_reactor: \\d+, assert failed, aHandler != NULL"));
        EXPECT_TRUE(capture.Traced(
            kError, "[COM]:unregister_handle, not found, ptr=" + This(&high).substr(7) +
                        ", handle=" + std::to_string(FD_SETSIZE + 5) + This(&reactor)));
        reactor.clear_net_handle();  // the fake descriptors could clash with the wake-up's

        ASSERT_EQ(0, reactor.init());
        const int readEnd = reactor.m_PipeNotify.get_handle();
        EXPECT_EQ(m_epoll, reactor.m_PipeNotify._pipe.get_read_handle() == -1);  // no port on epoll
        pollfd token{readEnd, POLLIN, 0};
        auto pending = [&] { return poll(&token, 1, 0) == 1; };  // a wake token
        // 12 posts write one token; the reactor comes back for the rest itself.
        ComEventQueueWithReactor* queue = reactor.get_event_queue();
        int fired = 0, bytes = 0;
        for (int i = 0; i < 12; ++i) queue->PostEvent(new FnEvent([&] { ++fired; }));
        EXPECT_TRUE(m_epoll || (ioctl(readEnd, FIONREAD, &bytes) == 0 && bytes == 4));
        std::vector<int> turns;
        for (int before = 0; pending(); before = fired) {
            reactor.m_PipeNotify.on_input();
            turns.push_back(fired - before);
        }
        EXPECT_EQ((std::vector<int>{5, 5, 2}), turns);

        // A spare token costs one empty pass, nothing else.
        for (int i = 0; i < 2; ++i) reactor.notify_handle();
        std::vector<bool> left;  // each pass takes one token
        for (int i = 0; i < 2; ++i) reactor.m_PipeNotify.on_input(), left.push_back(pending());
        EXPECT_EQ((std::vector<bool>{true, false}), left);

        // The stop flag ends the loop at its next turn, closing what is left. A readable and
        // writable handle that unregisters in on_input gets that pass's on_output, then nothing.
        const int file = open("/proc/self/exe", O_RDONLY);  // regular: always ready, on epoll too
        CountingHandle handle(readEnd + 100), leaving(file);
        leaving.onInput = [&] { reactor.unregister_handle(&leaving); };
        reactor.register_handle(&handle, 4);  // a mask bit that watches nothing
        reactor.register_handle(&high, 1);
        reactor.register_handle(&leaving, 1 | 2);
        int loops = 0;
        std::function<void()> again = [&] {
            ++loops < 50 ? (void)queue->PostEvent(new FnEvent(again)) : reactor.set_stop_flag();
        };
        queue->PostEvent(new FnEvent(again));  // 50 turns, out-of-range lines once a second
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(0, reactor.run_loop());
        const auto took = std::chrono::steady_clock::now() - start;
        EXPECT_EQ(50, loops);  // two lines above, one at registration, one on select's first turn
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(took).count();
        EXPECT_LE(capture.CountMatching(kError, ".*" + range + ",.*"), m_epoll ? 1 : 4 + seconds);
        EXPECT_EQ(1, handle.closes);
        EXPECT_EQ(0, leaving.closes);
        EXPECT_EQ(1, leaving.inputs);
        EXPECT_EQ(1, leaving.outputs);
        EXPECT_TRUE(reactor.m_Handles.empty());
        EXPECT_TRUE(capture.Traced(kInfo, "[COM]:un_init" + This(&reactor)));
        EXPECT_NE(COM_OK, queue->PostEvent(new FnEvent([] {})));
        close(file);
    }
    EXPECT_TRUE(before.Same());
    EXPECT_EQ(0u, capture.CountMatching(kError, ".*(recv|read) failed.*"));

    // Without a reactor the wake-up handle refuses to work.
    ComPipeNotify orphan;
    EXPECT_EQ(-1, orphan.on_input());
    EXPECT_EQ(-1, orphan.open());
    EXPECT_EQ(2u,
              capture.CountMatching(kError, ".*/com_pipe: \\d+, assert failed, _reactor != NULL"));
}

TEST(ComPipe, TakesOnlyItsOwnConnection) {
    // A seccomp filter holds the opening thread in connect while an intruder connects first.
    ProcessResources before;
    ComPipe pipe;
    std::atomic<int> notifier{-2}, opened{-2};
    std::thread opener([&] {
        sock_filter code[] = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                              BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_connect, 0, 1),
                              BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF),
                              BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
        sock_fprog program{4, code};
        prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);  // this thread only, which ends below
        notifier = syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_NEW_LISTENER,
                           &program);
        opened = pipe.open();
    });
    EXPECT_TRUE(WaitUntil([&] { return notifier != -2; }));
    pollfd held{notifier, POLLIN, 0};  // bounded: a pipe that never connects must not hang us
    seccomp_notif call{};
    EXPECT_TRUE(poll(&held, 1, 30000) == 1 && (held.revents & POLLIN) &&
                ioctl(notifier, SECCOMP_IOCTL_NOTIF_RECV, &call) == 0);
    sockaddr_in listener{};  // connect's destination, read from the held thread
    iovec to{&listener, sizeof(listener)}, from{(void*)call.data.args[1], sizeof(listener)};
    EXPECT_EQ(16, process_vm_readv(getpid(), &to, 1, &from, 1, 0));
    ComTcpClient intruder;
    EXPECT_EQ(0, intruder.open_cn(nullptr, 0, &listener));
    intruder.send("evil", 4);
    seccomp_notif_resp resume{call.id, 0, 0, SECCOMP_USER_NOTIF_FLAG_CONTINUE};
    EXPECT_EQ(0, ioctl(notifier, SECCOMP_IOCTL_NOTIF_SEND, &resume));
    opener.join();
    ASSERT_EQ(0, opened);
    EXPECT_EQ(0, pipe.write("wake", 4));
    EXPECT_EQ("wake", RecvExactly(pipe._sockets[0], 4));
    EXPECT_EQ(0, intruder.close() + pipe.close() + close(notifier));
    EXPECT_TRUE(before.Same());  // the intruder's connection was closed, not kept
}

TEST_P(Reactor, ThreadServesSleepsWakesFromAnyThreadAndEndsCleanly) {
    rlimit files{}, raised{};
    getrlimit(RLIMIT_NOFILE, &files);
    raised = {std::max<rlim_t>(files.rlim_cur, 4096), files.rlim_max};
    if (m_epoll && setrlimit(RLIMIT_NOFILE, &raised) != 0) GTEST_SKIP() << "needs 4096 fds";
    TraceCapture capture;
    ProcessResources before;
    // On epoll, 3000 handles first: the reactor's own descriptors and a connection land past 1024.
    ComReactorThread* reactor = nullptr;
    std::deque<CountingHandle> handles;
    std::vector<int> expected, order;
    for (int i = 0; m_epoll && i < 3000; ++i) {
        CountingHandle& h = handles.emplace_back(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
        h.onInput = [&] { order.push_back(h.fd), reactor->UnRegisterHandle(&h); };
        if (i % 600 == 599) expected.push_back(h.fd);
    }
    ComThreadManger* manager = ComThreadManger::GetInstance();
    ASSERT_EQ(0, manager->CreateReactorThread(reactor));
    ASSERT_EQ(GetParam(), reactor->_reactor->get_backend());
    ComPipe tcp;  // a loopback connection
    CountingHandle connection(-1);
    connection.onInput = [&] { reactor->UnRegisterHandle(&connection); };
    if (m_epoll) {  // no cap; ready in descending order, called ascending, the connection last
        ASSERT_EQ(0, tcp.open());
        ASSERT_GT(connection.fd = tcp.get_read_handle(), FD_SETSIZE);
        RunOn(reactor, [&] {
            for (CountingHandle& h : handles) EXPECT_EQ(0, reactor->RegisterHandle(&h, 8));
            EXPECT_EQ(0, reactor->RegisterHandle(&connection, 1));
            for (auto fd = expected.rbegin(); fd != expected.rend(); ++fd) eventfd_write(*fd, 1);
        });
        EXPECT_EQ(0, tcp.write("hello", 5));
        EXPECT_TRUE(WaitUntil([&] { return connection.inputs == 1; }));
        EXPECT_EQ(expected, order);
        EXPECT_EQ("hello", RecvExactly(tcp._sockets[0], 5));
    }

    // No timers, nothing watched is ready (what is left unread was unregistered), so no spinning:
    // select, pselect6, epoll_pwait2 wait with a null time-out, epoll_wait and epoll_pwait with -1.
    pid_t kernelTid = 0;
    RunOn(reactor, [&] { kernelTid = gettid(); });
    const std::string call = "/proc/self/task/" + std::to_string(kernelTid) + "/syscall";
    const std::regex sleepsForever(m_epoll ? R"(^((232|281) (\S+ ){3}0xf{8,16}|441 (\S+ ){3}0x0) )"
                                           : "^(23|270) (\\S+ ){4}0x0 ");
    EXPECT_TRUE(WaitUntil(
        [&] { return Asleep(kernelTid) && std::regex_search(ReadFile(call), sleepsForever); }));

    // Hosts may wake the loop from several threads at once.
    RunThreads(4, [&](int) {
        for (int i = 0; i < 500; ++i) EXPECT_EQ(0, reactor->_reactor->notify_handle());
    });
    const std::string destroyLine =
        "[COM]:destroy_reactor, reactor=" + This(reactor->_reactor).substr(7) + This(reactor);
    EXPECT_EQ(0, manager->DestroyThread(reactor));
    EXPECT_TRUE(capture.Traced(kInfo, destroyLine));
    EXPECT_EQ(0u, capture.CountMatching(kError, ".*"));  // Stop and Join trace their failures
    for (CountingHandle& h : handles) close(h.fd);
    EXPECT_EQ(0, tcp.close());
    EXPECT_TRUE(before.Same());
    setrlimit(RLIMIT_NOFILE, &files);
}
