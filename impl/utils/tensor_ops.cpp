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


}  // extern "C"
