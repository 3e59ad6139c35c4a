// Reading a context the way every operator does: an input's or output's
// whole description in one call, the output description written in the
// order the width stride needs, and attributes with their defaults.
#ifndef NPUCPU_IMPL_UTILS_OP_CONTEXT_H
#define NPUCPU_IMPL_UTILS_OP_CONTEXT_H

#include <cstdint>
#include <string>
#include <vector>

#include "npucpu.h"

namespace npucpu {

// One tensor as an operator sees it. The shape is zero-filled before it is
// read, so a dim at or past dim_num reads as 0.
struct TensorInfo {
    TensorShape shape{};
    uint32_t dtype = 0;
    uint32_t format = 0;
    void *buf = nullptr;
    uint64_t buf_len = 0;
};

// Number of inputs (0 for a null handle, after the accessor's message).
uint32_t input_count(OperatorContext *handle);
uint32_t output_count(OperatorContext *handle);

// Shape, data type, format, buffer and length of input or output `index`.
// Fields the accessors refuse stay at their zero values.
TensorInfo input_info(OperatorContext *handle, uint32_t index);
TensorInfo output_info(OperatorContext *handle, uint32_t index);

// Writes output `index`'s shape, then data type, then format.
void set_output_desc(OperatorContext *handle, uint32_t index, const TensorShape &shape,
                     uint32_t dtype, uint32_t format);

// Element count of a shape (the product of its dims, 1 for rank 0).
uint32_t element_count(const TensorShape &shape);

// Attribute readers in the house style: the default is stored first and the
// typed getter is called on the lookup's result, so an absent attribute or
// one of another type keeps the default (the getter logs why).
int64_t attr_int(OperatorContext *handle, const char *name, int64_t def);
float attr_float(OperatorContext *handle, const char *name, float def);
// An ints or floats attribute's values; empty when absent or of another type.
std::vector<int64_t> attr_ints(OperatorContext *handle, const char *name);
std::vector<float> attr_floats(OperatorContext *handle, const char *name);
// A string attribute read into n + 1 zero-filled bytes with dst_len n; `def`
// when absent or of another type.
std::string attr_string(OperatorContext *handle, const char *name, uint64_t n, const char *def);
bool has_attr(OperatorContext *handle, const char *name);

}  // namespace npucpu

#endif
