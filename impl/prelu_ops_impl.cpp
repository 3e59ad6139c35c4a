// Parametric rectifier: negative elements of input 0 are multiplied by the
// slope at their position; input 1 holds the slopes, broadcast to input 0's
// shape. NaN and -0 pass unchanged (neither compares below zero).
#include <cstdlib>
#include <cstring>

#include "npucpu.h"
#include "utils/op_context.h"
#include "utils/op_log.h"

namespace {

bool same_shape(const TensorShape &a, const TensorShape &b) {
    if (a.dim_num != b.dim_num) return false;
    for (uint32_t k = 0; k < a.dim_num; ++k) {
        if (a.dims[k] != b.dims[k]) return false;
    }
    return true;
}

}  // namespace

extern "C" {

NPU_API uint32_t prelu_infershape(OperatorContext *handle) {
    if (npucpu::input_count(handle) != 2) {
        NPU_ERROR("prelu only support 2 inputs \n");
        return NPU_ERR_INPUT_NUM;
    }
    const npucpu::TensorInfo in0 = npucpu::input_info(handle, 0);
    npucpu::set_output_desc(handle, 0, in0.shape, in0.dtype, in0.format);
    return NPU_OK;
}

NPU_API uint32_t prelu_check_supported(OperatorContext *handle) {
    const npucpu::TensorInfo in0 = npucpu::input_info(handle, 0);
    const npucpu::TensorInfo in1 = npucpu::input_info(handle, 1);
    return in0.dtype == NPU_DTYPE_FLOAT32 && in1.dtype == NPU_DTYPE_FLOAT32 ? 1u : 0u;
}

NPU_API uint32_t prelu_compute(OperatorContext *handle) {
    const npucpu::TensorInfo in0 = npucpu::input_info(handle, 0);
    const uint64_t n = in0.buf_len / sizeof(float);
    if (in0.buf == nullptr) return NPU_ERR_INVALID_ARG;
    const npucpu::TensorInfo slope = npucpu::input_info(handle, 1);
    if (slope.buf == nullptr) return NPU_ERR_INVALID_ARG;
    uint64_t out_len = 0;
    qv_kel_custom_get_output_buf_len_by_index(handle, 0, &out_len);
    if (out_len / sizeof(float) != n) return NPU_ERR_INVALID_ARG;
    void *out_buf = qv_kel_custom_get_output_buf_by_index(handle, 0);
    if (out_buf == nullptr) return NPU_ERR_INVALID_ARG;
    // Guard: a slope buffer holding fewer floats than its shape (a data type
    // narrower than float) would be read past its end: nothing is written.
    if (slope.buf_len / sizeof(float) < npucpu::element_count(slope.shape)) {
        return NPU_ERR_INVALID_ARG;
    }
    std::memset(out_buf, 0, out_len);

    // Slopes of input 0's shape are used as they are; a rank-0 slope tensor
    // holds one slope for every position (step 0); any other shape is
    // broadcast to input 0's.
    const float *slopes = static_cast<const float *>(slope.buf);
    float *owned = nullptr;
    uint64_t step = 1;
    if (slope.shape.dim_num == 0) {
        step = 0;
    } else if (!same_shape(slope.shape, in0.shape)) {
        owned = broadcast(&slope.shape, slope.dtype, slopes, &in0.shape);
        slopes = owned;
    }

    // Guard: a shape with more elements than the input and output buffers
    // hold (both hold n) is computed over those n elements only.
    uint64_t count = npucpu::element_count(in0.shape);
    if (count > n) count = n;
    const float *src = static_cast<const float *>(in0.buf);
    float *dst = static_cast<float *>(out_buf);
    for (uint64_t i = 0; i < count; ++i) {
        float x = src[i];
        if (x < 0.0f) x = x * slopes[i * step];
        dst[i] = x;
    }
    std::free(owned);
    return NPU_OK;
}

}  // extern "C"
