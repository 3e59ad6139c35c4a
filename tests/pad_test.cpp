// Pad: the three modes, cropping, the empty result, refusals and loop guards.
#include <gtest/gtest.h>

#include "test_util.h"

using namespace npucpu_test;

namespace {

const std::string kPre = "[E] [custom] [pad_ops_impl:L] ";
constexpr float kSentinel = -77.0f;
const uint32_t F32 = NPU_DTYPE_FLOAT32, I64 = NPU_DTYPE_INT64;

// Input 0 of `dims` holding `data`, pads as int64, an optional constant
// (input 2) and an optional mode attribute.
struct PadCtx : Ctx {
    std::vector<int64_t> pads;
    PadCtx(const std::vector<uint32_t> &dims, void *data, uint64_t len, uint32_t dtype, std::vector<int64_t> p,
           const char *mode, void *constant, uint64_t constant_len = 4)
        : Ctx(constant_len ? 3 : 2, 1, mode ? 1 : 0), pads(std::move(p)) {
        input(0, shape_of(dims), data, len, dtype);
        input(1, shape_of({static_cast<uint32_t>(pads.size())}), pads.data(), 8 * pads.size(), I64);
        if (constant_len) input(2, shape_of({1}), constant, constant_len, dtype);
        if (mode) attr_string(0, "mode", mode);
    }
};

// A null mode leaves the attribute out, `constant` 0 input 2; `err` is what
// infershape and compute print. The element loop refuses calls it cannot
// serve before writing anything and fills a short output (`out_len` bytes) as
// far as it goes; `null`: 0 the input, 1 the output, 2 the constant is null.
TEST(Pad, ModesAndComputeGuards) {
    const std::vector<float> k123 = {1, 2, 3}, k1234 = {1, 2, 3, 4}, k2x3 = {1, 2, 3, 4, 5, 6}, k12 = {1, 2};
    const float s = kSentinel;
    const uint32_t ARG = NPU_ERR_INVALID_ARG;
    const struct { const char *name; std::vector<uint32_t> dims; std::vector<float> data; std::vector<int64_t> pads;
                   const char *mode; float constant; std::vector<uint32_t> out_dims; std::vector<float> out;
                   std::string err = ""; uint32_t status = NPU_OK; int null = -1; uint64_t out_len = 0;
                   uint32_t dtype = F32; } cases[] = {
        {"zero pads copy, constant", {2, 3}, k2x3, {0, 0, 0, 0}, "constant", 0, {2, 3}, k2x3},
        {"zero pads copy, reflect", {2, 3}, k2x3, {0, 0, 0, 0}, "reflect", 0, {2, 3}, k2x3},
        {"zero pads copy, edge", {2, 3}, k2x3, {0, 0, 0, 0}, "edge", 0, {2, 3}, k2x3},
        {"constant without input 2 is zero", {3}, k123, {2, 2}, nullptr, 0, {7}, {0, 0, 1, 2, 3, 0, 0}},
        {"constant from input 2", {3}, k123, {2, 1}, "constant", 9, {6}, {9, 9, 1, 2, 3, 9}},
        {"constant on both axes", {2, 3}, k2x3, {1, 0, 0, 1}, "constant", 7, {3, 4}, {7, 7, 7, 7, 1, 2, 3, 7, 4, 5, 6, 7}},
        {"reflect within one reflection", {3}, k123, {2, 2}, "reflect", 9, {7}, {3, 2, 1, 2, 3, 2, 1}},
        {"reflect beyond one reflection takes the constant", {3}, k123, {3, 3}, "reflect", 9, {9}, {9, 3, 2, 1, 2, 3, 2, 1, 9}},
        {"reflect on two axes", {2, 3}, k2x3, {1, 1, 1, 1}, "reflect", 0, {4, 5},
         {5, 4, 5, 6, 5, 2, 1, 2, 3, 2, 5, 4, 5, 6, 5, 2, 1, 2, 3, 2}},
        {"reflect does not mirror into a cropped end", {4}, k1234, {3, -1}, "reflect", 9, {6}, {9, 3, 2, 1, 2, 3}},
        {"reflect does not mirror into a cropped begin", {4}, k1234, {-2, 3}, "reflect", 9, {5}, {3, 4, 3, 9, 9}},
        {"edge", {3}, k123, {2, 1}, "edge", 0, {6}, {1, 1, 1, 2, 3, 3}},
        {"edge on two axes", {2, 3}, k2x3, {1, 0, 0, 2}, "edge", 0, {3, 5}, {1, 2, 3, 3, 3, 1, 2, 3, 3, 3, 4, 5, 6, 6, 6}},
        {"negative pads crop, constant", {5}, {1, 2, 3, 4, 5}, {-1, -2}, "constant", 0, {2}, {2, 3}},
        {"negative pads crop, edge", {2, 3}, k2x3, {-1, 1, 0, -2}, "edge", 0, {1, 2}, {4, 4}},
        {"crop and grow on one axis", {4}, k1234, {-1, 2}, "constant", 8, {5}, {2, 3, 4, 8, 8}},
        {"pads use their full 64 bits in the loop", {3}, k123, {(int64_t{1} << 32) + 1, 0}, "constant", 5, {4}, {5, 5, 5, 5}},
        {"mode is case-sensitive", {3}, k123, {1, 1}, "REFLECT", 0, {5}, {0, 1, 2, 3, 0}, kPre + "Pad mode error, use default: constant \n"},
        {"a crop to nothing gives a rank-0 output", {3}, k123, {-2, -1}, "constant", 0, {}, {kSentinel},
         kPre + "Pad output tensor is empty \n"},
        {"unsupported data type", {2}, k12, {1, 0}, "constant", 1, {3}, {s, s, s}, "", NPU_ERR_UNSUPPORTED, -1, 0, I64},
        {"edge of an empty axis", {0}, k12, {1, 0}, "edge", 1, {1}, {s}, "", ARG},
        {"constant of an empty axis reads nothing", {0}, k12, {1, 1}, "constant", 1, {2}, {1, 1}, "", NPU_OK, 0},
        {"null input", {2}, k12, {1, 0}, "constant", 1, {3}, {s, s, s}, "", ARG, 0},
        {"null output", {2}, k12, {1, 0}, "constant", 1, {3}, {s, s, s}, "", ARG, 1},
        {"null constant buffer reads as zero", {2}, k12, {1, 0}, "constant", 1, {3}, {0, 1, 2}, "", NPU_OK, 2},
        {"short output", {2}, k12, {1, 1}, "constant", 1, {4}, {1, 1, s, s}, "", NPU_OK, -1, 8},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<float> data = c.data, out(c.out.size(), s);
        float constant = c.constant;
        PadCtx ctx(c.dims, c.null == 0 ? nullptr : data.data(), 4 * count_of(c.dims), c.dtype, c.pads, c.mode,
                   c.null == 2 ? nullptr : &constant, c.constant != 0 ? 4 : 0);
        uint32_t infer = 1, compute = 1;
        EXPECT_EQ(mask_error_lines(capture_stderr([&] {
                      infer = pad_infershape(ctx.h);
                      qv_kel_custom_set_output_buf_by_index(ctx.h, 0, c.null == 1 ? nullptr : out.data(),
                                                            c.out_len ? c.out_len : 4 * out.size());
                      compute = pad_compute(ctx.h);
                  })), c.err);
        EXPECT_EQ(std::make_pair(infer, compute), std::make_pair(0u, c.status));
        EXPECT_EQ(dims_of(ctx.output_shape(0)), c.out_dims);
        EXPECT_EQ(out, c.out);
        EXPECT_EQ(pad_check_supported(ctx.h), c.dtype == F32 ? 1u : 0u);
    }
}

// One-byte and four-byte integer elements move as bytes.
TEST(Pad, IntegerElements) {
    std::vector<int8_t> bytes = {-1, 2, -3};
    for (const uint32_t dtype : {NPU_DTYPE_INT8, NPU_DTYPE_UINT8}) {
        std::vector<int8_t> out8(6, 99);
        PadCtx ctx({3}, bytes.data(), 3, dtype, {1, 2}, "reflect", nullptr, 0);
        ASSERT_EQ(pad_infershape(ctx.h), NPU_OK);
        qv_kel_custom_set_output_buf_by_index(ctx.h, 0, out8.data(), out8.size());
        EXPECT_EQ(pad_compute(ctx.h), NPU_OK);
        EXPECT_EQ(out8, (std::vector<int8_t>{2, -1, 2, -3, 2, -1}));
    }
    std::vector<int32_t> words = {-100000, 7}, out(5, 0);
    int32_t fill = 123456789;
    PadCtx ctx({2}, words.data(), 8, NPU_DTYPE_INT32, {1, 2}, nullptr, &fill);
    ASSERT_EQ(pad_infershape(ctx.h), NPU_OK);
    qv_kel_custom_set_output_buf_by_index(ctx.h, 0, out.data(), 20);
    EXPECT_EQ(pad_compute(ctx.h), NPU_OK);
    EXPECT_EQ(out, (std::vector<int32_t>{fill, -100000, 7, fill, fill}));
}

TEST(Pad, InfershapeRefusals) {
    const std::string count = kPre + "Pad only support 2 or 3 inputs \n";
    const struct { const char *name; uint32_t inputs, outputs; bool null_pads; uint64_t pads_len; uint32_t status; std::string err; } cases[] = {
        {"one input", 1, 1, false, 16, NPU_ERR_INVALID_ARG, count},
        {"four inputs", 4, 1, false, 16, NPU_ERR_INVALID_ARG, count},
        {"two outputs", 2, 2, false, 16, NPU_ERR_INVALID_ARG, kPre + "Pad only support 1 outputs \n"},
        {"null pads", 2, 1, true, 16, NPU_ERR_INPUT, ""},
        {"pads for another rank", 2, 1, false, 32, NPU_ERR_INVALID_ARG, kPre + "input 1 pads format error \n"},
        {"pads length rounds down to whole values", 2, 1, false, 23, NPU_OK, ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<float> data = {1, 2, 3};
        std::vector<int64_t> pads = {1, 1, 0, 0};
        Ctx ctx(c.inputs, c.outputs);
        ctx.input(0, shape_of({3}), data);
        if (c.inputs > 1) ctx.input(1, shape_of({2}), c.null_pads ? nullptr : pads.data(), c.pads_len, I64);
        uint32_t status = 0;
        EXPECT_EQ(mask_error_lines(capture_stderr([&] { status = pad_infershape(ctx.h); })), c.err);
        EXPECT_EQ(status, c.status);
    }
}

TEST(Pad, CheckSupported) {
    const struct { uint32_t data_type, pads_type, constant_type, supported; } cases[] = {  // constant 99: two inputs
        {F32, I64, 99, 1}, {NPU_DTYPE_INT8, I64, NPU_DTYPE_INT8, 1}, {NPU_DTYPE_UINT8, I64, 99, 1},
        {NPU_DTYPE_INT32, I64, 99, 1}, {NPU_DTYPE_INT16, I64, 99, 0}, {F32, NPU_DTYPE_INT32, 99, 0},
        {F32, I64, NPU_DTYPE_INT32, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE("case " + std::to_string(&c - cases));
        std::vector<float> buf(4);
        Ctx ctx(c.constant_type == 99 ? 2 : 3, 1);
        ctx.input(0, shape_of({1}), buf.data(), 4, c.data_type);
        ctx.input(1, shape_of({2}), buf.data(), 16, c.pads_type);
        if (c.constant_type != 99) ctx.input(2, shape_of({1}), buf.data(), 4, c.constant_type);
        uint32_t supported = 2;
        const std::string err = mask_error_lines(capture_stderr([&] { supported = pad_check_supported(ctx.h); }));
        EXPECT_EQ(supported, c.supported);
        const bool mixed = c.constant_type != 99 && c.constant_type != c.data_type;
        EXPECT_EQ(err, mixed ? kPre + "pad input 0 and input 2 are inconsistent in data tpye \n" : "");
    }
}

TEST(Pad, RunAndCopyDirectly) {
    // Rank 0: the single element is copied; ranks that disagree, and a missing
    // mode, are refused.
    const float in = 4.5f, fill = 1.0f;
    float out = 0.0f;
    const TensorShape scalar{}, one = shape_of({1});
    EXPECT_EQ(pad_run(&in, &out, &fill, 4, &scalar, &scalar, nullptr, "edge"), NPU_OK);
    EXPECT_EQ(out, 4.5f);
    const int64_t pads[2] = {0, 0};
    out = 0.0f;
    EXPECT_EQ(pad_run(&in, &out, &fill, 4, &one, &scalar, pads, "edge"), NPU_ERR_INVALID_ARG);
    EXPECT_EQ(pad_run(&in, &out, &fill, 4, &one, &one, pads, nullptr), NPU_ERR_INVALID_ARG);
    EXPECT_EQ(out, 0.0f);
    const char src[] = "abcdef";
    char dst[8] = "-------";
    pad_copy(dst, src, 1, 1, 2, 2);  // elements of 2 bytes
    EXPECT_STREQ(dst, "--cdef-");
}

}  // namespace
