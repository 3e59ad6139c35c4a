// Global max pooling: the maximum over every spatial position of each
// (batch, channel) plane of a row-major [N, C, spatial...] float tensor.
#include <limits>

#include "npucpu.h"
#include "utils/global_pool.h"

namespace {

// Start value of every maximum: 1.17549435e-38, bits 0x00800000.
constexpr float kMaxStart = std::numeric_limits<float>::min();

}  // namespace

extern "C" {

NPU_API uint32_t global_maxpool_infershape(OperatorContext *handle) {
    return npucpu::global_pool_infershape(handle, __FILE__, "global_maxpool");
}

NPU_API uint32_t global_maxpool_check_supported(OperatorContext *handle) {
    return npucpu::global_pool_check_supported(handle);
}

NPU_API uint32_t global_maxpool_compute(OperatorContext *handle) {
    return npucpu::global_pool_compute(handle, [](const float *x, uint64_t n, uint32_t) {
        // An element replaces the maximum only when strictly greater: the
        // first of equal maxima stays, NaN never wins, and a plane of values
        // all at or below the start (negatives, zeros, no elements) yields
        // the start value.
        float best = kMaxStart;
        for (uint64_t j = 0; j < n; ++j) {
            if (x[j] > best) best = x[j];
        }
        return best;
    });
}

}  // extern "C"
