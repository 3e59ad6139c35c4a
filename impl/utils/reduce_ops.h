// The code shared by reducemax, reducemin and reducemean: one shape rule and
// one compute skeleton (reading, the work buffers, the passes, the final
// copy). What a pass computes, which buffer it reads and whether it shrinks
// the working shape differ on purpose between the three and stay in each
// operator's own pass routine.
#ifndef NPUCPU_IMPL_UTILS_REDUCE_OPS_H
#define NPUCPU_IMPL_UTILS_REDUCE_OPS_H

#include <cstdint>

#include "npucpu.h"

namespace npucpu {

// One pass over axis `axis`. `a` receives the results compacted at its front;
// `b` is the copy of `a` taken after the previous pass (before the first:
// the input); `work_dims` is the working shape (16 dims, zero past the
// rank), `in_dims` the input's.
struct ReducePass {
    float *a;
    const float *b;
    uint32_t *work_dims;
    const uint32_t *in_dims;
    int32_t rank;
    uint32_t axis;
};
using ReducePassFn = void (*)(const ReducePass &pass);

// Output shape of the three operators; `unit` names the operator in the
// range message.
uint32_t reduce_infershape(OperatorContext *handle, const char *unit);

// 1 when input 0 is 32-bit float.
uint32_t reduce_check_supported(OperatorContext *handle);

// A fast form of one pass over a single axis straight from the input buffer
// into the output buffer, with the pass's results; false where it does not
// apply (the work buffers then run as usual).
using ReduceFastFn = bool (*)(const float *in, uint64_t in_cap, float *out, uint64_t out_cap,
                              const uint32_t *in_dims, int32_t rank, uint32_t axis);

// Runs one `pass` per listed axis, in the order given, then copies the front
// of the work buffer to the output. With fast paths enabled, a list of one
// axis goes to `fast` first when given.
uint32_t reduce_compute(OperatorContext *handle, ReducePassFn pass, ReduceFastFn fast = nullptr);

// Fast forms of the single-axis maximum and minimum passes (ReduceFastFn).
bool reduce_fast_max(const float *in, uint64_t in_cap, float *out, uint64_t out_cap, const uint32_t *in_dims,
                     int32_t rank, uint32_t axis);
bool reduce_fast_min(const float *in, uint64_t in_cap, float *out, uint64_t out_cap, const uint32_t *in_dims,
                     int32_t rank, uint32_t axis);

}  // namespace npucpu

#endif
