// Shared checks of the context API: every routine that takes a handle logs
// "handle is null", and every by-index routine logs an out-of-range index,
// in its own name and line.
#ifndef NPUCPU_API_CONTEXT_INTERNAL_H
#define NPUCPU_API_CONTEXT_INTERNAL_H

#include "npucpu.h"

namespace npucpu {

constexpr uint32_t kLevelErr = 4;

enum class Side { Input, Output };

// The descriptor at `index` on the given side, or null after logging
// "handle is null" or the index message as `func`:`line`.
TensorDesc *find_desc(OperatorContext *handle, Side side, uint32_t index, const char *func,
                      int32_t line);

// A shape record the context can store: non-null with at most 16 dims.
// Setters refuse anything else with NPU_ERR_INVALID_ARG and change nothing.
bool shape_ok(const TensorShape *shape);

// Copies dim_num and the first dim_num dims; the other dims keep their values.
void copy_shape_prefix(TensorShape *dst, const TensorShape *src);

// Recomputes an output's width stride from its last dim and data type,
// unless the stride was fixed by the host.
void refresh_output_wstride(TensorDesc *desc);

}  // namespace npucpu

#define NPU_API_LOG_ERR(...) print_log(::npucpu::kLevelErr, __func__, __LINE__, __VA_ARGS__)
#define NPU_FIND_INPUT(h, i) ::npucpu::find_desc((h), ::npucpu::Side::Input, (i), __func__, __LINE__)
#define NPU_FIND_OUTPUT(h, i) ::npucpu::find_desc((h), ::npucpu::Side::Output, (i), __func__, __LINE__)

#endif
