// Writes the seed corpus: for every operator, a few valid invocations in the
// byte layout that fuzz/harness.h decodes. Usage: make_seeds <corpus-dir>
// (writes <corpus-dir>/<family>/<op>-<n>). The corpus is committed; rerun
// this after changing the layout or the cases, and commit the result.
#include <sys/stat.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "harness.h"

namespace {

using npucpu_fuzz::attr_names;
using npucpu_fuzz::attr_strings;

struct Seed {
    struct In {
        uint32_t dtype, format;
        std::vector<uint32_t> dims;
        std::vector<uint8_t> data;
    };
    std::string op;
    std::vector<In> ins;
    uint32_t outputs = 1;
    std::vector<std::vector<uint8_t>> attrs;

    template <typename T>
    Seed &in(uint32_t dtype, std::vector<uint32_t> dims, const std::vector<T> &v,
             uint32_t format = NPU_FORMAT_NCHW) {
        In x{dtype, format, dims, {}};
        x.data.resize(v.size() * sizeof(T));
        if (!v.empty()) std::memcpy(x.data.data(), v.data(), x.data.size());
        ins.push_back(x);
        return *this;
    }
    // Float input with a deterministic pattern of values (a few repeats,
    // negatives, fractions).
    Seed &f32(std::vector<uint32_t> dims, uint32_t format = NPU_FORMAT_NCHW, int salt = 0) {
        size_t n = 1;
        for (uint32_t d : dims) n *= d;
        std::vector<float> v(n);
        for (size_t i = 0; i < n; ++i) v[i] = float(int((i * 7 + salt) % 13) - 6) * 0.5f;
        return in(NPU_DTYPE_FLOAT32, dims, v, format);
    }
    Seed &i64(std::vector<uint32_t> dims, std::vector<int64_t> v) {
        return in(NPU_DTYPE_INT64, dims, v);
    }
    Seed &i32(std::vector<uint32_t> dims, std::vector<int32_t> v) {
        return in(NPU_DTYPE_INT32, dims, v);
    }
    Seed &out(uint32_t n) {
        outputs = n;
        return *this;
    }

    static uint8_t name_index(const char *name) {
        for (size_t i = 0; i < attr_names().size(); ++i)
            if (std::strcmp(attr_names()[i], name) == 0) return uint8_t(i);
        std::fprintf(stderr, "unknown attribute name %s\n", name);
        std::exit(1);
    }
    static void put_int(std::vector<uint8_t> &b, int64_t v) {
        if (v >= -80 && v <= 99) {
            b.push_back(uint8_t(v + 100));
        } else {
            b.push_back(200);
            uint8_t raw[8];
            std::memcpy(raw, &v, 8);
            b.insert(b.end(), raw, raw + 8);
        }
    }
    static void put_float(std::vector<uint8_t> &b, float v) {
        b.push_back(200);
        uint8_t raw[4];
        std::memcpy(raw, &v, 4);
        b.insert(b.end(), raw, raw + 4);
    }
    Seed &attr_int(const char *name, int64_t v) {
        std::vector<uint8_t> b = {name_index(name), NPU_ATTR_INT};
        put_int(b, v);
        b.push_back(0);
        attrs.push_back(b);
        return *this;
    }
    Seed &attr_ints(const char *name, std::vector<int64_t> v) {
        std::vector<uint8_t> b = {name_index(name), NPU_ATTR_INTS, uint8_t(v.size())};
        for (int64_t x : v) put_int(b, x);
        b.push_back(0);
        attrs.push_back(b);
        return *this;
    }
    Seed &attr_float(const char *name, float v) {
        std::vector<uint8_t> b = {name_index(name), NPU_ATTR_FLOAT};
        put_float(b, v);
        b.push_back(0);
        attrs.push_back(b);
        return *this;
    }
    Seed &attr_string(const char *name, const char *s) {
        std::vector<uint8_t> b = {name_index(name), NPU_ATTR_STRING};
        size_t k = 0;
        while (k < attr_strings().size() && std::strcmp(attr_strings()[k], s) != 0) ++k;
        if (k < attr_strings().size()) {
            b.push_back(uint8_t(k));
        } else {
            b.push_back(0xF0);
            b.push_back(uint8_t(std::strlen(s)));
            b.insert(b.end(), s, s + std::strlen(s));
        }
        b.push_back(0);
        attrs.push_back(b);
        return *this;
    }

    std::vector<uint8_t> encode(uint8_t op_index) const {
        std::vector<uint8_t> b = {op_index, uint8_t(ins.size()), uint8_t(outputs),
                                  uint8_t(attrs.size())};
        for (const In &x : ins) {
            b.push_back(uint8_t(x.dtype));
            b.push_back(uint8_t(x.format));
            b.push_back(0);  // raw bytes, not null, exact length
            b.push_back(uint8_t(x.dims.size()));
            for (uint32_t d : x.dims) b.push_back(d < 9 ? uint8_t(d) : uint8_t(200 + d));
            b.insert(b.end(), x.data.begin(), x.data.end());
        }
        for (const auto &a : attrs) b.insert(b.end(), a.begin(), a.end());
        b.push_back(0);  // no null outputs
        return b;
    }
};

std::vector<Seed> seeds() {
    std::vector<Seed> s;
    auto op = [&](const char *name) -> Seed & {
        s.push_back(Seed{});
        s.back().op = name;
        return s.back();
    };
    for (const char *name : {"add", "sub", "mul", "div"}) {
        op(name).f32({2, 3, 4}).f32({3, 1}, NPU_FORMAT_NCHW, 3);
        op(name).f32({5}).f32({5}, NPU_FORMAT_NCHW, 1);
    }
    op("pow").f32({2, 3}).f32({2, 3}, NPU_FORMAT_NCHW, 2);
    op("pow").f32({4}).f32({}, NPU_FORMAT_NCHW, 1);
    op("prelu").f32({1, 3, 2, 2}).f32({3, 1, 1}, NPU_FORMAT_NCHW, 1);
    op("prelu").f32({2, 4}).f32({}, NPU_FORMAT_NCHW, 4);
    for (const char *name : {"ceil", "floor", "relu", "sqrt"}) op(name).f32({2, 3, 5});
    op("cast").f32({2, 3}).attr_int("to", 6);
    op("cast").i32({4}, {-3, 0, 7, 2147483647}).attr_int("to", 1);
    op("cast").i64({3}, {-5, 1, 1234567890123}).attr_int("to", 6);
    op("sum").f32({2, 3}).f32({3}, NPU_FORMAT_NCHW, 1).f32({2, 1}, NPU_FORMAT_NCHW, 2);
    op("mean").f32({2, 3}).f32({2, 3}, NPU_FORMAT_NCHW, 5);
    op("expand").f32({3, 1}).i64({3}, {2, 3, 4});
    op("add_bubble").f32({2, 3});
    op("add_bubble").in<int8_t>(NPU_DTYPE_INT8, {3, 5}, std::vector<int8_t>(15, 7));
    op("remove_bubble").f32({2, 4});

    op("argmax").f32({2, 3, 4}).attr_int("axis", 1).attr_int("keepdims", 1);
    op("argmin").f32({2, 3, 4}).attr_int("axis", -1).attr_int("keepdims", 0);
    op("argmax").i32({6}, {3, 9, -1, 9, 0, 2}).attr_int("select_last_index", 1);
    for (const char *name : {"reducemax", "reducemin", "reducemean"}) {
        op(name).f32({2, 3, 4}).attr_ints("axes", {1}).attr_int("keepdims", 1);
        op(name).f32({2, 3, 4}).attr_ints("axes", {0, -1}).attr_int("keepdims", 0);
    }
    op("softmax").f32({2, 5}).attr_int("axis", 1);
    op("softmax").f32({2, 3, 4}).attr_int("axis", -1);
    op("topk").f32({3, 6}).i64({1}, {2}).out(2).attr_int("axis", -1);
    op("topk").i32({6}, {5, -2, 9, 9, 0, 1}).i64({1}, {3}).out(2).attr_int("largest", 0);
    op("nonzero").f32({2, 3});

    {
        // Boxes [1, 3, 4], scores [1, 1, 3], max boxes, IoU and score thresholds.
        std::vector<float> boxes = {0, 0, 1, 1, 0, 0.1f, 1, 1.1f, 0, 5, 1, 6};
        std::vector<float> scores = {0.9f, 0.75f, 0.6f};
        op("nms").in(NPU_DTYPE_FLOAT32, {1, 3, 4}, boxes)
            .in(NPU_DTYPE_FLOAT32, {1, 1, 3}, scores)
            .i64({1}, {2})
            .in(NPU_DTYPE_FLOAT32, {1}, std::vector<float>{0.5f})
            .in(NPU_DTYPE_FLOAT32, {1}, std::vector<float>{0.0f});
    }
    {
        std::vector<int16_t> table(3 * 6);
        for (size_t i = 0; i < table.size(); ++i) table[i] = int16_t(i * 37 - 200);
        op("detect_output_decoder")
            .in(NPU_DTYPE_UINT32, {1}, std::vector<uint32_t>{3})
            .in(NPU_DTYPE_INT16, {1, 1, 3, 6}, table)
            .out(2);
    }

    op("conv").f32({1, 2, 5, 5}).f32({3, 2, 3, 3}, NPU_FORMAT_NCHW, 1).f32({3}, NPU_FORMAT_NCHW, 2)
        .attr_ints("kernel_shape", {3, 3}).attr_ints("strides", {1, 1})
        .attr_ints("pads", {1, 1, 1, 1}).attr_ints("dilations", {1, 1}).attr_int("group", 1)
        .attr_string("auto_pad", "NOTSET");
    op("conv").f32({1, 4, 6, 6}).f32({4, 2, 2, 2}, NPU_FORMAT_NCHW, 1)
        .attr_ints("kernel_shape", {2, 2}).attr_ints("strides", {2, 2})
        .attr_ints("pads", {0, 0, 0, 0}).attr_ints("dilations", {1, 1}).attr_int("group", 2)
        .attr_string("auto_pad", "NOTSET");
    op("conv_transpose").f32({1, 2, 3, 3}).f32({2, 3, 2, 2}, NPU_FORMAT_NCHW, 1)
        .attr_ints("kernel_shape", {2, 2}).attr_ints("strides", {2, 2})
        .attr_ints("pads", {0, 0, 0, 0}).attr_ints("dilations", {1, 1}).attr_int("group", 1)
        .attr_string("auto_pad", "NOTSET");
    op("gemm").f32({3, 4}).f32({4, 5}, NPU_FORMAT_NCHW, 1).f32({5}, NPU_FORMAT_NCHW, 2)
        .attr_float("alpha", 1.0f).attr_float("beta", 1.0f);
    op("gemm").f32({4, 3}).f32({5, 4}, NPU_FORMAT_NCHW, 1).attr_int("transA", 1)
        .attr_int("transB", 1);
    op("matmul").f32({2, 3, 4}).f32({4, 2}, NPU_FORMAT_NCHW, 1);
    op("matmul").f32({3, 4}).f32({4, 5}, NPU_FORMAT_NCHW, 1);

    for (const char *name : {"averagepool", "maxpool"}) {
        op(name).f32({1, 2, 6, 6}).attr_ints("kernel_shape", {2, 2}).attr_ints("strides", {2, 2})
            .attr_ints("pads", {0, 0, 0, 0}).attr_string("auto_pad", "NOTSET");
        op(name).f32({1, 1, 5, 5}).attr_ints("kernel_shape", {3, 3}).attr_ints("strides", {1, 1})
            .attr_ints("pads", {1, 1, 1, 1}).attr_string("auto_pad", "NOTSET")
            .attr_int("count_include_pad", 1);
    }
    op("maxpool").f32({1, 2, 4, 4}).out(2).attr_ints("kernel_shape", {2, 2})
        .attr_ints("strides", {2, 2}).attr_ints("pads", {0, 0, 0, 0})
        .attr_string("auto_pad", "NOTSET");
    op("global_averagepool").f32({2, 3, 4, 5});
    op("global_maxpool").f32({2, 3, 4, 5});
    op("lrn").f32({1, 5, 3, 3}).attr_int("size", 3).attr_float("alpha", 1e-4f)
        .attr_float("beta", 0.75f).attr_float("bias", 1.0f);
    op("resize").f32({1, 1, 2, 3}).f32({0}).f32({0})
        .in(NPU_DTYPE_FLOAT32, {4}, std::vector<float>{1, 1, 2, 2})
        .attr_string("mode", "nearest");
    op("resize").f32({1, 1, 3, 3}).f32({0}).f32({0}).i64({4}, {1, 1, 5, 4})
        .attr_string("mode", "linear").attr_string("coordinate_transformation_mode",
                                                   "align_corners");
    op("resize").f32({1, 1, 4, 4}).f32({0}).in(NPU_DTYPE_FLOAT32, {4},
                                               std::vector<float>{1, 1, 0.5f, 1.5f})
        .attr_string("mode", "cubic").attr_float("cubic_coeff_a", -0.75f);
    op("depth_to_space").f32({1, 8, 2, 3}).attr_int("blocksize", 2).attr_string("mode", "DCR");
    op("depth_to_space").f32({1, 4, 2, 2}).attr_int("blocksize", 2).attr_string("mode", "CRD");

    op("concat").f32({2, 3}).f32({2, 2}, NPU_FORMAT_NCHW, 1).attr_int("axis", 1);
    op("concat").f32({1, 2, 2}).f32({3, 2, 2}, NPU_FORMAT_NCHW, 1).f32({1, 2, 2})
        .attr_int("axis", 0);
    op("gather").f32({4, 3}).i64({2, 2}, {0, 3, -1, 2}).attr_int("axis", 0);
    op("gather").f32({2, 5}).i32({3}, {4, 0, -2}).attr_int("axis", 1);
    op("pad").f32({2, 3}).i64({4}, {1, 0, 0, 2});
    op("pad").f32({2, 3}).i64({4}, {0, 1, 1, 1}).f32({1}, NPU_FORMAT_NCHW, 3)
        .attr_string("mode", "constant");
    op("pad").f32({3, 4}).i64({4}, {1, 2, 1, 2}).attr_string("mode", "reflect");
    op("pad").f32({3, 4}).i64({4}, {2, 1, 0, 3}).attr_string("mode", "edge");
    op("range").in(NPU_DTYPE_FLOAT32, {}, std::vector<float>{1})
        .in(NPU_DTYPE_FLOAT32, {}, std::vector<float>{5})
        .in(NPU_DTYPE_FLOAT32, {}, std::vector<float>{0.5f});
    op("range").i32({}, {10}).i32({}, {-2}).i32({}, {-3});
    op("slice").f32({4, 5}).i64({2}, {1, 0}).i64({2}, {3, 5});
    op("slice").f32({4, 5}).i64({1}, {-1}).i64({1}, {-5}).i64({1}, {1}).i64({1}, {-2});
    op("slice").f32({2, 3, 4}).i64({2}, {0, 1}).i64({2}, {2, 4}).i64({2}, {0, 2})
        .i64({2}, {1, 2});
    op("transpose").f32({2, 3, 4}).attr_ints("perm", {2, 0, 1});
    op("transpose").f32({3, 5});
    return s;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s <corpus-dir>\n", argv[0]);
        return 2;
    }
    std::string root = argv[1];
    mkdir(root.c_str(), 0755);
    std::map<std::string, int> numbers;
    for (const Seed &seed : seeds()) {
        const npucpu_fuzz::Family *fam = nullptr;
        int index = -1;
        for (const auto &f : npucpu_fuzz::families())
            for (size_t i = 0; i < f.ops.size(); ++i)
                if (seed.op == f.ops[i].name) fam = &f, index = int(i);
        if (fam == nullptr) {
            std::fprintf(stderr, "unknown operator %s\n", seed.op.c_str());
            return 1;
        }
        std::string dir = root + "/" + fam->name;
        mkdir(dir.c_str(), 0755);
        std::string path = dir + "/" + seed.op + "-" + std::to_string(numbers[seed.op]++);
        std::vector<uint8_t> bytes = seed.encode(uint8_t(index));
        FILE *f = std::fopen(path.c_str(), "wb");
        if (f == nullptr || std::fwrite(bytes.data(), 1, bytes.size(), f) != bytes.size()) {
            std::fprintf(stderr, "cannot write %s\n", path.c_str());
            return 1;
        }
        std::fclose(f);
    }
    return 0;
}
