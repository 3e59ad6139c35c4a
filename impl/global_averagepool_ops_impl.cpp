// Global average pooling: the mean of every spatial position of each
// (batch, channel) plane of a row-major [N, C, spatial...] float tensor.
#include "npucpu.h"
#include "utils/dispatch.h"
#include "utils/global_pool.h"
#include "utils/plane_sums.h"

namespace {

// The literal plane mean: float sum in index order from +0.0; a plane of no
// elements gives 0 / 0.
float plane_mean(const float *x, uint64_t n, uint32_t spatial) {
    float sum = 0.0f;
    for (uint64_t j = 0; j < n; ++j) sum += x[j];
    return sum / static_cast<float>(spatial);
}

// The fast path, where every plane the literal loop visits lies wholly
// inside the input buffer: the same sums, eight planes at a time.
bool fast_means(OperatorContext *handle) {
    if (npucpu::active_isa() < npucpu::Isa::Avx2) return false;
    const npucpu::TensorInfo in = npucpu::input_info(handle, 0);
    const npucpu::TensorInfo out = npucpu::output_info(handle, 0);
    if (in.buf == nullptr || out.buf == nullptr) return false;
    const int32_t batches = static_cast<int32_t>(in.shape.dims[0]);
    const int32_t channels = static_cast<int32_t>(in.shape.dims[1]);
    const uint32_t spatial = npucpu::global_pool_plane_size(in.shape);
    if (batches < 1 || channels < 1 || spatial == 0) return false;
    const uint64_t planes = std::min<uint64_t>(static_cast<uint64_t>(batches) * channels,
                                               out.buf_len / sizeof(float));
    if (planes * spatial > in.buf_len / sizeof(float)) return false;
    std::memset(out.buf, 0, out.buf_len);
    npucpu::plane_means_avx2(static_cast<const float *>(in.buf), planes, spatial,
                             static_cast<float *>(out.buf), plane_mean);
    return true;
}

}  // namespace

extern "C" {

NPU_API uint32_t global_averagepool_infershape(OperatorContext *handle) {
    return npucpu::global_pool_infershape(handle, __FILE__, "global_averagepool");
}

NPU_API uint32_t global_averagepool_check_supported(OperatorContext *handle) {
    return npucpu::global_pool_check_supported(handle);
}

NPU_API uint32_t global_averagepool_compute(OperatorContext *handle) {
    if (fast_means(handle)) return NPU_OK;
    return npucpu::global_pool_compute(handle, plane_mean);
}

}  // extern "C"
