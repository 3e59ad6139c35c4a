// Matrix and convolution kernels: gemm modes, column matrix, integer matmul
// (vector and batch shapes also in matmul_op_test), padding, auto-pad sizes,
// bias expansion, split and concat.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "test_util.h"

namespace {

using namespace npucpu_test;

using Dims = std::vector<uint32_t>;
using Floats = std::vector<float>;

// A Tensor record borrowing a vector's data.
Tensor view(const Dims &dims, Floats &data, uint32_t format = NPU_FORMAT_NCHW) {
    Tensor t{};
    t.shape = shape_of(dims), t.dtype = NPU_DTYPE_FLOAT32, t.format = format, t.data = data.data();
    return t;
}

// Bitwise comparison of the values at p, reporting the first differing index.
void expect_bits(const Floats &expected, const float *p, const std::string &what) {
    npucpu_test::expect_bits(expected, Floats(p, p + expected.size()), what);
}

const float kFusedOperand = 1.0f + std::ldexp(1.0f, -12);  // squared: 1 + 2^-11 + 2^-24


TEST(Gemm, MatrixModeAccumulatesFusedThenAddsBias) {
    const struct { const char *name; uint32_t M, K, N; Floats a, b, out, bias, expected; } cases[] = {  // bias {}: none
        {"adds into existing output", 2, 3, 2, iota(6), iota(6), {10, 20, 30, 40}, {}, {32, 48, 79, 104}},
        {"bias by full output index", 1, 2, 2, {1, 1}, {1, 2, 3, 4}, {0, 0}, {0.5f, -1}, {4.5f, 5}},
        // The sum keeps the 2^-24 that an unfused product would round away.
        {"fused multiply-add", 1, 1, 1, {kFusedOperand}, {kFusedOperand},
         {-(1.0f + std::ldexp(1.0f, -11))}, {}, {std::ldexp(1.0f, -24)}},
        // Without a bias +0.0f is added, turning a -0.0 into +0.0.
        {"K = 0 adds +0.0", 1, 0, 1, {}, {}, {-0.0f}, {}, {0.0f}},
        {"M = 0 writes nothing", 0, 1, 1, {1}, {1}, {7}, {}, {7}},
    };
    for (const auto &c : cases) {
        Floats a = c.a, b = c.b, out = c.out, bias = c.bias;
        Tensor ta = view({c.M, c.K}, a, NPU_FORMAT_MATRIX), tb = view({c.K, c.N}, b, NPU_FORMAT_MATRIX);
        Tensor to = view({c.M, c.N}, out, NPU_FORMAT_MATRIX), tbias = view({c.M, c.N}, bias, NPU_FORMAT_MATRIX);
        EXPECT_EQ(gemm(&ta, &tb, bias.empty() ? nullptr : &tbias, &to), NPU_OK) << c.name;
        expect_bits(c.expected, out.data(), c.name);
    }
}

TEST(Gemm, ConvolutionModeIsFilterMajorAndIgnoresBias) {
    // Column matrix: 2 batches x 2 rows of width 3; filters: 2 rows of width 3.
    Floats a = {1, 2, 3, 4, 5, 6, /* batch 1 */ 1, 0, 0, 0, 1, 0}, b = {1, 1, 1, 0, 0, 2};
    Floats bias(8, 100.0f), out = {0, 0, 0, 0, 1, 1, 1, 1};
    Tensor ta = view({2, 1, 2, 3}, a), tb = view({1, 1, 2, 3}, b);
    Tensor tbias = view({2, 2, 2, 1}, bias), to = view({2, 2, 2, 1}, out);
    EXPECT_EQ(gemm(&ta, &tb, &tbias, &to), NPU_OK);
    expect_bits({6, 15, 6, 12, 2, 2, 1, 1}, out.data(), "conv mode");
}

TEST(Gemm, OtherLayoutsAreRefused) {
    for (uint32_t format : {1u, 2u, 4u}) {
        Floats a = {1}, b = {1}, out = {5};
        Tensor ta = view({1, 1}, a, NPU_FORMAT_MATRIX), tb = view({1, 1}, b, NPU_FORMAT_MATRIX);
        Tensor to = view({1, 1}, out, format);
        EXPECT_EQ(gemm(&ta, &tb, nullptr, &to), NPU_ERR_SHAPE) << format;
        EXPECT_EQ(out[0], 5.0f);
    }
}

TEST(Mac, FusesInOrderFromElementZero) {
    const float start = -(1.0f + std::ldexp(1.0f, -11));
    // Element 0 first, then the fused step keeps the 2^-24 of the square.
    const Floats x = {1.0f, kFusedOperand}, y = {start, kFusedOperand};
    EXPECT_EQ(bits(mac(x.data(), y.data(), 2)), bits(std::ldexp(1.0f, -24)));
    // The other order rounds the square first and cancels to zero.
    const Floats rx = {kFusedOperand, 1.0f}, ry = {kFusedOperand, start};
    EXPECT_EQ(bits(mac(rx.data(), ry.data(), 2)), bits(0.0f));
    EXPECT_EQ(bits(mac(x.data(), y.data(), 0)), bits(0.0f));
}


TEST(Img2Col, RowsFollowOutputPixelsChannelMajor) {
    // Image values are 0, 1, 2, ... in memory order.
    const struct { const char *name; Dims image, kernel; uint32_t strides[2]; Dims result; Floats expected; } cases[] = {
        {"4x4, 2x2 kernel, stride 2", {1, 1, 4, 4}, {1, 1, 2, 2}, {2, 2}, {1, 1, 4, 4},
         {0, 1, 4, 5, 2, 3, 6, 7, 8, 9, 12, 13, 10, 11, 14, 15}},
        {"two channels, stride 1", {1, 2, 2, 3}, {1, 2, 2, 2}, {1, 1}, {1, 1, 2, 8},
         {0, 1, 3, 4, 6, 7, 9, 10, 1, 2, 4, 5, 7, 8, 10, 11}},
        {"two batches", {2, 1, 2, 2}, {1, 1, 2, 1}, {1, 1}, {2, 1, 2, 2}, {0, 2, 1, 3, 4, 6, 5, 7}},
        {"uneven stride drops the rest", {1, 1, 3, 3}, {1, 1, 2, 2}, {2, 2}, {1, 1, 1, 4}, {0, 1, 3, 4}},
        {"zero strides give one patch", {1, 1, 4, 4}, {1, 1, 2, 2}, {0, 0}, {1, 1, 1, 4}, {0, 1, 4, 5}},
        {"zero height stride", {1, 1, 3, 3}, {1, 1, 2, 2}, {0, 1}, {1, 1, 2, 4}, {0, 1, 3, 4, 1, 2, 4, 5}},
        // The kernel's channel count drives the copy; reads past the image are
        // skipped rather than made.
        {"kernel with more channels", {1, 1, 2, 2}, {1, 2, 1, 1}, {1, 1}, {1, 1, 4, 1}, {0, 1, 2, 3}},
    };
    for (const auto &c : cases) {
        Floats image = iota(count_of(c.image), 0.0f), kernel(64, 9.0f);
        Tensor ti = view(c.image, image), tk = view(c.kernel, kernel);
        Tensor *cols = img_2_col(&ti, &tk, c.strides);
        ASSERT_NE(cols, nullptr) << c.name;
        EXPECT_EQ(dims_of(cols->shape), c.result) << c.name;
        EXPECT_EQ(cols->format, NPU_FORMAT_NCHW);
        ASSERT_EQ(GetElemSize(&cols->shape), c.expected.size()) << c.name;
        expect_bits(c.expected, cols->data, c.name);
        free_tensor(cols);
    }
}

// An image whose dims wrapped to 2^32 - 1 (2^64 patches, a result of one
// element): the walk ends once no later patch can copy anything.
TEST(Img2Col, WrappedImageDimsEndAfterTheResult) {
    Floats image = {7.5f}, kernel(1, 0.0f);
    Tensor ti = view({1, 1, 0xFFFFFFFFu, 0xFFFFFFFFu}, image), tk = view({1, 1, 1, 1}, kernel);
    const uint32_t strides[2] = {1, 1};
    Tensor *cols = img_2_col(&ti, &tk, strides);
    ASSERT_NE(cols, nullptr);
    ASSERT_EQ(GetElemSize(&cols->shape), 1u);
    EXPECT_EQ(cols->data[0], 7.5f);
    free_tensor(cols);
}

TEST(Img2Col, ElementCountBeyondInt32IsRefused) {
    Floats image(1, 0.0f), kernel(1, 0.0f);
    Tensor ti = view({0x10000, 0x8000, 1, 1}, image), tk = view({1, 1, 1, 1}, kernel);  // never read
    const uint32_t strides[2] = {1, 1};
    Tensor *cols = reinterpret_cast<Tensor *>(1);
    const std::string err = capture_stderr([&] { cols = img_2_col(&ti, &tk, strides); });
    EXPECT_EQ(cols, nullptr);
    EXPECT_EQ(mask_error_lines(err),
              "[E] [custom] [matrix_ops:L] Shape: size error! Not support shape elems multiply "
              "size exceeds UINT32_MAX: \n");
}


TEST(Matmul, TruncatesOperandsAndWrapsInt32) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const struct { const char *name; Dims a_dims, b_dims, out_dims; Floats a, b, expected; } cases[] = {
        {"fractions dropped", {1, 1}, {1, 1}, {1, 1}, {1.9f}, {2.9f}, {2}},
        {"row by column", {1, 2}, {2, 1}, {1, 1}, {1.5f, 2.5f}, {2, 2}, {6}},
        {"toward zero, NaN is 0", {1, 3}, {3, 1}, {1, 1}, {-1.9f, nan, 3}, {2, 5, -0.5f}, {-2}},
        // 3e9 saturates to INT32_MAX; times 2 wraps to -2.
        {"saturate then wrap", {1, 1}, {1, 1}, {1, 1}, {3e9f}, {2}, {-2}},
        {"K = 0", {2, 0}, {0, 2}, {2, 2}, {}, {}, {0, 0, 0, 0}},
        {"vector by vector", {3}, {3}, {1}, {1, 2, 3}, {4, 5, 6}, {32}},
        {"rank-2 a reused per batch", {1, 2}, {3, 2, 1}, {3, 1, 1}, {1, 2}, {1, 1, 2, 2, 3, 3}, {3, 6, 9}},
        // Batch dims are not compared: only the batches both buffers hold are
        // computed and writes stop at the output's end.
        {"b holds fewer batches", {3, 1, 1}, {2, 1, 1}, {2, 1, 1}, {1, 2, 3}, {5, 7}, {5, 14}},
        {"output holds fewer batches", {2, 1, 1}, {2, 1, 1}, {1, 1, 1}, {1, 2}, {5, 7}, {5}},
        {"b rows short of K: nothing written", {1, 2}, {1, 1}, {1, 1}, {1, 2}, {3}, {-7}},
        {"rank-0 a: nothing written", {}, {1, 1}, {1, 1}, {4}, {3}, {-7}},
    };
    for (const auto &c : cases) {
        Floats a = c.a, b = c.b;
        Floats out(c.expected.size() + 2, -7.0f), expected = c.expected;  // two sentinels past the end
        Tensor ta = view(c.a_dims, a), tb = view(c.b_dims, b), to = view(c.out_dims, out);
        EXPECT_EQ(matmul(&ta, &tb, &to), NPU_OK) << c.name;
        expected.insert(expected.end(), 2, -7.0f);
        expect_bits(expected, out.data(), c.name);
    }
}


TEST(DoPadding, ByteFillAndSignedPads) {
    const float zero = 0.0f, ones = from_bits(0x01010101u), all_set = from_bits(0xFFFFFFFFu);
    const uint32_t m1 = static_cast<uint32_t>(-1);
    // Input values are 1, 2, 3, ...
    const struct { const char *name; Dims in_dims; uint32_t pads[4]; float value; Dims out_dims; Floats expected; }
    cases[] = {
        {"zero border", {1, 1, 2, 2}, {1, 1, 1, 1}, 0.0f, {1, 1, 4, 4},
         {zero, zero, zero, zero, zero, 1, 2, zero, zero, 3, 4, zero, zero, zero, zero, zero}},
        {"1.0 fills bytes of 0x01", {1, 1, 1, 1}, {1, 0, 0, 1}, 1.0f, {1, 1, 2, 2}, {ones, ones, 1, ones}},
        {"-1.0 fills bytes of 0xff", {1, 1, 1, 1}, {0, 1, 0, 0}, -1.9f, {1, 1, 1, 2}, {all_set, 1}},
        {"saturated low byte is 0", {1, 1, 1, 1}, {0, 1, 0, 0}, -3e38f, {1, 1, 1, 2}, {zero, 1}},
        {"256.5 has a zero low byte", {1, 1, 1, 1}, {0, 0, 0, 1}, 256.5f, {1, 1, 1, 2}, {1, zero}},
        {"two channels, asymmetric", {1, 2, 1, 1}, {0, 1, 1, 0}, 0.0f, {1, 2, 2, 2},
         {zero, 1, zero, zero, zero, 2, zero, zero}},
        {"negative top cuts the first row", {1, 1, 2, 2}, {m1, 0, 0, 0}, 0.0f, {1, 1, 1, 2}, {3, 4}},
        {"negative bottom cuts the last row", {1, 1, 2, 2}, {0, 0, m1, 0}, 0.0f, {1, 1, 1, 2}, {1, 2}},
        // A negative left pad drops columns from the end of each row.
        {"negative left drops the end", {1, 1, 2, 3}, {0, m1, 0, 0}, 0.0f, {1, 1, 2, 2}, {1, 2, 4, 5}},
        {"negative right drops the end", {1, 1, 2, 3}, {0, 0, 0, m1}, 0.0f, {1, 1, 2, 2}, {1, 2, 4, 5}},
        // Rows overrun into the next one; the last overrun is cut at the end.
        {"left 1, right -1 overruns", {1, 1, 2, 3}, {0, 1, 0, m1}, 0.0f, {1, 1, 2, 3}, {zero, 1, 2, 3, 4, 5}},
        {"batch 0 holds only the fill", {0, 1, 1, 1}, {1, 1, 1, 1}, 0.0f, {0, 1, 3, 3}, {}},
    };
    for (const auto &c : cases) {
        Floats in = iota(count_of(c.in_dims) + 1);
        Tensor ti = view(c.in_dims, in);
        Tensor *out = do_padding(&ti, c.pads, c.value);
        ASSERT_NE(out, nullptr) << c.name;
        EXPECT_EQ(dims_of(out->shape), c.out_dims) << c.name;
        ASSERT_EQ(GetElemSize(&out->shape), c.expected.size()) << c.name;
        expect_bits(c.expected, out->data, c.name);
        free_tensor(out);
    }
}


TEST(ProcessAutoPadMode, EveryMode) {
    const std::string E = "[E] [custom] [matrix_ops:L] ";
    const std::string right = E + "Not support drop right data when auto_pad is VALID \n",
                      bottom = E + "Not support drop bottom data when auto_pad is VALID \n";
    const uint32_t big = 0x7FFFFFFFu, X = 99;  // X: output size untouched
    const struct { const char *name, *mode; uint32_t in_h, in_w, stride_h, stride_w, kernel_h, kernel_w, pads[4],
                   ceil_mode, status, expected_pads[4], out_h, out_w; std::string message; } cases[] = {
        {"upper: odd total to the end", "SAME_UPPER", 5, 5, 2, 2, 2, 2, {9, 9, 9, 9}, 0, NPU_OK, {0, 0, 1, 1}, 3, 3, ""},
        {"lower: odd total to the start", "SAME_LOWER", 5, 5, 2, 2, 2, 2, {9, 9, 9, 9}, 0, NPU_OK, {1, 1, 0, 0}, 3, 3, ""},
        {"axes split independently", "SAME_LOWER", 5, 6, 2, 2, 3, 3, {0, 0, 0, 0}, 1, NPU_OK, {1, 1, 1, 0}, 3, 3, ""},
        {"same ignores ceil_mode", "SAME_UPPER", 7, 7, 3, 3, 3, 3, {0, 0, 0, 0}, 0, NPU_OK, {1, 1, 1, 1}, 3, 3, ""},
        // Kernel 1 smaller than stride 3 on 6: total 1 + 3 - 6 wraps.
        {"total wraps unclamped", "SAME_UPPER", 6, 6, 3, 3, 1, 1, {0, 0, 0, 0}, 0, NPU_OK, {big, big, big, big}, 2, 2, ""},
        {"prefix of SAME_UPPER", "SAME_UPPER_X", 4, 4, 1, 1, 3, 3, {0, 0, 0, 0}, 0, NPU_OK, {1, 1, 1, 1}, 4, 4, ""},
        {"notset with pads", "NOTSET", 5, 6, 2, 1, 3, 2, {1, 0, 1, 2}, 0, NPU_OK, {1, 0, 1, 2}, 3, 7, ""},
        {"notset truncates", "NOTSET", 6, 6, 2, 2, 3, 3, {0, 0, 0, 0}, 0, NPU_OK, {0, 0, 0, 0}, 2, 2, ""},
        {"notset ceil_mode rounds up", "NOTSETTLED", 6, 6, 2, 2, 3, 3, {0, 0, 0, 0}, 1, NPU_OK, {0, 0, 0, 0}, 3, 3, ""},
        {"notset pads summing to 0 in 32 bits", "NOTSET", 4, 4, 1, 1, 1, 1, {1, 0xFFFFFFFFu, 0, 0}, 0, NPU_OK,
         {0, 0, 0, 0}, 4, 4, ""},
        {"valid", "VALID", 7, 9, 2, 3, 3, 3, {5, 5, 5, 5}, 0, NPU_OK, {0, 0, 0, 0}, 3, 3, ""},
        {"valid prefix", "VALIDX", 3, 3, 1, 1, 3, 3, {5, 5, 5, 5}, 1, NPU_OK, {0, 0, 0, 0}, 1, 1, ""},
        {"valid checks width first", "VALID", 6, 6, 2, 2, 3, 3, {5, 5, 5, 5}, 0, NPU_ERR_SHAPE, {5, 5, 5, 5}, X, X, right},
        {"valid bottom leftover", "VALID", 6, 7, 2, 2, 3, 3, {5, 5, 5, 5}, 0, NPU_ERR_SHAPE, {5, 5, 5, 5}, X, X, bottom},
        {"valid zero stride, leftover", "VALID", 3, 4, 0, 0, 3, 3, {5, 5, 5, 5}, 0, NPU_ERR_SHAPE, {5, 5, 5, 5}, X, X, right},
        {"valid zero stride, no leftover", "VALID", 3, 3, 0, 0, 3, 3, {5, 5, 5, 5}, 0, NPU_ERR_INVALID_ARG, {5, 5, 5, 5},
         X, X, ""},
        {"notset zero stride", "NOTSET", 3, 3, 1, 0, 1, 1, {1, 1, 1, 1}, 0, NPU_ERR_INVALID_ARG, {1, 1, 1, 1}, X, X, ""},
        {"same zero stride", "SAME_LOWER", 3, 3, 0, 1, 1, 1, {1, 1, 1, 1}, 0, NPU_ERR_INVALID_ARG, {1, 1, 1, 1}, X, X, ""},
        {"empty mode", "", 3, 3, 1, 1, 1, 1, {1, 1, 1, 1}, 0, NPU_ERR_INVALID_ARG, {1, 1, 1, 1}, X, X,
         E + "INVALID auto_pad_ mode  \n"},
        {"lower case", "same_upper", 3, 3, 1, 1, 1, 1, {1, 1, 1, 1}, 0, NPU_ERR_INVALID_ARG, {1, 1, 1, 1}, X, X,
         E + "INVALID auto_pad_ mode same_upper \n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        uint32_t pads[4] = {c.pads[0], c.pads[1], c.pads[2], c.pads[3]}, out_h = X, out_w = X, status = 0;
        const std::string err = capture_stderr([&] {
            status = process_auto_pad_mode(c.mode, c.in_h, c.in_w, c.stride_h, c.stride_w, c.kernel_h, c.kernel_w,
                                           pads, c.ceil_mode, &out_h, &out_w);
        });
        EXPECT_EQ(status, c.status);
        EXPECT_EQ(Dims(pads, pads + 4), Dims(c.expected_pads, c.expected_pads + 4));
        EXPECT_EQ(Dims({out_h, out_w}), Dims({c.out_h, c.out_w}));
        EXPECT_EQ(mask_error_lines(err), c.message);
    }
}


TEST(SplitConcat, RoundTrips) {
    // Input values are 0, 1, 2, ...
    const struct { const char *name; Dims dims; uint32_t axis; Dims sizes; std::vector<Floats> pieces; } cases[] = {
        {"axis 0", {3, 2}, 0, {1, 2}, {{0, 1}, {2, 3, 4, 5}}},
        {"axis 1 of 3-D", {2, 3, 2}, 1, {2, 1}, {{0, 1, 2, 3, 6, 7, 8, 9}, {4, 5, 10, 11}}},
        {"last axis", {2, 3}, 1, {1, 1, 1}, {{0, 3}, {1, 4}, {2, 5}}},
        {"1-D", {5}, 0, {2, 3}, {{0, 1}, {2, 3, 4}}},
        {"empty piece", {2, 2}, 1, {0, 2}, {{}, {0, 1, 2, 3}}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        Floats in = iota(count_of(c.dims), 0.0f);
        Tensor ti = view(c.dims, in);
        TensorList head = {nullptr, nullptr};
        const uint32_t pieces = static_cast<uint32_t>(c.sizes.size());
        ASSERT_EQ(split(&ti, c.axis, c.sizes.data(), pieces, &head), NPU_OK);
        size_t k = 0;
        for (const TensorList *node = head.next; node != nullptr; node = node->next, ++k) {
            ASSERT_LT(k, c.pieces.size());
            Dims expected_dims = c.dims;
            expected_dims[c.axis] = c.sizes[k];
            EXPECT_EQ(dims_of(node->tensor->shape), expected_dims);
            ASSERT_EQ(GetElemSize(&node->tensor->shape), c.pieces[k].size());
            expect_bits(c.pieces[k], node->tensor->data, c.name);
        }
        EXPECT_EQ(k, c.pieces.size());

        // Splitting again into the existing pieces overwrites them in place.
        for (TensorList *node = head.next; node != nullptr; node = node->next)
            fill_vec_float(node->tensor->data, -1.0f, GetElemSize(&node->tensor->shape));
        ASSERT_EQ(split(&ti, c.axis, c.sizes.data(), pieces, &head), NPU_OK);
        Floats joined(in.size() + 1, -9.0f);
        Tensor tj = view(c.dims, joined);
        EXPECT_EQ(concat(&head, pieces, c.axis, &tj), NPU_OK);
        in.push_back(-9.0f);
        expect_bits(in, joined.data(), c.name);
        free_vec(head.next);
    }
}

TEST(SplitConcat, AxisOutsideTheShapeFails) {
    Floats in = {1, 2};
    Tensor ti = view({2}, in);
    TensorList head = {nullptr, nullptr};
    const uint32_t sizes[1] = {1};
    for (uint32_t axis : {1u, 0x80000000u}) {
        uint32_t status = 0;
        const std::string err = capture_stderr([&] { status = split(&ti, axis, sizes, 1, &head); });
        EXPECT_EQ(status, NPU_ERR_INVALID_ARG) << axis;
        EXPECT_EQ(head.next, nullptr);
        // A negative axis passes the signed check and is refused without a message.
        EXPECT_EQ(mask_error_lines(err), axis == 1 ? "[E] [custom] [tensor_ops:L] Split axis  is great than input shape  \n" : "");
    }
    EXPECT_EQ(split(&ti, 0, sizes, 0, &head), NPU_OK);
    EXPECT_EQ(head.next, nullptr);
}

TEST(BroadcastBias, PlacesBiasOnMatchingAxis) {
    const struct { const char *name; Dims bias_dims, target_dims; Floats bias, expected; } cases[] = {
        {"1-D bias on NCHW channels", {2}, {1, 2, 1, 3}, {5, 7}, {5, 5, 5, 7, 7, 7}},
        {"1-D bias matches the first equal dim", {3}, {3, 3}, {1, 2, 3}, {1, 1, 1, 2, 2, 2, 3, 3, 3}},
        {"no equal dim aligns at axis 0", {1}, {2, 2}, {4}, {4, 4, 4, 4}},
        {"2-D bias on last axes", {2, 1}, {3, 2, 2}, {1, 2}, {1, 1, 2, 2, 1, 1, 2, 2, 1, 1, 2, 2}},
    };
    for (const auto &c : cases) {
        Floats bias = c.bias, target(c.expected.size());
        Tensor tb = view(c.bias_dims, bias, NPU_FORMAT_NHWC), tt = view(c.target_dims, target);
        Tensor *r = broadcast_bias(&tb, &tt);
        ASSERT_NE(r, nullptr) << c.name;
        EXPECT_EQ(dims_of(r->shape), c.target_dims) << c.name;
        EXPECT_EQ(r->format, NPU_FORMAT_NHWC) << c.name;
        expect_bits(c.expected, r->data, c.name);
        free_tensor(r);
    }

    Floats bias = {1, 2}, target = {0, 0};
    Tensor tb = view({1, 2}, bias), tt = view({2}, target);
    Tensor *r = reinterpret_cast<Tensor *>(1);
    const std::string err = capture_stderr([&] { r = broadcast_bias(&tb, &tt); });
    EXPECT_EQ(r, nullptr);
    EXPECT_EQ(mask_error_lines(err), "[E] [custom] [tensor_ops:L] not support from bigger shape to small shape! \n");
}

TEST(Add, CountFromFirstOperand) {
    Floats a = {1, 2}, b = {10, 20, 30}, out = {0, 0, -1};
    Tensor ta = view({2}, a), tb = view({3}, b), to = view({3}, out);
    EXPECT_EQ(add(&ta, &tb, &to), NPU_OK);
    expect_bits({11, 22, -1}, out.data(), "add");
}

}  // namespace
