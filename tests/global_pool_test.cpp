// Global average and max pooling: shapes, reduction order, the max start
// value, empty planes and batches, messages and the bad-input guards.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "npucpu.h"
#include "test_util.h"

namespace {

using npucpu_test::Ctx;
using npucpu_test::dims_of;
using npucpu_test::shape_of;

typedef uint32_t (*EntryPoint)(OperatorContext *);

struct GlobalOp {
    const char *name;
    EntryPoint infershape;
    EntryPoint check_supported;
    EntryPoint compute;
};

const GlobalOp kAvg = {"global_averagepool", global_averagepool_infershape,
                       global_averagepool_check_supported, global_averagepool_compute};
const GlobalOp kMax = {"global_maxpool", global_maxpool_infershape,
                       global_maxpool_check_supported, global_maxpool_compute};

const float kMin = std::numeric_limits<float>::min();  // 1.17549435e-38
const float kNaN = std::numeric_limits<float>::quiet_NaN();

uint32_t bits(float f) {
    uint32_t b;
    std::memcpy(&b, &f, 4);
    return b;
}

// Compares bit patterns, so NaN, -0.0 and the start value are told apart.
void expect_bits(const std::vector<float> &got, const std::vector<float> &want) {
    ASSERT_EQ(got.size(), want.size());
    for (size_t i = 0; i < got.size(); ++i) {
        if (std::isnan(want[i])) {
            EXPECT_TRUE(std::isnan(got[i])) << "element " << i << " = " << got[i];
        } else {
            EXPECT_EQ(bits(got[i]), bits(want[i]))
                << "element " << i << ": got " << got[i] << ", want " << want[i];
        }
    }
}

struct PoolCase {
    const char *what;
    const GlobalOp *op;
    std::vector<uint32_t> dims;
    std::vector<float> in;
    std::vector<uint32_t> out_dims;
    std::vector<float> want;
};

TEST(GlobalPool, ComputesPerPlane) {
    const std::vector<PoolCase> cases = {
        {"mean of each 2x2 channel", &kAvg, {1, 3, 2, 2},
         {1, 2, 3, 4, -1, -2, -3, -6, 0.5f, 0.5f, 0.25f, 0.75f}, {1, 3, 1, 1}, {2.5f, -3, 0.5f}},
        // Summed in ascending order in float: (1e8 + 1) rounds back to 1e8.
        {"sum order fixes the rounding", &kAvg, {1, 1, 4}, {1e8f, 1, -1e8f, 1}, {1, 1, 1},
         {0.25f}},
        // The sum starts at +0.0, so -0.0 comes out as +0.0.
        {"rank 2 mean is the input", &kAvg, {2, 3}, {1, -2, 3, 4.5f, 0, -0.0f}, {2, 3},
         {1, -2, 3, 4.5f, 0, 0}},
        {"no spatial elements give 0/0", &kAvg, {1, 2, 0}, {}, {1, 2, 1}, {kNaN, kNaN}},
        {"five-dimensional mean", &kAvg, {2, 1, 2, 1, 2}, {1, 2, 3, 4, 8, 8, 8, 0}, {2, 1, 1, 1, 1},
         {2.5f, 6}},
        {"max of each channel", &kMax, {1, 3, 2, 2}, {1, 7, 3, 7, 0.5f, 2, 9, -1, 4, 4, 4, 4},
         {1, 3, 1, 1}, {7, 9, 4}},
        {"all-negative and all-zero channels keep the start value", &kMax, {2, 2, 3},
         {-1, -2, -3, 0, 0, -0.0f, -5, 1e-39f, -7, 2, -1, 3}, {2, 2, 1}, {kMin, kMin, kMin, 3}},
        {"NaN never wins", &kMax, {1, 2, 3}, {kNaN, -1, 2, kNaN, kNaN, kNaN}, {1, 2, 1}, {2, kMin}},
        // The edge-case list says a rank-2 max equals its input; the start
        // value makes that hold only for values above it.
        {"rank 2 max", &kMax, {1, 4}, {3, -3, 0, 1e-38f}, {1, 4}, {3, kMin, kMin, kMin}},
        {"no spatial elements give the start value", &kMax, {1, 2, 0}, {}, {1, 2, 1}, {kMin, kMin}},
    };
    for (const PoolCase &t : cases) {
        SCOPED_TRACE(t.what);
        Ctx ctx(1, 1);
        std::vector<float> in = t.in;
        float empty = 0.0f;  // a present buffer of no elements
        ctx.input(0, shape_of(t.dims), in.empty() ? &empty : in.data(), in.size() * 4);
        ASSERT_EQ(t.op->infershape(ctx.h), 0u);
        EXPECT_EQ(dims_of(ctx.output_shape(0)), t.out_dims);
        std::vector<float> &out = ctx.alloc_output(0, 42.0f);
        ASSERT_EQ(t.op->compute(ctx.h), 0u);
        expect_bits(out, t.want);
    }
}

TEST(GlobalPool, InfershapeKeepsTypeAndFormatAndChecksInputCount) {
    for (const GlobalOp *op : {&kAvg, &kMax}) {
        SCOPED_TRACE(op->name);
        Ctx ctx(1, 1);
        int32_t data[1] = {0};
        ctx.input(0, shape_of({2, 5, 3, 4}), data, 0, NPU_DTYPE_INT32, NPU_FORMAT_NHWC);
        ASSERT_EQ(op->infershape(ctx.h), 0u);
        EXPECT_EQ(dims_of(ctx.output_shape(0)), (std::vector<uint32_t>{2, 5, 1, 1}));
        uint32_t dtype = 99, format = 99;
        qv_kel_custom_get_output_dtype_by_index(ctx.h, 0, &dtype);
        qv_kel_custom_get_output_format_by_index(ctx.h, 0, &format);
        EXPECT_EQ(dtype, uint32_t{NPU_DTYPE_INT32});
        EXPECT_EQ(format, uint32_t{NPU_FORMAT_NHWC});
        EXPECT_EQ(op->check_supported(ctx.h), 0u);

        Ctx two(2, 1);
        uint32_t status = 0;
        const std::string err = npucpu_test::mask_error_lines(
            npucpu_test::capture_stderr([&] { status = op->infershape(two.h); }));
        EXPECT_EQ(status, uint32_t{NPU_ERR_INPUT_NUM});
        EXPECT_EQ(err, std::string("[E] [custom] [") + op->name + "_ops_impl:L] " + op->name +
                           " only support 1 inputs \n");
    }
}

TEST(GlobalPool, BadBuffersAndEmptyBatches) {
    for (const GlobalOp *op : {&kAvg, &kMax}) {
        SCOPED_TRACE(op->name);
        std::vector<float> in(8, -1.0f);
        std::vector<float> out(4, 42.0f);
        {
            // Batch 0: the whole output buffer is zeroed and nothing else happens.
            Ctx ctx(1, 1);
            ctx.input(0, shape_of({0, 2, 2, 2}), in);
            qv_kel_custom_set_output_buf_by_index(ctx.h, 0, out.data(), out.size() * 4);
            EXPECT_EQ(op->check_supported(ctx.h), 1u);
            EXPECT_EQ(op->compute(ctx.h), 0u);
            EXPECT_EQ(out, std::vector<float>(4, 0.0f));
        }
        {
            Ctx ctx(1, 1);
            ctx.input(0, shape_of({1, 2, 2, 2}), nullptr, 32);
            qv_kel_custom_set_output_buf_by_index(ctx.h, 0, out.data(), out.size() * 4);
            EXPECT_EQ(op->compute(ctx.h), uint32_t{NPU_ERR_INVALID_ARG});
            Ctx no_out(1, 1);
            no_out.input(0, shape_of({1, 2, 2, 2}), in);
            EXPECT_EQ(op->compute(no_out.h), uint32_t{NPU_ERR_INVALID_ARG});
        }
        {
            // Guards: an output shorter than N x C and an input shorter than
            // its shape are clamped (the sanitizer build catches any overrun).
            std::vector<float> short_in(3, 2.0f);
            std::vector<float> short_out(2, 42.0f);
            Ctx ctx(1, 1);
            ctx.input(0, shape_of({2, 3, 2}), short_in);
            qv_kel_custom_set_output_buf_by_index(ctx.h, 0, short_out.data(), 8);
            EXPECT_EQ(op->compute(ctx.h), 0u);
            // Plane 1 holds one readable element of two.
            EXPECT_EQ(short_out[0], 2.0f);
            EXPECT_EQ(short_out[1], op == &kAvg ? 1.0f : 2.0f);
        }
    }
}

}  // namespace
