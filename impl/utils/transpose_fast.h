// Fast transpose of a dense float tensor: output axis d is input axis
// perm[d]. Axes that stay adjacent are merged; a contiguous innermost run is
// copied, otherwise the axis with input stride 1 and the innermost output
// axis are moved in 8x8 register tiles. Pure data movement: every output
// element is the input element the literal position decoding reads.
#ifndef NPUCPU_IMPL_UTILS_TRANSPOSE_FAST_H
#define NPUCPU_IMPL_UTILS_TRANSPOSE_FAST_H

#include <cstdint>

namespace npucpu {

// dims: the input's rank dims (product below 2^32); perm: a permutation.
void transpose_fast_avx2(const float *src, float *dst, uint32_t rank, const uint32_t *dims,
                         const int64_t *perm);

}  // namespace npucpu

#endif
