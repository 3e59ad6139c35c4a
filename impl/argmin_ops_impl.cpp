// Index of the smallest element along one axis of a float or int32 tensor.
#include "npucpu.h"
#include "utils/arg_ops.h"

namespace {

// The improvement test: only a strictly smaller value moves the first
// occurrence (a NaN never does).
template <typename T>
bool improves(T x, T best) {
    return x < best;
}

}  // namespace

extern "C" {

NPU_API uint32_t get_min_index_f32(const float *values, int64_t select_last_index, int32_t count) {
    return npucpu::arg_index(values, select_last_index, count, improves<float>);
}

NPU_API uint32_t get_min_index_s32(const int32_t *values, int64_t select_last_index,
                                   int32_t count) {
    return npucpu::arg_index(values, select_last_index, count, improves<int32_t>);
}

NPU_API void get_min_f32(const float *in_data, uint32_t *out_indices, const TensorShape *shape,
                         uint32_t axis, int64_t select_last_index) {
    npucpu::arg_walk(in_data, npucpu::kUnbounded, out_indices, npucpu::kUnbounded, *shape, axis,
                     select_last_index, get_min_index_f32);
}

NPU_API void get_min_s32(const int32_t *in_data, uint32_t *out_indices, const TensorShape *shape,
                         uint32_t axis, int64_t select_last_index) {
    npucpu::arg_walk(in_data, npucpu::kUnbounded, out_indices, npucpu::kUnbounded, *shape, axis,
                     select_last_index, get_min_index_s32);
}

NPU_API uint32_t argmin_infershape(OperatorContext *handle) {
    return npucpu::arg_infershape(handle, __FILE__, "argmin");
}

NPU_API uint32_t argmin_check_supported(OperatorContext *handle) {
    return npucpu::arg_check_supported(handle);
}

NPU_API uint32_t argmin_compute(OperatorContext *handle) {
    return npucpu::arg_compute(handle, get_min_index_f32, get_min_index_s32);
}

}  // extern "C"
