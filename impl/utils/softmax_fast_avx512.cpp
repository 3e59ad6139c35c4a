// The AVX-512 form of the vector exponential: eight doubles per vector, a
// 16-entry table held in two registers and fused multiply-adds; the same
// range and midpoint tests as the AVX2 form (round4 in softmax_fast_avx2.cpp).
// GCC 12's AVX-512 headers start several intrinsics from an "undefined"
// vector and then warn about it under -Wmaybe-uninitialized; the warning is
// about the compiler's header, not this code.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

#include <immintrin.h>

#include <math.h>

#include "softmax_fast.h"

namespace npucpu {

namespace {

// 2^(j/16) for j < 16, rounded to double, as two vectors for a two-source
// permute (the index's low four bits pick the entry).
alignas(64) constexpr double kExp2Table16[16] = {
    0x1.0000000000000p+0, 0x1.0b5586cf9890fp+0, 0x1.172b83c7d517bp+0, 0x1.2387a6e756238p+0,
    0x1.306fe0a31b715p+0, 0x1.3dea64c123422p+0, 0x1.4bfdad5362a27p+0, 0x1.5ab07dd485429p+0,
    0x1.6a09e667f3bcdp+0, 0x1.7a11473eb0187p+0, 0x1.8ace5422aa0dbp+0, 0x1.9c49182a3f090p+0,
    0x1.ae89f995ad3adp+0, 0x1.c199bdd85529cp+0, 0x1.d5818dcfba487p+0, 0x1.ea4afa2a490dap+0,
};

// exp of eight doubles in [-87, 88]: d = (16k + j) ln2/16 + r with
// |r| <= ln2/32, exp(d) = 2^k * 2^(j/16) * exp(r), exp(r) by its Taylor
// polynomial of degree 5 (truncation below 2^-42.6 relative), evaluated with
// fused multiply-adds. The total relative error stays below 2^-42, well
// inside the 2^-38 that the midpoint test in exp8_to allows for.
//
// n = round(16 d / ln2) comes from adding 1.5 * 2^52: the sum's low bits
// are n in two's complement, so they index the table directly and, shifted
// by 48, give k * 2^52 (k = n >> 4) to add to the exponent field.
inline __m512d exp8d(__m512d d) {
    const __m512d scale = _mm512_set1_pd(23.083120654223414);  // 16 / ln 2
    const __m512d shifter = _mm512_set1_pd(0x1.8p52);
    // ln2/16 in two parts: the high part has 32 significant bits.
    const __m512d hi = _mm512_set1_pd(6.93147180369123816490e-01 / 16.0);
    const __m512d lo = _mm512_set1_pd(1.90821492927058770002e-10 / 16.0);
    const __m512d t = _mm512_fmadd_pd(d, scale, shifter);
    const __m512d n = _mm512_sub_pd(t, shifter);
    __m512d r = _mm512_fnmadd_pd(n, hi, d);
    r = _mm512_fnmadd_pd(n, lo, r);
    __m512d p = _mm512_set1_pd(1.0 / 120.0);
    p = _mm512_fmadd_pd(p, r, _mm512_set1_pd(1.0 / 24.0));
    p = _mm512_fmadd_pd(p, r, _mm512_set1_pd(1.0 / 6.0));
    p = _mm512_fmadd_pd(p, r, _mm512_set1_pd(0.5));
    p = _mm512_fmadd_pd(p, r, _mm512_set1_pd(1.0));
    p = _mm512_fmadd_pd(p, r, _mm512_set1_pd(1.0));
    const __m512i tbits = _mm512_castpd_si512(t);
    const __m512d table = _mm512_permutex2var_pd(_mm512_load_pd(kExp2Table16), tbits,
                                                 _mm512_load_pd(kExp2Table16 + 8));
    const __m512i kbits =
        _mm512_and_si512(_mm512_slli_epi64(tbits, 48), _mm512_set1_epi64(static_cast<long long>(0xFFF0000000000000ULL)));
    return _mm512_castsi512_pd(_mm512_add_epi64(_mm512_castpd_si512(_mm512_mul_pd(table, p)), kbits));
}

// Eight lanes: out = float(exp(double(d))) where the vector form is safe.
// Returns the lanes that must take std::exp instead: those outside
// [-87, 88] (NaN included) and those whose double result lies within 2^14
// double ulps of a midpoint between two floats (see round4).
inline unsigned exp8_store(__m256 d, float *out) {
    const __mmask8 in_range = _mm256_cmp_ps_mask(d, _mm256_set1_ps(-87.0f), _CMP_GE_OQ) &
                              _mm256_cmp_ps_mask(d, _mm256_set1_ps(88.0f), _CMP_LE_OQ);
    const __m256 safe = _mm256_maskz_mov_ps(in_range, d);
    const __m512d y = exp8d(_mm512_cvtps_pd(safe));
    // The 29 bits that rounding to float drops, offset so that "within 2^14
    // of the midpoint 2^28" becomes "below 2^15".
    const __m512i low = _mm512_and_si512(_mm512_castpd_si512(y), _mm512_set1_epi64((1LL << 29) - 1));
    const __m512i shifted = _mm512_add_epi64(low, _mm512_set1_epi64((1LL << 14) - (1LL << 28)));
    const __mmask8 near = _mm512_testn_epi64_mask(shifted, _mm512_set1_epi64(~((1LL << 15) - 1)));
    _mm256_storeu_ps(out, _mm512_cvtpd_ps(y));
    return static_cast<unsigned>(static_cast<uint8_t>(~in_range) | near);
}

// float(exp(double(d(k)))) for k < n, sixteen lanes per step; d(k) gives
// lane k's input as a scalar for the lanes that call std::exp.
// sum + e as one scalar addition (the row's running sum, in index order).
inline float add_in_order(float sum, float e) { return _mm_cvtss_f32(_mm_add_ss(_mm_set_ss(sum), _mm_set_ss(e))); }

// done(k, count) runs after out[k, k + count) is final.
template <class Load, class Scalar, class Done>
inline void exp_lanes(Load load, Scalar scalar, float *out, uint64_t n, Done done) {
    uint64_t k = 0;
    for (; k + 16 <= n; k += 16) {
        const unsigned slow = exp8_store(load(k), out + k) | (exp8_store(load(k + 8), out + k + 8) << 8);
        if (slow != 0) {
            for (int i = 0; i < 16; ++i) {
                if (slow & (1u << i)) out[k + i] = static_cast<float>(::exp(static_cast<double>(scalar(k + i))));
            }
        }
        done(k, 16);
    }
    for (; k < n; ++k) out[k] = static_cast<float>(::exp(static_cast<double>(scalar(k))));
    done(n - n % 16, n % 16);
}

inline void nothing(uint64_t, uint64_t) {}

}  // namespace

void exp_to_float_avx512(const float *d, float *out, uint64_t n) {
    exp_lanes([d](uint64_t k) { return _mm256_loadu_ps(d + k); }, [d](uint64_t k) { return d[k]; }, out, n,
              nothing);
}

void exp_of_differences_avx512(const float *x, float m, float *e, uint32_t n) {
    const __m256 mv = _mm256_set1_ps(m);
    // The vector and the scalar subtraction give the same float.
    exp_lanes([x, mv](uint64_t k) { return _mm256_sub_ps(_mm256_loadu_ps(x + k), mv); },
              [x, m](uint64_t k) { return x[k] - m; }, e, n, nothing);
}

float exp_sum_of_differences_avx512(const float *x, float m, float *e, uint32_t n) {
    const __m256 mv = _mm256_set1_ps(m);
    float sum = 0.0f;
    // Each block is added while the next one's exponentials are computed.
    exp_lanes([x, mv](uint64_t k) { return _mm256_sub_ps(_mm256_loadu_ps(x + k), mv); },
              [x, m](uint64_t k) { return x[k] - m; }, e, n,
              [e, &sum](uint64_t k, uint64_t count) {
                  for (uint64_t i = 0; i < count; ++i) sum = add_in_order(sum, e[k + i]);
              });
    return sum;
}

}  // namespace npucpu
