// Element-wise power of two float tensors with broadcasting: input 0 raised to
// input 1, computed in double precision and narrowed back to float.
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "npucpu.h"
#include "utils/op_context.h"
#include "utils/op_log.h"

namespace {

using npucpu::TensorInfo;

// The larger rank wins; every dim of the longer shape is copied, then each
// overlapping pair (aligned at the last dim) takes input 1's dim where it is
// greater than input 0's (signed compare), with no compatibility check.
// Unlike add, this covers any rank difference.
TensorShape pow_output_shape(const TensorShape &a, const TensorShape &b) {
    const TensorShape &longer = a.dim_num >= b.dim_num ? a : b;
    TensorShape out{};
    out.dim_num = longer.dim_num;
    for (uint32_t k = 0; k < longer.dim_num; ++k) out.dims[k] = longer.dims[k];
    const int32_t R = out.dim_num;
    for (int32_t i = a.dim_num - 1, j = b.dim_num - 1; i >= 0 && j >= 0; --i, --j) {
        const bool b_wins = static_cast<int32_t>(b.dims[j]) > static_cast<int32_t>(a.dims[i]);
        out.dims[R - b.dim_num + j] = b_wins ? b.dims[j] : a.dims[i];
    }
    return out;
}

bool same_shape(const TensorShape &a, const TensorShape &b) {
    if (a.dim_num != b.dim_num) return false;
    for (uint32_t k = 0; k < a.dim_num; ++k) {
        if (a.dims[k] != b.dims[k]) return false;
    }
    return true;
}

// One operand as the element loop reads it: a broadcast copy when its shape
// differs from the output's, else its own buffer. A rank-0 operand holds one
// element that stands for every position (step 0).
struct Operand {
    const float *data;
    float *owned;  // broadcast copy to release, or null
    uint64_t step;
};

Operand operand_for(const TensorInfo &in, const TensorShape &out_shape) {
    const float *data = static_cast<const float *>(in.buf);
    if (in.shape.dim_num == 0) return {data, nullptr, 0};
    if (same_shape(in.shape, out_shape)) return {data, nullptr, 1};
    float *copy = broadcast(&in.shape, in.dtype, data, &out_shape);
    return {copy, copy, 1};
}

}  // namespace

extern "C" {

NPU_API uint32_t pow_infershape(OperatorContext *handle) {
    if (npucpu::input_count(handle) != 2) {
        NPU_ERROR("pow only support 2 inputs \n");
        return NPU_ERR_INPUT_NUM;
    }
    const TensorInfo in0 = npucpu::input_info(handle, 0);
    const TensorInfo in1 = npucpu::input_info(handle, 1);
    npucpu::set_output_desc(handle, 0, pow_output_shape(in0.shape, in1.shape), in0.dtype,
                            in0.format);
    return NPU_OK;
}

NPU_API uint32_t pow_check_supported(OperatorContext *handle) {
    const TensorInfo in0 = npucpu::input_info(handle, 0);
    const TensorInfo in1 = npucpu::input_info(handle, 1);
    return in0.dtype == NPU_DTYPE_FLOAT32 && in1.dtype == NPU_DTYPE_FLOAT32 ? 1u : 0u;
}

NPU_API uint32_t pow_compute(OperatorContext *handle) {
    const TensorInfo in0 = npucpu::input_info(handle, 0);
    if (in0.buf == nullptr) return NPU_ERR_INVALID_ARG;
    const TensorInfo in1 = npucpu::input_info(handle, 1);
    if (in1.buf == nullptr) return NPU_ERR_INVALID_ARG;
    const TensorInfo out = npucpu::output_info(handle, 0);
    if (out.buf == nullptr) return NPU_ERR_INVALID_ARG;
    // Guard: an operand buffer holding fewer floats than its shape (a data
    // type narrower than float) would be read past its end: nothing written.
    if (in0.buf_len / sizeof(float) < npucpu::element_count(in0.shape) ||
        in1.buf_len / sizeof(float) < npucpu::element_count(in1.shape)) {
        return NPU_ERR_INVALID_ARG;
    }

    std::memset(out.buf, 0, out.buf_len);
    const Operand base = operand_for(in0, out.shape);
    const Operand exponent = operand_for(in1, out.shape);

    // The element count is compared as signed 32-bit, so a count past
    // INT32_MAX computes nothing. Guard: an output buffer shorter than the
    // shape gets only the whole elements it holds.
    const uint32_t count = npucpu::element_count(out.shape);
    uint64_t n = static_cast<int32_t>(count) > 0 ? count : 0;
    if (n > out.buf_len / sizeof(float)) n = out.buf_len / sizeof(float);
    float *dst = static_cast<float *>(out.buf);
    for (uint64_t i = 0; i < n; ++i) {
        const double x = base.data[i * base.step];
        const double y = exponent.data[i * exponent.step];
        dst[i] = static_cast<float>(std::pow(x, y));
    }
    std::free(base.owned);
    std::free(exponent.owned);
    return NPU_OK;
}

}  // extern "C"
