// Element-wise sum of any number (at least one) of float tensors, broadcast to
// a common shape and added in input order.
#include "npucpu.h"
#include "utils/variadic_ops.h"

extern "C" {

NPU_API uint32_t sum_infershape(OperatorContext *handle) {
    return npucpu::variadic_infershape(handle, __FILE__, "sum");
}

NPU_API uint32_t sum_check_supported(OperatorContext *handle) {
    return npucpu::variadic_check_supported(handle);
}

NPU_API uint32_t sum_compute(OperatorContext *handle) {
    return npucpu::variadic_compute(handle, npucpu::VariadicMode::kSum);
}

}  // extern "C"
