// Maximum of a float tensor over a set of axes.
#include "npucpu.h"
#include "utils/reduce_ops.h"

namespace {

// Each pass measures the working shape and then marks the reduced axis as
// size 1, so later passes see the shape already reduced. It reads B, the
// previous pass's copy.
void max_pass(const npucpu::ReducePass &p) {
    const uint64_t outer = accumulate_mul(p.work_dims, 0, static_cast<int32_t>(p.axis));
    const uint64_t len = p.work_dims[p.axis];
    const uint64_t inner = accumulate_mul(p.work_dims, static_cast<int32_t>(p.axis) + 1, p.rank);
    // A zero-length axis has no element to start from: the pass writes nothing.
    if (len > 0) {
        for (uint64_t o = 0; o < outer; ++o) {
            for (uint64_t i = 0; i < inner; ++i) {
                const float *slice = p.b + o * len * inner + i;
                float m = slice[0];
                for (uint64_t k = 1; k < len; ++k) {
                    const float x = slice[k * inner];
                    if (x > m) m = x;
                }
                p.a[o * inner + i] = m;
            }
        }
    }
    p.work_dims[p.axis] = 1;
}

}  // namespace

extern "C" {

NPU_API uint32_t reducemax_infershape(OperatorContext *handle) {
    return npucpu::reduce_infershape(handle, __FILE__);
}

NPU_API uint32_t reducemax_check_supported(OperatorContext *handle) {
    return npucpu::reduce_check_supported(handle);
}

NPU_API uint32_t reducemax_compute(OperatorContext *handle) {
    return npucpu::reduce_compute(handle, max_pass, npucpu::reduce_fast_max);
}

}  // extern "C"
