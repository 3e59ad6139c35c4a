// softmax: axis default, the start of the maximum, exact bits, guards and messages.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>

#include "npucpu.h"
#include "test_util.h"

namespace {

using namespace npucpu_test;
using F = std::vector<float>;
constexpr float kS = -12345.0f;  // sentinel
constexpr int64_t kAbsent = -99;

TEST(Softmax, Table) {
    const float a = from_bits(0x3db861f3), b = from_bits(0x3e7a9a1a), c3 = from_bits(0x3f2a4d3b);  // of [1, 2, 3]
    const float e1 = from_bits(0x3f3b26a8), e2 = from_bits(0x3e89b2b1);                           // of [-1, -2]
    const float h = 0.5f, nan = std::nanf("");
    const struct {
        std::vector<uint32_t> shape;
        F data;
        int64_t axis;
        F want;                                        // compared bit for bit
        uint64_t in_elems = ~0ull, out_elems = ~0ull;  // buffer lengths, if shorter
    } cases[] = {
        {{3}, {1, 2, 3}, kAbsent, {a, b, c3}},
        {{2, 3}, {1, 2, 3, 1, 2, 3}, kAbsent, {h, h, h, h, h, h}},  // axis 0 by default
        {{1, 2, 2}, {-1, -2, 7, 7}, -1, {e1, e2, h, h}},
        {{2}, {-1000, -1000}, 0, {nan, nan}},  // nothing subtracted: 0 / 0
        {{2}, {1000, 1000}, 0, {h, h}},
        {{4}, {0.5f, -0.25f, 3.75f, 1}, 0,
         {from_bits(0x3d0dac91), from_bits(0x3c85d81e), from_bits(0x3f645d2a), from_bits(0x3d6994c1)}},
        // Short buffers: the second slice is cut to one element, and only
        // three outputs are written.
        {{2, 2}, {1, 1, 3, 4}, 1, {h, h, 1, kS}, 3, 3},
    };
    for (const auto &tc : cases) {
        SCOPED_TRACE(::testing::PrintToString(tc.data));
        F data = tc.data, out(tc.want.size(), kS);
        Ctx c(1, 1, 1);
        c.input(0, shape_of(tc.shape), data.data(), std::min<uint64_t>(data.size(), tc.in_elems) * 4);
        if (tc.axis != kAbsent) c.attr_int(0, "axis", tc.axis);
        ASSERT_EQ(softmax_infershape(c.h), NPU_OK);
        EXPECT_EQ(dims_of(c.output_shape(0)), tc.shape);
        qv_kel_custom_set_output_buf_by_index(c.h, 0, out.data(), std::min<uint64_t>(out.size(), tc.out_elems) * 4);
        EXPECT_EQ(softmax_compute(c.h), NPU_OK);
        expect_bits(tc.want, out, "", true);  // any NaN matches (its sign is the platform's)
    }
    std::free(basic_softmax(cases[0].data.data(), 0));  // no values: nothing read
}

TEST(Softmax, RefusalsAndMessages) {
    F data = {1, 2, 3, 4}, out(4, kS);
    // An axis outside the rank (any axis of rank 0): refused silently by both stages.
    const struct { std::vector<uint32_t> shape; int64_t axis; } outside[] = {{{2, 2}, 2}, {{2, 2}, -3}, {{}, kAbsent}};
    for (const auto &t : outside) {
        Ctx c(1, 1, 1);
        c.input(0, shape_of(t.shape), data);
        if (t.axis != kAbsent) c.attr_int(0, "axis", t.axis);
        qv_kel_custom_set_output_buf_by_index(c.h, 0, out.data(), 16);
        EXPECT_EQ(capture_stderr([&] {
                      EXPECT_EQ(softmax_infershape(c.h), NPU_ERR_INPUT_NUM);
                      EXPECT_EQ(softmax_compute(c.h), NPU_ERR_INPUT_NUM);
                  }), "");
    }
    Ctx c(1, 1);
    c.input(0, shape_of({4}), data.data(), 16, NPU_DTYPE_INT32);
    EXPECT_EQ(softmax_check_supported(c.h), 0u);
    EXPECT_EQ(softmax_compute(c.h), NPU_ERR_INVALID_ARG);
    c.input(0, shape_of({4}), data);
    EXPECT_EQ(softmax_check_supported(c.h), 1u);
    EXPECT_EQ(softmax_compute(c.h), NPU_ERR_INVALID_ARG);  // no output buffer
    qv_kel_custom_set_output_buf_by_index(c.h, 0, out.data(), 16);
    c.input(0, shape_of({4}), nullptr, 16);
    EXPECT_EQ(softmax_compute(c.h), NPU_ERR_INVALID_ARG);
    EXPECT_EQ(out, F(4, kS));
    Ctx two(2, 1);
    const std::string err = capture_stderr([&] { EXPECT_EQ(softmax_infershape(two.h), NPU_ERR_INPUT_NUM); });
    EXPECT_EQ(mask_error_lines(err), "[E] [custom] [softmax_ops_impl:L] softmax only support 1 inputs \n");
}

}  // namespace
