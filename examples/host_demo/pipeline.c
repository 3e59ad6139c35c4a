#include "pipeline.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define MAX_TOKENS 64

typedef struct Parser {
    Pipeline *p;
    const char *base_dir;
    int line;
    char *err;
    size_t err_len;
    char (*names)[DEMO_NAME_LEN]; /* every tensor name defined so far */
    uint32_t n_names, cap_names;
} Parser;

static int fail(Parser *ps, const char *fmt, ...) {
    int n = snprintf(ps->err, ps->err_len, "line %d: ", ps->line);
    va_list ap;
    va_start(ap, fmt);
    if (n >= 0 && (size_t)n < ps->err_len) vsnprintf(ps->err + n, ps->err_len - (size_t)n, fmt, ap);
    va_end(ap);
    return -1;
}

static void *grow(void *array, uint32_t count, size_t item) {
    void *a = realloc(array, (count + 1) * item);
    memset((char *)a + count * item, 0, item);
    return a;
}

/* ---- names ------------------------------------------------------------- */

static int valid_name(const char *s) {
    size_t n = strlen(s);
    if (n == 0 || n >= DEMO_NAME_LEN || strcmp(s, "-") == 0) return 0;
    for (; *s; ++s) {
        char c = *s;
        if (!(c == '_' || c == '.' || (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') ||
              (c >= 'A' && c <= 'Z')))
            return 0;
    }
    return 1;
}

static int is_defined(const Parser *ps, const char *name) {
    for (uint32_t i = 0; i < ps->n_names; ++i)
        if (strcmp(ps->names[i], name) == 0) return 1;
    return 0;
}

/* Declares a new tensor name; refuses redefinitions. */
static int define(Parser *ps, const char *name) {
    if (!valid_name(name)) return fail(ps, "bad tensor name '%s'", name);
    if (is_defined(ps, name)) return fail(ps, "tensor '%s' is defined twice", name);
    if (ps->n_names == ps->cap_names) {
        ps->cap_names = ps->cap_names ? ps->cap_names * 2 : 32;
        ps->names = realloc(ps->names, ps->cap_names * sizeof *ps->names);
    }
    snprintf(ps->names[ps->n_names++], DEMO_NAME_LEN, "%s", name);
    return 0;
}

static int use(Parser *ps, const char *name) {
    if (strcmp(name, "-") == 0) return 0;
    if (!is_defined(ps, name)) return fail(ps, "tensor '%s' is used before it is defined", name);
    return 0;
}

/* ---- numbers ----------------------------------------------------------- */

static int parse_int(const char *s, int64_t *out) {
    char *end;
    errno = 0;
    long long v = strtoll(s, &end, 10);
    if (end == s || *end != '\0' || errno != 0) return -1;
    *out = v;
    return 0;
}

static int parse_double(const char *s, double *out) {
    char *end;
    double v = strtod(s, &end);
    if (end == s || *end != '\0') return -1;
    *out = v;
    return 0;
}

/* Splits "a,b,c" in place; returns the item count (0 for ""). */
static int split_list(char *s, char **items, int max) {
    if (*s == '\0') return 0;
    int n = 0;
    for (char *tok = s;; ++n) {
        if (n == max) return -1;
        items[n] = tok;
        char *comma = strchr(tok, ',');
        if (comma == NULL) return n + 1;
        *comma = '\0';
        tok = comma + 1;
    }
}

/* ---- attributes -------------------------------------------------------- */

static int attr_kind_of(const char *value) {
    int64_t i;
    double d;
    if (parse_int(value, &i) == 0) return NPU_ATTR_INT;
    if (parse_double(value, &d) == 0) return NPU_ATTR_FLOAT;
    if (strchr(value, ',') == NULL) return NPU_ATTR_STRING;
    char copy[1024], *items[256];
    snprintf(copy, sizeof copy, "%s", value);
    int n = split_list(copy, items, 256);
    if (n <= 0) return NPU_ATTR_STRING;
    int all_int = 1, all_num = 1;
    for (int k = 0; k < n; ++k) {
        if (parse_int(items[k], &i) != 0) all_int = 0;
        if (parse_double(items[k], &d) != 0) all_num = 0;
    }
    return all_int ? NPU_ATTR_INTS : all_num ? NPU_ATTR_FLOATS : NPU_ATTR_STRING;
}

static int parse_attr(Parser *ps, char *tok, StepAttr *a) {
    char *eq = strchr(tok, '=');
    if (eq == NULL || eq == tok) return fail(ps, "expected NAME=VALUE, got '%s'", tok);
    *eq = '\0';
    char *value = eq + 1;
    char *colon = strchr(tok, ':');
    int kind = -1;
    if (colon != NULL) {
        *colon = '\0';
        static const char *const kinds[] = {"int", "ints", "float", "floats", "str"};
        for (int k = 0; k < 5; ++k)
            if (strcmp(colon + 1, kinds[k]) == 0) kind = k;
        if (kind < 0) return fail(ps, "attribute '%s': unknown type '%s'", tok, colon + 1);
    } else {
        kind = attr_kind_of(value);
    }
    if (*tok == '\0' || strlen(tok) >= DEMO_NAME_LEN)
        return fail(ps, "bad attribute name '%s'", tok);
    snprintf(a->name, sizeof a->name, "%s", tok);
    a->type = (uint32_t)kind;

    if (kind == NPU_ATTR_STRING) {
        a->len = strlen(value);
        a->data = malloc(a->len + 1);
        memcpy(a->data, value, a->len + 1);
        return 0;
    }
    char *items[256];
    int n = split_list(value, items, 256);
    if (n < 0) return fail(ps, "attribute '%s': more than 256 values", a->name);
    if ((kind == NPU_ATTR_INT || kind == NPU_ATTR_FLOAT) && n != 1)
        return fail(ps, "attribute '%s': one value expected", a->name);
    int is_int = kind == NPU_ATTR_INT || kind == NPU_ATTR_INTS;
    a->len = (uint64_t)n * (is_int ? 8u : 4u);
    a->data = calloc((size_t)n + 1, 8);
    for (int k = 0; k < n; ++k) {
        int64_t iv;
        double dv;
        if (is_int ? parse_int(items[k], &iv) : parse_double(items[k], &dv))
            return fail(ps, "attribute '%s': '%s' is not %s", a->name, items[k],
                        is_int ? "an integer" : "a number");
        if (is_int)
            ((int64_t *)a->data)[k] = iv;
        else
            ((float *)a->data)[k] = (float)dv;
    }
    return 0;
}

/* ---- lines ------------------------------------------------------------- */

static int parse_input(Parser *ps, char **tok, int n) {
    if (n != 2 && n != 3) return fail(ps, "expected: input NAME [FILE.npy]");
    if (define(ps, tok[1]) != 0) return -1;
    Pipeline *p = ps->p;
    p->inputs = grow(p->inputs, p->n_inputs, sizeof *p->inputs);
    InputDecl *d = &p->inputs[p->n_inputs++];
    snprintf(d->name, sizeof d->name, "%s", tok[1]);
    if (n == 3) {
        int rel = tok[2][0] != '/' && ps->base_dir[0] != '\0';
        int len = snprintf(d->path, sizeof d->path, "%s%s%s", rel ? ps->base_dir : "",
                           rel ? "/" : "", tok[2]);
        if (len < 0 || (size_t)len >= sizeof d->path) return fail(ps, "path too long");
    }
    return 0;
}

static int store_value(Parser *ps, HostTensor *t, uint64_t k, const char *text) {
    int64_t iv = 0;
    double dv = 0;
    int is_float = t->dtype == NPU_DTYPE_FLOAT32 || t->dtype == NPU_DTYPE_FLOAT64;
    if (is_float ? parse_double(text, &dv) : parse_int(text, &iv))
        return fail(ps, "const '%s': '%s' is not %s", t->name, text,
                    is_float ? "a number" : "an integer");
    unsigned char *b = (unsigned char *)t->data + k * dtype_size(t->dtype);
    switch (t->dtype) {
    case NPU_DTYPE_FLOAT32: { float v = (float)dv; memcpy(b, &v, 4); break; }
    case NPU_DTYPE_FLOAT64: memcpy(b, &dv, 8); break;
    case NPU_DTYPE_INT8: case NPU_DTYPE_UINT8: case NPU_DTYPE_BOOL:
        { uint8_t v = (uint8_t)iv; memcpy(b, &v, 1); break; }
    case NPU_DTYPE_INT16: case NPU_DTYPE_UINT16: { uint16_t v = (uint16_t)iv; memcpy(b, &v, 2); break; }
    case NPU_DTYPE_INT32: case NPU_DTYPE_UINT32: { uint32_t v = (uint32_t)iv; memcpy(b, &v, 4); break; }
    default: memcpy(b, &iv, 8); break;
    }
    return 0;
}

static int parse_const(Parser *ps, char **tok, int n) {
    if (n != 5) return fail(ps, "expected: const NAME DTYPE DIMS VALUES");
    if (define(ps, tok[1]) != 0) return -1;
    int dtype = dtype_from_name(tok[2]);
    if (dtype < 0 || dtype == NPU_DTYPE_FLOAT16)
        return fail(ps, "const '%s': unsupported data type '%s'", tok[1], tok[2]);
    TensorShape shape;
    if (shape_parse(tok[3], &shape) != 0)
        return fail(ps, "const '%s': bad dims '%s' (write 1x3x4 or scalar)", tok[1], tok[3]);
    uint64_t count = shape_elements(&shape);
    char *items[4096];
    int n_items = split_list(tok[4], items, 4096);
    if (n_items < 0 || (uint64_t)n_items != count)
        return fail(ps, "const '%s': %llu values expected", tok[1], (unsigned long long)count);

    Pipeline *p = ps->p;
    p->consts = grow(p->consts, p->n_consts, sizeof *p->consts);
    HostTensor *t = &p->consts[p->n_consts++];
    snprintf(t->name, sizeof t->name, "%s", tok[1]);
    t->dtype = (uint32_t)dtype;
    t->format = NPU_FORMAT_NCHW;
    t->shape = shape;
    t->len = count * dtype_size(t->dtype);
    t->data = calloc((size_t)count + 1, dtype_size(t->dtype));
    t->owns_data = 1;
    for (uint64_t k = 0; k < count; ++k)
        if (store_value(ps, t, k, items[k]) != 0) return -1;
    return 0;
}

static Step *new_step(Parser *ps, StepKind kind) {
    Pipeline *p = ps->p;
    p->steps = grow(p->steps, p->n_steps, sizeof *p->steps);
    Step *s = &p->steps[p->n_steps++];
    s->kind = kind;
    s->line = ps->line;
    return s;
}

/* "node OP IN... -> OUT... ATTR=VALUE..." */
static int parse_node(Parser *ps, char **tok, int n) {
    if (n < 2) return fail(ps, "expected: node OP IN... -> OUT... [ATTR=VALUE]...");
    Step *s = new_step(ps, STEP_NODE);
    if (!valid_name(tok[1])) return fail(ps, "bad operator name '%s'", tok[1]);
    snprintf(s->op, sizeof s->op, "%s", tok[1]);
    int k = 2;
    for (; k < n && strcmp(tok[k], "->") != 0; ++k) {
        if (s->n_inputs == STEP_MAX_INPUTS) return fail(ps, "more than %d inputs", STEP_MAX_INPUTS);
        if (use(ps, tok[k]) != 0) return -1;
        snprintf(s->inputs[s->n_inputs++], DEMO_NAME_LEN, "%s", tok[k]);
    }
    if (k == n) return fail(ps, "'->' missing between inputs and outputs");
    for (++k; k < n && strchr(tok[k], '=') == NULL; ++k) {
        if (s->n_outputs == STEP_MAX_OUTPUTS)
            return fail(ps, "more than %d outputs", STEP_MAX_OUTPUTS);
        if (define(ps, tok[k]) != 0) return -1;
        snprintf(s->outputs[s->n_outputs++], DEMO_NAME_LEN, "%s", tok[k]);
    }
    if (s->n_outputs == 0) return fail(ps, "node %s has no output", s->op);
    for (; k < n; ++k) {
        if (s->n_attrs == STEP_MAX_ATTRS) return fail(ps, "more than %d attributes", STEP_MAX_ATTRS);
        for (uint32_t a = 0; a < s->n_attrs; ++a) {
            size_t len = strlen(s->attrs[a].name);
            if (strncmp(tok[k], s->attrs[a].name, len) == 0 && (tok[k][len] == '=' || tok[k][len] == ':'))
                return fail(ps, "attribute '%s' given twice", s->attrs[a].name);
        }
        if (parse_attr(ps, tok[k], &s->attrs[s->n_attrs++]) != 0) return -1;
    }
    return 0;
}

/* "view IN -> OUT DIMS" */
static int parse_view(Parser *ps, char **tok, int n) {
    if (n != 5 || strcmp(tok[2], "->") != 0) return fail(ps, "expected: view IN -> OUT DIMS");
    Step *s = new_step(ps, STEP_VIEW);
    snprintf(s->op, sizeof s->op, "view");
    if (strcmp(tok[1], "-") == 0) return fail(ps, "cannot view an absent tensor");
    if (use(ps, tok[1]) != 0) return -1;
    if (define(ps, tok[3]) != 0) return -1;
    if (shape_parse(tok[4], &s->view_shape) != 0)
        return fail(ps, "bad dims '%s' (write 1x16 or scalar)", tok[4]);
    snprintf(s->inputs[0], DEMO_NAME_LEN, "%s", tok[1]);
    snprintf(s->outputs[0], DEMO_NAME_LEN, "%s", tok[3]);
    s->n_inputs = s->n_outputs = 1;
    return 0;
}

static int parse_result(Parser *ps, char **tok, int n) {
    Pipeline *p = ps->p;
    for (int k = 1; k < n; ++k) {
        if (p->n_results == PIPELINE_MAX_RESULTS)
            return fail(ps, "more than %d results", PIPELINE_MAX_RESULTS);
        if (use(ps, tok[k]) != 0) return -1;
        snprintf(p->results[p->n_results++], DEMO_NAME_LEN, "%s", tok[k]);
    }
    return 0;
}

static int parse_line(Parser *ps, char *line) {
    char *hash = strchr(line, '#');
    if (hash != NULL) *hash = '\0';
    char *tok[MAX_TOKENS];
    int n = 0;
    for (char *t = strtok(line, " \t\r"); t != NULL; t = strtok(NULL, " \t\r")) {
        if (n == MAX_TOKENS) return fail(ps, "more than %d words", MAX_TOKENS);
        tok[n++] = t;
    }
    if (n == 0) return 0;
    if (strcmp(tok[0], "input") == 0) return parse_input(ps, tok, n);
    if (strcmp(tok[0], "const") == 0) return parse_const(ps, tok, n);
    if (strcmp(tok[0], "node") == 0) return parse_node(ps, tok, n);
    if (strcmp(tok[0], "view") == 0) return parse_view(ps, tok, n);
    if (strcmp(tok[0], "result") == 0) return parse_result(ps, tok, n);
    return fail(ps, "unknown statement '%s' (input, const, node, view, result)", tok[0]);
}

int pipeline_parse(const char *text, const char *base_dir, Pipeline *p, char *err,
                   size_t err_len) {
    memset(p, 0, sizeof *p);
    Parser ps = {p, base_dir ? base_dir : "", 0, err, err_len, NULL, 0, 0};
    char *copy = malloc(strlen(text) + 1);
    strcpy(copy, text);
    int rc = 0;
    char *line = copy;
    while (rc == 0 && line != NULL) {
        char *next = strchr(line, '\n');
        if (next != NULL) *next++ = '\0';
        ++ps.line;
        rc = parse_line(&ps, line);
        line = next;
    }
    if (rc == 0 && p->n_steps == 0) {
        snprintf(err, err_len, "the description has no node");
        rc = -1;
    }
    if (rc == 0 && p->n_results == 0) {
        const Step *last = &p->steps[p->n_steps - 1];
        for (uint32_t k = 0; k < last->n_outputs; ++k)
            snprintf(p->results[p->n_results++], DEMO_NAME_LEN, "%s", last->outputs[k]);
    }
    free(ps.names);
    free(copy);
    if (rc != 0) pipeline_free(p);
    return rc;
}

void pipeline_free(Pipeline *p) {
    for (uint32_t i = 0; i < p->n_consts; ++i) host_tensor_free(&p->consts[i]);
    for (uint32_t i = 0; i < p->n_steps; ++i)
        for (uint32_t a = 0; a < p->steps[i].n_attrs; ++a) free(p->steps[i].attrs[a].data);
    free(p->inputs);
    free(p->consts);
    free(p->steps);
    memset(p, 0, sizeof *p);
}

uint32_t pipeline_tensor_capacity(const Pipeline *p) {
    uint32_t n = p->n_inputs + p->n_consts;
    for (uint32_t i = 0; i < p->n_steps; ++i) n += p->steps[i].n_outputs;
    return n;
}
