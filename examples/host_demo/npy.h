/* Reading and writing NumPy .npy files (format versions 1 to 3, C order,
 * little-endian numeric types). */
#ifndef HOST_DEMO_NPY_H
#define HOST_DEMO_NPY_H

#include <stddef.h>

#include "tensor.h"

/* Loads `path` into `t` (dtype, shape, data, len; owns_data set). Returns 0,
 * or -1 with a reason in `err`. */
int npy_load(const char *path, HostTensor *t, char *err, size_t err_len);

/* Parses an in-memory .npy image; used by npy_load and by the tests. */
int npy_parse(const unsigned char *bytes, size_t size, HostTensor *t, char *err,
              size_t err_len);

/* Writes `t` as a version 1.0 .npy file. Returns 0 or -1. */
int npy_save(const char *path, const HostTensor *t, char *err, size_t err_len);

#endif
