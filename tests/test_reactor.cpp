// The reactor, its wake-up pipe and the reactor thread.
#include <arpa/inet.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

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

// The syscall a thread sleeps in and its fifth argument (select's time-out).
std::pair<std::string, std::string> SleepingSyscall(pid_t aTid) {
    std::ifstream file("/proc/self/task/" + std::to_string(aTid) + "/syscall");
    std::string number, arg[5];
    file >> number >> arg[0] >> arg[1] >> arg[2] >> arg[3] >> arg[4];
    return {number, arg[4]};
}

bool InSelect(const std::string& aNumber) {
    return aNumber == "23" || aNumber == "270";  // select, pselect6
}

}  // namespace

TEST(Reactor, TypicalRequestThroughTheManager) {
    ProcessResources before;
    TraceCapture capture;
    ComThreadManger* manager = ComThreadManger::GetInstance();
    ComReactorThread* reactor = nullptr;
    ComTaskThread* worker = nullptr;
    ASSERT_EQ(0, manager->CreateReactorThread(reactor));
    ASSERT_EQ(0, manager->CreateTaskThread(worker));

    // A worker has a handle registered on the reactor thread, which then serves it.
    int pair[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, pair));
    CountingHandle handle(pair[0]);
    std::atomic<pthread_t> servedOn{0};
    handle.onInput = [&] {
        char byte;
        if (read(pair[0], &byte, 1) == 1) servedOn = pthread_self();
    };
    RunOn(worker, [&] {
        reactor->GetEventQueue()->PostEvent(
            new FnEvent([&] { reactor->RegisterHandle(&handle, ComReactorBase::READ_MASK); }));
    });
    ASSERT_EQ(1, write(pair[1], "x", 1));
    ASSERT_TRUE(WaitUntil([&] { return servedOn.load() != 0; }));
    EXPECT_TRUE(pthread_equal(servedOn.load(), reactor->GetThreadId()));

    // Shutdown closes every handle still registered, once.
    const std::string destroyLine =
        "[COM]:destroy_reactor, reactor=" + This(reactor->_reactor).substr(7) + This(reactor);
    EXPECT_EQ(0, manager->DestroyThread(reactor));
    EXPECT_EQ(1, handle.closes);
    EXPECT_TRUE(capture.Traced(kInfo, destroyLine));
    EXPECT_EQ(0, manager->DestroyThread(worker));
    close(pair[0]);
    close(pair[1]);
    EXPECT_TRUE(before.Same());
}

TEST(Reactor, WakeTokensAndEventTurns) {
    TraceCapture capture;
    ProcessResources before;
    {
        ComNetReactor reactor;
        ASSERT_EQ(0, reactor.init());
        const int readEnd = reactor.m_PipeNotify.get_handle();
        auto pendingBytes = [&] {
            int bytes = 0;
            ioctl(readEnd, FIONREAD, &bytes);
            return bytes;
        };

        // 12 posts write one token; the reactor comes back for the rest itself.
        int fired = 0;
        for (int i = 0; i < 12; ++i) {
            reactor.get_event_queue()->PostEvent(new FnEvent([&] { ++fired; }));
        }
        EXPECT_EQ(4, pendingBytes());
        std::vector<int> turns;
        for (int before = 0; pendingBytes() > 0; before = fired) {
            reactor.m_PipeNotify.on_input();
            turns.push_back(fired - before);
        }
        EXPECT_EQ((std::vector<int>{5, 5, 2}), turns);

        // A spare token costs one empty pass, nothing else.
        reactor.notify_handle();
        reactor.notify_handle();
        EXPECT_EQ(8, pendingBytes());
        reactor.m_PipeNotify.on_input();
        reactor.m_PipeNotify.on_input();
        EXPECT_EQ(0, pendingBytes());

        // The stop flag ends the loop at its next turn, closing what is left.
        CountingHandle handle(readEnd + 100);
        reactor.register_handle(&handle, 4);  // a mask bit that watches nothing
        reactor.set_stop_flag();
        EXPECT_EQ(0, reactor.run_loop());
        EXPECT_EQ(1, handle.closes);
        EXPECT_TRUE(reactor.m_Handles.empty());
        EXPECT_EQ(COM_INVALID_SOCKET, reactor.m_PipeNotify.get_handle());
        EXPECT_TRUE(capture.Traced(kInfo, "[COM]:un_init" + This(&reactor)));
        EXPECT_NE(COM_OK, reactor.get_event_queue()->PostEvent(new FnEvent([] {})));
    }
    EXPECT_TRUE(before.Same());
    EXPECT_EQ(0u, capture.CountMatching(kError, ".*recv failed.*"));
}

TEST(Reactor, WatchedSetLimits) {
    TraceCapture capture;
    ComNetReactor reactor;
    std::vector<std::unique_ptr<CountingHandle>> handles;
    for (int fd = 0; fd < 1100; ++fd) {
        handles.emplace_back(new CountingHandle(fd));
        reactor.register_handle(handles.back().get(), fd % 2 ? 1 : 8);
    }
    fd_set readSet, writeSet;
    int bound = 0;
    EXPECT_EQ(1024, reactor.build_socket_set(readSet, writeSet, bound));
    EXPECT_EQ(1024, bound);  // descriptors 0 to 1023
    EXPECT_TRUE(FD_ISSET(3, &readSet) && FD_ISSET(4, &readSet) && !FD_ISSET(3, &writeSet));
    EXPECT_TRUE(
        capture.Traced(kError, "[COM]:build_socket_set, too many sockets" + This(&reactor)));

    // Re-registering replaces; a descriptor beyond the set is never put in one.
    reactor.m_Handles.clear();
    CountingHandle low(7), high(FD_SETSIZE + 5), higher(FD_SETSIZE + 9);
    reactor.register_handle(&low, 1);
    reactor.register_handle(&low, 2);
    reactor.register_handle(&high, 1);
    reactor.register_handle(&higher, 2);
    ASSERT_EQ(3u, reactor.m_Handles.size());
    EXPECT_EQ(2, reactor.m_Handles[7].m_lMask);
    EXPECT_EQ(1, reactor.build_socket_set(readSet, writeSet, bound));
    EXPECT_EQ(8, bound);
    EXPECT_TRUE(FD_ISSET(7, &writeSet) && !FD_ISSET(7, &readSet));
    EXPECT_TRUE(capture.Traced(
        kError, "[COM]:build_socket_set, handle out of fd_set range, handle=" +
                    std::to_string(FD_SETSIZE + 5) +
                    ", skipped=2, limit=" + std::to_string(FD_SETSIZE) + This(&reactor)));
    EXPECT_EQ(0, reactor.unregister_handle(&high));
    EXPECT_EQ(-1, reactor.unregister_handle(&high));
    EXPECT_TRUE(
        capture.Traced(kError, "[COM]:unregister_handle, not found, ptr=" + This(&high).substr(7) +
                                   ", handle=" + std::to_string(FD_SETSIZE + 5) + This(&reactor)));

    // Without a reactor the wake-up handle refuses to work.
    ComPipeNotify orphan;
    EXPECT_EQ(-1, orphan.on_input());
    EXPECT_EQ(-1, orphan.open());
    EXPECT_EQ(
        2u, capture.CountMatching(
                kError, "system_wrappers/source/com_pipe: \\d+, assert failed, _reactor != NULL"));
}

TEST(ReactorThread, SleepsWithoutTimeoutAndDropsSelfUnregisteredHandles) {
    ProcessResources before;
    ComReactorThread* thread = new ComReactorThread(new ComNetReactor);
    ASSERT_EQ(0, thread->Create(BaseThread::TF_JOINABLE));
    pid_t kernelTid = 0;
    RunOn(thread, [&] { kernelTid = gettid(); });

    // No timers: select() sleeps with no time-out at all; a timer gives it one.
    EXPECT_TRUE(WaitUntil([&] {
        auto call = SleepingSyscall(kernelTid);
        return InSelect(call.first) && call.second == "0x0";
    }));
    RecordingHandler timer;
    RunOn(thread, [&] {
        thread->GetTimerQueue()->ScheduleTimer(&timer, nullptr, ComTimeValueType(3600, 0), 1);
    });
    EXPECT_TRUE(WaitUntil([&] {
        auto call = SleepingSyscall(kernelTid);
        return InSelect(call.first) && call.second != "0x0";
    }));
    RunOn(thread, [&] { thread->GetTimerQueue()->CancelTimer(&timer); });

    // Readable and writable: one pass gives on_input then on_output; after
    // unregistering itself in on_input, later passes give nothing.
    int pair[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, pair));
    ASSERT_EQ(1, write(pair[1], "x", 1));
    CountingHandle handle(pair[0]);
    handle.onInput = [&] { thread->UnRegisterHandle(&handle); };
    RunOn(thread, [&] { thread->RegisterHandle(&handle, 1 | 2); });
    ASSERT_TRUE(WaitUntil([&] { return handle.inputs == 1; }));
    for (int i = 0; i < 3; ++i) RunOn(thread, [] {});
    EXPECT_EQ(1, handle.inputs);
    EXPECT_EQ(1, handle.outputs);

    EXPECT_EQ(0, thread->Stop(nullptr));
    EXPECT_EQ(0, thread->Join());
    EXPECT_EQ(0, handle.closes);
    thread->Destory();
    close(pair[0]);
    close(pair[1]);
    EXPECT_TRUE(before.Same());
}
