// conv_transpose: a bitwise sweep against a reference on the same fused chain,
// infershape checks in their order, the crossed axes, guards and helpers.
#include <gtest/gtest.h>

#include <algorithm>
#include <limits>

#include "test_util.h"

namespace {

using namespace npucpu_test;
using Dims = std::vector<uint32_t>;
using Floats = std::vector<float>;
using IntAttrs = decltype(ConvSetup::ints);

const std::string kPrefix = "[E] [custom] [conv_transpose_ops_impl:L] ";

ConvResult run(const ConvSetup &s, bool do_compute = true) {
    return run_conv(conv_transpose_infershape, conv_transpose_compute, s, do_compute);
}

// Inputs of ones unless data is given; group 1 leaves the attribute out.
ConvSetup make(Dims x, Dims w, IntAttrs ints = {}, const char *auto_pad = "NOTSET", Floats xd = {},
               Floats wd = {}, int64_t group = 1) {
    ConvSetup s;
    s.x = x, s.w = w, s.ints = ints, s.auto_pad = auto_pad;
    s.xd = xd.empty() ? Floats(count_of(x), 1.0f) : xd;
    s.wd = wd.empty() ? Floats(std::max<size_t>(count_of(w), 1), 1.0f) : wd;  // never a null buffer
    if (group != 1) s.has_group = true, s.group = group;
    return s;
}

TEST(ConvTranspose, MatchesReferenceBitwiseOverSweep) {
    Lcg rng{2024};
    for (int t = 0; t < 300; ++t) {
        ConvGeometry g{};
        g.group = rng.pick(1, 3);
        const bool depthwise = rng.pick(0, 4) == 0;
        g.C = (depthwise ? 1 : rng.pick(1, 3)) * g.group;
        g.M = (depthwise ? 1 : rng.pick(1, 2)) * g.group;
        g.N = rng.pick(1, 2), g.H = rng.pick(1, 5), g.W = rng.pick(1, 5);
        g.kh = rng.pick(1, 3), g.kw = rng.pick(1, 3);
        // output_padding must stay below stride / dilation: dilation <= stride.
        g.sh = rng.pick(1, 3), g.sw = rng.pick(1, 3);
        g.dh = rng.pick(1, std::min(2u, g.sh)), g.dw = rng.pick(1, std::min(2u, g.sw));
        const uint32_t op_limit = std::min(g.sh / g.dh, g.sw / g.dw);
        g.op = op_limit > 0 ? rng.pick(0, op_limit - 1) : 0;
        g.pads[0] = rng.pick(0, (g.kh - 1) * g.dh), g.pads[2] = rng.pick(0, (g.kh - 1) * g.dh);
        g.pads[1] = rng.pick(0, (g.kw - 1) * g.dw), g.pads[3] = rng.pick(0, (g.kw - 1) * g.dw);
        // Keep at least one output row and column.
        while (g.pads[0] + g.pads[2] > (g.H - 1) * g.sh + (g.kh - 1) * g.dh) --(g.pads[0] > 0 ? g.pads[0] : g.pads[2]);
        while (g.pads[1] + g.pads[3] > (g.W - 1) * g.sw + (g.kw - 1) * g.dw) --(g.pads[1] > 0 ? g.pads[1] : g.pads[3]);
        Floats x(size_t{g.N} * g.C * g.H * g.W), w(size_t{g.C} * (g.M / g.group) * g.kh * g.kw), bias;
        for (float &v : x) v = rng.value(89.0f);
        for (float &v : w) v = rng.value(89.0f);
        if (rng.pick(0, 1) == 1) bias.resize(g.M);
        for (float &v : bias) v = rng.value(89.0f);
        if (t % 40 == 3) x[0] = std::numeric_limits<float>::infinity();
        if (t % 40 == 11) w[0] = std::numeric_limits<float>::quiet_NaN();

        uint32_t oh = 0, ow = 0;
        const Floats expected = reference_conv_transpose(g, x, w, bias, &oh, &ow);
        ConvSetup s = make({g.N, g.C, g.H, g.W}, {g.C, g.M / g.group, g.kh, g.kw},
                           {{"strides", {g.sh, g.sw}}, {"dilations", {g.dh, g.dw}}, {"output_padding", {g.op, g.op}},
                            {"pads", {g.pads[0], g.pads[1], g.pads[2], g.pads[3]}}, {"kernel_shape", {g.kh, g.kw}}},
                           "NOTSET", x, w);
        s.bias = bias, s.has_group = true, s.group = g.group;
        const ConvResult r = run(s);
        SCOPED_TRACE("case " + std::to_string(t));
        ASSERT_EQ(r.infer, NPU_OK);
        ASSERT_EQ(r.out_dims, (Dims{g.N, g.M, oh, ow}));
        ASSERT_EQ(r.status, NPU_OK);
        EXPECT_EQ(r.err, "");
        expect_bits(expected, r.out, "conv_transpose");
        if (HasFailure()) return;
    }
}

TEST(ConvTranspose, CheckSupported) {
    const struct { uint32_t x, w, expected; } cases[] = {
        {0, 0, 1}, {2, 4, 1}, {6, 4, 1}, {2, 0, 0}, {0, 4, 0}, {6, 6, 0}, {4, 4, 0}, {1, 1, 0}};
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

TEST(ConvTranspose, Infershape) {
    const std::string op_text = kPrefix +
        "Each padding value in output_padding  must be less than the corresponding stride/dilation  dimension .  \n";
    const std::string bad_mode = kPrefix + "INVALID auto_pad mode  \n" + kPrefix + "Process auto_pad fail \n";
    const std::string not_divisible = kPrefix + "Input channel is not divisible by group  \n";
    const Dims x3 = {1, 3, 2, 2}, x1 = {1, 1, 2, 2}, w1 = {1, 1, 1, 1}, x33 = {1, 1, 3, 3}, w33 = {1, 1, 3, 3};
    const uint32_t ARG = NPU_ERR_INVALID_ARG;
    // Explicit pads, kernel_shape and group on valid shapes are the sweep's.
    const struct { const char *name; Dims x, w; int64_t group; IntAttrs ints; const char *auto_pad;
                   uint32_t status; std::string err; Dims out; } cases[] = {
        {"negative group before any shape check", x3, {4, 1, 1, 1}, -1, {}, "NOTSET", ARG,
         kPrefix + "group number should >= 0 \n", {}},
        {"channels not divisible by group", x3, {3, 1, 1, 1}, 2, {}, "NOTSET", ARG, not_divisible, {}},
        {"zero group", x3, {3, 1, 1, 1}, 0, {}, "NOTSET", ARG, not_divisible, {}},
        {"divisibility skipped when filters differ", x3, {4, 1, 1, 1}, 2, {}, "NOTSET", ARG,
         kPrefix + "Input batch not equal to filter channel \n", {}},
        {"output_padding (1, 0) at strides (1, 1)", x1, w1, 1, {{"output_padding", {1, 0}}}, "NOTSET", ARG, op_text, {}},
        {"output_padding not below stride / dilation", x1, w1, 1,
         {{"strides", {3, 3}}, {"dilations", {2, 1}}, {"output_padding", {1, 0}}}, "NOTSET", ARG, op_text, {}},
        {"zero dilation", x1, w1, 1, {{"dilations", {0, 1}}}, "NOTSET", ARG, op_text, {}},
        {"unknown auto_pad", x1, w1, 1, {}, "SAME", NPU_FAIL, bad_mode, {}},
        {"auto_pad absent", x1, w1, 1, {}, "-", NPU_FAIL, bad_mode, {}},
        // in 4, kernel 3, stride 2 on both axes: the width is reported first.
        {"VALID leaves data over", {1, 1, 4, 4}, w33, 1, {{"strides", {2, 2}}}, "VALID", NPU_FAIL,
         kPrefix + "Not support drop right data when auto_pad is VALID \n" + kPrefix + "Process auto_pad fail \n", {}},
        {"output_shape, SAME_UPPER", x33, {1, 2, 1, 1}, 1, {{"strides", {2, 2}}, {"output_shape", {5, 5}}},
         "SAME_UPPER", NPU_OK, "", {1, 2, 5, 5}},
        // out_h takes output_padding[1] and out_w output_padding[0].
        {"output padding crossed", x33, w33, 1, {{"strides", {2, 2}}, {"output_padding", {1, 0}}}, "NOTSET", NPU_OK,
         "", {1, 1, 7, 8}},
        // Without kernel_shape the filters' width is the kernel height.
        {"kernel axes crossed", x1, {1, 1, 2, 3}, 1, {}, "NOTSET", NPU_OK, "", {1, 1, 4, 3}},
        {"SAME_LOWER pads the totals", x33, w33, 1, {{"strides", {2, 2}}}, "SAME_LOWER", NPU_OK, "", {1, 1, 6, 6}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const ConvResult r = run(make(c.x, c.w, c.ints, c.auto_pad, {}, {}, c.group), false);
        EXPECT_EQ(r.infer, c.status);
        EXPECT_EQ(r.err, c.err);
        EXPECT_EQ(r.out_dims, c.out);
    }
}

// Compute results the sweep does not reach, and guards that write nothing
// (an empty `out`: the output keeps its sentinel). Outputs given by
// force_out are attached without infershape, which refuses these itself (or
// sizes them past any buffer).
TEST(ConvTranspose, Compute) {
    // With output_shape the odd unit of the total goes to the start, except
    // under SAME_UPPER, where it goes to the end.
    const Floats x = iota(9, -3.5f), w = {1, -2, 3, 0.5f, 5, -6, 7, 8, 0.25f};
    auto reference = [&](int64_t lead, int64_t end) {
        const ConvGeometry g{1, 1, 3, 3, 1, 3, 3, 1, 1, 1, 1, 1, 0, {lead, lead, end, end}};
        uint32_t oh = 0, ow = 0;
        return reference_conv_transpose(g, x, w, {}, &oh, &ow);
    };
    auto out4 = [&](const char *mode) { return make({1, 1, 3, 3}, {1, 1, 3, 3}, {{"output_shape", {4, 4}}}, mode, x, w); };
    auto with = [](IntAttrs ints, int64_t group, Dims force_out, Dims w = {4, 1, 1, 1}) {
        ConvSetup s = make({1, 4, 3, 3}, w, ints, "NOTSET", {}, {}, group);
        s.force_out = force_out;
        return s;
    };
    ConvSetup one_dim = with({}, 1, {1, 1, 2, 2});
    one_dim.x = {4}, one_dim.xd = Floats(4, 1.0f), one_dim.w = {1, 1, 1, 1}, one_dim.wd = {1};
    const uint32_t ARG = NPU_ERR_INVALID_ARG;
    const struct { const char *name; ConvSetup setup; uint32_t status; Floats out; std::string err; } cases[] = {
        {"output_shape, SAME_UPPER", out4("SAME_UPPER"), NPU_OK, reference(0, 1), ""},
        {"output_shape, SAME_LOWER", out4("SAME_LOWER"), NPU_OK, reference(1, 0), ""},
        {"output_shape, NOTSET", out4("NOTSET"), NPU_OK, reference(1, 0), ""},
        // 1x1 kernel at stride 2 into a 5x5 output: the input lands on even places.
        {"stride 2 spread",
         make({1, 1, 3, 3}, {1, 1, 1, 1}, {{"strides", {2, 2}}, {"output_shape", {5, 5}}}, "SAME_UPPER", iota(9), {2}),
         NPU_OK, {2, 0, 4, 0, 6, 0, 0, 0, 0, 0, 8, 0, 10, 0, 12, 0, 0, 0, 0, 0, 14, 0, 16, 0, 18}, ""},
        // A larger output_shape clamps the total at 0: the 3x3 result fills the
        // first nine places of the 5x5 plane.
        {"clamped total", make({1, 1, 3, 3}, {1, 1, 1, 1}, {{"output_shape", {5, 5}}}, "NOTSET", iota(9), {1}),
         NPU_OK, {1, 2, 3, 4, 5, 6, 7, 8, 9, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, ""},
        {"stride 0", with({{"strides", {0, 1}}}, 1, {1, 1, 3, 3}), ARG, {}, ""},
        {"stride -1", with({{"strides", {1, -1}}}, 1, {1, 1, 3, 3}), ARG, {}, ""},
        {"group 0", with({}, 0, {1, 1, 3, 3}), ARG, {}, ""},
        {"group -1", with({}, -1, {1, 1, 3, 3}), ARG, {}, ""},
        {"channels not divisible", with({}, 3, {1, 3, 3, 3}), ARG, {}, ""},
        {"filters' dims[0] not C", with({}, 1, {1, 1, 3, 3}, {2, 1, 1, 1}), ARG, {}, ""},
        {"filters' dims[1] x group not the output channels", with({}, 1, {1, 2, 3, 3}), ARG, {}, ""},
        {"no output channel", with({}, 1, {1, 0, 3, 3}, {4, 0, 1, 1}), ARG, {}, ""},
        // kernel_shape 1x1 infers a 3x3 plane; the real 3x3 filter gives 5x5.
        {"result plane larger than the output plane", with({{"kernel_shape", {1, 1}}}, 1, {}, {4, 1, 3, 3}), ARG, {},
         ""},
        {"input of one dim", one_dim, NPU_FAIL, {},
         "[E] [custom] [tensor_ops:L] Split axis  is great than input shape  \n" + kPrefix + "Split input fail \n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const ConvResult r = run(c.setup);
        ASSERT_EQ(r.infer, NPU_OK);
        EXPECT_EQ(r.status, c.status);
        // What a failed split leaves in the output is not fixed.
        if (c.status != NPU_FAIL) expect_bits(c.out.empty() ? Floats(r.out.size(), kConvSentinel) : c.out, r.out);
        EXPECT_EQ(r.err, c.err);
    }
    Floats xb(4, 1.0f), wb = {1}, y(4, kConvSentinel);  // absent input or output buffer
    for (int which = 0; which < 2; ++which) {
        Ctx ctx(2, 1, 0);
        ctx.input(0, shape_of({1, 1, 2, 2}), which == 0 ? nullptr : xb.data(), 16);
        ctx.input(1, shape_of({1, 1, 1, 1}), wb);
        const TensorShape ys = shape_of({1, 1, 2, 2});
        qv_kel_custom_set_output_by_index(ctx.h, 0, NPU_DTYPE_FLOAT32, NPU_FORMAT_NCHW, &ys,
                                          which == 1 ? nullptr : y.data(), 16);
        EXPECT_EQ(conv_transpose_compute(ctx.h), NPU_ERR_INVALID_ARG);
        EXPECT_EQ(y, Floats(4, kConvSentinel));
    }
}

TEST(ConvTranspose, ProcessAutoPad) {
    const std::string right = kPrefix + "Not support drop right data when auto_pad is VALID \n",
                      bottom = kPrefix + "Not support drop bottom data when auto_pad is VALID \n",
                      bad = kPrefix + "INVALID auto_pad mode  \n";
    const struct { const char *mode; uint32_t total_h, total_w, in_h, in_w, stride, pads_in[4], status, pads[4];
                   std::string err; } cases[] = {
        {"SAME_UPPER", 3, 4, 5, 5, 1, {9, 9, 9, 9}, NPU_OK, {1, 2, 2, 2}, ""},
        {"SAME_LOWER", 3, 4, 5, 5, 1, {9, 9, 9, 9}, NPU_OK, {2, 2, 1, 2}, ""},
        {"SAME_UPPER_LONGER", 1, 0, 5, 5, 1, {9, 9, 9, 9}, NPU_OK, {0, 0, 1, 0}, ""},
        {"VALID", 3, 3, 5, 5, 2, {1, 2, 3, 4}, NPU_OK, {0, 0, 0, 0}, ""},
        {"VALIDATE", 3, 3, 7, 5, 1, {1, 2, 3, 4}, NPU_OK, {0, 0, 0, 0}, ""},
        {"VALID", 3, 3, 6, 6, 2, {1, 2, 3, 4}, NPU_ERR_SHAPE, {1, 2, 3, 4}, right},
        {"VALID", 3, 3, 6, 5, 2, {1, 2, 3, 4}, NPU_ERR_SHAPE, {1, 2, 3, 4}, bottom},
        // A zero stride counts the quotient as 0: the whole difference is left over.
        {"VALID", 3, 3, 3, 4, 0, {1, 2, 3, 4}, NPU_ERR_SHAPE, {1, 2, 3, 4}, right},
        {"VALID", 3, 3, 3, 3, 0, {1, 2, 3, 4}, NPU_OK, {0, 0, 0, 0}, ""},
        {"NOTSET", 3, 3, 5, 5, 1, {1, 0, 0, 2}, NPU_OK, {1, 0, 0, 2}, ""},
        {"SAME", 3, 3, 5, 5, 1, {1, 2, 3, 4}, NPU_ERR_INVALID_ARG, {1, 2, 3, 4}, bad},
        {"", 3, 3, 5, 5, 1, {1, 2, 3, 4}, NPU_ERR_INVALID_ARG, {1, 2, 3, 4}, bad},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.mode) + " " + std::to_string(c.in_h) + "x" + std::to_string(c.in_w));
        uint32_t pads[4], status = 0;
        std::copy(c.pads_in, c.pads_in + 4, pads);
        const std::string err = capture_stderr([&] {
            status = process_auto_pad(c.mode, c.total_h, c.total_w, c.in_h, c.in_w, c.stride, c.stride, 3, 3, pads);
        });
        EXPECT_EQ(status, c.status);
        EXPECT_EQ(mask_error_lines(err), c.err);
        EXPECT_EQ(Dims(pads, pads + 4), Dims(c.pads, c.pads + 4));
    }
}

TEST(ConvTranspose, DoZeroFilling) {
    const struct { uint32_t strides[2]; Dims dims; Floats data; } cases[] = {
        {{1, 1}, {1, 2, 2, 2}, {1, 2, 3, 4, 5, 6, 7, 8}},
        {{2, 3}, {1, 2, 3, 4}, {1, 0, 0, 2, 0, 0, 0, 0, 3, 0, 0, 4, 5, 0, 0, 6, 0, 0, 0, 0, 7, 0, 0, 8}},
        {{1, 2}, {1, 2, 2, 3}, {1, 0, 2, 3, 0, 4, 5, 0, 6, 7, 0, 8}},
    };
    Floats two_planes = iota(8);
    for (const auto &c : cases) {
        Tensor t{};
        t.shape = shape_of({1, 2, 2, 2}), t.data = two_planes.data();
        Tensor *r = do_zero_filling(&t, c.strides);
        EXPECT_EQ(dims_of(r->shape), c.dims);
        EXPECT_EQ(Floats(r->data, r->data + GetElemSize(&r->shape)), c.data);
        free_tensor(r);
    }
}

}  // namespace
