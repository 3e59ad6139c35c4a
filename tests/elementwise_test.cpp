// pow, prelu, ceil/floor/relu/sqrt, sum/mean and expand: shape rules, messages,
// length checks and element results that are easy to get wrong.
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
const float kNaN = std::numeric_limits<float>::quiet_NaN(), kSentinel = -777.0f;
using Ins = std::vector<std::pair<TensorShape, std::vector<float>>>;

std::string err_line(const Op &op, const std::string &text) {
    return std::string("[E] [custom] [") + op.name + "_ops_impl:L] " + text + " \n";
}

TEST(ElementwiseInfershape, WrongInputCountNamesTheOperator) {
    const struct { Op op; uint32_t inputs; const char *text; } cases[] = {
        {kPow, 1, "pow only support 2 inputs"},     {kPrelu, 3, "prelu only support 2 inputs"},
        {kCeil, 2, "ceil only support 1 inputs"},   {kFloor, 0, "floor only support 1 inputs"},
        {kRelu, 2, "relu only support 1 inputs"},   {kSqrt, 2, "sqrt only support 1 inputs"},
        {kCast, 2, "ceil only support 1 inputs"},   {kSum, 0, "sum only support inputs >= 1"},
        {kMean, 0, "mean only support inputs >= 1"}, {kExpand, 1, "expand only support 2 inputs"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.op.name);
        Ctx ctx(c.inputs, 1);
        std::vector<float> data(4, 1.0f);
        for (uint32_t i = 0; i < c.inputs; ++i) ctx.input(i, shape_of({4}), data);
        uint32_t status = 0;
        const std::string err = capture_stderr([&] { status = c.op.infershape(ctx.h); });
        EXPECT_EQ(status, NPU_ERR_INPUT_NUM);
        EXPECT_EQ(mask_error_lines(err), err_line(c.op, c.text));
        EXPECT_EQ(ctx.output_shape(0).dim_num, 0u);
    }
}

// Output shapes of the multi-input rules; an empty `out` means refused.
TEST(ElementwiseInfershape, ShapeRules) {
    const struct { Op op; std::vector<std::vector<uint32_t>> in; std::vector<uint32_t> out; } cases[] = {
        // pow copies every leading dim of the longer shape, whichever it is,
        // without a compatibility check (the larger dim wins).
        {kPow, {{2, 3, 4}, {4}}, {2, 3, 4}}, {kPow, {{4}, {2, 3, 4}}, {2, 3, 4}},
        {kPow, {{5}, {1, 1, 1}}, {1, 1, 5}}, {kPow, {{2, 3}, {2, 4}}, {2, 4}}, {kPow, {{}, {2, 3}}, {2, 3}},
        {kPrelu, {{1, 3, 2, 2}, {3, 1, 1}}, {1, 3, 2, 2}}, {kSum, {{2, 3}, {3}}, {2, 3}},
        {kSum, {{2, 1}, {1, 4}}, {2, 4}}, {kMean, {{2, 1, 3}, {4, 1}, {3}}, {2, 4, 3}},
        {kSum, {{3}, {2, 3}}, {}},  // input 0 is padded to (3, 1)
        {kMean, {{2, 3}, {2, 4}}, {}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.op.name) + " case " + std::to_string(&c - cases));
        Ctx ctx(static_cast<uint32_t>(c.in.size()), 1);
        std::vector<float> data(64, 1.0f);
        for (uint32_t i = 0; i < c.in.size(); ++i) ctx.input(i, shape_of(c.in[i]), data);
        uint32_t status = 0;
        const std::string err = capture_stderr([&] { status = c.op.infershape(ctx.h); });
        EXPECT_EQ(status, c.out.empty() ? NPU_FAIL : NPU_OK);
        EXPECT_EQ(mask_error_lines(err), c.out.empty() ? err_line(c.op, "broadcast failed") : "");
        EXPECT_EQ(dims_of(ctx.output_shape(0)), c.out);
    }
}

// Runs a float operator end to end; the output gets `out_floats` elements
// (default: the inferred element count) filled with a sentinel.
std::vector<float> run(const Op &op, Ins ins, long out_floats = -1) {
    Ctx ctx(static_cast<uint32_t>(ins.size()), 1);
    for (uint32_t i = 0; i < ins.size(); ++i) ctx.input(i, ins[i].first, ins[i].second);
    EXPECT_EQ(op.infershape(ctx.h), NPU_OK);
    EXPECT_EQ(op.check_supported(ctx.h), 1u);
    TensorShape s = ctx.output_shape(0);
    std::vector<float> out(out_floats < 0 ? GetElemSize(&s) : out_floats, kSentinel);
    qv_kel_custom_set_output_buf_by_index(ctx.h, 0, out.data(), out.size() * 4);
    EXPECT_EQ(op.compute(ctx.h), NPU_OK);
    return out;
}

TEST(ElementwiseCompute, Results) {
    const float third = 1.0f / 3.0f;
    const struct { const char *what; Op op; Ins in; std::vector<float> want; } cases[] = {
        {"pow broadcasts a row", kPow, {{shape_of({2, 3}), {1, 2, 3, 4, 5, 6}}, {shape_of({3}), {2, 0.5f, 0}}},
         {1, static_cast<float>(std::sqrt(2.0)), 1, 16, static_cast<float>(std::sqrt(5.0)), 1}},
        {"pow of a negative base, and 0^0", kPow, {{shape_of({2}), {-8, 0}}, {shape_of({2}), {third, 0}}}, {kNaN, 1}},
        {"pow with a rank-0 exponent", kPow, {{shape_of({3}), {2, 3, -4}}, {shape_of({}), {2}}}, {4, 9, 16}},
        {"pow with a rank-0 base", kPow, {{shape_of({}), {2}}, {shape_of({3}), {1, 2, 3}}}, {2, 4, 8}},
        {"prelu one slope per channel", kPrelu,
         {{shape_of({1, 3, 2, 1}), {-1, 1, -2, 2, -4, -0.0f}}, {shape_of({3, 1, 1}), {0.5f, 0.25f, 2}}},
         {-0.5f, 1, -0.5f, 2, -8, -0.0f}},
        {"prelu slopes of input 0's shape, NaN passes", kPrelu,
         {{shape_of({3}), {-1, -1, kNaN}}, {shape_of({3}), {2, 3, 4}}}, {-2, -3, kNaN}},
        {"prelu with a rank-0 slope", kPrelu, {{shape_of({3}), {-1, 5, -3}}, {shape_of({}), {0.1f}}},
         {-0.1f, 5, -3.0f * 0.1f}},
        {"ceil", kCeil, {{shape_of({5}), {-0.5f, 0.5f, -0.0f, kNaN, -2}}}, {-0.0f, 1, -0.0f, kNaN, -2}},
        {"floor", kFloor, {{shape_of({4}), {-0.5f, 0.5f, -0.0f, 2.5f}}}, {-1, 0, -0.0f, 2}},
        {"relu", kRelu, {{shape_of({4}), {-0.0f, -2, kNaN, 3}}}, {-0.0f, 0.0f, kNaN, 3}},
        {"sqrt", kSqrt, {{shape_of({4}), {-1, -0.0f, 4, 2}}}, {kNaN, -0.0f, 2, std::sqrt(2.0f)}},
        {"sum of a column and a row", kSum, {{shape_of({2, 1}), {1, 2}}, {shape_of({1, 3}), {10, 20, 30}}},
         {11, 21, 31, 12, 22, 32}},
        // (1 + 1e8) - 1e8 is 0 in float; any other order would give 1.
        {"sum adds in input order", kSum, {{shape_of({1}), {1}}, {shape_of({1}), {1e8f}}, {shape_of({1}), {-1e8f}}},
         {0}},
        {"mean of three equal inputs", kMean,
         {{shape_of({2}), {0.1f, 3}}, {shape_of({2}), {0.1f, 3}}, {shape_of({2}), {0.1f, 3}}},
         {(0.1f + 0.1f + 0.1f) / 3.0f, 3}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        // NaN results match by class: the sign of a produced NaN is the CPU's.
        expect_bits(c.want, run(c.op, c.in), "", true);
    }
}

// expand's rank is input 1's first dim and its dims are input 1's values,
// whatever input 0's shape is; more than 16 of either is refused silently.
TEST(ElementwiseCompute, Expand) {
    const struct { uint32_t first_dim; std::vector<int64_t> dims; uint32_t status; } cases[] = {
        {3, {2, 3, 4}, NPU_OK}, {17, {2, 3, 4}, NPU_ERR_INVALID_ARG}, {3, std::vector<int64_t>(17, 1), NPU_ERR_INVALID_ARG},
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
        if (c.status != NPU_OK) {
            EXPECT_EQ(ctx.output_shape(0).dim_num, 0u);
            continue;
        }
        EXPECT_EQ(expand_check_supported(ctx.h), 1u);
        EXPECT_EQ(dims_of(ctx.output_shape(0)), (std::vector<uint32_t>{2, 3, 4}));
        std::vector<float> &out = ctx.alloc_output(0, kSentinel);
        ASSERT_EQ(expand_compute(ctx.h), NPU_OK);
        for (size_t i = 0; i < out.size(); ++i) EXPECT_EQ(out[i], in[(i / 4) % 3]) << i;
    }
}

// `f` with its first `bytes` bytes cleared, as a partial memset leaves it.
float cleared_prefix(float f, size_t bytes) {
    std::memset(&f, 0, bytes);
    return f;
}

// The unary length check compares whole elements: 10 vs 8 bytes is 2 vs 2.
TEST(ElementwiseCompute, UnaryLengthChecks) {
    const float S = kSentinel;
    const struct { Op op; uint64_t in_len, out_len; uint32_t status; std::vector<float> want; } cases[] = {
        {kCeil, 10, 8, NPU_OK, {2, -1, S, S}},  {kSqrt, 12, 8, NPU_ERR_INVALID_ARG, {S, S, S, S}},
        {kFloor, 3, 2, NPU_OK, {S, S, S, S}},   {kRelu, 3, 16, NPU_ERR_INVALID_ARG, {S, S, S, S}},
        // relu clears the whole output first, trailing bytes included.
        {kRelu, 10, 11, NPU_OK, {1.5f, 0, cleared_prefix(S, 3), S}},
        {kRelu, 3, 2, NPU_OK, {cleared_prefix(S, 2), S, S, S}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.op.name) + " " + std::to_string(c.in_len) + "/" + std::to_string(c.out_len));
        std::vector<float> in = {1.5f, -1.5f, -2.0f, 4.0f}, out(4, S);
        Ctx ctx(1, 1);
        ctx.input(0, shape_of({4}), in.data(), c.in_len);
        ASSERT_EQ(c.op.infershape(ctx.h), NPU_OK);
        qv_kel_custom_set_output_buf_by_index(ctx.h, 0, out.data(), c.out_len);
        EXPECT_EQ(c.op.compute(ctx.h), c.status);
        expect_bits(c.want, out);
    }
}

// Output buffers longer or shorter than the shape: pow clears the whole
// buffer and computes what fits; sum and mean compute only the shape.
TEST(ElementwiseCompute, OutputLength) {
    std::vector<float> a = {1, 2, 3}, b = {2, 2, 2}, out(3, kSentinel);
    Ctx ctx(2, 1);
    ctx.input(0, shape_of({3}), a);
    ctx.input(1, shape_of({3}), b);
    ASSERT_EQ(pow_infershape(ctx.h), NPU_OK);
    qv_kel_custom_set_output_buf_by_index(ctx.h, 0, out.data(), 10);
    ASSERT_EQ(pow_compute(ctx.h), NPU_OK);
    expect_bits({1, 4, cleared_prefix(kSentinel, 2)}, out);
    for (const Op &op : {kSum, kMean}) expect_bits({1, 2, 3, 0, 0}, run(op, {{shape_of({3}), a}}, 5), op.name);
}

// Null buffers, and prelu's output of another element count, are refused
// before anything is written.
TEST(ElementwiseCompute, RefusedComputesWriteNothing) {
    const struct { Op op; uint32_t inputs; int null_input; uint64_t out_len; } cases[] = {  // -1: null output
        {kPow, 2, 0, 12},  {kPow, 2, 1, 12},  {kPow, 2, -1, 12},   {kPrelu, 2, 1, 12},  {kPrelu, 2, 3, 8},
        {kCeil, 1, 0, 12}, {kRelu, 1, -1, 12}, {kSum, 3, 2, 12},   {kMean, 2, -1, 12},  {kExpand, 2, 0, 12},
        {kExpand, 2, -1, 12},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.op.name) + " case " + std::to_string(&c - cases));
        std::vector<float> in = {-1, 2, 3}, out(3, kSentinel);
        int64_t dims[] = {3};
        Ctx ctx(c.inputs, 1);
        for (uint32_t i = 0; i < c.inputs; ++i) {
            if (c.op.compute == expand_compute && i == 1) ctx.input(1, shape_of({1}), dims, sizeof dims, NPU_DTYPE_INT64);
            else ctx.input(i, shape_of({3}), int(i) == c.null_input ? nullptr : in.data(), 12);
        }
        ASSERT_EQ(c.op.infershape(ctx.h), NPU_OK);
        qv_kel_custom_set_output_buf_by_index(ctx.h, 0, c.null_input < 0 ? nullptr : out.data(), c.out_len);
        EXPECT_EQ(c.op.compute(ctx.h), NPU_ERR_INVALID_ARG);
        expect_bits({kSentinel, kSentinel, kSentinel}, out);
    }
}

}  // namespace
