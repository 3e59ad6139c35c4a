// Per-index getters and setters of the tensor descriptions in a context.
#include <cstring>

#include "context_internal.h"

namespace npucpu {

// Bytes per element used for the automatic output width stride; codes 14 and
// above give a stride of 0. Deliberately not the get_dtype_size table.
constexpr uint32_t kRowUnit[14] = {4, 8, 1, 2, 4, 8, 1, 2, 4, 8, 0, 0, 0, 1};

void refresh_output_wstride(TensorDesc *d) {
    if (d->wstride_fixed != 0) return;
    if (d->shape.dim_num == 0 || d->dtype >= 14) {
        d->wstride = 0;  // no last dim (an empty shape) or no row unit
        return;
    }
    d->wstride = d->shape.dims[d->shape.dim_num - 1] * kRowUnit[d->dtype];
}

}  // namespace npucpu

namespace {

using npucpu::Side;

// Byte address of batch `batch` of a buffer whose batches are buf_len apart.
void *batch_address(void *first, uint64_t buf_len, uint32_t batch) {
    return static_cast<char *>(first) + static_cast<uint64_t>(batch) * buf_len;
}

}  // namespace

// Each routine below: find the record (null handle or bad index: logged,
// NPU_ERR_INVALID_ARG or null), then read or write one field.
#define NPU_DESC_OR_FAIL(side, h, i)                                                            \
    TensorDesc *d = ::npucpu::find_desc((h), Side::side, (i), __func__, __LINE__);                \
    if (d == nullptr) return NPU_ERR_INVALID_ARG

#define NPU_DESC_OR_NULL(side, h, i)                                                            \
    TensorDesc *d = ::npucpu::find_desc((h), Side::side, (i), __func__, __LINE__);                \
    if (d == nullptr) return nullptr

extern "C" {

NPU_API uint32_t qv_kel_custom_get_input_num(OperatorContext *handle, uint32_t *num_out) {
    if (handle == nullptr) {
        NPU_API_LOG_ERR("handle is null");
        return NPU_ERR_INVALID_ARG;
    }
    *num_out = handle->input_num;
    return NPU_OK;
}

NPU_API uint32_t qv_kel_custom_get_output_num(OperatorContext *handle, uint32_t *num_out) {
    if (handle == nullptr) {
        NPU_API_LOG_ERR("handle is null");
        return NPU_ERR_INVALID_ARG;
    }
    *num_out = handle->output_num;
    return NPU_OK;
}

NPU_API uint32_t qv_kel_custom_get_input_shape_by_index(OperatorContext *handle, uint32_t index,
                                                        TensorShape *shape_out) {
    NPU_DESC_OR_FAIL(Input, handle, index);
    npucpu::copy_shape_prefix(shape_out, &d->shape);
    return NPU_OK;
}

NPU_API uint32_t qv_kel_custom_get_output_shape_by_index(OperatorContext *handle, uint32_t index,
                                                         TensorShape *shape_out) {
    NPU_DESC_OR_FAIL(Output, handle, index);
    npucpu::copy_shape_prefix(shape_out, &d->shape);
    return NPU_OK;
}

NPU_API uint32_t qv_kel_custom_get_input_dtype_by_index(OperatorContext *handle, uint32_t index,
                                                        uint32_t *dtype_out) {
    NPU_DESC_OR_FAIL(Input, handle, index);
    *dtype_out = d->dtype;
    return NPU_OK;
}

NPU_API uint32_t qv_kel_custom_get_output_dtype_by_index(OperatorContext *handle, uint32_t index,
                                                         uint32_t *dtype_out) {
    NPU_DESC_OR_FAIL(Output, handle, index);
    *dtype_out = d->dtype;
    return NPU_OK;
}

NPU_API uint32_t qv_kel_custom_get_input_format_by_index(OperatorContext *handle, uint32_t index,
                                                         uint32_t *format_out) {
    NPU_DESC_OR_FAIL(Input, handle, index);
    *format_out = d->format;
    return NPU_OK;
}

NPU_API uint32_t qv_kel_custom_get_output_format_by_index(OperatorContext *handle, uint32_t index,
                                                          uint32_t *format_out) {
    NPU_DESC_OR_FAIL(Output, handle, index);
    *format_out = d->format;
    return NPU_OK;
}

NPU_API void *qv_kel_custom_get_input_buf_by_index(OperatorContext *handle, uint32_t index) {
    NPU_DESC_OR_NULL(Input, handle, index);
    return d->buf;
}

NPU_API void *qv_kel_custom_get_output_buf_by_index(OperatorContext *handle, uint32_t index) {
    NPU_DESC_OR_NULL(Output, handle, index);
    return d->buf;
}

NPU_API uint32_t qv_kel_custom_get_input_buf_len_by_index(OperatorContext *handle, uint32_t index,
                                                          uint64_t *len_out) {
    NPU_DESC_OR_FAIL(Input, handle, index);
    *len_out = d->buf_len;
    return NPU_OK;
}

NPU_API uint32_t qv_kel_custom_get_output_buf_len_by_index(OperatorContext *handle, uint32_t index,
                                                           uint64_t *len_out) {
    NPU_DESC_OR_FAIL(Output, handle, index);
    *len_out = d->buf_len;
    return NPU_OK;
}

NPU_API uint32_t qv_kel_custom_set_input_buf_by_index(OperatorContext *handle, uint32_t index,
                                                      void *buf, uint64_t buf_len) {
    NPU_DESC_OR_FAIL(Input, handle, index);
    d->buf = buf;
    d->buf_len = buf_len;
    return NPU_OK;
}

NPU_API uint32_t qv_kel_custom_set_output_buf_by_index(OperatorContext *handle, uint32_t index,
                                                       void *buf, uint64_t buf_len) {
    NPU_DESC_OR_FAIL(Output, handle, index);
    d->buf = buf;
    d->buf_len = buf_len;
    return NPU_OK;
}

NPU_API uint32_t qv_kel_custom_set_input_first_batch_buf_by_index(OperatorContext *handle,
                                                                  uint32_t index, void *buf,
                                                                  uint64_t buf_len) {
    NPU_DESC_OR_FAIL(Input, handle, index);
    d->first_batch_buf = buf;
    d->buf_len = buf_len;
    return NPU_OK;
}

NPU_API uint32_t qv_kel_custom_set_output_first_batch_buf_by_index(OperatorContext *handle,
                                                                   uint32_t index, void *buf,
                                                                   uint64_t buf_len) {
    NPU_DESC_OR_FAIL(Output, handle, index);
    d->first_batch_buf = buf;
    d->buf_len = buf_len;
    return NPU_OK;
}

NPU_API void *qv_kel_custom_get_input_batch_buf_by_index(OperatorContext *handle, uint32_t index,
                                                         uint32_t batch) {
    NPU_DESC_OR_NULL(Input, handle, index);
    if (d->batch_mode != 1) return d->first_batch_buf;
    return batch_address(d->first_batch_buf, d->buf_len, batch);
}

NPU_API void *qv_kel_custom_get_output_batch_buf_by_index(OperatorContext *handle, uint32_t index,
                                                          uint32_t batch) {
    NPU_DESC_OR_NULL(Output, handle, index);
    return batch_address(d->first_batch_buf, d->buf_len, batch);
}

NPU_API uint32_t qv_kel_custom_set_input_wstride_by_index(OperatorContext *handle, uint32_t index,
                                                          uint32_t wstride) {
    NPU_DESC_OR_FAIL(Input, handle, index);
    d->wstride = wstride;
    d->wstride_fixed = 1;
    return NPU_OK;
}

NPU_API uint32_t qv_kel_custom_get_input_wstride_by_index(OperatorContext *handle, uint32_t index,
                                                          uint32_t *wstride_out) {
    NPU_DESC_OR_FAIL(Input, handle, index);
    *wstride_out = d->wstride;
    return NPU_OK;
}

NPU_API uint32_t qv_kel_custom_set_output_wstride_by_index(OperatorContext *handle, uint32_t index,
                                                           uint32_t wstride) {
    NPU_DESC_OR_FAIL(Output, handle, index);
    d->wstride = wstride;  // not fixed: a later shape or dtype change recomputes it
    return NPU_OK;
}

NPU_API uint32_t qv_kel_custom_get_output_wstride_by_index(OperatorContext *handle, uint32_t index,
                                                           uint32_t *wstride_out) {
    NPU_DESC_OR_FAIL(Output, handle, index);
    *wstride_out = d->wstride;
    return NPU_OK;
}

NPU_API uint32_t qv_kel_custom_set_output_shape_by_index(OperatorContext *handle, uint32_t index,
                                                         const TensorShape *shape) {
    NPU_DESC_OR_FAIL(Output, handle, index);
    if (!npucpu::shape_ok(shape)) return NPU_ERR_INVALID_ARG;
    npucpu::copy_shape_prefix(&d->shape, shape);
    npucpu::refresh_output_wstride(d);
    return NPU_OK;
}

NPU_API uint32_t qv_kel_custom_set_output_dtype_by_index(OperatorContext *handle, uint32_t index,
                                                         uint32_t dtype) {
    NPU_DESC_OR_FAIL(Output, handle, index);
    d->dtype = dtype;
    if (d->shape.dim_num > 0) npucpu::refresh_output_wstride(d);
    return NPU_OK;
}

NPU_API uint32_t qv_kel_custom_set_output_format_by_index(OperatorContext *handle, uint32_t index,
                                                          uint32_t format) {
    NPU_DESC_OR_FAIL(Output, handle, index);
    d->format = format;
    return NPU_OK;
}

NPU_API uint32_t qv_kel_custom_set_output_name_by_index(OperatorContext *handle, uint32_t index,
                                                        const char *name) {
    NPU_DESC_OR_FAIL(Output, handle, index);
    if (qv_npu_str_copy(&d->name, name) != 0) {
        NPU_API_LOG_ERR("copy name failed");
        return NPU_FAIL;
    }
    return NPU_OK;
}

NPU_API uint32_t qv_kel_custom_get_output_name_by_index(OperatorContext *handle, uint32_t index,
                                                        char *dst, uint32_t dst_len) {
    NPU_DESC_OR_FAIL(Output, handle, index);
    if (d->name.length > dst_len) {
        NPU_API_LOG_ERR("the length of output_name [%d] is bigger than name_len [%d]",
                        static_cast<int>(d->name.length), static_cast<int>(dst_len));
        return NPU_FAIL;
    }
    // A name never set has length 0: nothing is copied.
    if (d->name.length > 0 && d->name.data != nullptr) {
        std::memcpy(dst, d->name.data, d->name.length);
    }
    return NPU_OK;
}

}  // extern "C"
