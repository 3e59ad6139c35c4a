// Fast bilinear and bicubic resize rows: eight output columns at a time with
// the literal samplers' arithmetic, per output element in the same order
// (the same products and the same fused multiply-adds). Where a lane's
// inputs hold a NaN, the NaN that survives would depend on the operand order
// the compiler gave each instruction, so that lane calls the literal sampler.
//
// This file is built for AVX2: it uses no inline or template code shared
// with other files (std::vector, the conversion helpers, <cmath> wrappers),
// since the linker could take such code from here for callers on any CPU.
#include <immintrin.h>
#include <limits.h>
#include <stdlib.h>

#include "npucpu.h"
#include "resize_taps.h"

namespace npucpu {

namespace {

bool all_finite(const float *v, uint32_t n) {
    for (uint32_t i = 0; i < n; ++i) {
        if (!__builtin_isfinite(v[i])) return false;
    }
    return true;
}

// saturate_floor<int32_t> of a finite float (the callers check finiteness):
// floor, then clamped to the int32 range.
int32_t floor_to_int32(float v) {
    const float f = __builtin_floorf(v);
    if (f <= -2147483648.0f) return INT_MIN;
    if (f >= 2147483648.0f) return INT_MAX;
    return static_cast<int32_t>(f);
}

// A malloc'ed array freed at scope exit.
template <typename T>
struct Buffer {
    T *data;
    explicit Buffer(size_t n) : data(static_cast<T *>(malloc((n > 0 ? n : 1) * sizeof(T)))) {}
    ~Buffer() { free(data); }
    Buffer(const Buffer &) = delete;
    Buffer &operator=(const Buffer &) = delete;
    T &operator[](size_t i) { return data[i]; }
    const T &operator[](size_t i) const { return data[i]; }
};

// Lanes of v that are NaN, as a bit mask.
inline int nan_lanes(__m256 v) { return _mm256_movemask_ps(_mm256_cmp_ps(v, v, _CMP_UNORD_Q)); }

}  // namespace

bool resize_bilinear_fast(const float *in, float *out, uint64_t planes, uint32_t in_h,
                          uint32_t in_w, uint32_t out_h, uint32_t out_w, const float *src_y,
                          const float *src_x) {
    if (in_h == 0 || in_w == 0 || out_w < 8) return false;
    if (static_cast<uint64_t>(in_h) * in_w >= (uint64_t{1} << 31)) return false;
    if (!all_finite(src_y, out_h) || !all_finite(src_x, out_w)) return false;

    // Column taps, and per input row the horizontal products of the literal:
    // a[ox] = (1 - dx) * row[lo], b[ox] = dx * row[hi].
    Buffer<int32_t> lo(out_w), hi(out_w);
    Buffer<float> dx(out_w), one_minus_dx(out_w);
    for (uint32_t ox = 0; ox < out_w; ++ox) {
        const BilinearTap t = bilinear_tap(src_x[ox], in_w);
        lo[ox] = static_cast<int32_t>(t.lo);
        hi[ox] = static_cast<int32_t>(t.hi);
        dx[ox] = t.frac;
        one_minus_dx[ox] = 1.0f - t.frac;
    }
    // Two cached rows of products (the rows an output row reads advance
    // monotonically in every mapping but the crop box).
    Buffer<float> prod(4 * static_cast<size_t>(out_w));
    int64_t cached[2] = {-1, -1};
    Buffer<float *> rows(in_h);
    if (!lo.data || !hi.data || !dx.data || !one_minus_dx.data || !prod.data || !rows.data) {
        return false;
    }

    for (uint64_t p = 0; p < planes; ++p) {
        const float *plane = in + p * in_h * static_cast<uint64_t>(in_w);
        for (uint32_t r = 0; r < in_h; ++r) rows[r] = const_cast<float *>(plane) + static_cast<uint64_t>(r) * in_w;
        cached[0] = cached[1] = -1;
        auto find = [&](int64_t r) { return cached[0] == r ? 0 : cached[1] == r ? 1 : -1; };
        auto fill = [&](int s, int64_t r) {
            cached[s] = r;
            float *a = prod.data + 2 * s * static_cast<size_t>(out_w);
            float *b = a + out_w;
            const float *row = rows[r];
            uint32_t ox = 0;
            for (; ox + 8 <= out_w; ox += 8) {
                const __m256i il = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(&lo[ox]));
                const __m256i ih = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(&hi[ox]));
                _mm256_storeu_ps(a + ox, _mm256_mul_ps(_mm256_loadu_ps(&one_minus_dx[ox]),
                                                       _mm256_i32gather_ps(row, il, 4)));
                _mm256_storeu_ps(b + ox, _mm256_mul_ps(_mm256_loadu_ps(&dx[ox]),
                                                       _mm256_i32gather_ps(row, ih, 4)));
            }
            for (; ox < out_w; ++ox) {
                a[ox] = one_minus_dx[ox] * row[lo[ox]];
                b[ox] = dx[ox] * row[hi[ox]];
            }
        };
        for (uint32_t oy = 0; oy < out_h; ++oy) {
            const BilinearTap ty = bilinear_tap(src_y[oy], in_h);
            // The upper row's slot is never the one the lower row holds.
            int s0 = find(ty.lo);
            if (s0 < 0) {
                const int other = find(ty.hi);
                s0 = other >= 0 ? 1 - other : 0;
                fill(s0, ty.lo);
            }
            int s1 = find(ty.hi);
            if (s1 < 0) {
                s1 = 1 - s0;
                fill(s1, ty.hi);
            }
            const float *a0 = prod.data + 2 * s0 * static_cast<size_t>(out_w);
            const float *a1 = prod.data + 2 * s1 * static_cast<size_t>(out_w);
            const float *b0 = a0 + out_w, *b1 = a1 + out_w;
            const __m256 dy = _mm256_set1_ps(ty.frac);
            const __m256 omdy = _mm256_set1_ps(1.0f - ty.frac);
            float *y = out + (p * out_h + oy) * out_w;
            // The last block overlaps the one before it.
            for (uint32_t j = 0; j < out_w; j += 8) {
                const uint32_t ox = j + 8 <= out_w ? j : out_w - 8;
                const __m256 va0 = _mm256_loadu_ps(a0 + ox), vb0 = _mm256_loadu_ps(b0 + ox);
                const __m256 va1 = _mm256_loadu_ps(a1 + ox), vb1 = _mm256_loadu_ps(b1 + ox);
                __m256 t = _mm256_mul_ps(vb0, omdy);
                t = _mm256_fmadd_ps(va0, omdy, t);
                t = _mm256_fmadd_ps(va1, dy, t);
                t = _mm256_fmadd_ps(vb1, dy, t);
                _mm256_storeu_ps(y + ox, t);
                const int nan = nan_lanes(va0) | nan_lanes(vb0) | nan_lanes(va1) | nan_lanes(vb1);
                if (nan != 0) {
                    for (int l = 0; l < 8; ++l) {
                        if (nan & (1 << l)) {
                            y[ox + l] = BiLinearInterpolation(rows.data, in_h, in_w, src_x[ox + l], src_y[oy]);
                        }
                    }
                }
            }
        }
    }
    return true;
}

bool resize_cubic_fast(const float *in, float *out, uint64_t planes, uint32_t in_h, uint32_t in_w,
                       uint32_t out_h, uint32_t out_w, const float *src_y, const float *src_x,
                       float a) {
    if (in_h == 0 || in_w == 0 || out_w < 8 || !__builtin_isfinite(a)) return false;
    if (static_cast<uint64_t>(in_h) * in_w >= (uint64_t{1} << 31)) return false;
    if (!all_finite(src_y, out_h) || !all_finite(src_x, out_w)) return false;

    // Per column: the four clamped source columns and their weights cx[j].
    Buffer<int32_t> cols(4 * static_cast<size_t>(out_w));
    Buffer<float> cx(4 * static_cast<size_t>(out_w));
    Buffer<float *> rows(in_h);
    // Per input row, its four tap columns gathered once: taps[j][ox] =
    // row[cols[j][ox]]. An output row reads four consecutive input rows
    // (clamped), which are distinct modulo 4 unless equal, so slot r % 4
    // serves them all.
    const size_t w4 = 4 * static_cast<size_t>(out_w);
    Buffer<float> taps(4 * w4);
    if (!cols.data || !cx.data || !rows.data || !taps.data) return false;
    for (uint32_t ox = 0; ox < out_w; ++ox) {
        const int32_t xi = floor_to_int32(src_x[ox]);
        float c[4];
        CubicCoefficients(c, src_x[ox] - static_cast<float>(xi), a);
        for (int j = 0; j < 4; ++j) {
            cols[j * static_cast<size_t>(out_w) + ox] =
                static_cast<int32_t>(clamp_index(static_cast<int64_t>(xi) - 1 + j, in_w));
            cx[j * static_cast<size_t>(out_w) + ox] = c[j];
        }
    }
    for (uint64_t p = 0; p < planes; ++p) {
        const float *plane = in + p * in_h * static_cast<uint64_t>(in_w);
        for (uint32_t r = 0; r < in_h; ++r) rows[r] = const_cast<float *>(plane) + static_cast<uint64_t>(r) * in_w;
        int64_t tag[4] = {-1, -1, -1, -1};
        auto row_taps = [&](int64_t r) -> const float * {
            float *t = taps.data + static_cast<size_t>(r % 4) * w4;
            if (tag[r % 4] == r) return t;
            tag[r % 4] = r;
            const float *row = rows[r];
            for (size_t at = 0; at < w4; at += 8) {
                const size_t k = at + 8 <= w4 ? at : w4 - 8;
                _mm256_storeu_ps(t + k, _mm256_i32gather_ps(
                                            row, _mm256_loadu_si256(reinterpret_cast<const __m256i *>(&cols[k])), 4));
            }
            return t;
        };
        for (uint32_t oy = 0; oy < out_h; ++oy) {
            const int32_t yi = floor_to_int32(src_y[oy]);
            float cy[4];
            CubicCoefficients(cy, src_y[oy] - static_cast<float>(yi), a);
            const float *row_t[4];
            for (int i = 0; i < 4; ++i) row_t[i] = row_taps(clamp_index(static_cast<int64_t>(yi) - 1 + i, in_h));
            float *y = out + (p * out_h + oy) * out_w;
            for (uint32_t jb = 0; jb < out_w; jb += 8) {
                const uint32_t ox = jb + 8 <= out_w ? jb : out_w - 8;
                __m256 sum = _mm256_setzero_ps();
                int nan = 0;
                for (int i = 0; i < 4; ++i) {
                    const __m256 wy = _mm256_set1_ps(cy[i]);
                    for (int j = 0; j < 4; ++j) {
                        const size_t at = j * static_cast<size_t>(out_w) + ox;
                        // weight = cx[j] * cy[i], then fma(value, weight, sum).
                        const __m256 w = _mm256_mul_ps(_mm256_loadu_ps(&cx[at]), wy);
                        const __m256 v = _mm256_loadu_ps(row_t[i] + at);
                        nan |= nan_lanes(v);
                        sum = _mm256_fmadd_ps(v, w, sum);
                    }
                }
                _mm256_storeu_ps(y + ox, sum);
                if (nan != 0) {
                    for (int l = 0; l < 8; ++l) {
                        if (nan & (1 << l)) {
                            y[ox + l] = CubicInterpolation(rows.data, in_h, in_w, a, src_y[oy], src_x[ox + l]);
                        }
                    }
                }
            }
        }
    }
    return true;
}

}  // namespace npucpu
