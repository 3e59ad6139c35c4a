// Element-wise quotient of two float tensors with broadcasting (input 0
// divided by input 1); a zero divisor gives the IEEE infinity or NaN.
#include "npucpu.h"
#include "utils/binary_ops.h"

extern "C" {

NPU_API uint32_t div_infershape(OperatorContext *handle) {
    return npucpu::binary_infershape(handle, __FILE__, "div");
}

NPU_API uint32_t div_check_supported(OperatorContext *handle) {
    return npucpu::binary_check_supported(handle);
}

NPU_API uint32_t div_compute(OperatorContext *handle) {
    return npucpu::binary_compute(handle, [](float a, float b) { return a / b; }, npucpu::BinaryKind::Div);
}

}  // extern "C"
