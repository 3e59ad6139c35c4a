// Element-wise floor of a float tensor (round toward negative infinity).
#include <cmath>

#include "npucpu.h"
#include "utils/unary_ops.h"

extern "C" {

NPU_API uint32_t floor_infershape(OperatorContext *handle) {
    return npucpu::unary_infershape(handle, __FILE__, "floor");
}

NPU_API uint32_t floor_check_supported(OperatorContext *handle) {
    return npucpu::unary_check_supported(handle);
}

NPU_API uint32_t floor_compute(OperatorContext *handle) {
    return npucpu::unary_compute(handle, [](float x) { return std::floor(x); },
                                 npucpu::UnaryClear::kNo);
}

}  // extern "C"
