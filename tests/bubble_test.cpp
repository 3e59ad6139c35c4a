// add_bubble / remove_bubble: 16-byte aligned rows, gaps, rows that do not fit.
#include <gtest/gtest.h>

#include <algorithm>

#include "test_util.h"

using namespace npucpu_test;

namespace {

using Bytes = std::vector<uint8_t>;
const uint8_t kFill = 0xEE;

// `len` bytes of kFill with `rows` rows of `w` bytes copied from `src`, where
// they start `from` bytes apart, to rows `to` bytes apart.
Bytes restride(const Bytes &src, uint32_t rows, uint32_t w, uint32_t from, uint32_t to, size_t len) {
    Bytes b(len, kFill);
    for (uint32_t r = 0; r < rows; ++r) std::copy_n(src.begin() + r * from, w, b.begin() + r * to);
    return b;
}

Bytes counting(size_t n) {
    Bytes b(n);
    for (size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>(i + 1);
    return b;
}

// add_bubble spreads the rows to the stride, remove_bubble restores the dense
// tensor; bytes past the buffers given stay untouched.
TEST(Bubble, AddBubbleStrideAndGaps) {
    const struct { uint32_t dtype; std::vector<uint32_t> dims; uint32_t rows, row_bytes, wstride; } cases[] = {
        {NPU_DTYPE_FLOAT32, {2, 3}, 2, 12, 16}, {NPU_DTYPE_FLOAT32, {2, 4}, 2, 16, 16},  // already aligned
        {NPU_DTYPE_INT8, {3, 5}, 3, 5, 16},     {NPU_DTYPE_UINT16, {2, 2, 9}, 4, 18, 32},
        {NPU_DTYPE_FLOAT64, {5}, 1, 40, 48},     // rank 1: one row
        {NPU_DTYPE_FLOAT32, {}, 1, 4, 16},       // rank 0: one element
    };
    for (const auto &c : cases) {
        SCOPED_TRACE("case " + std::to_string(&c - cases));
        Bytes in = counting(c.rows * c.row_bytes);
        Ctx ctx(1, 1);
        ctx.input(0, shape_of(c.dims), in.data(), in.size(), c.dtype, NPU_FORMAT_NHWC);
        ASSERT_EQ(add_bubble_infershape(ctx.h), NPU_OK);
        EXPECT_EQ(add_bubble_check_supported(ctx.h), 1u);
        const TensorDesc &o = ctx.h->outputs[0];
        EXPECT_EQ(std::make_tuple(o.wstride, o.dtype, o.format), std::make_tuple(c.wstride, c.dtype, NPU_FORMAT_NHWC));
        EXPECT_EQ(dims_of(ctx.output_shape(0)), c.dims);
        const size_t len = (c.rows - 1) * c.wstride + c.row_bytes;  // as hosts size it
        Bytes out(len + 8, kFill), dense(in.size() + 4, kFill);
        qv_kel_custom_set_output_buf_by_index(ctx.h, 0, out.data(), len);
        ASSERT_EQ(add_bubble_compute(ctx.h), NPU_OK);
        EXPECT_EQ(out, restride(in, c.rows, c.row_bytes, c.row_bytes, c.wstride, len + 8));

        Ctx back(1, 1);
        back.input(0, shape_of(c.dims), out.data(), len, c.dtype);
        qv_kel_custom_set_input_wstride_by_index(back.h, 0, c.wstride);
        ASSERT_EQ(remove_bubble_infershape(back.h), NPU_OK);
        EXPECT_EQ(remove_bubble_check_supported(back.h), 1u);
        EXPECT_EQ(dims_of(back.output_shape(0)), c.dims);
        qv_kel_custom_set_output_buf_by_index(back.h, 0, dense.data(), in.size());
        ASSERT_EQ(remove_bubble_compute(back.h), NPU_OK);
        EXPECT_EQ(dense, restride(in, c.rows, c.row_bytes, c.row_bytes, c.row_bytes, in.size() + 4));
    }
}

// Only whole rows that fit in both buffers are copied (rows of 12 bytes, 16
// apart where strided); a rank-1 tensor is one row; a null buffer is refused.
TEST(Bubble, RowsThatDoNotFitAreNotCopied) {
    const struct { bool add; std::vector<uint32_t> dims; uint64_t in_len, out_len; uint32_t rows_copied; bool null_out; } cases[] = {
        {true, {3, 3}, 36, 40, 2, false},   // row 2 would end at output byte 44
        {true, {3, 3}, 30, 60, 2, false},   // the input holds two whole rows
        {false, {3, 3}, 44, 30, 2, false},  // the output holds two whole rows
        {false, {3, 3}, 40, 36, 2, false},  // row 2 would end at input byte 44
        {true, {3}, 8, 64, 0, false},       // the one row does not fit the input
        {false, {3}, 64, 11, 0, false},     {true, {3, 3}, 64, 64, 0, true},  {false, {3, 3}, 64, 64, 0, true},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE("case " + std::to_string(&c - cases));
        Bytes in = counting(64), out(64, kFill);
        Ctx ctx(1, 1);
        ctx.input(0, shape_of(c.dims), in.data(), c.in_len);
        if (!c.add) qv_kel_custom_set_input_wstride_by_index(ctx.h, 0, 16);
        ASSERT_EQ((c.add ? add_bubble_infershape : remove_bubble_infershape)(ctx.h), NPU_OK);
        qv_kel_custom_set_output_buf_by_index(ctx.h, 0, c.null_out ? nullptr : out.data(), c.out_len);
        EXPECT_EQ((c.add ? add_bubble_compute : remove_bubble_compute)(ctx.h), c.null_out ? NPU_ERR_INVALID_ARG : NPU_OK);
        EXPECT_EQ(out, restride(in, c.rows_copied, 12, c.add ? 12 : 16, c.add ? 16 : 12, 64));
    }
}

}  // namespace
