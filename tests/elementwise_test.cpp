// pow, prelu, ceil/floor/relu/sqrt, sum/mean and expand: shapes, results, guards.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>

#include "test_util.h"

using namespace npucpu_test;

namespace {

using Entry = uint32_t (*)(OperatorContext *);
struct Op {
    const char *name;
    Entry infershape, check_supported, compute;
};
#define NPU_OP(op) Op{#op, op##_infershape, op##_check_supported, op##_compute}
const Op kPow = NPU_OP(pow), kPrelu = NPU_OP(prelu), kCeil = NPU_OP(ceil), kFloor = NPU_OP(floor),
         kRelu = NPU_OP(relu), kSqrt = NPU_OP(sqrt), kSum = NPU_OP(sum), kMean = NPU_OP(mean),
         kExpand = NPU_OP(expand), kCast = NPU_OP(cast);
const float kNaN = std::numeric_limits<float>::quiet_NaN(), S = -777.0f;  // S: sentinel
const uint32_t ARG = NPU_ERR_INVALID_ARG;
using Ins = std::vector<std::pair<std::vector<uint32_t>, std::vector<float>>>;

// Input counts, then the output shapes of the multi-input rules; `text`
// names the refusal (its status: wrong input count, else NPU_FAIL).
TEST(ElementwiseInfershape, InputCountsAndShapeRules) {
    const std::vector<uint32_t> v4 = {4};
    const struct { Op op; std::vector<std::vector<uint32_t>> in; std::vector<uint32_t> out; const char *text; } cases[] = {
        {kPow, {v4}, {}, "pow only support 2 inputs"},         {kPrelu, {v4, v4, v4}, {}, "prelu only support 2 inputs"},
        {kCeil, {v4, v4}, {}, "ceil only support 1 inputs"},   {kFloor, {}, {}, "floor only support 1 inputs"},
        {kRelu, {v4, v4}, {}, "relu only support 1 inputs"},   {kSqrt, {v4, v4}, {}, "sqrt only support 1 inputs"},
        {kCast, {v4, v4}, {}, "ceil only support 1 inputs"},   {kSum, {}, {}, "sum only support inputs >= 1"},
        {kMean, {}, {}, "mean only support inputs >= 1"},      {kExpand, {v4}, {}, "expand only support 2 inputs"},
        // pow copies every leading dim of the longer shape, whichever it is,
        // without a compatibility check (the larger dim wins).
        {kPow, {{2, 3, 4}, {4}}, {2, 3, 4}, ""}, {kPow, {{4}, {2, 3, 4}}, {2, 3, 4}, ""}, {kPow, {{5}, {1, 1, 1}}, {1, 1, 5}, ""},
        {kPow, {{2, 3}, {2, 4}}, {2, 4}, ""},    {kPow, {{}, {2, 3}}, {2, 3}, ""},
        {kPrelu, {{1, 3, 2, 2}, {3, 1, 1}}, {1, 3, 2, 2}, ""}, {kSum, {{2, 3}, {3}}, {2, 3}, ""},
        {kSum, {{2, 1}, {1, 4}}, {2, 4}, ""},    {kMean, {{2, 1, 3}, {4, 1}, {3}}, {2, 4, 3}, ""},
        {kSum, {{3}, {2, 3}}, {}, "broadcast failed"},  // input 0 is padded to (3, 1)
        {kMean, {{2, 3}, {2, 4}}, {}, "broadcast failed"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.op.name) + " case " + std::to_string(&c - cases));
        Ctx ctx(static_cast<uint32_t>(c.in.size()), 1);
        std::vector<float> data(64, 1.0f);
        for (uint32_t i = 0; i < c.in.size(); ++i) ctx.input(i, shape_of(c.in[i]), data);
        uint32_t status = 0;
        const std::string err = capture_stderr([&] { status = c.op.infershape(ctx.h); });
        const std::string text = c.text;
        EXPECT_EQ(status, text.empty() ? NPU_OK : text == "broadcast failed" ? NPU_FAIL : NPU_ERR_INPUT_NUM);
        EXPECT_EQ(mask_error_lines(err), text.empty() ? "" : "[E] [custom] [" + std::string(c.op.name) + "_ops_impl:L] " + text + " \n");
        EXPECT_EQ(dims_of(ctx.output_shape(0)), c.out);
    }
}

// Runs a float operator end to end; the output gets `out_floats` elements
// (default: the inferred element count) filled with the sentinel.
std::vector<float> run(const Op &op, Ins ins, long out_floats = -1) {
    Ctx ctx(static_cast<uint32_t>(ins.size()), 1);
    for (uint32_t i = 0; i < ins.size(); ++i) ctx.input(i, shape_of(ins[i].first), ins[i].second);
    EXPECT_EQ(op.infershape(ctx.h), NPU_OK);
    EXPECT_EQ(op.check_supported(ctx.h), 1u);
    TensorShape s = ctx.output_shape(0);
    std::vector<float> out(out_floats < 0 ? GetElemSize(&s) : out_floats, S);
    qv_kel_custom_set_output_buf_by_index(ctx.h, 0, out.data(), out.size() * 4);
    EXPECT_EQ(op.compute(ctx.h), NPU_OK);
    return out;
}

TEST(ElementwiseCompute, Results) {
    const float third = 1.0f / 3.0f, r2 = static_cast<float>(std::sqrt(2.0)), r5 = static_cast<float>(std::sqrt(5.0));
    const struct { const char *what; Op op; Ins in; std::vector<float> want; } cases[] = {
        {"pow broadcasts a row", kPow, {{{2, 3}, {1, 2, 3, 4, 5, 6}}, {{3}, {2, 0.5f, 0}}}, {1, r2, 1, 16, r5, 1}},
        {"pow of a negative base, and 0^0", kPow, {{{2}, {-8, 0}}, {{2}, {third, 0}}}, {kNaN, 1}},
        {"pow with a rank-0 exponent", kPow, {{{3}, {2, 3, -4}}, {{}, {2}}}, {4, 9, 16}},
        {"pow with a rank-0 base", kPow, {{{}, {2}}, {{3}, {1, 2, 3}}}, {2, 4, 8}},
        {"prelu one slope per channel", kPrelu, {{{1, 3, 2, 1}, {-1, 1, -2, 2, -4, -0.0f}}, {{3, 1, 1}, {0.5f, 0.25f, 2}}},
         {-0.5f, 1, -0.5f, 2, -8, -0.0f}},
        {"prelu slopes of input 0's shape, NaN passes", kPrelu, {{{3}, {-1, -1, kNaN}}, {{3}, {2, 3, 4}}}, {-2, -3, kNaN}},
        {"prelu with a rank-0 slope", kPrelu, {{{3}, {-1, 5, -3}}, {{}, {0.1f}}}, {-0.1f, 5, -3.0f * 0.1f}},
        {"ceil", kCeil, {{{5}, {-0.5f, 0.5f, -0.0f, kNaN, -2}}}, {-0.0f, 1, -0.0f, kNaN, -2}},
        {"floor", kFloor, {{{4}, {-0.5f, 0.5f, -0.0f, 2.5f}}}, {-1, 0, -0.0f, 2}},
        {"relu", kRelu, {{{4}, {-0.0f, -2, kNaN, 3}}}, {-0.0f, 0.0f, kNaN, 3}},
        {"sqrt", kSqrt, {{{4}, {-1, -0.0f, 4, 2}}}, {kNaN, -0.0f, 2, std::sqrt(2.0f)}},
        {"sum of a column and a row", kSum, {{{2, 1}, {1, 2}}, {{1, 3}, {10, 20, 30}}}, {11, 21, 31, 12, 22, 32}},
        // (1 + 1e8) - 1e8 is 0 in float; any other order would give 1.
        {"sum adds in input order", kSum, {{{1}, {1}}, {{1}, {1e8f}}, {{1}, {-1e8f}}}, {0}},
        {"mean of three equal inputs", kMean, {{{2}, {0.1f, 3}}, {{2}, {0.1f, 3}}, {{2}, {0.1f, 3}}},
         {(0.1f + 0.1f + 0.1f) / 3.0f, 3}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);  // NaN results match by class: the sign of a produced NaN is the CPU's
        expect_bits(c.want, run(c.op, c.in), "", true);
    }
    // Output buffers longer than the shape: sum and mean compute the shape
    // and clear the rest.
    for (const Op &op : {kSum, kMean}) expect_bits({1, 2, 3, 0, 0}, run(op, {{{3}, {1, 2, 3}}}, 5), op.name);
}

// expand's rank is input 1's first dim and its dims are input 1's values,
// whatever input 0's shape is; more than 16 of either is refused silently.
TEST(ElementwiseCompute, Expand) {
    const struct { uint32_t first_dim; std::vector<int64_t> dims; uint32_t status; } cases[] = {
        {3, {2, 3, 4}, NPU_OK}, {17, {2, 3, 4}, ARG}, {3, std::vector<int64_t>(17, 1), ARG},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE("case " + std::to_string(&c - cases));
        Ctx ctx(2, 1);
        std::vector<float> in = {1, 2, 3};
        std::vector<int64_t> dims = c.dims;
        ctx.input(0, shape_of({3, 1}), in);
        ctx.input(1, shape_of({c.first_dim}), dims.data(), 8 * dims.size(), NPU_DTYPE_INT64);
        uint32_t status = 0;
        EXPECT_EQ(capture_stderr([&] { status = expand_infershape(ctx.h); }), "");
        EXPECT_EQ(status, c.status);
        EXPECT_EQ(dims_of(ctx.output_shape(0)), (c.status ? std::vector<uint32_t>{} : std::vector<uint32_t>{2, 3, 4}));
        if (c.status != NPU_OK) continue;
        EXPECT_EQ(expand_check_supported(ctx.h), 1u);
        std::vector<float> &out = ctx.alloc_output(0, S);
        ASSERT_EQ(expand_compute(ctx.h), NPU_OK);
        for (size_t i = 0; i < out.size(); ++i) EXPECT_EQ(out[i], in[(i / 4) % 3]) << i;
    }
}

// `f` with its first `bytes` bytes cleared, as a partial memset leaves it.
float cleared_prefix(float f, size_t bytes) {
    std::memset(&f, 0, bytes);
    return f;
}

// Inputs of shape [4], `in_len` bytes: {1.5, -1.5, -2, 4}, pow's exponents
// {2, 3, 2, 2}, expand's dims {4}. `null` names an input, or -1 the output,
// given a null buffer. The unary length check compares whole elements (10 vs
// 8 bytes is 2 vs 2); relu and pow clear the whole output first.
TEST(ElementwiseCompute, BufferLengthsAndNullBuffers) {
    const struct { Op op; uint32_t inputs; uint64_t in_len, out_len; uint32_t status; std::vector<float> want; int null = -2; } cases[] = {
        {kCeil, 1, 10, 8, NPU_OK, {2, -1, S, S}},          {kSqrt, 1, 12, 8, ARG, {S, S, S, S}},
        {kFloor, 1, 3, 2, NPU_OK, {S, S, S, S}},           {kRelu, 1, 3, 16, ARG, {S, S, S, S}},
        {kRelu, 1, 10, 11, NPU_OK, {1.5f, 0, cleared_prefix(S, 3), S}},
        {kRelu, 1, 3, 2, NPU_OK, {cleared_prefix(S, 2), S, S, S}},
        {kPow, 2, 16, 10, NPU_OK, {2.25f, -3.375f, cleared_prefix(S, 2), S}},  // what fits is computed
        {kPrelu, 2, 16, 12, ARG, {S, S, S, S}},            // another element count
        {kPow, 2, 16, 16, ARG, {S, S, S, S}, 0},  {kPow, 2, 16, 16, ARG, {S, S, S, S}, 1},
        {kPow, 2, 16, 16, ARG, {S, S, S, S}, -1}, {kPrelu, 2, 16, 16, ARG, {S, S, S, S}, 1},
        {kCeil, 1, 16, 16, ARG, {S, S, S, S}, 0}, {kRelu, 1, 16, 16, ARG, {S, S, S, S}, -1},
        {kSum, 3, 16, 16, ARG, {S, S, S, S}, 2},  {kMean, 2, 16, 16, ARG, {S, S, S, S}, -1},
        {kExpand, 2, 16, 16, ARG, {S, S, S, S}, 0}, {kExpand, 2, 16, 16, ARG, {S, S, S, S}, -1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.op.name) + " case " + std::to_string(&c - cases));
        std::vector<float> in = {1.5f, -1.5f, -2.0f, 4.0f}, ex = {2, 3, 2, 2}, out(4, S);
        int64_t dims[] = {4};
        Ctx ctx(c.inputs, 1);
        for (uint32_t i = 0; i < c.inputs; ++i) {
            if (c.op.compute == expand_compute && i == 1) ctx.input(1, shape_of({1}), dims, sizeof dims, NPU_DTYPE_INT64);
            else ctx.input(i, shape_of({4}), int(i) == c.null ? nullptr : (i == 1 && c.op.compute == pow_compute ? ex : in).data(), c.in_len);
        }
        ASSERT_EQ(c.op.infershape(ctx.h), NPU_OK);
        qv_kel_custom_set_output_buf_by_index(ctx.h, 0, c.null == -1 ? nullptr : out.data(), c.out_len);
        EXPECT_EQ(c.op.compute(ctx.h), c.status);
        expect_bits(c.want, out);
    }
}

}  // namespace
