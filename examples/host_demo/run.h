/* Running a pipeline the way an NPU runtime runs its CPU fallbacks: one
 * context per node, outputs allocated from the inferred shapes. */
#ifndef HOST_DEMO_RUN_H
#define HOST_DEMO_RUN_H

#include <stdio.h>

#include "library.h"
#include "pipeline.h"

/* The tensors of one run, by name. Capacity is fixed at creation so that
 * pointers into it stay valid. */
typedef struct TensorTable {
    HostTensor *items;
    uint32_t count, cap;
} TensorTable;

void table_init(TensorTable *t, uint32_t cap);
void table_free(TensorTable *t);
HostTensor *table_find(const TensorTable *t, const char *name);
/* A new zeroed entry named `name`, or NULL when the table is full. */
HostTensor *table_add(TensorTable *t, const char *name);

/* Runs every step, printing one row per step to `out`. Returns 0 when all
 * succeeded, 1 when a node failed (its row says how), -1 on a host error
 * (reason in `err`). */
int run_pipeline(const NpuLibrary *lib, const Pipeline *p, TensorTable *tensors, FILE *out,
                 char *err, size_t err_len);

/* Prints the pipeline's result tensors. */
void print_results(const Pipeline *p, const TensorTable *tensors, FILE *out);

#endif
