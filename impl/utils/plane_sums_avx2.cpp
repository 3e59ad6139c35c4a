#include <immintrin.h>

#include <type_traits>

#include "plane_sums.h"

namespace npucpu {

namespace {

// Transposes the 8x8 block in r (row i = eight consecutive elements of one
// plane) so that r[k] holds element k of every plane.
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

}  // namespace

void plane_means_avx2(const float *x, uint64_t planes, uint32_t n, float *y,
                      float (*literal)(const float *, uint64_t, uint32_t)) {
    const float divisor = static_cast<float>(n);
    const __m256i plane_offsets =
        _mm256_mullo_epi32(_mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7), _mm256_set1_epi32(static_cast<int>(n)));
    uint64_t p = 0;
    // Gathered tails use 32-bit offsets: eight planes must span less than 2^31.
    const bool gather_ok = static_cast<uint64_t>(n) * 8 < (uint64_t{1} << 31);
    // Up to four groups of eight planes at once, so that their addition chains
    // overlap; each lane still adds its own plane's elements in order.
    auto groups = [&](auto count_tag) {
        constexpr int G = decltype(count_tag)::value;
        const float *base = x + p * n;
        __m256 sum[G];
        for (int g = 0; g < G; ++g) sum[g] = _mm256_setzero_ps();
        auto add = [&](int g, __m256 v) { sum[g] = _mm256_add_ps(sum[g], v); };
        uint32_t j = 0;
        for (; j + 8 <= n; j += 8) {
            for (int g = 0; g < G; ++g) {
                __m256 r[8];
                for (int i = 0; i < 8; ++i) {
                    r[i] = _mm256_loadu_ps(base + static_cast<uint64_t>(8 * g + i) * n + j);
                }
                transpose8(r);
                for (int k = 0; k < 8; ++k) add(g, r[k]);
            }
        }
        for (; j < n; ++j) {
            for (int g = 0; g < G; ++g) {
                add(g, _mm256_i32gather_ps(base + static_cast<uint64_t>(8 * g) * n + j,
                                           plane_offsets, 4));
            }
        }
        for (int g = 0; g < G; ++g) {
            _mm256_storeu_ps(y + p + 8 * g, _mm256_div_ps(sum[g], _mm256_set1_ps(divisor)));
            // A NaN sum is NaN from its first NaN term on; such a plane is
            // redone by the literal routine.
            const int clash = _mm256_movemask_ps(_mm256_cmp_ps(sum[g], sum[g], _CMP_UNORD_Q));
            for (int l = 0; l < 8; ++l) {
                if (clash & (1 << l)) {
                    const uint64_t q = p + 8 * g + l;
                    y[q] = literal(x + q * n, n, n);
                }
            }
        }
        p += 8 * G;
    };
    while (gather_ok && p + 32 <= planes) groups(std::integral_constant<int, 4>());
    while (gather_ok && p + 16 <= planes) groups(std::integral_constant<int, 2>());
    while (gather_ok && p + 8 <= planes) groups(std::integral_constant<int, 1>());
    for (; p < planes; ++p) y[p] = literal(x + p * n, n, n);
}

}  // namespace npucpu
