// Copies a tensor of any data type whose rows (innermost dimension) start
// every wstride bytes, as the host set the input's width stride, back into a
// densely packed output. The mirror image of add_bubble.
#include "npucpu.h"
#include "utils/bubble_rows.h"
#include "utils/op_context.h"

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
    uint32_t wstride = 0;
    qv_kel_custom_get_input_wstride_by_index(handle, 0, &wstride);
    npucpu::copy_bubble_rows(out.shape, w, {in.buf, in.buf_len, wstride}, {out.buf, out.buf_len, w});
    return NPU_OK;
}

}  // extern "C"
