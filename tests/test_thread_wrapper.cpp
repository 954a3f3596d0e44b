// The thread wrapper and the module process thread: start and stop rules,
// names, priorities, affinity, and that a deregistered module is left alone.
#include <sched.h>

#include "test_support.h"

namespace {

using namespace webrtc;

// What a thread function sees and does; the test steers it.
struct Loop {
    std::atomic<int> calls{0};
    std::atomic<int> returns{0};
    int sleepMs = 0;
    std::atomic<int> callsLeft{1 << 30};  // returns false when it reaches 0
    std::atomic<uint32_t> tid{0};
    std::atomic<int> insideStop{-1};
    char name[16] = {};
    int policy = -1;
    int priority = -1;
    ThreadWrapper* stopFromInside = nullptr;
    EventWrapper* block = nullptr;  // when set, each call waits on it

    static bool Run(ThreadObj aLoop) {
        Loop* loop = static_cast<Loop*>(aLoop);
        if (loop->calls++ == 0) {
            pthread_getname_np(pthread_self(), loop->name, sizeof(loop->name));
            struct sched_param param;
            pthread_getschedparam(pthread_self(), &loop->policy, &param);
            loop->priority = param.sched_priority;
            loop->tid = ThreadWrapper::GetThreadId();
        }
        if (loop->block) loop->block->Wait(WEBRTC_EVENT_INFINITE);
        if (loop->stopFromInside) loop->insideStop = loop->stopFromInside->Stop();
        std::this_thread::sleep_for(std::chrono::milliseconds(loop->sleepMs));
        const bool again = --loop->callsLeft > 0;
        ++loop->returns;
        return again;
    }
    std::unique_ptr<ThreadWrapper> Make(ThreadPriority aPriority = kNormalPriority,
                                        const char* aName = nullptr) {
        return std::unique_ptr<ThreadWrapper>(
            ThreadWrapper::CreateThread(&Loop::Run, this, aPriority, aName));
    }
};

TEST(ThreadWrapper, CreateStartNameAndLoopEnd) {
    Loop loop;
    EXPECT_EQ(nullptr, ThreadWrapper::CreateThread(nullptr, &loop));
    EXPECT_EQ(nullptr, loop.Make(kNormalPriority, std::string(64, 'n').c_str()));
    EXPECT_NE(nullptr, loop.Make(kNormalPriority, std::string(63, 'n').c_str()));

    TraceCapture trace;
    std::unique_ptr<ThreadWrapper> thread = loop.Make(kLowPriority, "audio_capture_thread");
    unsigned int id = 0;
    ASSERT_TRUE(thread->Start(id));
    EXPECT_TRUE(trace.Traced(kInfo, "[TF]: id=-1, Thread with name:audio_capture_thread started"));
    EXPECT_FALSE(thread->Start(id));
    // The function runs until it returns false; the thread then ends.
    loop.callsLeft = 3;
    ASSERT_TRUE(WaitUntil([&] { return Gone(id); }));
    EXPECT_EQ(0, loop.callsLeft);
    EXPECT_EQ(id, loop.tid);
    EXPECT_NE(ThreadWrapper::GetThreadId(), id);
    EXPECT_STREQ("audio_capture_t", loop.name);
    EXPECT_EQ(SCHED_OTHER, loop.policy);
    EXPECT_TRUE(thread->Stop());
    // An ended thread starts again; an unnamed one traces an empty name.
    loop.callsLeft = 1;
    EXPECT_TRUE(thread->Start(id));
    EXPECT_TRUE(thread->Stop());
    EXPECT_TRUE(loop.Make()->Start(id));
    EXPECT_TRUE(trace.Traced(kInfo, "[TF]: id=-1, Thread with name: started"));
}

TEST(ThreadWrapper, StopRules) {
    Loop never;
    EXPECT_TRUE(never.Make()->Stop());  // never started
    EXPECT_EQ(0, never.calls);
    // Stopped as soon as it started, the function still ran.
    std::unique_ptr<ThreadWrapper> quick = never.Make();
    unsigned int quickId = 0;
    ASSERT_TRUE(quick->Start(quickId));
    EXPECT_TRUE(quick->Stop());
    EXPECT_LE(1, never.calls);

    // SetNotAlive ends the loop after the current call; so does deleting it.
    for (bool viaDelete : {false, true}) {
        Loop loop;
        loop.sleepMs = 1;  // so that the end most likely finds a call running
        std::unique_ptr<ThreadWrapper> thread = loop.Make();
        unsigned int id = 0;
        ASSERT_TRUE(thread->Start(id));
        ASSERT_TRUE(WaitUntil([&] { return loop.calls > 3; }));
        if (viaDelete) {
            thread.reset();
        } else {
            thread->SetNotAlive();
            ASSERT_TRUE(WaitUntil([&] { return Gone(id); }));
            EXPECT_TRUE(thread->Stop());
        }
        const int calls = loop.calls;
        EXPECT_EQ(calls, loop.returns);  // no call left running
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        EXPECT_EQ(calls, loop.calls);
    }

    // From inside: refused, and the thread ends after that call.
    Loop inside;
    std::unique_ptr<ThreadWrapper> thread = inside.Make();
    inside.stopFromInside = thread.get();
    unsigned int id = 0;
    ASSERT_TRUE(thread->Start(id));
    ASSERT_TRUE(WaitUntil([&] { return inside.insideStop == 0; }));
    EXPECT_TRUE(thread->Stop());
    EXPECT_EQ(1, inside.calls);
}

TEST(ThreadWrapper, StopGivesUpOnAStuckFunctionWhichEndsAlone) {
    Loop stuck;
    std::unique_ptr<EventWrapper> release(EventWrapper::Create());
    stuck.block = release.get();
    std::unique_ptr<ThreadWrapper> thread = stuck.Make();
    unsigned int id = 0;
    ASSERT_TRUE(thread->Start(id));
    ASSERT_TRUE(WaitUntil([&] { return stuck.calls == 1; }));
    EXPECT_FALSE(thread->Stop());  // after its 10 seconds
    EXPECT_FALSE(thread->Start(id));
    thread.reset();  // the thread still runs and must not touch the object
    release->Set();
    ASSERT_TRUE(WaitUntil([&] { return stuck.returns == 1 && Gone(id); }));
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
    for (ThreadPriority priority : {kHighestPriority, kRealtimePriority}) {
        Loop loop;
        const std::string name = "rt" + std::to_string(priority);
        std::unique_ptr<ThreadWrapper> thread = loop.Make(priority, name.c_str());
        unsigned int id = 0;
        EXPECT_FALSE(thread->SetAffinity(cpu0, 1));  // not running
        ASSERT_TRUE(thread->Start(id));
        ASSERT_TRUE(WaitUntil([&] { return loop.tid != 0; }));
        // Round-robin, highest one step below realtime; where refused, the
        // default policy and one warning line.
        const int expected =
            sched_get_priority_max(SCHED_RR) - (priority == kHighestPriority ? 1 : 0);
        const size_t warnings =
            trace.CountMatching(kWarning, "\\[TF\\]:Thread with name:" + name + ",.*");
        EXPECT_TRUE(realtimeAllowed
                        ? loop.policy == SCHED_RR && warnings == 0 && loop.priority == expected
                        : loop.policy == SCHED_OTHER && warnings == 1)
            << name << ": policy " << loop.policy << ", priority " << loop.priority << ", warnings "
            << warnings;
        EXPECT_FALSE(thread->SetAffinity(nullptr, 1));
        EXPECT_FALSE(thread->SetAffinity(cpu0, 0));
        EXPECT_FALSE(thread->SetAffinity(missing, 2));
        EXPECT_FALSE(thread->SetAffinity(negative, 1));
        EXPECT_TRUE(thread->SetAffinity(cpu0, 1));
    }
}

// A module due every aPeriodMs (0: always), optionally slow to process.
class CountingModule : public Module {
public:
    explicit CountingModule(int32_t aPeriodMs = 0, int aSlowMs = 0)
        : m_period(aPeriodMs), m_slowMs(aSlowMs) {}
    int32_t TimeUntilNextProcess() override {
        return m_period ? static_cast<int32_t>(m_next - TickTime::MillisecondTimestamp()) : 0;
    }
    int32_t Process() override {
        m_next = TickTime::MillisecondTimestamp() + m_period;
        std::this_thread::sleep_for(std::chrono::milliseconds(m_slowMs));
        m_payload.assign(64, 'x');  // touches the module's memory
        if (m_onProcess) m_onProcess(this);
        ++m_processed;
        return 0;
    }

    std::atomic<int> m_processed{0};
    std::function<void(CountingModule*)> m_onProcess;

private:
    const int32_t m_period;
    const int m_slowMs;
    std::atomic<int64_t> m_next{0};
    std::string m_payload;
};

TEST(ProcessThread, RegistrationOrderAndRefusals) {
    TraceCapture trace;
    ProcessThread* process = ProcessThread::CreateProcessThread();
    EXPECT_EQ(0, process->Start());
    EXPECT_EQ(-1, process->Start());
    std::mutex orderMutex;
    std::vector<CountingModule*> order;
    CountingModule first(1000000), second(1000000);
    for (CountingModule* module : {&first, &second}) {
        module->m_onProcess = [&](CountingModule* aModule) {
            std::lock_guard<std::mutex> lock(orderMutex);
            order.push_back(aModule);
        };
    }
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
    EXPECT_EQ((std::vector<CountingModule*>{&first, &second}), order);

    // A module due in 20 ms is served again and again; the others wait.
    CountingModule periodic(20);
    EXPECT_EQ(0, process->RegisterModule(&periodic));
    EXPECT_TRUE(WaitUntil([&] { return periodic.m_processed >= 3; }));
    EXPECT_EQ(0, process->DeRegisterModule(&periodic));
    EXPECT_EQ(-1, process->DeRegisterModule(&periodic));
    EXPECT_EQ(1, first.m_processed);
    ProcessThread::DestroyProcessThread(process);
}

TEST(ProcessThread, DeregisteredModuleMayBeDeletedAtOnce) {
    ProcessThread* process = ProcessThread::CreateProcessThread();
    ASSERT_EQ(0, process->Start());
    for (int round = 0; round < 20; ++round) {
        CountingModule* slow = new CountingModule(0, 5);
        ASSERT_EQ(0, process->RegisterModule(slow));
        ASSERT_TRUE(WaitUntil([&] { return slow->m_processed > round % 3; }));
        ASSERT_EQ(0, process->DeRegisterModule(slow));
        delete slow;  // ASan reports any call still running or to come
    }

    // From inside Process: deregister itself, register another, stop the thread.
    CountingModule other(1000000), self, stopper;
    int selfResult = 1, registerResult = 1, stopResult = 1;
    self.m_onProcess = [&](CountingModule* aModule) {
        selfResult = process->DeRegisterModule(aModule);
        registerResult = process->RegisterModule(&other);
    };
    ASSERT_EQ(0, process->RegisterModule(&self));
    ASSERT_TRUE(WaitUntil([&] { return other.m_processed == 1; }));
    EXPECT_EQ(0, selfResult);
    EXPECT_EQ(0, registerResult);
    EXPECT_EQ(1, self.m_processed);
    stopper.m_onProcess = [&](CountingModule*) { stopResult = process->Stop(); };
    ASSERT_EQ(0, process->RegisterModule(&stopper));
    ASSERT_TRUE(WaitUntil([&] { return stopper.m_processed == 1; }));
    EXPECT_EQ(-1, stopResult);
    EXPECT_EQ(0, process->Stop());
    EXPECT_EQ(1, stopper.m_processed);  // the thread ended after that pass
    EXPECT_EQ(0, process->DeRegisterModule(&stopper));
    EXPECT_EQ(0, process->Start());  // a stopped thread starts again

    // Destroyed from inside Process: freed once that pass ends (ASan checks).
    CountingModule destroyer;
    std::atomic<uint32_t> serving{0};
    destroyer.m_onProcess = [&](CountingModule*) {
        serving = ThreadWrapper::GetThreadId();
        ProcessThread::DestroyProcessThread(process);
    };
    ASSERT_EQ(0, process->RegisterModule(&destroyer));
    ASSERT_TRUE(WaitUntil([&] { return serving != 0 && Gone(serving); }));
    EXPECT_EQ(1, destroyer.m_processed);
}

}  // namespace
