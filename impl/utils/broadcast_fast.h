// The block form of broadcast() for compatible shapes, writing into a
// caller's buffer (operators that would copy broadcast()'s array whole into
// their output use it to skip the array).
#ifndef NPUCPU_IMPL_UTILS_BROADCAST_FAST_H
#define NPUCPU_IMPL_UTILS_BROADCAST_FAST_H

#include <cstdint>

#include "npucpu.h"

namespace npucpu {

// Writes into `result` (room for `count` floats, count = GetElemSize(out_shape)
// > 0, the input holding at least one element, output rank >= 1) exactly
// what broadcast() returns, where every aligned input dim equals the output
// dim or 1. Returns false, writing nothing, for any other shape.
bool broadcast_fast(const TensorShape *in_shape, const float *in_data, const TensorShape *out_shape,
                    float *result, uint32_t count);

}  // namespace npucpu

#endif
