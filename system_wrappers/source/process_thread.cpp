#include "process_thread.h"

#include <cstdint>
#include <new>
#include <vector>

#include "condition_variable_wrapper.h"
#include "critical_section_wrapper.h"
#include "event_wrapper.h"
#include "thread_wrapper.h"
#include "webrtc_trace.h"

namespace webrtc {

namespace {

constexpr int32_t kMaxWaitMs = 100;

class ProcessThreadImpl;
// The process thread serving on the calling thread, so that calls from
// inside a module never wait for themselves.
thread_local ProcessThreadImpl* tls_serving = nullptr;

class ProcessThreadImpl : public ProcessThread {
public:
    bool Init() {
        m_crit = CriticalSectionWrapper::CreateCriticalSection();
        m_startStop = CriticalSectionWrapper::CreateCriticalSection();
        m_callEnded = ConditionVariableWrapper::CreateConditionVariable();
        m_wake = EventWrapper::Create();
        return m_crit && m_startStop && m_callEnded && m_wake;
    }

    ~ProcessThreadImpl() override {
        if (m_destroyWhenDone) {
            // On the serving thread itself, whose loop ends on return.
            delete m_thread;
        } else {
            // A call that outlasts Stop's wait still uses this object.
            while (m_thread && Stop() != 0) {
            }
        }
        delete m_wake;
        delete m_callEnded;
        delete m_startStop;
        delete m_crit;
    }

    // From inside a module's call the object cannot go yet: the thread frees
    // it at the end of the pass.
    bool DestroyLater() {
        if (tls_serving != this) return false;
        m_destroyWhenDone = true;
        m_thread->SetNotAlive();
        return true;
    }

    int32_t Start() override {
        CriticalSectionScoped lock(m_startStop);
        if (m_thread) return -1;
        m_thread = ThreadWrapper::CreateThread(&ProcessThreadImpl::Run, this, kNormalPriority, "ProcessThread");
        unsigned int id = 0;
        m_wake->Reset();
        if (!m_thread || !m_thread->Start(id)) {
            delete m_thread;
            m_thread = nullptr;
            return -1;
        }
        return 0;
    }

    int32_t Stop() override {
        if (tls_serving == this) {
            m_thread->SetNotAlive();
            return -1;
        }
        CriticalSectionScoped lock(m_startStop);
        if (!m_thread) return 0;
        m_thread->SetNotAlive();
        m_wake->Set();
        if (!m_thread->Stop()) return -1;
        delete m_thread;
        m_thread = nullptr;
        return 0;
    }

    int32_t RegisterModule(Module* aModule) override {
        if (!aModule) return -1;
        // All under the lock: once the module can be served, it may destroy
        // this object, so nothing here may touch it after the lock is left.
        CriticalSectionScoped lock(m_crit);
        if (Find(aModule) != m_modules.end()) return -1;
        try {
            m_modules.push_back(Entry{aModule, ++m_lastSequence});
        } catch (...) {
            return -1;
        }
        Trace::Add(kTraceInfo, kTraceUtility, -1, "number of registered modules has increased to %d",
                   static_cast<int>(m_modules.size()));
        m_wake->Set();
        return 0;
    }

    int32_t DeRegisterModule(Module* aModule) override {
        CriticalSectionScoped lock(m_crit);
        const auto entry = Find(aModule);
        if (entry == m_modules.end()) return -1;
        m_modules.erase(entry);
        if (tls_serving != this) {
            while (m_calling == aModule) m_callEnded->SleepCS(*m_crit);
        }
        return 0;
    }

private:
    struct Entry {
        Module* module;
        uint64_t sequence;  // registration order; never reused
    };

    std::vector<Entry>::iterator Find(Module* aModule) {
        auto it = m_modules.begin();
        while (it != m_modules.end() && it->module != aModule) ++it;
        return it;
    }

    static bool Run(ThreadObj aThis) {
        ProcessThreadImpl* self = static_cast<ProcessThreadImpl*>(aThis);
        tls_serving = self;
        self->ServeOnce();
        tls_serving = nullptr;
        if (self->m_destroyWhenDone) {
            // The first pass may end before Start, on the thread that started
            // this one, has left the object: wait for it to let go.
            { CriticalSectionScoped wait(self->m_startStop); }
            delete self;
            return false;
        }
        return true;
    }

    // One pass over the modules in registration order. Modules may register
    // and deregister during the pass: each step looks up the next one still
    // registered, so a removed module is never called.
    void ServeOnce() {
        int32_t wait = kMaxWaitMs;
        bool processed = false;
        {
            CriticalSectionScoped lock(m_crit);
            uint64_t cursor = 0;
            while (Module* module = NextAfter(cursor)) {
                const int32_t due = Call(module, &Module::TimeUntilNextProcess);
                if (due > 0) {
                    if (due < wait) wait = due;
                } else if (Find(module) != m_modules.end()) {
                    Call(module, &Module::Process);
                    processed = true;
                }
            }
        }
        // After a Process call the module's next time is asked again first.
        if (!processed) m_wake->Wait(static_cast<unsigned long>(wait));
    }

    Module* NextAfter(uint64_t& aCursor) {
        for (const Entry& entry : m_modules) {
            if (entry.sequence > aCursor) {
                aCursor = entry.sequence;
                return entry.module;
            }
        }
        return nullptr;
    }

    // Calls outside the lock, but marked, so DeRegisterModule can wait for it.
    int32_t Call(Module* aModule, int32_t (Module::*aMethod)()) {
        m_calling = aModule;
        m_crit->Leave();
        const int32_t result = (aModule->*aMethod)();
        m_crit->Enter();
        m_calling = nullptr;
        m_callEnded->WakeAll();
        return result;
    }

    CriticalSectionWrapper* m_crit = nullptr;  // the modules and m_calling
    ConditionVariableWrapper* m_callEnded = nullptr;
    EventWrapper* m_wake = nullptr;
    std::vector<Entry> m_modules;
    uint64_t m_lastSequence = 0;
    Module* m_calling = nullptr;

    CriticalSectionWrapper* m_startStop = nullptr;  // m_thread
    ThreadWrapper* m_thread = nullptr;
    bool m_destroyWhenDone = false;  // only the serving thread touches it
};

}  // namespace

ProcessThread* ProcessThread::CreateProcessThread() {
    ProcessThreadImpl* thread = new (std::nothrow) ProcessThreadImpl();
    if (thread && !thread->Init()) {
        delete thread;
        return nullptr;
    }
    return thread;
}

void ProcessThread::DestroyProcessThread(ProcessThread* aThread) {
    ProcessThreadImpl* thread = static_cast<ProcessThreadImpl*>(aThread);
    if (thread && !thread->DestroyLater()) delete thread;
}

}  // namespace webrtc
