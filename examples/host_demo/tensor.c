#include "tensor.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static const struct {
    uint32_t code;
    const char *name;
    size_t size;
} kDtypes[] = {
    {NPU_DTYPE_FLOAT32, "float32", 4}, {NPU_DTYPE_FLOAT64, "float64", 8},
    {NPU_DTYPE_INT8, "int8", 1},       {NPU_DTYPE_INT16, "int16", 2},
    {NPU_DTYPE_INT32, "int32", 4},     {NPU_DTYPE_INT64, "int64", 8},
    {NPU_DTYPE_UINT8, "uint8", 1},     {NPU_DTYPE_UINT16, "uint16", 2},
    {NPU_DTYPE_UINT32, "uint32", 4},   {NPU_DTYPE_UINT64, "uint64", 8},
    {NPU_DTYPE_FLOAT16, "float16", 2}, {NPU_DTYPE_BOOL, "bool", 1},
};
#define DTYPE_COUNT (sizeof kDtypes / sizeof kDtypes[0])

size_t dtype_size(uint32_t dtype) {
    for (size_t i = 0; i < DTYPE_COUNT; ++i)
        if (kDtypes[i].code == dtype) return kDtypes[i].size;
    return 0;
}

const char *dtype_name(uint32_t dtype) {
    for (size_t i = 0; i < DTYPE_COUNT; ++i)
        if (kDtypes[i].code == dtype) return kDtypes[i].name;
    return "?";
}

int dtype_from_name(const char *name) {
    for (size_t i = 0; i < DTYPE_COUNT; ++i)
        if (strcmp(kDtypes[i].name, name) == 0) return (int)kDtypes[i].code;
    return -1;
}

uint64_t shape_elements(const TensorShape *shape) {
    uint64_t n = 1;
    for (uint32_t i = 0; i < shape->dim_num && i < NPU_MAX_DIMS; ++i) n *= shape->dims[i];
    return n;
}

void shape_format(const TensorShape *shape, char *out, size_t out_len) {
    if (shape->dim_num == 0) {
        snprintf(out, out_len, "scalar");
        return;
    }
    size_t used = 0;
    out[0] = '\0';
    for (uint32_t i = 0; i < shape->dim_num && i < NPU_MAX_DIMS && used < out_len; ++i) {
        int n = snprintf(out + used, out_len - used, i ? "x%u" : "%u", shape->dims[i]);
        if (n < 0) break;
        used += (size_t)n;
    }
}

int shape_parse(const char *text, TensorShape *shape) {
    memset(shape, 0, sizeof *shape);
    if (strcmp(text, "scalar") == 0) return 0;
    const char *p = text;
    for (;;) {
        if (shape->dim_num == NPU_MAX_DIMS || *p < '0' || *p > '9') return -1;
        char *end;
        errno = 0;
        unsigned long long v = strtoull(p, &end, 10);
        if (errno != 0 || v > UINT32_MAX) return -1;
        shape->dims[shape->dim_num++] = (uint32_t)v;
        if (*end == '\0') return 0;
        if (*end != 'x') return -1;
        p = end + 1;
    }
}

void host_tensor_free(HostTensor *t) {
    if (t->owns_data) free(t->data);
    t->data = NULL;
    t->owns_data = 0;
}
