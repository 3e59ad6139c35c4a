#include "pool_fast.h"

#include <limits>
#include <vector>

#include "dispatch.h"

namespace npucpu {

namespace {

// The maximum's start value, as in the literal window.
constexpr float kMaxStart = std::numeric_limits<float>::min();

}  // namespace

uint32_t pool_fast_windows(uint32_t padded, uint32_t kernel, uint32_t stride) {
    return (padded - kernel) / stride + 1;
}

bool pool_max_row_portable(const PoolRowArgs &r) {
    for (uint32_t j = 0; j < r.count; ++j) {
        float best = kMaxStart;
        uint32_t pos = 0;
        const uint32_t col = j * r.stride_w;
        for (uint32_t k = 0; k < r.row_count; ++k) {
            const float *row = r.rows[k] + col;
            for (uint32_t dq = 0; dq < r.kernel_w; ++dq) {
                if (row[dq] > best) {
                    best = row[dq];
                    pos = r.row_index[k] + col + dq;
                }
            }
        }
        r.y[j] = best;
        if (r.positions != nullptr) r.positions[j] = pos;
    }
    return true;
}

bool pool_avg_row_portable(const PoolRowArgs &r) {
    for (uint32_t j = 0; j < r.count; ++j) {
        float sum = 0.0f;
        const uint32_t col = j * r.stride_w;
        for (uint32_t k = 0; k < r.row_count; ++k) {
            const float *row = r.rows[k] + col;
            for (uint32_t dq = 0; dq < r.kernel_w; ++dq) {
                if (sum != sum && row[dq] != row[dq]) return false;
                sum += row[dq];
            }
        }
        r.y[j] = sum / r.divisor;
    }
    return true;
}

bool pool_fast_run(const PoolFastArgs &a) {
    const bool is_max = a.kind == PoolFastKind::Max;
    const uint32_t Hp = a.height + a.top + a.bottom;
    const uint32_t Wp = a.width + a.left + a.right;
    const uint32_t out_h = pool_fast_windows(Hp, a.kernel_h, a.stride_h);
    const uint32_t out_w = pool_fast_windows(Wp, a.kernel_w, a.stride_w);
    const uint64_t plane_in = static_cast<uint64_t>(a.height) * a.width;
    const uint64_t plane_padded = static_cast<uint64_t>(Hp) * Wp;

    // Windows [lo, hi) of a row lie wholly inside the data columns.
    uint32_t lo = 0;
    while (lo < out_w && static_cast<uint64_t>(lo) * a.stride_w < a.left) ++lo;
    uint32_t hi = lo;
    while (hi < out_w &&
           static_cast<uint64_t>(hi) * a.stride_w + a.kernel_w <= static_cast<uint64_t>(a.left) + a.width) {
        ++hi;
    }
    bool clash = false;
    bool (*interior)(const PoolRowArgs &) = is_max ? pool_max_row_portable : pool_avg_row_portable;
    if (active_isa() >= Isa::Avx2) interior = is_max ? pool_max_row_avx2 : pool_avg_row_avx2;

    // A maximum without positions can take whole rows, padding included.
    const bool whole_rows = is_max && a.positions == nullptr && active_isa() >= Isa::Avx2;
    std::vector<const float *> rows(a.kernel_h);
    std::vector<uint32_t> row_index(a.kernel_h);
    std::vector<const float *> shifted(a.kernel_h);
    std::vector<uint32_t> shifted_index(a.kernel_h);
    const float full_count = static_cast<float>(static_cast<int32_t>(a.kernel_h * a.kernel_w));
    float *y = a.y;
    uint32_t *pos = a.positions;
    for (uint64_t p = 0; p < a.planes; ++p) {
        const float *plane = a.x + p * plane_in;
        const uint64_t base = p * plane_padded;
        for (uint32_t oy = 0; oy < out_h; ++oy) {
            const uint32_t r0 = oy * a.stride_h;
            // The window's data rows, in order; rows in the padding add nothing.
            uint32_t n = 0;
            for (uint32_t r = r0; r < r0 + a.kernel_h; ++r) {
                if (r < a.top || r >= a.top + a.height) continue;
                rows[n] = plane + static_cast<uint64_t>(r - a.top) * a.width;
                row_index[n] = static_cast<uint32_t>(base + static_cast<uint64_t>(r) * Wp);
                ++n;
            }
            // One window with the column checks, for the row's edges.
            auto edge = [&](uint32_t ox) {
                // The window's data columns are one run [dq_lo, dq_hi).
                const uint32_t q0 = ox * a.stride_w;
                const uint32_t dq_lo = q0 < a.left ? a.left - q0 : 0;
                const uint64_t data_end = static_cast<uint64_t>(a.left) + a.width;
                uint32_t dq_hi = data_end <= q0 ? 0 : static_cast<uint32_t>(data_end - q0);
                if (dq_hi > a.kernel_w) dq_hi = a.kernel_w;
                const uint32_t cols = dq_hi > dq_lo ? dq_hi - dq_lo : 0;
                float best = is_max ? kMaxStart : 0.0f;
                uint32_t at = 0;
                for (uint32_t k = 0; k < n; ++k) {
                    for (uint32_t dq = dq_lo; dq < dq_hi; ++dq) {
                        const float v = rows[k][q0 + dq - a.left];
                        if (is_max) {
                            const bool gt = v > best;
                            best = gt ? v : best;
                            at = gt ? row_index[k] + q0 + dq : at;
                        } else {
                            clash |= best != best && v != v;
                            best += v;
                        }
                    }
                }
                if (is_max) {
                    y[ox] = best;
                    if (pos != nullptr) pos[ox] = at;
                } else {
                    const float count = a.count_include_pad != 0
                                            ? full_count
                                            : static_cast<float>(static_cast<int32_t>(n * cols));
                    y[ox] = best / count;
                }
            };
            if (whole_rows) {
                const PoolMaxRowArgs m{rows.data(), n, a.width, a.left, a.kernel_w, a.stride_w, out_w, y};
                if (pool_max_row_whole_avx2(m)) {
                    y += out_w;
                    continue;
                }
            }
            for (uint32_t ox = 0; ox < lo; ++ox) edge(ox);
            if (hi > lo) {
                const uint32_t col = lo * a.stride_w - a.left;
                for (uint32_t k = 0; k < n; ++k) {
                    shifted[k] = rows[k] + col;
                    shifted_index[k] = row_index[k] + lo * a.stride_w;
                }
                PoolRowArgs r{shifted.data(), shifted_index.data(), n, a.kernel_w, a.stride_w, hi - lo,
                              a.count_include_pad != 0
                                  ? full_count
                                  : static_cast<float>(static_cast<int32_t>(n * a.kernel_w)),
                              y + lo, pos != nullptr ? pos + lo : nullptr};
                if (!interior(r)) return false;
            }
            for (uint32_t ox = hi; ox < out_w; ++ox) edge(ox);
            if (clash) return false;
            y += out_w;
            if (pos != nullptr) pos += out_w;
        }
    }
    return true;
}

}  // namespace npucpu
