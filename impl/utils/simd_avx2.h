// 8x8 float transposes shared by the AVX2 kernels (include only from files
// built for AVX2).
#ifndef NPUCPU_IMPL_UTILS_SIMD_AVX2_H
#define NPUCPU_IMPL_UTILS_SIMD_AVX2_H

#include <immintrin.h>

#include <cstdint>

namespace npucpu {

// Transposes the 8x8 block held in r (r[i] lane k becomes r[k] lane i).
inline void transpose8(__m256 r[8]) {
    const __m256 t0 = _mm256_unpacklo_ps(r[0], r[1]), t1 = _mm256_unpackhi_ps(r[0], r[1]);
    const __m256 t2 = _mm256_unpacklo_ps(r[2], r[3]), t3 = _mm256_unpackhi_ps(r[2], r[3]);
    const __m256 t4 = _mm256_unpacklo_ps(r[4], r[5]), t5 = _mm256_unpackhi_ps(r[4], r[5]);
    const __m256 t6 = _mm256_unpacklo_ps(r[6], r[7]), t7 = _mm256_unpackhi_ps(r[6], r[7]);
    const __m256 u0 = _mm256_shuffle_ps(t0, t2, 0x44), u1 = _mm256_shuffle_ps(t0, t2, 0xEE);
    const __m256 u2 = _mm256_shuffle_ps(t1, t3, 0x44), u3 = _mm256_shuffle_ps(t1, t3, 0xEE);
    const __m256 u4 = _mm256_shuffle_ps(t4, t6, 0x44), u5 = _mm256_shuffle_ps(t4, t6, 0xEE);
    const __m256 u6 = _mm256_shuffle_ps(t5, t7, 0x44), u7 = _mm256_shuffle_ps(t5, t7, 0xEE);
    r[0] = _mm256_permute2f128_ps(u0, u4, 0x20);
    r[1] = _mm256_permute2f128_ps(u1, u5, 0x20);
    r[2] = _mm256_permute2f128_ps(u2, u6, 0x20);
    r[3] = _mm256_permute2f128_ps(u3, u7, 0x20);
    r[4] = _mm256_permute2f128_ps(u0, u4, 0x31);
    r[5] = _mm256_permute2f128_ps(u1, u5, 0x31);
    r[6] = _mm256_permute2f128_ps(u2, u6, 0x31);
    r[7] = _mm256_permute2f128_ps(u3, u7, 0x31);
}

// c[k] lane i = p[i * stride + k] for i, k < 8: eight consecutive elements
// of eight rows, transposed. The lane-crossing step is done by the loads
// (each half of a vector from another row), leaving 16 in-lane shuffles.
inline void load_transposed8(const float *p, uint64_t stride, __m256 c[8]) {
    const auto pair = [p, stride](uint64_t lo_row, uint64_t hi_row, uint64_t col) {
        return _mm256_insertf128_ps(_mm256_castps128_ps256(_mm_loadu_ps(p + lo_row * stride + col)),
                                    _mm_loadu_ps(p + hi_row * stride + col), 1);
    };
    for (uint64_t half = 0; half < 2; ++half) {
        const uint64_t col = 4 * half;
        const __m256 t0 = pair(0, 4, col), t1 = pair(1, 5, col), t2 = pair(2, 6, col), t3 = pair(3, 7, col);
        const __m256 u0 = _mm256_unpacklo_ps(t0, t1), u1 = _mm256_unpackhi_ps(t0, t1);
        const __m256 u2 = _mm256_unpacklo_ps(t2, t3), u3 = _mm256_unpackhi_ps(t2, t3);
        c[col + 0] = _mm256_shuffle_ps(u0, u2, 0x44);
        c[col + 1] = _mm256_shuffle_ps(u0, u2, 0xEE);
        c[col + 2] = _mm256_shuffle_ps(u1, u3, 0x44);
        c[col + 3] = _mm256_shuffle_ps(u1, u3, 0xEE);
    }
}

}  // namespace npucpu

#endif
