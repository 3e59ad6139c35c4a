// softmax and basic_softmax: axis default, the start of the maximum, exact
// bits, guards and messages.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "npucpu.h"
#include "test_util.h"

using npucpu_test::Ctx;
using npucpu_test::shape_of;
using F = std::vector<float>;

namespace {

constexpr float kS = -12345.0f;  // sentinel
constexpr int64_t kAbsent = -99;

float f(uint32_t u) {
    float v;
    std::memcpy(&v, &u, 4);
    return v;
}

struct Case {
    std::vector<uint32_t> shape;
    F data;
    int64_t axis;
    F want;  // compared bit for bit
    uint64_t in_elems = ~0ull, out_elems = ~0ull;  // buffer lengths, if shorter
};

TEST(Softmax, Table) {
    const float a = f(0x3db861f3), b = f(0x3e7a9a1a), c3 = f(0x3f2a4d3b);  // of [1, 2, 3]
    const float e1 = f(0x3f3b26a8), e2 = f(0x3e89b2b1);                   // of [-1, -2]
    const float h = 0.5f, nan = std::nanf("");
    const std::vector<Case> cases = {
        {{3}, {1, 2, 3}, kAbsent, {a, b, c3}},
        {{2, 3}, {1, 2, 3, 1, 2, 3}, kAbsent, {h, h, h, h, h, h}},  // axis 0 by default
        {{2, 3}, {1, 2, 3, 3, 2, 1}, 1, {a, b, c3, c3, b, a}},
        {{1, 2, 2}, {-1, -2, 7, 7}, -1, {e1, e2, h, h}},
        {{2}, {-1000, -1000}, 0, {nan, nan}},  // nothing subtracted: 0 / 0
        {{2}, {1000, 1000}, 0, {h, h}},
        {{4}, {0.5f, -0.25f, 3.75f, 1}, 0, {f(0x3d0dac91), f(0x3c85d81e), f(0x3f645d2a), f(0x3d6994c1)}},
        // Short buffers: the second slice is cut to one element, and only
        // three outputs are written.
        {{2, 2}, {1, 1, 3, 4}, 1, {h, h, 1, kS}, 3, 3},
    };
    for (size_t n = 0; n < cases.size(); ++n) {
        const Case &tc = cases[n];
        SCOPED_TRACE("case " + std::to_string(n));
        F data = tc.data, out(tc.want.size(), kS);
        Ctx c(1, 1, 1);
        c.input(0, shape_of(tc.shape), data.data(), std::min<uint64_t>(data.size(), tc.in_elems) * 4);
        if (tc.axis != kAbsent) c.attr_int(0, "axis", tc.axis);
        ASSERT_EQ(softmax_infershape(c.h), NPU_OK);
        EXPECT_EQ(npucpu_test::dims_of(c.output_shape(0)), tc.shape);
        EXPECT_EQ(softmax_check_supported(c.h), 1u);
        qv_kel_custom_set_output_buf_by_index(c.h, 0, out.data(),
                                              std::min<uint64_t>(out.size(), tc.out_elems) * 4);
        EXPECT_EQ(softmax_compute(c.h), NPU_OK);
        for (size_t i = 0; i < out.size(); ++i) {
            // Bit for bit; any NaN matches a NaN (its sign is the platform's).
            const bool same = std::memcmp(&out[i], &tc.want[i], 4) == 0 ||
                              (std::isnan(out[i]) && std::isnan(tc.want[i]));
            EXPECT_TRUE(same) << "index " << i << ": " << out[i] << " vs " << tc.want[i];
        }
    }
    float *r = basic_softmax(cases[0].data.data(), 0);
    std::free(r);
}

TEST(Softmax, RefusalsAndMessages) {
    F data = {1, 2, 3, 4}, out(4, kS);
    // An axis outside the rank: refused silently by both stages.
    for (int64_t axis : {2, -3}) {
        Ctx c(1, 1, 1);
        c.input(0, shape_of({2, 2}), data);
        c.attr_int(0, "axis", axis);
        qv_kel_custom_set_output_buf_by_index(c.h, 0, out.data(), 16);
        std::string err = npucpu_test::capture_stderr([&] {
            EXPECT_EQ(softmax_infershape(c.h), NPU_ERR_INPUT_NUM);
            EXPECT_EQ(softmax_compute(c.h), NPU_ERR_INPUT_NUM);
        });
        EXPECT_EQ(err, "");
    }
    Ctx c(1, 1);
    c.input(0, shape_of({}), data);
    EXPECT_EQ(softmax_infershape(c.h), NPU_ERR_INPUT_NUM);  // rank 0 has no axis 0
    c.input(0, shape_of({4}), data.data(), 16, NPU_DTYPE_INT32);
    EXPECT_EQ(softmax_check_supported(c.h), 0u);
    EXPECT_EQ(softmax_compute(c.h), NPU_ERR_INVALID_ARG);
    c.input(0, shape_of({4}), data);
    EXPECT_EQ(softmax_compute(c.h), NPU_ERR_INVALID_ARG);  // no output buffer
    qv_kel_custom_set_output_buf_by_index(c.h, 0, out.data(), 16);
    c.input(0, shape_of({4}), nullptr, 16);
    EXPECT_EQ(softmax_compute(c.h), NPU_ERR_INVALID_ARG);
    EXPECT_EQ(out, F(4, kS));

    Ctx two(2, 1);
    std::string err = npucpu_test::capture_stderr(
        [&] { EXPECT_EQ(softmax_infershape(two.h), NPU_ERR_INPUT_NUM); });
    EXPECT_EQ(npucpu_test::mask_error_lines(err),
              "[E] [custom] [softmax_ops_impl:L] softmax only support 1 inputs \n");
}

}  // namespace
