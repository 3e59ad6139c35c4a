// Concatenation of any number of inputs along one axis. Rank-1 inputs are
// joined buffer after buffer; otherwise, for every index of the axes before
// the join axis, one block of each input is copied in input order.
//
// The helpers here are deliberately not named concat*: `concat` is the
// exported matrix kernel and must not be shadowed.
#include <cstdlib>
#include <cstring>
#include <vector>

#include "npucpu.h"
#include "utils/op_context.h"

namespace {

// The axis attribute (default -1, read only when present), with input 0's
// rank added once when negative.
int64_t join_axis(OperatorContext *handle, uint32_t rank) {
    int64_t axis = -1;
    if (npucpu::has_attr(handle, "axis")) axis = npucpu::attr_int(handle, "axis", -1);
    if (axis < 0) axis += rank;
    return axis;
}

// Guard shared by both stages: every input has input 0's rank (at least 1)
// and its dims except the axis, and the axis lies inside that rank.
// Otherwise the output shape would be written past its rank and compute
// would read blocks whose extents it takes from input 0 beyond the other
// inputs' data.
bool joinable(const std::vector<npucpu::TensorInfo> &in, int64_t axis) {
    const uint32_t rank = in.empty() ? 0 : in[0].shape.dim_num;
    if (rank == 0 || axis < 0 || axis >= rank) return false;
    for (const npucpu::TensorInfo &t : in) {
        if (t.shape.dim_num != rank) return false;
        for (uint32_t d = 0; d < rank; ++d) {
            if (d != axis && t.shape.dims[d] != in[0].shape.dims[d]) return false;
        }
    }
    return true;
}

std::vector<npucpu::TensorInfo> read_inputs(OperatorContext *handle) {
    // At least input 0 is read, as the entry points do even without inputs.
    const uint32_t n = npucpu::input_count(handle);
    std::vector<npucpu::TensorInfo> in;
    in.reserve(n > 0 ? n : 1);
    in.push_back(npucpu::input_info(handle, 0));
    for (uint32_t k = 1; k < n; ++k) in.push_back(npucpu::input_info(handle, k));
    return in;
}

// Copies up to `count` bytes from src + from to dst + to, clamped so that
// neither [from, src_len) nor [to, dst_len) is left.
void copy_clamped(char *dst, uint64_t dst_len, uint64_t to, const char *src, uint64_t src_len,
                  uint64_t from, uint64_t count) {
    if (to >= dst_len || from >= src_len) return;
    uint64_t n = count;
    if (n > dst_len - to) n = dst_len - to;
    if (n > src_len - from) n = src_len - from;
    if (n > 0) std::memcpy(dst + to, src + from, n);
}

}  // namespace

extern "C" {

NPU_API uint32_t concat_infershape(OperatorContext *handle) {
    const std::vector<npucpu::TensorInfo> in = read_inputs(handle);
    const int64_t axis = join_axis(handle, in[0].shape.dim_num);
    if (!joinable(in, axis)) return NPU_ERR_INVALID_ARG;

    TensorShape out = in[0].shape;
    for (size_t k = 1; k < in.size(); ++k) out.dims[axis] += in[k].shape.dims[axis];
    npucpu::set_output_desc(handle, 0, out, in[0].dtype, in[0].format);
    return NPU_OK;
}

NPU_API uint32_t concat_check_supported(OperatorContext *handle) {
    return npucpu::input_info(handle, 0).dtype == NPU_DTYPE_FLOAT32 ? 1u : 0u;
}

NPU_API uint32_t concat_compute(OperatorContext *handle) {
    const std::vector<npucpu::TensorInfo> in = read_inputs(handle);
    if (in[0].buf == nullptr) return NPU_ERR_INVALID_ARG;
    const int64_t axis = join_axis(handle, in[0].shape.dim_num);
    const npucpu::TensorInfo out = npucpu::output_info(handle, 0);
    if (out.buf == nullptr) return NPU_ERR_INVALID_ARG;
    if (!joinable(in, axis)) return NPU_ERR_INVALID_ARG;
    // Guard: the buffers of inputs 1 ... n-1 are read without a check; a
    // null one that holds something to read is refused before anything is
    // written.
    const uint32_t rank = in[0].shape.dim_num;
    for (const npucpu::TensorInfo &t : in) {
        const bool has_data = rank == 1 ? t.buf_len > 0 : npucpu::element_count(t.shape) > 0;
        if (t.buf == nullptr && has_data) return NPU_ERR_INVALID_ARG;
    }
    char *dst = static_cast<char *>(out.buf);

    // Guard (both paths): reads stop at the end of each input's buffer and
    // writes at the end of the output's; what lies past them is skipped.
    if (rank == 1) {
        uint64_t to = 0;
        for (const npucpu::TensorInfo &t : in) {
            copy_clamped(dst, out.buf_len, to, static_cast<const char *>(t.buf), t.buf_len, 0, t.buf_len);
            to += t.buf_len;
        }
        return NPU_OK;
    }

    const int32_t a = static_cast<int32_t>(axis);
    const uint64_t outer = accumulate_mul(in[0].shape.dims, 0, a);
    const uint64_t inner = accumulate_mul(in[0].shape.dims, a + 1, rank);
    uint32_t *cursor = static_cast<uint32_t *>(std::calloc(in.size(), sizeof(uint32_t)));
    if (outer < 1) {
        std::free(cursor);
        return NPU_OK;
    }
    uint64_t to = 0;  // next free output element
    for (uint64_t o = 0; o < outer; ++o) {
        for (size_t k = 0; k < in.size(); ++k) {
            const uint64_t chunk = inner * in[k].shape.dims[a];
            copy_clamped(dst, out.buf_len, to * sizeof(float), static_cast<const char *>(in[k].buf),
                         in[k].buf_len, static_cast<uint64_t>(cursor[k]) * sizeof(float),
                         chunk * sizeof(float));
            cursor[k] += static_cast<uint32_t>(chunk);
            to += chunk;
        }
    }
    std::free(cursor);
    return NPU_OK;
}

}  // extern "C"
