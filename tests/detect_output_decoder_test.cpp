// detect_output_decoder: shapes, support test, fixed-point decoding and the
// unsigned count.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "npucpu.h"
#include "test_util.h"

namespace {

using npucpu_test::capture_stderr;
using npucpu_test::Ctx;
using npucpu_test::dims_of;
using npucpu_test::mask_error_lines;
using npucpu_test::shape_of;

struct Decoded {
    uint32_t status;
    std::vector<float> count;
    std::vector<float> table;
};

// Runs the three stages on a [1, 1, rows, cols] table and a one-element count.
Decoded run(uint32_t count, std::vector<int16_t> table, uint32_t rows, uint32_t cols) {
    Ctx ctx(2, 2);
    std::vector<uint32_t> n = {count};
    ctx.input(0, shape_of({1}), n.data(), 4, NPU_DTYPE_UINT32);
    ctx.input(1, shape_of({1, 1, rows, cols}), table.data(), table.size() * 2, NPU_DTYPE_INT16);
    EXPECT_EQ(detect_output_decoder_infershape(ctx.h), NPU_OK);
    EXPECT_EQ(detect_output_decoder_check_supported(ctx.h), 1u);
    ctx.alloc_output(0, -1.0f);
    ctx.alloc_output(1, -1.0f);
    Decoded d;
    d.status = detect_output_decoder_compute(ctx.h);
    d.count = ctx.output(0);
    d.table = ctx.output(1);
    return d;
}

TEST(DetectOutputDecoder, ExampleTableIsDecodedAndTransposed) {
    const Decoded d = run(2, {8, 16, 24, 32, 16384, 3, 0, 0, 8, 8, 32767, 1}, 2, 6);
    EXPECT_EQ(d.status, NPU_OK);
    const std::vector<float> expected = {1, 0, 2, 0, 3, 1, 4, 1, 0.5f, 32767.0f / 32768.0f, 3, 1};
    EXPECT_EQ(d.table, expected);
    EXPECT_EQ(d.count, std::vector<float>{2.0f});
}

TEST(DetectOutputDecoder, SignsScalesAndUndecodedColumns) {
    // One detection of 8 columns: negatives keep their sign, columns 6 and 7 become 0.
    const Decoded d = run(1, {-8, -1, 32767, -32768, -32768, -5, 123, -9}, 1, 8);
    EXPECT_EQ(d.status, NPU_OK);
    const std::vector<float> expected = {-1.0f, -0.125f, 4095.875f, -4096.0f, -1.0f, -5.0f, 0.0f, 0.0f};
    EXPECT_EQ(d.table, expected);
}

TEST(DetectOutputDecoder, CountIsConvertedAsUnsigned) {
    const struct {
        uint32_t count;
        float expected;
    } cases[] = {{0u, 0.0f}, {7u, 7.0f}, {2147483648u, 2147483648.0f}, {4294967295u, 4294967296.0f},
                 {16777217u, 16777216.0f}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.count);
        const Decoded d = run(c.count, {0, 0, 0, 0, 0, 0}, 1, 6);
        EXPECT_EQ(d.count, std::vector<float>{c.expected});
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
}

TEST(DetectOutputDecoder, InputCountMessage) {
    for (uint32_t inputs : {1u, 3u}) {
        Ctx ctx(inputs, 2);
        uint32_t status = 0;
        const std::string err =
            capture_stderr([&] { status = detect_output_decoder_infershape(ctx.h); });
        EXPECT_EQ(status, NPU_ERR_INPUT_NUM);
        EXPECT_EQ(mask_error_lines(err),
                  "[E] [custom] [detect_output_decoder_ops_impl:L] detect_output_decoder only support 2 inputs \n");
    }
}

TEST(DetectOutputDecoder, CheckSupportedNeedsUint32CountAndInt16Table) {
    const struct {
        uint32_t count_dtype, table_dtype, expected;
    } cases[] = {{NPU_DTYPE_UINT32, NPU_DTYPE_INT16, 1},
                 {NPU_DTYPE_INT32, NPU_DTYPE_INT16, 0},
                 {NPU_DTYPE_UINT32, NPU_DTYPE_FLOAT32, 0}};
    for (const auto &c : cases) {
        Ctx ctx(2, 2);
        uint32_t n = 0;
        int16_t t = 0;
        ctx.input(0, shape_of({1}), &n, 4, c.count_dtype);
        ctx.input(1, shape_of({1, 1, 1, 1}), &t, 2, c.table_dtype);
        EXPECT_EQ(detect_output_decoder_check_supported(ctx.h), c.expected);
    }
}

TEST(DetectOutputDecoder, MissingBuffersRefuseBeforeWriting) {
    for (int missing = 0; missing < 4; ++missing) {
        SCOPED_TRACE(missing);
        Ctx ctx(2, 2);
        uint32_t n = 5;
        std::vector<int16_t> table(6, 8);
        ctx.input(0, shape_of({1}), missing == 0 ? nullptr : &n, 4, NPU_DTYPE_UINT32);
        ctx.input(1, shape_of({1, 1, 1, 6}), missing == 1 ? nullptr : table.data(), 12, NPU_DTYPE_INT16);
        ASSERT_EQ(detect_output_decoder_infershape(ctx.h), NPU_OK);
        std::vector<float> out0(1, -1.0f), out1(6, -1.0f);
        qv_kel_custom_set_output_buf_by_index(ctx.h, 0, missing == 2 ? nullptr : out0.data(), 4);
        qv_kel_custom_set_output_buf_by_index(ctx.h, 1, missing == 3 ? nullptr : out1.data(), 24);
        EXPECT_EQ(detect_output_decoder_compute(ctx.h), NPU_ERR_INVALID_ARG);
        EXPECT_EQ(out0, std::vector<float>(1, -1.0f));
        EXPECT_EQ(out1, std::vector<float>(6, -1.0f));
    }
}

TEST(DetectOutputDecoder, ShortOutputBufferGetsTheLeadingPart) {
    Ctx ctx(2, 2);
    uint32_t n = 1;
    std::vector<int16_t> table = {8, 16, 24, 32, 0, 1, 8, 8, 8, 8, 0, 2};
    ctx.input(0, shape_of({1}), &n, 4, NPU_DTYPE_UINT32);
    ctx.input(1, shape_of({1, 1, 2, 6}), table.data(), 24, NPU_DTYPE_INT16);
    ASSERT_EQ(detect_output_decoder_infershape(ctx.h), NPU_OK);
    std::vector<float> out0(1, -1.0f), out1(6, -1.0f);
    qv_kel_custom_set_output_buf_by_index(ctx.h, 0, out0.data(), 4);
    qv_kel_custom_set_output_buf_by_index(ctx.h, 1, out1.data(), 5 * sizeof(float));
    EXPECT_EQ(detect_output_decoder_compute(ctx.h), NPU_OK);
    EXPECT_EQ(out1, (std::vector<float>{1, 1, 2, 1, 3, -1.0f}));
    EXPECT_EQ(out0, std::vector<float>{1.0f});
}

}  // namespace
