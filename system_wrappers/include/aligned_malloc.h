/// @file
/// Heap blocks aligned to a power of two, for buffers that vector code or DMA
/// reads, and the address arithmetic that goes with them.
#ifndef SYSTEM_WRAPPERS_ALIGNED_MALLOC_H_
#define SYSTEM_WRAPPERS_ALIGNED_MALLOC_H_

#include <cstddef>
#include <cstdint>

#include "sw_export.h"

namespace webrtc {

/// A block of aSize bytes whose address is a multiple of aAlignment; the
/// caller owns it and releases it with AlignedFree. Null for aSize 0, an
/// aAlignment that is 0 or not a power of two, or when the memory is not
/// available. Any thread.
SW_EXPORT void* AlignedMalloc(size_t aSize, size_t aAlignment);

/// Releases a block from AlignedMalloc; null is ignored. Any thread.
SW_EXPORT void AlignedFree(void* aMemBlock);

/// The first address at or after aStart that is a multiple of aAlignment.
/// 0 when aAlignment is 0 or not a power of two, or when that address would
/// pass the end of the address space (0 is also the answer for aStart 0).
SW_EXPORT uintptr_t GetRightAlign(uintptr_t aStart, size_t aAlignment);

/// The typed form of AlignedMalloc: aSize is in bytes, not elements; same
/// results, released with AlignedFree.
template <typename T>
T* AlignedMalloc(size_t aSize, size_t aAlignment) {
    return static_cast<T*>(AlignedMalloc(aSize, aAlignment));
}

}  // namespace webrtc

#endif  // SYSTEM_WRAPPERS_ALIGNED_MALLOC_H_
