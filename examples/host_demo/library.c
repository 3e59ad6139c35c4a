#include "library.h"

#include <dlfcn.h>
#include <stdio.h>
#include <string.h>

/* dlsym returns an object pointer; POSIX guarantees it converts to a
 * function pointer, which this copy does without a cast warning. */
static int resolve(void *dl, const char *name, void *fn_slot, char *err, size_t err_len) {
    void *sym = dlsym(dl, name);
    if (sym == NULL) {
        snprintf(err, err_len, "%s not found in the library", name);
        return -1;
    }
    memcpy(fn_slot, &sym, sizeof sym);
    return 0;
}

int npu_library_open(NpuLibrary *lib, const char *path, char *err, size_t err_len) {
    memset(lib, 0, sizeof *lib);
    lib->dl = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (lib->dl == NULL) {
        snprintf(err, err_len, "cannot load %s: %s", path, dlerror());
        return -1;
    }
    struct {
        const char *name;
        void *slot;
    } table[] = {
        {"qv_kel_custom_create_handle", &lib->create_handle},
        {"qv_kel_custom_destory_handle", &lib->destory_handle},
        {"qv_kel_custom_set_inputs_num", &lib->set_inputs_num},
        {"qv_kel_custom_set_outputs_num", &lib->set_outputs_num},
        {"qv_kel_custom_set_attrs_num", &lib->set_attrs_num},
        {"qv_kel_custom_set_input_by_index", &lib->set_input_by_index},
        {"qv_kel_custom_set_attr_by_index", &lib->set_attr_by_index},
        {"qv_kel_custom_get_output_shape_by_index", &lib->get_output_shape_by_index},
        {"qv_kel_custom_get_output_dtype_by_index", &lib->get_output_dtype_by_index},
        {"qv_kel_custom_get_output_format_by_index", &lib->get_output_format_by_index},
        {"qv_kel_custom_set_output_buf_by_index", &lib->set_output_buf_by_index},
        {"set_log_level", &lib->set_log_level},
    };
    for (size_t i = 0; i < sizeof table / sizeof table[0]; ++i) {
        if (resolve(lib->dl, table[i].name, table[i].slot, err, err_len) != 0) {
            npu_library_close(lib);
            return -1;
        }
    }
    return 0;
}

void npu_library_close(NpuLibrary *lib) {
    if (lib->dl != NULL) dlclose(lib->dl);
    memset(lib, 0, sizeof *lib);
}

int npu_library_operator(const NpuLibrary *lib, const char *op, OperatorEntryPoints *out,
                         char *err, size_t err_len) {
    static const char *const stages[3] = {"infershape", "check_supported", "compute"};
    EntryPoint *slots[3] = {&out->infershape, &out->check_supported, &out->compute};
    char name[128];
    for (int i = 0; i < 3; ++i) {
        if ((size_t)snprintf(name, sizeof name, "%s_%s", op, stages[i]) >= sizeof name) {
            snprintf(err, err_len, "operator name too long: %s", op);
            return -1;
        }
        if (resolve(lib->dl, name, slots[i], err, err_len) != 0) {
            snprintf(err, err_len, "the library has no operator '%s' (%s_%s not found)", op,
                     op, stages[i]);
            return -1;
        }
    }
    return 0;
}
