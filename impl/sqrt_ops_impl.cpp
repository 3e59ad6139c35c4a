// Element-wise single-precision square root of a float tensor; negative
// inputs give NaN.
#include <cmath>

#include "npucpu.h"
#include "utils/unary_ops.h"

extern "C" {

NPU_API uint32_t sqrt_infershape(OperatorContext *handle) {
    return npucpu::unary_infershape(handle, __FILE__, "sqrt");
}

NPU_API uint32_t sqrt_check_supported(OperatorContext *handle) {
    return npucpu::unary_check_supported(handle);
}

NPU_API uint32_t sqrt_compute(OperatorContext *handle) {
    return npucpu::unary_compute(handle, [](float x) { return std::sqrt(x); },
                                 npucpu::UnaryClear::kNo);
}

}  // extern "C"
