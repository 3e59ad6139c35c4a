#include <immintrin.h>

#include <type_traits>

#include "plane_sums.h"
#include "simd_avx2.h"

namespace npucpu {

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
                load_transposed8(base + static_cast<uint64_t>(8 * g) * n + j, n, r);
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
