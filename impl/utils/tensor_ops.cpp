// Tensor reshaping, broadcasting and the data-movement utilities.
#include <cstdlib>
#include <cstring>

#include "npucpu.h"
#include "op_log.h"

extern "C" {

NPU_API Tensor *reshape(const Tensor *src, uint32_t tag, const TensorShape *target) {
    if (src == nullptr || target == nullptr) return nullptr;
    if (target->dim_num == 0) {
        NPU_ERROR("Given target shape info is empty! \n");
        return nullptr;
    }
    const uint32_t count = GetElemSize(target);
    if (GetElemSize(&src->shape) != count) {
        NPU_ERROR("Reshape to  failed! input elems:, output elems: \n");
        return nullptr;
    }
    Tensor *t = static_cast<Tensor *>(std::calloc(1, sizeof(Tensor)));
    t->shape = *target;
    t->dtype = src->dtype;
    t->format = tag;
    t->data = static_cast<float *>(std::malloc(static_cast<size_t>(count) * sizeof(float)));
    if (count > 0) std::memcpy(t->data, src->data, static_cast<size_t>(count) * sizeof(float));
    return t;
}

NPU_API float *broadcast(const TensorShape *in_shape, uint32_t dtype, const float *in_data,
                         const TensorShape *out_shape) {
    (void)dtype;  // the data is always read as 32-bit floats
    const uint32_t R = out_shape->dim_num;
    const uint32_t count = GetElemSize(out_shape);
    float *result = static_cast<float *>(std::calloc(count > 0 ? count : 1, sizeof(float)));
    // An input with no elements has nothing to read: the result stays zero.
    if (GetElemSize(in_shape) == 0 || count == 0) return result;
    if (R == 0) {
        result[0] = in_data[0];
        return result;
    }

    // Input dims aligned at the right; an input of higher rank uses its last R dims.
    const uint32_t r = in_shape->dim_num < R ? in_shape->dim_num : R;
    const uint32_t *in_dims = in_shape->dims + (in_shape->dim_num - r);
    uint32_t a[NPU_MAX_DIMS], os[NPU_MAX_DIMS], is[NPU_MAX_DIMS];
    int32_t idx[NPU_MAX_DIMS];
    for (uint32_t k = 0; k < R; ++k) a[k] = k < R - r ? 1u : in_dims[k - (R - r)];
    os[R - 1] = 1;
    is[R - 1] = 1;
    for (uint32_t k = R - 1; k > 0; --k) {
        os[k - 1] = os[k] * out_shape->dims[k];
        is[k - 1] = is[k] * a[k];
    }
    std::memset(idx, 0, sizeof idx);

    // Incremental index walk: an axis's index is recomputed from the output
    // position modulo the input dim, and the walk stops at the first axis
    // whose index advanced, so outer axes keep their indices. For compatible
    // shapes this is the usual broadcast; for mismatched dims it wraps.
    for (uint32_t i = 0; i < count; ++i) {
        for (int32_t k = static_cast<int32_t>(R) - 1; k >= 0; --k) {
            if (a[k] == 1) {
                idx[k] = 0;
                continue;
            }
            const int32_t next = static_cast<int32_t>(
                static_cast<int64_t>(i / os[k]) % static_cast<int64_t>(a[k]));
            const int32_t old = idx[k];
            idx[k] = next;
            if (old < next) break;
        }
        uint32_t offset = 0;
        for (uint32_t k = 0; k < R; ++k) offset += static_cast<uint32_t>(idx[k]) * is[k];
        result[i] = in_data[offset];
    }
    return result;
}

// ---- Bias broadcast, split, concat and padding --------------------------


// ---- Gather, slice and transpose -----------------------------------------

// A rank the dims array of a TensorShape can hold.
static bool rank_fits(uint32_t rank) { return rank <= NPU_MAX_DIMS; }

NPU_API uint32_t gather(const Tensor *data, const Tensor *indices, int64_t axis, Tensor *output) {
    // Guard: missing records or buffers: nothing to gather from or into.
    if (data == nullptr || indices == nullptr || output == nullptr || data->data == nullptr ||
        indices->data == nullptr || output->data == nullptr) {
        return NPU_OK;
    }
    const int64_t rank = data->shape.dim_num;
    // Guard: ranks past the dims array.
    if (!rank_fits(data->shape.dim_num) || !rank_fits(indices->shape.dim_num)) return NPU_OK;
    const int64_t a = axis < 0 ? axis + rank : axis;
    // Guard: an axis outside the data's dims would read past them.
    if (a < 0 || a >= rank) return NPU_OK;

    // Indices widened to 64 bits: sign-extended from 32 bits for dtype 4,
    // taken as they are otherwise.
    const uint32_t n = accumulate_mul(indices->shape.dims, 0, indices->shape.dim_num);
    int64_t *entries = static_cast<int64_t *>(std::malloc(n > 0 ? n * sizeof(int64_t) : 1));
    if (indices->dtype == NPU_DTYPE_INT32) {
        const int32_t *src = reinterpret_cast<const int32_t *>(indices->data);
        for (uint32_t j = 0; j < n; ++j) entries[j] = src[j];
    } else if (n > 0) {
        std::memcpy(entries, indices->data, static_cast<size_t>(n) * sizeof(int64_t));
    }

    const int32_t ai = static_cast<int32_t>(a);
    const uint64_t axis_len = data->shape.dims[ai];
    const uint64_t outer = accumulate_mul(data->shape.dims, 0, ai);
    const uint64_t inner = accumulate_mul(data->shape.dims, ai + 1, data->shape.dim_num);
    if (ai >= 1 && outer < 1) {
        std::free(entries);
        return NPU_OK;
    }
    const uint64_t rounds = outer < 1 ? 1 : outer;

    // A negative index counts from the end of the axis, once.
    for (uint32_t j = 0; j < n; ++j) {
        if (entries[j] < 0) entries[j] += static_cast<int64_t>(axis_len);
    }
    // Guard: an index still outside the axis would read past the data;
    // refuse before anything is written.
    if (inner > 0) {
        for (uint32_t j = 0; j < n; ++j) {
            if (entries[j] < 0 || static_cast<uint64_t>(entries[j]) >= axis_len) {
                std::free(entries);
                return NPU_ERR_INVALID_ARG;
            }
        }
    }

    // Guard: writes stop at the output's element count.
    const uint64_t capacity = GetElemSize(&output->shape);
    for (uint64_t o = 0; o < rounds; ++o) {
        for (uint32_t j = 0; j < n; ++j) {
            const uint64_t from = (o * axis_len + static_cast<uint64_t>(entries[j])) * inner;
            const uint64_t to = (o * n + j) * inner;
            if (to >= capacity) continue;
            const uint64_t len = capacity - to < inner ? capacity - to : inner;
            std::memcpy(output->data + to, data->data + from, len * sizeof(float));
        }
    }
    std::free(entries);
    return NPU_OK;
}

NPU_API float *slice_one_axis(float *data, int32_t *total, uint32_t *dims, int32_t axis,
                              const int32_t *list, int32_t count) {
    // Guard: missing arrays, an axis past the dims array or a negative
    // count: nothing is done.
    if (data == nullptr || total == nullptr || dims == nullptr || axis < 0 ||
        axis >= static_cast<int32_t>(NPU_MAX_DIMS) || count < 0 || (count > 0 && list == nullptr) ||
        *total < 0) {
        return nullptr;
    }
    const uint32_t outer = accumulate_mul(dims, 0, axis);
    if (outer == 0) return nullptr;
    const uint32_t len = dims[axis];
    if (len == 0) return nullptr;
    const int64_t inner = (static_cast<int64_t>(*total) / outer) / len;

    // Guard: a position outside the axis would read past the data, and a
    // selection of more than 2^31 - 1 elements does not fit the total.
    if (inner > 0) {
        for (int32_t k = 0; k < count; ++k) {
            if (list[k] < 0 || static_cast<uint32_t>(list[k]) >= len) return nullptr;
        }
    }
    const int64_t size = static_cast<int64_t>(count) * outer * inner;
    if (size > INT32_MAX) return nullptr;

    float *result = static_cast<float *>(std::malloc(size > 0 ? static_cast<size_t>(size) * sizeof(float) : 1));
    float *next = result;
    for (uint32_t o = 0; o < outer; ++o) {
        for (int32_t k = 0; k < count; ++k) {
            const int64_t from = (list[k] + static_cast<int64_t>(o) * len) * inner;
            if (inner > 0) std::memcpy(next, data + from, static_cast<size_t>(inner) * sizeof(float));
            next += inner;
        }
    }
    *total = static_cast<int32_t>(size);
    std::free(data);
    dims[axis] = static_cast<uint32_t>(count);
    return result;
}

NPU_API uint32_t slice(const Tensor *input, const int32_t *starts, const int32_t *ends,
                       const int32_t *steps, Tensor *output) {
    // Guard: missing records, buffers or parameter arrays: nothing is written.
    if (input == nullptr || starts == nullptr || ends == nullptr || steps == nullptr ||
        output == nullptr || input->data == nullptr || output->data == nullptr) {
        return NPU_OK;
    }
    const uint32_t rank = input->shape.dim_num;
    const uint32_t elements = GetElemSize(&input->shape);
    // Guard: a rank past the dims array, or more elements than the signed
    // 32-bit total counts: nothing is written.
    if (!rank_fits(rank) || elements > static_cast<uint32_t>(INT32_MAX)) return NPU_OK;

    uint32_t dims[NPU_MAX_DIMS] = {};
    std::memcpy(dims, input->shape.dims, rank * sizeof(uint32_t));
    int32_t total = static_cast<int32_t>(elements);
    float *current = static_cast<float *>(std::malloc(elements > 0 ? elements * sizeof(float) : 1));
    if (elements > 0) std::memcpy(current, input->data, elements * sizeof(float));

    for (uint32_t d = 0; d < rank; ++d) {
        const int64_t start = starts[d];
        const int64_t end = ends[d];
        const int64_t step = steps[d];
        // Positions start, start + step, ... while short of end. A step of 0
        // selects nothing (it would never reach the end).
        int64_t count = 0;
        if (step >= 1 && start < end) count = (end - 1 - start) / step + 1;
        if (step < 0 && start > end) count = (start - end - 1) / -step + 1;
        if (count > 0) {
            // Guard: the positions run monotonically, so the first and the
            // last bound them; one outside the axis would be read past the
            // data. Nothing is written. (On an axis of length 0 nothing was
            // going to be copied anyway.)
            const int64_t last = start + (count - 1) * step;
            const int64_t lo = start < last ? start : last;
            const int64_t hi = start < last ? last : start;
            if (lo < 0 || hi >= static_cast<int64_t>(dims[d])) {
                std::free(current);
                return NPU_OK;
            }
        }
        // count <= dims[d] here, so it fits.
        int32_t *list = static_cast<int32_t *>(
            std::malloc(count > 0 ? static_cast<size_t>(count) * sizeof(int32_t) : 1));
        for (int64_t k = 0; k < count; ++k) list[k] = static_cast<int32_t>(start + k * step);
        float *sliced = slice_one_axis(current, &total, dims, static_cast<int32_t>(d), list,
                                       static_cast<int32_t>(count));
        if (sliced != nullptr) current = sliced;
        std::free(list);
    }

    // An empty selection leaves a total of 0: nothing is copied.
    const uint64_t capacity = GetElemSize(&output->shape);
    const uint64_t n = capacity < static_cast<uint64_t>(total) ? capacity : static_cast<uint64_t>(total);
    if (n > 0) std::memcpy(output->data, current, n * sizeof(float));
    std::free(current);
    return NPU_OK;
}

NPU_API uint32_t Transpose(const Tensor *input, const uint32_t *perm, Tensor *output) {
    if (input == nullptr || perm == nullptr || output == nullptr) {
        NPU_ERROR("invalid param! input_tensor:%p, perm:%p, output_tensor:%p \n",
                  static_cast<const void *>(input), static_cast<const void *>(perm),
                  static_cast<const void *>(output));
        return NPU_ERR_INVALID_ARG;
    }
    const uint32_t r = output->shape.dim_num;
    // Guard: the permutation must be one of the output's axes, the input of
    // the same rank, and the output shape the permuted input shape;
    // otherwise coordinates would land outside the coordinate array or reads
    // outside the input. Nothing is written.
    if (!rank_fits(r) || input->shape.dim_num != r) return NPU_ERR_INVALID_ARG;
    bool seen[NPU_MAX_DIMS] = {};
    for (uint32_t d = 0; d < r; ++d) {
        if (perm[d] >= r || seen[perm[d]] || output->shape.dims[d] != input->shape.dims[perm[d]]) {
            return NPU_ERR_INVALID_ARG;
        }
        seen[perm[d]] = true;
    }

    uint32_t *in_stride = static_cast<uint32_t *>(std::calloc(r > 0 ? r : 1, sizeof(uint32_t)));
    uint32_t *out_stride = static_cast<uint32_t *>(std::calloc(r > 0 ? r : 1, sizeof(uint32_t)));
    for (uint32_t d = 0; d < r; ++d) {
        in_stride[d] = static_cast<uint32_t>(get_size_from_dim(&input->shape, static_cast<int32_t>(d + 1)));
        out_stride[d] = static_cast<uint32_t>(get_size_from_dim(&output->shape, static_cast<int32_t>(d + 1)));
    }
    const uint32_t total = GetElemSize(&output->shape);
    // Guard: with elements to move, both buffers must exist.
    if (total >= 1 && (input->data == nullptr || output->data == nullptr)) {
        std::free(in_stride);
        std::free(out_stride);
        return NPU_ERR_INVALID_ARG;
    }

    // Output axis d takes input axis perm[d]: split each output position
    // into its coordinates and gather them by input axis.
    for (uint32_t n = 0; n < total; ++n) {
        uint32_t coord[NPU_MAX_DIMS] = {};
        uint32_t rem = n;
        for (uint32_t d = 0; d < r; ++d) {
            const uint32_t q = out_stride[d] == 0 ? 0 : rem / out_stride[d];
            coord[perm[d]] = q;
            rem -= q * out_stride[d];
        }
        uint32_t pos = 0;
        for (uint32_t d = 0; d < r; ++d) pos += in_stride[d] * coord[d];
        output->data[n] = input->data[pos];
    }
    std::free(in_stride);
    std::free(out_stride);
    return NPU_OK;
}


}  // extern "C"
