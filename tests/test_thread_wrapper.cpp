// The thread wrapper and the module process thread: start and stop rules,
// names, priorities, affinity, and that a deregistered module is left alone.
#include <sched.h>

#include "test_support.h"

namespace {

using namespace webrtc;

// What a thread function sees and does; the test steers it.
struct Loop {
    std::atomic<int> calls{0}, returns{0}, insideStop{-1};
    std::atomic<int> callsLeft{1 << 30};  // returns false when it reaches 0
    std::atomic<uint32_t> tid{0};
    int policy = -1;
    struct sched_param param = {-1};
    char name[16] = {};
    bool stopFromInside = false;
    std::unique_ptr<EventWrapper> block;  // when set, each call waits on it
    unsigned int id = 0;
    std::unique_ptr<ThreadWrapper> thread;  // declared last: stopped before the rest goes

    static bool Run(ThreadObj aLoop) {
        Loop* loop = static_cast<Loop*>(aLoop);
        if (loop->calls++ == 0) {
            pthread_getname_np(pthread_self(), loop->name, sizeof(loop->name));
            pthread_getschedparam(pthread_self(), &loop->policy, &loop->param);
            loop->tid = ThreadWrapper::GetThreadId();
        }
        if (loop->block) loop->block->Wait(WEBRTC_EVENT_INFINITE);
        if (loop->stopFromInside) loop->insideStop = loop->thread->Stop();
        // So that an end most likely finds a call running, and no loop spins.
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        const bool again = --loop->callsLeft > 0;
        ++loop->returns;
        return again;
    }
    // Replaces the thread object (deleting the old one) with a new one.
    ThreadWrapper* Make(ThreadPriority aPriority = kNormalPriority, const char* aName = nullptr) {
        thread.reset(ThreadWrapper::CreateThread(&Loop::Run, this, aPriority, aName));
        return thread.get();
    }
    bool Start(ThreadPriority aPriority = kNormalPriority, const char* aName = nullptr) {
        return Make(aPriority, aName) && thread->Start(id);
    }
};

TEST(ThreadWrapper, CreateStartNameAndLoopEnd) {
    Loop loop;
    EXPECT_EQ(nullptr, ThreadWrapper::CreateThread(nullptr, &loop));
    EXPECT_EQ(nullptr, loop.Make(kNormalPriority, std::string(64, 'n').c_str()));
    EXPECT_TRUE(loop.Make(kNormalPriority, std::string(63, 'n').c_str())->Stop());  // not started
    EXPECT_EQ(0, loop.calls);

    TraceCapture trace;
    ASSERT_TRUE(loop.Start(kLowPriority, "audio_capture_thread"));
    EXPECT_TRUE(trace.Traced(kInfo, "[TF]: id=-1, Thread with name:audio_capture_thread started"));
    EXPECT_FALSE(loop.thread->Start(loop.id));
    // The function runs until it returns false; the thread then ends.
    loop.callsLeft = 3;
    ASSERT_TRUE(WaitUntil([&] { return Gone(loop.id); }));
    EXPECT_EQ(0, loop.callsLeft);
    EXPECT_EQ(loop.id, loop.tid);
    EXPECT_STREQ("audio_capture_t", loop.name);
    EXPECT_EQ(SCHED_OTHER, loop.policy);
    EXPECT_TRUE(loop.thread->Stop());
    // An ended thread starts again. Stopped as soon as it started, the function
    // still runs; an unnamed thread traces an empty name.
    loop.calls = 0;
    EXPECT_TRUE(loop.thread->Start(loop.id));
    EXPECT_TRUE(loop.thread->Stop());
    EXPECT_LE(1, loop.calls);
    EXPECT_TRUE(loop.Make()->Start(loop.id));
    EXPECT_TRUE(trace.Traced(kInfo, "[TF]: id=-1, Thread with name: started"));
}

TEST(ThreadWrapper, StopRulesAndAStuckFunction) {
    // SetNotAlive ends the loop after the current call; so does deleting it.
    for (bool viaDelete : {false, true}) {
        Loop loop;
        ASSERT_TRUE(loop.Start());
        ASSERT_TRUE(WaitUntil([&] { return loop.calls > 3; }));
        viaDelete ? loop.thread.reset() : loop.thread->SetNotAlive();
        ASSERT_TRUE(viaDelete || WaitUntil([&] { return Gone(loop.id); }));
        EXPECT_TRUE(viaDelete || loop.thread->Stop());
        const int calls = loop.calls;
        EXPECT_EQ(calls, loop.returns);  // no call left running
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        EXPECT_EQ(calls, loop.calls);
    }

    // From inside: refused, and the thread ends after that call.
    Loop inside;
    inside.stopFromInside = true;
    ASSERT_TRUE(inside.Start());
    ASSERT_TRUE(WaitUntil([&] { return inside.insideStop == 0; }));
    EXPECT_TRUE(inside.thread->Stop());
    EXPECT_EQ(1, inside.calls);

    // Stop gives up on a stuck function, which ends alone later.
    Loop stuck;
    stuck.block.reset(EventWrapper::Create());
    ASSERT_TRUE(stuck.Start());
    ASSERT_TRUE(WaitUntil([&] { return stuck.calls == 1; }));
    EXPECT_FALSE(stuck.thread->Stop());  // after its 10 seconds
    EXPECT_FALSE(stuck.thread->Start(stuck.id));
    stuck.thread.reset();  // the thread still runs and must not touch the object
    stuck.block->Set();
    ASSERT_TRUE(WaitUntil([&] { return stuck.returns == 1 && Gone(stuck.id); }));
    EXPECT_EQ(1, stuck.calls);
}

TEST(ThreadWrapper, PriorityAndAffinity) {
    bool realtimeAllowed = false;  // whether this process may use the realtime policy at all
    std::thread([&] {
        const struct sched_param param = {sched_get_priority_min(SCHED_RR)};
        realtimeAllowed = pthread_setschedparam(pthread_self(), SCHED_RR, &param) == 0;
    }).join();
    TraceCapture trace;
    const int cpu0[] = {0}, missing[] = {0, CPU_SETSIZE + 1}, negative[] = {-1};
    const std::pair<const int*, unsigned> refused[] = {
        {nullptr, 1}, {cpu0, 0}, {missing, 2}, {negative, 1}};
    for (ThreadPriority priority : {kHighestPriority, kRealtimePriority}) {
        Loop loop;
        const std::string name = "rt" + std::to_string(priority);
        EXPECT_FALSE(loop.Make(priority, name.c_str())->SetAffinity(cpu0, 1));  // not running
        ASSERT_TRUE(loop.thread->Start(loop.id));
        ASSERT_TRUE(WaitUntil([&] { return loop.tid != 0; }));
        // Round-robin, highest one step below realtime; where refused, the
        // default policy and one warning line.
        EXPECT_EQ(realtimeAllowed ? SCHED_RR : SCHED_OTHER, loop.policy) << name;
        EXPECT_EQ(realtimeAllowed ? 0u : 1u,
                  trace.CountMatching(kWarning, "\\[TF\\]:Thread with name:" + name + ",.*"));
        const int top = sched_get_priority_max(SCHED_RR) - (priority == kHighestPriority ? 1 : 0);
        EXPECT_EQ(realtimeAllowed ? top : 0, loop.param.sched_priority) << name;
        for (auto [cpus, count] : refused) EXPECT_FALSE(loop.thread->SetAffinity(cpus, count));
        EXPECT_TRUE(loop.thread->SetAffinity(cpu0, 1));
    }
}

// A module due every m_period ms (0: always); m_onProcess runs inside Process.
struct CountingModule : Module {
    explicit CountingModule(int32_t aPeriodMs = 0) : m_period(aPeriodMs) {}
    int32_t TimeUntilNextProcess() override {
        return static_cast<int32_t>(m_next - TickTime::MillisecondTimestamp());
    }
    int32_t Process() override {
        m_next = TickTime::MillisecondTimestamp() + m_period;  // it touches the module
        if (m_onProcess) m_onProcess();
        ++m_processed;
        return 0;
    }

    const int32_t m_period;
    // Due at once. Near "now", unlike 0, whose distance to now overflows int32.
    std::atomic<int64_t> m_next{TickTime::MillisecondTimestamp()};
    std::atomic<int> m_processed{0};
    std::function<void()> m_onProcess;
};

TEST(ProcessThread, RegistrationOrderRefusalsAndCallsFromInside) {
    TraceCapture trace;
    ProcessThread* process = ProcessThread::CreateProcessThread();
    EXPECT_EQ(0, process->Start());
    EXPECT_EQ(-1, process->Start());
    CountingModule first(1000000), second(1000000);
    int firstBeforeSecond = -1;
    second.m_onProcess = [&] { firstBeforeSecond = first.m_processed; };
    EXPECT_EQ(-1, process->RegisterModule(nullptr));
    EXPECT_EQ(-1, process->DeRegisterModule(&first));
    // Registered while stopped, both due now: served in one pass, in order.
    EXPECT_EQ(0, process->Stop());
    EXPECT_EQ(0, process->RegisterModule(&first));
    EXPECT_EQ(0, process->RegisterModule(&second));
    EXPECT_EQ(-1, process->RegisterModule(&first));
    EXPECT_TRUE(
        trace.Traced(kInfo, "[TF]: id=-1, number of registered modules has increased to 1"));
    EXPECT_TRUE(
        trace.Traced(kInfo, "[TF]: id=-1, number of registered modules has increased to 2"));
    EXPECT_EQ(0, process->Start());
    ASSERT_TRUE(WaitUntil([&] { return second.m_processed == 1; }));
    EXPECT_EQ(1, firstBeforeSecond);

    // A module due in 20 ms is served again and again; the others wait.
    CountingModule periodic(20);
    EXPECT_EQ(0, process->RegisterModule(&periodic));
    EXPECT_TRUE(WaitUntil([&] { return periodic.m_processed >= 3; }));
    EXPECT_EQ(0, process->DeRegisterModule(&periodic));
    EXPECT_EQ(-1, process->DeRegisterModule(&periodic));
    EXPECT_EQ(1, first.m_processed);

    // A deregistered module may be deleted at once.
    for (int round = 0; round < 20; ++round) {
        CountingModule* slow = new CountingModule;
        slow->m_onProcess = [] { std::this_thread::sleep_for(std::chrono::milliseconds(5)); };
        ASSERT_EQ(0, process->RegisterModule(slow));
        ASSERT_TRUE(WaitUntil([&] { return slow->m_processed > round % 3; }));
        ASSERT_EQ(0, process->DeRegisterModule(slow));
        delete slow;  // ASan reports any call still running or to come
    }

    // From inside Process: deregister itself, register another, stop the thread.
    CountingModule other(1000000), self, stopper, destroyer;
    int selfResult = 1, registerResult = 1, stopResult = 1;
    self.m_onProcess = [&] {
        selfResult = process->DeRegisterModule(&self);
        registerResult = process->RegisterModule(&other);
    };
    ASSERT_EQ(0, process->RegisterModule(&self));
    ASSERT_TRUE(WaitUntil([&] { return other.m_processed == 1; }));
    EXPECT_EQ(0, selfResult);
    EXPECT_EQ(0, registerResult);
    EXPECT_EQ(1, self.m_processed);
    stopper.m_onProcess = [&] { stopResult = process->Stop(); };
    ASSERT_EQ(0, process->RegisterModule(&stopper));
    ASSERT_TRUE(WaitUntil([&] { return stopper.m_processed == 1; }));
    EXPECT_EQ(-1, stopResult);
    EXPECT_EQ(0, process->Stop());
    EXPECT_EQ(1, stopper.m_processed);  // the thread ended after that pass
    EXPECT_EQ(0, process->DeRegisterModule(&stopper));
    EXPECT_EQ(0, process->Start());  // a stopped thread starts again

    // Destroyed from inside Process: freed once that pass ends (ASan checks).
    std::atomic<uint32_t> serving{0};
    destroyer.m_onProcess = [&] {
        serving = ThreadWrapper::GetThreadId();
        ProcessThread::DestroyProcessThread(process);
    };
    ASSERT_EQ(0, process->RegisterModule(&destroyer));
    ASSERT_TRUE(WaitUntil([&] { return serving != 0 && Gone(serving); }));
    EXPECT_EQ(1, destroyer.m_processed);
}

}  // namespace
