#include "binary_ops.h"

#include "op_log.h"

namespace npucpu {

TensorShape binary_output_shape(const TensorShape &a, const TensorShape &b) {
    const TensorShape &longer = a.dim_num >= b.dim_num ? a : b;
    TensorShape out{};
    out.dim_num = longer.dim_num;
    for (uint32_t k = 0; k < longer.dim_num; ++k) out.dims[k] = longer.dims[k];
    int32_t i = static_cast<int32_t>(a.dim_num) - 1;
    int32_t j = static_cast<int32_t>(b.dim_num) - 1;
    const int32_t R = out.dim_num;
    for (; i >= 0 && j >= 0; --i, --j) {
        const bool b_wins = static_cast<int32_t>(b.dims[j]) > static_cast<int32_t>(a.dims[i]);
        out.dims[R - b.dim_num + j] = b_wins ? b.dims[j] : a.dims[i];
    }
    return out;
}

uint32_t binary_infershape(OperatorContext *handle, const char *unit, const char *word) {
    if (input_count(handle) != 2) {
        NPU_ERROR_AS(unit, "%s only support 2 inputs \n", word);
        return NPU_ERR_INPUT_NUM;
    }
    const TensorInfo in0 = input_info(handle, 0);
    const TensorInfo in1 = input_info(handle, 1);
    set_output_desc(handle, 0, binary_output_shape(in0.shape, in1.shape), in0.dtype, in0.format);
    return NPU_OK;
}

uint32_t binary_check_supported(OperatorContext *handle) {
    const TensorInfo in0 = input_info(handle, 0);
    const TensorInfo in1 = input_info(handle, 1);
    return in0.dtype == NPU_DTYPE_FLOAT32 && in1.dtype == NPU_DTYPE_FLOAT32 ? 1u : 0u;
}

}  // namespace npucpu
