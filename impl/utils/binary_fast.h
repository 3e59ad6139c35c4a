// Fast broadcasting element-wise arithmetic: out[i] = a[ia(i)] op b[ib(i)]
// with the broadcast positions computed per axis (stride 0 on broadcast
// axes) instead of materialising both broadcast tensors. Applies only where
// the literal broadcast is the usual one: every input dim 1 or equal to the
// output dim, inputs of at most the output's rank.
#ifndef NPUCPU_IMPL_UTILS_BINARY_FAST_H
#define NPUCPU_IMPL_UTILS_BINARY_FAST_H

#include <cstdint>

#include "npucpu.h"

namespace npucpu {

enum class BinaryKind : uint32_t { Add, Sub, Mul, Div };

// Writes all elements of `out` and returns true, or returns false where the
// fast walk does not apply (shapes) or cannot fix the result (an addition or
// multiplication of two NaN); `out` may then hold partial results, which
// the literal loop overwrites.
bool binary_fast_avx2(BinaryKind kind, const TensorShape &a_shape, const float *a,
                      const TensorShape &b_shape, const float *b, const TensorShape &out_shape,
                      float *out);

}  // namespace npucpu

#endif
