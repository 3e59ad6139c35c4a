// Slice: cuts a strided block out of input 0. Starts and ends (inputs 1 and
// 2), optional axes (input 3) and steps (input 4, only with exactly five
// inputs) arrive as 64-bit tensors; both stages normalise them into per-axis
// tables by the same rules, and compute hands the tables to the `slice`
// kernel.
#include <cstdlib>
#include <cstring>

#include "npucpu.h"
#include "utils/op_context.h"
#include "utils/op_log.h"

namespace {

constexpr uint32_t kMinInputs = 3;
constexpr uint32_t kAxesInput = 3;
constexpr uint32_t kStepsInput = 4;
constexpr uint32_t kInputsWithSteps = 5;
constexpr uint32_t kTableSize = 100;
constexpr uint32_t kParamFail = 0xFFFFFFFFu;

// Per-axis parameters. Every axis of the input starts as the whole axis
// (start 0, end = dim, step 1).
struct SliceTables {
    int32_t start[kTableSize];
    int32_t end[kTableSize];
    int32_t step[kTableSize];
    bool steps_given;
};

// Parameter element i, a 64-bit value truncated to signed 32 bits.
int32_t param_at(const npucpu::TensorInfo &t, uint64_t i) {
    int64_t v = 0;
    std::memcpy(&v, static_cast<const char *>(t.buf) + i * sizeof(int64_t), sizeof v);
    return static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint64_t>(v)));
}

// Whether a parameter buffer holds `count` 64-bit entries.
bool holds(const npucpu::TensorInfo &t, uint64_t count) {
    return count == 0 || (t.buf != nullptr && t.buf_len / sizeof(int64_t) >= count);
}

// Reads the parameter inputs and fills the tables for `data`'s shape.
// Returns 0, 0xFFFFFFFF after the axes message, or a guard's status.
uint32_t normalise(OperatorContext *handle, const TensorShape &data, SliceTables *t) {
    const uint32_t inputs = npucpu::input_count(handle);
    const int32_t rank = data.dim_num;
    for (int32_t d = 0; d < rank; ++d) {
        t->start[d] = 0;
        t->end[d] = static_cast<int32_t>(data.dims[d]);
        t->step[d] = 1;
    }
    const npucpu::TensorInfo starts = npucpu::input_info(handle, 1);
    const npucpu::TensorInfo ends = npucpu::input_info(handle, 2);
    npucpu::TensorInfo axes;
    npucpu::TensorInfo steps;
    if (inputs > kAxesInput) axes = npucpu::input_info(handle, kAxesInput);
    t->steps_given = inputs == kInputsWithSteps;
    if (t->steps_given) steps = npucpu::input_info(handle, kStepsInput);
    const bool axes_given = axes.buf != nullptr;
    const uint32_t n = npucpu::element_count(starts.shape);
    const uint32_t axis_count = axes_given ? npucpu::element_count(axes.shape) : 0;

    // Guard: an axes buffer shorter than its shape would be read past.
    if (!holds(axes, axis_count)) return NPU_ERR_INVALID_ARG;
    int32_t axis[NPU_MAX_DIMS] = {};
    for (uint32_t i = 0; i < axis_count; ++i) {
        int32_t a = param_at(axes, i);
        if (a < 0) a += rank;
        if (a < 0 || a >= rank) {
            NPU_ERROR("slice param axes[%d]:%d out of range, range:[0-%d]  \n", static_cast<int32_t>(i), a,
                      rank - 1);
            return kParamFail;
        }
        if (i < NPU_MAX_DIMS) axis[i] = a;
    }
    // Guard: more starts than axes of the input, or than listed axes, would
    // address dims and table entries that do not exist.
    if (n > static_cast<uint32_t>(rank) || (axes_given && axis_count < n)) return kParamFail;

    // Guard: parameter buffers shorter than the entries read from them (one
    // end and, with steps, one step per start; without axes every given step
    // up to the rank is placed).
    const uint32_t step_count = t->steps_given ? npucpu::element_count(steps.shape) : 0;
    uint32_t steps_read = 0;
    if (t->steps_given) {
        steps_read = axes_given ? n : (step_count < static_cast<uint32_t>(rank) ? step_count : rank);
        if (steps_read < n) steps_read = n;
    }
    if (!holds(starts, n) || !holds(ends, n) || !holds(steps, steps_read)) return NPU_ERR_INVALID_ARG;

    for (uint32_t i = 0; i < n; ++i) {
        const int32_t target = axes_given ? axis[i] : static_cast<int32_t>(i);
        const int64_t dim = data.dims[target];
        const int32_t p = t->steps_given ? param_at(steps, i) : 1;
        // The start is clamped only when steps were given.
        int64_t s = param_at(starts, i);
        if (s < 0) s += dim;
        if (t->steps_given) {
            if (p >= 0 && s >= dim) s = dim;
            if (p < 0 && s >= dim) s = dim - 1;
            if (s < 0) s = 0;
        }
        int64_t e = param_at(ends, i);
        if (e < 0) e += dim;
        if (e > dim) e = dim;
        if (t->steps_given) {
            if (p < 0) {
                if (e < 0) e = -1;
                if (e >= dim) e = dim - 1;
            } else {
                if (e < 0) e = 0;
                if (e > dim) e = dim;
            }
        }
        t->start[target] = static_cast<int32_t>(s);
        t->end[target] = static_cast<int32_t>(e);
        if (axes_given && t->steps_given) t->step[target] = p;
    }
    if (!axes_given) {
        for (uint32_t i = 0; i < steps_read; ++i) t->step[i] = param_at(steps, i);
    }
    return NPU_OK;
}

// Internal Tensor record borrowing a context buffer.
Tensor *borrow(const TensorShape &shape, uint32_t dtype, uint32_t format, void *buf) {
    Tensor *t = static_cast<Tensor *>(std::malloc(sizeof(Tensor)));
    t->shape = shape;
    t->dtype = dtype;
    t->format = format;
    t->data = static_cast<float *>(buf);
    return t;
}

}  // namespace

extern "C" {

NPU_API uint32_t slice_infershape(OperatorContext *handle) {
    const uint32_t inputs = npucpu::input_count(handle);
    if (inputs < kMinInputs) {
        NPU_ERROR("slice input size %d error  \n", static_cast<int32_t>(inputs));
        return kParamFail;
    }
    const npucpu::TensorInfo data = npucpu::input_info(handle, 0);
    SliceTables t{};
    const uint32_t status = normalise(handle, data.shape, &t);
    if (status != NPU_OK) return status;

    TensorShape out = data.shape;
    for (uint32_t d = 0; d < data.shape.dim_num; ++d) {
        const int64_t s = t.start[d];
        const int64_t e = t.end[d];
        const int64_t p = t.step[d];
        if (p == 0) {
            NPU_ERROR("slice steps[%d]: %d zero error \n", static_cast<int32_t>(d), 0);
            return kParamFail;
        }
        if ((p > 0 && e <= s) || (p < 0 && e >= s)) {
            out.dim_num = 0;
            break;
        }
        // Divisions truncate toward zero.
        const int64_t len = p > 0 ? (e - 1 - s) / p + 1 : (e + 1 - s) / p + 1;
        out.dims[d] = static_cast<uint32_t>(len);
    }
    npucpu::set_output_desc(handle, 0, out, data.dtype, data.format);
    return NPU_OK;
}

NPU_API uint32_t slice_check_supported(OperatorContext *handle) {
    return npucpu::input_info(handle, 0).dtype == NPU_DTYPE_FLOAT32 ? 1u : 0u;
}

NPU_API uint32_t slice_compute(OperatorContext *handle) {
    const npucpu::TensorInfo data = npucpu::input_info(handle, 0);
    if (data.buf == nullptr) return NPU_ERR_INVALID_ARG;
    SliceTables t{};
    const uint32_t status = normalise(handle, data.shape, &t);
    if (status != NPU_OK) return status;
    const npucpu::TensorInfo out = npucpu::output_info(handle, 0);
    if (out.buf == nullptr) return NPU_ERR_INVALID_ARG;

    const uint32_t rank = data.shape.dim_num;
    for (uint32_t d = 0; d < rank; ++d) {
        // Guard: a zero step would never reach its end.
        if (t.step[d] == 0) return kParamFail;
        // Guard: without steps a start may stay negative after the dim is
        // added, and the kernel would then read before the data.
        if (!t.steps_given && t.start[d] < 0) return NPU_ERR_INVALID_ARG;
    }
    // Guard: the kernel copies the whole input first; a buffer shorter than
    // its shape is refused before anything is written.
    if (data.buf_len < static_cast<uint64_t>(npucpu::element_count(data.shape)) * sizeof(float)) {
        return NPU_ERR_INVALID_ARG;
    }

    std::memset(out.buf, 0, out.buf_len);
    // Guard: the kernel copies as many elements as the output record holds;
    // an output buffer shorter than its shape is described to it as a flat
    // record of the elements it holds.
    TensorShape out_shape = out.shape;
    const uint64_t capacity = out.buf_len / sizeof(float);
    if (capacity < npucpu::element_count(out.shape)) {
        out_shape = TensorShape{};
        out_shape.dim_num = 1;
        out_shape.dims[0] = static_cast<uint32_t>(capacity);
    }
    Tensor *in_t = borrow(data.shape, data.dtype, data.format, data.buf);
    Tensor *out_t = borrow(out_shape, out.dtype, out.format, out.buf);
    slice(in_t, t.start, t.end, t.step, out_t);
    free_tensor_not_in_buf(in_t);
    free_tensor_not_in_buf(out_t);
    return NPU_OK;
}

}  // extern "C"
