// Copies a densely packed tensor of any data type into an output whose rows
// (innermost dimension) start every wstride bytes, wstride aligned to 16
// bytes. The gap ("bubble") at the end of each output row is left untouched.
#include <cstring>

#include "npucpu.h"
#include "utils/op_context.h"

namespace {

constexpr uint32_t kRowAlign = 16;

// Whether `len` bytes at `offset` lie inside a buffer of `buf_len` bytes.
bool fits(uint32_t offset, uint32_t len, uint64_t buf_len) {
    return static_cast<uint64_t>(offset) + len <= buf_len;
}

}  // namespace

extern "C" {

NPU_API uint32_t add_bubble_infershape(OperatorContext *handle) {
    const npucpu::TensorInfo in = npucpu::input_info(handle, 0);
    // Setting the shape and type recomputes the automatic width stride first.
    npucpu::set_output_desc(handle, 0, in.shape, in.dtype, in.format);
    // A rank-0 tensor is one row of one element.
    const uint32_t width = in.shape.dim_num > 0 ? in.shape.dims[in.shape.dim_num - 1] : 1u;
    const uint32_t row = width * get_dtype_size(in.dtype);
    if (row % kRowAlign != 0) {
        qv_kel_custom_set_output_wstride_by_index(handle, 0, (row & ~(kRowAlign - 1)) + kRowAlign);
    }
    return NPU_OK;
}

NPU_API uint32_t add_bubble_check_supported(OperatorContext *handle) {
    (void)handle;
    return 1;
}

NPU_API uint32_t add_bubble_compute(OperatorContext *handle) {
    const npucpu::TensorInfo in = npucpu::input_info(handle, 0);
    const npucpu::TensorInfo out = npucpu::output_info(handle, 0);
    // Guard: a null buffer cannot be copied from or into.
    if (in.buf == nullptr || out.buf == nullptr) return NPU_ERR_INVALID_ARG;

    const uint32_t rank = in.shape.dim_num;
    const uint32_t width = rank > 0 ? in.shape.dims[rank - 1] : 1u;  // rank 0: one element
    const uint32_t w = width * get_dtype_size(in.dtype);
    const unsigned char *src = static_cast<const unsigned char *>(in.buf);
    unsigned char *dst = static_cast<unsigned char *>(out.buf);

    // Guard (both branches): only whole rows that fit in both buffers are
    // copied; the copy stops at the first row that does not.
    if (rank < 2) {
        if (fits(0, w, in.buf_len) && fits(0, w, out.buf_len)) std::memcpy(dst, src, w);
        return NPU_OK;
    }
    const uint32_t rows = accumulate_mul(in.shape.dims, 0, static_cast<int32_t>(rank) - 1);
    uint32_t wstride = 0;
    qv_kel_custom_get_output_wstride_by_index(handle, 0, &wstride);
    for (uint32_t r = 0; r < rows; ++r) {
        const uint32_t from = r * w;  // offsets in 32-bit arithmetic
        const uint32_t to = r * wstride;
        if (!fits(from, w, in.buf_len) || !fits(to, w, out.buf_len)) break;
        std::memcpy(dst + to, src + from, w);
    }
    return NPU_OK;
}

}  // extern "C"
