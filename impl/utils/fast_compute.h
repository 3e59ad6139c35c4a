// Fast variants of the compute-bound kernels (gemm in matrix mode,
// convolution, integer matmul). Each keeps every output's chain of fused
// multiply-adds exactly as the literal kernel runs it (same start, same
// order, nothing skipped that could change a bit); they only vectorise
// across independent outputs and block the work for the caches.
//
// The callers decide eligibility (layouts, sizes, overlaps, values); the
// entry points here pick the variant for npucpu::active_isa(). The per-ISA
// variants live in fast_compute_{portable,avx2,avx512}.cpp, all built from
// fast_compute_kernels.inc with their own vector type.
#ifndef NPUCPU_IMPL_UTILS_FAST_COMPUTE_H
#define NPUCPU_IMPL_UTILS_FAST_COMPUTE_H

#include <cstddef>
#include <cstdint>

namespace npucpu {
namespace fast {

// C (M x N, row-major, leading dimension N) = chain over k = 0..K-1 of
// fma(A'(i,k), B'(k,j), .) started from C's content, then + bias(i,j)
// (bias M x N, leading dimension N) or + 0.0f. A'(i,k) = A[i*a_rs + k*a_cs],
// B'(k,j) = B[k*b_rs + j*b_cs].
struct GemmArgs {
    size_t M, N, K;
    const float *A;
    size_t a_rs, a_cs;
    const float *B;
    size_t b_rs, b_cs;
    const float *bias;  // may be null
    float *C;
    // When set, a NaN among the results makes gemm_f32 return false (the
    // caller then recomputes C from its start, which must be restorable).
    bool refuse_nan_result;
};

// Direct convolution of one image, group after group. A group's input
// planes (C of them, H x W) are padded with zeros by pads (top, left,
// bottom, right) into a scratch copy, so padding taps are multiplied as the
// literal kernel multiplies them; the filters are dense (M x C x kh x kw);
// every output (M x OH x OW) is (0.0f + chain over (c, r, s) of
// fma(x, w, .) from 0.0f) [+ bias[m]], where the real taps sit dh / dw
// apart. The zero taps between them are skipped, which is exact only for a
// finite input: callers with dilated filters set refuse_input to 2.
struct ConvArgs {
    const float *x;  // C planes, H x W
    size_t C, H, W;
    size_t x_row_stride, x_plane_stride;  // in floats (W and H * W when dense)
    // Independent groups run one after another: group g reads x and writes
    // y at g times these strides (in floats), takes filters M * C * kh * kw
    // further on and bias values M further on.
    size_t groups, x_group_stride, y_group_stride;
    // Input values that make the fast path inexact, checked while the input
    // is copied: 0 none, 1 NaN, 2 NaN or infinity; and whether a NaN result
    // does (a NaN met by a chain keeps the result NaN, so without NaN
    // results no NaN payload was ever chosen). On a hit conv_f32 returns
    // false (some outputs may already be written).
    int refuse_input;
    bool refuse_nan_result;
    size_t pads[4];
    const float *w;  // M x C x kh x kw
    size_t M, kh, kw;
    size_t sh, sw, dh, dw;
    const float *bias;  // M values or null
    float *y;           // M planes, OH x OW
    size_t OH, OW;
};

// matmul for one batch: out(M x N) = float(wrapping int32 sum over k of
// trunc(A(m,k)) * trunc(B(k,n))), operands already truncated to int32.
// A's rows are padded with zeros to a multiple of 8 rows, B's rows to ldb
// (a multiple of 64) columns.
struct MatmulArgs {
    size_t M, N, K;
    const int32_t *A;  // M x K (padded rows)
    const int32_t *B;  // K x ldb
    size_t ldb;
    float *out;  // M x N
};

// Entry points: run the variant of the active level (above Literal).
// Return false when scratch memory could not be had or conv_f32 met a
// refused input value (the caller then runs the literal kernel, which
// rewrites the whole output).
bool gemm_f32(const GemmArgs &args);
bool conv_f32(const ConvArgs &args);
bool matmul_i32(const MatmulArgs &args);

// The per-level variants.
bool gemm_f32_portable(const GemmArgs &args);
bool gemm_f32_avx2(const GemmArgs &args);
bool gemm_f32_avx512(const GemmArgs &args);
bool conv_f32_portable(const ConvArgs &args);
bool conv_f32_avx2(const ConvArgs &args);
bool conv_f32_avx512(const ConvArgs &args);
bool matmul_i32_portable(const MatmulArgs &args);
bool matmul_i32_avx2(const MatmulArgs &args);
bool matmul_i32_avx512(const MatmulArgs &args);

// Value checks the callers use to decide whether the fast path is exact
// (any_nan: a NaN among n floats; any_non_finite: a NaN or an infinity).
bool any_nan(const float *p, size_t n);
bool any_non_finite(const float *p, size_t n);
bool any_nan_portable(const float *p, size_t n);
bool any_nan_avx2(const float *p, size_t n);
bool any_nan_avx512(const float *p, size_t n);
bool any_non_finite_portable(const float *p, size_t n);
bool any_non_finite_avx2(const float *p, size_t n);
bool any_non_finite_avx512(const float *p, size_t n);
// True when [a, a + a_bytes) and [b, b + b_bytes) share a byte.
bool overlaps(const void *a, size_t a_bytes, const void *b, size_t b_bytes);

}  // namespace fast
}  // namespace npucpu

#endif
