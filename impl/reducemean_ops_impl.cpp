// Mean of a float tensor over a set of axes.
#include "npucpu.h"
#include "utils/reduce_ops.h"

namespace {

// Each pass measures the unchanged input shape (so only ascending axis lists
// give the true mean), reads B and averages per pass: a float sum in index
// order divided by the axis length.
void mean_pass(const npucpu::ReducePass &p) {
    const uint64_t outer = accumulate_mul(p.in_dims, 0, static_cast<int32_t>(p.axis));
    const uint32_t len = p.in_dims[p.axis];
    const uint64_t inner = accumulate_mul(p.in_dims, static_cast<int32_t>(p.axis) + 1, p.rank);
    // A zero-length axis: the pass writes nothing.
    if (len == 0) return;
    for (uint64_t o = 0; o < outer; ++o) {
        for (uint64_t i = 0; i < inner; ++i) {
            const float *slice = p.b + o * len * inner + i;
            float s = 0.0f;
            for (uint64_t k = 0; k < len; ++k) s += slice[k * inner];
            p.a[o * inner + i] = s / static_cast<float>(len);
        }
    }
}

}  // namespace

extern "C" {

NPU_API uint32_t reducemean_infershape(OperatorContext *handle) {
    return npucpu::reduce_infershape(handle, __FILE__);
}

NPU_API uint32_t reducemean_check_supported(OperatorContext *handle) {
    return npucpu::reduce_check_supported(handle);
}

NPU_API uint32_t reducemean_compute(OperatorContext *handle) {
    return npucpu::reduce_compute(handle, mean_pass);
}

}  // extern "C"
