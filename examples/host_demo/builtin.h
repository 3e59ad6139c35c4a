/* The built-in pipeline: a small detector on a synthetic image, with its
 * weights generated from a fixed seed (no files, no network). */
#ifndef HOST_DEMO_BUILTIN_H
#define HOST_DEMO_BUILTIN_H

#include "tensor.h"

/* The pipeline description (format in pipeline.h). */
const char *builtin_pipeline(void);

/* Fills `t` (owning its data) with the embedded tensor `name` declared by
 * an `input` line of the built-in pipeline; -1 if there is none. */
int builtin_tensor(const char *name, HostTensor *t);

#endif
