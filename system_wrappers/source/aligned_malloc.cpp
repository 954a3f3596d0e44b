// Aligned heap blocks on top of posix_memalign, so that plain free releases
// them and no bookkeeping header sits in front of the block.
#include "aligned_malloc.h"

#include <stdlib.h>

namespace webrtc {

namespace {

bool IsPowerOfTwo(size_t aValue) {
    return aValue != 0 && (aValue & (aValue - 1)) == 0;
}

}  // namespace

void* AlignedMalloc(size_t aSize, size_t aAlignment) {
    if (aSize == 0 || !IsPowerOfTwo(aAlignment)) return nullptr;
    // posix_memalign wants a multiple of sizeof(void*); any such address is
    // also a multiple of every smaller power of two.
    const size_t alignment = aAlignment < sizeof(void*) ? sizeof(void*) : aAlignment;
    void* block = nullptr;
    if (posix_memalign(&block, alignment, aSize) != 0) return nullptr;
    return block;
}

void AlignedFree(void* aMemBlock) {
    free(aMemBlock);
}

uintptr_t GetRightAlign(uintptr_t aStart, size_t aAlignment) {
    if (!IsPowerOfTwo(aAlignment)) return 0;
    const uintptr_t mask = static_cast<uintptr_t>(aAlignment) - 1;
    // Past the last aligned address the sum wraps below mask, so this gives 0.
    return (aStart + mask) & ~mask;
}

}  // namespace webrtc
