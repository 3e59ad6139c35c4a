// Average pooling of a 4-D float tensor over a two-dimensional window. The
// shared skeleton (attributes, shape inference, padding, window walk) is in
// utils/pool_ops; this file holds the operator's messages and its window
// mean.
#include "npucpu.h"
#include "utils/pool_ops.h"

namespace {

const npucpu::PoolTexts kTexts = {
    __FILE__,
    "averagepool only support 1 inputs \n",
    "Process auto_pad fail \n",
    "outputW %d is large than orig_w %d , pad right. \n",
    "outputH %d is large than orig_h %d, pad bottom. \n",
};

// Float sum of the window, rows outer and columns inner, divided by the
// number of elements summed (converted as a signed integer). Unless
// count_include_pad is set, elements in the padding are left out, so a window
// wholly in the padding (or an empty kernel) gives 0 / 0.
npucpu::PoolResult mean_of_window(const npucpu::PoolWindow &w) {
    // The last data row and column of the padded plane (unsigned 32-bit).
    const uint32_t last_row = w.height - w.pads[2] - 1;
    const uint32_t last_col = w.width - w.pads[3] - 1;
    float sum = 0.0f;
    uint32_t count = 0;
    npucpu::for_each_in_window(w, [&](uint64_t r, uint64_t q, uint64_t index) {
        if (w.count_include_pad == 0 &&
            (q < w.pads[1] || r < w.pads[0] || r > last_row || q > last_col)) {
            return;
        }
        sum += w.data[index];
        ++count;
    });
    return {sum / static_cast<float>(static_cast<int32_t>(count)), 0};
}

}  // namespace

extern "C" {

NPU_API uint32_t averagepool_infershape(OperatorContext *handle) {
    return npucpu::pool_infershape(handle, kTexts, true);
}

NPU_API uint32_t averagepool_check_supported(OperatorContext *handle) {
    return npucpu::pool_check_supported(handle);
}

NPU_API uint32_t averagepool_compute(OperatorContext *handle) {
    return npucpu::pool_compute(handle, {mean_of_window, true, false, npucpu::PoolFastKind::Average});
}

}  // extern "C"
