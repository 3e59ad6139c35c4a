/* clock_gettime */
#define _POSIX_C_SOURCE 200809L

#include "run.h"

#include <stdlib.h>
#include <string.h>
#include <time.h>

/* Outputs larger than this are refused rather than allocated. */
#define MAX_OUTPUT_BYTES (1ull << 32)

void table_init(TensorTable *t, uint32_t cap) {
    t->items = calloc(cap ? cap : 1, sizeof *t->items);
    t->count = 0;
    t->cap = cap;
}

void table_free(TensorTable *t) {
    for (uint32_t i = 0; i < t->count; ++i) host_tensor_free(&t->items[i]);
    free(t->items);
    memset(t, 0, sizeof *t);
}

HostTensor *table_find(const TensorTable *t, const char *name) {
    for (uint32_t i = 0; i < t->count; ++i)
        if (strcmp(t->items[i].name, name) == 0) return &t->items[i];
    return NULL;
}

HostTensor *table_add(TensorTable *t, const char *name) {
    if (t->count == t->cap) return NULL;
    HostTensor *h = &t->items[t->count++];
    memset(h, 0, sizeof *h);
    snprintf(h->name, sizeof h->name, "%s", name);
    return h;
}

/* ---- one row of the report ---------------------------------------------- */

typedef struct Row {
    char inputs[160];
    char outputs[96];
    char status[64];
    double ms; /* < 0: no time to show */
} Row;

static void append(char *buf, size_t len, const char *text) {
    size_t used = strlen(buf);
    if (used < len) snprintf(buf + used, len - used, "%s%s", used ? " " : "", text);
}

static void append_shape(char *buf, size_t len, const TensorShape *shape) {
    char s[NPU_MAX_DIMS * 11 + 8];
    shape_format(shape, s, sizeof s);
    append(buf, len, s);
}

static void status_text(char *out, size_t len, const char *stage, uint32_t status) {
    static const struct {
        uint32_t code;
        const char *name;
    } names[] = {
        {NPU_ERR_INVALID_ARG, "NPU_ERR_INVALID_ARG"}, {NPU_ERR_SHAPE, "NPU_ERR_SHAPE"},
        {NPU_ERR_INPUT_NUM, "NPU_ERR_INPUT_NUM"},     {NPU_ERR_INPUT, "NPU_ERR_INPUT"},
        {NPU_ERR_UNSUPPORTED, "NPU_ERR_UNSUPPORTED"}, {NPU_FAIL, "NPU_FAIL"},
    };
    if (status == NPU_OK) {
        snprintf(out, len, "OK");
        return;
    }
    const char *name = "status";
    for (size_t i = 0; i < sizeof names / sizeof names[0]; ++i)
        if (names[i].code == status) name = names[i].name;
    snprintf(out, len, "%s: %s 0x%08x", stage, name, status);
}

static void print_header(FILE *out) {
    fprintf(out, "%3s  %-20s %-34s    %-18s %-12s %10s\n", "#", "operator", "input shapes",
            "output shapes", "status", "time");
}

static void print_row(FILE *out, uint32_t index, const char *op, const Row *r) {
    char time[32] = "-";
    if (r->ms >= 0) snprintf(time, sizeof time, "%.3f ms", r->ms);
    fprintf(out, "%3u  %-20s %-34s -> %-18s %-12s %10s\n", index, op, r->inputs, r->outputs,
            r->status, time);
}

static double now_ms(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (double)ts.tv_sec * 1e3 + (double)ts.tv_nsec / 1e6;
}

/* ---- steps -------------------------------------------------------------- */

static int run_view(const Step *s, TensorTable *tt, Row *row, char *err, size_t err_len) {
    const HostTensor *in = table_find(tt, s->inputs[0]);
    if (shape_elements(&in->shape) != shape_elements(&s->view_shape)) {
        char from[200], to[200];
        shape_format(&in->shape, from, sizeof from);
        shape_format(&s->view_shape, to, sizeof to);
        snprintf(err, err_len, "line %d: view of %s (%s) as %s changes the element count",
                 s->line, in->name, from, to);
        return -1;
    }
    HostTensor *out = table_add(tt, s->outputs[0]); /* entries never move */
    out->dtype = in->dtype;
    out->format = in->format;
    out->shape = s->view_shape;
    out->data = in->data; /* same buffer, no copy */
    out->len = in->len;
    out->owns_data = 0;
    append_shape(row->inputs, sizeof row->inputs, &in->shape);
    append_shape(row->outputs, sizeof row->outputs, &out->shape);
    snprintf(row->status, sizeof row->status, "(no call)");
    row->ms = -1;
    return 0;
}

/* Attaches an output buffer sized from the inferred shape and type. */
static int allocate_output(const NpuLibrary *lib, OperatorContext *h, uint32_t i,
                           HostTensor *t, const Step *s, char *err, size_t err_len) {
    memset(&t->shape, 0, sizeof t->shape);
    lib->get_output_shape_by_index(h, i, &t->shape);
    lib->get_output_dtype_by_index(h, i, &t->dtype);
    lib->get_output_format_by_index(h, i, &t->format);
    size_t size = dtype_size(t->dtype);
    uint64_t elements = shape_elements(&t->shape);
    if (size == 0 || elements > MAX_OUTPUT_BYTES / size) {
        snprintf(err, err_len, "line %d: %s output %u: data type %u, %llu elements: cannot allocate",
                 s->line, s->op, i, t->dtype, (unsigned long long)elements);
        return -1;
    }
    t->len = elements * size;
    t->data = calloc(elements ? (size_t)elements : 1, size);
    t->owns_data = 1;
    lib->set_output_buf_by_index(h, i, t->data, t->len);
    return 0;
}

/* One operator call: returns 0 (done), 1 (the library refused it) or -1. */
static int run_node(const NpuLibrary *lib, const Step *s, TensorTable *tt, Row *row,
                    char *err, size_t err_len) {
    OperatorEntryPoints ep;
    if (npu_library_operator(lib, s->op, &ep, err, err_len) != 0) {
        char why[256];
        snprintf(why, sizeof why, "%s", err);
        snprintf(err, err_len, "line %d: %s", s->line, why);
        return -1;
    }
    OperatorContext *h = NULL;
    lib->create_handle(&h);
    lib->set_inputs_num(h, s->n_inputs);
    lib->set_outputs_num(h, s->n_outputs);
    if (s->n_attrs) lib->set_attrs_num(h, s->n_attrs);
    for (uint32_t i = 0; i < s->n_inputs; ++i) {
        const HostTensor *t = table_find(tt, s->inputs[i]);
        if (t == NULL) { /* "-": present in the count, no buffer */
            TensorShape none;
            memset(&none, 0, sizeof none);
            lib->set_input_by_index(h, i, NPU_DTYPE_FLOAT32, NPU_FORMAT_NCHW, &none, NULL, 0, 0);
            append(row->inputs, sizeof row->inputs, "-");
            continue;
        }
        lib->set_input_by_index(h, i, t->dtype, t->format, &t->shape, t->data, t->len, 0);
        append_shape(row->inputs, sizeof row->inputs, &t->shape);
    }
    for (uint32_t a = 0; a < s->n_attrs; ++a) {
        const StepAttr *at = &s->attrs[a];
        lib->set_attr_by_index(h, a, at->name, 0, at->type, at->data, at->len);
    }

    HostTensor outs[STEP_MAX_OUTPUTS];
    memset(outs, 0, sizeof outs);
    int rc = 0;
    uint32_t status = ep.infershape(h);
    if (status != NPU_OK) {
        status_text(row->status, sizeof row->status, "infershape", status);
        rc = 1;
    }
    for (uint32_t i = 0; rc == 0 && i < s->n_outputs; ++i)
        rc = allocate_output(lib, h, i, &outs[i], s, err, err_len);
    if (rc == 0 && !ep.check_supported(h)) {
        snprintf(row->status, sizeof row->status, "unsupported");
        rc = 1;
    }
    if (rc == 0) {
        double start = now_ms();
        status = ep.compute(h);
        row->ms = now_ms() - start;
        status_text(row->status, sizeof row->status, "compute", status);
        if (status != NPU_OK) rc = 1;
    }
    if (rc == 0) {
        /* Compute may re-declare an output (nms with nothing to select). */
        for (uint32_t i = 0; i < s->n_outputs; ++i) {
            TensorShape now;
            memset(&now, 0, sizeof now);
            lib->get_output_shape_by_index(h, i, &now);
            uint64_t bytes = shape_elements(&now) * dtype_size(outs[i].dtype);
            outs[i].shape = now;
            if (bytes < outs[i].len) outs[i].len = bytes;
            append_shape(row->outputs, sizeof row->outputs, &now);
            HostTensor *dst = table_add(tt, s->outputs[i]);
            char name[DEMO_NAME_LEN];
            memcpy(name, dst->name, sizeof name);
            *dst = outs[i];
            memcpy(dst->name, name, sizeof name);
        }
    } else {
        for (uint32_t i = 0; i < s->n_outputs; ++i) host_tensor_free(&outs[i]);
    }
    lib->destory_handle(&h);
    return rc;
}

int run_pipeline(const NpuLibrary *lib, const Pipeline *p, TensorTable *tensors, FILE *out,
                 char *err, size_t err_len) {
    print_header(out);
    double total = 0;
    for (uint32_t i = 0; i < p->n_steps; ++i) {
        const Step *s = &p->steps[i];
        Row row;
        memset(&row, 0, sizeof row);
        row.ms = -1;
        int rc = s->kind == STEP_VIEW ? run_view(s, tensors, &row, err, err_len)
                                      : run_node(lib, s, tensors, &row, err, err_len);
        if (rc < 0) return -1;
        print_row(out, i + 1, s->op, &row);
        if (rc > 0) return 1;
        if (row.ms > 0) total += row.ms;
    }
    fprintf(out, "%3s  %-20s %-34s    %-18s %-12s %7.3f ms\n", "", "total compute", "", "",
            "", total);
    return 0;
}

/* ---- results ------------------------------------------------------------- */

static void print_value(FILE *out, const HostTensor *t, uint64_t k) {
    const unsigned char *b = (const unsigned char *)t->data + k * dtype_size(t->dtype);
    union {
        float f;
        double d;
        int8_t i8;
        int16_t i16;
        int32_t i32;
        int64_t i64;
        uint8_t u8;
        uint16_t u16;
        uint32_t u32;
        uint64_t u64;
    } v;
    memcpy(&v, b, dtype_size(t->dtype));
    switch (t->dtype) {
    case NPU_DTYPE_FLOAT32: fprintf(out, " %.6g", v.f); break;
    case NPU_DTYPE_FLOAT64: fprintf(out, " %.9g", v.d); break;
    case NPU_DTYPE_INT8: fprintf(out, " %d", v.i8); break;
    case NPU_DTYPE_INT16: fprintf(out, " %d", v.i16); break;
    case NPU_DTYPE_INT32: fprintf(out, " %d", v.i32); break;
    case NPU_DTYPE_INT64: fprintf(out, " %lld", (long long)v.i64); break;
    case NPU_DTYPE_UINT8: case NPU_DTYPE_BOOL: fprintf(out, " %u", v.u8); break;
    case NPU_DTYPE_UINT16: fprintf(out, " %u", v.u16); break;
    case NPU_DTYPE_UINT32: fprintf(out, " %u", v.u32); break;
    case NPU_DTYPE_UINT64: fprintf(out, " %llu", (unsigned long long)v.u64); break;
    default: fprintf(out, " ?"); break;
    }
}

void print_results(const Pipeline *p, const TensorTable *tensors, FILE *out) {
    enum { MAX_ROWS = 16, MAX_COLS = 16 };
    fprintf(out, "\nresult\n");
    for (uint32_t r = 0; r < p->n_results; ++r) {
        const HostTensor *t = table_find(tensors, p->results[r]);
        if (t == NULL) continue;
        char shape[NPU_MAX_DIMS * 11 + 8];
        shape_format(&t->shape, shape, sizeof shape);
        size_t size = dtype_size(t->dtype);
        uint64_t count = size ? t->len / size : 0;
        if (shape_elements(&t->shape) < count) count = shape_elements(&t->shape);
        uint64_t cols = t->shape.dim_num >= 2 ? t->shape.dims[t->shape.dim_num - 1] : count;
        uint64_t rows = cols ? (count + cols - 1) / cols : 0;
        if (t->data == NULL) rows = 0;
        if (rows > 1)
            fprintf(out, "  %-14s %-8s %s", t->name, dtype_name(t->dtype), shape);
        else
            fprintf(out, "  %-14s %-8s %-12s", t->name, dtype_name(t->dtype), shape);
        for (uint64_t i = 0; i < rows && i < MAX_ROWS; ++i) {
            if (rows > 1) fprintf(out, "\n  %-14s %-8s %-12s", "", "", "");
            for (uint64_t j = 0; j < cols && j < MAX_COLS && i * cols + j < count; ++j)
                print_value(out, t, i * cols + j);
            if (cols > MAX_COLS) fprintf(out, " ...");
        }
        if (rows > MAX_ROWS) fprintf(out, "\n  %-14s %-8s %-12s ...", "", "", "");
        fprintf(out, "\n");
    }
}
