// Attribute lookup by name and the typed getters. Every getter answers a
// null record (an absent attribute) with a message and NPU_ERR_INVALID_ARG
// and writes nothing, so a default stored by the caller stays in place.
#include <cstring>

#include "context_internal.h"

namespace {

constexpr uint64_t kIntBytes = 8;
constexpr uint64_t kFloatBytes = 4;

}  // namespace

// Refuses a null record or one of another type, logging as the caller.
#define NPU_ATTR_OR_FAIL(attr, want, kind)                                    \
    do {                                                                      \
        if ((attr) == nullptr) {                                              \
            NPU_API_LOG_ERR("get attr error, attr is null");                  \
            return NPU_ERR_INVALID_ARG;                                       \
        }                                                                     \
        if ((attr)->dtype != (want)) {                                        \
            NPU_API_LOG_ERR("attr dtype [%d] is not " kind,                   \
                            static_cast<int>((attr)->dtype));                 \
            return NPU_ERR_INVALID_ARG;                                       \
        }                                                                     \
    } while (0)

#define NPU_INDEX_OR_FAIL(index, count)                                                   \
    do {                                                                                  \
        if ((index) >= (count)) {                                                         \
            NPU_API_LOG_ERR("index [%d] is out of range, total num: [%d]",               \
                            static_cast<int>(index), static_cast<int>(count));            \
            return NPU_ERR_INVALID_ARG;                                                   \
        }                                                                                 \
    } while (0)

extern "C" {

NPU_API AttrRecord *qv_kel_custom_get_attr_by_name(OperatorContext *handle, const char *name) {
    if (handle == nullptr) {
        NPU_API_LOG_ERR("handle is null");
        return nullptr;
    }
    if (name == nullptr || handle->attrs == nullptr) return nullptr;
    for (uint32_t i = 0; i < handle->attr_num; ++i) {
        if (std::strcmp(handle->attrs[i].name, name) == 0) return &handle->attrs[i];
    }
    return nullptr;
}

NPU_API uint32_t qv_kel_custom_get_attr_dtype(const AttrRecord *attr, uint32_t *dtype_out) {
    if (attr == nullptr) {
        NPU_API_LOG_ERR("get attr error, attr is null");
        return NPU_ERR_INVALID_ARG;
    }
    *dtype_out = attr->dtype;
    return NPU_OK;
}

NPU_API uint32_t qv_kel_custom_get_attr_float(const AttrRecord *attr, float *value_out) {
    NPU_ATTR_OR_FAIL(attr, NPU_ATTR_FLOAT, "float");
    // A value shorter than a float (or missing) leaves the default: reading it
    // would go past the host's buffer.
    if (attr->data == nullptr || attr->data_len < sizeof(float)) return NPU_ERR_INVALID_ARG;
    std::memcpy(value_out, attr->data, sizeof(float));
    return NPU_OK;
}

NPU_API uint32_t qv_kel_custom_get_attr_floats_size(const AttrRecord *attr, uint64_t *count_out) {
    NPU_ATTR_OR_FAIL(attr, NPU_ATTR_FLOATS, "floats");
    *count_out = attr->data_len / kFloatBytes;
    return NPU_OK;
}

NPU_API uint32_t qv_kel_custom_get_attr_floats_by_index(const AttrRecord *attr, uint64_t index,
                                                        float *value_out) {
    NPU_ATTR_OR_FAIL(attr, NPU_ATTR_FLOATS, "floats");
    uint64_t count = attr->data_len / kFloatBytes;
    NPU_INDEX_OR_FAIL(index, count);
    std::memcpy(value_out, static_cast<const char *>(attr->data) + index * kFloatBytes,
                sizeof(float));
    return NPU_OK;
}

NPU_API uint32_t qv_kel_custom_get_attr_int(const AttrRecord *attr, int64_t *value_out) {
    NPU_ATTR_OR_FAIL(attr, NPU_ATTR_INT, "int");
    if (attr->data == nullptr || attr->data_len < sizeof(int64_t)) return NPU_ERR_INVALID_ARG;
    std::memcpy(value_out, attr->data, sizeof(int64_t));
    return NPU_OK;
}

NPU_API uint32_t qv_kel_custom_get_attr_ints_size(const AttrRecord *attr, uint64_t *count_out) {
    NPU_ATTR_OR_FAIL(attr, NPU_ATTR_INTS, "ints");
    *count_out = attr->data_len / kIntBytes;
    return NPU_OK;
}

NPU_API uint32_t qv_kel_custom_get_attr_ints_by_index(const AttrRecord *attr, uint64_t index,
                                                      int64_t *value_out) {
    NPU_ATTR_OR_FAIL(attr, NPU_ATTR_INTS, "ints");
    uint64_t count = attr->data_len / kIntBytes;
    NPU_INDEX_OR_FAIL(index, count);
    std::memcpy(value_out, static_cast<const char *>(attr->data) + index * kIntBytes,
                sizeof(int64_t));
    return NPU_OK;
}

NPU_API uint32_t qv_kel_custom_get_attr_string(const AttrRecord *attr, char *dst, uint64_t dst_len) {
    NPU_ATTR_OR_FAIL(attr, NPU_ATTR_STRING, "string");
    uint64_t m = attr->data_len < dst_len ? attr->data_len : dst_len;
    if (m > 0 && attr->data != nullptr) std::memcpy(dst, attr->data, m);
    else m = 0;
    dst[m] = '\0';
    return NPU_OK;
}

}  // extern "C"
