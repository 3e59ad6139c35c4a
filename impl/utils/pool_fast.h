// Fast window walk of averagepool and maxpool: the same windows, the same
// per-element order and arithmetic as the literal walk over the zero-padded
// tensor, without building the padded copy. Padding elements never change a
// result there: a zero never beats the maximum's positive start value, and
// adding +0.0 to the float sum (which starts at +0.0 and so is never -0.0)
// leaves it unchanged; they only count towards the average's divisor when
// count_include_pad is set.
#ifndef NPUCPU_IMPL_UTILS_POOL_FAST_H
#define NPUCPU_IMPL_UTILS_POOL_FAST_H

#include <cstdint>

namespace npucpu {

enum class PoolFastKind : uint32_t { None = 0, Max = 1, Average = 2 };

struct PoolFastArgs {
    PoolFastKind kind;
    const float *x;                  // the unpadded input, N x C x H x W
    uint64_t planes;                 // N * C
    uint32_t height, width;          // H, W
    uint32_t top, left, bottom, right;
    uint32_t kernel_h, kernel_w;
    uint32_t stride_h, stride_w;     // rows, columns
    uint32_t count_include_pad;
    float *y;                        // one value per window, planes first
    uint32_t *positions;             // maxpool output 1, or null
};

// The windows over one padded plane along each axis (the literal walk's
// count), for bounds the caller has checked.
uint32_t pool_fast_windows(uint32_t padded, uint32_t kernel, uint32_t stride);

// Writes every window's result in the literal order and returns true; or
// returns false (output partly written) where an average's running sum, a
// NaN, meets a NaN element: addition commutes, so which NaN survives is the
// compiler's choice in each loop, and only the literal walk fixes it.
bool pool_fast_run(const PoolFastArgs &a);

// One output row segment [first, first + count) of windows that lie wholly
// inside the data columns: rows[k] are the data rows of the window (input
// row pointers, already offset to the first window's first column), and
// row_index[k] their flat positions in the padded tensor at that column.
struct PoolRowArgs {
    const float *const *rows;
    const uint32_t *row_index;
    uint32_t row_count;
    uint32_t kernel_w, stride_w;
    uint32_t count;
    float divisor;      // average only
    float *y;
    uint32_t *positions;
};
// A maximum without positions over a whole output row, padding columns
// included: rows[k] are the window's data rows (their first data column),
// each `width` long after `left` padding columns; window j starts at padded
// column j * stride_w. Returns false, writing nothing, unless count >= 8,
// kernel_w <= kPoolMaxKernelW and stride_w is 1 or 2.
constexpr uint32_t kPoolMaxKernelW = 16;
struct PoolMaxRowArgs {
    const float *const *rows;
    uint32_t row_count;
    uint32_t width, left;
    uint32_t kernel_w, stride_w;
    uint32_t count;
    float *y;
};
bool pool_max_row_whole_avx2(const PoolMaxRowArgs &r);

// Each returns false where the average met NaN with NaN (see pool_fast_run).
bool pool_max_row_portable(const PoolRowArgs &r);
bool pool_avg_row_portable(const PoolRowArgs &r);
bool pool_max_row_avx2(const PoolRowArgs &r);
bool pool_avg_row_avx2(const PoolRowArgs &r);

}  // namespace npucpu

#endif
