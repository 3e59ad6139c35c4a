/* The library as a runtime sees it: a file opened with dlopen, the context
 * API and each operator's three entry points resolved by name with dlsym.
 * Nothing here links against libnpucpu. */
#ifndef HOST_DEMO_LIBRARY_H
#define HOST_DEMO_LIBRARY_H

#include <stddef.h>

#include "npucpu.h" /* records and constants only; no function is linked */

typedef uint32_t (*EntryPoint)(OperatorContext *handle);

typedef struct OperatorEntryPoints {
    EntryPoint infershape;
    EntryPoint check_supported;
    EntryPoint compute;
} OperatorEntryPoints;

/* The context API routines the host uses. */
typedef struct NpuLibrary {
    void *dl;
    uint32_t (*create_handle)(OperatorContext **handle_out);
    uint32_t (*destory_handle)(OperatorContext **handle_ptr);
    uint32_t (*set_inputs_num)(OperatorContext *handle, uint32_t num);
    uint32_t (*set_outputs_num)(OperatorContext *handle, uint32_t num);
    uint32_t (*set_attrs_num)(OperatorContext *handle, uint32_t num);
    uint32_t (*set_input_by_index)(OperatorContext *handle, uint32_t index, uint32_t dtype,
                                   uint32_t format, const TensorShape *shape, void *buf,
                                   uint64_t buf_len, uint32_t batch_mode);
    uint32_t (*set_attr_by_index)(OperatorContext *handle, uint32_t index, const char *name,
                                  uint32_t reserved, uint32_t dtype, void *data,
                                  uint64_t data_len);
    uint32_t (*get_output_shape_by_index)(OperatorContext *handle, uint32_t index,
                                          TensorShape *shape_out);
    uint32_t (*get_output_dtype_by_index)(OperatorContext *handle, uint32_t index,
                                          uint32_t *dtype_out);
    uint32_t (*get_output_format_by_index)(OperatorContext *handle, uint32_t index,
                                           uint32_t *format_out);
    uint32_t (*set_output_buf_by_index)(OperatorContext *handle, uint32_t index, void *buf,
                                        uint64_t buf_len);
    void (*set_log_level)(uint32_t level);
} NpuLibrary;

/* Opens the library at `path` and resolves the context API. On failure
 * returns -1 with a reason in `err`. */
int npu_library_open(NpuLibrary *lib, const char *path, char *err, size_t err_len);
void npu_library_close(NpuLibrary *lib);

/* Resolves <op>_infershape, <op>_check_supported and <op>_compute. */
int npu_library_operator(const NpuLibrary *lib, const char *op, OperatorEntryPoints *out,
                         char *err, size_t err_len);

#endif
