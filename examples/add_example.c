/* A minimal host: runs `add` with broadcasting through the public API, the
 * way an NPU runtime calls the library for a CPU fallback. */
#include <stdio.h>
#include <stdlib.h>

#include "npucpu.h"

static TensorShape make_shape(uint8_t rank, const uint32_t *dims) {
    TensorShape s = {{0}, 0};
    for (uint8_t i = 0; i < rank; ++i) s.dims[i] = dims[i];
    s.dim_num = rank;
    return s;
}

int main(void) {
    float a[6] = {1, 2, 3, 4, 5, 6};  /* shape (2, 3) */
    float b[3] = {10, 20, 30};        /* shape (3), broadcast over rows */
    const uint32_t a_dims[] = {2, 3};
    const uint32_t b_dims[] = {3};
    TensorShape a_shape = make_shape(2, a_dims);
    TensorShape b_shape = make_shape(1, b_dims);

    OperatorContext *h = NULL;
    qv_kel_custom_create_handle(&h);
    qv_kel_custom_set_inputs_num(h, 2);
    qv_kel_custom_set_outputs_num(h, 1);
    qv_kel_custom_set_input_by_index(h, 0, NPU_DTYPE_FLOAT32, NPU_FORMAT_NCHW, &a_shape, a,
                                     sizeof a, 0);
    qv_kel_custom_set_input_by_index(h, 1, NPU_DTYPE_FLOAT32, NPU_FORMAT_NCHW, &b_shape, b,
                                     sizeof b, 0);

    uint32_t status = add_infershape(h);
    if (status != NPU_OK) {
        fprintf(stderr, "add_infershape failed: 0x%08x\n", status);
        return 1;
    }
    TensorShape out_shape;
    qv_kel_custom_get_output_shape_by_index(h, 0, &out_shape);
    uint32_t count = GetElemSize(&out_shape);
    float *out = (float *)calloc(count, sizeof(float));
    qv_kel_custom_set_output_buf_by_index(h, 0, out, (uint64_t)count * sizeof(float));

    printf("add supported: %u\n", add_check_supported(h));
    status = add_compute(h);
    printf("add status: 0x%08x\n", status);
    printf("output shape: (");
    for (uint32_t i = 0; i < out_shape.dim_num; ++i) printf(i ? ", %u" : "%u", out_shape.dims[i]);
    printf(")\n");
    for (uint32_t r = 0; r < out_shape.dims[0]; ++r) {
        for (uint32_t c = 0; c < out_shape.dims[1]; ++c) printf("%6.1f", out[r * out_shape.dims[1] + c]);
        printf("\n");
    }
    free(out);
    qv_kel_custom_destory_handle(&h);
    return status == NPU_OK ? 0 : 1;
}
