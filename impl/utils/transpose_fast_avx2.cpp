#include <immintrin.h>

#include <string.h>

#include "transpose_fast.h"
#include "simd_avx2.h"

namespace npucpu {

namespace {

// A block of rows x cols elements: element (i, k) is read at
// src[i + k * src_k] and written at dst[i * dst_i + k].
void move_tile(const float *src, uint64_t src_k, float *dst, uint64_t dst_i, uint64_t rows,
               uint64_t cols) {
    uint64_t i = 0;
    for (; i + 8 <= rows; i += 8) {
        uint64_t k = 0;
        for (; k + 8 <= cols; k += 8) {
            __m256 r[8];
            for (int q = 0; q < 8; ++q) r[q] = _mm256_loadu_ps(src + i + (k + q) * src_k);
            transpose8(r);
            for (int q = 0; q < 8; ++q) _mm256_storeu_ps(dst + (i + q) * dst_i + k, r[q]);
        }
        for (; k < cols; ++k) {
            for (uint64_t q = 0; q < 8; ++q) dst[(i + q) * dst_i + k] = src[i + q + k * src_k];
        }
    }
    for (; i < rows; ++i) {
        for (uint64_t k = 0; k < cols; ++k) dst[i * dst_i + k] = src[i + k * src_k];
    }
}

}  // namespace

void transpose_fast_avx2(const float *src, float *dst, uint32_t rank, const uint32_t *dims,
                         const int64_t *perm) {
    // Input strides; then per output axis its extent and input stride,
    // dropping extent-1 axes and merging axes adjacent in both.
    uint64_t in_stride[16];
    uint64_t s = 1;
    for (int d = static_cast<int>(rank) - 1; d >= 0; --d) {
        in_stride[d] = s;
        s *= dims[d];
    }
    uint64_t ext[16], is[16];
    int n = 0;
    for (uint32_t d = 0; d < rank; ++d) {
        const uint64_t e = dims[perm[d]], st = in_stride[perm[d]];
        if (e == 1) continue;
        if (n > 0 && is[n - 1] == st * e) {
            ext[n - 1] *= e;
            is[n - 1] = st;
        } else {
            ext[n] = e;
            is[n] = st;
            ++n;
        }
    }
    if (n == 0) {
        dst[0] = src[0];
        return;
    }
    uint64_t os[16];
    s = 1;
    for (int d = n - 1; d >= 0; --d) {
        os[d] = s;
        s *= ext[d];
    }
    const uint64_t total = s;
    // The output axis read with input stride 1 (the last one when the
    // innermost run is contiguous).
    int unit = -1;
    for (int d = 0; d < n; ++d) {
        if (is[d] == 1) unit = d;
    }
    const int last = n - 1;
    // Odometer over the axes other than `unit` and `last`.
    uint64_t coord[16] = {};
    uint64_t in_pos = 0, out_pos = 0;
    const uint64_t inner = unit == last ? ext[last] : ext[last] * ext[unit];
    for (uint64_t done = 0; done < total; done += inner) {
        if (unit == last) {
            memcpy(dst + out_pos, src + in_pos, ext[last] * sizeof(float));
        } else {
            move_tile(src + in_pos, is[last], dst + out_pos, os[unit], ext[unit], ext[last]);
        }
        // Next combination of the outer axes.
        for (int d = last - 1; d >= 0; --d) {
            if (d == unit) continue;
            if (++coord[d] < ext[d]) {
                in_pos += is[d];
                out_pos += os[d];
                break;
            }
            in_pos -= (ext[d] - 1) * is[d];
            out_pos -= (ext[d] - 1) * os[d];
            coord[d] = 0;
        }
    }
}

}  // namespace npucpu
