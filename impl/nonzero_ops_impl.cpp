// Coordinates of the non-zero elements of a float or int32 tensor, packed
// dimension-major at the front of an output declared for every element.
#include <algorithm>
#include <cstring>
#include <limits>
#include <vector>

#include "npucpu.h"
#include "utils/dispatch.h"
#include "utils/op_context.h"
#include "utils/op_log.h"

namespace {

bool counted_dtype(uint32_t dtype) {
    return dtype == NPU_DTYPE_FLOAT32 || dtype == NPU_DTYPE_INT32;
}

// N: the input buffer's length in 32-bit elements (0 for other data types).
uint32_t element_slots(const npucpu::TensorInfo &in) {
    if (!counted_dtype(in.dtype)) return 0;
    return static_cast<uint32_t>(
        std::min<uint64_t>(in.buf_len / 4, std::numeric_limits<uint32_t>::max()));
}

bool is_nonzero(const void *buf, uint32_t dtype, uint64_t e) {
    if (dtype == NPU_DTYPE_FLOAT32) return static_cast<const float *>(buf)[e] != 0.0f;
    return static_cast<const int32_t *>(buf)[e] != 0;  // as float, zero only for 0
}

// The same result without the list of finds: a first pass counts them (the
// stride c), a second walks the same odometer and writes each coordinate
// straight to its place, skipping places past the buffer as the copy does.
// The places are the same, so the bytes are.
void nonzero_direct(const npucpu::TensorInfo &in, uint64_t n, int64_t *dst, uint64_t cap) {
    const uint32_t r = in.shape.dim_num;
    uint64_t c = 0;
    for (uint64_t e = 0; e < n; ++e) c += is_nonzero(in.buf, in.dtype, e) ? 1 : 0;
    std::vector<int64_t> counter(r, 0);
    std::vector<int64_t> last(r);
    for (uint32_t d = 0; d < r; ++d) last[d] = static_cast<int64_t>(in.shape.dims[d]) - 1;
    uint64_t j = 0;
    for (uint64_t e = 0; e < n; ++e) {
        // Every element writes its coordinates to the place of the next
        // find, which a zero element leaves for that find to overwrite (one
        // exists while j < c); no branch on the data.
        if (j < c) {
            for (uint32_t d = 0; d < r; ++d) {
                const uint64_t at = d * c + j;
                if (at < cap) dst[at] = counter[d];
            }
        }
        j += is_nonzero(in.buf, in.dtype, e) ? 1 : 0;
        for (uint32_t d = r; d-- > 0;) {
            if (counter[d] < last[d]) {
                ++counter[d];
                break;
            }
            counter[d] = 0;
        }
    }
}

}  // namespace

extern "C" {

NPU_API uint32_t nonzero_infershape(OperatorContext *handle) {
    if (npucpu::input_count(handle) != 1) {
        NPU_ERROR("nonzero only support 1 inputs \n");
        return NPU_ERR_INPUT_NUM;
    }
    const npucpu::TensorInfo in = npucpu::input_info(handle, 0);
    TensorShape out{};
    out.dim_num = 2;
    out.dims[0] = in.shape.dim_num;
    out.dims[1] = element_slots(in);
    npucpu::set_output_desc(handle, 0, out, NPU_DTYPE_INT64, NPU_FORMAT_MATRIX);
    return NPU_OK;
}

NPU_API uint32_t nonzero_check_supported(OperatorContext *handle) {
    return counted_dtype(npucpu::input_info(handle, 0).dtype) ? 1u : 0u;
}

NPU_API uint32_t nonzero_compute(OperatorContext *handle) {
    const npucpu::TensorInfo in = npucpu::input_info(handle, 0);
    const npucpu::TensorInfo out = npucpu::output_info(handle, 0);
    if (!counted_dtype(in.dtype)) return NPU_OK;
    // Guard: a missing buffer is neither read nor written.
    if (in.buf == nullptr || out.buf == nullptr) return NPU_OK;

    const uint32_t r = in.shape.dim_num;
    const uint64_t n = element_slots(in);
    if (npucpu::fast_paths_enabled() && r > 0) {
        nonzero_direct(in, n, static_cast<int64_t *>(out.buf), out.buf_len / sizeof(int64_t));
        return NPU_OK;
    }
    std::vector<int64_t> counter(r, 0);
    std::vector<int64_t> found;  // coordinates of each find, r per find
    for (uint64_t e = 0; e < n; ++e) {
        bool nonzero;
        if (in.dtype == NPU_DTYPE_FLOAT32) {
            nonzero = static_cast<const float *>(in.buf)[e] != 0.0f;
        } else if (in.dtype == NPU_DTYPE_INT32) {
            nonzero = static_cast<float>(static_cast<const int32_t *>(in.buf)[e]) != 0.0f;
        } else {
            NPU_ERROR("invalid data type: %d \n", static_cast<int>(in.dtype));
            return NPU_ERR_INVALID_ARG;
        }
        if (nonzero) found.insert(found.end(), counter.begin(), counter.end());
        // Odometer step from the last dim; elements past the shape wrap round.
        for (uint32_t d = r; d-- > 0;) {
            if (counter[d] < static_cast<int64_t>(in.shape.dims[d]) - 1) {
                ++counter[d];
                break;
            }
            counter[d] = 0;
        }
    }

    // Dimension-major with stride c; guard: no more than the buffer holds.
    const uint64_t c = r > 0 ? found.size() / r : 0;
    const uint64_t cap = out.buf_len / sizeof(int64_t);
    int64_t *dst = static_cast<int64_t *>(out.buf);
    for (uint32_t d = 0; d < r; ++d) {
        for (uint64_t j = 0; j < c && d * c + j < cap; ++j) dst[d * c + j] = found[j * r + d];
    }
    return NPU_OK;
}

}  // extern "C"
