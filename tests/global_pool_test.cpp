// Global average and max pooling: reduction order, start value, empty planes, guards.
#include <gtest/gtest.h>

#include <limits>

#include "npucpu.h"
#include "test_util.h"

namespace {

using namespace npucpu_test;
struct Op {
    const char *name;
    uint32_t (*infershape)(OperatorContext *), (*compute)(OperatorContext *);
};
const Op kAvg = {"global_averagepool", global_averagepool_infershape, global_averagepool_compute};
const Op kMax = {"global_maxpool", global_maxpool_infershape, global_maxpool_compute};

const float kMin = std::numeric_limits<float>::min();  // the max start value
const float kNaN = std::numeric_limits<float>::quiet_NaN();
volatile float zero = 0.0f;
const float kZeroByZero = zero / zero;  // the processor's default NaN

TEST(GlobalPool, ReducesEachPlane) {
    const struct {
        const char *what;
        const Op *op;
        std::vector<uint32_t> dims, out_dims;
        std::vector<float> in, want;
    } cases[] = {
        {"2x2 means", &kAvg, {1, 3, 2, 2}, {1, 3, 1, 1}, {1, 2, 3, 4, -1, -2, -3, -6, 0.5f, 0.5f, 0.25f, 0.75f},
         {2.5f, -3, 0.5f}},
        // Ascending float sum: 1e8 + 1 rounds back to 1e8.
        {"summation order", &kAvg, {1, 1, 4}, {1, 1, 1}, {1e8f, 1, -1e8f, 1}, {0.25f}},
        // S = 1; the sum starts at +0.0, so -0.0 comes out as +0.0.
        {"rank 2 mean", &kAvg, {2, 2}, {2, 2}, {1, -2, 4.5f, -0.0f}, {1, -2, 4.5f, 0}},
        {"empty planes give 0/0", &kAvg, {1, 2, 0}, {1, 2, 1}, {}, {kZeroByZero, kZeroByZero}},
        {"five dims", &kAvg, {2, 1, 2, 1, 2}, {2, 1, 1, 1, 1}, {1, 2, 3, 4, 8, 8, 8, 0}, {2.5f, 6}},
        {"maxima", &kMax, {1, 2, 2, 2}, {1, 2, 1, 1}, {1, 7, 3, 7, 0.5f, 2, 9, -1}, {7, 9}},
        {"values at or below the start value", &kMax, {1, 3, 2}, {1, 3, 1}, {-1, -2, 0, -0.0f, 1e-39f, -7},
         {kMin, kMin, kMin}},
        {"NaN never wins", &kMax, {1, 2, 2}, {1, 2, 1}, {kNaN, 2, kNaN, kNaN}, {2, kMin}},
        // The rank-2 maximum equals the input only above the start value.
        {"rank 2 max", &kMax, {1, 3}, {1, 3}, {3, -3, 1e-38f}, {3, kMin, kMin}},
        {"empty planes give the start value", &kMax, {1, 2, 0}, {1, 2, 1}, {}, {kMin, kMin}},
    };
    for (const auto &t : cases) {
        SCOPED_TRACE(t.what);
        Ctx ctx(1, 1);
        std::vector<float> in = t.in;
        float empty = 0.0f;  // a present buffer of no elements
        ctx.input(0, shape_of(t.dims), in.empty() ? &empty : in.data(), 4 * in.size());
        ASSERT_EQ(t.op->infershape(ctx.h), 0u);
        EXPECT_EQ(dims_of(ctx.output_shape(0)), t.out_dims);
        std::vector<float> &out = ctx.alloc_output(0, 42.0f);
        ASSERT_EQ(t.op->compute(ctx.h), 0u);
        expect_bits(t.want, out);
    }
}

TEST(GlobalPool, MessagesAndGuards) {
    for (const Op *op : {&kAvg, &kMax}) {
        SCOPED_TRACE(op->name);
        Ctx two(2, 1);
        uint32_t status = 0;
        EXPECT_EQ(mask_error_lines(capture_stderr([&] { status = op->infershape(two.h); })),
                  std::string("[E] [custom] [") + op->name + "_ops_impl:L] " + op->name + " only support 1 inputs \n");
        EXPECT_EQ(status, uint32_t{NPU_ERR_INPUT_NUM});
        // Batch 0: the whole output buffer is zeroed, nothing else happens.
        std::vector<float> in(3, 2.0f), out(4, 42.0f);
        Ctx none(1, 1);
        none.input(0, shape_of({0, 2, 2}), in);
        qv_kel_custom_set_output_buf_by_index(none.h, 0, out.data(), 16);
        EXPECT_EQ(op->compute(none.h), 0u);
        EXPECT_EQ(out, std::vector<float>(4, 0.0f));
        // Guards: an output shorter than N x C and an input shorter than its
        // shape are clamped; plane 1 has one readable element of two.
        Ctx short_bufs(1, 1);
        short_bufs.input(0, shape_of({2, 3, 2}), in);
        qv_kel_custom_set_output_buf_by_index(short_bufs.h, 0, out.data(), 8);
        EXPECT_EQ(op->compute(short_bufs.h), 0u);
        EXPECT_EQ(out, (std::vector<float>{2, op == &kAvg ? 1.0f : 2.0f, 0, 0}));
        // N or C past INT32_MAX count as negative: the output is zeroed and
        // nothing is pooled (the buffers are far shorter than the shape).
        for (const auto &dims : {std::vector<uint32_t>{0x80000000u, 1, 2}, std::vector<uint32_t>{1, 0x80000001u, 2}}) {
            std::fill(out.begin(), out.end(), 42.0f);
            Ctx huge(1, 1);
            huge.input(0, shape_of(dims), in);
            qv_kel_custom_set_output_buf_by_index(huge.h, 0, out.data(), 16);
            EXPECT_EQ(op->compute(huge.h), 0u);
            EXPECT_EQ(out, std::vector<float>(4, 0.0f));
        }
        Ctx no_out(1, 1);
        no_out.input(0, shape_of({1, 1}), in);
        EXPECT_EQ(op->compute(no_out.h), uint32_t{NPU_ERR_INVALID_ARG});
    }
}

}  // namespace
