// Builds an operator context from a byte string the way a host would, runs
// the operator's three entry points and reports what happened.
//
// The same decoder serves the libFuzzer programs (fuzz/fuzz_<family>.cpp),
// the seed generator (fuzz/make_seeds.cpp writes the inverse), the leak run
// and the thread test (tests/), so the committed seed corpus is at once a
// set of valid invocations of every operator and the fuzzers' starting point.
//
// What the decoder keeps inside the host model, whatever the bytes say:
// - shapes have at most 5 dims and at most 4096 elements;
// - an input buffer is non-null (except on inputs whose operator checks for
//   null) and really holds the `buf_len` it declares, which covers the shape;
// - compute runs only after infershape returned 0, on outputs allocated from
//   the inferred shape and data type (rows of the width stride for bubbles),
//   and is skipped when an output would exceed 2^20 elements;
// - per-operator preconditions (see `fix_preconditions`).
// Everything else comes from the bytes: input/output/attribute counts, data
// types, layouts, dims (0 included), data values, attribute names, types,
// lengths and values.
//
// Byte layout (a reader past the end yields zeros):
//   op, inputs, outputs, attrs
//   per input:  dtype, format, flags, rank, dims..., data
//     flags: bit 0 null (where allowed), bits 1-2 value mode
//            (0 raw bytes, 1 one signed byte per element, 2 one byte per
//            element picking from a table of edge values), bit 3 one extra
//            byte of buffer length given by the next byte
//     dim byte b: b < 200 -> b % 9, else b - 200
//   per attr:   name (b < 0xF0: kNames[b % n]; else length byte + bytes),
//               type byte (% 8; 5-7 are no valid type), value:
//     int: tag (< 20 kInts[tag], < 200 tag - 100, else 8 raw bytes)
//     ints/floats: count byte (% 9), then that many values
//     float: tag (< 16 kFloats[tag], < 200 (tag - 100) / 4, else 4 raw bytes)
//     string: b < 0xF0: kStrings[b % n]; else length byte (% 40) + bytes
//     other types: length byte (% 16) + bytes
//     then a length byte: < 0xF0 keeps the natural length, else the value's
//     data_len is cut by (b % 8) bytes
//   output flags: bit i makes output i null (where allowed)
#ifndef NPUCPU_FUZZ_HARNESS_H
#define NPUCPU_FUZZ_HARNESS_H

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "npucpu.h"

namespace npucpu_fuzz {

using EntryPoint = uint32_t (*)(OperatorContext *);

struct Op {
    const char *name;
    EntryPoint infershape, check_supported, compute;
    uint8_t null_inputs;   // bit i: the operator checks input i's buffer for null
    uint8_t null_outputs;  // bit i: the operator checks output i's buffer for null
};

#define NPUCPU_FUZZ_OP(op, ni, no) \
    Op { #op, op##_infershape, op##_check_supported, op##_compute, ni, no }

struct Family {
    const char *name;
    std::vector<Op> ops;
};

inline const std::vector<Family> &families() {
    static const std::vector<Family> all = {
        {"binary",
         {NPUCPU_FUZZ_OP(add, 3, 1), NPUCPU_FUZZ_OP(sub, 3, 1), NPUCPU_FUZZ_OP(mul, 3, 1),
          NPUCPU_FUZZ_OP(div, 3, 1)}},
        {"elementwise",
         {NPUCPU_FUZZ_OP(pow, 0, 0), NPUCPU_FUZZ_OP(prelu, 0, 0), NPUCPU_FUZZ_OP(ceil, 0, 0),
          NPUCPU_FUZZ_OP(floor, 0, 0), NPUCPU_FUZZ_OP(relu, 0, 0), NPUCPU_FUZZ_OP(sqrt, 0, 0),
          NPUCPU_FUZZ_OP(cast, 0, 0), NPUCPU_FUZZ_OP(sum, 0xff, 0),
          NPUCPU_FUZZ_OP(mean, 0xff, 0), NPUCPU_FUZZ_OP(expand, 3, 1),
          NPUCPU_FUZZ_OP(add_bubble, 1, 1), NPUCPU_FUZZ_OP(remove_bubble, 1, 1)}},
        {"reduce",
         {NPUCPU_FUZZ_OP(argmax, 0, 0), NPUCPU_FUZZ_OP(argmin, 0, 0),
          NPUCPU_FUZZ_OP(reducemax, 0, 0), NPUCPU_FUZZ_OP(reducemin, 0, 0),
          NPUCPU_FUZZ_OP(reducemean, 0, 0), NPUCPU_FUZZ_OP(softmax, 0, 0),
          NPUCPU_FUZZ_OP(topk, 1, 3), NPUCPU_FUZZ_OP(nonzero, 1, 1)}},
        {"detect",
         {NPUCPU_FUZZ_OP(nms, 0x1f, 1), NPUCPU_FUZZ_OP(detect_output_decoder, 0, 0)}},
        {"conv",
         {NPUCPU_FUZZ_OP(conv, 0, 0), NPUCPU_FUZZ_OP(conv_transpose, 0, 0),
          NPUCPU_FUZZ_OP(gemm, 0, 0), NPUCPU_FUZZ_OP(matmul, 0, 0)}},
        {"pool",
         {NPUCPU_FUZZ_OP(averagepool, 0, 0), NPUCPU_FUZZ_OP(maxpool, 0, 0),
          NPUCPU_FUZZ_OP(global_averagepool, 0, 0), NPUCPU_FUZZ_OP(global_maxpool, 0, 0),
          NPUCPU_FUZZ_OP(lrn, 0, 0), NPUCPU_FUZZ_OP(resize, 0x0f, 1),
          NPUCPU_FUZZ_OP(depth_to_space, 0, 0)}},
        {"shape",
         {NPUCPU_FUZZ_OP(concat, 0xfe, 0), NPUCPU_FUZZ_OP(gather, 0, 0),
          NPUCPU_FUZZ_OP(pad, 6, 0), NPUCPU_FUZZ_OP(range, 7, 0),
          NPUCPU_FUZZ_OP(slice, 0x1e, 0), NPUCPU_FUZZ_OP(transpose, 0, 0)}},
    };
    return all;
}

inline const Family *family(const std::string &name) {
    for (const Family &f : families())
        if (name == f.name) return &f;
    return nullptr;
}

// Attribute names the operators look up; the decoder picks from them.
inline const std::vector<const char *> &attr_names() {
    static const std::vector<const char *> names = {
        "axis", "axes", "keepdims", "select_last_index", "largest", "sorted", "to",
        "auto_pad", "group", "dilations", "kernel_shape", "pads", "strides", "output_padding",
        "output_shape", "transA", "transB", "alpha", "beta", "bias", "size", "ceil_mode",
        "count_include_pad", "storage_order", "mode", "blocksize",
        "coordinate_transformation_mode", "cubic_coeff_a", "exclude_outside",
        "extrapolation_value", "nearest_mode", "center_point_box", "perm", "value", ""};
    return names;
}

inline const std::vector<const char *> &attr_strings() {
    static const std::vector<const char *> strings = {
        "NOTSET", "SAME_UPPER", "SAME_LOWER", "VALID", "constant", "reflect", "edge",
        "nearest", "linear", "cubic", "DCR", "CRD", "half_pixel", "asymmetric",
        "align_corners", "pytorch_half_pixel", "tf_half_pixel_for_nn", "tf_crop_and_resize",
        "round_prefer_floor", "round_prefer_ceil", "floor", "ceil", "", "SAME_UPPERX"};
    return strings;
}

constexpr int64_t kInts[20] = {0, 1, 2, 3, 4, -1, -2, -3, -4, 5, 16, 17,
                               INT64_C(2147483647), INT64_C(2147483648), -INT64_C(2147483648),
                               INT64_C(4294967296), INT64_MAX, INT64_MIN, 255, 4096};
inline float edge_float(unsigned i) {
    static const uint32_t bits[16] = {0x00000000u, 0x80000000u, 0x3f800000u, 0xbf800000u,
                                      0x3f000000u, 0x7f800000u, 0xff800000u, 0x7fc00000u,
                                      0x00000001u, 0x7f7fffffu, 0x40200000u, 0xc0200000u,
                                      0x4f000000u, 0xcf000000u, 0x00800000u, 0x42c80000u};
    float f;
    std::memcpy(&f, &bits[i % 16], 4);
    return f;
}

constexpr uint64_t kMaxOutputElements = uint64_t(1) << 20;
constexpr uint64_t kMaxInputElements = 4096;

struct Reader {
    const uint8_t *p;
    size_t n;
    uint8_t u8() {
        if (n == 0) return 0;
        --n;
        return *p++;
    }
    void bytes(void *dst, size_t k) {
        size_t m = k < n ? k : n;
        if (m) std::memcpy(dst, p, m);
        if (k > m) std::memset(static_cast<uint8_t *>(dst) + m, 0, k - m);
        p += m;
        n -= m;
    }
};

// What one run did; outputs are kept when the caller asks for them.
struct Outcome {
    int op = -1;
    uint32_t infershape = 0, check_supported = 0, compute = 0;
    bool computed = false;
    std::vector<std::vector<uint8_t>> outputs;
    std::vector<TensorShape> output_shapes;
};

namespace detail {

inline uint64_t element_count(const TensorShape &s) {
    uint64_t n = 1;
    for (uint32_t i = 0; i < s.dim_num && i < NPU_MAX_DIMS; ++i) n *= s.dims[i];
    return n;
}

inline uint32_t elem_size(uint32_t dtype) {
    uint32_t s = get_dtype_size(dtype);
    return s ? s : 8;  // an unknown type: the host sizes it generously
}

inline int64_t read_int(Reader &r) {
    uint8_t tag = r.u8();
    if (tag < 20) return kInts[tag];
    if (tag < 200) return int64_t(tag) - 100;
    int64_t v;
    r.bytes(&v, 8);
    return v;
}

inline float read_float(Reader &r) {
    uint8_t tag = r.u8();
    if (tag < 16) return edge_float(tag);
    if (tag < 200) return float(int(tag) - 100) / 4.0f;
    float v;
    r.bytes(&v, 4);
    return v;
}

// Writes the integer v into one element of type dtype.
inline void store_int(uint8_t *dst, uint32_t dtype, int64_t v) {
    switch (dtype) {
    case NPU_DTYPE_FLOAT32: { float f = float(v); std::memcpy(dst, &f, 4); break; }
    case NPU_DTYPE_FLOAT64: { double d = double(v); std::memcpy(dst, &d, 8); break; }
    case NPU_DTYPE_INT8: case NPU_DTYPE_UINT8: { uint8_t b = uint8_t(v); *dst = b; break; }
    case NPU_DTYPE_BOOL: *dst = uint8_t(v & 1); break;
    case NPU_DTYPE_INT16: case NPU_DTYPE_UINT16: case NPU_DTYPE_FLOAT16: {
        uint16_t h = uint16_t(v);
        std::memcpy(dst, &h, 2);
        break;
    }
    case NPU_DTYPE_INT32: case NPU_DTYPE_UINT32: {
        uint32_t w = uint32_t(v);
        std::memcpy(dst, &w, 4);
        break;
    }
    default: {
        uint64_t q = uint64_t(v);
        std::memcpy(dst, &q, elem_size(dtype) < 8 ? elem_size(dtype) : 8);
        break;
    }
    }
}

inline void store_edge(uint8_t *dst, uint32_t dtype, uint8_t b) {
    if (dtype == NPU_DTYPE_FLOAT32) {
        float f = edge_float(b);
        std::memcpy(dst, &f, 4);
    } else if (dtype == NPU_DTYPE_FLOAT64) {
        double d = double(edge_float(b));
        std::memcpy(dst, &d, 8);
    } else {
        store_int(dst, dtype, kInts[b % 20]);
    }
}

}  // namespace detail

// Host-model assumptions enforced on the decoded context before infershape.
// Pooling compute pads its input by the `pads` attribute into a temporary
// it allocates (and fills) whole, whatever the output's size; a host asking
// for a padded tensor of billions of elements exhausts memory, which the
// library does not check. So for averagepool and maxpool every `pads` value
// stays within [0, 1024] and the padded tensor within 2^24 elements; pads
// outside that are set to 0; and the kernel fits the padded input. Every
// other operator survives the decoded contexts as they are.
inline void fix_preconditions(const Op &op, OperatorContext *h) {
    // The convolutions likewise spread and pad their input into temporaries
    // sized from strides, dilations, pads and kernel sizes: those values stay
    // within [0, 64] (others are set to 0).
    if (std::strcmp(op.name, "conv") == 0 || std::strcmp(op.name, "conv_transpose") == 0) {
        for (uint32_t i = 0; i < h->attr_num; ++i) {
            AttrRecord &a = h->attrs[i];
            if (a.dtype != NPU_ATTR_INTS || a.data == nullptr) continue;
            if (std::strcmp(a.name, "group") == 0 || std::strcmp(a.name, "auto_pad") == 0) continue;
            for (uint64_t j = 0; j < a.data_len / 8; ++j) {
                int64_t v;
                std::memcpy(&v, static_cast<uint8_t *>(a.data) + 8 * j, 8);
                if (v < 0 || v > 64) std::memset(static_cast<uint8_t *>(a.data) + 8 * j, 0, 8);
            }
        }
        return;
    }
    if (std::strcmp(op.name, "averagepool") != 0 && std::strcmp(op.name, "maxpool") != 0) return;
    if (h->input_num == 0) return;
    const TensorDesc &in = h->inputs[0];
    const uint64_t n = get_batch(&in.shape, in.format), c = get_channel(&in.shape, in.format);
    const uint64_t hh = get_height(&in.shape, in.format), ww = get_width(&in.shape, in.format);
    for (uint32_t i = 0; i < h->attr_num; ++i) {
        AttrRecord &a = h->attrs[i];
        if (std::strcmp(a.name, "pads") != 0 || a.data == nullptr) continue;
        const uint64_t k = a.dtype == NPU_ATTR_INTS ? a.data_len / 8 : 0;
        int64_t p[4] = {0, 0, 0, 0};
        bool in_range = true;
        for (uint64_t j = 0; j < k; ++j) {
            int64_t v;
            std::memcpy(&v, static_cast<uint8_t *>(a.data) + 8 * j, 8);
            if (v < 0 || v > 1024) in_range = false;
            if (j < 4) p[j] = v;
        }
        if (in_range && n * c * (hh + uint64_t(p[0]) + uint64_t(p[2])) *
                                (ww + uint64_t(p[1]) + uint64_t(p[3])) <=
                            (uint64_t(1) << 24)) {
            continue;
        }
        std::memset(a.data, 0, 8 * k);
    }
    // The kernel fits the padded input (a host model precondition): a larger
    // one makes each window of the literal walk run over up to 2^32 rows of
    // the same few elements (minutes per call). Entries outside [1, padded
    // dim] become 1. Pads as the library reads them: the first "pads" record,
    // ints only.
    uint64_t pad[4] = {0, 0, 0, 0};
    for (uint32_t i = 0; i < h->attr_num; ++i) {
        const AttrRecord &a = h->attrs[i];
        if (std::strcmp(a.name, "pads") != 0) continue;
        if (a.dtype == NPU_ATTR_INTS && a.data != nullptr) {
            for (uint64_t j = 0; j < 4 && j < a.data_len / 8; ++j) {
                int64_t v;
                std::memcpy(&v, static_cast<uint8_t *>(a.data) + 8 * j, 8);
                pad[j] = uint64_t(v);
            }
        }
        break;
    }
    const uint64_t padded[2] = {hh + pad[0] + pad[2], ww + pad[1] + pad[3]};
    for (uint32_t i = 0; i < h->attr_num; ++i) {
        AttrRecord &a = h->attrs[i];
        if (std::strcmp(a.name, "kernel_shape") != 0 || a.dtype != NPU_ATTR_INTS || a.data == nullptr) continue;
        for (uint64_t j = 0; j < 2 && j < a.data_len / 8; ++j) {
            int64_t v;
            std::memcpy(&v, static_cast<uint8_t *>(a.data) + 8 * j, 8);
            if (v < 1 || uint64_t(v) > std::max<uint64_t>(1, padded[j])) {
                v = 1;
                std::memcpy(static_cast<uint8_t *>(a.data) + 8 * j, &v, 8);
            }
        }
    }
}

// Decodes `data` into a context for one operator of `fam`, runs it and
// releases everything. With keep_outputs the output bytes are returned.
// Changes a decoded context before infershape (the bad-input test).
using Tamper = std::function<void(const Op &, OperatorContext *)>;

// With `trace`, the decoded context is printed there (fuzz_describe).
inline Outcome run_case(const Family &fam, const uint8_t *data, size_t size,
                        bool keep_outputs = false, FILE *trace = nullptr,
                        const Tamper &tamper = nullptr) {
    Outcome out;
    Reader r{data, size};
    const Op &op = fam.ops[r.u8() % fam.ops.size()];
    out.op = int(&op - fam.ops.data());
    uint32_t n_in = r.u8() % 8, n_out = r.u8() % 4, n_attr = r.u8() % 10;
    if (trace) std::fprintf(trace, "%s: %u inputs, %u outputs, %u attrs\n", op.name, n_in, n_out, n_attr);

    OperatorContext *h = nullptr;
    if (qv_kel_custom_create_handle(&h) != NPU_OK) return out;
    qv_kel_custom_set_inputs_num(h, n_in);
    qv_kel_custom_set_outputs_num(h, n_out);
    qv_kel_custom_set_attrs_num(h, n_attr);

    std::vector<void *> owned;
    for (uint32_t i = 0; i < n_in; ++i) {
        uint32_t dtype = r.u8();
        uint32_t format = r.u8();
        uint8_t flags = r.u8();
        TensorShape shape;
        std::memset(&shape, 0, sizeof shape);
        shape.dim_num = uint8_t(r.u8() % 6);
        for (uint32_t d = 0; d < shape.dim_num; ++d) {
            uint8_t b = r.u8();
            shape.dims[d] = b < 200 ? b % 9 : b - 200u;
        }
        while (detail::element_count(shape) > kMaxInputElements) {
            uint32_t *largest = &shape.dims[0];
            for (uint32_t d = 1; d < shape.dim_num; ++d)
                if (shape.dims[d] > *largest) largest = &shape.dims[d];
            *largest /= 2;
        }
        uint64_t count = detail::element_count(shape);
        uint32_t esize = detail::elem_size(dtype);
        uint64_t len = count * esize;
        uint64_t extra = (flags & 8) ? r.u8() : 0;
        uint8_t *buf = static_cast<uint8_t *>(std::calloc(len + extra + 1, 1));
        owned.push_back(buf);
        switch ((flags >> 1) & 3) {
        case 1:
            for (uint64_t e = 0; e < count; ++e)
                detail::store_int(buf + e * esize, dtype, int8_t(r.u8()));
            break;
        case 2:
            for (uint64_t e = 0; e < count; ++e) detail::store_edge(buf + e * esize, dtype, r.u8());
            break;
        default:
            r.bytes(buf, len);
            break;
        }
        bool null = (flags & 1) && i < 8 && (op.null_inputs >> i & 1);
        qv_kel_custom_set_input_by_index(h, i, dtype, format, &shape, null ? nullptr : buf,
                                         len + extra, 0);
        if (trace) {
            std::fprintf(trace, "  input %u: dtype %u format %u dims [", i, dtype, format);
            for (uint32_t d = 0; d < shape.dim_num; ++d) std::fprintf(trace, " %u", shape.dims[d]);
            std::fprintf(trace, " ] buf_len %llu%s:", (unsigned long long)(len + extra),
                         null ? " null" : "");
            for (uint64_t b = 0; b < len && b < 64; ++b) std::fprintf(trace, " %02x", buf[b]);
            std::fprintf(trace, "\n");
        }
    }

    for (uint32_t i = 0; i < n_attr; ++i) {
        uint8_t sel = r.u8();
        std::string name;
        if (sel < 0xF0) {
            name = attr_names()[sel % attr_names().size()];
        } else {
            uint32_t k = r.u8() % 80;
            for (uint32_t c = 0; c < k; ++c) name.push_back(char(r.u8() | 1));
        }
        uint32_t type = r.u8() % 8;
        std::vector<uint8_t> value;
        switch (type) {
        case NPU_ATTR_INT: {
            int64_t v = detail::read_int(r);
            value.resize(8);
            std::memcpy(value.data(), &v, 8);
            break;
        }
        case NPU_ATTR_INTS: {
            uint32_t k = r.u8() % 9;
            value.resize(8 * k);
            for (uint32_t e = 0; e < k; ++e) {
                int64_t v = detail::read_int(r);
                std::memcpy(value.data() + 8 * e, &v, 8);
            }
            break;
        }
        case NPU_ATTR_FLOAT: {
            float v = detail::read_float(r);
            value.resize(4);
            std::memcpy(value.data(), &v, 4);
            break;
        }
        case NPU_ATTR_FLOATS: {
            uint32_t k = r.u8() % 9;
            value.resize(4 * k);
            for (uint32_t e = 0; e < k; ++e) {
                float v = detail::read_float(r);
                std::memcpy(value.data() + 4 * e, &v, 4);
            }
            break;
        }
        case NPU_ATTR_STRING: {
            uint8_t b = r.u8();
            if (b < 0xF0) {
                const char *s = attr_strings()[b % attr_strings().size()];
                value.assign(s, s + std::strlen(s));
            } else {
                value.resize(r.u8() % 40);
                r.bytes(value.data(), value.size());
            }
            break;
        }
        default:
            value.resize(r.u8() % 16);
            r.bytes(value.data(), value.size());
            break;
        }
        uint64_t data_len = value.size();
        uint8_t cut = r.u8();
        if (cut >= 0xF0) data_len -= data_len < (cut % 8u) ? data_len : (cut % 8u);
        // The host keeps the value alive; one spare zero byte past its end.
        uint8_t *v = static_cast<uint8_t *>(std::calloc(value.size() + 1, 1));
        if (!value.empty()) std::memcpy(v, value.data(), value.size());
        owned.push_back(v);
        qv_kel_custom_set_attr_by_index(h, i, name.c_str(), 0, type, v, data_len);
        if (trace) {
            std::fprintf(trace, "  attr %u: '%s' type %u len %llu:", i, name.c_str(), type,
                         (unsigned long long)data_len);
            for (size_t b = 0; b < value.size() && b < 64; ++b) std::fprintf(trace, " %02x", value[b]);
            std::fprintf(trace, "\n");
        }
    }
    uint8_t out_flags = r.u8();

    fix_preconditions(op, h);
    if (tamper) tamper(op, h);
    n_out = h->output_num;
    out.infershape = op.infershape(h);
    if (trace) std::fprintf(trace, "  infershape -> %#x\n", out.infershape);
    if (out.infershape == NPU_OK) {
        bool too_big = false;
        std::vector<uint64_t> lens(n_out);
        for (uint32_t i = 0; i < n_out; ++i) {
            TensorShape s;
            std::memset(&s, 0, sizeof s);
            uint32_t dtype = 0, wstride = 0;
            qv_kel_custom_get_output_shape_by_index(h, i, &s);
            qv_kel_custom_get_output_dtype_by_index(h, i, &dtype);
            qv_kel_custom_get_output_wstride_by_index(h, i, &wstride);
            if (s.dim_num > NPU_MAX_DIMS) s.dim_num = NPU_MAX_DIMS;
            uint64_t count = detail::element_count(s);
            if (count > kMaxOutputElements) too_big = true;
            uint64_t rows = 1;
            for (uint32_t d = 0; d + 1 < s.dim_num; ++d) rows *= s.dims[d];
            uint64_t len = count * detail::elem_size(dtype);
            if (rows <= kMaxOutputElements && rows * wstride > len) len = rows * wstride;
            lens[i] = len;
            if (trace) {
                std::fprintf(trace, "  output %u: dtype %u wstride %u dims [", i, dtype, wstride);
                for (uint32_t d = 0; d < s.dim_num; ++d) std::fprintf(trace, " %u", s.dims[d]);
                std::fprintf(trace, " ] buf_len %llu%s\n", (unsigned long long)len,
                             (out_flags >> i & 1) && (op.null_outputs >> i & 1) ? " null" : "");
            }
            out.output_shapes.push_back(s);
        }
        if (!too_big) {
            std::vector<uint8_t *> bufs(n_out);
            for (uint32_t i = 0; i < n_out; ++i) {
                bufs[i] = static_cast<uint8_t *>(std::calloc(lens[i] + 1, 1));
                owned.push_back(bufs[i]);
                bool null = (out_flags >> i & 1) && (op.null_outputs >> i & 1);
                qv_kel_custom_set_output_buf_by_index(h, i, null ? nullptr : bufs[i], lens[i]);
            }
            out.check_supported = op.check_supported(h);
            out.compute = op.compute(h);
            out.computed = true;
            if (keep_outputs)
                for (uint32_t i = 0; i < n_out; ++i)
                    out.outputs.emplace_back(bufs[i], bufs[i] + lens[i]);
        }
    } else {
        out.check_supported = op.check_supported(h);
    }
    qv_kel_custom_destory_handle(&h);
    for (void *p : owned) std::free(p);
    return out;
}

// One committed seed: its family, file name and bytes.
struct CorpusCase {
    const Family *family;
    std::string name;
    std::vector<uint8_t> bytes;
};

// Reads <root>/<family>/* for every family, sorted by name.
inline std::vector<CorpusCase> load_corpus(const std::string &root) {
    std::vector<CorpusCase> cases;
    for (const Family &f : families()) {
        std::string dir = root + "/" + f.name;
        DIR *d = opendir(dir.c_str());
        if (d == nullptr) continue;
        std::vector<std::string> names;
        while (dirent *e = readdir(d))
            if (e->d_name[0] != '.') names.push_back(e->d_name);
        closedir(d);
        std::sort(names.begin(), names.end());
        for (const std::string &n : names) {
            std::ifstream in(dir + "/" + n, std::ios::binary);
            cases.push_back({&f, std::string(f.name) + "/" + n,
                             std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {})});
        }
    }
    return cases;
}

}  // namespace npucpu_fuzz

#endif
