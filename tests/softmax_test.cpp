// softmax and basic_softmax: axis default, the start of the maximum, exact
// bits, guards and messages.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "npucpu.h"
#include "test_util.h"

using npucpu_test::Ctx;
using npucpu_test::shape_of;

namespace {

const float kSentinel = -12345.0f;

float from_bits(uint32_t u) {
    float f;
    std::memcpy(&f, &u, 4);
    return f;
}
uint32_t bits(float f) {
    uint32_t u;
    std::memcpy(&u, &f, 4);
    return u;
}

struct Case {
    const char *what;
    std::vector<uint32_t> shape;
    std::vector<float> data;
    std::optional<int64_t> axis;
    std::vector<uint32_t> want;  // bit patterns
};

TEST(Softmax, Values) {
    const uint32_t half = bits(0.5f), nan_bits = bits(std::nanf(""));
    const std::vector<Case> cases = {
        {"[1, 2, 3]", {3}, {1, 2, 3}, std::nullopt, {0x3db861f3, 0x3e7a9a1a, 0x3f2a4d3b}},
        {"no axis attribute means axis 0", {2, 3}, {1, 2, 3, 1, 2, 3}, std::nullopt,
         {half, half, half, half, half, half}},
        {"axis 1 of [2, 3]", {2, 3}, {1, 2, 3, 3, 2, 1}, 1,
         {0x3db861f3, 0x3e7a9a1a, 0x3f2a4d3b, 0x3f2a4d3b, 0x3e7a9a1a, 0x3db861f3}},
        {"axis -1 of a rank-3 input is axis 2", {1, 2, 2}, {-1, -2, 7, 7}, -1,
         {0x3f3b26a8, 0x3e89b2b1, half, half}},
        {"all negative: nothing subtracted", {2}, {-1, -2}, 0, {0x3f3b26a8, 0x3e89b2b1}},
        {"far below zero underflows to NaN", {2}, {-1000, -1000}, 0, {nan_bits, nan_bits}},
        {"far above zero: the maximum is subtracted", {2}, {1000, 1000}, 0, {half, half}},
        {"mixed slice", {4}, {0.5f, -0.25f, 3.75f, 1.0f}, 0,
         {0x3d0dac91, 0x3c85d81e, 0x3f645d2a, 0x3d6994c1}},
    };
    for (const Case &tc : cases) {
        SCOPED_TRACE(tc.what);
        std::vector<float> data = tc.data;
        Ctx c(1, 1, 1);
        c.input(0, shape_of(tc.shape), data);
        if (tc.axis) c.attr_int(0, "axis", *tc.axis);
        ASSERT_EQ(softmax_infershape(c.h), NPU_OK);
        EXPECT_EQ(npucpu_test::dims_of(c.output_shape(0)), tc.shape);
        EXPECT_EQ(softmax_check_supported(c.h), 1u);
        std::vector<float> &out = c.alloc_output(0, kSentinel);
        EXPECT_EQ(softmax_compute(c.h), NPU_OK);
        std::vector<uint32_t> got;
        for (float f : out) got.push_back(bits(f));
        // Any NaN pattern will do for a NaN.
        for (size_t i = 0; i < got.size(); ++i) {
            if (std::isnan(from_bits(tc.want[i]))) {
                EXPECT_TRUE(std::isnan(out[i])) << "index " << i;
                got[i] = tc.want[i];
            }
        }
        EXPECT_EQ(got, tc.want);
    }
}

TEST(Softmax, BasicSoftmaxOwnsItsResult) {
    const float x[] = {1, 2, 3};
    float *r = basic_softmax(x, 3);
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(bits(r[2]), 0x3f2a4d3bu);
    std::free(r);
    std::free(basic_softmax(x, 0));
}

TEST(Softmax, RefusalsAndMessages) {
    std::vector<float> data = {1, 2, 3, 4};
    {
        Ctx c(2, 1);
        c.input(0, shape_of({4}), data);
        c.input(1, shape_of({4}), data);
        std::string err = npucpu_test::capture_stderr(
            [&] { EXPECT_EQ(softmax_infershape(c.h), NPU_ERR_INPUT_NUM); });
        EXPECT_EQ(npucpu_test::mask_error_lines(err),
                  "[E] [custom] [softmax_ops_impl:L] softmax only support 1 inputs \n");
    }
    // An axis outside the rank: refused silently by both stages.
    struct AxisCase {
        std::vector<uint32_t> shape;
        int64_t axis;
    };
    for (const AxisCase &ac : {AxisCase{{2, 2}, 2}, AxisCase{{2, 2}, -3}, AxisCase{{}, 0}}) {
        SCOPED_TRACE(ac.axis);
        Ctx c(1, 1, 1);
        c.input(0, shape_of(ac.shape), data);
        c.attr_int(0, "axis", ac.axis);
        std::vector<float> out(4, kSentinel);
        qv_kel_custom_set_output_buf_by_index(c.h, 0, out.data(), 16);
        std::string err = npucpu_test::capture_stderr([&] {
            EXPECT_EQ(softmax_infershape(c.h), NPU_ERR_INPUT_NUM);
            EXPECT_EQ(softmax_compute(c.h), NPU_ERR_INPUT_NUM);
        });
        EXPECT_EQ(err, "");
        EXPECT_EQ(out, std::vector<float>(4, kSentinel));
    }
    // Data type, null input, null output.
    {
        Ctx c(1, 1);
        c.input(0, shape_of({4}), data.data(), 16, NPU_DTYPE_INT32);
        EXPECT_EQ(softmax_check_supported(c.h), 0u);
        std::vector<float> out(4);
        qv_kel_custom_set_output_buf_by_index(c.h, 0, out.data(), 16);
        EXPECT_EQ(softmax_compute(c.h), NPU_ERR_INVALID_ARG);
        c.input(0, shape_of({4}), nullptr, 16);
        EXPECT_EQ(softmax_compute(c.h), NPU_ERR_INVALID_ARG);
        c.input(0, shape_of({4}), data);
        qv_kel_custom_set_output_buf_by_index(c.h, 0, nullptr, 0);
        EXPECT_EQ(softmax_compute(c.h), NPU_ERR_INVALID_ARG);
    }
}

TEST(Softmax, ShortBuffersAreNotOverrun) {
    // Three input elements behind a [2, 2] shape: the second slice is cut to
    // one element; an output of three elements receives three.
    std::vector<float> data = {1, 1, 3, 4};
    Ctx c(1, 1, 1);
    c.input(0, shape_of({2, 2}), data.data(), 12);
    c.attr_int(0, "axis", 1);
    std::vector<float> out(4, kSentinel);
    qv_kel_custom_set_output_buf_by_index(c.h, 0, out.data(), 12);
    EXPECT_EQ(softmax_compute(c.h), NPU_OK);
    EXPECT_EQ(out, (std::vector<float>{0.5f, 0.5f, 1.0f, kSentinel}));
}

}  // namespace
