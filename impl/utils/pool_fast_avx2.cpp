// AVX2 rows of the fast pooling walk: eight windows side by side, each lane
// doing exactly the scalar window's comparisons (ordered greater-than, so a
// NaN never wins and the first of equal maxima stays) or float additions in
// the same order, then the same division.
#include <immintrin.h>

#include <vector>

#include "pool_fast.h"

namespace npucpu {

namespace {

// The maximum's start value (the smallest positive normal float). Spelled
// out: this file is built for AVX2, and inline code it shared with other
// files (std::numeric_limits) could be taken from here by the linker.
constexpr float kMaxStart = 1.17549435e-38f;

// Eight elements at stride 1 or 2 (other strides gather). A stride-2 load
// leaves out the element after the eighth, so it never reads past the last
// window's data.
inline __m256 load_strided(const float *p, uint32_t stride, __m256i lane_offsets) {
    if (stride == 1) return _mm256_loadu_ps(p);
    if (stride == 2) {
        const __m256 a = _mm256_loadu_ps(p);
        const __m256 b = _mm256_maskload_ps(p + 8, _mm256_setr_epi32(-1, -1, -1, -1, -1, -1, -1, 0));
        const __m256 even = _mm256_shuffle_ps(a, b, 0x88);  // a0 a2 b0 b2 | a4 a6 b4 b6
        return _mm256_castpd_ps(_mm256_permute4x64_pd(_mm256_castps_pd(even), 0xD8));
    }
    return _mm256_i32gather_ps(p, lane_offsets, 4);
}

// kBlocks blocks of eight windows from window j on, interleaved so that
// their compare-and-blend chains overlap.
template <bool kPositions, int kBlocks>
inline void max_blocks(const PoolRowArgs &r, uint32_t j, __m256i offsets) {
    const uint32_t s = r.stride_w;
    __m256 best[kBlocks];
    __m256i pos[kBlocks];
    for (int b = 0; b < kBlocks; ++b) {
        best[b] = _mm256_set1_ps(kMaxStart);
        pos[b] = _mm256_setzero_si256();
    }
    for (uint32_t k = 0; k < r.row_count; ++k) {
        const uint32_t col = j * s;
        const float *row = r.rows[k] + col;
        const __m256i row_pos =
            _mm256_add_epi32(_mm256_set1_epi32(static_cast<int>(r.row_index[k] + col)), offsets);
        auto visit = [&](int b, __m256 v, uint32_t dq) {
            const __m256 gt = _mm256_cmp_ps(v, best[b], _CMP_GT_OQ);
            best[b] = _mm256_blendv_ps(best[b], v, gt);
            if (kPositions) {
                const __m256i here = _mm256_add_epi32(
                    row_pos, _mm256_set1_epi32(static_cast<int>(dq + 8u * b * s)));
                pos[b] = _mm256_castps_si256(_mm256_blendv_ps(_mm256_castsi256_ps(pos[b]),
                                                              _mm256_castsi256_ps(here), gt));
            }
        };
        uint32_t dq = 0;
        if (s == 2) {
            // Columns dq and dq + 1 from one pair of loads: the even and the
            // odd elements (all sixteen belong to the eight windows).
            for (; dq + 1 < r.kernel_w; dq += 2) {
                for (int b = 0; b < kBlocks; ++b) {
                    const float *p = row + dq + 16 * b;
                    const __m256 lo = _mm256_loadu_ps(p);
                    const __m256 hi = _mm256_loadu_ps(p + 8);
                    const __m256 even = _mm256_castpd_ps(_mm256_permute4x64_pd(
                        _mm256_castps_pd(_mm256_shuffle_ps(lo, hi, 0x88)), 0xD8));
                    const __m256 odd = _mm256_castpd_ps(_mm256_permute4x64_pd(
                        _mm256_castps_pd(_mm256_shuffle_ps(lo, hi, 0xDD)), 0xD8));
                    visit(b, even, dq);
                    visit(b, odd, dq + 1);
                }
            }
        }
        for (; dq < r.kernel_w; ++dq) {
            for (int b = 0; b < kBlocks; ++b) {
                visit(b, load_strided(row + dq + 8 * b * s, s, offsets), dq);
            }
        }
    }
    for (int b = 0; b < kBlocks; ++b) {
        _mm256_storeu_ps(r.y + j + 8 * b, best[b]);
        if (kPositions) {
            _mm256_storeu_si256(reinterpret_cast<__m256i *>(r.positions + j + 8 * b), pos[b]);
        }
    }
}

constexpr uint32_t kChunk = 32;  // windows per column-maximum chunk

}  // namespace

// Without positions the maximum does not depend on the order of the visits:
// NaN and zeros never beat the positive start value, and candidates above it
// that compare equal have equal bits. A window's maximum is then the maximum
// over its columns of each column's maximum over the window's rows (a
// padding column counts as the start value: it never wins), and
// max_ps(v, m) is exactly the literal update v > m ? v : m.
template <uint32_t S>
static void max_row_whole(const PoolMaxRowArgs &r) {
    // The chunk's column maxima, plus room for the last load of a stride-2
    // pair (it reaches one float past the last column, into a lane that is
    // not used; that float is set so that nothing uninitialised is read).
    alignas(32) float col[kChunk * S + kPoolMaxKernelW + 16];
    const uint64_t data_end = static_cast<uint64_t>(r.left) + r.width;
    uint32_t j0 = 0;
    while (j0 < r.count) {
        // Whole blocks of eight: a last chunk shorter than eight windows
        // moves back over windows already written (same results).
        uint32_t n = r.count - j0 < kChunk ? r.count - j0 : kChunk;
        if (n < 8) {
            j0 = r.count - 8;
            n = 8;
        }
        const uint32_t span = (n - 1) * S + r.kernel_w;
        const uint64_t first = static_cast<uint64_t>(j0) * S;
        _mm256_storeu_ps(col + span, _mm256_set1_ps(kMaxStart));
        uint32_t c = 0;
        while (c < span) {
            const uint64_t pc = first + c;
            if (pc >= r.left && pc + 8 <= data_end && c + 8 <= span) {
                __m256 m = _mm256_set1_ps(kMaxStart);
                for (uint32_t k = 0; k < r.row_count; ++k) {
                    m = _mm256_max_ps(_mm256_loadu_ps(r.rows[k] + (pc - r.left)), m);
                }
                _mm256_storeu_ps(col + c, m);
                c += 8;
                continue;
            }
            float m = kMaxStart;
            if (pc >= r.left && pc < data_end) {
                for (uint32_t k = 0; k < r.row_count; ++k) {
                    const float v = r.rows[k][pc - r.left];
                    m = v > m ? v : m;
                }
            }
            col[c++] = m;
        }
        for (uint32_t j = 0; j < n; j += 8) {
            const uint32_t b = j + 8 <= n ? j : n - 8;
            __m256 m = _mm256_set1_ps(kMaxStart);
            for (uint32_t dq = 0; dq < r.kernel_w; dq += S) {
                const float *p = col + b * S + dq;
                if (S == 1) {
                    m = _mm256_max_ps(_mm256_loadu_ps(p), m);
                } else {
                    // Columns dq and dq + 1 of the eight windows: the even and
                    // the odd elements of a pair of loads, in the lane order
                    // 0 1 4 5 | 2 3 6 7, put right once after the maxima.
                    const __m256 lo = _mm256_loadu_ps(p), hi = _mm256_loadu_ps(p + 8);
                    m = _mm256_max_ps(_mm256_shuffle_ps(lo, hi, 0x88), m);
                    if (dq + 1 < r.kernel_w) m = _mm256_max_ps(_mm256_shuffle_ps(lo, hi, 0xDD), m);
                }
            }
            if (S == 2) m = _mm256_castpd_ps(_mm256_permute4x64_pd(_mm256_castps_pd(m), 0xD8));
            _mm256_storeu_ps(r.y + j0 + b, m);
        }
        j0 += n;
    }
}

bool pool_max_row_whole_avx2(const PoolMaxRowArgs &r) {
    if (r.count < 8 || r.kernel_w > kPoolMaxKernelW) return false;
    if (r.stride_w == 1) {
        max_row_whole<1>(r);
    } else if (r.stride_w == 2) {
        max_row_whole<2>(r);
    } else {
        return false;
    }
    return true;
}

namespace {

template <bool kPositions>
void max_row(const PoolRowArgs &r) {
    const __m256i lanes = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
    const __m256i offsets =
        _mm256_mullo_epi32(lanes, _mm256_set1_epi32(static_cast<int>(r.stride_w)));
    uint32_t j = 0;
    for (; j + 16 <= r.count; j += 16) max_blocks<kPositions, 2>(r, j, offsets);
    // The last block overlaps the one before it (recomputing a window gives
    // the same result).
    for (; j < r.count; j += 8) {
        max_blocks<kPositions, 1>(r, j + 8 <= r.count ? j : r.count - 8, offsets);
    }
}

}  // namespace

bool pool_max_row_avx2(const PoolRowArgs &r) {
    if (r.count < 8) {
        pool_max_row_portable(r);
    } else if (r.positions != nullptr) {
        max_row<true>(r);
    } else {
        max_row<false>(r);
    }
    return true;
}

bool pool_avg_row_avx2(const PoolRowArgs &r) {
    if (r.count < 8) return pool_avg_row_portable(r);
    const uint32_t s = r.stride_w;
    const __m256i lanes = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
    const __m256i offsets = _mm256_mullo_epi32(lanes, _mm256_set1_epi32(static_cast<int>(s)));
    const __m256 divisor = _mm256_set1_ps(r.divisor);
    for (uint32_t j0 = 0; j0 < r.count; j0 += 8) {
        const uint32_t j = j0 + 8 <= r.count ? j0 : r.count - 8;
        const uint32_t col = j * s;
        __m256 sum = _mm256_setzero_ps();
        for (uint32_t k = 0; k < r.row_count; ++k) {
            const float *row = r.rows[k] + col;
            uint32_t dq = 0;
            if (s == 2) {
                // Columns dq and dq + 1 from one pair of loads, added in that
                // order (see max_blocks).
                for (; dq + 1 < r.kernel_w; dq += 2) {
                    const __m256 lo = _mm256_loadu_ps(row + dq), hi = _mm256_loadu_ps(row + dq + 8);
                    sum = _mm256_add_ps(sum, _mm256_castpd_ps(_mm256_permute4x64_pd(
                                                 _mm256_castps_pd(_mm256_shuffle_ps(lo, hi, 0x88)), 0xD8)));
                    sum = _mm256_add_ps(sum, _mm256_castpd_ps(_mm256_permute4x64_pd(
                                                 _mm256_castps_pd(_mm256_shuffle_ps(lo, hi, 0xDD)), 0xD8)));
                }
            }
            for (; dq < r.kernel_w; ++dq) sum = _mm256_add_ps(sum, load_strided(row + dq, s, offsets));
        }
        // A NaN sum stays NaN from its first NaN element on; only where one
        // is NaN can a NaN have met it, and those windows are redone (and
        // checked) by the scalar row.
        if (_mm256_movemask_ps(_mm256_cmp_ps(sum, sum, _CMP_UNORD_Q)) != 0) {
            std::vector<const float *> rows(r.rows, r.rows + r.row_count);
            for (auto &row : rows) row += col;
            PoolRowArgs block = r;
            block.rows = rows.data();
            block.count = 8;
            block.y = r.y + j;
            if (!pool_avg_row_portable(block)) return false;
            continue;
        }
        _mm256_storeu_ps(r.y + j, _mm256_div_ps(sum, divisor));
    }
    return true;
}

}  // namespace npucpu
