// Built against an installed copy of the library: exits 0 only if one trace
// line reaches the host log callback as (7, 1, "%s", prefixed line) and every
// portable primitive links and answers.
#include <stdarg.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <regex>
#include <string>

#include "system_wrappers.h"

namespace {

std::string gReceived;

void OnLog(int aTag, int aLevel, const char* aFormat, ...) {
    va_list args;
    va_start(args, aFormat);
    const char* line = va_arg(args, const char*);
    va_end(args);
    gReceived += std::to_string(aTag) + "," + std::to_string(aLevel) + "," + aFormat + "," + line;
}

bool Once(webrtc::ThreadObj aRan) {
    *static_cast<bool*>(aRan) = true;
    return false;
}

struct Idle : webrtc::Module {
    int32_t TimeUntilNextProcess() override { return 1000; }
    int32_t Process() override { return 0; }
};

bool PrimitivesWork() {
    using namespace webrtc;
    bool ok = TickTime::MillisecondTimestamp() > 0;
    std::unique_ptr<CriticalSectionWrapper> crit(CriticalSectionWrapper::CreateCriticalSection());
    std::unique_ptr<ConditionVariableWrapper> cond(ConditionVariableWrapper::CreateConditionVariable());
    std::unique_ptr<EventWrapper> event(EventWrapper::Create());
    std::unique_ptr<RWLockWrapper> rwLock(RWLockWrapper::CreateRWLock());
    {
        CriticalSectionScoped lock(*crit);
        ok &= !cond->SleepCS(*crit, 1);
        WriteLockScoped write(*rwLock);
    }
    ok &= event->StartTimer(false, 1) && event->Wait(WEBRTC_EVENT_10_SEC) == kEventSignaled;
    bool ran = false;
    std::unique_ptr<ThreadWrapper> thread(ThreadWrapper::CreateThread(Once, &ran));
    unsigned int id = 0;
    ok &= thread->Start(id) && thread->Stop() && ran;
    Atomic32 counter;
    ok &= ++counter == 1;
    ListWrapper list;
    MapWrapper map;
    ok &= list.PushBack(1u) == 0 && list.PopFront() == 0 && map.Insert(1, nullptr) == 0 && map.Erase(1) == 0;
    Idle idle;
    ProcessThread* process = ProcessThread::CreateProcessThread();
    ok &= process->Start() == 0 && process->RegisterModule(&idle) == 0 && process->DeRegisterModule(&idle) == 0;
    ProcessThread::DestroyProcessThread(process);
    std::unique_ptr<FileWrapper> file(FileWrapper::Create());
    ok &= file->OpenFile("/dev/null", false) == 0 && file->Write("x", 1) && file->CloseFile() == 0;
    double values[] = {2.0, -1.0};
    uint16_t data[] = {1, 2};
    ok &= Sort(values, 2, TYPE_Float64) == 0 && values[0] == -1.0;
    ok &= KeySort(data, values, 2, sizeof(data[0]), TYPE_Float64) == 0 && data[0] == 1;
    void* block = AlignedMalloc(100, 64);
    ok &= block != nullptr && reinterpret_cast<uintptr_t>(block) % 64 == 0;
    AlignedFree(block);
    return ok;
}

}  // namespace

int main() {
    if (!PrimitivesWork()) {
        std::fprintf(stderr, "consumer: a portable primitive failed\n");
        return 1;
    }
    CMyTrace_::SetLogCallback(OnLog);
    CMyTextFormat text;
    text << "hello from consumer";
    unsigned int length = 0;
    const char* content = text.GetContent(length);
    CMyTrace_::Write(MTRACE_OUTPUT_CALLBACK, MTRACE_LEVEL_INFO, content, length);

    const std::regex expected("7,1,%s,\\[I:ENG\\+" + std::to_string(getpid()) + ":" +
                              std::to_string(syscall(SYS_gettid)) +
                              "\\] [0-9]+\\.[0-9]{6} hello from consumer\n");
    if (!std::regex_match(gReceived, expected)) {
        std::fprintf(stderr, "consumer: unexpected callback calls: \"%s\"\n", gReceived.c_str());
        return 1;
    }
    return 0;
}
