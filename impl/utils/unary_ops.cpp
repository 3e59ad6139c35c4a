#include "unary_ops.h"

#include "op_log.h"

namespace npucpu {

uint32_t unary_infershape(OperatorContext *handle, const char *unit, const char *word) {
    if (input_count(handle) != 1) {
        NPU_ERROR_AS(unit, "%s only support 1 inputs \n", word);
        return NPU_ERR_INPUT_NUM;
    }
    const TensorInfo in = input_info(handle, 0);
    set_output_desc(handle, 0, in.shape, in.dtype, in.format);
    return NPU_OK;
}

uint32_t unary_check_supported(OperatorContext *handle) {
    uint32_t dtype = 0;
    qv_kel_custom_get_input_dtype_by_index(handle, 0, &dtype);
    return dtype == NPU_DTYPE_FLOAT32 ? 1u : 0u;
}

}  // namespace npucpu
