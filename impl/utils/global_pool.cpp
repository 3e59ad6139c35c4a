#include "global_pool.h"

#include "op_log.h"

namespace npucpu {

uint32_t global_pool_plane_size(const TensorShape &s) {
    return s.dim_num > 2 ? accumulate_mul(s.dims, 2, s.dim_num) : 1u;
}

uint32_t global_pool_infershape(OperatorContext *handle, const char *unit, const char *word) {
    if (input_count(handle) != 1) {
        NPU_ERROR_AS(unit, "%s only support 1 inputs \n", word);
        return NPU_ERR_INPUT_NUM;
    }
    const TensorInfo in = input_info(handle, 0);
    TensorShape out{};
    out.dim_num = in.shape.dim_num;
    out.dims[0] = in.shape.dims[0];
    out.dims[1] = in.shape.dims[1];
    for (uint32_t k = 2; k < in.shape.dim_num; ++k) out.dims[k] = 1;
    set_output_desc(handle, 0, out, in.dtype, in.format);
    return NPU_OK;
}

uint32_t global_pool_check_supported(OperatorContext *handle) {
    return input_info(handle, 0).dtype == NPU_DTYPE_FLOAT32 ? 1u : 0u;
}

}  // namespace npucpu
