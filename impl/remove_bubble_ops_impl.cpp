// Copies a tensor of any data type whose rows (innermost dimension) start
// every wstride bytes, as the host set the input's width stride, back into a
// densely packed output. The mirror image of add_bubble.
#include <cstring>

#include "npucpu.h"
#include "utils/op_context.h"

namespace {

// Whether `len` bytes at `offset` lie inside a buffer of `buf_len` bytes.
bool fits(uint32_t offset, uint32_t len, uint64_t buf_len) {
    return static_cast<uint64_t>(offset) + len <= buf_len;
}

}  // namespace

extern "C" {

NPU_API uint32_t remove_bubble_infershape(OperatorContext *handle) {
    const npucpu::TensorInfo in = npucpu::input_info(handle, 0);
    npucpu::set_output_desc(handle, 0, in.shape, in.dtype, in.format);
    return NPU_OK;
}

NPU_API uint32_t remove_bubble_check_supported(OperatorContext *handle) {
    (void)handle;
    return 1;
}

NPU_API uint32_t remove_bubble_compute(OperatorContext *handle) {
    const npucpu::TensorInfo in = npucpu::input_info(handle, 0);
    const npucpu::TensorInfo out = npucpu::output_info(handle, 0);
    // Guard: a null buffer cannot be copied from or into.
    if (in.buf == nullptr || out.buf == nullptr) return NPU_ERR_INVALID_ARG;

    // Row length and row count come from the output's shape, the element
    // size from the input's data type.
    const uint32_t rank = out.shape.dim_num;
    const uint32_t width = rank > 0 ? out.shape.dims[rank - 1] : 1u;  // rank 0: one element
    const uint32_t w = width * get_dtype_size(in.dtype);
    const unsigned char *src = static_cast<const unsigned char *>(in.buf);
    unsigned char *dst = static_cast<unsigned char *>(out.buf);

    // Guard (both branches): only whole rows that fit in both buffers are
    // copied; the copy stops at the first row that does not.
    if (rank < 2) {
        if (fits(0, w, in.buf_len) && fits(0, w, out.buf_len)) std::memcpy(dst, src, w);
        return NPU_OK;
    }
    const uint32_t rows = accumulate_mul(out.shape.dims, 0, static_cast<int32_t>(rank) - 1);
    uint32_t wstride = 0;
    qv_kel_custom_get_input_wstride_by_index(handle, 0, &wstride);
    for (uint32_t r = 0; r < rows; ++r) {
        const uint32_t from = r * wstride;  // offsets in 32-bit arithmetic
        const uint32_t to = r * w;
        if (!fits(from, w, in.buf_len) || !fits(to, w, out.buf_len)) break;
        std::memcpy(dst + to, src + from, w);
    }
    return NPU_OK;
}

}  // extern "C"
