// Portable variants of the fast compute kernels (plain C++, four-float
// "vectors" whose fused multiply-add is std::fma per lane), and the
// dispatching entry points.
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "dispatch.h"
#include "fast_compute.h"

namespace {

struct VT {
    static constexpr int W = 4;
    struct V {
        float l[4];
    };
    static V zero() { return V{{0.0f, 0.0f, 0.0f, 0.0f}}; }
    static V load(const float *p) {
        V v;
        std::memcpy(v.l, p, sizeof v.l);
        return v;
    }
    static void store(float *p, V v) { std::memcpy(p, v.l, sizeof v.l); }
    static void store_n(float *p, V v, int n) { std::memcpy(p, v.l, static_cast<size_t>(n) * sizeof(float)); }
    static V bcast(const float *p) { return V{{*p, *p, *p, *p}}; }
    static V fma(V a, V b, V c) {
        for (int i = 0; i < 4; ++i) c.l[i] = std::fma(a.l[i], b.l[i], c.l[i]);
        return c;
    }
    static V add(V a, V b) {
        for (int i = 0; i < 4; ++i) a.l[i] += b.l[i];
        return a;
    }
    static unsigned nan_mask(V v) {
        unsigned m = 0;
        for (int i = 0; i < 4; ++i) m |= (v.l[i] != v.l[i]) ? 1u << i : 0u;
        return m;
    }
    static constexpr bool HAS_HALF = false;  // no narrower vector worth using
    using Half = VT;
    static constexpr int GEMM_MR = 4, GEMM_NV = 2;
    static constexpr int CONV_MR = 4, CONV_MR2 = 2, CONV_NV = 2, CONV_RB = 2;
    static constexpr int MM_RM = 4, MM_NV = 2;
};

#include "fast_compute_kernels.inc"

}  // namespace

namespace npucpu {
namespace fast {

bool gemm_f32_portable(const GemmArgs &args) { return gemm_run(args); }
bool conv_f32_portable(const ConvArgs &args) { return conv_run(args); }
bool matmul_i32_portable(const MatmulArgs &args) { return matmul_run(args); }
bool any_nan_portable(const float *p, size_t n) { return scan_run<true>(p, n); }
bool any_non_finite_portable(const float *p, size_t n) { return scan_run<false>(p, n); }

bool gemm_f32(const GemmArgs &args) {
    switch (active_isa()) {
        case Isa::Avx512: return gemm_f32_avx512(args);
        case Isa::Avx2: return gemm_f32_avx2(args);
        default: return gemm_f32_portable(args);
    }
}

bool conv_f32(const ConvArgs &args) {
    switch (active_isa()) {
        case Isa::Avx512: return conv_f32_avx512(args);
        case Isa::Avx2: return conv_f32_avx2(args);
        default: return conv_f32_portable(args);
    }
}

bool matmul_i32(const MatmulArgs &args) {
    switch (active_isa()) {
        case Isa::Avx512: return matmul_i32_avx512(args);
        case Isa::Avx2: return matmul_i32_avx2(args);
        default: return matmul_i32_portable(args);
    }
}

bool any_nan(const float *p, size_t n) {
    switch (active_isa()) {
        case Isa::Avx512: return any_nan_avx512(p, n);
        case Isa::Avx2: return any_nan_avx2(p, n);
        default: return any_nan_portable(p, n);
    }
}

bool any_non_finite(const float *p, size_t n) {
    switch (active_isa()) {
        case Isa::Avx512: return any_non_finite_avx512(p, n);
        case Isa::Avx2: return any_non_finite_avx2(p, n);
        default: return any_non_finite_portable(p, n);
    }
}

bool overlaps(const void *a, size_t a_bytes, const void *b, size_t b_bytes) {
    const uintptr_t x = reinterpret_cast<uintptr_t>(a);
    const uintptr_t y = reinterpret_cast<uintptr_t>(b);
    if (a_bytes == 0 || b_bytes == 0) return false;
    return x < y + b_bytes && y < x + a_bytes;
}

}  // namespace fast
}  // namespace npucpu
