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
    bool stopFromInside = false;
    std::unique_ptr<EventWrapper> block;  // when set, each call waits on it
    unsigned int id = 0;
    std::unique_ptr<ThreadWrapper> thread;  // declared last: stopped before the rest goes

    static bool Run(ThreadObj aLoop) {
        Loop* loop = static_cast<Loop*>(aLoop);
        ++loop->calls;
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
};

TEST(ThreadWrapper, CreateStartNamePriorityAndAffinity) {
    Loop loop;
    EXPECT_EQ(nullptr, ThreadWrapper::CreateThread(nullptr, &loop));
    EXPECT_EQ(nullptr, loop.Make(kNormalPriority, std::string(64, 'n').c_str()));
    EXPECT_TRUE(loop.Make(kNormalPriority, std::string(63, 'n').c_str())->Stop());  // not started

    TraceCapture trace;
    ASSERT_TRUE(loop.Make(kLowPriority, "audio_capture_thread")->Start(loop.id));
    EXPECT_TRUE(trace.Traced(kInfo, "[TF]: id=-1, Thread with name:audio_capture_thread started"));
    // The id is the kernel's: it names the thread, cut to what the kernel keeps.
    EXPECT_EQ("audio_capture_t\n",
              ReadFile("/proc/self/task/" + std::to_string(loop.id) + "/comm"));
    EXPECT_EQ(SCHED_OTHER, sched_getscheduler(loop.id));
    // Whether this process may use the realtime policy at all, tried on this thread.
    const struct sched_param lowest = {sched_get_priority_min(SCHED_RR)};
    const bool realtimeAllowed = sched_setscheduler(loop.id, SCHED_RR, &lowest) == 0;
    // The function runs until it returns false; the thread then ends.
    loop.callsLeft = 3;
    ASSERT_TRUE(WaitUntil([&] { return Gone(loop.id); }));
    // An ended thread starts again. Stopped as soon as it started, the function
    // still runs; an unnamed thread traces an empty name.
    loop.calls = 0;
    EXPECT_TRUE(loop.thread->Start(loop.id));
    EXPECT_TRUE(loop.thread->Stop());
    EXPECT_LE(1, loop.calls);
    EXPECT_TRUE(loop.Make()->Start(loop.id));
    EXPECT_TRUE(trace.Traced(kInfo, "[TF]: id=-1, Thread with name: started"));

    const int cpu0[] = {0}, missing[] = {0, CPU_SETSIZE + 1}, negative[] = {-1};
    const std::pair<const int*, unsigned> refused[] = {
        {nullptr, 1}, {cpu0, 0}, {missing, 2}, {negative, 1}};
    for (ThreadPriority priority : {kHighestPriority, kRealtimePriority}) {
        Loop rt;
        const std::string name = "rt" + std::to_string(priority);
        EXPECT_FALSE(rt.Make(priority, name.c_str())->SetAffinity(cpu0, 1));  // not running
        ASSERT_TRUE(rt.thread->Start(rt.id));
        // Round-robin, highest one step below realtime, set before Start returns;
        // where refused, the default policy and one warning line.
        struct sched_param param = {-1};
        sched_getparam(rt.id, &param);
        EXPECT_EQ(realtimeAllowed ? SCHED_RR : SCHED_OTHER, sched_getscheduler(rt.id)) << name;
        EXPECT_EQ(realtimeAllowed ? 0u : 1u,
                  trace.CountMatching(kWarning, "\\[TF\\]:Thread with name:" + name + ",.*"));
        const int top = sched_get_priority_max(SCHED_RR) - (priority == kHighestPriority ? 1 : 0);
        EXPECT_EQ(realtimeAllowed ? top : 0, param.sched_priority) << name;
        for (auto [cpus, count] : refused) EXPECT_FALSE(rt.thread->SetAffinity(cpus, count));
        EXPECT_TRUE(rt.thread->SetAffinity(cpu0, 1));
    }
}

TEST(ThreadWrapper, StopRulesAndAStuckFunction) {
    // SetNotAlive, deletion and Stop from inside (refused) end the loop after that call.
    for (const std::string way : {"SetNotAlive", "delete", "inside"}) {
        Loop loop;
        loop.stopFromInside = way == "inside";
        ASSERT_TRUE(loop.Make()->Start(loop.id));
        ASSERT_TRUE(WaitUntil([&] { return loop.calls > 3 || loop.insideStop == 0; })) << way;
        if (way == "SetNotAlive") loop.thread->SetNotAlive();
        if (way == "delete") loop.thread.reset();
        ASSERT_TRUE(way == "delete" || WaitUntil([&] { return Gone(loop.id); })) << way;
        const int calls = loop.calls;
        EXPECT_EQ(calls, loop.returns) << way;  // no call left running
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        EXPECT_EQ(way == "inside" ? 1 : calls, loop.calls) << way;
    }

    // Stop gives up on a stuck function, which ends alone later.
    Loop stuck;
    stuck.block.reset(EventWrapper::Create());
    ASSERT_TRUE(stuck.Make()->Start(stuck.id));
    ASSERT_TRUE(WaitUntil([&] { return stuck.calls == 1; }));
    EXPECT_FALSE(stuck.thread->Stop());  // after its 10 seconds
    EXPECT_FALSE(stuck.thread->Start(stuck.id));
    stuck.thread.reset();  // the thread still runs and must not touch the object
    stuck.block->Set();
    ASSERT_TRUE(WaitUntil([&] { return stuck.returns == 1 && Gone(stuck.id); }));
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
    CountingModule first(1000000), second(1000000), self, other;
    int firstBeforeSecond = -1;
    second.m_onProcess = [&] { firstBeforeSecond = first.m_processed; };
    // Registered before the start, both due now: served in one pass, in order.
    EXPECT_EQ(-1, process->RegisterModule(nullptr));
    EXPECT_EQ(0, process->RegisterModule(&first));
    EXPECT_EQ(0, process->RegisterModule(&second));
    EXPECT_EQ(-1, process->RegisterModule(&first));
    const std::string increased = "[TF]: id=-1, number of registered modules has increased to ";
    EXPECT_TRUE(trace.Traced(kInfo, increased + "1"));
    EXPECT_TRUE(trace.Traced(kInfo, increased + "2"));
    EXPECT_EQ(0, process->Start());
    EXPECT_EQ(-1, process->Start());
    ASSERT_TRUE(WaitUntil([&] { return second.m_processed == 1; }));
    EXPECT_EQ(1, firstBeforeSecond);

    // Deregistered, a module may be deleted at once; one due again is served again.
    for (int round = 0; round < 20; ++round) {
        CountingModule* slow = new CountingModule;
        slow->m_onProcess = [] { std::this_thread::sleep_for(std::chrono::milliseconds(5)); };
        ASSERT_EQ(0, process->RegisterModule(slow));
        ASSERT_TRUE(WaitUntil([&] { return slow->m_processed > round % 3; }));
        ASSERT_EQ(0, process->DeRegisterModule(slow));
        delete slow;  // ASan reports any call still running or to come
    }
    EXPECT_EQ(1, first.m_processed);  // not due again yet

    // From inside Process: deregister itself, register another and stop the thread.
    int stopResult = 1;
    self.m_onProcess = [&] {
        process->DeRegisterModule(&self);
        process->RegisterModule(&other);
        stopResult = process->Stop();
    };
    ASSERT_EQ(0, process->RegisterModule(&self));
    ASSERT_TRUE(WaitUntil([&] { return other.m_processed > 0; }));
    EXPECT_EQ(0, process->Stop());
    EXPECT_EQ(-1, stopResult);
    EXPECT_EQ(1, other.m_processed);  // in the same pass; always due, yet not served again
    EXPECT_EQ(-1, process->DeRegisterModule(&self));
    EXPECT_EQ(0, process->DeRegisterModule(&other));

    // Destroyed from inside Process: freed once that pass ends, also when the pass is the
    // first and Start may not have returned yet (ASan and TSan check).
    for (int round = 0; round < 20; ++round) {
        std::atomic<uint32_t> serving{0};
        self.m_onProcess = [&serving, doomed = process] {
            serving = ThreadWrapper::GetThreadId();
            ProcessThread::DestroyProcessThread(doomed);
        };
        ASSERT_EQ(0, process->RegisterModule(&self));
        EXPECT_EQ(0, process->Start());  // a stopped thread starts again
        // The count is read atomically: its thread is then done with our frame.
        ASSERT_TRUE(WaitUntil([&] { return self.m_processed == round + 2 && Gone(serving); }));
        process = ProcessThread::CreateProcessThread();
    }
    ProcessThread::DestroyProcessThread(process);
}

}  // namespace
