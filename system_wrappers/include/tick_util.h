/// @file
/// Wall-clock time in ticks of one microsecond (TickTime) and the distance
/// between two such points (TickInterval). Waits and timers do not use this
/// clock: they run on the monotonic clock, which a wall-clock step cannot move.
#ifndef SYSTEM_WRAPPERS_TICK_UTIL_H_
#define SYSTEM_WRAPPERS_TICK_UTIL_H_

#include <cstdint>

#include "sw_export.h"

namespace webrtc {

class TickInterval;

/// A point of the wall clock, in ticks of one microsecond since the epoch. A
/// plain value: copy it freely; reading the clock is safe from any thread. A
/// step of the wall clock moves Now, so two readings may go backwards.
class SW_EXPORT TickTime {
public:
    /// The point 0 (the epoch).
    TickTime() : m_ticks(0) {}
    /// The point aTicks microseconds after the epoch.
    explicit TickTime(int64_t aTicks) : m_ticks(aTicks) {}

    /// The current wall-clock time.
    static TickTime Now();
    /// The current wall-clock time in milliseconds (Now().Ticks() / 1000).
    static int64_t MillisecondTimestamp();
    /// The current wall-clock time in microseconds (Now().Ticks()).
    static int64_t MicrosecondTimestamp();
    /// aMs milliseconds in ticks (aMs * 1000).
    static int64_t MillisecondsToTicks(int64_t aMs) { return aMs * 1000; }
    /// aTicks in whole milliseconds, truncated toward zero.
    static int64_t TicksToMilliseconds(int64_t aTicks) { return aTicks / 1000; }

    /// The point in microseconds since the epoch.
    int64_t Ticks() const { return m_ticks; }

    /// Moves the point aTicks microseconds later; returns it.
    TickTime& operator+=(int64_t aTicks) {
        m_ticks += aTicks;
        return *this;
    }
    /// Moves the point aTicks microseconds earlier; returns it.
    TickTime& operator-=(int64_t aTicks) {
        m_ticks -= aTicks;
        return *this;
    }

private:
    int64_t m_ticks;
};

/// The distance between two TickTimes, in microseconds (negative when the
/// second point is the later one). A plain value; intervals add, subtract
/// and compare.
class SW_EXPORT TickInterval {
public:
    /// The empty interval.
    TickInterval() : m_interval(0) {}
    /// An interval of aTicks microseconds.
    explicit TickInterval(int64_t aTicks) : m_interval(aTicks) {}

    /// The interval in whole milliseconds, truncated toward zero.
    int64_t Milliseconds() const { return m_interval / 1000; }
    /// The interval in microseconds.
    int64_t Microseconds() const { return m_interval; }

    /// Adds aOther; returns this interval.
    TickInterval& operator+=(const TickInterval& aOther) {
        m_interval += aOther.m_interval;
        return *this;
    }
    /// Subtracts aOther; returns this interval.
    TickInterval& operator-=(const TickInterval& aOther) {
        m_interval -= aOther.m_interval;
        return *this;
    }

    /// The sum of two intervals.
    friend TickInterval operator+(TickInterval aLeft, const TickInterval& aRight) { return aLeft += aRight; }
    /// The difference of two intervals.
    friend TickInterval operator-(TickInterval aLeft, const TickInterval& aRight) { return aLeft -= aRight; }
    /// True when both intervals are equally long.
    friend bool operator==(const TickInterval& aLeft, const TickInterval& aRight) {
        return aLeft.m_interval == aRight.m_interval;
    }
    /// True when the intervals differ in length.
    friend bool operator!=(const TickInterval& aLeft, const TickInterval& aRight) { return !(aLeft == aRight); }
    /// True when aLeft is shorter than aRight.
    friend bool operator<(const TickInterval& aLeft, const TickInterval& aRight) {
        return aLeft.m_interval < aRight.m_interval;
    }
    /// True when aLeft is longer than aRight.
    friend bool operator>(const TickInterval& aLeft, const TickInterval& aRight) { return aRight < aLeft; }
    /// True when aLeft is not longer than aRight.
    friend bool operator<=(const TickInterval& aLeft, const TickInterval& aRight) { return !(aRight < aLeft); }
    /// True when aLeft is not shorter than aRight.
    friend bool operator>=(const TickInterval& aLeft, const TickInterval& aRight) { return !(aLeft < aRight); }

private:
    int64_t m_interval;
};

/// The point aTicks microseconds after aTime.
inline TickTime operator+(TickTime aTime, int64_t aTicks) {
    return aTime += aTicks;
}
/// The point aTicks microseconds before aTime.
inline TickTime operator-(TickTime aTime, int64_t aTicks) {
    return aTime -= aTicks;
}
/// The interval from aEarlier to aLater.
inline TickInterval operator-(const TickTime& aLater, const TickTime& aEarlier) {
    return TickInterval(aLater.Ticks() - aEarlier.Ticks());
}

}  // namespace webrtc

#endif  // SYSTEM_WRAPPERS_TICK_UTIL_H_
