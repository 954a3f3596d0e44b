#include "atomic32.h"

namespace webrtc {

namespace {

// The new value from the old one, computed unsigned so that it wraps.
int32_t Add(int32_t aOld, int32_t aValue) {
    return static_cast<int32_t>(static_cast<uint32_t>(aOld) + static_cast<uint32_t>(aValue));
}

}  // namespace

Atomic32::Atomic32(int32_t aInitial) : m_value(aInitial) {}

int32_t Atomic32::operator++() {
    return *this += 1;
}

int32_t Atomic32::operator--() {
    return *this -= 1;
}

int32_t Atomic32::operator+=(int32_t aValue) {
    // Atomic arithmetic on signed integers is defined to wrap.
    return Add(m_value.fetch_add(aValue), aValue);
}

int32_t Atomic32::operator-=(int32_t aValue) {
    return Add(m_value.fetch_sub(aValue), static_cast<int32_t>(0u - static_cast<uint32_t>(aValue)));
}

bool Atomic32::CompareExchange(int32_t aNewValue, int32_t aCompareValue) {
    return m_value.compare_exchange_strong(aCompareValue, aNewValue);
}

int32_t Atomic32::Value() const {
    return m_value.load();
}

}  // namespace webrtc
