// The skeleton shared by sum and mean: any number (at least one) of float
// inputs broadcast to a common shape and added in input order; mean then
// divides by the input count. Each operator file supplies its message word
// and its unit.
#ifndef NPUCPU_IMPL_UTILS_VARIADIC_OPS_H
#define NPUCPU_IMPL_UTILS_VARIADIC_OPS_H

#include <cstdint>

#include "npucpu.h"

namespace npucpu {

// "<word> only support inputs >= 1" and NPU_ERR_INPUT_NUM without inputs;
// "broadcast failed" and NPU_FAIL on a shape conflict (both attributed to
// `unit`); otherwise output 0 gets the common shape and input 0's data type
// and format.
uint32_t variadic_infershape(OperatorContext *handle, const char *unit, const char *word);

// 1 when every input is 32-bit float (also with no inputs), else 0.
uint32_t variadic_check_supported(OperatorContext *handle);

enum class VariadicMode { kSum, kMean };

// Clears the output, adds every input broadcast to the output shape in index
// order and, for kMean, divides by the input count.
uint32_t variadic_compute(OperatorContext *handle, VariadicMode mode);

}  // namespace npucpu

#endif
