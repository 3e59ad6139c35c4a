// gather operator: the shape rule and its messages, compute and its guards.
#include <gtest/gtest.h>

#include "test_util.h"

using namespace npucpu_test;

namespace {

constexpr float kSentinel = -777.0f;
const uint32_t I32 = NPU_DTYPE_INT32, I64 = NPU_DTYPE_INT64;
const std::string kAxisErr = "[E] [custom] [gather_ops_impl:L] illegal axis: ";

TEST(GatherOp, ShapeRule) {
    std::vector<uint32_t> rank16(16, 1), rank16_axis3 = rank16;
    rank16_axis3[3] = 2;
    const struct { std::vector<uint32_t> data, indices; int64_t axis; uint32_t status; std::vector<uint32_t> out; std::string err; } cases[] = {
        {{3, 4}, {2}, 0, NPU_OK, {2, 4}, ""},  {{3, 4}, {2}, 1, NPU_OK, {3, 2}, ""}, {{3, 4}, {2, 2}, -1, NPU_OK, {3, 2, 2}, ""},
        {{3, 4}, {1}, 0, NPU_OK, {4}, ""},           // [1] is a scalar index
        {{3, 4}, {1, 1}, 0, NPU_OK, {1, 1, 4}, ""},  // [1, 1] is not
        {{3, 4}, {}, 1, NPU_OK, {3}, ""},            // rank-0 indices add no dim
        {{5}, {1}, 0, NPU_OK, {1}, ""},              // rank 0 becomes [1]
        {{3, 4}, {2}, 2, NPU_ERR_INPUT_NUM, {}, kAxisErr + "2, accepted range is [-2, 1] \n"},
        {{3, 4}, {2}, -3, NPU_ERR_INPUT_NUM, {}, kAxisErr + "-3, accepted range is [-2, 1] \n"},
        {{}, {2}, 0, NPU_ERR_INPUT_NUM, {}, kAxisErr + "0, accepted range is [0, -1] \n"},
        {rank16, {1, 2}, 0, NPU_ERR_SHAPE, {},
         "[E] [custom] [gather_ops_impl:L] output dims calc err! output dims should be: 17 \n"},
        {rank16, {2}, 3, NPU_OK, rank16_axis3, ""},
    };
    for (const auto &k : cases) {
        SCOPED_TRACE("case " + std::to_string(&k - cases));
        Ctx c(2, 1, 1);
        float buf[4] = {};
        c.input(0, shape_of(k.data), buf, sizeof buf, NPU_DTYPE_FLOAT32, NPU_FORMAT_NHWC);
        c.input(1, shape_of(k.indices), buf, sizeof buf, I64);
        c.attr_int(0, "axis", k.axis);
        uint32_t status = 0;
        const std::string err = capture_stderr([&] { status = gather_infershape(c.h); });
        EXPECT_EQ(status, k.status);
        EXPECT_EQ(mask_error_lines(err), k.err);
        EXPECT_EQ(dims_of(c.output_shape(0)), k.out);
        const uint32_t *dims = c.h->outputs[0].shape.dims;
        if (k.status == NPU_OK) {
            EXPECT_EQ(c.h->outputs[0].format, static_cast<uint32_t>(NPU_FORMAT_NHWC));
        } else {  // a refusal writes no dim
            EXPECT_EQ(std::vector<uint32_t>(dims, dims + 16), std::vector<uint32_t>(16, 0));
        }
    }
}

// Data holds 1, 2, 3, ...; `null` (0 data, 1 indices, 2 output) gets a null
// buffer and `shorten` a buffer 4 bytes short of its shape; an empty
// `expected` means the output is untouched.
TEST(GatherOp, Compute) {
    const uint32_t ARG = NPU_ERR_INVALID_ARG;
    const struct { const char *name; std::vector<uint32_t> data_dims, index_dims; std::vector<int64_t> indices;
                   uint32_t index_dtype; int64_t axis; uint32_t status; std::vector<float> expected;
                   int null = -1, shorten = -1; } cases[] = {
        {"negative index on axis 0", {2, 2}, {2}, {-1, 0}, I32, 0, NPU_OK, {3, 4, 1, 2}},
        {"64-bit indices on axis 1", {2, 3}, {2}, {2, 0}, I64, 1, NPU_OK, {3, 1, 6, 4}},
        {"scalar index", {2, 3}, {1}, {1}, I64, -1, NPU_OK, {2, 5}},
        {"repeated indices of rank 2", {3}, {2, 2}, {0, 2, 2, -3}, I32, 0, NPU_OK, {1, 3, 3, 1}},
        {"index past the axis", {2, 2}, {2}, {0, 2}, I32, 0, ARG, {}},
        {"index before the axis", {2, 2}, {1}, {-3}, I64, 1, ARG, {}},
        {"null data", {2, 2}, {2}, {1, 0}, I32, 0, ARG, {}, 0},
        {"null indices", {2, 2}, {2}, {1, 0}, I32, 0, ARG, {}, 1},
        {"null output", {2, 2}, {2}, {1, 0}, I32, 0, ARG, {}, 2},
        {"short data", {2, 2}, {2}, {1, 0}, I32, 0, ARG, {}, -1, 0},
        {"short indices", {2, 2}, {2}, {1, 0}, I32, 0, ARG, {}, -1, 1},
        {"short output stops the writes", {2, 2}, {2}, {1, 0}, I32, 0, NPU_OK, {3, 4, 1, kSentinel}, -1, 2},
    };
    for (const auto &k : cases) {
        SCOPED_TRACE(k.name);
        Ctx c(2, 1, 1);
        const TensorShape ds = shape_of(k.data_dims);
        std::vector<float> data = iota(GetElemSize(&ds));
        std::vector<int32_t> idx32(k.indices.begin(), k.indices.end());
        std::vector<int64_t> idx64 = k.indices;
        const bool narrow = k.index_dtype == I32;
        const uint64_t index_len = k.indices.size() * (narrow ? 4 : 8);
        c.input(0, ds, k.null == 0 ? nullptr : data.data(), 4 * data.size() - (k.shorten == 0 ? 4 : 0));
        c.input(1, shape_of(k.index_dims), k.null == 1 ? nullptr : narrow ? static_cast<void *>(idx32.data()) : idx64.data(),
                index_len - (k.shorten == 1 ? 4 : 0), k.index_dtype);
        c.attr_int(0, "axis", k.axis);
        ASSERT_EQ(gather_infershape(c.h), NPU_OK);
        EXPECT_EQ(gather_check_supported(c.h), 1u);
        std::vector<float> &out = c.alloc_output(0, kSentinel);
        qv_kel_custom_set_output_buf_by_index(c.h, 0, k.null == 2 ? nullptr : out.data(),
                                              4 * out.size() - (k.shorten == 2 ? 4 : 0));
        EXPECT_EQ(gather_compute(c.h), k.status);
        EXPECT_EQ(out, k.expected.empty() ? std::vector<float>(out.size(), kSentinel) : k.expected);
    }
}

}  // namespace
