#include "op_context.h"

namespace npucpu {

uint32_t input_count(OperatorContext *handle) {
    uint32_t n = 0;
    qv_kel_custom_get_input_num(handle, &n);
    return n;
}

uint32_t output_count(OperatorContext *handle) {
    uint32_t n = 0;
    qv_kel_custom_get_output_num(handle, &n);
    return n;
}

TensorInfo input_info(OperatorContext *handle, uint32_t index) {
    TensorInfo t;
    qv_kel_custom_get_input_shape_by_index(handle, index, &t.shape);
    qv_kel_custom_get_input_dtype_by_index(handle, index, &t.dtype);
    qv_kel_custom_get_input_format_by_index(handle, index, &t.format);
    qv_kel_custom_get_input_buf_len_by_index(handle, index, &t.buf_len);
    t.buf = qv_kel_custom_get_input_buf_by_index(handle, index);
    return t;
}

TensorInfo output_info(OperatorContext *handle, uint32_t index) {
    TensorInfo t;
    qv_kel_custom_get_output_shape_by_index(handle, index, &t.shape);
    qv_kel_custom_get_output_dtype_by_index(handle, index, &t.dtype);
    qv_kel_custom_get_output_format_by_index(handle, index, &t.format);
    qv_kel_custom_get_output_buf_len_by_index(handle, index, &t.buf_len);
    t.buf = qv_kel_custom_get_output_buf_by_index(handle, index);
    return t;
}

void set_output_desc(OperatorContext *handle, uint32_t index, const TensorShape &shape,
                     uint32_t dtype, uint32_t format) {
    qv_kel_custom_set_output_shape_by_index(handle, index, &shape);
    qv_kel_custom_set_output_dtype_by_index(handle, index, dtype);
    qv_kel_custom_set_output_format_by_index(handle, index, format);
}

uint32_t element_count(const TensorShape &shape) { return GetElemSize(&shape); }

int64_t attr_int(OperatorContext *handle, const char *name, int64_t def) {
    int64_t v = def;
    qv_kel_custom_get_attr_int(qv_kel_custom_get_attr_by_name(handle, name), &v);
    return v;
}

float attr_float(OperatorContext *handle, const char *name, float def) {
    float v = def;
    qv_kel_custom_get_attr_float(qv_kel_custom_get_attr_by_name(handle, name), &v);
    return v;
}

std::vector<int64_t> attr_ints(OperatorContext *handle, const char *name) {
    const AttrRecord *a = qv_kel_custom_get_attr_by_name(handle, name);
    uint64_t n = 0;
    std::vector<int64_t> values;
    if (qv_kel_custom_get_attr_ints_size(a, &n) != NPU_OK) return values;
    values.resize(n);
    for (uint64_t i = 0; i < n; ++i) qv_kel_custom_get_attr_ints_by_index(a, i, &values[i]);
    return values;
}

std::vector<float> attr_floats(OperatorContext *handle, const char *name) {
    const AttrRecord *a = qv_kel_custom_get_attr_by_name(handle, name);
    uint64_t n = 0;
    std::vector<float> values;
    if (qv_kel_custom_get_attr_floats_size(a, &n) != NPU_OK) return values;
    values.resize(n);
    for (uint64_t i = 0; i < n; ++i) qv_kel_custom_get_attr_floats_by_index(a, i, &values[i]);
    return values;
}

std::string attr_string(OperatorContext *handle, const char *name, uint64_t n, const char *def) {
    std::string buf(n + 1, '\0');
    if (qv_kel_custom_get_attr_string(qv_kel_custom_get_attr_by_name(handle, name), &buf[0], n) !=
        NPU_OK) {
        return def;
    }
    buf.resize(std::char_traits<char>::length(buf.c_str()));
    return buf;
}

bool has_attr(OperatorContext *handle, const char *name) {
    return qv_kel_custom_get_attr_by_name(handle, name) != nullptr;
}

}  // namespace npucpu
