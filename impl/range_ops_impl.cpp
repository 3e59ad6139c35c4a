// Range: the arithmetic sequence start, start + delta, ... below limit. The
// length depends on the input values, so the inferred shape is a fixed
// capacity.
#include <cstring>

#include "npucpu.h"
#include "utils/convert.h"
#include "utils/op_context.h"
#include "utils/op_log.h"

namespace {

constexpr uint32_t kRangeCapacity = 65535;  // declared length of dim 0
constexpr uint32_t kRangeInputs = 3;        // start, limit, delta

// Reads the leading element of a scalar input; false when the buffer cannot
// hold one.
template <typename T>
bool scalar_of(const npucpu::TensorInfo &in, T *v) {
    if (in.buf == nullptr || in.buf_len < sizeof(T)) return false;
    std::memcpy(v, in.buf, sizeof(T));
    return true;
}

}  // namespace

extern "C" {

NPU_API uint32_t range_infershape(OperatorContext *handle) {
    if (npucpu::input_count(handle) != kRangeInputs) {
        NPU_ERROR("range only support 1 inputs \n");
        return NPU_ERR_INPUT_NUM;
    }
    const npucpu::TensorInfo start = npucpu::input_info(handle, 0);
    TensorShape out{};
    out.dim_num = start.shape.dim_num;
    out.dims[0] = kRangeCapacity;  // the other dims stay 0
    npucpu::set_output_desc(handle, 0, out, start.dtype, start.format);
    return NPU_OK;
}

NPU_API uint32_t range_check_supported(OperatorContext *handle) {
    return npucpu::input_info(handle, 0).dtype == NPU_DTYPE_FLOAT32 ? 1u : 0u;
}

NPU_API uint32_t range_compute(OperatorContext *handle) {
    const npucpu::TensorInfo in0 = npucpu::input_info(handle, 0);
    const npucpu::TensorInfo in1 = npucpu::input_info(handle, 1);
    const npucpu::TensorInfo in2 = npucpu::input_info(handle, 2);
    const npucpu::TensorInfo out = npucpu::output_info(handle, 0);
    if (in0.dtype != NPU_DTYPE_FLOAT32 && in0.dtype != NPU_DTYPE_INT32) {
        return NPU_ERR_INVALID_ARG;
    }
    if (in0.buf == nullptr || out.buf == nullptr) return NPU_ERR_INVALID_ARG;
    // Guard: the output buffer bounds the sequence, whatever its length.
    const uint64_t capacity = out.buf_len / sizeof(float);

    if (in0.dtype == NPU_DTYPE_FLOAT32) {
        float start = 0.0f, limit = 0.0f, delta = 0.0f;
        // Guard: start, limit and delta must each be readable.
        if (!scalar_of(in0, &start) || !scalar_of(in1, &limit) || !scalar_of(in2, &delta)) {
            return NPU_ERR_INVALID_ARG;
        }
        if (delta == 0.0f) return NPU_ERR_INVALID_ARG;  // guard: no finite count
        const float span = limit - start;
        // A NaN count saturates to 0 and writes nothing.
        const int64_t n = npucpu::saturate_ceil<int64_t>(static_cast<double>(span) /
                                                         static_cast<double>(delta));
        float *dst = static_cast<float *>(out.buf);
        float v = start;
        for (int64_t i = 0; i < n && static_cast<uint64_t>(i) < capacity; ++i) {
            dst[i] = v;
            v = v + delta;  // running sum, not start + i * delta
        }
        return NPU_OK;
    }

    int32_t start = 0, limit = 0, delta = 0;
    if (!scalar_of(in0, &start) || !scalar_of(in1, &limit) || !scalar_of(in2, &delta)) {
        return NPU_ERR_INVALID_ARG;  // guard, as for floats
    }
    if (delta == 0) return NPU_ERR_INVALID_ARG;  // guard: no finite count
    const int32_t span = npucpu::wrap_sub(limit, start);
    const int64_t n =
        npucpu::saturate_ceil<int64_t>(static_cast<double>(span) / static_cast<double>(delta));
    int32_t *dst = static_cast<int32_t *>(out.buf);
    // The sequence runs in float, so values past 2^24 lose exactness.
    float v = static_cast<float>(start);
    const float d = static_cast<float>(delta);
    for (int64_t i = 0; i < n && static_cast<uint64_t>(i) < capacity; ++i) {
        dst[i] = npucpu::saturate_trunc<int32_t>(v);
        v = v + d;
    }
    return NPU_OK;
}

}  // extern "C"
