// Minimum of a float tensor over a set of axes.
#include "npucpu.h"
#include "utils/reduce_ops.h"

namespace {

// Each pass measures the unchanged input shape (so only ascending axis lists
// give the true minimum) and reads A in place: every read lies at or after
// the position being written, so it sees the previous pass's value.
void min_pass(const npucpu::ReducePass &p) {
    const uint64_t outer = accumulate_mul(p.in_dims, 0, static_cast<int32_t>(p.axis));
    const uint64_t len = p.in_dims[p.axis];
    const uint64_t inner = accumulate_mul(p.in_dims, static_cast<int32_t>(p.axis) + 1, p.rank);
    // A zero-length axis has no element to start from: the pass writes nothing.
    if (len == 0) return;
    for (uint64_t o = 0; o < outer; ++o) {
        for (uint64_t i = 0; i < inner; ++i) {
            const uint64_t base = o * len * inner + i;
            float m = p.a[base];
            for (uint64_t k = 1; k < len; ++k) {
                const float x = p.a[base + k * inner];
                if (x < m) m = x;
            }
            p.a[o * inner + i] = m;
        }
    }
}

}  // namespace

extern "C" {

NPU_API uint32_t reducemin_infershape(OperatorContext *handle) {
    return npucpu::reduce_infershape(handle, __FILE__);
}

NPU_API uint32_t reducemin_check_supported(OperatorContext *handle) {
    return npucpu::reduce_check_supported(handle);
}

NPU_API uint32_t reducemin_compute(OperatorContext *handle) {
    return npucpu::reduce_compute(handle, min_pass, npucpu::reduce_fast_min);
}

}  // extern "C"
