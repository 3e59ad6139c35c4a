// nonzero: declared shape [r, N], coordinates packed dimension-major with
// stride c, the rest of the buffer untouched.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "npucpu.h"
#include "test_util.h"

using npucpu_test::Ctx;
using npucpu_test::shape_of;
using U = std::vector<uint32_t>;
using I = std::vector<int64_t>;

namespace {

constexpr int64_t kS = -77;  // sentinel

struct Case {
    U shape;
    std::vector<float> data;
    uint32_t dtype;
    U out_shape;
    I out;  // the whole declared output after compute
    uint64_t len = ~0ull;  // input buffer length, if not the data's
};

TEST(Nonzero, Table) {
    const float nan = std::nanf("");
    const uint32_t f32 = NPU_DTYPE_FLOAT32, s32 = NPU_DTYPE_INT32;
    const std::vector<Case> cases = {
        {{2, 2}, {1, 0, 0, 2}, f32, {2, 4}, {0, 1, 0, 1, kS, kS, kS, kS}},
        {{2, 2}, {1, 0, 0, 2}, s32, {2, 4}, {0, 1, 0, 1, kS, kS, kS, kS}},
        {{2, 1}, {0, 0}, f32, {2, 2}, I(4, kS)},
        {{4}, {0, 3, 0, -4}, s32, {1, 4}, {1, 3, kS, kS}},
        {{2, 2, 2}, {0, 5, 0, 0, 6, 0, 0, 7}, f32, {3, 8},
         {0, 1, 1, 0, 0, 1, 1, 0, 1, kS, kS, kS, kS, kS, kS, kS, kS, kS, kS, kS, kS, kS, kS, kS}},
        {{3}, {-0.0f, nan, 0.0f}, f32, {1, 3}, {1, kS, kS}},
        {{}, {9}, f32, {0, 1}, {}},
        // The element count comes from the buffer length: the coordinate
        // counter wraps round past the shape; a partial element is not counted.
        {{2}, {1, 2, 3, 4}, f32, {1, 4}, {0, 1, 0, 1}},
        {{2}, {1, 2}, f32, {1, 1}, {0}, 7},
        {{2}, {1, 2}, NPU_DTYPE_UINT32, {1, 0}, {}},
    };
    for (size_t n = 0; n < cases.size(); ++n) {
        const Case &tc = cases[n];
        SCOPED_TRACE("case " + std::to_string(n));
        std::vector<int32_t> ints;
        for (float v : tc.data) ints.push_back(std::isnan(v) ? 1 : static_cast<int32_t>(v));
        std::vector<float> floats = tc.data;
        void *buf = tc.dtype == s32 ? static_cast<void *>(ints.data()) : floats.data();
        Ctx c(1, 1);
        c.input(0, shape_of(tc.shape), buf, std::min<uint64_t>(tc.len, tc.data.size() * 4),
                tc.dtype);
        EXPECT_EQ(nonzero_check_supported(c.h), tc.dtype == NPU_DTYPE_UINT32 ? 0u : 1u);
        ASSERT_EQ(nonzero_infershape(c.h), NPU_OK);
        EXPECT_EQ(npucpu_test::dims_of(c.output_shape(0)), tc.out_shape);
        uint32_t dtype = 0, format = 0;
        qv_kel_custom_get_output_dtype_by_index(c.h, 0, &dtype);
        qv_kel_custom_get_output_format_by_index(c.h, 0, &format);
        EXPECT_EQ(dtype, NPU_DTYPE_INT64);
        EXPECT_EQ(format, NPU_FORMAT_MATRIX);
        I out(tc.out.size() + 1, kS);
        qv_kel_custom_set_output_buf_by_index(c.h, 0, out.data(), tc.out.size() * 8);
        EXPECT_EQ(nonzero_compute(c.h), NPU_OK);
        I want = tc.out;
        want.push_back(kS);
        EXPECT_EQ(out, want);
        qv_kel_custom_set_output_buf_by_index(c.h, 0, nullptr, 0);
        EXPECT_EQ(nonzero_compute(c.h), NPU_OK);  // nothing to write into
    }
}

TEST(Nonzero, Message) {
    Ctx c(2, 1);
    std::string err = npucpu_test::capture_stderr(
        [&] { EXPECT_EQ(nonzero_infershape(c.h), NPU_ERR_INPUT_NUM); });
    EXPECT_EQ(npucpu_test::mask_error_lines(err),
              "[E] [custom] [nonzero_ops_impl:L] nonzero only support 1 inputs \n");
}

}  // namespace
