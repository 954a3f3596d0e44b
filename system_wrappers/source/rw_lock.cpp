#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <new>

#include "rw_lock_wrapper.h"

namespace webrtc {

namespace {

// Readers count themselves in one word with a single atomic add, so a shared
// acquire costs what the plain rwlock's does; glibc's writer-preferring kind
// reads the word before it adds, which costs a second cache transfer when
// readers share the lock between cores. A writer raises a flag in the same
// word: readers that arrive after it back out and wait, so writers are not
// starved, and the writer waits for the readers already inside to leave.
class RWLockImpl : public RWLockWrapper {
public:
    void AcquireLockShared() override {
        for (;;) {
            if ((m_state.fetch_add(1, std::memory_order_acquire) & kWriter) == 0) return;
            ReleaseLockShared();
            std::unique_lock<std::mutex> lock(m_waitMutex);
            m_readersWait.wait(lock, [this] { return (m_state.load() & kWriter) == 0; });
        }
    }

    void ReleaseLockShared() override {
        const uint32_t before = m_state.fetch_sub(1, std::memory_order_release);
        if ((before & kWriter) != 0 && (before & kReaders) == 1) {
            // The last reader the writer waits for.
            std::lock_guard<std::mutex> lock(m_waitMutex);
            m_writerWait.notify_one();
        }
    }

    void AcquireLockExclusive() override {
        m_writers.lock();  // one writer at a time
        m_state.fetch_or(kWriter, std::memory_order_acquire);
        std::unique_lock<std::mutex> lock(m_waitMutex);
        m_writerWait.wait(lock, [this] { return (m_state.load(std::memory_order_acquire) & kReaders) == 0; });
    }

    void ReleaseLockExclusive() override {
        m_state.fetch_and(~kWriter, std::memory_order_release);
        {
            std::lock_guard<std::mutex> lock(m_waitMutex);
            m_readersWait.notify_all();
        }
        m_writers.unlock();
    }

private:
    static constexpr uint32_t kWriter = 1u << 31;
    static constexpr uint32_t kReaders = kWriter - 1;

    std::atomic<uint32_t> m_state{0};  // readers inside, and the writer flag
    std::mutex m_writers;
    std::mutex m_waitMutex;  // guards the waits, never the lock itself
    std::condition_variable m_readersWait;
    std::condition_variable m_writerWait;
};

}  // namespace

RWLockWrapper* RWLockWrapper::CreateRWLock() {
    return new (std::nothrow) RWLockImpl();
}

}  // namespace webrtc
