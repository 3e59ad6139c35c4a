// AVX-512 variants of the fast compute kernels (16 float lanes).
#include <immintrin.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "fast_compute.h"

namespace {

// Eight lanes: the last vector of a row whose remainder fits in one.
struct VTHalf {
    static constexpr int W = 8;
    using V = __m256;
    static V zero() { return _mm256_setzero_ps(); }
    static V load(const float *p) { return _mm256_loadu_ps(p); }
    static void store(float *p, V v) { _mm256_storeu_ps(p, v); }
    static void store_n(float *p, V v, int n) {
        _mm256_mask_storeu_ps(p, static_cast<__mmask8>((1u << n) - 1u), v);
    }
    static V bcast(const float *p) { return _mm256_set1_ps(*p); }
    static V fma(V a, V b, V c) { return _mm256_fmadd_ps(a, b, c); }
    static V add(V a, V b) { return _mm256_add_ps(a, b); }
    static unsigned nan_mask(V v) { return _mm256_cmp_ps_mask(v, v, _CMP_UNORD_Q); }
};

struct VT {
    static constexpr int W = 16;
    using V = __m512;
    static V zero() { return _mm512_setzero_ps(); }
    static V load(const float *p) { return _mm512_loadu_ps(p); }
    static void store(float *p, V v) { _mm512_storeu_ps(p, v); }
    static void store_n(float *p, V v, int n) {
        _mm512_mask_storeu_ps(p, static_cast<__mmask16>((1u << n) - 1u), v);
    }
    static V bcast(const float *p) { return _mm512_set1_ps(*p); }
    static V fma(V a, V b, V c) { return _mm512_fmadd_ps(a, b, c); }
    static V add(V a, V b) { return _mm512_add_ps(a, b); }
    static unsigned nan_mask(V v) { return _mm512_cmp_ps_mask(v, v, _CMP_UNORD_Q); }
    static constexpr bool HAS_HALF = true;
    using Half = VTHalf;
    static constexpr int GEMM_MR = 6, GEMM_NV = 4;
    static constexpr int CONV_MR = 6, CONV_MR2 = 4, CONV_NV = 4, CONV_RB = 6;
    static constexpr int MM_RM = 4, MM_NV = 4;
};

#include "fast_compute_kernels.inc"

}  // namespace

namespace npucpu {
namespace fast {
bool gemm_f32_avx512(const GemmArgs &args) { return gemm_run(args); }
bool conv_f32_avx512(const ConvArgs &args) { return conv_run(args); }
bool matmul_i32_avx512(const MatmulArgs &args) { return matmul_run(args); }
bool any_nan_avx512(const float *p, size_t n) { return scan_run<true>(p, n); }
bool any_non_finite_avx512(const float *p, size_t n) { return scan_run<false>(p, n); }
}  // namespace fast
}  // namespace npucpu
