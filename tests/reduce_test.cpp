// reducemax / reducemin / reducemean: the shared shape rule, the three
// deliberately different computes, guards and messages.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "npucpu.h"
#include "test_util.h"

using npucpu_test::Ctx;
using npucpu_test::shape_of;

namespace {

const float kNaN = std::nanf("");
const float kSentinel = -12345.0f;

struct ReduceOp {
    const char *name;
    uint32_t (*infershape)(OperatorContext *);
    uint32_t (*check_supported)(OperatorContext *);
    uint32_t (*compute)(OperatorContext *);
};
const ReduceOp kMax{"reducemax", reducemax_infershape, reducemax_check_supported,
                    reducemax_compute};
const ReduceOp kMin{"reducemin", reducemin_infershape, reducemin_check_supported,
                    reducemin_compute};
const ReduceOp kMean{"reducemean", reducemean_infershape, reducemean_check_supported,
                     reducemean_compute};
const ReduceOp *const kAll[] = {&kMax, &kMin, &kMean};

using Axes = std::optional<std::vector<int64_t>>;

void describe(Ctx &c, const TensorShape &shape, std::vector<float> &data, Axes axes,
              int64_t keepdims) {
    c.input(0, shape, data);
    c.attr_int(0, "keepdims", keepdims);
    if (axes) c.attr_ints(1, "axes", *axes);
}

uint32_t bits(float f) {
    uint32_t u;
    std::memcpy(&u, &f, 4);
    return u;
}

// Compares float vectors bit for bit (NaN included), naming the first
// difference.
void expect_bits(const std::vector<float> &got, const std::vector<float> &want) {
    ASSERT_EQ(got.size(), want.size());
    for (size_t i = 0; i < got.size(); ++i) {
        ASSERT_EQ(bits(got[i]), bits(want[i])) << "index " << i << ": " << got[i] << " vs "
                                               << want[i];
    }
}

struct ShapeCase {
    const char *what;
    std::vector<uint32_t> shape;
    Axes axes;
    int64_t keepdims;
    uint32_t status;
    std::vector<uint32_t> out_shape;  // when status is 0
    std::string message;              // after "[E] [custom] [<op>_ops_impl:L] "
};

TEST(Reduce, ShapeInference) {
    const std::vector<ShapeCase> cases = {
        {"every axis without keepdims", {2, 3, 4}, std::nullopt, 0, 0, {1}, ""},
        {"every axis with keepdims", {2, 3, 4}, std::nullopt, 1, 0, {1, 1, 1}, ""},
        {"keepdims 2 acts as 0", {2, 3, 4}, std::vector<int64_t>{1}, 2, 0, {2, 4}, ""},
        {"empty axes reduce nothing", {2, 3, 4}, std::vector<int64_t>{}, 0, 0, {2, 3, 4}, ""},
        {"empty axes with keepdims", {2, 3}, std::vector<int64_t>{}, 1, 0, {2, 3}, ""},
        {"negative axis", {2, 3}, std::vector<int64_t>{-1}, 0, 0, {2}, ""},
        {"negative axis with keepdims", {2, 3}, std::vector<int64_t>{-1}, 1, 0, {2, 1}, ""},
        {"count test: [0, 0] on rank 2", {2, 3}, std::vector<int64_t>{0, 0}, 0, 0, {1}, ""},
        {"[0, 0] with keepdims", {2, 3}, std::vector<int64_t>{0, 0}, 1, 0, {1, 3}, ""},
        {"two of three axes", {2, 3, 4}, std::vector<int64_t>{2, 0}, 0, 0, {3}, ""},
        {"rank 0 gives rank 0", {}, std::nullopt, 0, 0, {}, ""},
        {"axis equal to the rank", {2, 3}, std::vector<int64_t>{2}, 0, NPU_ERR_INPUT_NUM, {},
         "Reduce Op axis: 2 must be in [-2, 1] \n"},
        {"axis below -rank", {2, 3}, std::vector<int64_t>{-3}, 1, NPU_ERR_INPUT_NUM, {},
         "Reduce Op axis: -3 must be in [-2, 1] \n"},
        {"list longer than the rank", {2, 3}, std::vector<int64_t>{0, 1, 0}, 0,
         NPU_ERR_INPUT_NUM, {}, ""},
        {"surplus entry itself out of range", {2, 3}, std::vector<int64_t>{1, 0, 9}, 0,
         NPU_ERR_INPUT_NUM, {}, ""},
        {"earlier out-of-range entry still reported", {2, 3}, std::vector<int64_t>{0, 5, 0}, 0,
         NPU_ERR_INPUT_NUM, {}, "Reduce Op axis: 5 must be in [-2, 1] \n"},
        {"any entry of a rank-0 input is surplus", {}, std::vector<int64_t>{0}, 0,
         NPU_ERR_INPUT_NUM, {}, ""},
    };
    for (const ReduceOp *op : kAll) {
        for (const ShapeCase &tc : cases) {
            SCOPED_TRACE(std::string(op->name) + ": " + tc.what);
            std::vector<float> data(24, 1.0f);
            Ctx c(1, 1, 2);
            describe(c, shape_of(tc.shape), data, tc.axes, tc.keepdims);
            TensorShape before{};
            before.dim_num = 9;
            qv_kel_custom_set_output_shape_by_index(c.h, 0, &before);
            std::string err =
                npucpu_test::capture_stderr([&] { EXPECT_EQ(op->infershape(c.h), tc.status); });
            const std::string want_err =
                tc.message.empty()
                    ? ""
                    : "[E] [custom] [" + std::string(op->name) + "_ops_impl:L] " + tc.message;
            EXPECT_EQ(npucpu_test::mask_error_lines(err), want_err);
            TensorShape s = c.output_shape(0);
            if (tc.status == NPU_OK) {
                EXPECT_EQ(npucpu_test::dims_of(s), tc.out_shape);
            } else {
                EXPECT_EQ(s.dim_num, 9) << "output written on refusal";
            }
        }
    }
}

struct ComputeCase {
    const char *what;
    const ReduceOp *op;
    std::vector<uint32_t> shape;
    std::vector<float> data;
    Axes axes;
    std::vector<float> want;
};

TEST(Reduce, Compute) {
    const std::vector<float> m23 = {1, 2, 3, 4, 5, 6};
    const std::vector<float> skew = {5, 5, 5, 9, 0, 9};
    std::vector<float> x234(24);
    for (int i = 0; i < 24; ++i) x234[i] = static_cast<float>((i * 7) % 11) - 3.0f;
    const std::vector<ComputeCase> cases = {
        {"max over everything", &kMax, {2, 3, 4}, x234, std::nullopt, {7}},
        {"min over everything", &kMin, {2, 3, 4}, x234, std::nullopt, {-3}},
        {"max of rows", &kMax, {2, 3}, m23, std::vector<int64_t>{1}, {3, 6}},
        {"min of columns", &kMin, {2, 3}, m23, std::vector<int64_t>{0}, {1, 2, 3}},
        {"mean of columns", &kMean, {2, 3}, m23, std::vector<int64_t>{-2}, {2.5f, 3.5f, 4.5f}},
        {"max with axes [1, 0]", &kMax, {2, 3}, m23, std::vector<int64_t>{1, 0}, {6}},
        {"max shrinks the working shape", &kMax, {2, 3}, skew, std::vector<int64_t>{1, 0}, {9}},
        {"min keeps the input shape: [1, 0]", &kMin, {2, 3}, skew, std::vector<int64_t>{1, 0},
         {5}},
        {"min in ascending order", &kMin, {2, 3}, skew, std::vector<int64_t>{0, 1}, {0}},
        {"mean with axes [1, 0] gives 3", &kMean, {2, 3}, m23, std::vector<int64_t>{1, 0}, {3}},
        {"mean with axes [0, 1] gives 3.5", &kMean, {2, 3}, m23, std::vector<int64_t>{0, 1},
         {3.5f}},
        {"mean sums in index order", &kMean, {4}, {1e8f, 1, -1e8f, 1}, std::nullopt, {0.25f}},
        {"mean of a middle axis", &kMean, {2, 3, 4}, x234, std::vector<int64_t>{1},
         {-2.0f / 3, 8.0f / 3, 7.0f / 3, 2, 8.0f / 3, 7.0f / 3, 2, 5.0f / 3}},
        {"empty axes copy the input", &kMean, {2, 3}, m23, std::vector<int64_t>{}, m23},
        {"NaN first stays the maximum", &kMax, {3}, {kNaN, 1, 2}, std::nullopt, {kNaN}},
        {"NaN later is skipped by max", &kMax, {3}, {1, kNaN, 2}, std::nullopt, {2}},
        {"NaN later is skipped by min", &kMin, {3}, {1, kNaN, 0}, std::nullopt, {0}},
        {"NaN in a mean", &kMean, {2}, {1, kNaN}, std::nullopt, {kNaN}},
        {"rank 0 is copied", &kMax, {}, {-4}, std::nullopt, {-4}},
    };
    for (const ComputeCase &tc : cases) {
        SCOPED_TRACE(std::string(tc.op->name) + ": " + tc.what);
        std::vector<float> data = tc.data;
        Ctx c(1, 1, 2);
        describe(c, shape_of(tc.shape), data, tc.axes, 0);
        ASSERT_EQ(tc.op->infershape(c.h), NPU_OK);
        ASSERT_EQ(tc.op->check_supported(c.h), 1u);
        std::vector<float> &out = c.alloc_output(0, kSentinel);
        EXPECT_EQ(tc.op->compute(c.h), NPU_OK);
        expect_bits(out, tc.want);
    }
}

TEST(Reduce, ZeroLengthAxisWritesNothing) {
    for (const ReduceOp *op : kAll) {
        SCOPED_TRACE(op->name);
        std::vector<float> none(1);
        Ctx c(1, 1, 2);
        c.input(0, shape_of({2, 0, 3}), none.data(), 0);
        c.attr_ints(0, "axes", {1});
        ASSERT_EQ(op->infershape(c.h), NPU_OK);
        EXPECT_EQ(npucpu_test::dims_of(c.output_shape(0)), (std::vector<uint32_t>{2, 3}));
        std::vector<float> &out = c.alloc_output(0, kSentinel);
        EXPECT_EQ(op->compute(c.h), NPU_OK);
        expect_bits(out, std::vector<float>(6, kSentinel));
    }
}

TEST(Reduce, ComputeRefusals) {
    for (const ReduceOp *op : kAll) {
        SCOPED_TRACE(op->name);
        std::vector<float> data = {1, 2, 3, 4};
        std::vector<float> out(4, kSentinel);
        auto compute = [&](Ctx &c) {
            qv_kel_custom_set_output_buf_by_index(c.h, 0, out.data(), 16);
            std::string err;
            uint32_t st = 0;
            err = npucpu_test::capture_stderr([&] { st = op->compute(c.h); });
            EXPECT_EQ(err, "");
            return st;
        };
        {
            Ctx c(1, 1, 2);
            c.input(0, shape_of({2, 2}), data.data(), 16, NPU_DTYPE_INT32);
            EXPECT_EQ(op->check_supported(c.h), 0u);
            EXPECT_EQ(compute(c), NPU_ERR_INVALID_ARG);
        }
        {
            Ctx c(1, 1, 2);
            c.input(0, shape_of({2, 2}), nullptr, 16);
            EXPECT_EQ(compute(c), NPU_ERR_INVALID_ARG);
        }
        {
            Ctx c(1, 1, 2);
            describe(c, shape_of({2, 2}), data, std::vector<int64_t>{0, 1, 1}, 0);
            EXPECT_EQ(compute(c), NPU_ERR_INPUT_NUM);
        }
        {
            Ctx c(1, 1, 2);
            describe(c, shape_of({2, 2}), data, std::vector<int64_t>{1, 2}, 0);
            EXPECT_EQ(compute(c), NPU_ERR_INVALID_ARG);
        }
        expect_bits(out, std::vector<float>(4, kSentinel));
        {
            Ctx c(1, 1, 2);
            describe(c, shape_of({2, 2}), data, std::nullopt, 0);
            EXPECT_EQ(op->compute(c.h), NPU_ERR_INVALID_ARG);  // no output buffer
        }
    }
}

}  // namespace
