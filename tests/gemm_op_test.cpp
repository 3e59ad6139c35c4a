// gemm operator: the shape checks with their messages, the product with
// transposed operands and broadcast biases, the ignored scaling attributes,
// and what compute does with buffers and layouts that do not fit.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "npucpu.h"
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

// Gives the transposition attributes that are not kAbsent; returns the
// next free attribute index.
uint32_t set_trans(Ctx &c, int64_t trans_a, int64_t trans_b) {
    uint32_t attr = 0;
    if (trans_a != kAbsent) c.attr_int(attr++, "transA", trans_a);
    if (trans_b != kAbsent) c.attr_int(attr++, "transB", trans_b);
    return attr;
}

uint32_t attr_count(int64_t trans_a, int64_t trans_b) {
    return (trans_a != kAbsent ? 1 : 0) + (trans_b != kAbsent ? 1 : 0);
}

TEST(GemmOp, ShapeRule) {
    struct Case {
        std::vector<uint32_t> a, b;
        int64_t trans_a, trans_b;
        uint32_t status;
        std::vector<uint32_t> out;
        std::string err;
    };
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
        std::string err;
        capture_stdout([&] { err = capture_stderr([&] { status = gemm_infershape(c.h); }); });
        EXPECT_EQ(status, k.status);
        EXPECT_EQ(mask_error_lines(err), k.err);
        if (k.status != NPU_OK) continue;
        EXPECT_EQ(dims_of(c.output_shape(0)), k.out);
        EXPECT_EQ(c.h->outputs[0].dtype, static_cast<uint32_t>(NPU_DTYPE_INT32));
        EXPECT_EQ(c.h->outputs[0].format, static_cast<uint32_t>(NPU_FORMAT_MATRIX));
    }
}

TEST(GemmOp, CheckSupportedLooksAtAAndBOnly) {
    struct Case {
        uint32_t a, b, c, supported;
    } cases[] = {
        {NPU_DTYPE_FLOAT32, NPU_DTYPE_FLOAT32, NPU_DTYPE_INT32, 1},
        {NPU_DTYPE_INT32, NPU_DTYPE_FLOAT32, NPU_DTYPE_FLOAT32, 0},
        {NPU_DTYPE_FLOAT32, NPU_DTYPE_FLOAT64, NPU_DTYPE_FLOAT32, 0},
    };
    for (const Case &k : cases) {
        Ctx c(3, 1);
        float buf[1] = {};
        c.input(0, shape_of({1, 1}), buf, 4, k.a);
        c.input(1, shape_of({1, 1}), buf, 4, k.b);
        c.input(2, shape_of({1}), buf, 4, k.c);
        EXPECT_EQ(gemm_check_supported(c.h), k.supported) << k.a << " " << k.b << " " << k.c;
    }
}

TEST(GemmOp, Product) {
    struct Case {
        const char *name;
        std::vector<uint32_t> a_dims;
        std::vector<float> a;
        std::vector<uint32_t> b_dims;
        std::vector<float> b;
        int64_t trans_a, trans_b;
        bool has_bias;
        std::vector<uint32_t> c_dims;
        std::vector<float> c;
        std::vector<float> want;
    };
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
        std::string err;
        capture_stdout([&] { err = capture_stderr([&] { status = gemm_compute(c.h); }); });
        EXPECT_EQ(status, NPU_OK);
        EXPECT_EQ(err, "");
        ASSERT_EQ(out.size(), k.want.size());
        EXPECT_EQ(0, std::memcmp(out.data(), k.want.data(), 4 * out.size()))
            << ::testing::PrintToString(out);
    }
}

// Compute on configurations a host following the protocol never passes:
// absent or short buffers, an operand that cannot be transposed, and output
// layouts other than the matrix one.
TEST(GemmOp, ComputeOutsideTheProtocol) {
    enum Change { kNullA, kNullB, kNullOut, kNullBias, kShortBias, kShortA, kShortAT, kShortOut,
                  kVectorAT, kLayoutNHWC, kConvMode, kConvModeNHWC };
    struct Case {
        const char *name;
        Change change;
        uint32_t status;
        std::string err;
        std::vector<float> want;  // the whole output buffer afterwards
    };
    const std::string pre = "[E] [custom] [gemm_ops_impl:L] ";
    const std::vector<float> untouched(8, kSentinel);
    const std::vector<float> zeros(8, 0.0f);
    const std::vector<float> leading = {10, 5, 4, 6, 22, kSentinel, kSentinel, kSentinel};
    const std::vector<Case> cases = {
        {"null A", kNullA, NPU_ERR_INVALID_ARG, "", untouched},
        {"null B", kNullB, NPU_ERR_INVALID_ARG, "", untouched},
        {"null output", kNullOut, NPU_ERR_INVALID_ARG, "", untouched},
        {"null bias", kNullBias, NPU_ERR_INVALID_ARG, "", untouched},
        {"short bias", kShortBias, NPU_ERR_INVALID_ARG, "", untouched},
        {"short A", kShortA, NPU_ERR_INVALID_ARG, "", untouched},
        {"short A, transposed", kShortAT, NPU_ERR_INVALID_ARG, "", untouched},
        {"short output", kShortOut, NPU_OK, "", leading},
        {"vector A, transposed", kVectorAT, NPU_ERR_UNSUPPORTED, pre + "Transpose failed! \n", zeros},
        {"output layout 1", kLayoutNHWC, NPU_ERR_UNSUPPORTED, pre + "Gemm CPU calc error! \n", zeros},
        // Layout 0 runs the convolution mode, which finds no rows in 2-D
        // operands of layout 0 ...
        {"output layout 0", kConvMode, NPU_OK, "", zeros},
        // ... but with operands of layout 1 would write K times the output.
        {"output layout 0, operands 1", kConvModeNHWC, NPU_ERR_INVALID_ARG, "", untouched},
    };
    for (const Case &k : cases) {
        SCOPED_TRACE(k.name);
        Ctx c(3, 1, 1);
        std::vector<float> a = kA, at = kAt, b = kB, bias = {0, 0, 0, 0};
        const uint32_t a_format = k.change == kConvModeNHWC ? NPU_FORMAT_NHWC : NPU_FORMAT_NCHW;
        c.input(1, shape_of({3, 4}), b.data(), 4 * b.size(), NPU_DTYPE_FLOAT32, a_format);
        c.input(2, shape_of({4}), bias.data(), 4 * bias.size());
        if (k.change == kShortAT || k.change == kVectorAT) {
            c.attr_int(0, "transA", 1);
            c.input(0, shape_of({3, 2}), at.data(), 4 * at.size());
        } else {
            c.attr_int(0, "transB", 0);
            c.input(0, shape_of({2, 3}), a.data(), 4 * a.size(), NPU_DTYPE_FLOAT32, a_format);
        }
        uint32_t status = 0;
        capture_stdout([&] { status = gemm_infershape(c.h); });
        ASSERT_EQ(status, NPU_OK);
        std::vector<float> out(8, kSentinel);
        const TensorShape y = shape_of({2, 4});
        uint32_t y_format = NPU_FORMAT_MATRIX;
        if (k.change == kLayoutNHWC) y_format = NPU_FORMAT_NHWC;
        if (k.change == kConvMode || k.change == kConvModeNHWC) y_format = NPU_FORMAT_NCHW;
        qv_kel_custom_set_output_by_index(c.h, 0, NPU_DTYPE_FLOAT32, y_format, &y,
                                          k.change == kNullOut ? nullptr : out.data(),
                                          k.change == kShortOut ? 20 : 32);
        switch (k.change) {
            case kNullA: c.input(0, shape_of({2, 3}), nullptr, 24); break;
            case kNullB: c.input(1, shape_of({3, 4}), nullptr, 48); break;
            case kNullBias: c.input(2, shape_of({4}), nullptr, 16); break;
            case kShortBias: c.input(2, shape_of({4}), bias.data(), 12); break;
            case kShortA: c.input(0, shape_of({2, 3}), a.data(), 20); break;
            case kShortAT: c.input(0, shape_of({3, 2}), at.data(), 20); break;
            case kVectorAT: c.input(0, shape_of({6}), at.data(), 24); break;
            default: break;
        }
        std::string err;
        capture_stdout([&] { err = capture_stderr([&] { status = gemm_compute(c.h); }); });
        EXPECT_EQ(status, k.status);
        EXPECT_EQ(mask_error_lines(err), k.err);
        EXPECT_EQ(out, k.want);
    }
}

}  // namespace
