// The skeleton shared by the binary arithmetic operators (add, sub, mul, div):
// the shape rule, the support test and the broadcast-then-combine compute.
// Each operator file supplies its message word, its unit and its element
// operation.
#ifndef NPUCPU_IMPL_UTILS_BINARY_OPS_H
#define NPUCPU_IMPL_UTILS_BINARY_OPS_H

#include <cstdlib>

#include "binary_fast.h"
#include "dispatch.h"
#include "npucpu.h"
#include "op_context.h"

namespace npucpu {

// Output shape of the family: aligned at the last dim, each overlapping dim
// is the larger of the two (signed compare, no compatibility check); the
// dims outside the overlap come from the longer shape.
TensorShape binary_output_shape(const TensorShape &a, const TensorShape &b);

// "<word> only support 2 inputs" and NPU_ERR_INPUT_NUM unless there are two
// inputs; otherwise writes output 0 with input 0's data type and format.
uint32_t binary_infershape(OperatorContext *handle, const char *unit, const char *word);

// 1 when both inputs are 32-bit float, else 0.
uint32_t binary_check_supported(OperatorContext *handle);

// Broadcasts both inputs to the output shape and writes
// out[i] = op(a[i], b[i]) for min(buf_len / 4, element count) elements.
// `kind` names op for the fast walk, which takes over where it applies and
// the output buffer holds every element.
template <typename Op>
uint32_t binary_compute(OperatorContext *handle, Op op, BinaryKind kind) {
    const TensorInfo in0 = input_info(handle, 0);
    if (in0.buf == nullptr) return NPU_ERR_INVALID_ARG;
    const TensorInfo in1 = input_info(handle, 1);
    // Input 1's buffer is the host's to provide; a null one would be read.
    if (in1.buf == nullptr) return NPU_ERR_INVALID_ARG;
    const TensorInfo out = output_info(handle, 0);
    if (out.buf == nullptr) return NPU_ERR_INVALID_ARG;
    // Guard: an input buffer holding fewer floats than its shape (a data type
    // narrower than float) would be read past its end: nothing is written.
    if (in0.buf_len / sizeof(float) < element_count(in0.shape) ||
        in1.buf_len / sizeof(float) < element_count(in1.shape)) {
        return NPU_ERR_INVALID_ARG;
    }

    if (active_isa() >= Isa::Avx2) {
        uint64_t all = 1;
        for (uint32_t k = 0; k < out.shape.dim_num && all < (uint64_t{1} << 32); ++k) {
            all *= out.shape.dims[k];
        }
        if (all < (uint64_t{1} << 32) && out.buf_len / sizeof(float) >= all &&
            binary_fast_avx2(kind, in0.shape, static_cast<const float *>(in0.buf), in1.shape,
                             static_cast<const float *>(in1.buf), out.shape,
                             static_cast<float *>(out.buf))) {
            return NPU_OK;
        }
    }
    float *a = broadcast(&in0.shape, in0.dtype, static_cast<const float *>(in0.buf), &out.shape);
    float *b = broadcast(&in1.shape, in1.dtype, static_cast<const float *>(in1.buf), &out.shape);
    const uint64_t count = element_count(out.shape);
    const uint64_t n = out.buf_len / sizeof(float) < count ? out.buf_len / sizeof(float) : count;
    float *dst = static_cast<float *>(out.buf);
    for (uint64_t i = 0; i < n; ++i) dst[i] = op(a[i], b[i]);
    std::free(a);
    std::free(b);
    return NPU_OK;
}

}  // namespace npucpu

#endif
