/// @file
/// Typed sort and key sort over integer and floating-point arrays: Sort orders
/// values in place, KeySort orders keys and carries a data element with each.
#ifndef SYSTEM_WRAPPERS_SORT_H_
#define SYSTEM_WRAPPERS_SORT_H_

#include <cstdint>

#include "sw_export.h"

namespace webrtc {

/// The element type of the sorted values or keys: WordN is a signed N-bit
/// integer, UWordN an unsigned one, FloatN an IEEE-754 binary float.
enum Type {
    TYPE_Word8,    ///< int8_t.
    TYPE_UWord8,   ///< uint8_t.
    TYPE_Word16,   ///< int16_t.
    TYPE_UWord16,  ///< uint16_t.
    TYPE_Word32,   ///< int32_t.
    TYPE_UWord32,  ///< uint32_t.
    TYPE_Word64,   ///< int64_t.
    TYPE_UWord64,  ///< uint64_t.
    TYPE_Float32,  ///< float.
    TYPE_Float64   ///< double.
};

/// Sorts aNumOfElements values of aDataType ascending, in place. For floats,
/// -0.0 and +0.0 are equal and NaNs end up last. Returns 0, or -1 for null
/// data, no elements or an unknown type. Any thread, on arrays no other
/// thread touches meanwhile.
SW_EXPORT int32_t Sort(void* aData, uint32_t aNumOfElements, Type aDataType);

/// Sorts aNumOfElements keys of aKeyType ascending and moves the aSizeOfElement
/// bytes of aData that belong to each key along with it. Stable: equal keys
/// (-0.0 and +0.0 included, and all NaNs, which go last) keep their order.
/// Returns 0, or -1 for null pointers, no elements, a zero element size, data
/// of 4 GiB or more, an unknown type, or when its scratch memory is not
/// available (the arrays are then untouched). Any thread, on arrays no other
/// thread touches meanwhile.
SW_EXPORT int32_t KeySort(void* aData, void* aKey, uint32_t aNumOfElements, uint32_t aSizeOfElement,
                          Type aKeyType);

}  // namespace webrtc

#endif  // SYSTEM_WRAPPERS_SORT_H_
