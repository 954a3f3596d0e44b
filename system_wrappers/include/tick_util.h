// Wall-clock time in ticks of one microsecond (TickTime) and the distance
// between two such points (TickInterval). Waits and timers do not use this
// clock: they run on the monotonic clock, which a wall-clock step cannot move.
#ifndef SYSTEM_WRAPPERS_TICK_UTIL_H_
#define SYSTEM_WRAPPERS_TICK_UTIL_H_

#include <cstdint>

#include "sw_export.h"

namespace webrtc {

class TickInterval;

class SW_EXPORT TickTime {
public:
    TickTime() : m_ticks(0) {}
    explicit TickTime(int64_t aTicks) : m_ticks(aTicks) {}

    static TickTime Now();
    static int64_t MillisecondTimestamp();
    static int64_t MicrosecondTimestamp();
    static int64_t MillisecondsToTicks(int64_t aMs) { return aMs * 1000; }
    static int64_t TicksToMilliseconds(int64_t aTicks) { return aTicks / 1000; }

    int64_t Ticks() const { return m_ticks; }

    TickTime& operator+=(int64_t aTicks) {
        m_ticks += aTicks;
        return *this;
    }
    TickTime& operator-=(int64_t aTicks) {
        m_ticks -= aTicks;
        return *this;
    }

private:
    int64_t m_ticks;
};

class SW_EXPORT TickInterval {
public:
    TickInterval() : m_interval(0) {}
    explicit TickInterval(int64_t aTicks) : m_interval(aTicks) {}

    int64_t Milliseconds() const { return m_interval / 1000; }
    int64_t Microseconds() const { return m_interval; }

    TickInterval& operator+=(const TickInterval& aOther) {
        m_interval += aOther.m_interval;
        return *this;
    }
    TickInterval& operator-=(const TickInterval& aOther) {
        m_interval -= aOther.m_interval;
        return *this;
    }

    friend TickInterval operator+(TickInterval aLeft, const TickInterval& aRight) { return aLeft += aRight; }
    friend TickInterval operator-(TickInterval aLeft, const TickInterval& aRight) { return aLeft -= aRight; }
    friend bool operator==(const TickInterval& aLeft, const TickInterval& aRight) {
        return aLeft.m_interval == aRight.m_interval;
    }
    friend bool operator!=(const TickInterval& aLeft, const TickInterval& aRight) { return !(aLeft == aRight); }
    friend bool operator<(const TickInterval& aLeft, const TickInterval& aRight) {
        return aLeft.m_interval < aRight.m_interval;
    }
    friend bool operator>(const TickInterval& aLeft, const TickInterval& aRight) { return aRight < aLeft; }
    friend bool operator<=(const TickInterval& aLeft, const TickInterval& aRight) { return !(aRight < aLeft); }
    friend bool operator>=(const TickInterval& aLeft, const TickInterval& aRight) { return !(aLeft < aRight); }

private:
    int64_t m_interval;
};

inline TickTime operator+(TickTime aTime, int64_t aTicks) {
    return aTime += aTicks;
}
inline TickTime operator-(TickTime aTime, int64_t aTicks) {
    return aTime -= aTicks;
}
inline TickInterval operator-(const TickTime& aLater, const TickTime& aEarlier) {
    return TickInterval(aLater.Ticks() - aEarlier.Ticks());
}

}  // namespace webrtc

#endif  // SYSTEM_WRAPPERS_TICK_UTIL_H_
