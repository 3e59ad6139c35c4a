/* Named host tensors: the buffers a runtime owns between operator calls. */
#ifndef HOST_DEMO_TENSOR_H
#define HOST_DEMO_TENSOR_H

#include <stddef.h>

#include "npucpu.h"

#define DEMO_NAME_LEN 64

typedef struct HostTensor {
    char name[DEMO_NAME_LEN];
    uint32_t dtype;  /* NPU_DTYPE_* */
    uint32_t format; /* NPU_FORMAT_* */
    TensorShape shape;
    void *data;      /* NULL for an absent input */
    uint64_t len;    /* bytes */
    int owns_data;   /* 0 for a view of another tensor's buffer */
} HostTensor;

/* Element size of a data type code, 0 if unknown. */
size_t dtype_size(uint32_t dtype);
/* "float32" ... for a code; "?" if unknown. */
const char *dtype_name(uint32_t dtype);
/* Code of a name ("float32", "int64" ...); -1 if unknown. */
int dtype_from_name(const char *name);

/* Product of the dims (1 for rank 0). */
uint64_t shape_elements(const TensorShape *shape);
/* "1x3x32x32", "scalar" for rank 0. */
void shape_format(const TensorShape *shape, char *out, size_t out_len);
/* Parses "1x3x32x32" or "scalar"; returns 0 or -1. */
int shape_parse(const char *text, TensorShape *shape);

void host_tensor_free(HostTensor *t);

#endif
