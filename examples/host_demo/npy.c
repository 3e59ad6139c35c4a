#include "npy.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static const char kMagic[6] = {'\x93', 'N', 'U', 'M', 'P', 'Y'};

/* NumPy type strings without the byte-order character. */
static const struct {
    const char *kind;
    uint32_t dtype;
} kKinds[] = {
    {"f4", NPU_DTYPE_FLOAT32}, {"f8", NPU_DTYPE_FLOAT64}, {"f2", NPU_DTYPE_FLOAT16},
    {"i1", NPU_DTYPE_INT8},    {"i2", NPU_DTYPE_INT16},   {"i4", NPU_DTYPE_INT32},
    {"i8", NPU_DTYPE_INT64},   {"u1", NPU_DTYPE_UINT8},   {"u2", NPU_DTYPE_UINT16},
    {"u4", NPU_DTYPE_UINT32},  {"u8", NPU_DTYPE_UINT64},  {"b1", NPU_DTYPE_BOOL},
};

/* Value text of `key` in the header dictionary, or NULL. */
static const char *dict_value(const char *header, const char *key) {
    const char *p = strstr(header, key);
    if (p == NULL) return NULL;
    p = strchr(p + strlen(key), ':');
    if (p == NULL) return NULL;
    ++p;
    while (*p == ' ') ++p;
    return p;
}

static int parse_header(const char *header, HostTensor *t, char *err, size_t err_len) {
    const char *descr = dict_value(header, "'descr'");
    const char *order = dict_value(header, "'fortran_order'");
    const char *shape = dict_value(header, "'shape'");
    if (descr == NULL || order == NULL || shape == NULL || *descr != '\'' || *shape != '(') {
        snprintf(err, err_len, "malformed .npy header");
        return -1;
    }
    if (strncmp(order, "False", 5) != 0) {
        snprintf(err, err_len, "Fortran-ordered arrays are not supported");
        return -1;
    }
    char byte_order = descr[1];
    const char *kind = descr + 2;
    int found = -1;
    for (size_t i = 0; i < sizeof kKinds / sizeof kKinds[0]; ++i) {
        if (strncmp(kind, kKinds[i].kind, 2) == 0 && kind[2] == '\'') found = (int)i;
    }
    if (found < 0 || (byte_order == '>' && kind[1] != '1') ||
        (byte_order != '<' && byte_order != '|' && byte_order != '=' && byte_order != '>')) {
        const char *close = strchr(descr + 1, '\'');
        int shown = close != NULL && close - descr < 16 ? (int)(close - descr) + 1 : 8;
        snprintf(err, err_len, "unsupported data type %.*s", shown, descr);
        return -1;
    }
    t->dtype = kKinds[found].dtype;

    memset(&t->shape, 0, sizeof t->shape);
    const char *p = shape + 1;
    for (;;) {
        while (*p == ' ' || *p == ',') ++p;
        if (*p == ')') break;
        char *end;
        errno = 0;
        unsigned long long v = strtoull(p, &end, 10);
        if (end == p || errno != 0 || v > UINT32_MAX || t->shape.dim_num == NPU_MAX_DIMS) {
            snprintf(err, err_len, "unsupported shape in .npy header");
            return -1;
        }
        t->shape.dims[t->shape.dim_num++] = (uint32_t)v;
        p = end;
    }
    return 0;
}

int npy_parse(const unsigned char *bytes, size_t size, HostTensor *t, char *err,
              size_t err_len) {
    if (size < 10 || memcmp(bytes, kMagic, sizeof kMagic) != 0) {
        snprintf(err, err_len, "not a .npy file");
        return -1;
    }
    unsigned major = bytes[6];
    size_t header_len, offset;
    if (major == 1) {
        header_len = (size_t)bytes[8] | (size_t)bytes[9] << 8;
        offset = 10;
    } else if ((major == 2 || major == 3) && size >= 12) {
        header_len = (size_t)bytes[8] | (size_t)bytes[9] << 8 | (size_t)bytes[10] << 16 |
                     (size_t)bytes[11] << 24;
        offset = 12;
    } else {
        snprintf(err, err_len, "unsupported .npy version %u", major);
        return -1;
    }
    if (header_len > size - offset) {
        snprintf(err, err_len, "truncated .npy header");
        return -1;
    }
    char *header = malloc(header_len + 1);
    memcpy(header, bytes + offset, header_len);
    header[header_len] = '\0';
    int rc = parse_header(header, t, err, err_len);
    free(header);
    if (rc != 0) return -1;

    size_t data_offset = offset + header_len;
    uint64_t elements = shape_elements(&t->shape);
    uint64_t len = elements * dtype_size(t->dtype);
    if (len / dtype_size(t->dtype) != elements || len > size - data_offset) {
        snprintf(err, err_len, "the file holds fewer bytes than its shape needs");
        return -1;
    }
    t->len = len;
    t->format = NPU_FORMAT_NCHW;
    t->data = malloc(len ? (size_t)len : 1);
    memcpy(t->data, bytes + data_offset, (size_t)len);
    t->owns_data = 1;
    return 0;
}

int npy_load(const char *path, HostTensor *t, char *err, size_t err_len) {
    FILE *f = fopen(path, "rb");
    if (f == NULL) {
        snprintf(err, err_len, "cannot open %s: %s", path, strerror(errno));
        return -1;
    }
    size_t cap = 1 << 16, size = 0;
    unsigned char *bytes = malloc(cap);
    size_t n;
    while ((n = fread(bytes + size, 1, cap - size, f)) > 0) {
        size += n;
        if (size == cap) bytes = realloc(bytes, cap *= 2);
    }
    int read_error = ferror(f);
    fclose(f);
    int rc = -1;
    if (read_error) {
        snprintf(err, err_len, "cannot read %s", path);
    } else {
        char why[160];
        rc = npy_parse(bytes, size, t, why, sizeof why);
        if (rc != 0) snprintf(err, err_len, "%s: %s", path, why);
    }
    free(bytes);
    return rc;
}

int npy_save(const char *path, const HostTensor *t, char *err, size_t err_len) {
    const char *kind = NULL;
    for (size_t i = 0; i < sizeof kKinds / sizeof kKinds[0]; ++i)
        if (kKinds[i].dtype == t->dtype) kind = kKinds[i].kind;
    if (kind == NULL) {
        snprintf(err, err_len, "%s: data type %u has no .npy equivalent", t->name, t->dtype);
        return -1;
    }
    char dims[NPU_MAX_DIMS * 12 + 4] = "";
    size_t used = 0;
    for (uint32_t i = 0; i < t->shape.dim_num; ++i)
        used += (size_t)snprintf(dims + used, sizeof dims - used, "%u,%s", t->shape.dims[i],
                                 i + 1 < t->shape.dim_num ? " " : "");
    if (t->shape.dim_num > 1) dims[used - 1] = '\0'; /* "(2, 3)" but "(4,)" */
    char header[256];
    int n = snprintf(header, sizeof header,
                     "{'descr': '%c%s', 'fortran_order': False, 'shape': (%s), }",
                     kind[1] == '1' ? '|' : '<', kind, dims);
    /* Pad with blanks to a multiple of 64 bytes including the 10-byte
     * preamble, ending in a newline. */
    size_t total = ((size_t)n + 1 + 10 + 63) / 64 * 64;
    size_t header_len = total - 10;
    memset(header + n, ' ', header_len - (size_t)n - 1);
    header[header_len - 1] = '\n';

    FILE *f = fopen(path, "wb");
    if (f == NULL) {
        snprintf(err, err_len, "cannot write %s: %s", path, strerror(errno));
        return -1;
    }
    unsigned char pre[10] = {0x93, 'N', 'U', 'M', 'P', 'Y', 1, 0,
                             (unsigned char)(header_len & 0xff),
                             (unsigned char)(header_len >> 8)};
    size_t data_len = (size_t)(shape_elements(&t->shape) * dtype_size(t->dtype));
    if (data_len > t->len) data_len = (size_t)t->len;
    int ok = fwrite(pre, 1, 10, f) == 10 && fwrite(header, 1, header_len, f) == header_len &&
             fwrite(t->data, 1, data_len, f) == data_len;
    ok = (fclose(f) == 0) && ok;
    if (!ok) snprintf(err, err_len, "cannot write %s", path);
    return ok ? 0 : -1;
}
