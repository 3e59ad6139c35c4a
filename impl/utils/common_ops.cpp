// Element counts, data type sizes, filling, freeing, dumping and layout
// lookups shared by every kernel.
#include <cstdio>
#include <cstdlib>

#include "npucpu.h"
#include "op_log.h"

namespace {

// Bytes per element by data type code; codes 10-18 and 20+ have no size.
constexpr uint32_t kDtypeSize[20] = {4, 8, 1, 2, 4, 8, 1, 2, 4, 8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};

constexpr uint32_t kLayoutNCHW = 0;
constexpr uint32_t kLayoutNHWC = 1;

// Position of a named dim in a 4-D shape of the given layout, or -1.
int dim_position(uint32_t layout, int nchw_pos, int nhwc_pos) {
    if (layout == kLayoutNCHW) return nchw_pos;
    if (layout == kLayoutNHWC) return nhwc_pos;
    return -1;
}

uint32_t layout_dim(const TensorShape *shape, int pos) {
    if (pos < 0) {
        NPU_ERROR("UnknowLayout! \n");
        return 0;
    }
    return shape->dims[pos];
}

}  // namespace

extern "C" {

NPU_API uint32_t accumulate_mul(const uint32_t *dims, int32_t begin, int32_t end) {
    uint32_t product = 1;
    for (int32_t i = begin < 0 ? 0 : begin; i < end; ++i) product *= dims[i];
    return product;
}

NPU_API uint32_t GetElemSize(const TensorShape *shape) {
    return accumulate_mul(shape->dims, 0, shape->dim_num);
}

NPU_API int64_t get_size_from_dim(const TensorShape *shape, int32_t axis) {
    // Dims are read as signed 32-bit and multiplied in 64 bits (wrapping).
    uint64_t product = 1;
    for (int32_t i = axis < 0 ? 0 : axis; i < shape->dim_num; ++i) {
        product *= static_cast<uint64_t>(static_cast<int64_t>(static_cast<int32_t>(shape->dims[i])));
    }
    return static_cast<int64_t>(product);
}

NPU_API uint32_t get_dtype_size(uint32_t dtype) { return dtype < 20 ? kDtypeSize[dtype] : 0; }

NPU_API void fill_vec_uint32(uint32_t *vec, uint32_t value, uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) vec[i] = value;
}

NPU_API void fill_vec_float(float *vec, float value, uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) vec[i] = value;
}

NPU_API void free_tensor(Tensor *tensor) {
    if (tensor == nullptr) return;
    std::free(tensor->data);
    std::free(tensor);
}

NPU_API void free_tensor_not_in_buf(Tensor *tensor) { std::free(tensor); }

NPU_API void free_vec(TensorList *list) {
    while (list != nullptr) {
        TensorList *next = list->next;
        if (list->tensor != nullptr) free_tensor(list->tensor);
        std::free(list);
        list = next;
    }
}

NPU_API void print_tensor(const Tensor *tensor) {
    if (tensor == nullptr) {
        NPU_ERROR("invalid param! tensor:%p \n", static_cast<const void *>(tensor));
        return;
    }
    std::printf("tensor shape: ");
    for (uint32_t i = 0; i < tensor->shape.dim_num && i < NPU_MAX_DIMS; ++i) {
        std::printf("%dx", static_cast<int>(tensor->shape.dims[i]));
    }
    std::printf(", buf: ");
    const int32_t count = static_cast<int32_t>(GetElemSize(&tensor->shape));
    for (int32_t i = 0; tensor->data != nullptr && i < count; ++i) {
        std::printf("%.3f, ", static_cast<double>(tensor->data[i]));
    }
    std::printf("\n");
}

NPU_API uint32_t get_batch(const TensorShape *shape, uint32_t layout) {
    (void)layout;
    return shape->dims[0];
}

NPU_API uint32_t get_channel(const TensorShape *shape, uint32_t layout) {
    return layout_dim(shape, dim_position(layout, 1, 3));
}

NPU_API uint32_t get_height(const TensorShape *shape, uint32_t layout) {
    return layout_dim(shape, dim_position(layout, 2, 1));
}

NPU_API uint32_t get_width(const TensorShape *shape, uint32_t layout) {
    return layout_dim(shape, dim_position(layout, 3, 2));
}

}  // extern "C"
