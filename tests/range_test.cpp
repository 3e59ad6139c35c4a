// Range: sequences built by running float sums (for integer data too), the
// fixed declared capacity, and the refusals of malformed calls.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "npucpu.h"
#include "test_util.h"

using npucpu_test::Ctx;
using npucpu_test::capture_stderr;
using npucpu_test::dims_of;
using npucpu_test::mask_error_lines;
using npucpu_test::shape_of;

namespace {

constexpr uint32_t kCapacity = 65535;
constexpr int32_t kSentinelBits = 0x7f7f7f7f;

// Start, limit and delta as 4-byte values of `dtype`; the output buffer holds
// `out_elems` elements preset to a sentinel. Returns compute's status.
template <typename T>
uint32_t run_range(uint32_t dtype, T start, T limit, T delta, std::vector<int32_t> *out) {
    Ctx ctx(3, 1);
    ctx.input(0, shape_of({1}), &start, 4, dtype);
    ctx.input(1, shape_of({1}), &limit, 4, dtype);
    ctx.input(2, shape_of({1}), &delta, 4, dtype);
    EXPECT_EQ(range_infershape(ctx.h), NPU_OK);
    qv_kel_custom_set_output_buf_by_index(ctx.h, 0, out->data(), out->size() * 4);
    return range_compute(ctx.h);
}

std::vector<int32_t> bits_of(const std::vector<float> &v) {
    std::vector<int32_t> b(v.size());
    if (!v.empty()) std::memcpy(b.data(), v.data(), 4 * v.size());
    return b;
}

TEST(Range, FloatSequences) {
    const struct {
        const char *name;
        float start, limit, delta;
        size_t out_elems;
        uint32_t status;
        std::vector<float> written;  // the rest keeps the sentinel
    } cases[] = {
        {"running sum of 0.3", 0.0f, 1.0f, 0.3f, 6, NPU_OK, {0.0f, 0.3f, 0.6f, 0.90000004f}},
        {"running sum of 0.1 drifts from i * 0.1", 0.0f, 1.0f, 0.1f, 12, NPU_OK,
         {0x0p+0f, 0x1.99999ap-4f, 0x1.99999ap-3f, 0x1.333334p-2f, 0x1.99999ap-2f, 0x1p-1f,
          0x1.333334p-1f, 0x1.666668p-1f, 0x1.99999cp-1f, 0x1.ccccd0p-1f}},
        {"negative delta", 5.0f, 1.0f, -2.0f, 4, NPU_OK, {5.0f, 3.0f}},
        {"start equals limit writes nothing", 1.0f, 1.0f, 1.0f, 2, NPU_OK, {}},
        {"wrong direction writes nothing", 1.0f, 0.0f, 1.0f, 2, NPU_OK, {}},
        {"NaN count writes nothing", 0.0f, NAN, 1.0f, 2, NPU_OK, {}},
        {"writes stop at the output buffer", 0.0f, 100.0f, 1.0f, 3, NPU_OK, {0.0f, 1.0f, 2.0f}},
        {"unbounded count stops at the output buffer", 0.0f, INFINITY, 2.0f, 2, NPU_OK, {0.0f, 2.0f}},
        {"delta 0 is refused", 0.0f, 1.0f, 0.0f, 2, NPU_ERR_INVALID_ARG, {}},
        {"delta -0 is refused", 0.0f, 1.0f, -0.0f, 2, NPU_ERR_INVALID_ARG, {}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<int32_t> out(c.out_elems, kSentinelBits);
        EXPECT_EQ(run_range<float>(NPU_DTYPE_FLOAT32, c.start, c.limit, c.delta, &out), c.status);
        std::vector<int32_t> expected = bits_of(c.written);
        expected.resize(c.out_elems, kSentinelBits);
        EXPECT_EQ(out, expected);
    }
}

TEST(Range, IntegerSequences) {
    const int32_t big = 16777216;  // 2^24: adding 1 in float no longer changes it
    const struct {
        const char *name;
        int32_t start, limit, delta;
        size_t out_elems;
        uint32_t status;
        std::vector<int32_t> written;
    } cases[] = {
        {"step 3", 0, 10, 3, 5, NPU_OK, {0, 3, 6, 9}},
        {"negative step", 10, 0, -3, 5, NPU_OK, {10, 7, 4, 1}},
        {"float accumulation stalls at 2^24", big, big + 4, 1, 5, NPU_OK, {big, big, big, big}},
        {"wrapping span, saturating value", INT32_MAX, INT32_MIN, 1, 2, NPU_OK, {INT32_MAX}},
        {"delta 0 is refused", 0, 10, 0, 2, NPU_ERR_INVALID_ARG, {}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<int32_t> out(c.out_elems, kSentinelBits);
        EXPECT_EQ(run_range<int32_t>(NPU_DTYPE_INT32, c.start, c.limit, c.delta, &out), c.status);
        std::vector<int32_t> expected = c.written;
        expected.resize(c.out_elems, kSentinelBits);
        EXPECT_EQ(out, expected);
    }
}

TEST(Range, Infershape) {
    const std::string msg = "[E] [custom] [range_ops_impl:L] range only support 1 inputs \n";
    const struct {
        const char *name;
        uint32_t inputs;
        std::vector<uint32_t> start_dims;
        uint32_t dtype;
        uint32_t status;
        std::string err;
        std::vector<uint32_t> out_dims;
    } cases[] = {
        {"scalar of rank 1", 3, {1}, NPU_DTYPE_FLOAT32, NPU_OK, "", {kCapacity}},
        {"rank 2: dims after the first are 0", 3, {1, 1}, NPU_DTYPE_INT32, NPU_OK, "", {kCapacity, 0}},
        {"one input", 1, {1}, NPU_DTYPE_FLOAT32, NPU_ERR_INPUT_NUM, msg, {}},
        {"two inputs", 2, {1}, NPU_DTYPE_FLOAT32, NPU_ERR_INPUT_NUM, msg, {}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        float v = 0.0f;
        Ctx ctx(c.inputs, 1);
        for (uint32_t i = 0; i < c.inputs; ++i) {
            ctx.input(i, shape_of(c.start_dims), &v, 4, c.dtype, NPU_FORMAT_NHWC);
        }
        uint32_t status = 0;
        const std::string err = capture_stderr([&] { status = range_infershape(ctx.h); });
        EXPECT_EQ(mask_error_lines(err), c.err);
        EXPECT_EQ(status, c.status);
        EXPECT_EQ(dims_of(ctx.output_shape(0)), c.out_dims);
        if (c.status == NPU_OK) {
            uint32_t dtype = 99, format = 99;
            qv_kel_custom_get_output_dtype_by_index(ctx.h, 0, &dtype);
            qv_kel_custom_get_output_format_by_index(ctx.h, 0, &format);
            EXPECT_EQ(dtype, c.dtype);
            EXPECT_EQ(format, NPU_FORMAT_NHWC);
        }
        EXPECT_EQ(range_check_supported(ctx.h), c.dtype == NPU_DTYPE_FLOAT32 ? 1u : 0u);
    }
}

// Calls compute cannot serve: 0xa0808003, nothing written.
TEST(Range, ComputeRefusals) {
    const struct {
        const char *name;
        uint32_t dtype;
        int null_index;  // -1 none, 0..2 an input, 3 the output
        uint64_t limit_len;
    } cases[] = {
        {"64-bit data type", NPU_DTYPE_INT64, -1, 4},
        {"null start", NPU_DTYPE_FLOAT32, 0, 4},
        {"null limit", NPU_DTYPE_FLOAT32, 1, 4},
        {"null delta", NPU_DTYPE_INT32, 2, 4},
        {"null output", NPU_DTYPE_FLOAT32, 3, 4},
        {"limit buffer shorter than one element", NPU_DTYPE_FLOAT32, -1, 3},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        float values[3] = {0.0f, 4.0f, 1.0f};
        std::vector<int32_t> out(8, kSentinelBits);
        Ctx ctx(3, 1);
        for (int i = 0; i < 3; ++i) {
            ctx.input(i, shape_of({1}), c.null_index == i ? nullptr : &values[i],
                      i == 1 ? c.limit_len : 4, c.dtype);
        }
        ASSERT_EQ(range_infershape(ctx.h), NPU_OK);
        void *out_buf = c.null_index == 3 ? nullptr : out.data();
        qv_kel_custom_set_output_buf_by_index(ctx.h, 0, out_buf, 32);
        EXPECT_EQ(range_compute(ctx.h), NPU_ERR_INVALID_ARG);
        EXPECT_EQ(out, std::vector<int32_t>(8, kSentinelBits));
    }
}

}  // namespace
