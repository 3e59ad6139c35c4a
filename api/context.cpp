// Operator context lifecycle: creation, counts, whole-record setters and
// destruction.
#include <cstdlib>
#include <cstring>

#include "context_internal.h"

namespace npucpu {

TensorDesc *find_desc(OperatorContext *handle, Side side, uint32_t index, const char *func,
                      int32_t line) {
    if (handle == nullptr) {
        print_log(kLevelErr, func, line, "handle is null");
        return nullptr;
    }
    uint32_t count = side == Side::Input ? handle->input_num : handle->output_num;
    if (index >= count) {
        print_log(kLevelErr, func, line, "idx [%d] is out of range, total tensor num [%d]",
                  static_cast<int>(index), static_cast<int>(count));
        return nullptr;
    }
    return side == Side::Input ? &handle->inputs[index] : &handle->outputs[index];
}

namespace {

TensorDesc *new_desc_array(uint32_t num) {
    return static_cast<TensorDesc *>(std::calloc(num, sizeof(TensorDesc)));
}

}  // namespace

bool shape_ok(const TensorShape *shape) {
    return shape != nullptr && shape->dim_num <= NPU_MAX_DIMS;
}

void copy_shape_prefix(TensorShape *dst, const TensorShape *src) {
    dst->dim_num = src->dim_num;
    std::memcpy(dst->dims, src->dims, src->dim_num * sizeof(uint32_t));
}

namespace {

// Stores a whole description (shape prefix, type, format, both buffers).
void describe(TensorDesc *d, uint32_t dtype, uint32_t format, const TensorShape *shape, void *buf,
              uint64_t buf_len) {
    copy_shape_prefix(&d->shape, shape);
    d->dtype = dtype;
    d->format = format;
    d->first_batch_buf = buf;
    d->buf = buf;
    d->buf_len = buf_len;
}

}  // namespace

}  // namespace npucpu

using npucpu::describe;
using npucpu::new_desc_array;
using npucpu::shape_ok;

extern "C" {

NPU_API uint32_t qv_kel_custom_create_handle(OperatorContext **handle_out) {
    if (handle_out == nullptr) return NPU_ERR_INVALID_ARG;
    *handle_out = static_cast<OperatorContext *>(std::calloc(1, sizeof(OperatorContext)));
    return NPU_OK;
}

NPU_API uint32_t qv_kel_custom_set_inputs_num(OperatorContext *handle, uint32_t num) {
    if (handle == nullptr) {
        NPU_API_LOG_ERR("handle is null");
        return NPU_ERR_INVALID_ARG;
    }
    if (num == handle->input_num) return NPU_OK;
    std::free(handle->inputs);
    handle->inputs = new_desc_array(num);
    handle->input_num = num;
    return NPU_OK;
}

NPU_API uint32_t qv_kel_custom_set_outputs_num(OperatorContext *handle, uint32_t num) {
    if (handle == nullptr) {
        NPU_API_LOG_ERR("handle is null");
        return NPU_ERR_INVALID_ARG;
    }
    if (num == handle->output_num) return NPU_OK;
    // The released outputs' names go with them, so nothing leaks.
    for (uint32_t i = 0; handle->outputs != nullptr && i < handle->output_num; ++i) {
        qv_npu_str_destory(&handle->outputs[i].name);
    }
    std::free(handle->outputs);
    handle->outputs = new_desc_array(num);
    handle->output_num = num;
    return NPU_OK;
}

NPU_API uint32_t qv_kel_custom_set_attrs_num(OperatorContext *handle, uint32_t num) {
    if (handle == nullptr) {
        NPU_API_LOG_ERR("handle is null");
        return NPU_FAIL;
    }
    if (num == handle->attr_num) return NPU_OK;
    // A changed count releases the old attribute array (never the context).
    std::free(handle->attrs);
    handle->attrs = static_cast<AttrRecord *>(std::calloc(num, sizeof(AttrRecord)));
    handle->attr_num = num;
    return NPU_OK;
}

NPU_API uint32_t qv_kel_custom_set_input_by_index(OperatorContext *handle, uint32_t index,
                                                  uint32_t dtype, uint32_t format,
                                                  const TensorShape *shape, void *buf,
                                                  uint64_t buf_len, uint32_t batch_mode) {
    TensorDesc *d = NPU_FIND_INPUT(handle, index);
    if (d == nullptr) return NPU_ERR_INVALID_ARG;
    if (!shape_ok(shape)) return NPU_ERR_INVALID_ARG;
    describe(d, dtype, format, shape, buf, buf_len);
    d->batch_mode = batch_mode;
    return NPU_OK;
}

NPU_API uint32_t qv_kel_custom_set_output_by_index(OperatorContext *handle, uint32_t index,
                                                   uint32_t dtype, uint32_t format,
                                                   const TensorShape *shape, void *buf,
                                                   uint64_t buf_len) {
    TensorDesc *d = NPU_FIND_OUTPUT(handle, index);
    if (d == nullptr) return NPU_ERR_INVALID_ARG;
    if (!shape_ok(shape)) return NPU_ERR_INVALID_ARG;
    describe(d, dtype, format, shape, buf, buf_len);
    return NPU_OK;
}

NPU_API uint32_t qv_kel_custom_set_attr_by_index(OperatorContext *handle, uint32_t index,
                                                 const char *name, uint32_t reserved,
                                                 uint32_t dtype, void *data, uint64_t data_len) {
    (void)reserved;
    if (handle == nullptr) {
        NPU_API_LOG_ERR("handle is null");
        return NPU_FAIL;
    }
    if (index >= handle->attr_num) {
        NPU_API_LOG_ERR("idx [%d] is out of range, total attr num [%d]", static_cast<int>(index),
                        static_cast<int>(handle->attr_num));
        return NPU_ERR_INVALID_ARG;
    }
    AttrRecord *a = &handle->attrs[index];
    a->dtype = dtype;
    a->data = data;
    a->data_len = data_len;
    if (name != nullptr) {
        // Names longer than the record are cut so the copy stays inside it.
        std::strncpy(a->name, name, NPU_ATTR_NAME_LEN - 1);
        a->name[NPU_ATTR_NAME_LEN - 1] = '\0';
    } else {
        a->name[0] = '\0';
    }
    return NPU_OK;
}

NPU_API uint32_t qv_kel_custom_destory_handle(OperatorContext **handle_ptr) {
    if (handle_ptr == nullptr || *handle_ptr == nullptr) return NPU_OK;
    OperatorContext *h = *handle_ptr;
    for (uint32_t i = 0; h->outputs != nullptr && i < h->output_num; ++i) {
        qv_npu_str_destory(&h->outputs[i].name);
    }
    std::free(h->inputs);
    std::free(h->outputs);
    std::free(h->attrs);
    std::free(h);
    *handle_ptr = nullptr;
    return NPU_OK;
}

}  // extern "C"
