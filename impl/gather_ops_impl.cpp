// Gather: picks entries of input 0 along one axis at the positions listed in
// input 1 (32- or 64-bit indices; a negative index counts from the end). The
// data movement is the `gather` kernel's; this file holds the shape rule and
// the wrapping of the context's buffers.
#include <cstdlib>

#include "npucpu.h"
#include "utils/op_context.h"
#include "utils/op_log.h"

namespace {

// Internal Tensor record borrowing a context buffer.
Tensor *borrow(const TensorShape &shape, uint32_t dtype, uint32_t format, void *buf) {
    Tensor *t = static_cast<Tensor *>(std::malloc(sizeof(Tensor)));
    t->shape = shape;
    t->dtype = dtype;
    t->format = format;
    t->data = static_cast<float *>(buf);
    return t;
}

// Bytes per index as the kernel reads them: 32-bit for data type 4, 64-bit
// for anything else.
uint64_t index_width(uint32_t dtype) { return dtype == NPU_DTYPE_INT32 ? 4 : 8; }

}  // namespace

extern "C" {

NPU_API uint32_t gather_infershape(OperatorContext *handle) {
    const npucpu::TensorInfo data = npucpu::input_info(handle, 0);
    const npucpu::TensorInfo indices = npucpu::input_info(handle, 1);
    const int64_t axis = npucpu::attr_int(handle, "axis", 0);

    const int32_t r = data.shape.dim_num;
    if (axis > r - 1 || axis < -r) {
        NPU_ERROR("illegal axis: %lld, accepted range is [%d, %d] \n", static_cast<long long>(axis), -r,
                  r - 1);
        return NPU_ERR_INPUT_NUM;
    }
    const int32_t a = static_cast<int32_t>(axis < 0 ? axis + r : axis);
    const uint32_t q = indices.shape.dim_num;
    // An indices tensor of shape [1] is a scalar and adds no dim.
    const bool scalar = q == 1 && indices.shape.dims[0] == 1;
    const int32_t expected = scalar ? r - 1 : static_cast<int32_t>(q) + r - 1;

    // Guard: a rank past the shape record is reported as a miscount before
    // any dim is written.
    const uint32_t assembled = static_cast<uint32_t>(a) + (scalar ? 0 : q) + static_cast<uint32_t>(r - a - 1);
    if (assembled > NPU_MAX_DIMS) {
        NPU_ERROR("output dims calc err! output dims should be: %d \n", expected);
        return NPU_ERR_SHAPE;
    }
    TensorShape out{};
    uint32_t n = 0;
    for (int32_t d = 0; d < a; ++d) out.dims[n++] = data.shape.dims[d];
    if (!scalar) {
        for (uint32_t d = 0; d < q; ++d) out.dims[n++] = indices.shape.dims[d];
    }
    for (int32_t d = a + 1; d < r; ++d) out.dims[n++] = data.shape.dims[d];
    if (static_cast<int32_t>(n % 256) != expected) {
        NPU_ERROR("output dims calc err! output dims should be: %d \n", expected);
        return NPU_ERR_SHAPE;
    }
    // A scalar result is stored as shape [1].
    if (n == 0) {
        n = 1;
        out.dims[0] = 1;
    }
    out.dim_num = static_cast<uint8_t>(n);
    npucpu::set_output_desc(handle, 0, out, data.dtype, data.format);
    return NPU_OK;
}

NPU_API uint32_t gather_check_supported(OperatorContext *handle) {
    const npucpu::TensorInfo data = npucpu::input_info(handle, 0);
    const npucpu::TensorInfo indices = npucpu::input_info(handle, 1);
    const bool index_ok = indices.dtype == NPU_DTYPE_INT32 || indices.dtype == NPU_DTYPE_INT64;
    return data.dtype == NPU_DTYPE_FLOAT32 && index_ok ? 1u : 0u;
}

NPU_API uint32_t gather_compute(OperatorContext *handle) {
    const npucpu::TensorInfo data = npucpu::input_info(handle, 0);
    if (data.buf == nullptr) return NPU_ERR_INVALID_ARG;
    const npucpu::TensorInfo indices = npucpu::input_info(handle, 1);
    if (indices.buf == nullptr) return NPU_ERR_INVALID_ARG;
    const int64_t axis = npucpu::attr_int(handle, "axis", 0);
    const npucpu::TensorInfo out = npucpu::output_info(handle, 0);
    if (out.buf == nullptr) return NPU_ERR_INVALID_ARG;

    // Guard: the kernel reads every element of the data and index shapes;
    // buffers shorter than their shapes are refused before anything is
    // written.
    const uint64_t data_count = npucpu::element_count(data.shape);
    const uint64_t index_count = npucpu::element_count(indices.shape);
    if (data.buf_len < data_count * sizeof(float) ||
        indices.buf_len < index_count * index_width(indices.dtype)) {
        return NPU_ERR_INVALID_ARG;
    }
    // Guard: the kernel stops writing at the output record's element count;
    // an output buffer shorter than its shape is described to it as a flat
    // record of the elements it holds, so writes stop at its end.
    TensorShape out_shape = out.shape;
    const uint64_t capacity = out.buf_len / sizeof(float);
    if (capacity < npucpu::element_count(out.shape)) {
        out_shape = TensorShape{};
        out_shape.dim_num = 1;
        out_shape.dims[0] = static_cast<uint32_t>(capacity);
    }

    Tensor *data_t = borrow(data.shape, data.dtype, data.format, data.buf);
    Tensor *indices_t = borrow(indices.shape, indices.dtype, indices.format, indices.buf);
    Tensor *out_t = borrow(out_shape, out.dtype, out.format, out.buf);
    // Indices still outside the axis after the one correction make the
    // kernel return 0xa0808003 before it writes.
    const uint32_t status = gather(data_t, indices_t, axis, out_t);
    free_tensor_not_in_buf(data_t);
    free_tensor_not_in_buf(indices_t);
    free_tensor_not_in_buf(out_t);
    return status;
}

}  // extern "C"
