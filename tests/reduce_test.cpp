// reducemax / reducemin / reducemean: the shared shape rule and the three computes.
#include <gtest/gtest.h>

#include <cmath>
#include <optional>

#include "npucpu.h"
#include "test_util.h"

namespace {

using namespace npucpu_test;
using Axes = std::optional<std::vector<int64_t>>;
using A = std::vector<int64_t>;
using F = std::vector<float>;
constexpr float kS = -12345.0f;  // sentinel
const float kNaN = std::nanf("");

struct Op {
    const char *name;
    uint32_t (*infer)(OperatorContext *), (*check)(OperatorContext *), (*compute)(OperatorContext *);
};
const Op kMax{"reducemax", reducemax_infershape, reducemax_check_supported, reducemax_compute};
const Op kMin{"reducemin", reducemin_infershape, reducemin_check_supported, reducemin_compute};
const Op kMean{"reducemean", reducemean_infershape, reducemean_check_supported, reducemean_compute};

TEST(Reduce, ShapeInference) {
    const uint32_t kRefused = NPU_ERR_INPUT_NUM;
    const struct {
        std::vector<uint32_t> shape;
        Axes axes;
        int64_t keepdims;
        std::vector<uint32_t> out_shape;
        std::string message;  // text after the unit, "" for none
        uint32_t status = NPU_OK;
    } cases[] = {
        {{2, 3, 4}, std::nullopt, 0, {1}, ""},
        {{2, 3, 4}, std::nullopt, 1, {1, 1, 1}, ""},
        {{2, 3, 4}, A{1}, 2, {2, 4}, ""},
        {{2, 3, 4}, A{}, 0, {2, 3, 4}, ""},
        {{2, 3}, A{-1}, 1, {2, 1}, ""},
        {{2, 3}, A{0, 0}, 0, {1}, ""},  // the count alone decides
        {{2, 3}, A{0, 0}, 1, {1, 3}, ""},
        {{}, std::nullopt, 0, {}, ""},
        {{2, 3}, A{2}, 0, {}, "Reduce Op axis: 2 must be in [-2, 1] \n", kRefused},
        {{2, 3}, A{-3}, 1, {}, "Reduce Op axis: -3 must be in [-2, 1] \n", kRefused},
        {{2, 3}, A{0, 5, 0}, 0, {}, "Reduce Op axis: 5 must be in [-2, 1] \n", kRefused},
        {{2, 3}, A{1, 0, 9}, 0, {}, "", kRefused},  // longer than the rank
        {{}, A{0}, 0, {}, "", kRefused},
    };
    for (const Op *op : {&kMax, &kMin, &kMean}) {
        for (const auto &tc : cases) {
            SCOPED_TRACE(std::string(op->name) + " " + ::testing::PrintToString(tc.shape) + " " + tc.message);
            F data(24, 1.0f);
            Ctx c(1, 1, 2);
            c.input(0, shape_of(tc.shape), data);
            c.attr_int(0, "keepdims", tc.keepdims);
            if (tc.axes) c.attr_ints(1, "axes", *tc.axes);
            const std::string err = capture_stderr([&] { EXPECT_EQ(op->infer(c.h), tc.status); });
            EXPECT_EQ(mask_error_lines(err),
                      tc.message.empty() ? "" : "[E] [custom] [" + std::string(op->name) + "_ops_impl:L] " +
                                                    tc.message);
            if (tc.status == NPU_OK) { EXPECT_EQ(dims_of(c.output_shape(0)), tc.out_shape); }
            // Compute refuses the over-long list too, and an out-of-range axis.
            if (tc.status != NPU_OK && !tc.shape.empty()) {
                F out(6, kS);
                qv_kel_custom_set_output_buf_by_index(c.h, 0, out.data(), 24);
                const bool too_long = tc.axes->size() > tc.shape.size();
                EXPECT_EQ(op->compute(c.h), too_long ? NPU_ERR_INPUT_NUM : NPU_ERR_INVALID_ARG);
                EXPECT_EQ(out, F(6, kS));
            }
        }
    }
}

TEST(Reduce, Compute) {
    const F m = {1, 2, 3, 4, 5, 6};
    const F skew = {5, 5, 5, 9, 0, 9};
    F x(24);
    for (int i = 0; i < 24; ++i) x[i] = static_cast<float>((i * 7) % 11) - 3.0f;
    const struct { const Op *op; std::vector<uint32_t> shape; F data; Axes axes; F want; } cases[] = {
        {&kMax, {2, 3, 4}, x, std::nullopt, {7}},
        {&kMin, {2, 3, 4}, x, std::nullopt, {-3}},
        {&kMean, {2, 3, 4}, x, A{1}, {-2.0f / 3, 8.0f / 3, 7.0f / 3, 2, 8.0f / 3, 7.0f / 3, 2, 5.0f / 3}},
        {&kMax, {2, 3}, m, A{1}, {3, 6}},
        {&kMin, {2, 3}, m, A{-2}, {1, 2, 3}},
        // Several axes: only reducemax shrinks its working shape.
        {&kMax, {2, 3}, skew, A{1, 0}, {9}},
        {&kMin, {2, 3}, skew, A{1, 0}, {5}},
        {&kMin, {2, 3}, skew, A{0, 1}, {0}},
        {&kMean, {2, 3}, m, A{1, 0}, {3}},
        {&kMean, {2, 3}, m, A{0, 1}, {3.5f}},
        {&kMean, {4}, {1e8f, 1, -1e8f, 1}, std::nullopt, {0.25f}},  // index order
        {&kMean, {2, 3}, m, A{}, m},
        {&kMax, {3}, {kNaN, 1, 2}, std::nullopt, {kNaN}},
        {&kMax, {3}, {1, kNaN, 2}, std::nullopt, {2}},
        {&kMin, {3}, {1, kNaN, 0}, std::nullopt, {0}},
        {&kMax, {}, {-4}, std::nullopt, {-4}},
        {&kMean, {2, 0, 3}, {}, A{1}, F(6, kS)},  // zero-length axis: nothing written
    };
    for (const auto &tc : cases) {
        SCOPED_TRACE(std::string(tc.op->name) + " " + ::testing::PrintToString(tc.data));
        F data = tc.data;
        data.push_back(0);  // a non-null buffer even for no elements
        Ctx c(1, 1, 1);
        c.input(0, shape_of(tc.shape), data.data(), tc.data.size() * 4);
        if (tc.axes) c.attr_ints(0, "axes", *tc.axes);
        ASSERT_EQ(tc.op->infer(c.h), NPU_OK);
        EXPECT_EQ(tc.op->check(c.h), 1u);
        F &out = c.alloc_output(0, kS);
        EXPECT_EQ(tc.op->compute(c.h), NPU_OK);
        expect_bits(tc.want, out);
    }
}

TEST(Reduce, ComputeRefusals) {
    for (const Op *op : {&kMax, &kMin, &kMean}) {
        SCOPED_TRACE(op->name);
        F data = {1, 2, 3, 4}, out(4, kS);
        Ctx c(1, 1);
        c.input(0, shape_of({4}), data.data(), 16, NPU_DTYPE_INT32);
        EXPECT_EQ(op->check(c.h), 0u);
        EXPECT_EQ(op->compute(c.h), NPU_ERR_INVALID_ARG);
        c.input(0, shape_of({4}), data);
        EXPECT_EQ(op->compute(c.h), NPU_ERR_INVALID_ARG);  // no output buffer
        qv_kel_custom_set_output_buf_by_index(c.h, 0, out.data(), 16);
        c.input(0, shape_of({4}), nullptr, 16);
        EXPECT_EQ(op->compute(c.h), NPU_ERR_INVALID_ARG);
        EXPECT_EQ(out, F(4, kS));
    }
}

}  // namespace
