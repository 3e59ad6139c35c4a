// Copies a densely packed tensor of any data type into an output whose rows
// (innermost dimension) start every wstride bytes, wstride aligned to 16
// bytes. The gap ("bubble") at the end of each output row is left untouched.
#include "npucpu.h"
#include "utils/bubble_rows.h"
#include "utils/op_context.h"

namespace {

constexpr uint32_t kRowAlign = 16;

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
    uint32_t wstride = 0;
    qv_kel_custom_get_output_wstride_by_index(handle, 0, &wstride);
    npucpu::copy_bubble_rows(in.shape, w, {in.buf, in.buf_len, w}, {out.buf, out.buf_len, wstride});
    return NPU_OK;
}

}  // extern "C"
