// Element-wise difference of two float tensors with broadcasting (input 0
// minus input 1).
#include "npucpu.h"
#include "utils/binary_ops.h"

extern "C" {

NPU_API uint32_t sub_infershape(OperatorContext *handle) {
    return npucpu::binary_infershape(handle, __FILE__, "sub");
}

NPU_API uint32_t sub_check_supported(OperatorContext *handle) {
    return npucpu::binary_check_supported(handle);
}

NPU_API uint32_t sub_compute(OperatorContext *handle) {
    return npucpu::binary_compute(handle, [](float a, float b) { return a - b; }, npucpu::BinaryKind::Sub);
}

}  // extern "C"
