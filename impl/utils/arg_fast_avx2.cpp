// Fast arg-max/min of one contiguous slice: the literal index routine's
// answer, found as "the value the routine settles on" (the extreme of the
// non-NaN values, or values[0] when that is NaN) and then the first and
// last positions equal to it (equality as the routine compares, so -0.0 and
// +0.0 are one value).
#include <immintrin.h>

#include "arg_fast.h"

namespace npucpu {

namespace {

inline int first_set(int mask) { return __builtin_ctz(static_cast<unsigned>(mask)); }
inline int last_set(int mask) { return 31 - __builtin_clz(static_cast<unsigned>(mask)); }

template <bool kMax>
uint32_t index_f32(const float *v, int64_t select_last, int32_t count) {
    if (count < 1 || v[0] != v[0]) return 0;
    const uint32_t n = static_cast<uint32_t>(count);
    // max_ps(x, m) is x > m ? x : m (min_ps likewise with <): a NaN x
    // leaves m, as the routine's strict test does.
    __m256 m8 = _mm256_set1_ps(v[0]);
    uint32_t k = 0;
    for (; k + 8 <= n; k += 8) {
        const __m256 x = _mm256_loadu_ps(v + k);
        m8 = kMax ? _mm256_max_ps(x, m8) : _mm256_min_ps(x, m8);
    }
    alignas(32) float lanes[8];
    _mm256_store_ps(lanes, m8);
    float m = v[0];
    for (int i = 0; i < 8; ++i) {
        if (kMax ? lanes[i] > m : lanes[i] < m) m = lanes[i];
    }
    for (; k < n; ++k) {
        if (kMax ? v[k] > m : v[k] < m) m = v[k];
    }
    const __m256 mv = _mm256_set1_ps(m);
    if (select_last == 0) {
        uint32_t j = 0;
        for (; j + 8 <= n; j += 8) {
            const int eq = _mm256_movemask_ps(_mm256_cmp_ps(_mm256_loadu_ps(v + j), mv, _CMP_EQ_OQ));
            if (eq != 0) return j + first_set(eq);
        }
        for (; j < n; ++j) {
            if (v[j] == m) return j;
        }
        return 0;
    }
    uint32_t j = n;
    for (; j >= 8; j -= 8) {
        const int eq = _mm256_movemask_ps(_mm256_cmp_ps(_mm256_loadu_ps(v + j - 8), mv, _CMP_EQ_OQ));
        if (eq != 0) return j - 8 + last_set(eq);
    }
    for (; j > 0; --j) {
        if (v[j - 1] == m) return j - 1;
    }
    return 0;
}

template <bool kMax>
uint32_t index_s32(const int32_t *v, int64_t select_last, int32_t count) {
    if (count < 1) return 0;
    const uint32_t n = static_cast<uint32_t>(count);
    __m256i m8 = _mm256_set1_epi32(v[0]);
    uint32_t k = 0;
    for (; k + 8 <= n; k += 8) {
        const __m256i x = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(v + k));
        m8 = kMax ? _mm256_max_epi32(x, m8) : _mm256_min_epi32(x, m8);
    }
    alignas(32) int32_t lanes[8];
    _mm256_store_si256(reinterpret_cast<__m256i *>(lanes), m8);
    int32_t m = v[0];
    for (int i = 0; i < 8; ++i) m = (kMax ? lanes[i] > m : lanes[i] < m) ? lanes[i] : m;
    for (; k < n; ++k) m = (kMax ? v[k] > m : v[k] < m) ? v[k] : m;
    const __m256i mv = _mm256_set1_epi32(m);
    auto eq_mask = [&](uint32_t at) {
        const __m256i x = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(v + at));
        return _mm256_movemask_ps(_mm256_castsi256_ps(_mm256_cmpeq_epi32(x, mv)));
    };
    if (select_last == 0) {
        uint32_t j = 0;
        for (; j + 8 <= n; j += 8) {
            const int eq = eq_mask(j);
            if (eq != 0) return j + first_set(eq);
        }
        for (; j < n; ++j) {
            if (v[j] == m) return j;
        }
        return 0;
    }
    uint32_t j = n;
    for (; j >= 8; j -= 8) {
        const int eq = eq_mask(j - 8);
        if (eq != 0) return j - 8 + last_set(eq);
    }
    for (; j > 0; --j) {
        if (v[j - 1] == m) return j - 1;
    }
    return 0;
}

}  // namespace

uint32_t arg_max_index_f32_avx2(const float *v, int64_t s, int32_t n) { return index_f32<true>(v, s, n); }
uint32_t arg_min_index_f32_avx2(const float *v, int64_t s, int32_t n) { return index_f32<false>(v, s, n); }
uint32_t arg_max_index_s32_avx2(const int32_t *v, int64_t s, int32_t n) { return index_s32<true>(v, s, n); }
uint32_t arg_min_index_s32_avx2(const int32_t *v, int64_t s, int32_t n) { return index_s32<false>(v, s, n); }

}  // namespace npucpu
