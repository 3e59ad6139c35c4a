// The code shared by averagepool and maxpool: attribute reading, shape
// inference with its overhang check, and the compute skeleton that pads the
// input and walks the windows. Each operator file supplies its message texts
// and its window reduction.
//
// The two stages disagree on purpose: shape inference honours auto_pad,
// ceil_mode and dilations, while compute ignores them, walks only the windows
// that fit the explicitly padded input and writes their results densely from
// the start of the output buffer.
#ifndef NPUCPU_IMPL_UTILS_POOL_OPS_H
#define NPUCPU_IMPL_UTILS_POOL_OPS_H

#include <cstdint>

#include "npucpu.h"
#include "pool_fast.h"

namespace npucpu {

// An operator's message texts (format strings without the "[E] ..." prefix)
// and the unit its lines are attributed to.
struct PoolTexts {
    const char *unit;           // the operator's source file (__FILE__)
    const char *input_count;    // "<op> only support 1 inputs \n"
    const char *auto_pad_fail;  // "Process auto_pad fail \n"
    const char *overhang_w;     // "outputW %d ... orig_w %d..." (output width, orig_w)
    const char *overhang_h;     // "outputH %d ... orig_h %d..." (output height, orig_h)
};

// Output 0 (and output 1 when declared, data type 4) from the input, the
// attributes and process_auto_pad_mode; NPU_ERR_INPUT_NUM, NPU_FAIL or 0.
// `reads_count_include_pad`: the average reads that attribute too (unused
// here, but an absent one is reported by the getter like the others).
uint32_t pool_infershape(OperatorContext *handle, const PoolTexts &texts,
                         bool reads_count_include_pad);

// 1 when input 0 is 32-bit float.
uint32_t pool_check_supported(OperatorContext *handle);

// One window of the walk over the zero-padded input.
struct PoolWindow {
    const float *data;       // the padded tensor
    uint64_t size;           // its element count
    uint64_t base;           // first element of the (batch, channel) plane
    uint32_t height, width;  // padded plane extent Hp, Wp
    uint32_t top, left;      // window origin r0, q0
    uint32_t kernel_h, kernel_w;
    const uint32_t *pads;    // top, left, bottom, right as given
    uint32_t count_include_pad;
};

// Calls visit(r, q, index) for the window's elements, rows outer and columns
// inner, over the half-open ranges [top, top + kernel_h) and [left, left +
// kernel_w); index = base + r * width + q is the element's flat position in
// the padded tensor.
// Guard: an element at or past the end of the padded tensor takes no part
// (only a kernel larger than the padded plane, or an input of rank below 4,
// reaches there); once a row starts past the end, so do all later ones.
template <typename Visit>
void for_each_in_window(const PoolWindow &w, Visit &&visit) {
    const uint64_t row_end = static_cast<uint64_t>(w.top) + w.kernel_h;
    const uint64_t col_end = static_cast<uint64_t>(w.left) + w.kernel_w;
    for (uint64_t r = w.top; r < row_end; ++r) {
        const uint64_t row = w.base + r * w.width;
        if (row + w.left >= w.size) return;
        for (uint64_t q = w.left; q < col_end; ++q) {
            if (row + q >= w.size) break;
            visit(r, q, row + q);
        }
    }
}

// A window's result: the value for output 0 and, for the maximum, the flat
// position for output 1.
struct PoolResult {
    float value;
    uint32_t position;
};

struct PoolKernel {
    PoolResult (*window)(const PoolWindow &w);
    bool reads_count_include_pad;  // averagepool
    bool writes_positions;         // maxpool: output 1 when declared
    PoolFastKind fast;             // the fast walk that gives the same results
};

// The compute skeleton: reads the input, the attributes and the outputs,
// zero-fills output 0, pads the input with 0.0, and writes one result per
// window into consecutive output elements; 0 or NPU_ERR_INVALID_ARG.
uint32_t pool_compute(OperatorContext *handle, const PoolKernel &kernel);

}  // namespace npucpu

#endif
