// The skeleton shared by the one-input element-wise operators (ceil, floor,
// relu, sqrt): the shape rule, the support test and the element loop. Each
// operator file supplies its message word, its unit and its element function.
#ifndef NPUCPU_IMPL_UTILS_UNARY_OPS_H
#define NPUCPU_IMPL_UTILS_UNARY_OPS_H

#include <cstdint>
#include <cstring>

#include "npucpu.h"
#include "op_context.h"

namespace npucpu {

// "<word> only support 1 inputs" (attributed to `unit`) and NPU_ERR_INPUT_NUM
// unless there is exactly one input; otherwise output 0 gets input 0's shape,
// data type and format.
uint32_t unary_infershape(OperatorContext *handle, const char *unit, const char *word);

// 1 when input 0 is 32-bit float, else 0.
uint32_t unary_check_supported(OperatorContext *handle);

// Whether the output buffer is cleared before the element loop.
enum class UnaryClear { kNo, kWholeOutput };

// out[i] = f(in[i]) for the input_len / 4 elements; the input and output
// lengths must hold the same number of whole elements. Trailing bytes past a
// multiple of 4 are neither read nor written (except by the clear).
template <typename F>
uint32_t unary_compute(OperatorContext *handle, F f, UnaryClear clear) {
    const TensorInfo in = input_info(handle, 0);
    if (in.buf == nullptr) return NPU_ERR_INVALID_ARG;
    uint64_t out_len = 0;
    qv_kel_custom_get_output_buf_len_by_index(handle, 0, &out_len);
    const uint64_t n = in.buf_len / sizeof(float);
    if (n != out_len / sizeof(float)) return NPU_ERR_INVALID_ARG;
    void *out_buf = qv_kel_custom_get_output_buf_by_index(handle, 0);
    if (out_buf == nullptr) return NPU_ERR_INVALID_ARG;

    if (clear == UnaryClear::kWholeOutput) std::memset(out_buf, 0, out_len);
    const float *src = static_cast<const float *>(in.buf);
    float *dst = static_cast<float *>(out_buf);
    for (uint64_t i = 0; i < n; ++i) dst[i] = f(src[i]);
    return NPU_OK;
}

}  // namespace npucpu

#endif
