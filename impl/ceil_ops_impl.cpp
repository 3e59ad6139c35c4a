// Element-wise ceiling of a float tensor (round toward positive infinity).
#include <cmath>

#include "npucpu.h"
#include "utils/unary_ops.h"

extern "C" {

NPU_API uint32_t ceil_infershape(OperatorContext *handle) {
    return npucpu::unary_infershape(handle, __FILE__, "ceil");
}

NPU_API uint32_t ceil_check_supported(OperatorContext *handle) {
    return npucpu::unary_check_supported(handle);
}

NPU_API uint32_t ceil_compute(OperatorContext *handle) {
    return npucpu::unary_compute(handle, [](float x) { return std::ceil(x); },
                                 npucpu::UnaryClear::kNo);
}

}  // extern "C"
