// Element-wise mean of any number (at least one) of float tensors: their sum,
// broadcast to a common shape and added in input order, divided by the count.
#include "npucpu.h"
#include "utils/variadic_ops.h"

extern "C" {

NPU_API uint32_t mean_infershape(OperatorContext *handle) {
    return npucpu::variadic_infershape(handle, __FILE__, "mean");
}

NPU_API uint32_t mean_check_supported(OperatorContext *handle) {
    return npucpu::variadic_check_supported(handle);
}

NPU_API uint32_t mean_compute(OperatorContext *handle) {
    return npucpu::variadic_compute(handle, npucpu::VariadicMode::kMean);
}

}  // extern "C"
