/* The public header compiles as C11; a C host can create a context, run an
 * operator and read the records' fields. */
#include <stdio.h>
#include <string.h>

#include "npucpu.h"

int main(void) {
    OperatorContext *h = NULL;
    if (qv_kel_custom_create_handle(&h) != NPU_OK || h == NULL) return 1;
    qv_kel_custom_set_inputs_num(h, 2);
    qv_kel_custom_set_outputs_num(h, 1);
    TensorShape s;
    memset(&s, 0, sizeof s);
    s.dim_num = 1;
    s.dims[0] = 2;
    float a[2] = {1.5f, 2.5f}, b[2] = {0.5f, 0.5f}, out[2] = {0, 0};
    qv_kel_custom_set_input_by_index(h, 0, NPU_DTYPE_FLOAT32, NPU_FORMAT_NCHW, &s, a, sizeof a, 0);
    qv_kel_custom_set_input_by_index(h, 1, NPU_DTYPE_FLOAT32, NPU_FORMAT_NCHW, &s, b, sizeof b, 0);
    if (add_infershape(h) != NPU_OK) return 2;
    qv_kel_custom_set_output_buf_by_index(h, 0, out, sizeof out);
    if (add_check_supported(h) != 1 || add_compute(h) != NPU_OK) return 3;
    if (out[0] != 2.0f || out[1] != 3.0f) return 4;
    if (h->outputs[0].wstride != 8) return 5;
    if (strcmp(LEVEL_STR[4], "Err") != 0) return 6;
    qv_kel_custom_destory_handle(&h);
    if (h != NULL) return 7;
    printf("c header ok\n");
    return 0;
}
