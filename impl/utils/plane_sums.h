// Fast global average pooling: each plane's float sum in index order from
// +0.0, divided by the plane size, as the literal loop does; eight planes
// side by side (each lane adds its own plane's elements in order).
#ifndef NPUCPU_IMPL_UTILS_PLANE_SUMS_H
#define NPUCPU_IMPL_UTILS_PLANE_SUMS_H

#include <cstdint>

namespace npucpu {

// y[p] = (x[p*n] + ... + x[p*n + n - 1]) / float(n) for p < planes; n > 0.
// A plane whose sum is NaN takes y[p] = literal(x + p*n, n, n) instead:
// where a NaN sum meets a NaN term, which NaN survives is the compiler's
// choice in each loop (addition commutes).
void plane_means_avx2(const float *x, uint64_t planes, uint32_t n, float *y,
                      float (*literal)(const float *, uint64_t, uint32_t));

}  // namespace npucpu

#endif
