// Fast index routines of argmax / argmin over a contiguous slice, with the
// literal routines' answers (arg_index in arg_ops.h).
#ifndef NPUCPU_IMPL_UTILS_ARG_FAST_H
#define NPUCPU_IMPL_UTILS_ARG_FAST_H

#include <cstdint>

namespace npucpu {

uint32_t arg_max_index_f32_avx2(const float *v, int64_t select_last, int32_t count);
uint32_t arg_min_index_f32_avx2(const float *v, int64_t select_last, int32_t count);
uint32_t arg_max_index_s32_avx2(const int32_t *v, int64_t select_last, int32_t count);
uint32_t arg_min_index_s32_avx2(const int32_t *v, int64_t select_last, int32_t count);

}  // namespace npucpu

#endif
