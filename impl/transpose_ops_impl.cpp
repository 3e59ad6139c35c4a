// Transpose: output axis i is input axis perm[i]; without `perm` the axes are
// reversed. Compute walks the output positions on the context's buffers,
// splitting each into coordinates with the output strides and rebuilding the
// input position with the input strides.
#include <cstdint>

#include "npucpu.h"
#include "utils/dispatch.h"
#include "utils/op_context.h"
#include "utils/transpose_fast.h"

namespace {

// Permutation entries as the attribute stores them.
using Perm = int64_t[NPU_MAX_DIMS];

// rank-1, rank-2, ..., 0.
void reversed_axes(uint32_t rank, Perm perm) {
    for (uint32_t i = 0; i < rank; ++i) perm[i] = static_cast<int64_t>(rank - 1 - i);
}

// Number of entries of an ints attribute, read without the getter's type
// message (a `perm` of another type leaves the default permutation).
uint64_t ints_length(const AttrRecord *a) {
    return a != nullptr && a->dtype == NPU_ATTR_INTS ? a->data_len / sizeof(int64_t) : 0;
}

// Guard shared by both stages: the first `rank` entries must name every axis
// once; otherwise output dims and coordinates would be taken from axes that
// do not exist.
bool is_permutation(const Perm perm, uint32_t rank) {
    bool seen[NPU_MAX_DIMS] = {};
    for (uint32_t i = 0; i < rank; ++i) {
        if (perm[i] < 0 || perm[i] >= static_cast<int64_t>(rank) || seen[perm[i]]) return false;
        seen[perm[i]] = true;
    }
    return true;
}

}  // namespace

extern "C" {

NPU_API uint32_t transpose_infershape(OperatorContext *handle) {
    const npucpu::TensorInfo in = npucpu::input_info(handle, 0);
    const uint32_t rank = in.shape.dim_num;
    const AttrRecord *attr = qv_kel_custom_get_attr_by_name(handle, "perm");
    Perm perm = {};
    reversed_axes(rank, perm);
    // Entries 0 ... rank-1 come from the attribute; entries it lacks keep
    // the reversed order (the getter reports them).
    if (attr != nullptr) {
        for (uint32_t i = 0; i < rank; ++i) qv_kel_custom_get_attr_ints_by_index(attr, i, &perm[i]);
    }
    // Guard: a perm longer than the rank, or not a permutation.
    if (ints_length(attr) > rank || !is_permutation(perm, rank)) return NPU_ERR_INVALID_ARG;

    TensorShape out{};
    out.dim_num = static_cast<uint8_t>(rank);
    for (uint32_t i = 0; i < rank; ++i) out.dims[i] = in.shape.dims[perm[i]];
    npucpu::set_output_desc(handle, 0, out, in.dtype, in.format);
    return NPU_OK;
}

NPU_API uint32_t transpose_check_supported(OperatorContext *handle) {
    return npucpu::input_info(handle, 0).dtype == NPU_DTYPE_FLOAT32 ? 1u : 0u;
}

NPU_API uint32_t transpose_compute(OperatorContext *handle) {
    const npucpu::TensorInfo in = npucpu::input_info(handle, 0);
    if (in.buf == nullptr) return NPU_ERR_INVALID_ARG;
    const npucpu::TensorInfo out = npucpu::output_info(handle, 0);
    const uint64_t in_count = in.buf_len / sizeof(float);
    const uint64_t out_count = out.buf_len / sizeof(float);
    if (in_count != out_count || out.buf == nullptr) return NPU_ERR_INVALID_ARG;

    const uint32_t rank = in.shape.dim_num;
    Perm perm = {};
    reversed_axes(rank, perm);
    // Here the attribute's own length says how many entries it overwrites.
    const AttrRecord *attr = qv_kel_custom_get_attr_by_name(handle, "perm");
    if (attr != nullptr) {
        uint64_t length = 0;
        qv_kel_custom_get_attr_ints_size(attr, &length);
        // Guard: a perm longer than the rank, or not a permutation.
        if (length > rank) return NPU_ERR_INVALID_ARG;
        for (uint64_t i = 0; i < length; ++i) qv_kel_custom_get_attr_ints_by_index(attr, i, &perm[i]);
    }
    if (!is_permutation(perm, rank)) return NPU_ERR_INVALID_ARG;
    // Guard: an output of another rank would take permutation entries that
    // do not exist.
    const uint32_t r = out.shape.dim_num;
    if (r != rank) return NPU_ERR_INVALID_ARG;

    uint32_t in_stride[NPU_MAX_DIMS] = {};
    uint32_t out_stride[NPU_MAX_DIMS] = {};
    uint64_t total = 1;
    for (uint32_t d = 0; d < r; ++d) {
        in_stride[d] = static_cast<uint32_t>(get_size_from_dim(&in.shape, static_cast<int32_t>(d + 1)));
        out_stride[d] = static_cast<uint32_t>(get_size_from_dim(&out.shape, static_cast<int32_t>(d + 1)));
        total *= in.shape.dims[d];
    }
    if (total < 1) return NPU_OK;

    const float *src = static_cast<const float *>(in.buf);
    float *dst = static_cast<float *>(out.buf);
    // Fast path: an output of the permuted input shape that both buffers
    // hold whole (then every position decodes inside both).
    if (npucpu::active_isa() >= npucpu::Isa::Avx2 && total <= out_count && total <= in_count &&
        total < (uint64_t{1} << 32)) {
        bool permuted = true;
        for (uint32_t d = 0; d < r; ++d) permuted &= out.shape.dims[d] == in.shape.dims[perm[d]];
        if (permuted) {
            npucpu::transpose_fast_avx2(src, dst, rank, in.shape.dims, perm);
            return NPU_OK;
        }
    }
    for (uint64_t n = 0; n < total; ++n) {
        // Guard: writes stop at the end of the output buffer, and positions
        // past the input buffer (an output shape that is not the permuted
        // input shape) are not read; both keep the status.
        if (n >= out_count) break;
        uint64_t coord[NPU_MAX_DIMS] = {};
        uint64_t rem = n;
        for (uint32_t d = 0; d < r; ++d) {
            const uint64_t q = out_stride[d] == 0 ? 0 : rem / out_stride[d];
            coord[perm[d]] = q;
            rem -= q * out_stride[d];
        }
        uint64_t pos = 0;
        for (uint32_t d = 0; d < r; ++d) pos += coord[d] * in_stride[d];
        if (pos < in_count) dst[n] = src[pos];
    }
    return NPU_OK;
}

}  // extern "C"
