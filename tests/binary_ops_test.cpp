// add, sub, mul and div through their three entry points.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "npucpu.h"
#include "test_util.h"

using namespace npucpu_test;

namespace {

struct BinaryOp {
    const char *name;
    uint32_t (*infershape)(OperatorContext *);
    uint32_t (*check_supported)(OperatorContext *);
    uint32_t (*compute)(OperatorContext *);
    float (*apply)(float, float);
};

const BinaryOp kOps[] = {
    {"add", add_infershape, add_check_supported, add_compute, [](float a, float b) { return a + b; }},
    {"sub", sub_infershape, sub_check_supported, sub_compute, [](float a, float b) { return a - b; }},
    {"mul", mul_infershape, mul_check_supported, mul_compute, [](float a, float b) { return a * b; }},
    {"div", div_infershape, div_check_supported, div_compute, [](float a, float b) { return a / b; }},
};

TEST(BinaryOps, ShapeRule) {
    struct Case {
        std::vector<uint32_t> a, b, out;
    } cases[] = {
        {{2, 3}, {3}, {2, 3}},
        {{4, 1}, {1, 5}, {4, 5}},
        {{2, 3}, {2, 4}, {2, 4}},
        {{3}, {2, 3}, {2, 3}},
        {{}, {}, {}},
        {{}, {2, 5}, {2, 5}},
        {{4, 2, 3}, {}, {4, 2, 3}},
        {{6, 5, 4, 3}, {1, 3}, {6, 5, 4, 3}},  // ranks 2 apart: outer dims from the longer
        {{2}, {7, 6, 1}, {7, 6, 2}},
        {{0x80000000u}, {1}, {1}},  // signed compare: 0x80000000 reads as negative, so 1 wins
    };
    for (const BinaryOp &op : kOps) {
        for (const Case &k : cases) {
            Ctx c(2, 1);
            float buf[4] = {};
            c.input(0, shape_of(k.a), buf, sizeof buf, NPU_DTYPE_FLOAT32, 1);
            c.input(1, shape_of(k.b), buf, sizeof buf, NPU_DTYPE_INT32, 0);
            ASSERT_EQ(op.infershape(c.h), NPU_OK);
            EXPECT_EQ(dims_of(c.output_shape(0)), k.out) << op.name;
            EXPECT_EQ(c.h->outputs[0].dtype, NPU_DTYPE_FLOAT32);
            EXPECT_EQ(c.h->outputs[0].format, 1u);
        }
    }
}

TEST(BinaryOps, WrongInputCount) {
    for (const BinaryOp &op : kOps) {
        for (uint32_t n : {0u, 1u, 3u}) {
            Ctx c(n, 1);
            uint32_t status = 0;
            std::string err = capture_stderr([&] { status = op.infershape(c.h); });
            EXPECT_EQ(status, NPU_ERR_INPUT_NUM);
            EXPECT_EQ(mask_error_lines(err), std::string("[E] [custom] [") + op.name + "_ops_impl:L] " +
                                                 op.name + " only support 2 inputs \n");
        }
    }
}

TEST(BinaryOps, CheckSupportedNeedsTwoFloatInputs) {
    struct Case {
        uint32_t d0, d1, expect;
    } cases[] = {{0, 0, 1}, {4, 0, 0}, {0, 4, 0}, {1, 1, 0}};
    for (const BinaryOp &op : kOps) {
        for (const Case &k : cases) {
            Ctx c(2, 1);
            float buf[1];
            c.input(0, shape_of({1}), buf, 4, k.d0);
            c.input(1, shape_of({1}), buf, 4, k.d1);
            EXPECT_EQ(op.check_supported(c.h), k.expect);
        }
    }
}

// End to end with broadcasting, against each element's operation.
TEST(BinaryOps, ComputeWithBroadcasting) {
    std::vector<float> a = {1, -2, 3.5f, 0, -0.0f, 6};
    std::vector<float> b = {2, 0, -4};
    for (const BinaryOp &op : kOps) {
        Ctx c(2, 1);
        c.input(0, shape_of({2, 3}), a);
        c.input(1, shape_of({3}), b);
        ASSERT_EQ(op.infershape(c.h), NPU_OK);
        ASSERT_EQ(op.check_supported(c.h), 1u);
        std::vector<float> &out = c.alloc_output(0, 99.0f);
        ASSERT_EQ(op.compute(c.h), NPU_OK);
        for (size_t i = 0; i < 6; ++i) {
            float want = op.apply(a[i], b[i % 3]);
            EXPECT_EQ(std::memcmp(&out[i], &want, 4), 0) << op.name << " at " << i;
        }
    }
}

TEST(BinaryOps, DivisionByZeroGivesIeeeResults) {
    std::vector<float> a = {1, -1, 0}, b = {0, 0, 0};
    Ctx c(2, 1);
    c.input(0, shape_of({3}), a);
    c.input(1, shape_of({3}), b);
    div_infershape(c.h);
    std::vector<float> &out = c.alloc_output(0);
    ASSERT_EQ(div_compute(c.h), NPU_OK);
    EXPECT_EQ(out[0], INFINITY);
    EXPECT_EQ(out[1], -INFINITY);
    EXPECT_TRUE(std::isnan(out[2]));
}

TEST(BinaryOps, MismatchedDimsWrapTheFirstInput) {
    std::vector<float> a = {0, 1, 2, 3, 4, 5}, b(8, 10.0f);
    Ctx c(2, 1);
    c.input(0, shape_of({2, 3}), a);
    c.input(1, shape_of({2, 4}), b);
    ASSERT_EQ(add_infershape(c.h), NPU_OK);
    std::vector<float> &out = c.alloc_output(0);
    ASSERT_EQ(add_compute(c.h), NPU_OK);
    EXPECT_EQ(out, (std::vector<float>{10, 11, 12, 10, 11, 12, 13, 14}));
}

// The element count is min(buf_len / 4, shape count); trailing bytes stay.
TEST(BinaryOps, OutputLengthLimitsTheWrite) {
    std::vector<float> a = {1, 2, 3, 4}, b = {1, 1, 1, 1};
    struct Case {
        uint64_t len;
        size_t written;
    } cases[] = {{10, 2}, {3, 0}, {16, 4}, {64, 4}};
    for (const Case &k : cases) {
        Ctx c(2, 1);
        c.input(0, shape_of({4}), a);
        c.input(1, shape_of({4}), b);
        add_infershape(c.h);
        unsigned char out[64];
        std::memset(out, 0xAB, sizeof out);
        qv_kel_custom_set_output_buf_by_index(c.h, 0, out, k.len);
        ASSERT_EQ(add_compute(c.h), NPU_OK);
        for (size_t i = 0; i < k.written; ++i) {
            float v;
            std::memcpy(&v, out + 4 * i, 4);
            EXPECT_EQ(v, a[i] + 1);
        }
        for (size_t byte = 4 * k.written; byte < sizeof out; ++byte) ASSERT_EQ(out[byte], 0xAB) << byte;
    }
}

TEST(BinaryOps, NullBuffersAreRefused) {
    std::vector<float> a = {1}, out = {7};
    for (int which = 0; which < 3; ++which) {
        Ctx c(2, 1);
        c.input(0, shape_of({1}), which == 0 ? nullptr : a.data(), 4);
        c.input(1, shape_of({1}), which == 1 ? nullptr : a.data(), 4);
        mul_infershape(c.h);
        qv_kel_custom_set_output_buf_by_index(c.h, 0, which == 2 ? nullptr : out.data(), 4);
        std::string err = capture_stderr([&] { EXPECT_EQ(mul_compute(c.h), NPU_ERR_INVALID_ARG); });
        EXPECT_EQ(err, "");
        EXPECT_EQ(out[0], 7.0f);
    }
}

}  // namespace
