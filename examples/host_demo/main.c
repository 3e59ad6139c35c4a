/* Host demo: runs a chain of operators through libnpucpu exactly as an NPU
 * runtime does for its CPU fallbacks. The library is opened with dlopen and
 * every routine is resolved with dlsym; the program does not link it.
 *
 *   host_demo                                  built-in detector, embedded data
 *   host_demo --pipeline net.txt --input x=x.npy --save out/
 *
 * Exit status: 0 every node succeeded, 1 a node failed or the library could
 * not be used, 2 bad arguments or a bad pipeline description. */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "builtin.h"
#include "library.h"
#include "npy.h"
#include "pipeline.h"
#include "run.h"

#ifndef HOST_DEMO_DEFAULT_LIBRARY
#define HOST_DEMO_DEFAULT_LIBRARY "libnpucpu.so"
#endif

enum { EXIT_NODE_FAILED = 1, EXIT_USAGE = 2, MAX_BINDINGS = 64 };

/* Log levels run from 0 (trace) to 5 (fatal). The library logs an absent
 * optional attribute at level 4, which a runtime does not want to see for
 * every default it relies on, so the demo shows level 5 only. */
enum { DEFAULT_LOG_LEVEL = 5 };

static const char kUsage[] =
    "usage: host_demo [--library PATH] [--pipeline FILE] [--input NAME=FILE.npy]...\n"
    "                 [--save DIR] [--log-level N]\n"
    "  --library PATH   libnpucpu.so to load (default: $NPUCPU_LIBRARY, else the\n"
    "                   library of this build tree)\n"
    "  --pipeline FILE  pipeline description (default: the built-in detector)\n"
    "  --input N=FILE   bind the pipeline input N to a .npy file\n"
    "  --save DIR       write every result tensor to DIR/<name>.npy\n"
    "  --log-level N    library log level, 0 (trace) to 5 (fatal; the default)\n";

typedef struct Options {
    const char *library;
    const char *pipeline;
    const char *save_dir;
    uint32_t log_level;
    const char *bindings[MAX_BINDINGS]; /* "NAME=FILE" */
    int n_bindings;
} Options;

static int usage_error(const char *fmt, const char *arg) {
    fprintf(stderr, "host_demo: ");
    fprintf(stderr, fmt, arg);
    fprintf(stderr, "\n%s", kUsage);
    return -1;
}

static int parse_options(int argc, char **argv, Options *o) {
    memset(o, 0, sizeof *o);
    o->library = getenv("NPUCPU_LIBRARY");
    if (o->library == NULL || o->library[0] == '\0') o->library = HOST_DEMO_DEFAULT_LIBRARY;
    o->log_level = DEFAULT_LOG_LEVEL;
    for (int i = 1; i < argc; ++i) {
        const char *a = argv[i];
        if (strcmp(a, "-h") == 0 || strcmp(a, "--help") == 0) {
            fputs(kUsage, stdout);
            exit(0);
        }
        int takes_value = strcmp(a, "--library") == 0 || strcmp(a, "--pipeline") == 0 ||
                          strcmp(a, "--input") == 0 || strcmp(a, "--save") == 0 ||
                          strcmp(a, "--log-level") == 0;
        if (!takes_value) return usage_error("unknown argument '%s'", a);
        if (i + 1 == argc) return usage_error("%s needs a value", a);
        const char *v = argv[++i];
        if (strcmp(a, "--library") == 0) o->library = v;
        if (strcmp(a, "--pipeline") == 0) o->pipeline = v;
        if (strcmp(a, "--save") == 0) o->save_dir = v;
        if (strcmp(a, "--log-level") == 0) {
            if (v[0] < '0' || v[0] > '5' || v[1] != '\0')
                return usage_error("--log-level expects 0 to 5, got '%s'", v);
            o->log_level = (uint32_t)(v[0] - '0');
        }
        if (strcmp(a, "--input") == 0) {
            if (strchr(v, '=') == NULL || v[0] == '=')
                return usage_error("--input expects NAME=FILE.npy, got '%s'", v);
            if (o->n_bindings == MAX_BINDINGS) return usage_error("too many --input %s", "");
            o->bindings[o->n_bindings++] = v;
        }
    }
    return 0;
}

static char *read_text_file(const char *path) {
    FILE *f = fopen(path, "rb");
    if (f == NULL) return NULL;
    size_t cap = 4096, size = 0, n;
    char *text = malloc(cap);
    while ((n = fread(text + size, 1, cap - size - 1, f)) > 0) {
        size += n;
        if (size + 1 == cap) text = realloc(text, cap *= 2);
    }
    fclose(f);
    text[size] = '\0';
    return text;
}

/* Loads the description: the file given, or the built-in one. */
static int load_pipeline(const Options *o, Pipeline *p) {
    char err[512];
    if (o->pipeline == NULL) {
        if (pipeline_parse(builtin_pipeline(), "", p, err, sizeof err) == 0) return 0;
        fprintf(stderr, "host_demo: built-in pipeline: %s\n", err);
        return -1;
    }
    char *text = read_text_file(o->pipeline);
    if (text == NULL) {
        fprintf(stderr, "host_demo: cannot read %s: %s\n", o->pipeline, strerror(errno));
        return -1;
    }
    char dir[DEMO_PATH_LEN];
    snprintf(dir, sizeof dir, "%s", o->pipeline);
    char *slash = strrchr(dir, '/');
    if (slash != NULL)
        *slash = '\0';
    else
        dir[0] = '\0';
    int rc = pipeline_parse(text, dir, p, err, sizeof err);
    free(text);
    if (rc != 0) fprintf(stderr, "host_demo: %s: %s\n", o->pipeline, err);
    return rc;
}

/* Fills the table with the pipeline's inputs (command line first, then the
 * declared file, then the embedded data) and constants. */
static int bind_inputs(const Options *o, const Pipeline *p, TensorTable *tt) {
    char err[600];
    for (int b = 0; b < o->n_bindings; ++b) {
        const char *eq = strchr(o->bindings[b], '=');
        size_t len = (size_t)(eq - o->bindings[b]);
        int known = 0;
        for (uint32_t i = 0; i < p->n_inputs; ++i)
            known |= strlen(p->inputs[i].name) == len &&
                     strncmp(p->inputs[i].name, o->bindings[b], len) == 0;
        if (!known) {
            fprintf(stderr, "host_demo: --input %s: the pipeline has no input of that name\n",
                    o->bindings[b]);
            return -1;
        }
    }
    for (uint32_t i = 0; i < p->n_inputs; ++i) {
        const InputDecl *d = &p->inputs[i];
        const char *path = d->path[0] ? d->path : NULL;
        for (int b = 0; b < o->n_bindings; ++b) {
            const char *eq = strchr(o->bindings[b], '=');
            if (strlen(d->name) == (size_t)(eq - o->bindings[b]) &&
                strncmp(d->name, o->bindings[b], strlen(d->name)) == 0)
                path = eq + 1;
        }
        HostTensor loaded;
        memset(&loaded, 0, sizeof loaded);
        if (path != NULL) {
            if (npy_load(path, &loaded, err, sizeof err) != 0) {
                fprintf(stderr, "host_demo: input %s: %s\n", d->name, err);
                return -1;
            }
        } else if (o->pipeline != NULL || builtin_tensor(d->name, &loaded) != 0) {
            fprintf(stderr, "host_demo: input %s has no file: give --input %s=FILE.npy\n",
                    d->name, d->name);
            return -1;
        }
        HostTensor *t = table_add(tt, d->name);
        loaded.format = NPU_FORMAT_NCHW;
        memcpy(loaded.name, t->name, sizeof loaded.name);
        *t = loaded;
    }
    for (uint32_t i = 0; i < p->n_consts; ++i) {
        HostTensor *t = table_add(tt, p->consts[i].name);
        *t = p->consts[i];
        t->owns_data = 0; /* the pipeline keeps it */
    }
    return 0;
}

static int save_results(const char *dir, const Pipeline *p, const TensorTable *tt) {
    char path[DEMO_PATH_LEN + DEMO_NAME_LEN + 8], err[DEMO_PATH_LEN + 128];
    for (uint32_t r = 0; r < p->n_results; ++r) {
        const HostTensor *t = table_find(tt, p->results[r]);
        snprintf(path, sizeof path, "%s/%s.npy", dir, t->name);
        if (npy_save(path, t, err, sizeof err) != 0) {
            fprintf(stderr, "host_demo: %s\n", err);
            return -1;
        }
        printf("saved %s\n", path);
    }
    return 0;
}

int main(int argc, char **argv) {
    Options o;
    if (parse_options(argc, argv, &o) != 0) return EXIT_USAGE;
    Pipeline p;
    if (load_pipeline(&o, &p) != 0) return EXIT_USAGE;

    TensorTable tensors;
    table_init(&tensors, pipeline_tensor_capacity(&p));
    int status = EXIT_USAGE;
    NpuLibrary lib;
    char err[600];
    if (bind_inputs(&o, &p, &tensors) != 0) goto done;
    status = EXIT_NODE_FAILED;
    if (npu_library_open(&lib, o.library, err, sizeof err) != 0) {
        fprintf(stderr, "host_demo: %s\n", err);
        goto done;
    }
    lib.set_log_level(o.log_level);
    printf("npucpu host demo: %s (%s)\n\n", o.pipeline ? o.pipeline : "built-in detector",
           o.library);
    fflush(stdout);
    int rc = run_pipeline(&lib, &p, &tensors, stdout, err, sizeof err);
    if (rc < 0) fprintf(stderr, "host_demo: %s\n", err);
    if (rc > 0) fprintf(stderr, "host_demo: stopped: the last node listed failed\n");
    if (rc == 0) {
        print_results(&p, &tensors, stdout);
        status = o.save_dir && save_results(o.save_dir, &p, &tensors) != 0 ? EXIT_NODE_FAILED
                                                                         : 0;
    }
    fflush(stdout);
    table_free(&tensors); /* before dlclose: nothing of the library survives */
    npu_library_close(&lib);
    pipeline_free(&p);
    return status;
done:
    table_free(&tensors);
    pipeline_free(&p);
    return status;
}
