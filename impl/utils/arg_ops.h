// The code shared by argmax and argmin: the shape rule, the compute skeleton
// and the slice walk. The two operators differ only in the improvement test
// of the index routine, which each operator file supplies.
#ifndef NPUCPU_IMPL_UTILS_ARG_OPS_H
#define NPUCPU_IMPL_UTILS_ARG_OPS_H

#include <cstdint>
#include <cstdlib>
#include <limits>

#include "npucpu.h"

namespace npucpu {

// Index of the best of `count` values: `better(x, best)` is the improvement
// test; an equal value moves only the last occurrence. The first element is
// compared with itself, so a NaN there stays the answer (index 0).
template <typename T, typename Better>
uint32_t arg_index(const T *values, int64_t select_last_index, int32_t count, Better better) {
    if (count < 1) return 0;
    T best = values[0];
    uint32_t first = 0, last = 0;
    for (int32_t k = 0; k < count; ++k) {
        if (better(values[k], best)) {
            best = values[k];
            first = last = static_cast<uint32_t>(k);
        } else if (values[k] == best) {
            last = static_cast<uint32_t>(k);
        }
    }
    return select_last_index != 0 ? last : first;
}

// Element capacities of the buffers a walk may touch; the exported kernels
// have no lengths and pass kUnbounded.
constexpr uint64_t kUnbounded = std::numeric_limits<uint64_t>::max();

// Writes out[o * inner + i] = index(slice) for every slice along `axis`,
// reading at most in_cap input elements and writing at most out_cap indices.
// A slice that runs past the input is cut where the input ends. Returns
// false (writing nothing) when the axis is not inside the 16-dim shape
// record or the scratch array cannot be allocated.
template <typename T, typename IndexFn>
bool arg_walk(const T *in, uint64_t in_cap, uint32_t *out, uint64_t out_cap,
              const TensorShape &shape, uint32_t axis, int64_t select_last_index, IndexFn index) {
    // Guard: dims[axis] would lie outside the shape record.
    if (axis >= NPU_MAX_DIMS) return false;
    const int32_t rank = shape.dim_num;
    const int32_t a = static_cast<int32_t>(axis);
    const uint64_t outer = accumulate_mul(shape.dims, 0, a);
    const uint64_t len = shape.dims[axis];
    const uint64_t inner = accumulate_mul(shape.dims, a + 1, rank);
    T *scratch = static_cast<T *>(std::malloc(len * sizeof(T)));
    if (scratch == nullptr && len > 0) return false;
    for (uint64_t o = 0; o < outer && o * inner < out_cap; ++o) {
        for (uint64_t i = 0; i < inner && o * inner + i < out_cap; ++i) {
            const uint64_t dst = o * inner + i;
            uint64_t n = 0;
            for (uint64_t k = 0; k < len; ++k, ++n) {
                const uint64_t src = o * len * inner + i + k * inner;
                if (src >= in_cap) break;
                scratch[k] = in[src];
            }
            out[dst] = index(scratch, select_last_index, static_cast<int32_t>(n));
        }
    }
    std::free(scratch);
    return true;
}

// "<word> only support 1 inputs" unless there is one input; otherwise the
// reduced shape (rank-0 result forced to [1]) with data type int32.
uint32_t arg_infershape(OperatorContext *handle, const char *unit, const char *word);

// 1 when input 0 is 32-bit float.
uint32_t arg_check_supported(OperatorContext *handle);

// The compute skeleton: checks, attributes, then the walk with the float or
// integer index routine.
using ArgIndexF32 = uint32_t (*)(const float *, int64_t, int32_t);
using ArgIndexS32 = uint32_t (*)(const int32_t *, int64_t, int32_t);
uint32_t arg_compute(OperatorContext *handle, ArgIndexF32 index_f32, ArgIndexS32 index_s32);

}  // namespace npucpu

#endif
