// The skeleton shared by global average and global max pooling: one value per
// (batch, channel) plane of a row-major [N, C, spatial...] float tensor. Each
// operator supplies its message unit and word and its plane reduction.
#ifndef NPUCPU_IMPL_UTILS_GLOBAL_POOL_H
#define NPUCPU_IMPL_UTILS_GLOBAL_POOL_H

#include <algorithm>
#include <cstring>

#include "npucpu.h"
#include "op_context.h"

namespace npucpu {

// "<word> only support 1 inputs" and NPU_ERR_INPUT_NUM unless there is one
// input; otherwise output 0 is [N, C, 1, 1, ...] with the input's rank, data
// type and format.
uint32_t global_pool_infershape(OperatorContext *handle, const char *unit, const char *word);

// 1 when the input is 32-bit float.
uint32_t global_pool_check_supported(OperatorContext *handle);

// Elements per (batch, channel) plane: the product of dims 2.. (unsigned
// 32-bit, wrapping), 1 for a tensor of rank 2 or less.
uint32_t global_pool_plane_size(const TensorShape &s);

// Zeroes the output, then writes reduce(plane, elements present, spatial)
// for each plane n * C + c into element n * C + c.
template <typename Reduce>
uint32_t global_pool_compute(OperatorContext *handle, Reduce reduce) {
    const TensorInfo in = input_info(handle, 0);
    if (in.buf == nullptr) return NPU_ERR_INVALID_ARG;
    const TensorInfo out = output_info(handle, 0);
    if (out.buf == nullptr) return NPU_ERR_INVALID_ARG;
    std::memset(out.buf, 0, out.buf_len);

    // N and C are signed counts: a value past INT32_MAX counts as negative
    // and pools nothing.
    const int32_t batches = static_cast<int32_t>(in.shape.dims[0]);
    const int32_t channels = static_cast<int32_t>(in.shape.dims[1]);
    const uint32_t spatial = global_pool_plane_size(in.shape);
    if (batches < 1 || channels < 1) return NPU_OK;

    const float *x = static_cast<const float *>(in.buf);
    float *y = static_cast<float *>(out.buf);
    const uint64_t in_elems = in.buf_len / sizeof(float);
    // Guard: writes stop at the end of the output buffer, and so does the work.
    const uint64_t planes = std::min<uint64_t>(static_cast<uint64_t>(batches) * channels,
                                               out.buf_len / sizeof(float));
    for (uint64_t p = 0; p < planes; ++p) {
        // Guard: reads stop at the end of the input buffer; elements past it
        // take no part (the plane size used by the mean stays `spatial`).
        uint64_t present = 0;
        if (spatial != 0 && p <= in_elems / spatial) {
            present = std::min<uint64_t>(spatial, in_elems - p * spatial);
        }
        y[p] = reduce(x + (present != 0 ? p * spatial : 0), present, spatial);
    }
    return NPU_OK;
}

}  // namespace npucpu

#endif
