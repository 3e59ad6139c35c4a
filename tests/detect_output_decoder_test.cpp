// detect_output_decoder: shapes, support test, fixed-point decoding, the
// unsigned count, and buffers that are absent or short.
#include <gtest/gtest.h>

#include "test_util.h"

namespace {

using namespace npucpu_test;
using Floats = std::vector<float>;

TEST(DetectOutputDecoder, DecodesTransposesAndCountsUnsigned) {
    const std::vector<int16_t> zeros(6, 0);
    const struct { uint32_t count; std::vector<int16_t> table; uint32_t rows, cols; Floats want, want_count; } cases[] = {
        {2, {8, 16, 24, 32, 16384, 3, 0, 0, 8, 8, 32767, 1}, 2, 6,
         {1, 0, 2, 0, 3, 1, 4, 1, 0.5f, 32767.0f / 32768.0f, 3, 1}, {2}},
        // Negatives keep their sign; columns 6 and 7 are not decoded and become 0.
        {1, {-8, -1, 32767, -32768, -32768, -5, 123, -9}, 1, 8, {-1, -0.125f, 4095.875f, -4096, -1, -5, 0, 0}, {1}},
        {0, zeros, 1, 6, Floats(6, 0.0f), {0}},
        {2147483648u, zeros, 1, 6, Floats(6, 0.0f), {2147483648.0f}},
        {4294967295u, zeros, 1, 6, Floats(6, 0.0f), {4294967296.0f}},
        {16777217u, zeros, 1, 6, Floats(6, 0.0f), {16777216.0f}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.count);
        Ctx ctx(2, 2);
        std::vector<uint32_t> n = {c.count};
        std::vector<int16_t> table = c.table;
        ctx.input(0, shape_of({1}), n.data(), 4, NPU_DTYPE_UINT32);
        ctx.input(1, shape_of({1, 1, c.rows, c.cols}), table.data(), table.size() * 2, NPU_DTYPE_INT16);
        ASSERT_EQ(detect_output_decoder_infershape(ctx.h), NPU_OK);
        EXPECT_EQ(detect_output_decoder_check_supported(ctx.h), 1u);
        ctx.alloc_output(0, -1.0f);
        ctx.alloc_output(1, -1.0f);
        EXPECT_EQ(detect_output_decoder_compute(ctx.h), NPU_OK);
        EXPECT_EQ(ctx.output(0), c.want_count);
        EXPECT_EQ(ctx.output(1), c.want);
    }
}

TEST(DetectOutputDecoder, InfershapeExchangesLastTwoDims) {
    Ctx ctx(2, 2);
    std::vector<uint32_t> n = {3};
    std::vector<int16_t> table(2 * 3 * 7);
    ctx.input(0, shape_of({1, 1}), n.data(), 4, NPU_DTYPE_UINT32, NPU_FORMAT_NHWC);
    ctx.input(1, shape_of({1, 2, 3, 7}), table.data(), table.size() * 2, NPU_DTYPE_INT16, NPU_FORMAT_NHWC);
    ASSERT_EQ(detect_output_decoder_infershape(ctx.h), NPU_OK);
    EXPECT_EQ(dims_of(ctx.output_shape(0)), (std::vector<uint32_t>{1, 1}));
    EXPECT_EQ(dims_of(ctx.output_shape(1)), (std::vector<uint32_t>{1, 2, 7, 3}));
    for (uint32_t i = 0; i < 2; ++i) {
        uint32_t dtype = 99, format = 99;
        qv_kel_custom_get_output_dtype_by_index(ctx.h, i, &dtype);
        qv_kel_custom_get_output_format_by_index(ctx.h, i, &format);
        EXPECT_EQ(dtype, NPU_DTYPE_FLOAT32);
        EXPECT_EQ(format, NPU_FORMAT_NCHW);
    }
    for (uint32_t inputs : {1u, 3u}) {
        Ctx bad(inputs, 2);
        uint32_t status = 0;
        EXPECT_EQ(mask_error_lines(capture_stderr([&] { status = detect_output_decoder_infershape(bad.h); })),
                  "[E] [custom] [detect_output_decoder_ops_impl:L] detect_output_decoder only support 2 inputs \n");
        EXPECT_EQ(status, NPU_ERR_INPUT_NUM);
    }
}

TEST(DetectOutputDecoder, CheckSupportedNeedsUint32CountAndInt16Table) {
    const uint32_t U = NPU_DTYPE_UINT32, S = NPU_DTYPE_INT16;
    const struct { uint32_t count_dtype, table_dtype, expected; } cases[] = {
        {U, S, 1}, {NPU_DTYPE_INT32, S, 0}, {U, NPU_DTYPE_FLOAT32, 0}};
    for (const auto &c : cases) {
        Ctx ctx(2, 2);
        uint32_t n = 0;
        int16_t t = 0;
        ctx.input(0, shape_of({1}), &n, 4, c.count_dtype);
        ctx.input(1, shape_of({1, 1, 1, 1}), &t, 2, c.table_dtype);
        EXPECT_EQ(detect_output_decoder_check_supported(ctx.h), c.expected);
    }
}

// One detection of two rows. Absent buffers (count, table, count output,
// table output in turn) are refused before anything is written; a short
// table output (missing -1) receives the leading part.
TEST(DetectOutputDecoder, AbsentBuffersRefuseAndShortOnesGetTheStart) {
    for (int missing = -1; missing < 4; ++missing) {
        SCOPED_TRACE(missing);
        Ctx ctx(2, 2);
        uint32_t n = 1;
        std::vector<int16_t> table = {8, 16, 24, 32, 0, 1, 8, 8, 8, 8, 0, 2};
        ctx.input(0, shape_of({1}), missing == 0 ? nullptr : &n, 4, NPU_DTYPE_UINT32);
        ctx.input(1, shape_of({1, 1, 2, 6}), missing == 1 ? nullptr : table.data(), 24, NPU_DTYPE_INT16);
        ASSERT_EQ(detect_output_decoder_infershape(ctx.h), NPU_OK);
        Floats out0(1, -1.0f), out1(6, -1.0f);
        qv_kel_custom_set_output_buf_by_index(ctx.h, 0, missing == 2 ? nullptr : out0.data(), 4);
        qv_kel_custom_set_output_buf_by_index(ctx.h, 1, missing == 3 ? nullptr : out1.data(), 20);
        EXPECT_EQ(detect_output_decoder_compute(ctx.h), missing < 0 ? NPU_OK : NPU_ERR_INVALID_ARG);
        EXPECT_EQ(out0, missing < 0 ? Floats{1} : Floats{-1});
        EXPECT_EQ(out1, missing < 0 ? Floats({1, 1, 2, 1, 3, -1}) : Floats(6, -1.0f));
    }
}

}  // namespace
