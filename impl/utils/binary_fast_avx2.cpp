#include <immintrin.h>

#include "binary_fast.h"

namespace npucpu {

namespace {

// The operation, a first. Addition and multiplication commute, so the
// compiler may order their operands either way, here and in the literal
// loop; which NaN survives where both operands are NaN is then not fixed,
// and the walk reports such pairs (the literal loop then runs instead).
template <BinaryKind K>
inline __m256 apply(__m256 a, __m256 b) {
    switch (K) {
        case BinaryKind::Add: return _mm256_add_ps(a, b);
        case BinaryKind::Sub: return _mm256_sub_ps(a, b);
        case BinaryKind::Mul: return _mm256_mul_ps(a, b);
        default: return _mm256_div_ps(a, b);
    }
}
template <BinaryKind K>
inline float apply1(float a, float b) {
    return _mm_cvtss_f32(
        _mm256_castps256_ps128(apply<K>(_mm256_castps128_ps256(_mm_set_ss(a)), _mm256_castps128_ps256(_mm_set_ss(b)))));
}

constexpr bool commutes(BinaryKind k) { return k == BinaryKind::Add || k == BinaryKind::Mul; }

// Lanes where both operands are NaN.
inline __m256 both_nan(__m256 a, __m256 b) {
    return _mm256_and_ps(_mm256_cmp_ps(a, a, _CMP_UNORD_Q), _mm256_cmp_ps(b, b, _CMP_UNORD_Q));
}

// One innermost run of n elements; sa, sb are 0 (repeat) or 1. Returns
// false where a commuting operation met two NaN operands.
template <BinaryKind K>
bool run(const float *a, uint64_t sa, const float *b, uint64_t sb, float *out, uint64_t n) {
    uint64_t j = 0;
    __m256 bad = _mm256_setzero_ps();
    auto step = [&](__m256 va, __m256 vb, uint64_t at) {
        if (commutes(K)) bad = _mm256_or_ps(bad, both_nan(va, vb));
        _mm256_storeu_ps(out + at, apply<K>(va, vb));
    };
    if (sa == 1 && sb == 1) {
        for (; j + 8 <= n; j += 8) step(_mm256_loadu_ps(a + j), _mm256_loadu_ps(b + j), j);
    } else if (sa == 1) {
        const __m256 vb = _mm256_set1_ps(b[0]);
        for (; j + 8 <= n; j += 8) step(_mm256_loadu_ps(a + j), vb, j);
    } else if (sb == 1) {
        const __m256 va = _mm256_set1_ps(a[0]);
        for (; j + 8 <= n; j += 8) step(va, _mm256_loadu_ps(b + j), j);
    } else if (n >= 8) {
        const __m256 va = _mm256_set1_ps(a[0]), vb = _mm256_set1_ps(b[0]);
        if (commutes(K)) bad = both_nan(va, vb);
        const __m256 v = apply<K>(va, vb);
        for (; j + 8 <= n; j += 8) _mm256_storeu_ps(out + j, v);
    }
    for (; j < n; ++j) {
        const float x = a[j * sa], y = b[j * sb];
        if (commutes(K) && x != x && y != y) return false;
        out[j] = apply1<K>(x, y);
    }
    return _mm256_movemask_ps(bad) == 0;
}

template <BinaryKind K>
bool walk(const float *a, const float *b, float *out, int n, const uint64_t *ext,
          const uint64_t *sa, const uint64_t *sb) {
    uint64_t total = 1;
    for (int d = 0; d < n; ++d) total *= ext[d];
    const int last = n - 1;
    uint64_t coord[16] = {};
    uint64_t pa = 0, pb = 0;
    for (uint64_t o = 0; o < total; o += ext[last]) {
        if (!run<K>(a + pa, sa[last], b + pb, sb[last], out + o, ext[last])) return false;
        for (int d = last - 1; d >= 0; --d) {
            if (++coord[d] < ext[d]) {
                pa += sa[d];
                pb += sb[d];
                break;
            }
            pa -= (ext[d] - 1) * sa[d];
            pb -= (ext[d] - 1) * sb[d];
            coord[d] = 0;
        }
    }
    return true;
}

// Per output axis, the input's stride (0 where it broadcasts); false where
// the input's dims are not 1 or the output's.
bool strides_of(const TensorShape &in, const TensorShape &out, uint64_t *stride) {
    const uint32_t R = out.dim_num, r = in.dim_num;
    if (r > R) return false;
    uint64_t s = 1;
    for (int k = static_cast<int>(R) - 1; k >= 0; --k) {
        const int ki = k - static_cast<int>(R - r);
        const uint32_t d = ki >= 0 ? in.dims[ki] : 1u;
        if (d != 1 && d != out.dims[k]) return false;
        stride[k] = d == 1 ? 0 : s;
        s *= d;
    }
    return true;
}

}  // namespace

bool binary_fast_avx2(BinaryKind kind, const TensorShape &a_shape, const float *a,
                      const TensorShape &b_shape, const float *b, const TensorShape &out_shape,
                      float *out) {
    const uint32_t R = out_shape.dim_num;
    if (R == 0 || R > 16) return false;
    uint64_t sa[16], sb[16];
    if (!strides_of(a_shape, out_shape, sa) || !strides_of(b_shape, out_shape, sb)) return false;
    // Merge adjacent axes that both inputs step through alike; drop
    // extent-1 axes.
    uint64_t ext[16], ma[16], mb[16];
    int n = 0;
    for (uint32_t k = 0; k < R; ++k) {
        const uint64_t e = out_shape.dims[k];
        if (e == 0) return false;
        if (e == 1) continue;
        if (n > 0 && ma[n - 1] == sa[k] * e && mb[n - 1] == sb[k] * e) {
            ext[n - 1] *= e;
            ma[n - 1] = sa[k];
            mb[n - 1] = sb[k];
        } else {
            ext[n] = e;
            ma[n] = sa[k];
            mb[n] = sb[k];
            ++n;
        }
    }
    if (n == 0) {
        ext[0] = 1;
        ma[0] = mb[0] = 0;
        n = 1;
    }
    // The innermost stride must be 0 or 1 for the vector runs.
    if (ma[n - 1] > 1 || mb[n - 1] > 1) {
        ext[n] = 1;
        ma[n] = mb[n] = 0;
        ++n;
    }
    switch (kind) {
        case BinaryKind::Add: return walk<BinaryKind::Add>(a, b, out, n, ext, ma, mb);
        case BinaryKind::Sub: return walk<BinaryKind::Sub>(a, b, out, n, ext, ma, mb);
        case BinaryKind::Mul: return walk<BinaryKind::Mul>(a, b, out, n, ext, ma, mb);
        default: return walk<BinaryKind::Div>(a, b, out, n, ext, ma, mb);
    }
}

}  // namespace npucpu
