// gemm operator: the shape checks with their messages, the product with
// transposed operands and broadcast biases, the ignored scaling attributes,
// and what compute does with buffers and layouts that do not fit.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "test_util.h"

using namespace npucpu_test;

namespace {

constexpr float kSentinel = -777.0f;
constexpr int64_t kAbsent = INT64_MIN;  // attribute not given

// A = [[1, 2, 3], [4, 5, 6]], B (3x4), and both stored transposed.
const std::vector<float> kA = {1, 2, 3, 4, 5, 6};
const std::vector<float> kAt = {1, 4, 2, 5, 3, 6};
const std::vector<float> kB = {1, 0, 2, -1, 0, 1, 1, 2, 3, 1, 0, 1};
const std::vector<float> kBt = {1, 0, 3, 0, 1, 1, 2, 1, 0, -1, 2, 1};
const std::vector<float> kAB = {10, 5, 4, 6, 22, 11, 13, 12};

uint32_t attr_count(int64_t trans_a, int64_t trans_b) { return (trans_a != kAbsent) + (trans_b != kAbsent); }

// Gives the transposition attributes that are not kAbsent; returns the
// next free attribute index.
uint32_t set_trans(Ctx &c, int64_t trans_a, int64_t trans_b) {
    uint32_t attr = 0;
    if (trans_a != kAbsent) c.attr_int(attr++, "transA", trans_a);
    if (trans_b != kAbsent) c.attr_int(attr++, "transB", trans_b);
    return attr;
}

// Runs fn, returning its stderr with line numbers masked; stdout is dropped.
std::string quiet(const std::function<void()> &fn) {
    std::string err;
    capture_stdout([&] { err = capture_stderr(fn); });
    return mask_error_lines(err);
}

TEST(GemmOp, ShapeRule) {
    struct Case { std::vector<uint32_t> a, b; int64_t trans_a, trans_b; uint32_t status; std::vector<uint32_t> out;
                  std::string err; };
    const std::string pre = "[E] [custom] [gemm_ops_impl:L] ";
    const std::vector<Case> cases = {
        {{2, 3}, {3, 4}, kAbsent, kAbsent, NPU_OK, {2, 4}, ""},
        {{3, 2}, {3, 4}, 1, kAbsent, NPU_OK, {2, 4}, ""},
        {{2, 3}, {4, 3}, 0, 1, NPU_OK, {2, 4}, ""},
        {{3, 2}, {4, 3}, 7, -1, NPU_OK, {2, 4}, ""},  // any non-zero value transposes
        {{2, 3}, {2, 4}, kAbsent, kAbsent, NPU_ERR_INPUT_NUM, {}, pre + "calc matrix not match! A:[2x3], B:[2x4] \n"},
        {{2, 3}, {3, 4}, 1, kAbsent, NPU_ERR_INPUT_NUM, {},  // numbers after the swap
         pre + "calc matrix not match! A:[3x2], B:[3x4] \n"},
        {{2, 3}, {3, 4}, 0, 1, NPU_ERR_INPUT_NUM, {}, pre + "calc matrix not match! A:[2x3], B:[4x3] \n"},
        {{3000000000u, 2}, {3, 4}, kAbsent, kAbsent, NPU_ERR_INPUT_NUM, {},
         pre + "calc matrix not match! A:[-1294967296x2], B:[3x4] \n"},
        {{1, 2, 3}, {3, 4}, kAbsent, kAbsent, NPU_ERR_INPUT_NUM, {},
         pre + "invalid Gemm shapeA dims:3, shapeB dims:2 \n"},
        {{2, 3}, {3}, kAbsent, kAbsent, NPU_ERR_INPUT_NUM, {}, pre + "invalid Gemm shapeA dims:2, shapeB dims:1 \n"},
    };
    for (const Case &k : cases) {
        SCOPED_TRACE(::testing::PrintToString(k.a) + " x " + ::testing::PrintToString(k.b));
        Ctx c(2, 1, attr_count(k.trans_a, k.trans_b));
        std::vector<float> buf(1);
        c.input(0, shape_of(k.a), buf.data(), 4, NPU_DTYPE_INT32, NPU_FORMAT_NHWC);
        c.input(1, shape_of(k.b), buf.data(), 4);
        set_trans(c, k.trans_a, k.trans_b);
        uint32_t status = 0;
        EXPECT_EQ(quiet([&] { status = gemm_infershape(c.h); }), k.err);
        EXPECT_EQ(status, k.status);
        if (k.status != NPU_OK) continue;
        EXPECT_EQ(dims_of(c.output_shape(0)), k.out);
        EXPECT_EQ(c.h->outputs[0].dtype, static_cast<uint32_t>(NPU_DTYPE_INT32));
        EXPECT_EQ(c.h->outputs[0].format, static_cast<uint32_t>(NPU_FORMAT_MATRIX));
    }
}

TEST(GemmOp, CheckSupportedLooksAtAAndBOnly) {
    const uint32_t F = NPU_DTYPE_FLOAT32, I = NPU_DTYPE_INT32;
    const struct { uint32_t a, b, c, supported; } cases[] = {{F, F, I, 1}, {I, F, F, 0}, {F, NPU_DTYPE_FLOAT64, F, 0}};
    for (const auto &k : cases) {
        Ctx c(3, 1);
        float buf[1] = {};
        c.input(0, shape_of({1, 1}), buf, 4, k.a);
        c.input(1, shape_of({1, 1}), buf, 4, k.b);
        c.input(2, shape_of({1}), buf, 4, k.c);
        EXPECT_EQ(gemm_check_supported(c.h), k.supported) << k.a << " " << k.b << " " << k.c;
    }
}

TEST(GemmOp, Product) {
    struct Case { const char *name; std::vector<uint32_t> a_dims; std::vector<float> a; std::vector<uint32_t> b_dims;
                  std::vector<float> b; int64_t trans_a, trans_b; bool has_bias; std::vector<uint32_t> c_dims;
                  std::vector<float> c, want; };
    const std::vector<float> rows = {110, 205, 304, 406, 122, 211, 313, 412};
    const std::vector<float> cols = {1010, 1005, 1004, 1006, 2022, 2011, 2013, 2012};
    const std::vector<float> plus7 = {17, 12, 11, 13, 29, 18, 20, 19};
    // The second step is one rounding of 1 - 1 + x * x (x = 1 + 2^-12), so
    // the exact 2^-11 + 2^-24 survives; rounding x * x first would give 2^-11.
    const float x = 1.0f + std::ldexp(1.0f, -12);
    const float fused = std::ldexp(1.0f, -11) + std::ldexp(1.0f, -24);
    const std::vector<Case> cases = {
        {"plain", {2, 3}, kA, {3, 4}, kB, kAbsent, kAbsent, false, {}, {}, kAB},
        {"transA", {3, 2}, kAt, {3, 4}, kB, 1, kAbsent, false, {}, {}, kAB},
        {"transB", {2, 3}, kA, {4, 3}, kBt, 0, 1, false, {}, {}, kAB},
        {"row bias", {2, 3}, kA, {3, 4}, kB, kAbsent, kAbsent, true, {4}, {100, 200, 300, 400}, rows},
        {"column bias", {2, 3}, kA, {3, 4}, kB, kAbsent, kAbsent, true, {2, 1}, {1000, 2000}, cols},
        {"full bias", {3, 2}, kAt, {3, 4}, kB, 1, kAbsent, true, {2, 4}, {100, 200, 300, 400, 12, 11, 10, 9},
         {110, 205, 304, 406, 34, 22, 23, 21}},
        {"scalar bias", {2, 3}, kA, {4, 3}, kBt, kAbsent, 1, true, {}, {7}, plus7},
        {"fused", {1, 2}, {1, x}, {2, 1}, {-1, x}, kAbsent, kAbsent, false, {}, {}, {fused}},
        {"empty K", {2, 0}, {0}, {0, 2}, {0}, kAbsent, kAbsent, true, {2}, {3, 4}, {3, 4, 3, 4}},
    };
    for (const Case &k : cases) {
        SCOPED_TRACE(k.name);
        Ctx c(k.has_bias ? 3 : 2, 1, attr_count(k.trans_a, k.trans_b) + 2);
        std::vector<float> a = k.a, b = k.b, bias = k.c;
        c.input(0, shape_of(k.a_dims), a);
        c.input(1, shape_of(k.b_dims), b);
        const uint32_t attr = set_trans(c, k.trans_a, k.trans_b);
        c.attr_float(attr, "alpha", 2.0f);  // scaling attributes are not read
        c.attr_float(attr + 1, "beta", 3.0f);
        if (k.has_bias) c.input(2, shape_of(k.c_dims), bias.data(), 4 * bias.size());
        uint32_t status = 0;
        capture_stdout([&] { status = gemm_infershape(c.h); });
        ASSERT_EQ(status, NPU_OK);
        std::vector<float> &out = c.alloc_output(0, kSentinel);  // compute clears it first
        EXPECT_EQ(quiet([&] { status = gemm_compute(c.h); }), "");
        EXPECT_EQ(status, NPU_OK);
        expect_bits(k.want, out);
    }
}

// Compute on configurations a host following the protocol never passes:
// absent or short buffers, an operand that cannot be transposed, and output
// layouts other than the matrix one. A is [2, 3] (or [3, 2] with transA),
// B [3, 4], the bias [4] of zeros; `input` is then given again as `dims`
// with a null or `len`-byte buffer. The output buffer holds 8 floats.
TEST(GemmOp, ComputeOutsideTheProtocol) {
    const uint32_t M = NPU_FORMAT_MATRIX, C = NPU_FORMAT_NCHW, H = NPU_FORMAT_NHWC, ARG = NPU_ERR_INVALID_ARG;
    const std::string pre = "[E] [custom] [gemm_ops_impl:L] ";
    const std::vector<float> untouched(8, kSentinel), zeros(8, 0.0f);
    const std::vector<float> leading = {10, 5, 4, 6, 22, kSentinel, kSentinel, kSentinel};
    // input -1: none given again; y_len 0: a null output; want: the whole output buffer afterwards.
    const struct { const char *name; bool trans_a; int input; std::vector<uint32_t> dims; bool null; uint64_t len;
                   uint32_t y_format, y_len, operand_format, status; std::string err; std::vector<float> want; } cases[] = {
        {"null A", 0, 0, {2, 3}, 1, 24, M, 32, C, ARG, "", untouched},
        {"null B", 0, 1, {3, 4}, 1, 48, M, 32, C, ARG, "", untouched},
        {"null output", 0, -1, {}, 0, 0, M, 0, C, ARG, "", untouched},
        {"null bias", 0, 2, {4}, 1, 16, M, 32, C, ARG, "", untouched},
        {"short bias", 0, 2, {4}, 0, 12, M, 32, C, ARG, "", untouched},
        {"short A", 0, 0, {2, 3}, 0, 20, M, 32, C, ARG, "", untouched},
        {"short A, transposed", 1, 0, {3, 2}, 0, 20, M, 32, C, ARG, "", untouched},
        {"short output", 0, -1, {}, 0, 0, M, 20, C, NPU_OK, "", leading},
        {"vector A, transposed", 1, 0, {6}, 0, 24, M, 32, C, NPU_ERR_UNSUPPORTED, pre + "Transpose failed! \n", zeros},
        {"output layout 1", 0, -1, {}, 0, 0, H, 32, C, NPU_ERR_UNSUPPORTED, pre + "Gemm CPU calc error! \n", zeros},
        // Layout 0 runs the convolution mode, which finds no rows in 2-D
        // operands of layout 0 ...
        {"output layout 0", 0, -1, {}, 0, 0, C, 32, C, NPU_OK, "", zeros},
        // ... but with operands of layout 1 would write K times the output.
        {"output layout 0, operands 1", 0, -1, {}, 0, 0, C, 32, H, ARG, "", untouched},
    };
    for (const auto &k : cases) {
        SCOPED_TRACE(k.name);
        Ctx c(3, 1, 1);
        std::vector<float> a = k.trans_a ? kAt : kA, b = kB, bias = {0, 0, 0, 0}, out(8, kSentinel);
        c.attr_int(0, k.trans_a ? "transA" : "transB", k.trans_a);
        c.input(0, shape_of(k.trans_a ? std::vector<uint32_t>{3, 2} : std::vector<uint32_t>{2, 3}), a.data(), 24,
                NPU_DTYPE_FLOAT32, k.operand_format);
        c.input(1, shape_of({3, 4}), b.data(), 48, NPU_DTYPE_FLOAT32, k.operand_format);
        c.input(2, shape_of({4}), bias);
        uint32_t status = 0;
        capture_stdout([&] { status = gemm_infershape(c.h); });
        ASSERT_EQ(status, NPU_OK);
        const TensorShape y = shape_of({2, 4});
        qv_kel_custom_set_output_by_index(c.h, 0, NPU_DTYPE_FLOAT32, k.y_format, &y, k.y_len ? out.data() : nullptr,
                                          k.y_len ? k.y_len : 32);
        float *bufs[3] = {a.data(), b.data(), bias.data()};
        if (k.input >= 0) c.input(k.input, shape_of(k.dims), k.null ? nullptr : bufs[k.input], k.len);
        EXPECT_EQ(quiet([&] { status = gemm_compute(c.h); }), k.err);
        EXPECT_EQ(status, k.status);
        EXPECT_EQ(out, k.want);
    }
}

}  // namespace
