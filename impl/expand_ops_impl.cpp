// Broadcasts input 0 to a shape given as data: input 1 is a one-dimensional
// list of signed 64-bit target dims. The target is taken as given; input 0's
// own dims do not take part in choosing it.
#include <cstdlib>
#include <cstring>

#include "npucpu.h"
#include "utils/broadcast_fast.h"
#include "utils/dispatch.h"
#include "utils/op_context.h"
#include "utils/op_log.h"

extern "C" {

NPU_API uint32_t expand_infershape(OperatorContext *handle) {
    if (npucpu::input_count(handle) != 2) {
        NPU_ERROR("expand only support 2 inputs \n");
        return NPU_ERR_INPUT_NUM;
    }
    const npucpu::TensorInfo in0 = npucpu::input_info(handle, 0);
    const npucpu::TensorInfo dims = npucpu::input_info(handle, 1);

    // The rank is input 1's first dim; the dims are its buf_len / 8 values,
    // each narrowed to 32 bits (a rank above the values given leaves 0s).
    const uint32_t rank = dims.shape.dims[0];
    const uint64_t given = dims.buf_len / sizeof(int64_t);
    // Guards: a shape holds at most 16 dims, and a null list cannot be read.
    if (rank > NPU_MAX_DIMS || given > NPU_MAX_DIMS) return NPU_ERR_INVALID_ARG;
    if (given > 0 && dims.buf == nullptr) return NPU_ERR_INVALID_ARG;

    TensorShape shape{};
    shape.dim_num = static_cast<uint8_t>(rank);
    const unsigned char *src = static_cast<const unsigned char *>(dims.buf);
    for (uint64_t k = 0; k < given; ++k) {
        int64_t v = 0;
        std::memcpy(&v, src + k * sizeof(int64_t), sizeof v);
        shape.dims[k] = static_cast<uint32_t>(v);  // low 32 bits
    }
    npucpu::set_output_desc(handle, 0, shape, in0.dtype, in0.format);
    return NPU_OK;
}

NPU_API uint32_t expand_check_supported(OperatorContext *handle) {
    const npucpu::TensorInfo in0 = npucpu::input_info(handle, 0);
    const npucpu::TensorInfo in1 = npucpu::input_info(handle, 1);
    return in0.dtype == NPU_DTYPE_FLOAT32 && in1.dtype == NPU_DTYPE_INT64 ? 1u : 0u;
}

NPU_API uint32_t expand_compute(OperatorContext *handle) {
    const npucpu::TensorInfo in = npucpu::input_info(handle, 0);
    if (in.buf == nullptr) return NPU_ERR_INVALID_ARG;
    const npucpu::TensorInfo out = npucpu::output_info(handle, 0);
    if (out.buf == nullptr) return NPU_ERR_INVALID_ARG;
    // Guard: an input buffer holding fewer floats than its shape (a data type
    // narrower than float) would be read past its end: nothing is written.
    if (in.buf_len / sizeof(float) < npucpu::element_count(in.shape)) return NPU_ERR_INVALID_ARG;

    // Fast path: an output buffer that takes the whole broadcast array is
    // written directly, without the array.
    const uint32_t out_count = GetElemSize(&out.shape);
    if (npucpu::fast_paths_enabled() && out_count > 0 && out.shape.dim_num > 0 &&
        npucpu::element_count(in.shape) > 0 && out.buf_len / sizeof(float) >= out_count &&
        npucpu::broadcast_fast(&in.shape, static_cast<const float *>(in.buf), &out.shape,
                               static_cast<float *>(out.buf), out_count)) {
        return NPU_OK;
    }

    float *b = broadcast(&in.shape, in.dtype, static_cast<const float *>(in.buf), &out.shape);
    // Guard: the broadcast array holds the shape's element count; a longer
    // output buffer gets only that many elements.
    uint64_t n = out.buf_len / sizeof(float);
    const uint64_t elems = npucpu::element_count(out.shape);
    if (n > elems) n = elems;
    std::memcpy(out.buf, b, n * sizeof(float));
    std::free(b);
    return NPU_OK;
}

}  // extern "C"
