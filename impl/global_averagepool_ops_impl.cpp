// Global average pooling: the mean of every spatial position of each
// (batch, channel) plane of a row-major [N, C, spatial...] float tensor.
#include <algorithm>
#include <cstring>

#include "npucpu.h"
#include "utils/op_context.h"
#include "utils/op_log.h"

namespace {

using npucpu::TensorInfo;

// Elements per (batch, channel) plane: the product of dims 2.. (unsigned
// 32-bit, wrapping), 1 for a tensor of rank 2 or less.
uint32_t plane_size(const TensorShape &s) {
    return s.dim_num > 2 ? accumulate_mul(s.dims, 2, s.dim_num) : 1u;
}

// [N, C, 1, 1, ...] with the input's rank.
TensorShape pooled_shape(const TensorShape &in) {
    TensorShape out{};
    out.dim_num = in.dim_num;
    out.dims[0] = in.dims[0];
    out.dims[1] = in.dims[1];
    for (uint32_t k = 2; k < in.dim_num; ++k) out.dims[k] = 1;
    return out;
}

}  // namespace

extern "C" {

NPU_API uint32_t global_averagepool_infershape(OperatorContext *handle) {
    if (npucpu::input_count(handle) != 1) {
        NPU_ERROR("global_averagepool only support 1 inputs \n");
        return NPU_ERR_INPUT_NUM;
    }
    const TensorInfo in = npucpu::input_info(handle, 0);
    npucpu::set_output_desc(handle, 0, pooled_shape(in.shape), in.dtype, in.format);
    return NPU_OK;
}

NPU_API uint32_t global_averagepool_check_supported(OperatorContext *handle) {
    return npucpu::input_info(handle, 0).dtype == NPU_DTYPE_FLOAT32 ? 1u : 0u;
}

NPU_API uint32_t global_averagepool_compute(OperatorContext *handle) {
    const TensorInfo in = npucpu::input_info(handle, 0);
    if (in.buf == nullptr) return NPU_ERR_INVALID_ARG;
    const TensorInfo out = npucpu::output_info(handle, 0);
    if (out.buf == nullptr) return NPU_ERR_INVALID_ARG;
    std::memset(out.buf, 0, out.buf_len);

    // N and C are signed counts: a value past INT32_MAX counts as negative
    // and pools nothing.
    const int32_t batches = static_cast<int32_t>(in.shape.dims[0]);
    const int32_t channels = static_cast<int32_t>(in.shape.dims[1]);
    const uint32_t spatial = plane_size(in.shape);
    if (batches < 1 || channels < 1) return NPU_OK;

    const float *x = static_cast<const float *>(in.buf);
    float *y = static_cast<float *>(out.buf);
    const uint64_t in_elems = in.buf_len / sizeof(float);
    // Guard: plane n * C + c is written to element n * C + c; writes stop at
    // the end of the output buffer, and so does the work.
    const uint64_t planes = std::min<uint64_t>(static_cast<uint64_t>(batches) * channels,
                                               out.buf_len / sizeof(float));
    for (uint64_t p = 0; p < planes; ++p) {
        float sum = 0.0f;
        // Guard: reads stop at the end of the input buffer (elements past it
        // add nothing); the divisor stays the plane size.
        if (spatial != 0 && p <= in_elems / spatial) {
            const uint64_t base = p * spatial;
            const uint64_t end = base + std::min<uint64_t>(spatial, in_elems - base);
            for (uint64_t j = base; j < end; ++j) sum += x[j];
        }
        // A plane of no elements gives 0 / 0.
        y[p] = sum / static_cast<float>(spatial);
    }
    return NPU_OK;
}

}  // extern "C"
