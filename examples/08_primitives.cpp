// A tour of the portable primitives in namespace webrtc. Every Create...
// factory returns an object that the caller deletes (a ProcessThread goes back
// through DestroyProcessThread); a factory returns null when it cannot make one.
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "aligned_malloc.h"
#include "atomic32.h"
#include "condition_variable_wrapper.h"
#include "critical_section_wrapper.h"
#include "event_wrapper.h"
#include "file_wrapper.h"
#include "list_wrapper.h"
#include "map_wrapper.h"
#include "process_thread.h"
#include "rw_lock_wrapper.h"
#include "sort.h"
#include "thread_wrapper.h"
#include "tick_util.h"
#include "webrtc_cpu.h"

using namespace webrtc;

namespace {

int Fail(const char* aWhat) {
    std::fprintf(stderr, "08_primitives: FAILED: %s\n", aWhat);
    return 1;
}

struct Shared {
    CriticalSectionWrapper* lock;
    ConditionVariableWrapper* changed;
    int produced;  // guarded by lock
};

// A ThreadWrapper calls this again and again; returning false ends the thread.
bool Produce(ThreadObj aObj) {
    Shared& shared = *static_cast<Shared*>(aObj);
    CriticalSectionScoped guard(shared.lock);
    ++shared.produced;
    shared.changed->WakeAll();  // a wake with nobody asleep is not remembered
    return shared.produced < 100;
}

// Served by a ProcessThread, on its thread, whenever TimeUntilNextProcess says
// it is due. Due times come from a monotonic clock: TickTime is wall-clock time.
class Ticker : public Module {
public:
    using Clock = std::chrono::steady_clock;
    explicit Ticker(EventWrapper* aThird) : m_third(aThird) {}
    int32_t TimeUntilNextProcess() override {
        return static_cast<int32_t>((m_next - Clock::now()) / std::chrono::milliseconds(1));
    }
    int32_t Process() override {
        m_next = Clock::now() + std::chrono::milliseconds(10);
        if (++m_calls == 3) m_third->Set();
        return 0;
    }
    Atomic32 m_calls;

private:
    EventWrapper* m_third;
    Clock::time_point m_next = Clock::now();  // due at once
};

}  // namespace

int main() {
    const TickTime start = TickTime::Now();

    // A thread that produces, a condition variable that the main thread sleeps on.
    Shared shared = {CriticalSectionWrapper::CreateCriticalSection(),
                     ConditionVariableWrapper::CreateConditionVariable(), 0};
    ThreadWrapper* thread =
        ThreadWrapper::CreateThread(Produce, &shared, kNormalPriority, "producer");
    unsigned int threadId = 0;
    if (!thread || !thread->Start(threadId)) return Fail("start the producer thread");
    {
        CriticalSectionScoped guard(shared.lock);  // entered once, as SleepCS needs
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (shared.produced < 100 && std::chrono::steady_clock::now() < deadline)
            shared.changed->SleepCS(*shared.lock, 100);  // may return early: re-check
        if (shared.produced != 100) return Fail("the producer ran 100 times");
    }
    if (!thread->Stop()) return Fail("Stop joins the thread");  // true: ended and joined
    delete thread;
    delete shared.changed;
    delete shared.lock;

    // An auto-reset event with a periodic timer: three signals, then stopped.
    EventWrapper* tick = EventWrapper::Create();
    if (!tick || !tick->StartTimer(true, 10)) return Fail("start a 10 ms periodic timer");
    for (int i = 0; i < 3; ++i)
        if (tick->Wait(WEBRTC_EVENT_10_SEC) != kEventSignaled) return Fail("a timer tick");
    tick->StopTimer();
    tick->Reset();  // drop a signal that came in before the timer stopped

    // One process thread serves modules when due; after DeRegisterModule
    // returns, the module is not called again and may be deleted.
    ProcessThread* process = ProcessThread::CreateProcessThread();
    Ticker ticker(tick);
    if (!process || process->Start() != 0 || process->RegisterModule(&ticker) != 0)
        return Fail("start a process thread and register a module");
    const bool served = tick->Wait(WEBRTC_EVENT_10_SEC) == kEventSignaled;
    process->DeRegisterModule(&ticker);
    ProcessThread::DestroyProcessThread(process);  // stops it first
    delete tick;
    if (!served || ticker.m_calls.Value() < 3) return Fail("the module was processed 3 times");

    // A read/write lock: many readers at once, or one writer.
    RWLockWrapper* rw = RWLockWrapper::CreateRWLock();
    int sampleRate = 0;
    {
        WriteLockScoped write(*rw);
        sampleRate = 48000;
    }
    {
        ReadLockScoped read(*rw);  // not recursive: do not take it again in here
        if (sampleRate != 48000) return Fail("read under the lock");
    }
    delete rw;

    // Containers own their items, never what the items point to.
    ListWrapper list;
    list.PushBack(2u), list.PushBack(3u), list.PushFront(1u);
    unsigned int order = 0;
    for (ListItem* item = list.First(); item; item = list.Next(item))
        order = order * 10 + item->GetUnsignedItem();
    while (!list.Empty()) list.PopFront();  // one destroyed with items traces a leak line
    MapWrapper map;
    map.Insert(30, &sampleRate), map.Insert(10, &order);
    if (order != 123 || map.First()->GetId() != 10 || map.Find(30)->GetItem() != &sampleRate ||
        map.Erase(20) != -1)
        return Fail("the list keeps its order, the map sorts by id");

    // A file in a temporary directory: write text, read it back.
    char dir[] = "/tmp/sw_example_primitives_XXXXXX";
    if (!mkdtemp(dir)) return Fail("mkdtemp");
    const std::string path = std::string(dir) + "/rate.txt";
    FileWrapper* file = FileWrapper::Create();
    char text[32] = {};
    const bool written = file && file->OpenFile(path.c_str(), false) == 0 &&
                         file->WriteText("rate=%d\n", sampleRate) == 11 && file->CloseFile() == 0;
    const bool read = written && file->OpenFile(path.c_str(), true) == 0 &&
                      file->Read(text, sizeof(text) - 1) == 11 &&
                      std::string(text) == "rate=48000\n";
    delete file;  // closes a file still open
    std::filesystem::remove_all(dir);
    if (!read) return Fail("write a line to a file and read it back");

    // Aligned memory, for vector code: the alignment must be a power of two.
    float* samples = AlignedMalloc<float>(480 * sizeof(float), 32);
    const bool aligned = samples && reinterpret_cast<uintptr_t>(samples) % 32 == 0 &&
                         AlignedMalloc(64, 24) == nullptr;
    AlignedFree(samples);
    if (!aligned) return Fail("32-byte aligned memory");

    // Sort values in place; KeySort carries each data element with its key, stably.
    int16_t levels[] = {7, -3, 5, 0};
    float delays[] = {0.5f, 0.25f, 0.5f, 0.125f};
    uint32_t streams[] = {1, 2, 3, 4};
    if (Sort(levels, 4, TYPE_Word16) != 0 || levels[0] != -3 || levels[3] != 7 ||
        KeySort(streams, delays, 4, sizeof(uint32_t), TYPE_Float32) != 0 || streams[0] != 4 ||
        streams[1] != 2 || streams[2] != 1 || streams[3] != 3)
        return Fail("sort and key sort");

    const int cores = ComCpuInfo::GetCpuCoreNums();
    if (cores < 1) return Fail("the core count");
    std::printf(
        "primitives: producer thread %u ran 100 times; 3 timer ticks; module processed %d"
        " times; list 1,2,3; map, file, aligned memory and sorts checked; %d cores, SSE2 %d;"
        " %lld ms in all\n",
        threadId, ticker.m_calls.Value(), cores, WebRtc_GetCPUInfo(kSSE2),
        static_cast<long long>((TickTime::Now() - start).Milliseconds()));
    return 0;
}
