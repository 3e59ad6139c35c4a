#include "variadic_ops.h"

#include <cstdlib>
#include <cstring>

#include "op_context.h"
#include "op_log.h"

namespace npucpu {

namespace {

// Common shape of sum and mean, or false on a conflict. Input 0's dims stay
// left-aligned and are padded with 1s up to the largest rank (the host lists
// the highest-rank input first); every further input is aligned at the last
// dim, and each pair of dims must be equal or contain a 1.
bool common_shape(OperatorContext *handle, uint32_t count, TensorShape *out) {
    uint32_t R = 0;
    for (uint32_t k = 0; k < count; ++k) {
        const TensorInfo in = input_info(handle, k);
        if (in.shape.dim_num > R) R = in.shape.dim_num;
    }
    const TensorShape first = input_info(handle, 0).shape;
    *out = TensorShape{};
    out->dim_num = static_cast<uint8_t>(R);
    for (uint32_t d = 0; d < R; ++d) out->dims[d] = d < first.dim_num ? first.dims[d] : 1u;

    for (uint32_t k = 1; k < count; ++k) {
        const TensorShape s = input_info(handle, k).shape;
        for (uint32_t j = 0; j < s.dim_num; ++j) {
            uint32_t &b = out->dims[R - s.dim_num + j];
            const uint32_t a = s.dims[j];
            if (a != b && a != 1 && b != 1) return false;
            if (a > b) b = a;
        }
    }
    return true;
}

}  // namespace

uint32_t variadic_infershape(OperatorContext *handle, const char *unit, const char *word) {
    const uint32_t count = input_count(handle);
    if (count == 0) {
        NPU_ERROR_AS(unit, "%s only support inputs >= 1 \n", word);
        return NPU_ERR_INPUT_NUM;
    }
    TensorShape shape{};
    if (!common_shape(handle, count, &shape)) {
        NPU_ERROR_AS(unit, "broadcast failed \n");
        return NPU_FAIL;
    }
    const TensorInfo in0 = input_info(handle, 0);
    set_output_desc(handle, 0, shape, in0.dtype, in0.format);
    return NPU_OK;
}

uint32_t variadic_check_supported(OperatorContext *handle) {
    const uint32_t count = input_count(handle);
    for (uint32_t k = 0; k < count; ++k) {
        if (input_info(handle, k).dtype != NPU_DTYPE_FLOAT32) return 0;
    }
    return 1;
}

uint32_t variadic_compute(OperatorContext *handle, VariadicMode mode) {
    const uint32_t count = input_count(handle);
    const TensorInfo out = output_info(handle, 0);
    if (out.buf == nullptr) return NPU_ERR_INVALID_ARG;
    // Guards, before anything is written: a null input buffer, or one holding
    // fewer floats than its shape (a data type narrower than float), would be
    // read past its end, and a mean of no inputs would divide by zero.
    for (uint32_t k = 0; k < count; ++k) {
        const TensorInfo in = input_info(handle, k);
        if (in.buf == nullptr) return NPU_ERR_INVALID_ARG;
        if (in.buf_len / sizeof(float) < element_count(in.shape)) return NPU_ERR_INVALID_ARG;
    }
    if (mode == VariadicMode::kMean && count == 0) return NPU_ERR_INVALID_ARG;

    std::memset(out.buf, 0, out.buf_len);
    // Guard: the broadcast arrays hold the shape's element count; a longer
    // output buffer gets only that many elements.
    uint64_t n = out.buf_len / sizeof(float);
    const uint64_t elems = element_count(out.shape);
    if (n > elems) n = elems;
    float *dst = static_cast<float *>(out.buf);
    for (uint32_t k = 0; k < count; ++k) {
        const TensorInfo in = input_info(handle, k);
        float *b = broadcast(&in.shape, in.dtype, static_cast<const float *>(in.buf), &out.shape);
        for (uint64_t i = 0; i < n; ++i) dst[i] += b[i];
        std::free(b);
    }
    if (mode == VariadicMode::kMean) {
        const float divisor = static_cast<float>(count);
        for (uint64_t i = 0; i < n; ++i) dst[i] /= divisor;
    }
    return NPU_OK;
}

}  // namespace npucpu
