#include "arg_ops.h"

#include "arg_fast.h"
#include "dispatch.h"
#include "op_context.h"
#include "op_log.h"

namespace npucpu {

namespace {

// Only keepdims == 1 keeps the reduced axis.
constexpr int64_t kKeepDims = 1;

// The axis with the rank added once when negative (not range-checked).
int64_t normalise_axis(int64_t axis, uint8_t rank) { return axis < 0 ? axis + rank : axis; }

}  // namespace

uint32_t arg_infershape(OperatorContext *handle, const char *unit, const char *word) {
    if (input_count(handle) != 1) {
        NPU_ERROR_AS(unit, "%s only support 1 inputs \n", word);
        return NPU_ERR_INPUT_NUM;
    }
    const TensorInfo in = input_info(handle, 0);
    const int64_t keepdims = attr_int(handle, "keepdims", 0);
    const int64_t axis = normalise_axis(attr_int(handle, "axis", 0), in.shape.dim_num);
    // Guard: a rank-0 input reduced without keepdims would have rank -1.
    if (in.shape.dim_num == 0 && keepdims != kKeepDims) return NPU_ERR_INPUT_NUM;

    TensorShape out{};
    uint32_t n = 0;
    for (int64_t i = 0; i < in.shape.dim_num; ++i) {
        if (i == axis) {
            if (keepdims == kKeepDims) out.dims[n++] = 1;
        } else {
            out.dims[n++] = in.shape.dims[i];
        }
    }
    // An axis outside the rank removes no dim, yet the rank still drops by
    // one: the output keeps the leading dims.
    out.dim_num = static_cast<uint8_t>(in.shape.dim_num - (keepdims != kKeepDims ? 1 : 0));
    if (out.dim_num == 0) {
        out.dim_num = 1;
        out.dims[0] = 1;
    }
    set_output_desc(handle, 0, out, NPU_DTYPE_INT32, in.format);
    return NPU_OK;
}

uint32_t arg_check_supported(OperatorContext *handle) {
    return input_info(handle, 0).dtype == NPU_DTYPE_FLOAT32 ? 1u : 0u;
}

namespace {

// The fast walk: contiguous slices (the axis is the innermost non-unit one)
// that lie wholly inside both buffers, each handed straight to the fast
// index routine instead of being copied. False where it does not apply.
bool fast_walk(const TensorInfo &in, uint64_t in_cap, uint32_t *out, uint64_t out_cap,
               uint32_t axis, int64_t select_last, bool is_max) {
    const int32_t a = static_cast<int32_t>(axis);
    if (axis >= in.shape.dim_num) return false;
    const uint64_t outer = accumulate_mul(in.shape.dims, 0, a);
    const uint64_t len = in.shape.dims[axis];
    const uint64_t inner = accumulate_mul(in.shape.dims, a + 1, in.shape.dim_num);
    if (inner != 1 || len < 1 || len > static_cast<uint64_t>(INT32_MAX)) return false;
    if (outer * len > in_cap || outer > out_cap) return false;
    const int32_t n = static_cast<int32_t>(len);
    if (in.dtype == NPU_DTYPE_FLOAT32) {
        const float *x = static_cast<const float *>(in.buf);
        auto index = is_max ? arg_max_index_f32_avx2 : arg_min_index_f32_avx2;
        for (uint64_t o = 0; o < outer; ++o) out[o] = index(x + o * len, select_last, n);
    } else {
        const int32_t *x = static_cast<const int32_t *>(in.buf);
        auto index = is_max ? arg_max_index_s32_avx2 : arg_min_index_s32_avx2;
        for (uint64_t o = 0; o < outer; ++o) out[o] = index(x + o * len, select_last, n);
    }
    return true;
}

}  // namespace

uint32_t arg_compute(OperatorContext *handle, ArgIndexF32 index_f32, ArgIndexS32 index_s32) {
    const TensorInfo in = input_info(handle, 0);
    if (in.dtype != NPU_DTYPE_FLOAT32 && in.dtype != NPU_DTYPE_INT32) return NPU_ERR_INVALID_ARG;
    if (in.buf == nullptr) return NPU_ERR_INVALID_ARG;
    const int64_t keepdims = attr_int(handle, "keepdims", 0);
    const int64_t axis_attr = attr_int(handle, "axis", 0);
    const int64_t select_last = has_attr(handle, "select_last_index")
                                    ? attr_int(handle, "select_last_index", 0)
                                    : 0;
    const TensorInfo out = output_info(handle, 0);
    if (out.buf == nullptr) return NPU_ERR_INVALID_ARG;
    // Guard: the rank-0 input that infershape refuses.
    if (in.shape.dim_num == 0 && keepdims != kKeepDims) return NPU_ERR_INPUT_NUM;

    // The normalised axis is handed on as unsigned; one below -rank wraps to
    // a huge value.
    const uint32_t axis = static_cast<uint32_t>(normalise_axis(axis_attr, in.shape.dim_num));
    // Guard: an axis of 16 or more names no dim of the shape record: nothing
    // is written and the status stays 0.
    if (axis >= NPU_MAX_DIMS) return NPU_OK;
    // Guard: any other axis outside the rank is not detected, but the walk
    // reads and writes no more than the two buffers hold.
    const uint64_t in_cap = in.buf_len / 4;
    const uint64_t out_cap = out.buf_len / sizeof(uint32_t);
    uint32_t *dst = static_cast<uint32_t *>(out.buf);
    // The routine handed in tells argmax from argmin.
    if (active_isa() >= Isa::Avx2 && fast_walk(in, in_cap, dst, out_cap, axis, select_last,
                                               index_f32 == get_max_index_f32)) {
        return NPU_OK;
    }
    const bool done =
        in.dtype == NPU_DTYPE_FLOAT32
            ? arg_walk(static_cast<const float *>(in.buf), in_cap, dst, out_cap, in.shape, axis,
                       select_last, index_f32)
            : arg_walk(static_cast<const int32_t *>(in.buf), in_cap, dst, out_cap, in.shape,
                       axis, select_last, index_s32);
    // The scratch array could not be allocated.
    return done ? NPU_OK : NPU_ERR_INVALID_ARG;
}

}  // namespace npucpu
