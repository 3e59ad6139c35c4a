// The AVX-512 form of the vector exponential: the same operations as the
// AVX2 form (exp4 and round4 in softmax_fast_avx2.cpp) on eight doubles.
// GCC 12's AVX-512 headers start several intrinsics from an "undefined"
// vector and then warn about it under -Wmaybe-uninitialized; the warning is
// about the compiler's header, not this code.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

#include <immintrin.h>

#include <math.h>

#include "softmax_fast.h"

namespace npucpu {

namespace {

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

// See exp4 in softmax_fast_avx2.cpp: the same constants and steps.
inline __m512d exp8d(__m512d d) {
    const __m512d scale = _mm512_set1_pd(92.332482616893657);  // 64 / ln 2
    const __m512d hi = _mm512_set1_pd(6.93147180369123816490e-01 / 64.0);
    const __m512d lo = _mm512_set1_pd(1.90821492927058770002e-10 / 64.0);
    const __m512d n = _mm512_roundscale_pd(_mm512_mul_pd(d, scale), _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC);
    const __m512d r = _mm512_sub_pd(_mm512_sub_pd(d, _mm512_mul_pd(n, hi)), _mm512_mul_pd(n, lo));
    __m512d p = _mm512_set1_pd(1.0 / 120.0);
    p = _mm512_add_pd(_mm512_mul_pd(p, r), _mm512_set1_pd(1.0 / 24.0));
    p = _mm512_add_pd(_mm512_mul_pd(p, r), _mm512_set1_pd(1.0 / 6.0));
    p = _mm512_add_pd(_mm512_mul_pd(p, r), _mm512_set1_pd(0.5));
    p = _mm512_add_pd(_mm512_mul_pd(p, r), _mm512_set1_pd(1.0));
    p = _mm512_add_pd(_mm512_mul_pd(p, r), _mm512_set1_pd(1.0));
    const __m256i ni = _mm512_cvtpd_epi32(n);
    const __m256i j = _mm256_and_si256(ni, _mm256_set1_epi32(63));
    const __m256i k = _mm256_srai_epi32(ni, 6);
    const __m512d t = _mm512_i32gather_pd(j, kExp2Table, 8);
    const __m512i bits = _mm512_slli_epi64(_mm512_add_epi64(_mm512_cvtepi32_epi64(k), _mm512_set1_epi64(1023)), 52);
    return _mm512_mul_pd(_mm512_mul_pd(t, p), _mm512_castsi512_pd(bits));
}

// Eight lanes: float(exp(double(d))), with std::exp for the lanes outside
// [-87, 88] (NaN included) or near a float midpoint (see round4).
inline void exp8_to(__m256 d, const float *d_scalar, float *out) {
    const __mmask8 in_range = _mm256_cmp_ps_mask(d, _mm256_set1_ps(-87.0f), _CMP_GE_OQ) &
                              _mm256_cmp_ps_mask(d, _mm256_set1_ps(88.0f), _CMP_LE_OQ);
    const __m256 safe = _mm256_maskz_mov_ps(in_range, d);
    const __m512d y = exp8d(_mm512_cvtps_pd(safe));
    const __m512i low = _mm512_and_si512(_mm512_castpd_si512(y), _mm512_set1_epi64((1LL << 29) - 1));
    const __m512i shifted = _mm512_add_epi64(_mm512_sub_epi64(low, _mm512_set1_epi64(1LL << 28)),
                                             _mm512_set1_epi64(1LL << 14));
    const __mmask8 near = _mm512_cmpeq_epi64_mask(_mm512_srli_epi64(shifted, 15), _mm512_setzero_si512());
    _mm256_storeu_ps(out, _mm512_cvtpd_ps(y));
    const unsigned slow = static_cast<unsigned>(static_cast<uint8_t>(~in_range) | near);
    if (slow != 0) {
        for (int i = 0; i < 8; ++i) {
            if (slow & (1u << i)) out[i] = static_cast<float>(::exp(static_cast<double>(d_scalar[i])));
        }
    }
}

}  // namespace

void exp_to_float_avx512(const float *d, float *out, uint64_t n) {
    uint64_t k = 0;
    for (; k + 8 <= n; k += 8) exp8_to(_mm256_loadu_ps(d + k), d + k, out + k);
    for (; k < n; ++k) out[k] = static_cast<float>(::exp(static_cast<double>(d[k])));
}

void exp_of_differences_avx512(const float *x, float m, float *e, uint32_t n) {
    const __m256 mv = _mm256_set1_ps(m);
    alignas(32) float d[8];
    uint32_t k = 0;
    for (; k + 8 <= n; k += 8) {
        const __m256 dv = _mm256_sub_ps(_mm256_loadu_ps(x + k), mv);
        _mm256_store_ps(d, dv);
        exp8_to(dv, d, e + k);
    }
    for (; k < n; ++k) {
        const float dk = x[k] - m;
        e[k] = static_cast<float>(::exp(static_cast<double>(dk)));
    }
}

}  // namespace npucpu
