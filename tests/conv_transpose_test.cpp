// conv_transpose: support test, ordered infershape checks and messages, the
// crossed kernel axes and output padding, output_shape, the operator's
// auto-pad routine, zero filling, guards, and a bitwise comparison with a
// reference transposed convolution that follows the same fused chain.
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
const std::string kPrefix = "[E] [custom] [conv_transpose_ops_impl:L] ";

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

struct TransposeCase {
    Dims x;
    Floats xd;
    Dims w;
    Floats wd;
    Floats bias;  // empty: two inputs
    std::vector<std::pair<std::string, Ints>> ints;
    bool has_group = false;
    int64_t group = 1;
    std::string auto_pad = "NOTSET";  // "-" leaves the attribute out
    uint32_t x_dtype = NPU_DTYPE_FLOAT32;
    uint32_t w_dtype = NPU_DTYPE_FLOAT32;
    Dims force_out;  // when set: no infershape, an output of these dims
};

struct Result {
    uint32_t infer = 0;
    Dims out_dims;
    uint32_t status = 0;
    Floats out;
    std::string err;  // stderr of both stages, line numbers masked
};

Result run(TransposeCase s, bool do_compute = true) {
    const uint32_t inputs = s.bias.empty() ? 2 : 3;
    const uint32_t attrs = static_cast<uint32_t>(s.ints.size()) + (s.has_group ? 1 : 0) +
                           (s.auto_pad == "-" ? 0 : 1);
    Ctx ctx(inputs, 1, attrs);
    ctx.input(0, shape_of(s.x), s.xd.data(), s.xd.size() * 4, s.x_dtype);
    ctx.input(1, shape_of(s.w), s.wd.data(), s.wd.size() * 4, s.w_dtype);
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
        r.err = capture_stderr([&] { r.infer = conv_transpose_infershape(ctx.h); });
    }
    r.out_dims = dims_of(ctx.output_shape(0));
    if (r.infer == NPU_OK && do_compute) {
        ctx.alloc_output(0, kSentinel);
        r.err += capture_stderr([&] { r.status = conv_transpose_compute(ctx.h); });
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
    uint32_t op;       // output padding on both axes
    uint32_t pads[4];  // top, left, bottom, right, each at most (k - 1) * d
};

// The input spread stride apart and padded by (k - 1) * d - pad (+ output
// padding at the end), convolved at unit stride with each output channel's
// dilated filter rotated by 180 degrees: fused multiply-adds over input
// channel, kernel row and column from 0.0f; then 0.0f + sum, then + bias.
Floats reference_transpose(const Geometry &g, const Floats &x, const Floats &w, const Floats &bias,
                           uint32_t *out_h, uint32_t *out_w) {
    const int64_t kh_eff = (g.kh - 1) * g.dh + 1;
    const int64_t kw_eff = (g.kw - 1) * g.dw + 1;
    const int64_t hz = (g.H - 1) * static_cast<int64_t>(g.sh) + 1;
    const int64_t wz = (g.W - 1) * static_cast<int64_t>(g.sw) + 1;
    const int64_t top = kh_eff - 1 - g.pads[0];
    const int64_t left = kw_eff - 1 - g.pads[1];
    const int64_t hp = hz + top + (kh_eff - 1 - g.pads[2] + g.op);
    const int64_t wp = wz + left + (kw_eff - 1 - g.pads[3] + g.op);
    const uint32_t oh = static_cast<uint32_t>(hp - kh_eff + 1);
    const uint32_t ow = static_cast<uint32_t>(wp - kw_eff + 1);
    const uint32_t cg = g.C / g.group;
    const uint32_t mg = g.M / g.group;
    Floats y(static_cast<size_t>(g.N) * g.M * oh * ow);
    for (uint32_t n = 0; n < g.N; ++n) {
        for (uint32_t m = 0; m < g.M; ++m) {
            const uint32_t grp = m / mg;
            const uint32_t k = m % mg;
            for (uint32_t oy = 0; oy < oh; ++oy) {
                for (uint32_t ox = 0; ox < ow; ++ox) {
                    float sum = 0.0f;
                    for (uint32_t c = 0; c < cg; ++c) {
                        const size_t ci = static_cast<size_t>(grp) * cg + c;
                        for (int64_t r = 0; r < kh_eff; ++r) {
                            for (int64_t q = 0; q < kw_eff; ++q) {
                                const int64_t zy = oy + r - top;
                                const int64_t zx = ox + q - left;
                                float xv = 0.0f;
                                const bool inside = zy >= 0 && zy < hz && zx >= 0 && zx < wz;
                                if (inside && zy % g.sh == 0 && zx % g.sw == 0) {
                                    xv = x[((n * g.C + ci) * g.H + zy / g.sh) * g.W + zx / g.sw];
                                }
                                const int64_t rr = kh_eff - 1 - r;
                                const int64_t qq = kw_eff - 1 - q;
                                float wv = 0.0f;
                                if (rr % g.dh == 0 && qq % g.dw == 0) {
                                    wv = w[((ci * mg + k) * g.kh + rr / g.dh) * g.kw + qq / g.dw];
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

struct Lcg {
    uint64_t s;
    uint32_t next() {
        s = s * 6364136223846793005ull + 1442695040888963407ull;
        return static_cast<uint32_t>(s >> 33);
    }
    uint32_t pick(uint32_t lo, uint32_t hi) { return lo + next() % (hi - lo + 1); }
    float value() { return static_cast<float>(static_cast<int32_t>(next() % 2001) - 1000) / 89.0f; }
};

TransposeCase case_of(const Geometry &g, const Floats &x, const Floats &w, const Floats &bias) {
    TransposeCase s;
    s.x = {g.N, g.C, g.H, g.W};
    s.xd = x;
    s.w = {g.C, g.M / g.group, g.kh, g.kw};
    s.wd = w;
    s.bias = bias;
    s.ints = {{"strides", {g.sh, g.sw}},
              {"dilations", {g.dh, g.dw}},
              {"output_padding", {g.op, g.op}},
              {"pads", {g.pads[0], g.pads[1], g.pads[2], g.pads[3]}},
              {"kernel_shape", {g.kh, g.kw}}};
    s.has_group = true;
    s.group = g.group;
    return s;
}

// ---- Tests -----------------------------------------------------------------

TEST(ConvTranspose, MatchesReferenceBitwiseOverSweep) {
    Lcg rng{2024};
    for (int t = 0; t < 300; ++t) {
        Geometry g{};
        g.group = rng.pick(1, 3);
        const bool depthwise = rng.pick(0, 4) == 0;
        const uint32_t cg = depthwise ? 1 : rng.pick(1, 3);
        g.C = cg * g.group;
        g.M = (depthwise ? 1 : rng.pick(1, 2)) * g.group;
        g.N = rng.pick(1, 2);
        g.H = rng.pick(1, 5);
        g.W = rng.pick(1, 5);
        g.kh = rng.pick(1, 3);
        g.kw = rng.pick(1, 3);
        // infershape wants output_padding below stride / dilation, so the
        // dilation never exceeds the stride.
        g.sh = rng.pick(1, 3);
        g.sw = rng.pick(1, 3);
        g.dh = rng.pick(1, std::min(2u, g.sh));
        g.dw = rng.pick(1, std::min(2u, g.sw));
        const uint32_t op_limit = std::min(g.sh / g.dh, g.sw / g.dw);
        g.op = op_limit > 0 ? rng.pick(0, op_limit - 1) : 0;
        g.pads[0] = rng.pick(0, (g.kh - 1) * g.dh);
        g.pads[2] = rng.pick(0, (g.kh - 1) * g.dh);
        g.pads[1] = rng.pick(0, (g.kw - 1) * g.dw);
        g.pads[3] = rng.pick(0, (g.kw - 1) * g.dw);
        // Keep at least one output row and column.
        while (g.pads[0] + g.pads[2] > (g.H - 1) * g.sh + (g.kh - 1) * g.dh) {
            --(g.pads[0] > 0 ? g.pads[0] : g.pads[2]);
        }
        while (g.pads[1] + g.pads[3] > (g.W - 1) * g.sw + (g.kw - 1) * g.dw) {
            --(g.pads[1] > 0 ? g.pads[1] : g.pads[3]);
        }
        Floats x(static_cast<size_t>(g.N) * g.C * g.H * g.W);
        Floats w(static_cast<size_t>(g.C) * (g.M / g.group) * g.kh * g.kw);
        for (float &v : x) v = rng.value();
        for (float &v : w) v = rng.value();
        Floats bias;
        if (rng.pick(0, 1) == 1) {
            bias.resize(g.M);
            for (float &v : bias) v = rng.value();
        }
        if (t % 40 == 3) x[0] = std::numeric_limits<float>::infinity();
        if (t % 40 == 11) w[0] = std::numeric_limits<float>::quiet_NaN();

        uint32_t oh = 0, ow = 0;
        const Floats expected = reference_transpose(g, x, w, bias, &oh, &ow);
        const Result r = run(case_of(g, x, w, bias));
        SCOPED_TRACE("case " + std::to_string(t));
        ASSERT_EQ(r.infer, NPU_OK);
        ASSERT_EQ(r.out_dims, (Dims{g.N, g.M, oh, ow}));
        ASSERT_EQ(r.status, NPU_OK);
        EXPECT_EQ(r.err, "");
        expect_bits(expected, r.out, "conv_transpose");
    }
}

TEST(ConvTranspose, CheckSupported) {
    const struct {
        uint32_t x, w, expected;
    } cases[] = {{0, 0, 1}, {2, 4, 1}, {6, 4, 1}, {2, 0, 0}, {0, 4, 0}, {6, 6, 0}, {4, 4, 0}, {1, 1, 0}};
    for (const auto &c : cases) {
        SCOPED_TRACE(std::to_string(c.x) + "," + std::to_string(c.w));
        Ctx ctx(2, 1, 0);
        ctx.input(0, shape_of({1, 1, 1, 1}), nullptr, 0, c.x);
        ctx.input(1, shape_of({1, 1, 1, 1}), nullptr, 0, c.w);
        uint32_t got = 2;
        EXPECT_EQ(capture_stderr([&] { got = conv_transpose_check_supported(ctx.h); }), "");
        EXPECT_EQ(got, c.expected);
    }
}

TEST(ConvTranspose, InfershapeChecksInOrder) {
    struct Case {
        const char *name;
        Dims x;
        Dims w;
        bool has_group;
        int64_t group;
        std::vector<std::pair<std::string, Ints>> ints;
        std::string auto_pad;
        uint32_t status;
        std::string err;
    };
    const std::string output_padding_text =
        "Each padding value in output_padding  must be less than the corresponding stride/dilation  "
        "dimension .  \n";
    const Case cases[] = {
        {"negative group before any shape check", {1, 3, 2, 2}, {4, 1, 1, 1}, true, -1, {}, "NOTSET",
         NPU_ERR_INVALID_ARG, kPrefix + "group number should >= 0 \n"},
        {"channels not divisible by group", {1, 3, 2, 2}, {3, 1, 1, 1}, true, 2, {}, "NOTSET",
         NPU_ERR_INVALID_ARG, kPrefix + "Input channel is not divisible by group  \n"},
        {"zero group", {1, 3, 2, 2}, {3, 1, 1, 1}, true, 0, {}, "NOTSET", NPU_ERR_INVALID_ARG,
         kPrefix + "Input channel is not divisible by group  \n"},
        {"divisibility skipped when filters differ", {1, 3, 2, 2}, {4, 1, 1, 1}, true, 2, {}, "NOTSET",
         NPU_ERR_INVALID_ARG, kPrefix + "Input batch not equal to filter channel \n"},
        {"output_padding (1, 0) at strides (1, 1)", {1, 1, 2, 2}, {1, 1, 1, 1}, false, 1,
         {{"output_padding", {1, 0}}}, "NOTSET", NPU_ERR_INVALID_ARG, kPrefix + output_padding_text},
        {"output_padding not below stride / dilation", {1, 1, 2, 2}, {1, 1, 1, 1}, false, 1,
         {{"strides", {3, 3}}, {"dilations", {2, 1}}, {"output_padding", {1, 0}}}, "NOTSET",
         NPU_ERR_INVALID_ARG, kPrefix + output_padding_text},
        {"zero dilation", {1, 1, 2, 2}, {1, 1, 1, 1}, false, 1, {{"dilations", {0, 1}}}, "NOTSET",
         NPU_ERR_INVALID_ARG, kPrefix + output_padding_text},
        {"unknown auto_pad", {1, 1, 2, 2}, {1, 1, 1, 1}, false, 1, {}, "SAME", NPU_FAIL,
         kPrefix + "INVALID auto_pad mode  \n" + kPrefix + "Process auto_pad fail \n"},
        {"auto_pad absent", {1, 1, 2, 2}, {1, 1, 1, 1}, false, 1, {}, "-", NPU_FAIL,
         kPrefix + "INVALID auto_pad mode  \n" + kPrefix + "Process auto_pad fail \n"},
        // in 4, kernel 3, stride 2 on both axes: the width is reported first.
        {"VALID leaves data over", {1, 1, 4, 4}, {1, 1, 3, 3}, false, 1, {{"strides", {2, 2}}}, "VALID",
         NPU_FAIL,
         kPrefix + "Not support drop right data when auto_pad is VALID \n" + kPrefix +
             "Process auto_pad fail \n"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        TransposeCase s;
        s.x = c.x;
        s.xd = Floats(c.x[1] * c.x[2] * c.x[3], 1.0f);
        s.w = c.w;
        s.wd = Floats(c.w[0] * c.w[1] * c.w[2] * c.w[3], 1.0f);
        s.has_group = c.has_group;
        s.group = c.group;
        s.ints = c.ints;
        s.auto_pad = c.auto_pad;
        const Result r = run(s, false);
        EXPECT_EQ(r.infer, c.status);
        EXPECT_EQ(r.err, c.err);
        EXPECT_EQ(r.out_dims, Dims{});
    }
}

TEST(ConvTranspose, InferredShapes) {
    struct Case {
        const char *name;
        Dims x;
        Dims w;
        std::vector<std::pair<std::string, Ints>> ints;
        std::string auto_pad;
        Dims out;
    };
    const Case cases[] = {
        {"output_shape, SAME_UPPER, no padding needed", {1, 1, 3, 3}, {1, 2, 1, 1},
         {{"strides", {2, 2}}, {"output_shape", {5, 5}}}, "SAME_UPPER", {1, 2, 5, 5}},
        // out_h takes output_padding[1] and out_w output_padding[0].
        {"output padding crossed", {1, 1, 3, 3}, {1, 1, 3, 3},
         {{"strides", {2, 2}}, {"output_padding", {1, 0}}}, "NOTSET", {1, 1, 7, 8}},
        // Without kernel_shape the filters' width is the kernel height.
        {"kernel axes crossed", {1, 1, 2, 2}, {1, 1, 2, 3}, {}, "NOTSET", {1, 1, 4, 3}},
        {"kernel_shape given", {1, 1, 2, 2}, {1, 1, 2, 3}, {{"kernel_shape", {2, 3}}}, "NOTSET",
         {1, 1, 3, 4}},
        {"group multiplies the filters' channels", {2, 4, 2, 2}, {4, 3, 1, 1}, {}, "NOTSET", {2, 6, 2, 2}},
        {"explicit pads", {1, 1, 3, 3}, {1, 1, 3, 3}, {{"pads", {1, 0, 2, 1}}}, "NOTSET", {1, 1, 2, 4}},
        {"SAME_LOWER pads the totals", {1, 1, 3, 3}, {1, 1, 3, 3}, {{"strides", {2, 2}}}, "SAME_LOWER",
         {1, 1, 6, 6}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        TransposeCase s;
        s.x = c.x;
        s.xd = Floats(c.x[0] * c.x[1] * c.x[2] * c.x[3], 1.0f);
        s.w = c.w;
        s.wd = Floats(c.w[0] * c.w[1] * c.w[2] * c.w[3], 1.0f);
        s.ints = c.ints;
        if (std::string(c.name).rfind("group", 0) == 0) s.has_group = true, s.group = 2;
        s.auto_pad = c.auto_pad;
        const Result r = run(s, false);
        EXPECT_EQ(r.infer, NPU_OK);
        EXPECT_EQ(r.err, "");
        EXPECT_EQ(r.out_dims, c.out);
    }
}

TEST(ConvTranspose, OutputShapeSettlesThePads) {
    // With output_shape the odd unit of the total goes to the start, except
    // under SAME_UPPER, where it goes to the end.
    Geometry g{1, 1, 3, 3, 1, 3, 3, 1, 1, 1, 1, 1, 0, {0, 0, 0, 0}};
    const Floats x = iota(9, -3.5f);
    const Floats w = {1, -2, 3, 0.5f, 5, -6, 7, 8, 0.25f};
    struct Case {
        const char *auto_pad;
        uint32_t pads[4];
    };
    const Case cases[] = {
        {"SAME_UPPER", {0, 0, 1, 1}}, {"SAME_LOWER", {1, 1, 0, 0}}, {"NOTSET", {1, 1, 0, 0}}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.auto_pad);
        std::memcpy(g.pads, c.pads, sizeof g.pads);
        uint32_t oh = 0, ow = 0;
        const Floats expected = reference_transpose(g, x, w, {}, &oh, &ow);
        ASSERT_EQ(oh, 4u);
        TransposeCase s;
        s.x = {1, 1, 3, 3};
        s.xd = x;
        s.w = {1, 1, 3, 3};
        s.wd = w;
        s.ints = {{"output_shape", {4, 4}}};
        s.auto_pad = c.auto_pad;
        const Result r = run(s);
        ASSERT_EQ(r.infer, NPU_OK);
        EXPECT_EQ(r.out_dims, (Dims{1, 1, 4, 4}));
        EXPECT_EQ(r.status, NPU_OK);
        expect_bits(expected, r.out, c.auto_pad);
    }
}

TEST(ConvTranspose, ComputedValues) {
    struct Case {
        const char *name;
        TransposeCase setup;
        Floats out;
    };
    // 1x1 kernel at stride 2 into a 5x5 output: the input lands on even places.
    TransposeCase spread;
    spread.x = {1, 1, 3, 3};
    spread.xd = iota(9);
    spread.w = {1, 1, 1, 1};
    spread.wd = {2};
    spread.ints = {{"strides", {2, 2}}, {"output_shape", {5, 5}}};
    spread.auto_pad = "SAME_UPPER";
    // A larger output_shape clamps the total at 0: the 3x3 result fills the
    // first nine places of the 5x5 plane.
    TransposeCase clamped;
    clamped.x = {1, 1, 3, 3};
    clamped.xd = iota(9);
    clamped.w = {1, 1, 1, 1};
    clamped.wd = {1};
    clamped.ints = {{"output_shape", {5, 5}}};
    TransposeCase biased;
    biased.x = {1, 1, 1, 2};
    biased.xd = {1, 2};
    biased.w = {1, 2, 1, 2};
    biased.wd = {1, 10, 100, 1000};
    biased.bias = {0.5f, -0.5f};
    biased.ints = {{"kernel_shape", {1, 2}}};
    const Case cases[] = {
        {"stride 2 spread", spread, {2, 0, 4, 0, 6, 0, 0, 0, 0, 0, 8, 0, 10, 0, 12,
                                     0, 0, 0, 0, 0, 14, 0, 16, 0, 18}},
        {"clamped total", clamped, {1, 2, 3, 4, 5, 6, 7, 8, 9, 0, 0, 0, 0,
                                    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
        {"bias per output channel", biased, {1.5f, 12.5f, 20.5f, 99.5f, 1199.5f, 1999.5f}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        const Result r = run(c.setup);
        ASSERT_EQ(r.infer, NPU_OK);
        EXPECT_EQ(r.status, NPU_OK);
        EXPECT_EQ(r.out, c.out);
        EXPECT_EQ(r.err, "");
    }
}

TEST(ConvTranspose, ComputeGuardsWriteNothing) {
    TransposeCase base;
    base.x = {1, 4, 3, 3};
    base.xd = Floats(36, 1.0f);
    base.w = {4, 1, 1, 1};
    base.wd = Floats(4, 1.0f);
    struct Case {
        const char *name;
        TransposeCase setup;
        uint32_t status;
    };
    std::vector<Case> cases;
    auto with = [&](const char *name, auto change) {
        TransposeCase s = base;
        change(s);
        cases.push_back({name, s, NPU_ERR_INVALID_ARG});
    };
    // infershape refuses these itself (or sizes them past any buffer): the
    // outputs are attached directly.
    with("stride 0", [](TransposeCase &s) { s.ints = {{"strides", {0, 1}}}, s.force_out = {1, 1, 3, 3}; });
    with("stride -1", [](TransposeCase &s) { s.ints = {{"strides", {1, -1}}}, s.force_out = {1, 1, 3, 3}; });
    with("group 0", [](TransposeCase &s) { s.has_group = true, s.group = 0, s.force_out = {1, 1, 3, 3}; });
    with("group -1", [](TransposeCase &s) { s.has_group = true, s.group = -1, s.force_out = {1, 1, 3, 3}; });
    with("channels not divisible", [](TransposeCase &s) {
        s.has_group = true, s.group = 3, s.force_out = {1, 3, 3, 3};
    });
    with("filters' dims[0] not C", [](TransposeCase &s) {
        s.w = {2, 1, 1, 1}, s.wd = Floats(2, 1.0f), s.force_out = {1, 1, 3, 3};
    });
    with("filters' dims[1] x group not the output channels",
         [](TransposeCase &s) { s.force_out = {1, 2, 3, 3}; });
    with("no output channel", [](TransposeCase &s) {
        s.w = {4, 0, 1, 1}, s.wd = Floats(1, 1.0f), s.force_out = {1, 0, 3, 3};
    });
    // kernel_shape 1x1 infers a 3x3 plane; the real 3x3 filter gives 5x5.
    with("result plane larger than the output plane", [](TransposeCase &s) {
        s.w = {4, 1, 3, 3}, s.wd = Floats(36, 1.0f), s.ints = {{"kernel_shape", {1, 1}}};
    });
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        const Result r = run(c.setup);
        ASSERT_EQ(r.infer, NPU_OK);
        EXPECT_EQ(r.status, c.status);
        EXPECT_EQ(r.out, Floats(r.out.size(), kSentinel));
        EXPECT_EQ(r.err, "");
    }
}

TEST(ConvTranspose, ComputeMissingBuffers) {
    Floats x(4, 1.0f), w = {1}, y(4, kSentinel);
    for (int which = 0; which < 2; ++which) {
        Ctx ctx(2, 1, 0);
        ctx.input(0, shape_of({1, 1, 2, 2}), which == 0 ? nullptr : x.data(), 16);
        ctx.input(1, shape_of({1, 1, 1, 1}), w);
        TensorShape ys = shape_of({1, 1, 2, 2});
        qv_kel_custom_set_output_by_index(ctx.h, 0, NPU_DTYPE_FLOAT32, NPU_FORMAT_NCHW, &ys,
                                          which == 1 ? nullptr : y.data(), 16);
        EXPECT_EQ(conv_transpose_compute(ctx.h), NPU_ERR_INVALID_ARG);
        EXPECT_EQ(y, Floats(4, kSentinel));
    }
}

TEST(ConvTranspose, SplitFailureIsReported) {
    TransposeCase s;
    s.x = {4};
    s.xd = Floats(4, 1.0f);
    s.w = {1, 1, 1, 1};
    s.wd = {1};
    s.force_out = {1, 1, 2, 2};
    const Result r = run(s);
    EXPECT_EQ(r.status, NPU_FAIL);
    EXPECT_EQ(r.err, "[E] [custom] [tensor_ops:L] Split axis  is great than input shape  \n" + kPrefix +
                         "Split input fail \n");
}

TEST(ConvTranspose, ProcessAutoPad) {
    struct Case {
        const char *mode;
        uint32_t total_h, total_w, in_h, in_w, stride_h, stride_w, k_h, k_w;
        uint32_t pads_in[4];
        uint32_t status;
        uint32_t pads[4];
        std::string err;
    };
    const std::string unit = "[E] [custom] [conv_transpose_ops_impl:L] ";
    const Case cases[] = {
        {"SAME_UPPER", 3, 4, 5, 5, 1, 1, 3, 3, {9, 9, 9, 9}, NPU_OK, {1, 2, 2, 2}, ""},
        {"SAME_LOWER", 3, 4, 5, 5, 1, 1, 3, 3, {9, 9, 9, 9}, NPU_OK, {2, 2, 1, 2}, ""},
        {"SAME_UPPER_LONGER", 1, 0, 5, 5, 1, 1, 3, 3, {9, 9, 9, 9}, NPU_OK, {0, 0, 1, 0}, ""},
        {"VALID", 3, 3, 5, 5, 2, 2, 3, 3, {1, 2, 3, 4}, NPU_OK, {0, 0, 0, 0}, ""},
        {"VALIDATE", 3, 3, 7, 5, 1, 2, 3, 3, {1, 2, 3, 4}, NPU_OK, {0, 0, 0, 0}, ""},
        {"VALID", 3, 3, 6, 6, 2, 2, 3, 3, {1, 2, 3, 4}, NPU_ERR_SHAPE, {1, 2, 3, 4},
         unit + "Not support drop right data when auto_pad is VALID \n"},
        {"VALID", 3, 3, 6, 5, 2, 2, 3, 3, {1, 2, 3, 4}, NPU_ERR_SHAPE, {1, 2, 3, 4},
         unit + "Not support drop bottom data when auto_pad is VALID \n"},
        // A zero stride counts the quotient as 0: the whole difference is left over.
        {"VALID", 3, 3, 3, 4, 0, 0, 3, 3, {1, 2, 3, 4}, NPU_ERR_SHAPE, {1, 2, 3, 4},
         unit + "Not support drop right data when auto_pad is VALID \n"},
        {"VALID", 3, 3, 3, 3, 0, 0, 3, 3, {1, 2, 3, 4}, NPU_OK, {0, 0, 0, 0}, ""},
        {"NOTSET", 3, 3, 5, 5, 1, 1, 3, 3, {1, 0, 0, 2}, NPU_OK, {1, 0, 0, 2}, ""},
        {"NOTSET", 3, 3, 5, 5, 1, 1, 3, 3, {0, 0, 0, 0}, NPU_OK, {0, 0, 0, 0}, ""},
        {"SAME", 3, 3, 5, 5, 1, 1, 3, 3, {1, 2, 3, 4}, NPU_ERR_INVALID_ARG, {1, 2, 3, 4},
         unit + "INVALID auto_pad mode  \n"},
        {"", 3, 3, 5, 5, 1, 1, 3, 3, {1, 2, 3, 4}, NPU_ERR_INVALID_ARG, {1, 2, 3, 4},
         unit + "INVALID auto_pad mode  \n"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.mode) + " " + std::to_string(c.in_h) + "x" + std::to_string(c.in_w));
        uint32_t pads[4];
        std::memcpy(pads, c.pads_in, sizeof pads);
        uint32_t status = 0;
        const std::string err = capture_stderr([&] {
            status = process_auto_pad(c.mode, c.total_h, c.total_w, c.in_h, c.in_w, c.stride_h, c.stride_w,
                                      c.k_h, c.k_w, pads);
        });
        EXPECT_EQ(status, c.status);
        EXPECT_EQ(mask_error_lines(err), c.err);
        EXPECT_EQ(std::vector<uint32_t>(pads, pads + 4), std::vector<uint32_t>(c.pads, c.pads + 4));
    }
}

TEST(ConvTranspose, DoZeroFilling) {
    struct Case {
        uint32_t strides[2];
        Dims dims;
        Floats data;
    };
    Floats two_planes = {1, 2, 3, 4, 5, 6, 7, 8};  // [1, 2, 2, 2]
    const Case cases[] = {
        {{1, 1}, {1, 2, 2, 2}, {1, 2, 3, 4, 5, 6, 7, 8}},
        {{2, 3}, {1, 2, 3, 4}, {1, 0, 0, 2, 0, 0, 0, 0, 3, 0, 0, 4, 5, 0, 0, 6, 0, 0, 0, 0, 7, 0, 0, 8}},
        {{1, 2}, {1, 2, 2, 3}, {1, 0, 2, 3, 0, 4, 5, 0, 6, 7, 0, 8}},
    };
    for (const Case &c : cases) {
        Tensor t{};
        t.shape = shape_of({1, 2, 2, 2});
        t.data = two_planes.data();
        Tensor *r = do_zero_filling(&t, c.strides);
        EXPECT_EQ(dims_of(r->shape), c.dims);
        EXPECT_EQ(Floats(r->data, r->data + GetElemSize(&r->shape)), c.data);
        free_tensor(r);
    }
}

}  // namespace
