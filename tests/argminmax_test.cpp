// argmax / argmin: shape rule, tie rule, NaN, integer input, axis guards, messages.
#include <gtest/gtest.h>

#include <cmath>

#include "npucpu.h"
#include "test_util.h"

namespace {

using namespace npucpu_test;
using U = std::vector<uint32_t>;
constexpr uint32_t kS = 0xdeadbeefu;  // sentinel
constexpr int64_t kAbsent = -99;      // attribute not given
const float kNaN = std::nanf("");

struct Op {
    const char *name;
    uint32_t (*infer)(OperatorContext *), (*check)(OperatorContext *), (*compute)(OperatorContext *);
};
const Op kMax{"argmax", argmax_infershape, argmax_check_supported, argmax_compute};
const Op kMin{"argmin", argmin_infershape, argmin_check_supported, argmin_compute};

TEST(ArgMinMax, Table) {
    const std::vector<float> x = {3, 1, 4, 1, 5, 9, 2, 6, 5, 3, 5, 8, 9, 7, 9, 3, 2, 3, 8, 4, 6, 2, 6, 4};
    const struct {
        const char *what;
        const Op *op;
        U shape;
        std::vector<float> data;
        int64_t axis, keepdims, last;
        uint32_t status;  // of infershape and compute
        U out_shape, out;  // out: the whole output buffer, inferred size plus two sentinel slots
    } cases[] = {
        {"first of tied maxima", &kMax, {1, 3}, {1, 5, 5}, 1, 0, kAbsent, 0, {1}, {1, kS, kS}},
        {"last of tied maxima", &kMax, {1, 3}, {1, 5, 5}, 1, 0, 1, 0, {1}, {2, kS, kS}},
        {"last of tied minima", &kMin, {4}, {2, 0, 7, 0}, 0, 0, 2, 0, {1}, {3, kS, kS}},
        {"signed zeros tie", &kMax, {3}, {-0.0f, 0.0f, -1}, 0, 0, 1, 0, {1}, {1, kS, kS}},
        {"NaN first stays", &kMin, {3}, {kNaN, -5, -7}, 0, 0, 0, 0, {1}, {0, kS, kS}},
        {"NaN later skipped", &kMax, {3}, {1, kNaN, 0}, 0, 0, 0, 0, {1}, {0, kS, kS}},
        {"axis -1 keepdims 1", &kMax, {2, 3, 4}, x, -1, 1, 0, 0, {2, 3, 1}, {2, 1, 3, 0, 2, 0, kS, kS}},
        {"keepdims 2 acts as 0", &kMin, {2, 3, 4}, x, 2, 2, 0, 0, {2, 3}, {1, 2, 1, 3, 0, 1, kS, kS}},
        {"middle axis: outer major", &kMin, {2, 3, 4}, x, 1, 1, 0, 0, {2, 1, 4}, {0, 0, 1, 0, 1, 2, 2, 0, kS, kS}},
        {"defaults: axis 0 removed", &kMax, {2, 2}, {1, 4, 3, 2}, kAbsent, kAbsent, kAbsent, 0, {2}, {1, 0, kS, kS}},
        {"rank 0 with keepdims 1", &kMax, {}, {42}, 0, 1, 0, 0, {1}, {0, kS, kS}},
        {"rank 0 without keepdims", &kMin, {}, {42}, 0, 0, 0, NPU_ERR_INPUT_NUM, {}, {kS, kS}},
        // Axis outside the rank: not detected, but buffers are not overrun.
        {"axis == rank, cut to the output", &kMax, {2, 3}, x, 2, 0, 0, 0, {2}, {0, 0, kS, kS}},
        {"axis past the rank", &kMax, {2, 3}, x, 5, 1, 0, 0, {2, 3}, U(8, kS)},
        {"axis below -rank", &kMin, {2, 3}, x, -3, 0, 0, 0, {2}, {kS, kS, kS, kS}},
    };
    for (const auto &tc : cases) {
        SCOPED_TRACE(std::string(tc.op->name) + ": " + tc.what);
        std::vector<float> data = tc.data;
        Ctx c(1, 1, 3);
        c.input(0, shape_of(tc.shape), data);
        if (tc.axis != kAbsent) c.attr_int(0, "axis", tc.axis);
        if (tc.keepdims != kAbsent) c.attr_int(1, "keepdims", tc.keepdims);
        if (tc.last != kAbsent) c.attr_int(2, "select_last_index", tc.last);
        EXPECT_EQ(capture_stderr([&] {
                      EXPECT_EQ(tc.op->infer(c.h), tc.status);
                      if (tc.status == NPU_OK) { EXPECT_EQ(dims_of(c.output_shape(0)), tc.out_shape); }
                      U out(tc.out.size(), kS);
                      qv_kel_custom_set_output_buf_by_index(c.h, 0, out.data(), (out.size() - 2) * 4);
                      EXPECT_EQ(tc.op->compute(c.h), tc.status);
                      EXPECT_EQ(out, tc.out);
                  }), "");
    }
}

TEST(ArgMinMax, IntegerInputDataTypesAndMessages) {
    std::vector<int32_t> v = {5, -7, 2147483647, -2147483647 - 1, 3, 2147483647};
    for (const Op *op : {&kMax, &kMin}) {
        SCOPED_TRACE(op->name);
        Ctx c(1, 1, 1);
        c.input(0, shape_of({6}), v.data(), 24, NPU_DTYPE_INT32);
        c.attr_int(0, "select_last_index", 1);
        EXPECT_EQ(op->check(c.h), 0u);  // refused, yet computed
        ASSERT_EQ(op->infer(c.h), NPU_OK);
        uint32_t dtype = 0, out = kS;
        qv_kel_custom_get_output_dtype_by_index(c.h, 0, &dtype);
        EXPECT_EQ(dtype, NPU_DTYPE_INT32);
        EXPECT_EQ(op->compute(c.h), NPU_ERR_INVALID_ARG);  // no output buffer yet
        qv_kel_custom_set_output_buf_by_index(c.h, 0, &out, 4);
        EXPECT_EQ(op->compute(c.h), NPU_OK);
        EXPECT_EQ(out, op == &kMax ? 5u : 3u);
        c.input(0, shape_of({6}), v.data(), 24, NPU_DTYPE_UINT32);
        EXPECT_EQ(op->compute(c.h), NPU_ERR_INVALID_ARG);
        c.input(0, shape_of({6}), nullptr, 24, NPU_DTYPE_FLOAT32);
        EXPECT_EQ(op->check(c.h), 1u);
        EXPECT_EQ(op->compute(c.h), NPU_ERR_INVALID_ARG);
        EXPECT_EQ(out, op == &kMax ? 5u : 3u);
        Ctx two(2, 1);
        const std::string err = capture_stderr([&] { EXPECT_EQ(op->infer(two.h), NPU_ERR_INPUT_NUM); });
        EXPECT_EQ(mask_error_lines(err),
                  "[E] [custom] [" + std::string(op->name) + "_ops_impl:L] " + op->name + " only support 1 inputs \n");
    }
    // The exported walk on its own: [2, 2, 2] along axis 1.
    const TensorShape s = shape_of({2, 2, 2});
    const int32_t in[] = {1, 8, 3, 4, 9, 6, 7, 6};
    uint32_t out[4] = {};
    get_min_s32(in, out, &s, 1, 1);
    EXPECT_EQ(U(out, out + 4), (U{0, 1, 1, 1}));
}

}  // namespace
