// Element-wise rectifier of a float tensor: negatives become +0; NaN and -0
// pass through unchanged (neither compares below zero). The whole output
// buffer is cleared first, so bytes past the last whole element read as 0.
#include "npucpu.h"
#include "utils/unary_ops.h"

extern "C" {

NPU_API uint32_t relu_infershape(OperatorContext *handle) {
    return npucpu::unary_infershape(handle, __FILE__, "relu");
}

NPU_API uint32_t relu_check_supported(OperatorContext *handle) {
    return npucpu::unary_check_supported(handle);
}

NPU_API uint32_t relu_compute(OperatorContext *handle) {
    return npucpu::unary_compute(handle, [](float x) { return x < 0.0f ? 0.0f : x; },
                                 npucpu::UnaryClear::kWholeOutput);
}

}  // extern "C"
