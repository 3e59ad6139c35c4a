// MatMul: a batched matrix product in the manner of numpy's matmul. The last
// two dims are the matrices, a rank-1 operand is a vector (its dim is dropped
// from the result) and leading dims are batches taken from the longer
// operand. The arithmetic is the `matmul` kernel's, which truncates every
// operand to an integer before multiplying: results are exact for integral
// inputs only, and that is intended.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "npucpu.h"
#include "utils/op_context.h"
#include "utils/op_log.h"

namespace {

constexpr uint32_t kInputs = 2;

// Internal Tensor record borrowing a context buffer.
Tensor *borrow(const npucpu::TensorInfo &t, const TensorShape &shape) {
    Tensor *r = static_cast<Tensor *>(std::malloc(sizeof(Tensor)));
    r->shape = shape;
    r->dtype = t.dtype;
    r->format = t.format;
    r->data = static_cast<float *>(t.buf);
    return r;
}

// Number of elements a shape describes, without 32-bit wrapping (a product
// of at most 16 dims below 2^32 each, kept from overflowing).
uint64_t shape_elems(const TensorShape &s) {
    uint64_t n = 1;
    for (uint32_t d = 0; d < s.dim_num; ++d) {
        if (s.dims[d] != 0 && n > UINT64_MAX / s.dims[d]) return UINT64_MAX;
        n *= s.dims[d];
    }
    return n;
}

// Batch count of one operand as the kernel computes it: the product of the
// dims before the matrix (before the last dim for a vector b), as a signed
// 32-bit value.
int32_t operand_batch(const TensorShape &s, bool is_b) {
    const int32_t r = s.dim_num;
    const int32_t end = r >= 2 || !is_b ? r - 2 : r - 1;
    return static_cast<int32_t>(accumulate_mul(s.dims, 0, end));
}

// The kernel's batch count: b's (at least 1) for a vector a, else the larger
// of the two; 0 or less makes the kernel do nothing.
int32_t kernel_batch(const TensorShape &a, const TensorShape &b) {
    const int32_t batch_a = operand_batch(a, false);
    const int32_t batch_b = operand_batch(b, true);
    if (a.dim_num < 2) return batch_b > 1 ? batch_b : 1;
    return batch_a > batch_b ? batch_a : batch_b;
}

// Drops dim `index` of `s` (the following dims move down).
void remove_dim(TensorShape *s, uint32_t index) {
    for (uint32_t d = index; d + 1 < s->dim_num; ++d) s->dims[d] = s->dims[d + 1];
    s->dims[s->dim_num - 1] = 0;
    --s->dim_num;
}

}  // namespace

extern "C" {

NPU_API uint32_t matmul_infershape(OperatorContext *handle) {
    if (npucpu::input_count(handle) != kInputs) {
        NPU_ERROR("matmul only support 2 inputs \n");
        return NPU_ERR_INPUT_NUM;
    }
    const npucpu::TensorInfo a = npucpu::input_info(handle, 0);
    const npucpu::TensorInfo b = npucpu::input_info(handle, 1);
    const uint32_t ra = a.shape.dim_num;
    const uint32_t rb = b.shape.dim_num;
    // Guard: a rank-0 A has no last dim to compare.
    if (ra == 0) return NPU_ERR_INVALID_ARG;
    const uint32_t r = ra > rb ? ra : rb;
    TensorShape y = ra > rb ? a.shape : b.shape;

    const uint32_t inner_b = rb > 1 ? b.shape.dims[rb - 2] : b.shape.dims[0];
    if (a.shape.dims[ra - 1] != inner_b) {
        NPU_ERROR("left shape  not match right shape \n");
        return NPU_ERR_INVALID_ARG;
    }
    if (r == 1) {
        y = TensorShape{};
        y.dim_num = 1;
        y.dims[0] = 1;
    } else {
        if (ra >= 2) y.dims[r - 2] = a.shape.dims[ra - 2];
        if (rb >= 2) y.dims[r - 1] = b.shape.dims[rb - 1];
        if (ra < 2) remove_dim(&y, r - 2);
        if (rb < 2) remove_dim(&y, r - 1);
    }
    npucpu::set_output_desc(handle, 0, y, a.dtype, a.format);
    return NPU_OK;
}

NPU_API uint32_t matmul_check_supported(OperatorContext *handle) {
    uint32_t a = 0;
    uint32_t b = 0;
    qv_kel_custom_get_input_dtype_by_index(handle, 0, &a);
    qv_kel_custom_get_input_dtype_by_index(handle, 1, &b);
    return a == NPU_DTYPE_FLOAT32 && b == NPU_DTYPE_FLOAT32 ? 1u : 0u;
}

NPU_API uint32_t matmul_compute(OperatorContext *handle) {
    const npucpu::TensorInfo a = npucpu::input_info(handle, 0);
    if (a.buf == nullptr) return NPU_ERR_INVALID_ARG;
    const npucpu::TensorInfo b = npucpu::input_info(handle, 1);
    const npucpu::TensorInfo y = npucpu::output_info(handle, 0);
    if (y.buf == nullptr) return NPU_ERR_INVALID_ARG;

    // Guards, before anything is written: B's buffer is read by the kernel
    // and must exist; both operands' buffers must cover their shapes.
    if (b.buf == nullptr) return NPU_ERR_INVALID_ARG;
    if (a.buf_len / sizeof(float) < shape_elems(a.shape) ||
        b.buf_len / sizeof(float) < shape_elems(b.shape)) {
        return NPU_ERR_INVALID_ARG;
    }
    // Guard: an operand of rank above 2 is indexed by the kernel's batch
    // count; holding another number of batches, it would be read past its
    // end (batch dims are not compared by infershape).
    // A batch count of 0 or less makes the kernel read nothing.
    const int32_t batch = kernel_batch(a.shape, b.shape);
    if (batch > 0 && ((a.shape.dim_num > 2 && operand_batch(a.shape, false) != batch) ||
                      (b.shape.dim_num > 2 && operand_batch(b.shape, true) != batch))) {
        return NPU_ERR_INVALID_ARG;
    }

    std::memset(y.buf, 0, y.buf_len);
    // Guard: the kernel stops writing at the output record's element count;
    // an output buffer shorter than its shape is described to it as a flat
    // record of the elements it holds, so writes stop at its end.
    TensorShape y_shape = y.shape;
    const uint64_t capacity = y.buf_len / sizeof(float);
    if (capacity < npucpu::element_count(y.shape)) {
        y_shape = TensorShape{};
        y_shape.dim_num = 1;
        y_shape.dims[0] = static_cast<uint32_t>(capacity);
    }
    Tensor *a_t = borrow(a, a.shape);
    Tensor *b_t = borrow(b, b.shape);
    Tensor *y_t = borrow(y, y_shape);
    const uint32_t status = matmul(a_t, b_t, y_t);
    free_tensor_not_in_buf(a_t);
    free_tensor_not_in_buf(b_t);
    free_tensor_not_in_buf(y_t);
    return status;
}

}  // extern "C"
