/* Smallest useful host of an installed libnpucpu: relu on four values.
 * Exits 0 when the library computed what relu must give. */
#include <npucpu.h>
#include <stdio.h>

int main(void) {
    float in[4] = {-2.0f, -0.5f, 0.0f, 3.0f};
    float out[4] = {9.0f, 9.0f, 9.0f, 9.0f};
    const float want[4] = {0.0f, 0.0f, 0.0f, 3.0f};
    TensorShape shape = {{4}, 1};

    OperatorContext *h = NULL;
    qv_kel_custom_create_handle(&h);
    qv_kel_custom_set_inputs_num(h, 1);
    qv_kel_custom_set_outputs_num(h, 1);
    qv_kel_custom_set_input_by_index(h, 0, NPU_DTYPE_FLOAT32, NPU_FORMAT_NCHW, &shape, in,
                                     sizeof in, 0);
    uint32_t status = relu_infershape(h);
    if (status == NPU_OK) {
        qv_kel_custom_set_output_buf_by_index(h, 0, out, sizeof out);
        status = relu_check_supported(h) ? relu_compute(h) : NPU_ERR_UNSUPPORTED;
    }
    qv_kel_custom_destory_handle(&h);

    int ok = status == NPU_OK;
    for (int i = 0; i < 4; ++i) ok = ok && out[i] == want[i];
    printf("relu: status 0x%08x, out %g %g %g %g: %s\n", status, out[0], out[1], out[2],
           out[3], ok ? "ok" : "WRONG");
    return ok ? 0 : 1;
}
