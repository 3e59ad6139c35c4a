// Memory-bound operators: times each workload through its public entry point
// on the fast path and on the literal path (forced through the test-only
// dispatch override), single-threaded, and checks that both give the same
// output bytes. Prints one line per workload and, with --json FILE, writes
// the figures for bench/merge_memory.py (which adds the PyTorch timings).
//
//   bench_memory [--json FILE] [--only SUBSTRING]
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <deque>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "npucpu.h"
#include "utils/dispatch.h"

namespace {

using Entry = uint32_t (*)(OperatorContext *);

TensorShape shape_of(std::vector<uint32_t> dims) {
    TensorShape s{};
    s.dim_num = static_cast<uint8_t>(dims.size());
    for (size_t i = 0; i < dims.size(); ++i) s.dims[i] = dims[i];
    return s;
}

// One operator call as a host would set it up: inputs, attributes, outputs
// sized from infershape. Owns every buffer.
struct Call {
    OperatorContext *h = nullptr;
    std::deque<std::vector<char>> keep;
    std::vector<std::vector<char>> outputs;
    uint32_t attr_next = 0;

    Call(uint32_t inputs, uint32_t outs, uint32_t attrs) {
        qv_kel_custom_create_handle(&h);
        qv_kel_custom_set_inputs_num(h, inputs);
        qv_kel_custom_set_outputs_num(h, outs);
        if (attrs > 0) qv_kel_custom_set_attrs_num(h, attrs);
        outputs.resize(outs);
    }
    ~Call() { qv_kel_custom_destory_handle(&h); }
    Call(const Call &) = delete;
    Call &operator=(const Call &) = delete;

    template <typename T>
    void input(uint32_t i, std::vector<uint32_t> dims, const std::vector<T> &data, uint32_t dtype) {
        keep.emplace_back(reinterpret_cast<const char *>(data.data()),
                          reinterpret_cast<const char *>(data.data() + data.size()));
        TensorShape s = shape_of(dims);
        qv_kel_custom_set_input_by_index(h, i, dtype, NPU_FORMAT_NCHW, &s, keep.back().data(),
                                         keep.back().size(), 0);
    }
    void attr(const char *name, uint32_t type, const void *p, size_t n) {
        keep.emplace_back(static_cast<const char *>(p), static_cast<const char *>(p) + n);
        keep.back().push_back(0);
        qv_kel_custom_set_attr_by_index(h, attr_next++, name, 0, type, keep.back().data(), n);
    }
    void attr_int(const char *name, int64_t v) { attr(name, NPU_ATTR_INT, &v, 8); }
    void attr_ints(const char *name, std::vector<int64_t> v) {
        attr(name, NPU_ATTR_INTS, v.data(), 8 * v.size());
    }
    void attr_float(const char *name, float v) { attr(name, NPU_ATTR_FLOAT, &v, 4); }
    void attr_string(const char *name, const std::string &v) {
        attr(name, NPU_ATTR_STRING, v.data(), v.size());
    }
    // Runs infershape and allocates every output from its shape, data type
    // and (for rows with a gap) width stride.
    bool prepare(Entry infer) {
        if (infer(h) != NPU_OK) return false;
        for (uint32_t i = 0; i < outputs.size(); ++i) {
            TensorShape s{};
            uint32_t dtype = 0, wstride = 0;
            qv_kel_custom_get_output_shape_by_index(h, i, &s);
            qv_kel_custom_get_output_dtype_by_index(h, i, &dtype);
            qv_kel_custom_get_output_wstride_by_index(h, i, &wstride);
            uint64_t bytes = static_cast<uint64_t>(GetElemSize(&s)) * get_dtype_size(dtype);
            const uint32_t width = s.dim_num ? s.dims[s.dim_num - 1] : 1;
            const uint64_t row = static_cast<uint64_t>(width) * get_dtype_size(dtype);
            if (wstride > row && row > 0) bytes = bytes / row * wstride;
            outputs[i].assign(bytes, 0);
            qv_kel_custom_set_output_buf_by_index(h, i, outputs[i].data(), bytes);
        }
        return true;
    }
    uint64_t output_bytes() const {
        uint64_t n = 0;
        for (const auto &o : outputs) n += o.size();
        return n;
    }
};

std::vector<float> random_floats(size_t n, uint32_t seed, float lo = -4.0f, float hi = 4.0f) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> d(lo, hi);
    std::vector<float> v(n);
    for (auto &x : v) x = d(rng);
    return v;
}

struct Workload {
    std::string name;
    // Builds the call; returns the input bytes it moves.
    std::function<uint64_t(Call *&)> make;
    Entry infer, compute;
    bool data_movement;      // target: half the copy bandwidth
    const char *peer;        // otherwise: the peer to reach
};

double time_ms(Call &c, Entry compute) {
    // Warm up, then the median of a run count that gives ~0.2 s in total.
    compute(c.h);
    auto t0 = std::chrono::steady_clock::now();
    compute(c.h);
    double once = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
    int reps = static_cast<int>(std::min(200.0, std::max(5.0, 200.0 / std::max(once, 1e-3))));
    std::vector<double> t(reps);
    for (int r = 0; r < reps; ++r) {
        auto a = std::chrono::steady_clock::now();
        compute(c.h);
        t[r] = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - a).count();
    }
    std::sort(t.begin(), t.end());
    return t[reps / 2];
}

std::vector<Workload> workloads() {
    std::vector<Workload> w;
    const uint32_t F = NPU_DTYPE_FLOAT32;
    w.push_back({"maxpool 3x3 s2 p1 [1,64,112,112]", [F](Call *&c) {
                     c = new Call(1, 1, 4);
                     c->input(0, {1, 64, 112, 112}, random_floats(64 * 112 * 112, 1), F);
                     c->attr_ints("kernel_shape", {3, 3});
                     c->attr_ints("strides", {2, 2});
                     c->attr_ints("pads", {1, 1, 1, 1});
                     c->attr_string("auto_pad", "NOTSET");
                     return uint64_t{64 * 112 * 112 * 4};
                 },
                 maxpool_infershape, maxpool_compute, false, "onednn"});
    w.push_back({"avgpool 2x2 s2 [1,64,112,112]", [F](Call *&c) {
                     c = new Call(1, 1, 4);
                     c->input(0, {1, 64, 112, 112}, random_floats(64 * 112 * 112, 2), F);
                     c->attr_ints("kernel_shape", {2, 2});
                     c->attr_ints("strides", {2, 2});
                     c->attr_ints("pads", {0, 0, 0, 0});
                     c->attr_string("auto_pad", "NOTSET");
                     return uint64_t{64 * 112 * 112 * 4};
                 },
                 averagepool_infershape, averagepool_compute, false, "onednn"});
    w.push_back({"global_averagepool [1,512,14,14]", [F](Call *&c) {
                     c = new Call(1, 1, 0);
                     c->input(0, {1, 512, 14, 14}, random_floats(512 * 196, 3), F);
                     return uint64_t{512 * 196 * 4};
                 },
                 global_averagepool_infershape, global_averagepool_compute, false, "torch"});
    w.push_back({"softmax [1000,1000] axis -1", [F](Call *&c) {
                     c = new Call(1, 1, 1);
                     c->input(0, {1000, 1000}, random_floats(1000000, 4), F);
                     c->attr_int("axis", -1);
                     return uint64_t{4000000};
                 },
                 softmax_infershape, softmax_compute, false, "onednn"});
    w.push_back({"softmax [1,1000] axis -1", [F](Call *&c) {
                     c = new Call(1, 1, 1);
                     c->input(0, {1, 1000}, random_floats(1000, 5), F);
                     c->attr_int("axis", -1);
                     return uint64_t{4000};
                 },
                 softmax_infershape, softmax_compute, false, "torch"});
    auto resize = [F](const char *mode, uint32_t out, float seed) {
        return [=](Call *&c) {
            c = new Call(4, 1, 3);
            c->input(0, {1, 3, 224, 224}, random_floats(3 * 224 * 224, static_cast<uint32_t>(seed)), F);
            c->input(3, {4}, std::vector<int64_t>{1, 3, out, out}, NPU_DTYPE_INT64);
            c->attr_string("mode", mode);
            c->attr_string("coordinate_transformation_mode", "half_pixel");
            c->attr_float("cubic_coeff_a", -0.75f);
            return uint64_t{3 * 224 * 224 * 4};
        };
    };
    w.push_back({"resize linear [1,3,224,224]->448", resize("linear", 448, 6), resize_infershape,
                 resize_compute, false, "torch"});
    w.push_back({"resize nearest [1,3,224,224]->448", resize("nearest", 448, 7), resize_infershape,
                 resize_compute, false, "torch"});
    w.push_back({"resize cubic [1,3,224,224]->300", resize("cubic", 300, 8), resize_infershape,
                 resize_compute, false, "torch"});
    w.push_back({"topk k=5 [64,10000]", [F](Call *&c) {
                     c = new Call(2, 2, 0);
                     c->input(0, {64, 10000}, random_floats(640000, 9), F);
                     c->input(1, {1}, std::vector<int64_t>{5}, NPU_DTYPE_INT64);
                     return uint64_t{640000 * 4};
                 },
                 topk_infershape, topk_compute, false, "torch"});
    w.push_back({"nms 1x80 classes 2000 boxes max 100", [F](Call *&c) {
                     c = new Call(5, 1, 0);
                     std::mt19937 rng(10);
                     std::uniform_real_distribution<float> pos(0.0f, 1000.0f), ext(10.0f, 100.0f);
                     std::vector<float> boxes(2000 * 4);
                     for (size_t b = 0; b < 2000; ++b) {
                         const float y = pos(rng), x = pos(rng);
                         boxes[4 * b] = y;
                         boxes[4 * b + 1] = x;
                         boxes[4 * b + 2] = y + ext(rng);
                         boxes[4 * b + 3] = x + ext(rng);
                     }
                     c->input(0, {1, 2000, 4}, boxes, F);
                     c->input(1, {1, 80, 2000}, random_floats(80 * 2000, 11, 0.0f, 1.0f), F);
                     c->input(2, {1}, std::vector<int64_t>{100}, NPU_DTYPE_INT64);
                     c->input(3, {1}, std::vector<float>{0.5f}, F);
                     c->input(4, {1}, std::vector<float>{0.05f}, F);
                     return uint64_t{(8000 + 160000) * 4};
                 },
                 nms_infershape, nms_compute, false, "torch"});
    w.push_back({"transpose [1,64,112,112] perm 0,2,3,1", [F](Call *&c) {
                     c = new Call(1, 1, 1);
                     c->input(0, {1, 64, 112, 112}, random_floats(64 * 112 * 112, 12), F);
                     c->attr_ints("perm", {0, 2, 3, 1});
                     return uint64_t{64 * 112 * 112 * 4};
                 },
                 transpose_infershape, transpose_compute, true, nullptr});
    w.push_back({"add [1,64,112,112] + [64,1,1]", [F](Call *&c) {
                     c = new Call(2, 1, 0);
                     c->input(0, {1, 64, 112, 112}, random_floats(64 * 112 * 112, 13), F);
                     c->input(1, {64, 1, 1}, random_floats(64, 14), F);
                     return uint64_t{64 * 112 * 112 * 4 + 64 * 4};
                 },
                 add_infershape, add_compute, false, "torch"});
    w.push_back({"pad reflect [1,64,112,112] by 1", [F](Call *&c) {
                     c = new Call(2, 1, 1);
                     c->input(0, {1, 64, 112, 112}, random_floats(64 * 112 * 112, 15), F);
                     c->input(1, {8}, std::vector<int64_t>{0, 0, 1, 1, 0, 0, 1, 1}, NPU_DTYPE_INT64);
                     c->attr_string("mode", "reflect");
                     return uint64_t{64 * 112 * 112 * 4};
                 },
                 pad_infershape, pad_compute, true, nullptr});
    w.push_back({"slice [1,64,112,112] step 2 on H,W", [F](Call *&c) {
                     c = new Call(5, 1, 0);
                     c->input(0, {1, 64, 112, 112}, random_floats(64 * 112 * 112, 16), F);
                     c->input(1, {2}, std::vector<int64_t>{0, 0}, NPU_DTYPE_INT64);
                     c->input(2, {2}, std::vector<int64_t>{112, 112}, NPU_DTYPE_INT64);
                     c->input(3, {2}, std::vector<int64_t>{2, 3}, NPU_DTYPE_INT64);
                     c->input(4, {2}, std::vector<int64_t>{2, 2}, NPU_DTYPE_INT64);
                     return uint64_t{64 * 112 * 112 * 4};
                 },
                 slice_infershape, slice_compute, true, nullptr});
    w.push_back({"concat 2x[1,64,56,56] axis 1", [F](Call *&c) {
                     c = new Call(2, 1, 1);
                     c->input(0, {1, 64, 56, 56}, random_floats(64 * 56 * 56, 17), F);
                     c->input(1, {1, 64, 56, 56}, random_floats(64 * 56 * 56, 18), F);
                     c->attr_int("axis", 1);
                     return uint64_t{2 * 64 * 56 * 56 * 4};
                 },
                 concat_infershape, concat_compute, true, nullptr});
    w.push_back({"gather [1000,512] 256 indices", [F](Call *&c) {
                     c = new Call(2, 1, 1);
                     c->input(0, {1000, 512}, random_floats(512000, 19), F);
                     std::mt19937 rng(20);
                     std::vector<int64_t> idx(256);
                     for (auto &i : idx) i = static_cast<int64_t>(rng() % 1000);
                     c->input(1, {256}, idx, NPU_DTYPE_INT64);
                     c->attr_int("axis", 0);
                     return uint64_t{256 * 512 * 4 + 256 * 8};
                 },
                 gather_infershape, gather_compute, true, nullptr});
    w.push_back({"add_bubble float [64,112,113]", [F](Call *&c) {
                     c = new Call(1, 1, 0);
                     c->input(0, {64, 112, 113}, random_floats(64 * 112 * 113, 21), F);
                     return uint64_t{64 * 112 * 113 * 4};
                 },
                 add_bubble_infershape, add_bubble_compute, true, nullptr});
    w.push_back({"remove_bubble float [64,112,113]", [F](Call *&c) {
                     c = new Call(1, 1, 0);
                     // Rows of 113 floats every 464 bytes.
                     c->input(0, {64, 112, 113}, random_floats(64 * 112 * 116, 22), F);
                     qv_kel_custom_set_input_wstride_by_index(c->h, 0, 464);
                     return uint64_t{64 * 112 * 116 * 4};
                 },
                 remove_bubble_infershape, remove_bubble_compute, true, nullptr});
    w.push_back({"cast float->int32 1M", [F](Call *&c) {
                     c = new Call(1, 1, 1);
                     c->input(0, {1u << 20}, random_floats(1u << 20, 23, -1e6f, 1e6f), F);
                     c->attr_int("to", 6);
                     return uint64_t{(1u << 20) * 4};
                 },
                 cast_infershape, cast_compute, true, nullptr});
    w.push_back({"argmax axis 1 [64,10000]", [F](Call *&c) {
                     c = new Call(1, 1, 2);
                     c->input(0, {64, 10000}, random_floats(640000, 24), F);
                     c->attr_int("axis", 1);
                     c->attr_int("keepdims", 1);
                     return uint64_t{640000 * 4};
                 },
                 argmax_infershape, argmax_compute, false, "torch"});
    w.push_back({"reducemean last axis [1000,1000]", [F](Call *&c) {
                     c = new Call(1, 1, 2);
                     c->input(0, {1000, 1000}, random_floats(1000000, 25), F);
                     c->attr_int("keepdims", 1);
                     c->attr_ints("axes", {1});
                     return uint64_t{4000000};
                 },
                 reducemean_infershape, reducemean_compute, false, "torch"});
    w.push_back({"expand [64,1,1] -> [1,64,112,112]", [F](Call *&c) {
                     c = new Call(2, 1, 0);
                     c->input(0, {64, 1, 1}, random_floats(64, 26), F);
                     c->input(1, {4}, std::vector<int64_t>{1, 64, 112, 112}, NPU_DTYPE_INT64);
                     return uint64_t{64 * 112 * 112 * 4};
                 },
                 expand_infershape, expand_compute, true, nullptr});
    w.push_back({"reducemax axis 1 [64,10000]", [F](Call *&c) {
                     c = new Call(1, 1, 2);
                     c->input(0, {64, 10000}, random_floats(640000, 27), F);
                     c->attr_int("keepdims", 1);
                     c->attr_ints("axes", {1});
                     return uint64_t{640000 * 4};
                 },
                 reducemax_infershape, reducemax_compute, false, "torch"});
    w.push_back({"reducemin axis 0 [1000,1000]", [F](Call *&c) {
                     c = new Call(1, 1, 2);
                     c->input(0, {1000, 1000}, random_floats(1000000, 28), F);
                     c->attr_int("keepdims", 1);
                     c->attr_ints("axes", {0});
                     return uint64_t{4000000};
                 },
                 reducemin_infershape, reducemin_compute, false, "torch"});
    w.push_back({"global_maxpool [1,512,14,14]", [F](Call *&c) {
                     c = new Call(1, 1, 0);
                     c->input(0, {1, 512, 14, 14}, random_floats(512 * 196, 29), F);
                     return uint64_t{512 * 196 * 4};
                 },
                 global_maxpool_infershape, global_maxpool_compute, false, "torch"});
    w.push_back({"depth_to_space CRD b2 [1,256,56,56]", [F](Call *&c) {
                     c = new Call(1, 1, 2);
                     c->input(0, {1, 256, 56, 56}, random_floats(256 * 56 * 56, 30), F);
                     c->attr_int("blocksize", 2);
                     c->attr_string("mode", "CRD");
                     return uint64_t{256 * 56 * 56 * 4};
                 },
                 depth_to_space_infershape, depth_to_space_compute, true, nullptr});
    w.push_back({"nonzero float [1000,1000] half zero", [F](Call *&c) {
                     c = new Call(1, 1, 0);
                     std::vector<float> v = random_floats(1000000, 31, -1.0f, 1.0f);
                     for (auto &x : v) x = x < 0.0f ? 0.0f : x;
                     c->input(0, {1000, 1000}, v, F);
                     return uint64_t{4000000};
                 },
                 nonzero_infershape, nonzero_compute, false, "torch"});
    w.push_back({"detect_output_decoder [1,1,20000,8]", [](Call *&c) {
                     c = new Call(2, 2, 0);
                     c->input(0, {1}, std::vector<uint32_t>{20000}, NPU_DTYPE_UINT32);
                     std::mt19937 rng(32);
                     std::vector<int16_t> table(160000);
                     for (auto &v : table) v = static_cast<int16_t>(rng());
                     c->input(1, {1, 1, 20000, 8}, table, NPU_DTYPE_INT16);
                     return uint64_t{160000 * 2};
                 },
                 detect_output_decoder_infershape, detect_output_decoder_compute, true, "torch"});
    return w;
}

}  // namespace

int main(int argc, char **argv) {
    const char *json = nullptr;
    const char *only = nullptr;
    for (int i = 1; i + 1 < argc; ++i) {
        if (std::strcmp(argv[i], "--json") == 0) json = argv[++i];
        else if (std::strcmp(argv[i], "--only") == 0) only = argv[++i];
    }
    set_log_level(5);  // quiet: the absent optional attributes log at level 4
    FILE *out = json ? std::fopen(json, "w") : nullptr;
    if (out) std::fprintf(out, "{\"rows\": [");
    bool first = true;
    std::printf("%-40s %10s %10s %8s %6s\n", "workload", "fast ms", "literal ms", "GB/s", "match");
    for (const Workload &w : workloads()) {
        if (only && w.name.find(only) == std::string::npos) continue;
        Call *c = nullptr;
        const uint64_t in_bytes = w.make(c);
        if (!c->prepare(w.infer)) {
            std::printf("%-40s infershape failed\n", w.name.c_str());
            delete c;
            continue;
        }
        const uint64_t bytes = in_bytes + c->output_bytes();
        // Both runs start from the same output bytes (gaps are left as found).
        for (auto &o : c->outputs) std::fill(o.begin(), o.end(), 0x5a);
        npucpu::testing::force_isa(npucpu::Isa::Literal);
        const double literal = time_ms(*c, w.compute);
        std::vector<std::vector<char>> literal_out = c->outputs;
        npucpu::testing::clear_forced_isa();
        for (auto &o : c->outputs) std::fill(o.begin(), o.end(), 0x5a);
        const double fast = time_ms(*c, w.compute);
        const bool match = literal_out == c->outputs;
        const double gbs = static_cast<double>(bytes) / (fast * 1e6);
        std::printf("%-40s %10.3f %10.3f %8.2f %6s\n", w.name.c_str(), fast, literal, gbs,
                    match ? "yes" : "NO");
        std::fflush(stdout);
        if (out) {
            std::fprintf(out, "%s\n {\"workload\": \"%s\", \"fast_ms\": %.6f, \"literal_ms\": %.6f, "
                              "\"bytes\": %llu, \"match\": %s, ",
                         first ? "" : ",", w.name.c_str(), fast, literal,
                         static_cast<unsigned long long>(bytes), match ? "true" : "false");
            if (w.data_movement) {
                std::fprintf(out, "\"target\": {\"bandwidth_fraction\": 0.5}}");
            } else {
                std::fprintf(out, "\"target\": {\"peer\": \"%s\", \"ratio\": 1.0}}", w.peer);
            }
            first = false;
        }
        delete c;
    }
    if (out) {
        std::fprintf(out, "\n]}\n");
        std::fclose(out);
    }
    return 0;
}
