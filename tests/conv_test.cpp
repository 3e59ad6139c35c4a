// conv: shapes, support test, messages, guards, and a bitwise comparison
// with a reference convolution that follows the same fused chain.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "npucpu.h"
#include "test_util.h"

namespace {

using npucpu_test::capture_stderr;
using npucpu_test::Ctx;
using npucpu_test::dims_of;
using npucpu_test::mask_error_lines;
using npucpu_test::shape_of;

using Dims = std::vector<uint32_t>;
using Floats = std::vector<float>;
using Ints = std::vector<int64_t>;

constexpr float kSentinel = -7.25f;
const std::string kPrefix = "[E] [custom] [conv_ops_impl:L] ";

uint32_t bits(float f) {
    uint32_t u;
    std::memcpy(&u, &f, sizeof u);
    return u;
}

void expect_bits(const Floats &expected, const Floats &actual, const std::string &what) {
    ASSERT_EQ(expected.size(), actual.size()) << what;
    for (size_t i = 0; i < expected.size(); ++i) {
        ASSERT_EQ(bits(expected[i]), bits(actual[i]))
            << what << ": index " << i << " expected " << expected[i] << " got " << actual[i];
    }
}

// One invocation of the operator: inputs, attributes, and what came back.
struct ConvCase {
    Dims x;
    Floats xd;
    Dims w;
    Floats wd;
    Floats bias;  // empty: two inputs
    std::vector<std::pair<std::string, Ints>> ints;
    bool has_group = false;
    int64_t group = 1;
    std::string auto_pad = "NOTSET";  // "-" leaves the attribute out
    uint32_t dtype = NPU_DTYPE_FLOAT32;
    Dims force_out;  // when set: no infershape, an output of these dims
};

struct Result {
    uint32_t infer = 0;
    Dims out_dims;
    uint32_t status = 0;
    Floats out;
    std::string err;  // stderr of both stages, line numbers masked
};

// Runs infershape, then (when it succeeded) compute on an output allocated
// from the inferred shape and filled with a sentinel.
Result run(ConvCase s, bool do_compute = true) {
    const uint32_t inputs = s.bias.empty() ? 2 : 3;
    const uint32_t attrs =
        static_cast<uint32_t>(s.ints.size()) + (s.has_group ? 1 : 0) + (s.auto_pad == "-" ? 0 : 1);
    Ctx ctx(inputs, 1, attrs);
    ctx.input(0, shape_of(s.x), s.xd.data(), s.xd.size() * 4, s.dtype);
    ctx.input(1, shape_of(s.w), s.wd);
    Dims bias_dims = {static_cast<uint32_t>(s.bias.size())};
    if (!s.bias.empty()) ctx.input(2, shape_of(bias_dims), s.bias);
    uint32_t a = 0;
    for (auto &kv : s.ints) ctx.attr_ints(a++, kv.first.c_str(), kv.second);
    if (s.has_group) ctx.attr_int(a++, "group", s.group);
    if (s.auto_pad != "-") ctx.attr_string(a++, "auto_pad", s.auto_pad);

    Result r;
    if (!s.force_out.empty()) {
        const TensorShape y = shape_of(s.force_out);
        qv_kel_custom_set_output_by_index(ctx.h, 0, NPU_DTYPE_FLOAT32, NPU_FORMAT_NCHW, &y, nullptr, 0);
    } else {
        r.err = capture_stderr([&] { r.infer = conv_infershape(ctx.h); });
    }
    r.out_dims = dims_of(ctx.output_shape(0));
    if (r.infer == NPU_OK && do_compute) {
        ctx.alloc_output(0, kSentinel);
        r.err += capture_stderr([&] { r.status = conv_compute(ctx.h); });
        r.out = ctx.output(0);
    }
    r.err = mask_error_lines(r.err);
    return r;
}

Floats iota(size_t n, float start = 1.0f) {
    Floats v(n);
    for (size_t i = 0; i < n; ++i) v[i] = start + static_cast<float>(i);
    return v;
}

// ---- Reference -------------------------------------------------------------

struct Geometry {
    uint32_t N, C, H, W, M, kh, kw, group;
    uint32_t sh, sw, dh, dw;
    uint32_t pads[4];  // top, left, bottom, right
};

// Per output value: fused multiply-adds over channel, dilated kernel row and
// column (dilation gaps and padding contribute zeros), from 0.0f; then
// 0.0f + sum, then + bias.
Floats reference_conv(const Geometry &g, const Floats &x, const Floats &w, const Floats &bias,
                      uint32_t *out_h, uint32_t *out_w) {
    const uint32_t kh_eff = (g.kh - 1) * g.dh + 1;
    const uint32_t kw_eff = (g.kw - 1) * g.dw + 1;
    const uint32_t oh = (g.H + g.pads[0] + g.pads[2] - kh_eff) / g.sh + 1;
    const uint32_t ow = (g.W + g.pads[1] + g.pads[3] - kw_eff) / g.sw + 1;
    const uint32_t cg = g.C / g.group;
    const uint32_t mg = g.M / g.group;
    Floats y(static_cast<size_t>(g.N) * g.M * oh * ow);
    for (uint32_t n = 0; n < g.N; ++n) {
        for (uint32_t m = 0; m < g.M; ++m) {
            const uint32_t grp = m / mg;
            for (uint32_t oy = 0; oy < oh; ++oy) {
                for (uint32_t ox = 0; ox < ow; ++ox) {
                    float sum = 0.0f;
                    for (uint32_t c = 0; c < cg; ++c) {
                        for (uint32_t r = 0; r < kh_eff; ++r) {
                            for (uint32_t q = 0; q < kw_eff; ++q) {
                                const int64_t iy = static_cast<int64_t>(oy) * g.sh + r - g.pads[0];
                                const int64_t ix = static_cast<int64_t>(ox) * g.sw + q - g.pads[1];
                                float xv = 0.0f;
                                if (iy >= 0 && iy < g.H && ix >= 0 && ix < g.W) {
                                    const size_t plane = static_cast<size_t>(n) * g.C + grp * cg + c;
                                    xv = x[(plane * g.H + iy) * g.W + ix];
                                }
                                float wv = 0.0f;
                                if (r % g.dh == 0 && q % g.dw == 0) {
                                    const size_t plane = static_cast<size_t>(m) * cg + c;
                                    wv = w[(plane * g.kh + r / g.dh) * g.kw + q / g.dw];
                                }
                                sum = std::fma(xv, wv, sum);
                            }
                        }
                    }
                    float v = 0.0f + sum;
                    if (!bias.empty()) v = v + bias[m];
                    y[((static_cast<size_t>(n) * g.M + m) * oh + oy) * ow + ox] = v;
                }
            }
        }
    }
    *out_h = oh;
    *out_w = ow;
    return y;
}

// Fixed-seed generator for the sweep.
struct Lcg {
    uint64_t s;
    uint32_t next() {
        s = s * 6364136223846793005ull + 1442695040888963407ull;
        return static_cast<uint32_t>(s >> 33);
    }
    uint32_t pick(uint32_t lo, uint32_t hi) { return lo + next() % (hi - lo + 1); }
    float value() { return static_cast<float>(static_cast<int32_t>(next() % 2001) - 1000) / 97.0f; }
};

ConvCase setup_of(const Geometry &g, const Floats &x, const Floats &w, const Floats &bias) {
    ConvCase s;
    s.x = {g.N, g.C, g.H, g.W};
    s.xd = x;
    s.w = {g.M, g.C / g.group, g.kh, g.kw};
    s.wd = w;
    s.bias = bias;
    s.ints = {{"strides", {g.sh, g.sw}},
              {"dilations", {g.dh, g.dw}},
              {"pads", {g.pads[0], g.pads[1], g.pads[2], g.pads[3]}},
              {"kernel_shape", {g.kh, g.kw}}};
    s.has_group = true;
    s.group = g.group;
    return s;
}

// ---- Tests -----------------------------------------------------------------

TEST(Conv, MatchesReferenceBitwiseOverSweep) {
    Lcg rng{12345};
    for (int t = 0; t < 400; ++t) {
        Geometry g{};
        g.group = rng.pick(1, 3);
        const bool depthwise = rng.pick(0, 4) == 0;
        const uint32_t cg = depthwise ? 1 : rng.pick(1, 3);
        g.C = cg * g.group;
        g.M = (depthwise ? 1 : rng.pick(1, 2)) * g.group;
        g.N = rng.pick(1, 2);
        g.kh = rng.pick(1, 3);
        g.kw = rng.pick(1, 3);
        g.dh = rng.pick(1, 3);
        g.dw = rng.pick(1, 3);
        g.sh = rng.pick(1, 3);
        g.sw = rng.pick(1, 3);
        for (uint32_t &p : g.pads) p = rng.pick(0, 2);
        const uint32_t kh_eff = (g.kh - 1) * g.dh + 1;
        const uint32_t kw_eff = (g.kw - 1) * g.dw + 1;
        g.H = rng.pick(kh_eff > g.pads[0] + g.pads[2] ? kh_eff - g.pads[0] - g.pads[2] : 1, 9);
        g.W = rng.pick(kw_eff > g.pads[1] + g.pads[3] ? kw_eff - g.pads[1] - g.pads[3] : 1, 9);
        if (g.H == 0) g.H = 1;
        if (g.W == 0) g.W = 1;
        Floats x(static_cast<size_t>(g.N) * g.C * g.H * g.W);
        Floats w(static_cast<size_t>(g.M) * cg * g.kh * g.kw);
        for (float &v : x) v = rng.value();
        for (float &v : w) v = rng.value();
        Floats bias;
        if (rng.pick(0, 1) == 1) {
            bias.resize(g.M);
            for (float &v : bias) v = rng.value();
        }
        // A few cases carry special values through the fused chain.
        if (t % 50 == 7) {
            x[0] = std::numeric_limits<float>::infinity();
            w[w.size() - 1] = -0.0f;
        }
        if (t % 50 == 19) x[x.size() / 2] = std::numeric_limits<float>::quiet_NaN();

        uint32_t oh = 0, ow = 0;
        const Floats expected = reference_conv(g, x, w, bias, &oh, &ow);
        const Result r = run(setup_of(g, x, w, bias));
        SCOPED_TRACE("case " + std::to_string(t));
        ASSERT_EQ(r.infer, NPU_OK);
        ASSERT_EQ(r.out_dims, (Dims{g.N, g.M, oh, ow}));
        ASSERT_EQ(r.status, NPU_OK);
        EXPECT_EQ(r.err, "");
        expect_bits(expected, r.out, "conv");
    }
}

ConvCase make(Dims x, Floats xd, Dims w, Floats wd, std::vector<std::pair<std::string, Ints>> ints = {}) {
    ConvCase s;
    s.x = std::move(x), s.xd = std::move(xd), s.w = std::move(w), s.wd = std::move(wd);
    s.ints = std::move(ints);
    return s;
}

TEST(Conv, DocumentedCases) {
    struct Case {
        const char *name;
        ConvCase setup;
        Dims out_dims;
        Floats out;
    };
    const Floats ones9(9, 1.0f), ones4(4, 1.0f);
    // Channels 0-1 go with filter 0, channels 2-3 with filter 1.
    ConvCase grouped = make({1, 4, 1, 1}, {1, 2, 10, 20}, {2, 2, 1, 1}, {1, 1, 1, 1});
    grouped.has_group = true, grouped.group = 2;
    ConvCase biased = make({1, 1, 2, 2}, {1, 2, 3, 4}, {2, 1, 1, 1}, {1, 2});
    biased.bias = {0.5f, -1.0f};
    // SAME_UPPER shapes the output, but compute pads with `pads` only.
    ConvCase same_upper =
        make({1, 1, 4, 4}, Floats(16, 1.0f), {1, 1, 3, 3}, ones9, {{"kernel_shape", {3, 3}}});
    same_upper.auto_pad = "SAME_UPPER";
    const Floats four_nines = {9, 9, 9, 9, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};

    const Case cases[] = {
        // Without kernel_shape the kernel is taken as 1x1 for the shape, while
        // compute uses the real 2x2 filter and fills the plane's start.
        {"kernel taken as 1x1", make({1, 1, 3, 3}, ones9, {1, 1, 2, 2}, ones4), {1, 1, 3, 3},
         {4, 4, 4, 4, 0, 0, 0, 0, 0}},
        {"kernel_shape given", make({1, 1, 3, 3}, ones9, {1, 1, 2, 2}, ones4, {{"kernel_shape", {2, 2}}}),
         {1, 1, 2, 2}, {4, 4, 4, 4}},
        {"group 2", grouped, {1, 2, 1, 1}, {3, 30}},
        {"bias per channel", biased, {1, 2, 2, 2}, {1.5f, 2.5f, 3.5f, 4.5f, 1, 3, 5, 7}},
        {"SAME_UPPER ignored by compute", same_upper, {1, 1, 4, 4}, four_nines},
        {"dims past the fourth are 1", make({1, 1, 2, 2, 1}, {1, 2, 3, 4}, {1, 1, 1, 1}, {3}),
         {1, 1, 2, 2, 1}, {3, 6, 9, 12}},
        // Negative pads crop; a negative left pad drops columns from the end.
        {"negative pads", make({1, 1, 3, 3}, iota(9), {1, 1, 1, 1}, {1}, {{"pads", {-1, -1, 0, 0}}}),
         {1, 1, 2, 2}, {4, 5, 7, 8}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        const Result r = run(c.setup);
        EXPECT_EQ(r.infer, NPU_OK);
        EXPECT_EQ(r.out_dims, c.out_dims);
        EXPECT_EQ(r.status, NPU_OK);
        EXPECT_EQ(r.out, c.out);
        EXPECT_EQ(r.err, "");
    }
}

TEST(Conv, InfershapeFailures) {
    struct Case {
        const char *name;
        std::string auto_pad;
        Ints strides;
        std::string err;
    };
    const Case cases[] = {
        {"auto_pad absent", "-", {1, 1},
         "[E] [custom] [matrix_ops:L] INVALID auto_pad_ mode  \n" + kPrefix + "Process auto_pad fail \n"},
        {"unknown mode", "SAME", {1, 1},
         "[E] [custom] [matrix_ops:L] INVALID auto_pad_ mode SAME \n" + kPrefix + "Process auto_pad fail \n"},
        {"VALID leaves data over", "VALID", {2, 2},
         "[E] [custom] [matrix_ops:L] Not support drop right data when auto_pad is VALID \n" + kPrefix +
             "Process auto_pad fail \n"},
        {"zero stride", "NOTSET", {0, 1}, kPrefix + "Process auto_pad fail \n"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        ConvCase s;
        s.x = {1, 1, 4, 4};
        s.xd = Floats(16, 1.0f);
        s.w = {1, 1, 1, 1};
        s.wd = Floats(1, 1.0f);
        s.auto_pad = c.auto_pad;
        s.ints = {{"strides", c.strides}};
        const Result r = run(s);
        EXPECT_EQ(r.infer, NPU_FAIL);
        EXPECT_EQ(r.err, c.err);
        EXPECT_EQ(r.out_dims, Dims{});
    }
}

TEST(Conv, CheckSupported) {
    struct Case {
        const char *name;
        uint32_t dtype;
        Dims x;
        Dims w;
        int64_t group;
        uint32_t expected;
        std::string err;
    };
    const Case cases[] = {
        {"float32", NPU_DTYPE_FLOAT32, {1, 2, 8, 8}, {2, 2, 3, 3}, 1, 1, ""},
        {"float64", NPU_DTYPE_FLOAT64, {1, 2, 8, 8}, {2, 2, 3, 3}, 1, 0, ""},
        // 65535 x 65537 positions of one value: exactly UINT32_MAX elements.
        {"column matrix of UINT32_MAX", NPU_DTYPE_FLOAT32, {1, 1, 65535, 65537}, {1, 1, 1, 1}, 1, 1, ""},
        {"column matrix past UINT32_MAX", NPU_DTYPE_FLOAT32, {1, 2, 65535, 65537}, {1, 2, 1, 1}, 1, 0,
         kPrefix + "Not support shape elems multiply size exceeds UINT32_MAX \n"},
        {"group 0 counts no channels", NPU_DTYPE_FLOAT32, {1, 2, 65535, 65537}, {1, 2, 1, 1}, 0, 1, ""},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Ctx ctx(2, 1, 1);
        ctx.input(0, shape_of(c.x), nullptr, 0, c.dtype);
        ctx.input(1, shape_of(c.w), nullptr, 0);
        ctx.attr_int(0, "group", c.group);
        uint32_t got = 2;
        const std::string err = capture_stderr([&] { got = conv_check_supported(ctx.h); });
        EXPECT_EQ(got, c.expected);
        EXPECT_EQ(mask_error_lines(err), c.err);
    }
}

TEST(Conv, ComputeGuardsWriteNothing) {
    ConvCase base;
    base.x = {1, 4, 3, 3};
    base.xd = Floats(36, 1.0f);
    base.w = {2, 4, 1, 1};
    base.wd = Floats(8, 1.0f);
    struct Case {
        const char *name;
        ConvCase setup;
    };
    std::vector<Case> cases;
    auto with = [&](const char *name, auto change) {
        ConvCase s = base;
        change(s);
        cases.push_back({name, s});
    };
    // infershape refuses a zero stride itself: these outputs are attached directly.
    with("stride 0", [](ConvCase &s) { s.ints = {{"strides", {1, 0}}}, s.force_out = {1, 2, 3, 3}; });
    with("stride -1", [](ConvCase &s) { s.ints = {{"strides", {-1, 1}}}; });
    with("stride 2^32", [](ConvCase &s) {
        s.ints = {{"strides", {1, int64_t{1} << 32}}}, s.force_out = {1, 2, 3, 3};
    });
    with("group 0", [](ConvCase &s) { s.has_group = true, s.group = 0; });
    with("group -2", [](ConvCase &s) { s.has_group = true, s.group = -2; });
    with("channels not divisible", [](ConvCase &s) {
        s.has_group = true, s.group = 3;
        s.w = {3, 1, 1, 1};
        s.wd = Floats(3, 1.0f);
    });
    with("filters not divisible", [](ConvCase &s) {
        s.has_group = true, s.group = 2;
        s.w = {3, 2, 1, 1};
        s.wd = Floats(6, 1.0f);
    });
    with("filter channels x group not C", [](ConvCase &s) {
        s.has_group = true, s.group = 2;
        s.w = {2, 1, 1, 1};
        s.wd = Floats(2, 1.0f);
    });
    // kernel_shape 3x3 infers a 1x1 plane; the real 1x1 filter gives 3x3.
    with("result plane larger than the output plane",
         [](ConvCase &s) { s.ints = {{"kernel_shape", {3, 3}}}; });
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        const Result r = run(c.setup);
        ASSERT_EQ(r.infer, NPU_OK);
        EXPECT_EQ(r.status, NPU_ERR_INVALID_ARG);
        EXPECT_EQ(r.out, Floats(r.out.size(), kSentinel));
        EXPECT_EQ(r.err, "");
    }
}

TEST(Conv, ComputeMissingBuffersAndSplitFailure) {
    Floats x = Floats(4, 1.0f), w = Floats(1, 1.0f), y(4, kSentinel);
    struct Case {
        const char *name;
        Dims x_dims;
        bool x_buf;
        bool y_buf;
        uint32_t status;
        std::string err;
    };
    const Case cases[] = {
        {"input buffer absent", {1, 1, 2, 2}, false, true, NPU_ERR_INVALID_ARG, ""},
        {"output buffer absent", {1, 1, 2, 2}, true, false, NPU_ERR_INVALID_ARG, ""},
        {"input of one dim", {4}, true, true, NPU_FAIL,
         "[E] [custom] [tensor_ops:L] Split axis  is great than input shape  \n" + kPrefix +
             "Split input fail \n"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Ctx ctx(2, 1, 0);
        ctx.input(0, shape_of(c.x_dims), c.x_buf ? x.data() : nullptr, 16);
        ctx.input(1, shape_of({1, 1, 1, 1}), w);
        std::fill(y.begin(), y.end(), kSentinel);
        TensorShape ys = shape_of({1, 1, 2, 2});
        qv_kel_custom_set_output_by_index(ctx.h, 0, NPU_DTYPE_FLOAT32, NPU_FORMAT_NCHW, &ys,
                                          c.y_buf ? y.data() : nullptr, 16);
        uint32_t status = 0;
        const std::string err = capture_stderr([&] { status = conv_compute(ctx.h); });
        EXPECT_EQ(status, c.status);
        EXPECT_EQ(mask_error_lines(err), c.err);
    }
}

TEST(Conv, DoDilationConvSpreadsTapsAndResetsZeroDilations) {
    struct Case {
        uint32_t dilations[2];
        uint32_t after[2];
        Dims dims;
        Floats data;
    };
    Floats f = {1, 2, 3, 4, 5, 6};  // [1, 1, 2, 3]
    const Case cases[] = {
        {{0, 0}, {1, 1}, {1, 1, 2, 3}, {1, 2, 3, 4, 5, 6}},
        {{2, 1}, {2, 1}, {1, 1, 3, 3}, {1, 2, 3, 0, 0, 0, 4, 5, 6}},
        {{1, 2}, {1, 2}, {1, 1, 2, 5}, {1, 0, 2, 0, 3, 4, 0, 5, 0, 6}},
        {{0, 3}, {0, 3}, {1, 1, 1, 7}, {4, 0, 0, 5, 0, 0, 6}},  // rows collapse onto row 0
    };
    for (const Case &c : cases) {
        Tensor t{};
        t.shape = shape_of({1, 1, 2, 3});
        t.data = f.data();
        uint32_t d[2] = {c.dilations[0], c.dilations[1]};
        Tensor *r = do_dilation_conv(&t, d);
        EXPECT_EQ(d[0], c.after[0]);
        EXPECT_EQ(d[1], c.after[1]);
        EXPECT_EQ(dims_of(r->shape), c.dims);
        EXPECT_EQ(Floats(r->data, r->data + c.data.size()), c.data);
        free_tensor(r);
    }
}

TEST(Conv, ComputeOneGroupAccumulatesAndAddsBias) {
    // 1x1x2x2 input, one 1x1x1x1 filter of 2, pads 1 on top only, stride 1.
    Floats x = {1, 2, 3, 4}, w = {2}, b = {0.25f};
    Floats with_bias(6, 100.0f), without(6, 100.0f);
    Tensor in{}, filt{}, bias{}, out_b{}, out_n{};
    in.shape = shape_of({1, 1, 2, 2});
    in.data = x.data();
    filt.shape = shape_of({1, 1, 1, 1});
    filt.data = w.data();
    bias.shape = shape_of({1});
    bias.data = b.data();
    out_b.shape = shape_of({1, 1, 3, 2});
    out_b.data = with_bias.data();
    out_n = out_b;
    out_n.data = without.data();
    uint32_t dil[2] = {1, 1};
    const uint32_t pads[4] = {1, 0, 0, 0};
    const uint32_t strides[2] = {1, 1};
    // Without a bias gemm adds into the output; with one the output is replaced.
    EXPECT_EQ(compute_one_group_conv(&in, &filt, nullptr, &out_n, dil, pads, strides), NPU_OK);
    EXPECT_EQ(without, (Floats{100, 100, 102, 104, 106, 108}));
    EXPECT_EQ(compute_one_group_conv(&in, &filt, &bias, &out_b, dil, pads, strides), NPU_OK);
    EXPECT_EQ(with_bias, (Floats{0.25f, 0.25f, 2.25f, 4.25f, 6.25f, 8.25f}));
}

}  // namespace
