/// @file
/// A 32-bit counter that any thread may change: sequentially consistent, and
/// wrapping at the limits as unsigned arithmetic does.
#ifndef SYSTEM_WRAPPERS_ATOMIC32_H_
#define SYSTEM_WRAPPERS_ATOMIC32_H_

#include <atomic>
#include <cstdint>

#include "sw_export.h"

namespace webrtc {

/// A signed 32-bit counter that any thread may read and change at once.
/// Every operation is sequentially consistent; sums wrap at the limits as
/// unsigned arithmetic does, never undefined. Not copyable.
class SW_EXPORT Atomic32 {
public:
    /// A counter holding aInitial.
    Atomic32(int32_t aInitial = 0);
    Atomic32(const Atomic32&) = delete;
    Atomic32& operator=(const Atomic32&) = delete;

    /// Adds 1; returns the new value.
    int32_t operator++();
    /// Subtracts 1; returns the new value.
    int32_t operator--();
    /// Adds aValue; returns the new value.
    int32_t operator+=(int32_t aValue);
    /// Subtracts aValue; returns the new value.
    int32_t operator-=(int32_t aValue);

    /// Stores aNewValue and returns true when the value equalled
    /// aCompareValue; otherwise changes nothing and returns false.
    bool CompareExchange(int32_t aNewValue, int32_t aCompareValue);
    /// The current value.
    int32_t Value() const;

private:
    std::atomic<int32_t> m_value;
};

}  // namespace webrtc

#endif  // SYSTEM_WRAPPERS_ATOMIC32_H_
