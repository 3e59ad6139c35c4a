// Global max pooling: the maximum over every spatial position of each
// (batch, channel) plane of a row-major [N, C, spatial...] float tensor.
#include <limits>

#include "npucpu.h"
#include "utils/dispatch.h"
#include "utils/global_pool.h"

namespace {

// Start value of every maximum: 1.17549435e-38, bits 0x00800000.
constexpr float kMaxStart = std::numeric_limits<float>::min();

// The literal plane maximum below, in eight interleaved lanes. Only values
// strictly above the positive start can win, and equal ones among those
// have equal bits, so which lane's copy survives does not show; NaN never
// wins in any lane. The lanes vectorise as a compare-and-select.
float plane_max_lanes(const float *x, uint64_t n) {
    constexpr uint64_t kLanes = 8;
    float lane[kLanes];
    for (uint64_t l = 0; l < kLanes; ++l) lane[l] = kMaxStart;
    uint64_t j = 0;
    for (; j + kLanes <= n; j += kLanes) {
        for (uint64_t l = 0; l < kLanes; ++l) lane[l] = x[j + l] > lane[l] ? x[j + l] : lane[l];
    }
    float best = kMaxStart;
    for (uint64_t l = 0; l < kLanes; ++l) {
        if (lane[l] > best) best = lane[l];
    }
    for (; j < n; ++j) {
        if (x[j] > best) best = x[j];
    }
    return best;
}

}  // namespace

extern "C" {

NPU_API uint32_t global_maxpool_infershape(OperatorContext *handle) {
    return npucpu::global_pool_infershape(handle, __FILE__, "global_maxpool");
}

NPU_API uint32_t global_maxpool_check_supported(OperatorContext *handle) {
    return npucpu::global_pool_check_supported(handle);
}

NPU_API uint32_t global_maxpool_compute(OperatorContext *handle) {
    if (npucpu::fast_paths_enabled()) {
        return npucpu::global_pool_compute(handle, [](const float *x, uint64_t n, uint32_t) {
            return plane_max_lanes(x, n);
        });
    }
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
