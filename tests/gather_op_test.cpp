// gather operator: the output shape rule with its messages, and compute on
// 32- and 64-bit indices.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "npucpu.h"
#include "test_util.h"

using namespace npucpu_test;

namespace {

constexpr float kSentinel = -777.0f;

TEST(GatherOp, ShapeRule) {
    struct Case {
        std::vector<uint32_t> data, indices;
        int64_t axis;
        uint32_t status;
        std::vector<uint32_t> out;
        std::string err;
    };
    const std::vector<uint32_t> rank16(16, 1);
    std::vector<uint32_t> rank16_axis3 = rank16;
    rank16_axis3[3] = 2;
    const std::vector<Case> cases = {
        {{3, 4}, {2}, 0, NPU_OK, {2, 4}, ""},
        {{3, 4}, {2}, 1, NPU_OK, {3, 2}, ""},
        {{3, 4}, {1}, 0, NPU_OK, {4}, ""},                 // [1] is a scalar index
        {{3, 4}, {1, 1}, 0, NPU_OK, {1, 1, 4}, ""},        // [1, 1] is not
        {{3, 4}, {}, 1, NPU_OK, {3}, ""},                  // rank-0 indices add no dim
        {{5}, {1}, 0, NPU_OK, {1}, ""},                    // rank 0 becomes [1]
        {{3, 4}, {2, 2}, -1, NPU_OK, {3, 2, 2}, ""},
        {{3, 4}, {2}, 2, NPU_ERR_INPUT_NUM, {},
         "[E] [custom] [gather_ops_impl:L] illegal axis: 2, accepted range is [-2, 1] \n"},
        {{3, 4}, {2}, -3, NPU_ERR_INPUT_NUM, {},
         "[E] [custom] [gather_ops_impl:L] illegal axis: -3, accepted range is [-2, 1] \n"},
        {{}, {2}, 0, NPU_ERR_INPUT_NUM, {},
         "[E] [custom] [gather_ops_impl:L] illegal axis: 0, accepted range is [0, -1] \n"},
        {rank16, {1, 2}, 0, NPU_ERR_SHAPE, {},
         "[E] [custom] [gather_ops_impl:L] output dims calc err! output dims should be: 17 \n"},
        {rank16, {2}, 3, NPU_OK, rank16_axis3, ""},
    };
    for (const Case &k : cases) {
        Ctx c(2, 1, 1);
        float buf[4] = {};
        c.input(0, shape_of(k.data), buf, sizeof buf, NPU_DTYPE_FLOAT32, NPU_FORMAT_NHWC);
        c.input(1, shape_of(k.indices), buf, sizeof buf, NPU_DTYPE_INT64);
        c.attr_int(0, "axis", k.axis);
        uint32_t status = 0;
        const std::string err = capture_stderr([&] { status = gather_infershape(c.h); });
        EXPECT_EQ(status, k.status) << k.axis;
        EXPECT_EQ(mask_error_lines(err), k.err);
        if (k.status != NPU_OK) continue;
        EXPECT_EQ(dims_of(c.output_shape(0)), k.out);
        EXPECT_EQ(c.h->outputs[0].format, static_cast<uint32_t>(NPU_FORMAT_NHWC));
    }
}

TEST(GatherOp, Compute) {
    struct Case {
        const char *name;
        std::vector<uint32_t> data_dims;
        std::vector<uint32_t> index_dims;
        std::vector<int64_t> indices;
        uint32_t index_dtype;
        int64_t axis;
        uint32_t status;
        std::vector<float> expected;  // empty: output untouched
    };
    const std::vector<Case> cases = {
        {"negative index on axis 0", {2, 2}, {2}, {-1, 0}, NPU_DTYPE_INT32, 0, NPU_OK, {3, 4, 1, 2}},
        {"64-bit indices on axis 1", {2, 3}, {2}, {2, 0}, NPU_DTYPE_INT64, 1, NPU_OK, {3, 1, 6, 4}},
        {"scalar index", {2, 3}, {1}, {1}, NPU_DTYPE_INT64, -1, NPU_OK, {2, 5}},
        {"repeated indices of rank 2", {3}, {2, 2}, {0, 2, 2, -3}, NPU_DTYPE_INT32, 0, NPU_OK, {1, 3, 3, 1}},
        {"index past the axis", {2, 2}, {2}, {0, 2}, NPU_DTYPE_INT32, 0, NPU_ERR_INVALID_ARG, {}},
        {"index before the axis", {2, 2}, {1}, {-3}, NPU_DTYPE_INT64, 1, NPU_ERR_INVALID_ARG, {}},
    };
    for (const Case &k : cases) {
        SCOPED_TRACE(k.name);
        Ctx c(2, 1, 1);
        const TensorShape ds = shape_of(k.data_dims);
        std::vector<float> data(GetElemSize(&ds));
        for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<float>(i + 1);
        std::vector<int32_t> idx32(k.indices.begin(), k.indices.end());
        std::vector<int64_t> idx64 = k.indices;
        const bool narrow = k.index_dtype == NPU_DTYPE_INT32;
        c.input(0, ds, data);
        c.input(1, shape_of(k.index_dims), narrow ? static_cast<void *>(idx32.data()) : idx64.data(),
                k.indices.size() * (narrow ? 4 : 8), k.index_dtype);
        c.attr_int(0, "axis", k.axis);
        ASSERT_EQ(gather_infershape(c.h), NPU_OK);
        EXPECT_EQ(gather_check_supported(c.h), 1u);
        std::vector<float> &out = c.alloc_output(0, kSentinel);
        EXPECT_EQ(gather_compute(c.h), k.status);
        EXPECT_EQ(out, k.expected.empty() ? std::vector<float>(out.size(), kSentinel) : k.expected);
    }
}

// Null buffers, and buffers shorter than their shapes, are refused or cut
// short without an overrun.
TEST(GatherOp, BufferGuards) {
    std::vector<float> data = {1, 2, 3, 4};
    int32_t idx[2] = {1, 0};
    struct Case {
        bool null_data, null_indices, null_out;
        uint64_t data_len, index_len, out_len;
        uint32_t status;
        std::vector<float> expected;
    } cases[] = {
        {true, false, false, 16, 8, 16, NPU_ERR_INVALID_ARG, {kSentinel, kSentinel, kSentinel, kSentinel}},
        {false, true, false, 16, 8, 16, NPU_ERR_INVALID_ARG, {kSentinel, kSentinel, kSentinel, kSentinel}},
        {false, false, true, 16, 8, 16, NPU_ERR_INVALID_ARG, {kSentinel, kSentinel, kSentinel, kSentinel}},
        {false, false, false, 12, 8, 16, NPU_ERR_INVALID_ARG, {kSentinel, kSentinel, kSentinel, kSentinel}},
        {false, false, false, 16, 4, 16, NPU_ERR_INVALID_ARG, {kSentinel, kSentinel, kSentinel, kSentinel}},
        {false, false, false, 16, 8, 12, NPU_OK, {3, 4, 1, kSentinel}},
    };
    for (const Case &k : cases) {
        Ctx c(2, 1, 1);
        c.input(0, shape_of({2, 2}), k.null_data ? nullptr : data.data(), k.data_len);
        c.input(1, shape_of({2}), k.null_indices ? nullptr : idx, k.index_len, NPU_DTYPE_INT32);
        c.attr_int(0, "axis", 0);
        ASSERT_EQ(gather_infershape(c.h), NPU_OK);
        std::vector<float> &out = c.alloc_output(0, kSentinel);
        qv_kel_custom_set_output_buf_by_index(c.h, 0, k.null_out ? nullptr : out.data(), k.out_len);
        EXPECT_EQ(gather_compute(c.h), k.status);
        EXPECT_EQ(out, k.expected);
    }
}

}  // namespace
