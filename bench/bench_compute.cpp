// Compute-bound operators: npucpu's fast path, its literal path and the
// installed peers (oneDNN, OpenBLAS) on the same shapes, single-threaded,
// with warm-up and medians. Prints a table and, with --json FILE, writes the
// figures (bench/compute_merge.py adds the PyTorch timings and prints the
// combined table).
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "npucpu.h"
#include "utils/dispatch.h"

#ifdef NPUCPU_BENCH_OPENBLAS
#include <cblas.h>
#endif
#ifdef NPUCPU_BENCH_DNNL
#include <dnnl.hpp>
#endif

namespace {

using Floats = std::vector<float>;
bool g_fast_only = false;  // --fast-only: time the fast path alone (profiling)

// The calling thread's CPU time in milliseconds. Every contender runs on
// the calling thread (one thread each), so on a shared machine this leaves
// out the time other processes held the core.
double thread_ms() {
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return ts.tv_sec * 1e3 + ts.tv_nsec / 1e6;
}

// Median time in milliseconds of fn: two warm-up runs, then repetitions
// until `budget_s` seconds or `max_reps` runs (at least 3).
double median_ms(const std::function<void()> &fn, double budget_s = 0.6, int max_reps = 40) {
    fn();
    const double t0 = thread_ms();
    fn();
    const double first = (thread_ms() - t0) / 1e3;
    std::vector<double> t;
    const int reps = std::max(3, std::min(max_reps, static_cast<int>(budget_s / std::max(first, 1e-6))));
    for (int i = 0; i < reps; ++i) {
        const double s = thread_ms();
        fn();
        t.push_back(thread_ms() - s);
    }
    std::sort(t.begin(), t.end());
    return t[t.size() / 2];
}

// Literal paths take seconds: one warm-up-free run less, three timed.
double literal_ms(const std::function<void()> &fn) { return g_fast_only ? 0.0 : median_ms(fn, 0.0, 3); }

Floats random_values(size_t n, uint32_t seed, float lo = -1.0f, float hi = 1.0f) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(lo, hi);
    Floats v(n);
    for (auto &x : v) x = u(rng);
    return v;
}

TensorShape shape_of(std::initializer_list<uint32_t> dims) {
    TensorShape s;
    std::memset(&s, 0, sizeof s);
    for (uint32_t d : dims) s.dims[s.dim_num++] = d;
    return s;
}

// An operator context over caller-owned buffers and attribute values.
class Context {
public:
    Context(uint32_t inputs, uint32_t attrs) {
        qv_kel_custom_create_handle(&h);
        qv_kel_custom_set_inputs_num(h, inputs);
        qv_kel_custom_set_outputs_num(h, 1);
        if (attrs > 0) qv_kel_custom_set_attrs_num(h, attrs);
    }
    ~Context() { qv_kel_custom_destory_handle(&h); }
    void input(uint32_t i, const TensorShape &s, Floats &d) {
        qv_kel_custom_set_input_by_index(h, i, NPU_DTYPE_FLOAT32, NPU_FORMAT_NCHW, &s, d.data(), d.size() * 4, 0);
    }
    void output(const TensorShape &s, Floats &d, uint32_t format = NPU_FORMAT_NCHW) {
        qv_kel_custom_set_output_by_index(h, 0, NPU_DTYPE_FLOAT32, format, &s, d.data(), d.size() * 4);
    }
    void ints(uint32_t i, const char *name, std::vector<int64_t> v) {
        keep_.push_back(v);
        qv_kel_custom_set_attr_by_index(h, i, name, 0, NPU_ATTR_INTS, keep_.back().data(), 8 * v.size());
    }
    void int1(uint32_t i, const char *name, int64_t v) {
        keep_.push_back({v});
        qv_kel_custom_set_attr_by_index(h, i, name, 0, NPU_ATTR_INT, keep_.back().data(), 8);
    }
    void str(uint32_t i, const char *name, const char *v) {
        qv_kel_custom_set_attr_by_index(h, i, name, 0, NPU_ATTR_STRING, const_cast<char *>(v), std::strlen(v));
    }
    OperatorContext *h = nullptr;

private:
    std::vector<std::vector<int64_t>> keep_;
    Context(const Context &) = delete;
    Context &operator=(const Context &) = delete;
};

struct Row {
    std::string workload;
    double gflop = 0;
    double fast_ms = 0, literal_ms = 0;
    std::map<std::string, double> peers;
    bool match = false;
    std::string target_peer;
    double target_ratio = 0;
};

// ------------------------------------------------------------------ convs ----

struct ConvShape {
    const char *name;
    uint32_t N, C, H, W, M, kh, kw, s, p, group;
    bool transpose;
    const char *target_peer;
};

uint32_t conv_out(const ConvShape &c, uint32_t in) {
    if (c.transpose) return (in - 1) * c.s - 2 * c.p + c.kh;
    return (in + 2 * c.p - c.kh) / c.s + 1;
}

#ifdef NPUCPU_BENCH_DNNL
// oneDNN on the same problem: `plain` uses NCHW source and destination (the
// weights in the library's preferred layout, reordered once, untimed);
// otherwise every tensor takes the library's preferred (blocked) layout and
// the reorders are not timed.
double dnnl_conv_ms(const ConvShape &c, const Floats &x, const Floats &w, const Floats &b, bool plain) {
    using namespace dnnl;
    using tag = memory::format_tag;
    using dt = memory::data_type;
    engine eng(engine::kind::cpu, 0);
    stream st(eng);
    const memory::dim OH = conv_out(c, c.H), OW = conv_out(c, c.W);
    const memory::dims src_d = {c.N, c.C, c.H, c.W};
    const memory::dims dst_d = {c.N, c.M, OH, OW};
    memory::dims w_d;
    if (c.group > 1) {
        w_d = {c.group, c.M / c.group, c.C / c.group, c.kh, c.kw};
    } else {
        w_d = c.transpose ? memory::dims{c.M, c.C, c.kh, c.kw} : memory::dims{c.M, c.C, c.kh, c.kw};
    }
    const memory::dims bias_d = {c.M};
    const memory::dims strides = {c.s, c.s};
    const memory::dims pads = {c.p, c.p};
    auto src_md = memory::desc(src_d, dt::f32, plain ? tag::nchw : tag::any);
    auto dst_md = memory::desc(dst_d, dt::f32, plain ? tag::nchw : tag::any);
    auto w_md = memory::desc(w_d, dt::f32, tag::any);
    auto b_md = memory::desc(bias_d, dt::f32, tag::x);
    primitive prim;
    memory::desc src_pd, w_pd, dst_pd;
    if (c.transpose) {
        auto d = deconvolution_forward::desc(prop_kind::forward_inference, algorithm::deconvolution_direct, src_md,
                                             w_md, b_md, dst_md, strides, pads, pads);
        auto pd = deconvolution_forward::primitive_desc(d, eng);
        prim = deconvolution_forward(pd);
        src_pd = pd.src_desc();
        w_pd = pd.weights_desc();
        dst_pd = pd.dst_desc();
    } else {
        auto d = convolution_forward::desc(prop_kind::forward_inference, algorithm::convolution_direct, src_md,
                                           w_md, b_md, dst_md, strides, pads, pads);
        auto pd = convolution_forward::primitive_desc(d, eng);
        prim = convolution_forward(pd);
        src_pd = pd.src_desc();
        w_pd = pd.weights_desc();
        dst_pd = pd.dst_desc();
    }
    // User memories in plain layouts (oneDNN deconvolution weights are
    // [out, in, kh, kw] in its own convention; values do not matter here).
    memory src_user({src_d, dt::f32, tag::nchw}, eng, const_cast<float *>(x.data()));
    memory w_user({w_d, dt::f32, c.group > 1 ? tag::goihw : tag::oihw}, eng, const_cast<float *>(w.data()));
    memory b_mem({bias_d, dt::f32, tag::x}, eng, const_cast<float *>(b.data()));
    memory src_mem(src_pd, eng), w_mem(w_pd, eng), dst_mem(dst_pd, eng);
    reorder(src_user, src_mem).execute(st, src_user, src_mem);
    reorder(w_user, w_mem).execute(st, w_user, w_mem);
    st.wait();
    std::unordered_map<int, memory> args = {
        {DNNL_ARG_SRC, src_mem}, {DNNL_ARG_WEIGHTS, w_mem}, {DNNL_ARG_BIAS, b_mem}, {DNNL_ARG_DST, dst_mem}};
    return median_ms([&] {
        prim.execute(st, args);
        st.wait();
    });
}

double dnnl_matmul_ms(uint32_t n, const Floats &a, const Floats &b, Floats &c) {
    using namespace dnnl;
    using tag = memory::format_tag;
    using dt = memory::data_type;
    engine eng(engine::kind::cpu, 0);
    stream st(eng);
    const memory::dims d = {n, n};
    auto md = memory::desc(d, dt::f32, tag::ab);
    auto pd = dnnl::matmul::primitive_desc(dnnl::matmul::desc(md, md, md), eng);
    dnnl::matmul prim(pd);
    memory am(md, eng, const_cast<float *>(a.data())), bm(md, eng, const_cast<float *>(b.data())),
        cm(md, eng, c.data());
    std::unordered_map<int, memory> args = {{DNNL_ARG_SRC, am}, {DNNL_ARG_WEIGHTS, bm}, {DNNL_ARG_DST, cm}};
    return median_ms([&] {
        prim.execute(st, args);
        st.wait();
    });
}
#endif

Row bench_conv(const ConvShape &c) {
    Row r;
    r.workload = c.name;
    r.target_peer = c.target_peer;
    r.target_ratio = 1.0;
    const uint32_t OH = conv_out(c, c.H), OW = conv_out(c, c.W);
    const double macs = c.transpose ? double(c.N) * c.C * c.H * c.W * (c.M / c.group) * c.kh * c.kw
                                    : double(c.N) * c.M * OH * OW * (c.C / c.group) * c.kh * c.kw;
    r.gflop = 2.0 * macs / 1e9;
    Floats x = random_values(size_t{c.N} * c.C * c.H * c.W, 1);
    const size_t wn = c.transpose ? size_t{c.C} * (c.M / c.group) * c.kh * c.kw
                                  : size_t{c.M} * (c.C / c.group) * c.kh * c.kw;
    Floats w = random_values(wn, 2);
    Floats b = random_values(c.M, 3);
    Floats y(size_t{c.N} * c.M * OH * OW);
    Context ctx(3, 6);
    ctx.input(0, shape_of({c.N, c.C, c.H, c.W}), x);
    if (c.transpose) {
        ctx.input(1, shape_of({c.C, c.M / c.group, c.kh, c.kw}), w);
    } else {
        ctx.input(1, shape_of({c.M, c.C / c.group, c.kh, c.kw}), w);
    }
    ctx.input(2, shape_of({c.M}), b);
    ctx.ints(0, "strides", {c.s, c.s});
    ctx.ints(1, "pads", {c.p, c.p, c.p, c.p});
    ctx.ints(2, "dilations", {1, 1});
    ctx.ints(3, "kernel_shape", {c.kh, c.kw});
    ctx.int1(4, "group", c.group);
    ctx.str(5, "auto_pad", "NOTSET");
    ctx.output(shape_of({c.N, c.M, OH, OW}), y);
    auto run = [&] { c.transpose ? conv_transpose_compute(ctx.h) : conv_compute(ctx.h); };
    npucpu::testing::clear_forced_isa();
    r.fast_ms = median_ms(run);
    const Floats fast = y;
    npucpu::testing::force_isa(npucpu::Isa::Literal);
    r.literal_ms = literal_ms(run);
    npucpu::testing::clear_forced_isa();
    r.match = std::memcmp(fast.data(), y.data(), y.size() * 4) == 0;
#ifdef NPUCPU_BENCH_DNNL
    if (!g_fast_only) r.peers["onednn"] = dnnl_conv_ms(c, x, w, b, true);
    if (!g_fast_only) r.peers["onednn_blocked"] = dnnl_conv_ms(c, x, w, b, false);
#endif
    return r;
}

// ------------------------------------------------------------ gemm/matmul ----

Row bench_gemm(uint32_t n) {
    Row r;
    r.workload = "gemm " + std::to_string(n);
    r.target_peer = "openblas";
    r.target_ratio = 1.0;
    r.gflop = 2.0 * n * n * double(n) / 1e9;
    Floats a = random_values(size_t{n} * n, 4), b = random_values(size_t{n} * n, 5), y(size_t{n} * n);
    Context ctx(2, 2);
    ctx.input(0, shape_of({n, n}), a);
    ctx.input(1, shape_of({n, n}), b);
    ctx.int1(0, "transA", 0);
    ctx.int1(1, "transB", 0);
    ctx.output(shape_of({n, n}), y, NPU_FORMAT_MATRIX);
    auto run = [&] { gemm_compute(ctx.h); };
    npucpu::testing::clear_forced_isa();
    r.fast_ms = median_ms(run);
    const Floats fast = y;
    npucpu::testing::force_isa(npucpu::Isa::Literal);
    r.literal_ms = literal_ms(run);
    npucpu::testing::clear_forced_isa();
    r.match = std::memcmp(fast.data(), y.data(), y.size() * 4) == 0;
    Floats c(size_t{n} * n);
#ifdef NPUCPU_BENCH_OPENBLAS
    openblas_set_num_threads(1);
    r.peers["openblas"] = median_ms([&] {
        cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, n, n, n, 1.0f, a.data(), n, b.data(), n, 0.0f,
                    c.data(), n);
    });
#endif
#ifdef NPUCPU_BENCH_DNNL
    r.peers["onednn"] = dnnl_matmul_ms(n, a, b, c);
#endif
    return r;
}

Row bench_matmul(uint32_t n) {
    Row r;
    r.workload = "matmul " + std::to_string(n);
    r.target_peer = "literal";
    r.target_ratio = 20.0;
    r.gflop = 2.0 * n * n * double(n) / 1e9;
    // Integer-valued operands (the operator truncates them).
    Floats a = random_values(size_t{n} * n, 6, -8.0f, 8.0f), b = random_values(size_t{n} * n, 7, -8.0f, 8.0f);
    Floats y(size_t{n} * n);
    Context ctx(2, 0);
    ctx.input(0, shape_of({n, n}), a);
    ctx.input(1, shape_of({n, n}), b);
    ctx.output(shape_of({n, n}), y);
    auto run = [&] { matmul_compute(ctx.h); };
    npucpu::testing::clear_forced_isa();
    r.fast_ms = median_ms(run);
    const Floats fast = y;
    npucpu::testing::force_isa(npucpu::Isa::Literal);
    r.literal_ms = literal_ms(run);
    npucpu::testing::clear_forced_isa();
    r.match = std::memcmp(fast.data(), y.data(), y.size() * 4) == 0;
#ifdef NPUCPU_BENCH_OPENBLAS
    Floats c(size_t{n} * n);
    openblas_set_num_threads(1);
    r.peers["openblas"] = median_ms([&] {
        cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, n, n, n, 1.0f, a.data(), n, b.data(), n, 0.0f,
                    c.data(), n);
    });
#endif
    return r;
}

const char *isa_name(npucpu::Isa l) {
    switch (l) {
        case npucpu::Isa::Avx512: return "avx512";
        case npucpu::Isa::Avx2: return "avx2";
        case npucpu::Isa::Portable: return "portable";
        default: return "literal";
    }
}

}  // namespace

int main(int argc, char **argv) {
    const char *json = nullptr;
    std::string only;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--json") == 0 && i + 1 < argc) json = argv[++i];
        else if (std::strcmp(argv[i], "--only") == 0 && i + 1 < argc) only = argv[++i];
        else if (std::strcmp(argv[i], "--fast-only") == 0) g_fast_only = true;
    }
    const ConvShape convs[] = {
        {"conv 3x3 C64 56x56 M64", 1, 64, 56, 56, 64, 3, 3, 1, 1, 1, false, "onednn"},
        {"conv 7x7 s2 C3 224x224 M64", 1, 3, 224, 224, 64, 7, 7, 2, 3, 1, false, "onednn"},
        {"conv 1x1 C256 14x14 M256", 1, 256, 14, 14, 256, 1, 1, 1, 0, 1, false, "onednn"},
        {"depthwise 3x3 C128 56x56", 1, 128, 56, 56, 128, 3, 3, 1, 1, 128, false, "onednn_blocked"},
        {"conv_transpose 4x4 s2 C64 56x56 M32", 1, 64, 56, 56, 32, 4, 4, 2, 1, 1, true, "torch"},
    };
    std::vector<Row> rows;
    auto want = [&](const std::string &name) { return only.empty() || name.find(only) != std::string::npos; };
    for (const auto &c : convs)
        if (want(c.name)) rows.push_back(bench_conv(c));
    for (uint32_t n : {512u, 1024u})
        if (want("gemm " + std::to_string(n))) rows.push_back(bench_gemm(n));
    if (want("matmul 512")) rows.push_back(bench_matmul(512));

    std::printf("npucpu fast path: %s\n", isa_name(npucpu::active_isa()));
    std::printf("%-38s %10s %8s %11s %9s  %s\n", "workload", "fast ms", "GFLOP/s", "literal ms", "match", "peers (ms)");
    for (const Row &r : rows) {
        std::printf("%-38s %10.3f %8.1f %11.1f %9s ", r.workload.c_str(), r.fast_ms, r.gflop / r.fast_ms * 1e3,
                    r.literal_ms, r.match ? "yes" : "NO");
        for (const auto &p : r.peers) std::printf(" %s %.3f (x%.2f)", p.first.c_str(), p.second, p.second / r.fast_ms);
        std::printf("\n");
    }
    if (json != nullptr) {
        FILE *f = std::fopen(json, "w");
        if (f == nullptr) return 1;
        std::fprintf(f, "{\"isa\": \"%s\", \"rows\": [", isa_name(npucpu::active_isa()));
        for (size_t i = 0; i < rows.size(); ++i) {
            const Row &r = rows[i];
            std::fprintf(f, "%s\n  {\"workload\": \"%s\", \"gflop\": %.6f, \"fast_ms\": %.4f, \"literal_ms\": %.3f, \"peers\": {",
                         i ? "," : "", r.workload.c_str(), r.gflop, r.fast_ms, r.literal_ms);
            size_t k = 0;
            for (const auto &p : r.peers) std::fprintf(f, "%s\"%s\": %.4f", k++ ? ", " : "", p.first.c_str(), p.second);
            std::fprintf(f, "}, \"match\": %s, \"target\": {\"peer\": \"%s\", \"ratio\": %.1f}}", r.match ? "true" : "false",
                         r.target_peer.c_str(), r.target_ratio);
        }
        std::fprintf(f, "\n]}\n");
        std::fclose(f);
    }
    return 0;
}
