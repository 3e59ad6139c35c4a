// add, sub, mul and div through their three entry points.
#include <gtest/gtest.h>

#include "test_util.h"

using namespace npucpu_test;

namespace {

struct BinaryOp {
    const char *name;
    uint32_t (*infershape)(OperatorContext *), (*check_supported)(OperatorContext *), (*compute)(OperatorContext *);
    float (*apply)(float, float);
};
const BinaryOp kOps[] = {
    {"add", add_infershape, add_check_supported, add_compute, [](float a, float b) { return a + b; }},
    {"sub", sub_infershape, sub_check_supported, sub_compute, [](float a, float b) { return a - b; }},
    {"mul", mul_infershape, mul_check_supported, mul_compute, [](float a, float b) { return a * b; }},
    {"div", div_infershape, div_check_supported, div_compute, [](float a, float b) { return a / b; }},
};

// Shapes, input counts, and check_supported (two float inputs).
TEST(BinaryOps, InfershapeAndCheckSupported) {
    const struct { uint32_t d0, d1, expect; } types[] = {{0, 0, 1}, {4, 0, 0}, {0, 4, 0}, {1, 1, 0}};
    const struct { std::vector<uint32_t> a, b, out; } cases[] = {
        {{2, 3}, {3}, {2, 3}}, {{4, 1}, {1, 5}, {4, 5}}, {{2, 3}, {2, 4}, {2, 4}}, {{3}, {2, 3}, {2, 3}},
        {{}, {}, {}}, {{}, {2, 5}, {2, 5}}, {{4, 2, 3}, {}, {4, 2, 3}},
        {{6, 5, 4, 3}, {1, 3}, {6, 5, 4, 3}},  // ranks 2 apart: outer dims from the longer
        {{2}, {7, 6, 1}, {7, 6, 2}},
        {{0x80000000u}, {1}, {1}},  // signed compare: 0x80000000 reads as negative, so 1 wins
    };
    for (const BinaryOp &op : kOps) {
        for (const auto &k : cases) {
            Ctx c(2, 1);
            float buf[4] = {};
            c.input(0, shape_of(k.a), buf, sizeof buf, NPU_DTYPE_FLOAT32, 1);
            c.input(1, shape_of(k.b), buf, sizeof buf, NPU_DTYPE_INT32, 0);
            ASSERT_EQ(op.infershape(c.h), NPU_OK);
            EXPECT_EQ(dims_of(c.output_shape(0)), k.out) << op.name;
            EXPECT_EQ(c.h->outputs[0].dtype, NPU_DTYPE_FLOAT32);
            EXPECT_EQ(c.h->outputs[0].format, 1u);
        }
        for (uint32_t n : {0u, 1u, 3u}) {
            Ctx c(n, 1);
            uint32_t status = 0;
            std::string err = capture_stderr([&] { status = op.infershape(c.h); });
            EXPECT_EQ(status, NPU_ERR_INPUT_NUM);
            EXPECT_EQ(mask_error_lines(err),
                      std::string("[E] [custom] [") + op.name + "_ops_impl:L] " + op.name + " only support 2 inputs \n");
        }
        for (const auto &k : types) {
            Ctx c(2, 1);
            float buf[1];
            c.input(0, shape_of({1}), buf, 4, k.d0);
            c.input(1, shape_of({1}), buf, 4, k.d1);
            EXPECT_EQ(op.check_supported(c.h), k.expect) << op.name;
        }
    }
}

// End to end with broadcasting, against each element's operation; the zeros
// of b give div its IEEE infinities and NaN.
TEST(BinaryOps, ComputeWithBroadcasting) {
    std::vector<float> a = {1, 2, 3.5f, 0, -0.0f, -2, 6, -1}, b = {2, 0, -4, 0};
    for (const BinaryOp &op : kOps) {
        Ctx c(2, 1);
        c.input(0, shape_of({2, 4}), a);
        c.input(1, shape_of({4}), b);
        ASSERT_EQ(op.infershape(c.h), NPU_OK);
        ASSERT_EQ(op.check_supported(c.h), 1u);
        std::vector<float> &out = c.alloc_output(0, 99.0f);
        std::vector<float> want;
        ASSERT_EQ(op.compute(c.h), NPU_OK);
        for (size_t i = 0; i < a.size(); ++i) want.push_back(op.apply(a[i], b[i % 4]));
        expect_bits(want, out, op.name, true);
    }
    // Dims that do not broadcast: input 0 is read with wrapped indices.
    std::vector<float> x = {0, 1, 2, 3, 4, 5}, y(8, 10.0f);
    Ctx c(2, 1);
    c.input(0, shape_of({2, 3}), x);
    c.input(1, shape_of({2, 4}), y);
    ASSERT_EQ(add_infershape(c.h), NPU_OK);
    std::vector<float> &out = c.alloc_output(0);
    ASSERT_EQ(add_compute(c.h), NPU_OK);
    EXPECT_EQ(out, (std::vector<float>{10, 11, 12, 10, 11, 12, 13, 14}));
}

// The element count is min(buf_len / 4, shape count); trailing bytes stay.
// Null buffers are refused silently before anything is written.
TEST(BinaryOps, OutputLengthAndNullBuffers) {
    std::vector<float> a = {1, 2, 3, 4}, b = {1, 1, 1, 1};
    const struct { uint64_t len; size_t written; int null; } cases[] = {  // null: input 0, 1 or 2 (output)
        {10, 2, -1}, {3, 0, -1}, {16, 4, -1}, {64, 4, -1}, {16, 0, 0}, {16, 0, 1}, {16, 0, 2},
    };
    for (const auto &k : cases) {
        SCOPED_TRACE("case " + std::to_string(&k - cases));
        Ctx c(2, 1);
        c.input(0, shape_of({4}), k.null == 0 ? nullptr : a.data(), 16);
        c.input(1, shape_of({4}), k.null == 1 ? nullptr : b.data(), 16);
        add_infershape(c.h);
        std::vector<float> out(16, -777.0f), want = out;
        for (size_t i = 0; i < k.written; ++i) want[i] = a[i] + 1;
        qv_kel_custom_set_output_buf_by_index(c.h, 0, k.null == 2 ? nullptr : out.data(), k.len);
        uint32_t status = 1;
        EXPECT_EQ(capture_stderr([&] { status = add_compute(c.h); }), "");
        EXPECT_EQ(status, k.null < 0 ? NPU_OK : NPU_ERR_INVALID_ARG);
        EXPECT_EQ(out, want);
    }
}

}  // namespace
