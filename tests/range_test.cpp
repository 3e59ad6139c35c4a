// Range: running float sums (integer data too), the fixed capacity, refusals.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "test_util.h"

using namespace npucpu_test;

namespace {

constexpr int32_t kSentinelBits = 0x7f7f7f7f;
const uint32_t F32 = NPU_DTYPE_FLOAT32, I32 = NPU_DTYPE_INT32;

// start, limit and delta are 4-byte values of `dtype` (`null` names an input,
// or 3 the output, given a null buffer); the output holds `out_elems` values,
// and what compute did not write keeps the sentinel.
TEST(Range, Compute) {
    const int32_t big = 16777216;  // 2^24: adding 1 in float no longer changes it
    const struct { const char *name; uint32_t dtype; double start, limit, delta; size_t out_elems; uint32_t status;
                   std::vector<double> written; int null = -1; uint64_t limit_len = 4; } cases[] = {
        {"running sum of 0.3", F32, 0, 1, 0.3f, 6, NPU_OK, {0.0f, 0.3f, 0.6f, 0.90000004f}},
        {"running sum of 0.1 drifts from i * 0.1", F32, 0, 1, 0.1f, 12, NPU_OK,
         {0x0p+0f, 0x1.99999ap-4f, 0x1.99999ap-3f, 0x1.333334p-2f, 0x1.99999ap-2f, 0x1p-1f, 0x1.333334p-1f,
          0x1.666668p-1f, 0x1.99999cp-1f, 0x1.ccccd0p-1f}},
        {"negative delta", F32, 5, 1, -2, 4, NPU_OK, {5, 3}},
        {"start equals limit writes nothing", F32, 1, 1, 1, 2, NPU_OK, {}},
        {"wrong direction writes nothing", F32, 1, 0, 1, 2, NPU_OK, {}},
        {"NaN count writes nothing", F32, 0, NAN, 1, 2, NPU_OK, {}},
        {"writes stop at the output buffer", F32, 0, 100, 1, 3, NPU_OK, {0, 1, 2}},
        {"unbounded count stops at the output buffer", F32, 0, INFINITY, 2, 2, NPU_OK, {0, 2}},
        {"delta 0 is refused", F32, 0, 1, 0, 2, NPU_ERR_INVALID_ARG, {}},
        {"delta -0 is refused", F32, 0, 1, -0.0, 2, NPU_ERR_INVALID_ARG, {}},
        {"int step 3", I32, 0, 10, 3, 5, NPU_OK, {0, 3, 6, 9}},
        {"int negative step", I32, 10, 0, -3, 5, NPU_OK, {10, 7, 4, 1}},
        {"float accumulation stalls at 2^24", I32, big, big + 4, 1, 5, NPU_OK, {big, big, big, big}},
        {"wrapping span, saturating value", I32, INT32_MAX, INT32_MIN, 1, 2, NPU_OK, {INT32_MAX}},
        {"int delta 0 is refused", I32, 0, 10, 0, 2, NPU_ERR_INVALID_ARG, {}},
        {"64-bit data type", NPU_DTYPE_INT64, 0, 4, 1, 8, NPU_ERR_INVALID_ARG, {}},
        {"null start", F32, 0, 4, 1, 8, NPU_ERR_INVALID_ARG, {}, 0},
        {"null limit", F32, 0, 4, 1, 8, NPU_ERR_INVALID_ARG, {}, 1},
        {"null delta", I32, 0, 4, 1, 8, NPU_ERR_INVALID_ARG, {}, 2},
        {"null output", F32, 0, 4, 1, 8, NPU_ERR_INVALID_ARG, {}, 3},
        {"limit buffer shorter than one element", F32, 0, 4, 1, 8, NPU_ERR_INVALID_ARG, {}, -1, 3},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const auto as_bits = [&](double v) {
            const float f = static_cast<float>(v);
            int32_t b;
            if (c.dtype == I32) b = static_cast<int32_t>(v);
            else std::memcpy(&b, &f, 4);
            return b;
        };
        int32_t values[3] = {as_bits(c.start), as_bits(c.limit), as_bits(c.delta)};
        Ctx ctx(3, 1);
        for (int i = 0; i < 3; ++i) {
            ctx.input(i, shape_of({1}), c.null == i ? nullptr : &values[i], i == 1 ? c.limit_len : 4, c.dtype);
        }
        ASSERT_EQ(range_infershape(ctx.h), NPU_OK);
        std::vector<int32_t> out(c.out_elems, kSentinelBits), want(c.out_elems, kSentinelBits);
        qv_kel_custom_set_output_buf_by_index(ctx.h, 0, c.null == 3 ? nullptr : out.data(), out.size() * 4);
        EXPECT_EQ(range_compute(ctx.h), c.status);
        for (size_t i = 0; i < c.written.size(); ++i) want[i] = as_bits(c.written[i]);
        EXPECT_EQ(out, want);
    }
}

TEST(Range, Infershape) {
    const std::string msg = "[E] [custom] [range_ops_impl:L] range only support 1 inputs \n";
    const struct { const char *name; uint32_t inputs; std::vector<uint32_t> start_dims; uint32_t dtype, status;
                   std::string err; std::vector<uint32_t> out_dims; } cases[] = {
        {"scalar of rank 1", 3, {1}, F32, NPU_OK, "", {65535}},
        {"rank 2: dims after the first are 0", 3, {1, 1}, I32, NPU_OK, "", {65535, 0}},
        {"one input", 1, {1}, F32, NPU_ERR_INPUT_NUM, msg, {}},
        {"two inputs", 2, {1}, F32, NPU_ERR_INPUT_NUM, msg, {}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        float v = 0.0f;
        Ctx ctx(c.inputs, 1);
        for (uint32_t i = 0; i < c.inputs; ++i) ctx.input(i, shape_of(c.start_dims), &v, 4, c.dtype, NPU_FORMAT_NHWC);
        uint32_t status = 0, dtype = 99, format = 99;
        const std::string err = capture_stderr([&] { status = range_infershape(ctx.h); });
        EXPECT_EQ(mask_error_lines(err), c.err);
        EXPECT_EQ(status, c.status);
        EXPECT_EQ(dims_of(ctx.output_shape(0)), c.out_dims);
        qv_kel_custom_get_output_dtype_by_index(ctx.h, 0, &dtype);
        qv_kel_custom_get_output_format_by_index(ctx.h, 0, &format);
        EXPECT_EQ(range_check_supported(ctx.h), c.dtype == F32 ? 1u : 0u);
        if (c.status != NPU_OK) continue;
        EXPECT_EQ(dtype, c.dtype);
        EXPECT_EQ(format, NPU_FORMAT_NHWC);
    }
}

}  // namespace
