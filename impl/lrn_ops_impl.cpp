// Local response normalisation: each element of a row-major [N, C, spatial...]
// float tensor divided by a power of the sum of squares at the same position
// in the neighbouring channels.
#include <cmath>
#include <cstdint>

#include "npucpu.h"
#include "utils/convert.h"
#include "utils/op_context.h"
#include "utils/op_log.h"

namespace {

using npucpu::TensorInfo;

struct LrnParams {
    float alpha = 0.0001f;
    float beta = 0.75f;
    float bias = 1.0f;
    int64_t size = 0;
};

// Channels [lo, hi] summed for channel c: both ends of c -/+ (size - 1) / 2
// rounded outward (so an even size spans size + 1 channels), lo raised to 0
// and hi lowered to C - 1 in an unsigned comparison (a negative hi therefore
// becomes C - 1). lo > hi means an empty window.
struct Window {
    int64_t lo;
    int64_t hi;
};

Window channel_window(uint64_t c, uint64_t channels, int64_t size) {
    // size - 1 wraps rather than overflowing for the lowest int64.
    const int64_t size_m1 = static_cast<int64_t>(static_cast<uint64_t>(size) - 1u);
    const double half = static_cast<double>(size_m1) * 0.5;
    Window w;
    w.lo = npucpu::saturate_floor<int64_t>(static_cast<double>(c) - half);
    w.hi = npucpu::saturate_ceil<int64_t>(static_cast<double>(c) + half);
    if (w.lo < 0) w.lo = 0;
    if (static_cast<uint64_t>(w.hi) > channels - 1) w.hi = static_cast<int64_t>(channels - 1);
    return w;
}

// Square and add fused in double, rounded to float at every step.
inline float fma_square_add(float x, float sum) {
    const double xd = static_cast<double>(x);
    return static_cast<float>(std::fma(xd, xd, static_cast<double>(sum)));
}

// The literal kernel over `elems` input and output elements laid out as
// [batches, channels, elems / (batches * channels)], batches * channels > 0.
void lrn_f32(const float *x, float *y, uint64_t elems, uint64_t batches, uint64_t channels,
             const LrnParams &p) {
    const uint64_t batch_stride = elems / batches;
    const uint64_t spatial = elems / (batches * channels);
    const float scale = p.alpha / static_cast<float>(p.size);
    for (uint64_t n = 0; n < batches; ++n) {
        const uint64_t base = n * batch_stride;
        for (uint64_t c = 0; c < channels; ++c) {
            const Window w = channel_window(c, channels, p.size);
            for (uint64_t j = 0; j < spatial; ++j) {
                float sum = 0.0f;
                for (int64_t k = w.lo; k <= w.hi; ++k) {
                    sum = fma_square_add(x[base + static_cast<uint64_t>(k) * spatial + j], sum);
                }
                const float u = std::fma(scale, sum, p.bias);
                const uint64_t i = base + c * spatial + j;
                y[i] = static_cast<float>(static_cast<double>(x[i]) /
                                          std::pow(static_cast<double>(u),
                                                   static_cast<double>(p.beta)));
            }
        }
    }
}

}  // namespace

extern "C" {

NPU_API uint32_t lrn_infershape(OperatorContext *handle) {
    const TensorInfo in = npucpu::input_info(handle, 0);
    npucpu::set_output_desc(handle, 0, in.shape, in.dtype, in.format);
    return NPU_OK;
}

NPU_API uint32_t lrn_check_supported(OperatorContext *handle) {
    return npucpu::input_info(handle, 0).dtype == NPU_DTYPE_FLOAT32 ? 1u : 0u;
}

NPU_API uint32_t lrn_compute(OperatorContext *handle) {
    LrnParams p;
    if (npucpu::has_attr(handle, "alpha")) p.alpha = npucpu::attr_float(handle, "alpha", p.alpha);
    if (npucpu::has_attr(handle, "beta")) p.beta = npucpu::attr_float(handle, "beta", p.beta);
    const AttrRecord *size_attr = qv_kel_custom_get_attr_by_name(handle, "size");
    if (size_attr == nullptr) {
        NPU_ERROR("get [size] attr failed, [size] in lrn is required \n");
        return NPU_ERR_INVALID_ARG;
    }
    // A `size` of another type leaves 0 here (the getter says why).
    qv_kel_custom_get_attr_int(size_attr, &p.size);
    if (npucpu::has_attr(handle, "bias")) p.bias = npucpu::attr_float(handle, "bias", p.bias);

    TensorShape shape{};
    uint64_t in_len = 0;
    qv_kel_custom_get_input_shape_by_index(handle, 0, &shape);
    qv_kel_custom_get_input_buf_len_by_index(handle, 0, &in_len);
    const float *x = static_cast<const float *>(qv_kel_custom_get_input_buf_by_index(handle, 0));
    if (x == nullptr) return NPU_ERR_INVALID_ARG;
    const uint64_t elems = in_len / sizeof(float);
    uint64_t out_len = 0;
    qv_kel_custom_get_output_buf_len_by_index(handle, 0, &out_len);
    if (out_len / sizeof(float) != elems) return NPU_ERR_INVALID_ARG;
    float *y = static_cast<float *>(qv_kel_custom_get_output_buf_by_index(handle, 0));
    if (y == nullptr) return NPU_ERR_INVALID_ARG;

    // Counts derive from the input's byte length; every index stays below it.
    const uint64_t batches = shape.dims[0];
    const uint64_t channels = shape.dims[1];
    // Guard: no batches or no channels would divide by zero; nothing to do.
    if (batches * channels == 0) return NPU_OK;
    lrn_f32(x, y, elems, batches, channels, p);
    return NPU_OK;
}

}  // extern "C"
