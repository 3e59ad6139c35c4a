// exp(x - m) / sum(exp(x - m)) along one axis of a float tensor.
#include <cmath>
#include <cstdlib>

#include "npucpu.h"
#include "utils/dispatch.h"
#include "utils/op_context.h"
#include "utils/op_log.h"
#include "utils/softmax_fast.h"

namespace {

// Starting value of the running maximum: the smallest positive normal float,
// so a slice with no element above it has nothing subtracted (and a slice far
// below zero underflows to 0 / 0).
constexpr float kMaxStart = 1.1754944e-38f;

// The axis with the rank added once when negative; false when it is still
// outside the rank.
bool softmax_axis(int64_t axis_attr, uint8_t rank, uint32_t *axis) {
    const int64_t a = axis_attr < 0 ? axis_attr + rank : axis_attr;
    if (a < 0 || a >= rank) return false;
    *axis = static_cast<uint32_t>(a);
    return true;
}

}  // namespace

extern "C" {

NPU_API float *basic_softmax(const float *values, uint32_t count) {
    float m = kMaxStart;
    for (uint32_t k = 0; k < count; ++k) {
        if (values[k] > m) m = values[k];
    }
    float *e = static_cast<float *>(std::malloc(sizeof(float) * count));
    if (e == nullptr) return nullptr;
    float sum = 0.0f;
    for (uint32_t k = 0; k < count; ++k) {
        const float d = values[k] - m;
        e[k] = static_cast<float>(std::exp(static_cast<double>(d)));
        sum += e[k];
    }
    for (uint32_t k = 0; k < count; ++k) e[k] = e[k] / sum;
    return e;
}

NPU_API uint32_t softmax_infershape(OperatorContext *handle) {
    if (npucpu::input_count(handle) != 1) {
        NPU_ERROR("softmax only support 1 inputs \n");
        return NPU_ERR_INPUT_NUM;
    }
    const npucpu::TensorInfo in = npucpu::input_info(handle, 0);
    // Guard: an axis outside the rank would make compute read dims the input
    // does not have. Read only when present, so an absent axis logs nothing.
    const int64_t axis_attr =
        npucpu::has_attr(handle, "axis") ? npucpu::attr_int(handle, "axis", 0) : 0;
    uint32_t axis = 0;
    if (!softmax_axis(axis_attr, in.shape.dim_num, &axis)) return NPU_ERR_INPUT_NUM;
    npucpu::set_output_desc(handle, 0, in.shape, in.dtype, in.format);
    return NPU_OK;
}

NPU_API uint32_t softmax_check_supported(OperatorContext *handle) {
    return npucpu::input_info(handle, 0).dtype == NPU_DTYPE_FLOAT32 ? 1u : 0u;
}

NPU_API uint32_t softmax_compute(OperatorContext *handle) {
    const npucpu::TensorInfo in = npucpu::input_info(handle, 0);
    if (in.dtype != NPU_DTYPE_FLOAT32) return NPU_ERR_INVALID_ARG;
    if (in.buf == nullptr) return NPU_ERR_INVALID_ARG;
    const int64_t axis_attr = npucpu::attr_int(handle, "axis", 0);
    const npucpu::TensorInfo out = npucpu::output_info(handle, 0);
    if (out.buf == nullptr) return NPU_ERR_INVALID_ARG;
    // Guard: the axis infershape refuses.
    uint32_t axis = 0;
    if (!softmax_axis(axis_attr, in.shape.dim_num, &axis)) return NPU_ERR_INPUT_NUM;

    const int32_t a = static_cast<int32_t>(axis);
    const uint64_t outer = accumulate_mul(in.shape.dims, 0, a);
    const uint32_t len = in.shape.dims[axis];
    const uint64_t inner = accumulate_mul(in.shape.dims, a + 1, in.shape.dim_num);
    const float *src = static_cast<const float *>(in.buf);
    float *dst = static_cast<float *>(out.buf);
    // Guard: reads and writes stay inside the two buffers; a slice is cut
    // where the input ends.
    const uint64_t in_cap = in.buf_len / sizeof(float);
    const uint64_t out_cap = out.buf_len / sizeof(float);
    // Fast path: contiguous slices wholly inside both buffers, eight rows at
    // a time in a scratch tile of 8 * len floats.
    if (npucpu::active_isa() >= npucpu::Isa::Avx2 && inner == 1 && len > 0 &&
        outer * len <= in_cap && outer * len <= out_cap) {
        float *scratch = static_cast<float *>(std::malloc(sizeof(float) * 8 * static_cast<uint64_t>(len)));
        if (scratch != nullptr) {
            npucpu::softmax_rows_avx2(src, dst, outer, len, scratch,
                                      npucpu::active_isa() >= npucpu::Isa::Avx512);
            std::free(scratch);
            return NPU_OK;
        }
    }
    // One slice gathered into a contiguous array at a time.
    float *slice = static_cast<float *>(std::malloc(sizeof(float) * len));
    for (uint64_t o = 0; o < outer; ++o) {
        for (uint64_t i = 0; i < inner; ++i) {
            const uint64_t base = o * len * inner + i;
            uint32_t m = 0;
            for (; m < len && base + m * inner < in_cap; ++m) slice[m] = src[base + m * inner];
            float *result = basic_softmax(slice, m);
            for (uint32_t k = 0; k < m && base + k * inner < out_cap; ++k) {
                dst[base + k * inner] = result[k];
            }
            std::free(result);
        }
    }
    std::free(slice);
    return NPU_OK;
}

}  // extern "C"
