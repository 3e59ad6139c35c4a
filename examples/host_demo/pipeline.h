/* Pipeline descriptions: a small line-based text format.
 *
 *   # comment (to the end of the line)
 *   input NAME [FILE.npy]          tensor from a .npy file (relative to the
 *                                  description), or bound with --input NAME=FILE
 *   const NAME DTYPE DIMS VALUES   inline tensor: const k int64 1 3
 *                                  (DIMS 1x3x32x32 or "scalar", VALUES a,b,c)
 *   node OP IN... -> OUT... [ATTR=VALUE]...
 *                                  one call of the operator OP; "-" is an
 *                                  absent input (null buffer)
 *   view IN -> OUT DIMS            the same buffer under another shape, as a
 *                                  runtime does for a flatten (no copy)
 *   result NAME...                 tensors to print (default: the last
 *                                  step's outputs)
 *
 * Attribute types are inferred (1 int, 1.5 float, 2,2 ints, 0.5,1 floats,
 * anything else a string) unless written NAME:int|ints|float|floats|str=VALUE.
 */
#ifndef HOST_DEMO_PIPELINE_H
#define HOST_DEMO_PIPELINE_H

#include <stddef.h>

#include "tensor.h"

#define STEP_MAX_INPUTS 32 /* concat, sum and mean take any number */
#define STEP_MAX_OUTPUTS 4
#define STEP_MAX_ATTRS 16
#define PIPELINE_MAX_RESULTS 16
#define DEMO_PATH_LEN 512

typedef struct StepAttr {
    char name[DEMO_NAME_LEN];
    uint32_t type;  /* NPU_ATTR_* */
    void *data;     /* int64_t[], float[] or the string's bytes (unterminated) */
    uint64_t len;   /* bytes */
} StepAttr;

typedef enum { STEP_NODE, STEP_VIEW } StepKind;

typedef struct Step {
    StepKind kind;
    int line;
    char op[DEMO_NAME_LEN];
    char inputs[STEP_MAX_INPUTS][DEMO_NAME_LEN]; /* "-" for an absent input */
    uint32_t n_inputs;
    char outputs[STEP_MAX_OUTPUTS][DEMO_NAME_LEN];
    uint32_t n_outputs;
    StepAttr attrs[STEP_MAX_ATTRS];
    uint32_t n_attrs;
    TensorShape view_shape; /* STEP_VIEW */
} Step;

typedef struct InputDecl {
    char name[DEMO_NAME_LEN];
    char path[DEMO_PATH_LEN]; /* "" when the host must bind it */
} InputDecl;

typedef struct Pipeline {
    InputDecl *inputs;
    uint32_t n_inputs;
    HostTensor *consts;
    uint32_t n_consts;
    Step *steps;
    uint32_t n_steps;
    char results[PIPELINE_MAX_RESULTS][DEMO_NAME_LEN];
    uint32_t n_results;
} Pipeline;

/* Parses a description. `base_dir` is prepended to relative input paths (""
 * for none). Returns 0, or -1 with "line N: reason" in `err`; `p` is then
 * empty. */
int pipeline_parse(const char *text, const char *base_dir, Pipeline *p, char *err,
                   size_t err_len);
void pipeline_free(Pipeline *p);

/* Number of tensors a run can create (inputs, constants, step outputs). */
uint32_t pipeline_tensor_capacity(const Pipeline *p);

#endif
