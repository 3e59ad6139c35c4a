// AVX2 + FMA variants of the fast compute kernels (8 float lanes).
#include <immintrin.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "fast_compute.h"

namespace {

struct VT {
    static constexpr int W = 8;
    using V = __m256;
    static V zero() { return _mm256_setzero_ps(); }
    static V load(const float *p) { return _mm256_loadu_ps(p); }
    static void store(float *p, V v) { _mm256_storeu_ps(p, v); }
    static void store_n(float *p, V v, int n) {
        const __m256i lanes = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
        _mm256_maskstore_ps(p, _mm256_cmpgt_epi32(_mm256_set1_epi32(n), lanes), v);
    }
    static V bcast(const float *p) { return _mm256_broadcast_ss(p); }
    static V fma(V a, V b, V c) { return _mm256_fmadd_ps(a, b, c); }
    static V add(V a, V b) { return _mm256_add_ps(a, b); }
    static unsigned nan_mask(V v) { return static_cast<unsigned>(_mm256_movemask_ps(_mm256_cmp_ps(v, v, _CMP_UNORD_Q))); }
    static constexpr bool HAS_HALF = false;  // no narrower vector worth using
    using Half = VT;
    static constexpr int GEMM_MR = 6, GEMM_NV = 2;
    static constexpr int CONV_MR = 6, CONV_MR2 = 4, CONV_NV = 2, CONV_RB = 4;
    static constexpr int MM_RM = 4, MM_NV = 2;
};

#include "fast_compute_kernels.inc"

}  // namespace

namespace npucpu {
namespace fast {
bool gemm_f32_avx2(const GemmArgs &args) { return gemm_run(args); }
bool conv_f32_avx2(const ConvArgs &args) { return conv_run(args); }
bool matmul_i32_avx2(const MatmulArgs &args) { return matmul_run(args); }
bool any_nan_avx2(const float *p, size_t n) { return scan_run<true>(p, n); }
bool any_non_finite_avx2(const float *p, size_t n) { return scan_run<false>(p, n); }
}  // namespace fast
}  // namespace npucpu
