// A 32-bit counter that any thread may change: sequentially consistent, and
// wrapping at the limits as unsigned arithmetic does.
#ifndef SYSTEM_WRAPPERS_ATOMIC32_H_
#define SYSTEM_WRAPPERS_ATOMIC32_H_

#include <atomic>
#include <cstdint>

#include "sw_export.h"

namespace webrtc {

class SW_EXPORT Atomic32 {
public:
    Atomic32(int32_t aInitial = 0);
    Atomic32(const Atomic32&) = delete;
    Atomic32& operator=(const Atomic32&) = delete;

    // Each returns the new value.
    int32_t operator++();
    int32_t operator--();
    int32_t operator+=(int32_t aValue);
    int32_t operator-=(int32_t aValue);

    // Stores aNewValue and returns true when the value equalled aCompareValue.
    bool CompareExchange(int32_t aNewValue, int32_t aCompareValue);
    int32_t Value() const;

private:
    std::atomic<int32_t> m_value;
};

}  // namespace webrtc

#endif  // SYSTEM_WRAPPERS_ATOMIC32_H_
