#include <immintrin.h>

#include <math.h>
#include <stdlib.h>
#include <string.h>

#include "npucpu.h"

#include "softmax_fast.h"
#include "simd_avx2.h"

namespace npucpu {

namespace {

// Start of the running maximum, as in the literal softmax.
constexpr float kMaxStart = 1.1754944e-38f;

// 2^(j/64) for j < 64, rounded to double.
alignas(32) constexpr double kExp2Table[64] = {
    0x1.0000000000000p+0, 0x1.02c9a3e778061p+0, 0x1.059b0d3158574p+0, 0x1.0874518759bc8p+0,
    0x1.0b5586cf9890fp+0, 0x1.0e3ec32d3d1a2p+0, 0x1.11301d0125b51p+0, 0x1.1429aaea92de0p+0,
    0x1.172b83c7d517bp+0, 0x1.1a35beb6fcb75p+0, 0x1.1d4873168b9aap+0, 0x1.2063b88628cd6p+0,
    0x1.2387a6e756238p+0, 0x1.26b4565e27cddp+0, 0x1.29e9df51fdee1p+0, 0x1.2d285a6e4030bp+0,
    0x1.306fe0a31b715p+0, 0x1.33c08b26416ffp+0, 0x1.371a7373aa9cbp+0, 0x1.3a7db34e59ff7p+0,
    0x1.3dea64c123422p+0, 0x1.4160a21f72e2ap+0, 0x1.44e086061892dp+0, 0x1.486a2b5c13cd0p+0,
    0x1.4bfdad5362a27p+0, 0x1.4f9b2769d2ca7p+0, 0x1.5342b569d4f82p+0, 0x1.56f4736b527dap+0,
    0x1.5ab07dd485429p+0, 0x1.5e76f15ad2148p+0, 0x1.6247eb03a5585p+0, 0x1.6623882552225p+0,
    0x1.6a09e667f3bcdp+0, 0x1.6dfb23c651a2fp+0, 0x1.71f75e8ec5f74p+0, 0x1.75feb564267c9p+0,
    0x1.7a11473eb0187p+0, 0x1.7e2f336cf4e62p+0, 0x1.82589994cce13p+0, 0x1.868d99b4492edp+0,
    0x1.8ace5422aa0dbp+0, 0x1.8f1ae99157736p+0, 0x1.93737b0cdc5e5p+0, 0x1.97d829fde4e50p+0,
    0x1.9c49182a3f090p+0, 0x1.a0c667b5de565p+0, 0x1.a5503b23e255dp+0, 0x1.a9e6b5579fdbfp+0,
    0x1.ae89f995ad3adp+0, 0x1.b33a2b84f15fbp+0, 0x1.b7f76f2fb5e47p+0, 0x1.bcc1e904bc1d2p+0,
    0x1.c199bdd85529cp+0, 0x1.c67f12e57d14bp+0, 0x1.cb720dcef9069p+0, 0x1.d072d4a07897cp+0,
    0x1.d5818dcfba487p+0, 0x1.da9e603db3285p+0, 0x1.dfc97337b9b5fp+0, 0x1.e502ee78b3ff6p+0,
    0x1.ea4afa2a490dap+0, 0x1.efa1bee615a27p+0, 0x1.f50765b6e4540p+0, 0x1.fa7c1819e90d8p+0

};

// exp of four doubles in [-87, 88]: d = (64k + j) ln2/64 + r with
// |r| <= ln2/128, exp(d) = 2^k * 2^(j/64) * exp(r), exp(r) by its Taylor
// polynomial of degree 5 (truncation below 2^-54 relative). Separate
// multiplies and adds (no fusing); the total relative error stays far below
// 2^-40.
inline __m256d exp4(__m256d d) {
    const __m256d scale = _mm256_set1_pd(92.332482616893657);  // 64 / ln 2
    // ln2/64 in two parts: the high part has 32 significant bits, so its
    // product with |n| < 2^14 is exact.
    const __m256d hi = _mm256_set1_pd(6.93147180369123816490e-01 / 64.0);
    const __m256d lo = _mm256_set1_pd(1.90821492927058770002e-10 / 64.0);
    const __m256d n = _mm256_round_pd(_mm256_mul_pd(d, scale), _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC);
    const __m256d r = _mm256_sub_pd(_mm256_sub_pd(d, _mm256_mul_pd(n, hi)), _mm256_mul_pd(n, lo));
    __m256d p = _mm256_set1_pd(1.0 / 120.0);
    p = _mm256_add_pd(_mm256_mul_pd(p, r), _mm256_set1_pd(1.0 / 24.0));
    p = _mm256_add_pd(_mm256_mul_pd(p, r), _mm256_set1_pd(1.0 / 6.0));
    p = _mm256_add_pd(_mm256_mul_pd(p, r), _mm256_set1_pd(0.5));
    p = _mm256_add_pd(_mm256_mul_pd(p, r), _mm256_set1_pd(1.0));
    p = _mm256_add_pd(_mm256_mul_pd(p, r), _mm256_set1_pd(1.0));
    const __m128i ni = _mm256_cvtpd_epi32(n);
    const __m128i j = _mm_and_si128(ni, _mm_set1_epi32(63));
    const __m128i k = _mm_srai_epi32(ni, 6);
    const __m256d t = _mm256_mask_i32gather_pd(_mm256_setzero_pd(), kExp2Table, j,
                                               _mm256_castsi256_pd(_mm256_set1_epi64x(-1)), 8);
    const __m256i bits = _mm256_slli_epi64(_mm256_add_epi64(_mm256_cvtepi32_epi64(k), _mm256_set1_epi64x(1023)), 52);
    return _mm256_mul_pd(_mm256_mul_pd(t, p), _mm256_castsi256_pd(bits));
}

// Rounds four doubles (normal float range) to float; returns a mask of the
// lanes whose dropped 29 mantissa bits lie within 2^14 double ulps of the
// midpoint (half = 2^28), where a relative error below 2^-40 could change
// the rounding.
inline __m128 round4(__m256d y, int *near_mid) {
    const __m256i low = _mm256_and_si256(_mm256_castpd_si256(y), _mm256_set1_epi64x((1LL << 29) - 1));
    const __m256i off = _mm256_sub_epi64(low, _mm256_set1_epi64x(1LL << 28));
    // |off| < 2^14  <=>  off + 2^14 lies in [0, 2^15) as an unsigned value.
    const __m256i shifted = _mm256_add_epi64(off, _mm256_set1_epi64x(1LL << 14));
    const __m256i outside = _mm256_srli_epi64(shifted, 15);  // non-zero when not near
    const __m256i near = _mm256_cmpeq_epi64(outside, _mm256_setzero_si256());
    *near_mid = _mm256_movemask_pd(_mm256_castsi256_pd(near));
    return _mm256_cvtpd_ps(y);
}

// Eight lanes: float(exp(double(d))).
inline __m256 exp8(__m256 d, const float *d_scalar, float *fix_out, bool *fixed) {
    const __m256 lo = _mm256_set1_ps(-87.0f), hi = _mm256_set1_ps(88.0f);
    const __m256 in_range = _mm256_and_ps(_mm256_cmp_ps(d, lo, _CMP_GE_OQ), _mm256_cmp_ps(d, hi, _CMP_LE_OQ));
    const int range_mask = _mm256_movemask_ps(in_range);
    // Out-of-range lanes compute on 0 and are replaced below.
    const __m256 safe = _mm256_and_ps(d, in_range);
    int near0 = 0, near1 = 0;
    const __m128 f0 = round4(exp4(_mm256_cvtps_pd(_mm256_castps256_ps128(safe))), &near0);
    const __m128 f1 = round4(exp4(_mm256_cvtps_pd(_mm256_extractf128_ps(safe, 1))), &near1);
    const int slow = (~range_mask & 0xFF) | near0 | (near1 << 4);
    __m256 f = _mm256_set_m128(f1, f0);
    *fixed = false;
    if (slow != 0) {
        _mm256_storeu_ps(fix_out, f);
        for (int i = 0; i < 8; ++i) {
            if (slow & (1 << i)) {
                fix_out[i] = static_cast<float>(::exp(static_cast<double>(d_scalar[i])));
            }
        }
        *fixed = true;
    }
    return f;
}

// sum + e as one scalar addition (the row's running sum, in index order).
inline float add_sum_first(float sum, float e) {
    return _mm_cvtss_f32(_mm_add_ss(_mm_set_ss(sum), _mm_set_ss(e)));
}

// float(exp(double(x[k] - m))) for k < n into e; with kSum, also the sum of
// e in index order, each block of eight added while the next is computed.
template <bool kSum>
float exp_of_differences_t(const float *x, float m, float *e, uint32_t n) {
    const __m256 mv = _mm256_set1_ps(m);
    float sum = 0.0f;
    uint32_t k = 0;
    alignas(32) float d[8];
    for (; k + 8 <= n; k += 8) {
        const __m256 dv = _mm256_sub_ps(_mm256_loadu_ps(x + k), mv);
        _mm256_store_ps(d, dv);
        bool fixed = false;
        const __m256 f = exp8(dv, d, e + k, &fixed);
        if (!fixed) _mm256_storeu_ps(e + k, f);
        if (kSum) {
            for (uint32_t i = 0; i < 8; ++i) sum = add_sum_first(sum, e[k + i]);
        }
    }
    for (; k < n; ++k) {
        const float dk = x[k] - m;
        e[k] = static_cast<float>(::exp(static_cast<double>(dk)));
        if (kSum) sum = add_sum_first(sum, e[k]);
    }
    return sum;
}

void exp_of_differences(const float *x, float m, float *e, uint32_t n) {
    exp_of_differences_t<false>(x, m, e, n);
}

float row_max(const float *x, uint32_t n) {
    // max_ps(v, m) is v > m ? v : m, the literal's update; the result does
    // not depend on the order (see the header).
    // Four running vectors so that the updates overlap.
    __m256 m8 = _mm256_set1_ps(kMaxStart), m8b = m8, m8c = m8, m8d = m8;
    uint32_t k = 0;
    for (; k + 32 <= n; k += 32) {
        m8 = _mm256_max_ps(_mm256_loadu_ps(x + k), m8);
        m8b = _mm256_max_ps(_mm256_loadu_ps(x + k + 8), m8b);
        m8c = _mm256_max_ps(_mm256_loadu_ps(x + k + 16), m8c);
        m8d = _mm256_max_ps(_mm256_loadu_ps(x + k + 24), m8d);
    }
    for (; k + 8 <= n; k += 8) m8 = _mm256_max_ps(_mm256_loadu_ps(x + k), m8);
    m8 = _mm256_max_ps(m8b, m8);
    m8 = _mm256_max_ps(m8c, m8);
    m8 = _mm256_max_ps(m8d, m8);
    alignas(32) float lanes[8];
    _mm256_store_ps(lanes, m8);
    float m = kMaxStart;
    for (int i = 0; i < 8; ++i) {
        if (lanes[i] > m) m = lanes[i];
    }
    for (; k < n; ++k) {
        if (x[k] > m) m = x[k];
    }
    return m;
}

}  // namespace

float exp_sum_of_differences_avx2(const float *x, float m, float *e, uint32_t n) {
    return exp_of_differences_t<true>(x, m, e, n);
}

void exp_to_float_avx2(const float *d, float *out, uint64_t n) {
    uint64_t k = 0;
    for (; k + 8 <= n; k += 8) {
        bool fixed = false;
        const __m256 f = exp8(_mm256_loadu_ps(d + k), d + k, out + k, &fixed);
        if (!fixed) _mm256_storeu_ps(out + k, f);
    }
    for (; k < n; ++k) out[k] = static_cast<float>(::exp(static_cast<double>(d[k])));
}

void softmax_rows_avx2(const float *x, float *y, uint64_t rows, uint32_t len, float *scratch,
                       bool avx512) {
    void (*exp_diff)(const float *, float, float *, uint32_t) =
        avx512 ? exp_of_differences_avx512 : exp_of_differences;
    for (uint64_t r0 = 0; r0 < rows; r0 += 8) {
        const uint32_t group = rows - r0 >= 8 ? 8 : static_cast<uint32_t>(rows - r0);
        // Eight rows: their exponentials first, then the sums side by side.
        // Fewer: each row's sum is taken with its exponentials (below).
        for (uint32_t g = 0; g < (group == 8 ? 8u : 0u); ++g) {
            const float *row = x + (r0 + g) * len;
            const float m = row_max(row, len);
            // The next row's first read (its maximum) would otherwise wait
            // for the cache: ask for it while this row's exponentials run.
            if (r0 + g + 1 < rows) {
                const char *next = reinterpret_cast<const char *>(row + len);
                for (uint64_t b = 0; b < static_cast<uint64_t>(len) * sizeof(float); b += 64) {
                    _mm_prefetch(next + b, _MM_HINT_T0);
                }
            }
            exp_diff(row, m, scratch + static_cast<uint64_t>(g) * len, len);
        }
        // Each row's sum in index order: eight rows side by side. A row
        // whose running sum, a NaN, meets a NaN term is redone by the literal
        // routine: addition commutes, so which NaN survives is the compiler's
        // choice in each loop.
        alignas(32) float sums[8];
        int clash = 0;
        if (group == 8) {
            __m256 sum = _mm256_setzero_ps();
            uint32_t k = 0;
            for (; k + 8 <= len; k += 8) {
                __m256 t[8];
                load_transposed8(scratch + k, len, t);
                for (int i = 0; i < 8; ++i) sum = _mm256_add_ps(sum, t[i]);
            }
            _mm256_store_ps(sums, sum);
            // A NaN sum stays NaN from its first NaN term on: those rows go
            // to the literal routine (a NaN term may have met it).
            clash = _mm256_movemask_ps(_mm256_cmp_ps(sum, sum, _CMP_UNORD_Q));
            for (; k < len; ++k) {
                for (int g = 0; g < 8; ++g) {
                    const float e = scratch[static_cast<uint64_t>(g) * len + k];
                    if (sums[g] != sums[g] && e != e) clash |= 1 << g;
                    sums[g] = add_sum_first(sums[g], e);
                }
            }
        } else {
            // Fewer than eight rows: each row's sum is taken with its
            // exponentials. A NaN sum (some term was NaN) sends the row to
            // the literal routine.
            float (*exp_sum)(const float *, float, float *, uint32_t) =
                avx512 ? exp_sum_of_differences_avx512 : exp_sum_of_differences_avx2;
            for (uint32_t g = 0; g < group; ++g) {
                const float *row = x + (r0 + g) * len;
                sums[g] = exp_sum(row, row_max(row, len), scratch + static_cast<uint64_t>(g) * len, len);
                if (sums[g] != sums[g]) clash |= 1 << g;
            }
        }
        for (uint32_t g = 0; g < group; ++g) {
            if ((clash & (1 << g)) == 0) continue;
            float *result = basic_softmax(x + (r0 + g) * len, len);
            if (result != nullptr) {
                memcpy(y + (r0 + g) * len, result, sizeof(float) * len);
                free(result);
            }
        }
        for (uint32_t g = 0; g < group; ++g) {
            if (clash & (1 << g)) continue;
            const float *e = scratch + static_cast<uint64_t>(g) * len;
            float *out = y + (r0 + g) * len;
            const __m256 s = _mm256_set1_ps(sums[g]);
            uint32_t k = 0;
            for (; k + 8 <= len; k += 8) _mm256_storeu_ps(out + k, _mm256_div_ps(_mm256_loadu_ps(e + k), s));
            for (; k < len; ++k) out[k] = e[k] / sums[g];
        }
    }
}

}  // namespace npucpu
