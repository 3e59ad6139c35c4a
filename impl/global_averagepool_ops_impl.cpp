// Global average pooling: the mean of every spatial position of each
// (batch, channel) plane of a row-major [N, C, spatial...] float tensor.
#include "npucpu.h"
#include "utils/global_pool.h"

extern "C" {

NPU_API uint32_t global_averagepool_infershape(OperatorContext *handle) {
    return npucpu::global_pool_infershape(handle, __FILE__, "global_averagepool");
}

NPU_API uint32_t global_averagepool_check_supported(OperatorContext *handle) {
    return npucpu::global_pool_check_supported(handle);
}

NPU_API uint32_t global_averagepool_compute(OperatorContext *handle) {
    return npucpu::global_pool_compute(handle, [](const float *x, uint64_t n, uint32_t spatial) {
        // Float sum in index order from +0.0; a plane of no elements gives 0 / 0.
        float sum = 0.0f;
        for (uint64_t j = 0; j < n; ++j) sum += x[j];
        return sum / static_cast<float>(spatial);
    });
}

}  // extern "C"
