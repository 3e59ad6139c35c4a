// Element-wise product of two float tensors with broadcasting.
#include "npucpu.h"
#include "utils/binary_ops.h"

extern "C" {

NPU_API uint32_t mul_infershape(OperatorContext *handle) {
    return npucpu::binary_infershape(handle, __FILE__, "mul");
}

NPU_API uint32_t mul_check_supported(OperatorContext *handle) {
    return npucpu::binary_check_supported(handle);
}

NPU_API uint32_t mul_compute(OperatorContext *handle) {
    return npucpu::binary_compute(handle, [](float a, float b) { return a * b; }, npucpu::BinaryKind::Mul);
}

}  // extern "C"
