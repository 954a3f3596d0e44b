// Pieces shared by the demo's modes and main: trace lines through the
// library's trace facility, socket helpers, running a function on another
// library thread, the byte pattern that messages carry, a latency histogram
// and waiting for a signal.
#ifndef SW_DEMO_DEMO_SUPPORT_H_
#define SW_DEMO_DEMO_SUPPORT_H_

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <stdint.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <string>
#include <vector>

#include "demo_options.h"
#include "system_wrappers.h"

namespace demo {

// Hands a demo line to the trace facility, which passes it to the host
// callback like every line of the library.
inline void Log(MTRACE_LEVEL_TYPE aLevel, const CMyTextFormat& aText) {
    unsigned int length = 0;
    const char* content = aText.GetContent(length);
    CMyTrace_::Write(MTRACE_OUTPUT_CALLBACK, aLevel, content, length);
}

#define DEMO_LOG(aLevel, aStream)   \
    do {                            \
        CMyTextFormat text_;        \
        text_ << aStream;           \
        ::demo::Log(aLevel, text_); \
    } while (0)

// True when aFd is ready for aEvent now. The library traces a would-block send
// or accept as a failure, so the demo only calls them when they will not block.
inline bool Ready(int aFd, short aEvent) {
    pollfd fd = {aFd, aEvent, 0};
    return poll(&fd, 1, 0) == 1 && (fd.revents & aEvent) != 0;
}
inline bool Writable(int aFd) {
    return Ready(aFd, POLLOUT);
}
inline bool Readable(int aFd) {
    return Ready(aFd, POLLIN);
}

inline void NoDelay(int aFd) {
    // Request and echo are one write each; Nagle would hold back the tail.
    const int on = 1;
    setsockopt(aFd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
}

// Runs a function on the thread that owns the queue (SendEvent from another
// thread waits until it has run).
template <class F>
class CallEvent : public IEvent {
public:
    explicit CallEvent(F aCall) : m_call(aCall) {}
    int OnEventFire() override { return m_call(); }

private:
    F m_call;
};

template <class F>
int RunOn(IEventQueue* aQueue, F aCall) {
    return aQueue->SendEvent(new CallEvent<F>(aCall));
}

using Clock = std::chrono::steady_clock;

// The expected byte aIndex of message aSeq of sender aId: any shift, loss or
// mix-up between messages or senders changes it.
inline unsigned char PatternByte(uint32_t aId, uint64_t aSeq, unsigned long aIndex) {
    uint32_t x = aId * 0x9E3779B1u ^ static_cast<uint32_t>(aSeq) * 0x85EBCA77u;
    x += static_cast<uint32_t>(aIndex) * 0xC2B2AE3Du;
    return static_cast<unsigned char>((x >> 24) ^ (x >> 11) ^ aIndex);
}

// Latencies in 1 us buckets up to 100 ms, so long runs keep a fixed size.
class Histogram {
public:
    static constexpr size_t kBuckets = 100000;

    Histogram() : m_counts(kBuckets + 1, 0) {}

    void Add(uint64_t aNanos) {
        const uint64_t micros = aNanos / 1000;
        ++m_counts[micros < kBuckets ? micros : kBuckets];
        ++m_total;
        m_maxNanos = std::max(m_maxNanos, aNanos);
    }
    void Merge(const Histogram& aOther) {
        for (size_t i = 0; i <= kBuckets; ++i) m_counts[i] += aOther.m_counts[i];
        m_total += aOther.m_total;
        m_maxNanos = std::max(m_maxNanos, aOther.m_maxNanos);
    }
    // The upper edge of the bucket that holds quantile aQ, in microseconds.
    double Quantile(double aQ) const {
        if (m_total == 0) return 0;
        const uint64_t rank = static_cast<uint64_t>(std::ceil(aQ * static_cast<double>(m_total)));
        uint64_t seen = 0;
        for (size_t i = 0; i < kBuckets; ++i) {
            seen += m_counts[i];
            if (seen >= rank && seen > 0) return std::min(static_cast<double>(i + 1), MaxMicros());
        }
        return MaxMicros();
    }
    double MaxMicros() const { return static_cast<double>(m_maxNanos) / 1000.0; }
    uint64_t Total() const { return m_total; }
    // How many took less than aMicros (exact up to the last bucket).
    uint64_t CountBelow(uint64_t aMicros) const {
        uint64_t count = 0;
        for (size_t i = 0; i < std::min<uint64_t>(aMicros, kBuckets); ++i) count += m_counts[i];
        return count;
    }

private:
    std::vector<uint64_t> m_counts;
    uint64_t m_total = 0;
    uint64_t m_maxNanos = 0;
};

// Waits up to aMillis for SIGINT or SIGTERM (blocked in every thread); returns it or 0.
inline int WaitForSignal(long aMillis) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    timespec timeout = {aMillis / 1000, (aMillis % 1000) * 1000000};
    const int rv = sigtimedwait(&set, nullptr, &timeout);
    return rv > 0 ? rv : 0;
}

}  // namespace demo

#endif  // SW_DEMO_DEMO_SUPPORT_H_
