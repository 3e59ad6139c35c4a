// Element-wise sum of two float tensors with broadcasting.
#include "npucpu.h"
#include "utils/binary_ops.h"

extern "C" {

NPU_API uint32_t add_infershape(OperatorContext *handle) {
    return npucpu::binary_infershape(handle, __FILE__, "add");
}

NPU_API uint32_t add_check_supported(OperatorContext *handle) {
    return npucpu::binary_check_supported(handle);
}

NPU_API uint32_t add_compute(OperatorContext *handle) {
    return npucpu::binary_compute(handle, [](float a, float b) { return a + b; }, npucpu::BinaryKind::Add);
}

}  // extern "C"
