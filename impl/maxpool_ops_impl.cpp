// Max pooling of a 4-D float tensor over a two-dimensional window, with the
// position of each maximum as a flat index into the padded tensor. The shared
// skeleton (attributes, shape inference, padding, window walk) is in
// utils/pool_ops; this file holds the operator's messages and its window
// maximum.
#include <limits>

#include "npucpu.h"
#include "utils/pool_ops.h"

namespace {

const npucpu::PoolTexts kTexts = {
    __FILE__,
    "maxpool only support 1 inputs \n",
    "Process auto_pad fail \n",
    "outputW %d is large than orig_w %d, pad right. \n",
    "outputH %d is large than orig_h %d, pad bottom. \n",
};

// Start value of every maximum: 1.17549435e-38, bits 0x00800000.
constexpr float kMaxStart = std::numeric_limits<float>::min();

// Rows outer, columns inner; an element replaces the maximum only when
// strictly greater, so the first of equal maxima wins and NaN never does.
// The padding's zeros (+0.0) compare like data and never beat the start
// value: a window of values at or below it yields the start value at
// position 0, as does an empty kernel.
npucpu::PoolResult max_of_window(const npucpu::PoolWindow &w) {
    npucpu::PoolResult best = {kMaxStart, 0};
    npucpu::for_each_in_window(w, [&](uint64_t, uint64_t, uint64_t index) {
        if (w.data[index] > best.value) {
            best.value = w.data[index];
            best.position = static_cast<uint32_t>(index);
        }
    });
    return best;
}

}  // namespace

extern "C" {

NPU_API uint32_t maxpool_infershape(OperatorContext *handle) {
    return npucpu::pool_infershape(handle, kTexts, false);
}

NPU_API uint32_t maxpool_check_supported(OperatorContext *handle) {
    return npucpu::pool_check_supported(handle);
}

NPU_API uint32_t maxpool_compute(OperatorContext *handle) {
    return npucpu::pool_compute(handle, {max_of_window, false, true, npucpu::PoolFastKind::Max});
}

}  // extern "C"
