// Depth to space: both channel orders against the reshape-transpose
// definition, mode selection, the 0xFFFFFFFF failures with their messages,
// and the bad-input guards.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "npucpu.h"
#include "test_util.h"

namespace {

using npucpu_test::Ctx;
using npucpu_test::dims_of;
using npucpu_test::shape_of;

// Reference by the operator's definition: DCR views the channels as
// [b, b, C'] and CRD as [C', b, b]; output [n, c', h*b+dh, w*b+dw].
std::vector<float> reference(const std::vector<uint32_t> &d, uint32_t b, bool crd) {
    const uint32_t N = d[0], C = d[1], H = d[2], W = d[3], Co = C / (b * b);
    std::vector<float> out(N * C * H * W);
    for (uint32_t n = 0; n < N; ++n)
        for (uint32_t co = 0; co < Co; ++co)
            for (uint32_t dh = 0; dh < b; ++dh)
                for (uint32_t dw = 0; dw < b; ++dw)
                    for (uint32_t h = 0; h < H; ++h)
                        for (uint32_t w = 0; w < W; ++w) {
                            const uint32_t c = crd ? (co * b + dh) * b + dw : (dh * b + dw) * Co + co;
                            const uint32_t o = ((n * Co + co) * H * b + h * b + dh) * W * b + w * b + dw;
                            out[o] = static_cast<float>(((n * C + c) * H + h) * W + w);
                        }
    return out;
}

struct ModeCase {
    std::vector<uint32_t> dims;
    int64_t b;
    const char *mode;  // null: no mode attribute
    bool crd;          // the order the mode must select
    std::vector<float> want;  // empty: compare with the reference
};

TEST(DepthToSpace, BothOrders) {
    const std::vector<ModeCase> cases = {
        {{1, 4, 1, 1}, 2, "DCR", false, {0, 1, 2, 3}},
        {{1, 4, 1, 1}, 2, "CRD", true, {0, 1, 2, 3}},
        {{1, 8, 1, 1}, 2, "DCR", false, {0, 2, 4, 6, 1, 3, 5, 7}},
        {{1, 8, 1, 1}, 2, "CRD", true, {0, 1, 2, 3, 4, 5, 6, 7}},
        {{2, 8, 2, 3}, 2, "DCR", false, {}},
        {{2, 8, 2, 3}, 2, "CRD", true, {}},
        {{1, 18, 3, 2}, 3, "CRD", true, {}},
        {{2, 18, 2, 1}, 3, "DCR", false, {}},
        {{1, 8, 2, 2}, 2, nullptr, false, {}},  // absent: DCR
        {{1, 8, 2, 2}, 2, "crd", false, {}},    // case-sensitive
        {{1, 8, 2, 2}, 2, "CRDX", true, {}},    // first three characters decide
        {{1, 8, 2, 2}, 2, "CR", false, {}},
    };
    for (const ModeCase &t : cases) {
        SCOPED_TRACE(std::string(t.mode ? t.mode : "(no mode)") + " b=" + std::to_string(t.b) +
                     " C=" + std::to_string(t.dims[1]));
        Ctx ctx(1, 1, 2);
        std::vector<float> in(t.dims[0] * t.dims[1] * t.dims[2] * t.dims[3]);
        for (size_t i = 0; i < in.size(); ++i) in[i] = static_cast<float>(i);
        ctx.input(0, shape_of(t.dims), in);
        ctx.attr_int(0, "blocksize", t.b);
        if (t.mode) ctx.attr_string(1, "mode", t.mode);
        ASSERT_EQ(depth_to_space_infershape(ctx.h), 0u);
        const uint32_t b = static_cast<uint32_t>(t.b);
        EXPECT_EQ(dims_of(ctx.output_shape(0)),
                  (std::vector<uint32_t>{t.dims[0], t.dims[1] / (b * b), t.dims[2] * b,
                                         t.dims[3] * b}));
        std::vector<float> &out = ctx.alloc_output(0, -1.0f);
        ASSERT_EQ(depth_to_space_compute(ctx.h), 0u);
        EXPECT_EQ(out, t.want.empty() ? reference(t.dims, b, t.crd) : t.want);
    }
}

struct FailCase {
    const char *what;
    std::vector<uint32_t> dims;
    bool with_blocksize;
    int64_t b;
    uint32_t status;
    const char *err;  // after the unit and masked line number
};

TEST(DepthToSpace, InfershapeFailures) {
    const std::vector<FailCase> cases = {
        {"rank 3", {1, 4, 2}, true, 2, NPU_FAIL,
         "invalid dim size: 3, DepthToSpace only support 4-D \n"},
        {"no blocksize", {1, 4, 2, 2}, false, 0, NPU_FAIL, "blocksize should greater than 1 ! \n"},
        {"blocksize 1", {1, 4, 2, 2}, true, 1, NPU_FAIL, "blocksize should greater than 1 ! \n"},
        {"negative blocksize", {1, 4, 2, 2}, true, -2, NPU_FAIL,
         "blocksize should greater than 1 ! \n"},
        {"channels not a multiple", {1, 6, 2, 2}, true, 2, NPU_FAIL,
         "invalid blocksize: 2, can not be divided by input channels: 6 \n"},
        {"no channels", {1, 0, 2, 2}, true, 2, NPU_FAIL,
         "output channel / (blocksize * blocksize) can not be zero! \n"},
        // Guard: 65536 squared wraps to 0 in 32 bits.
        {"square wraps to zero", {1, 4, 2, 2}, true, 65536, NPU_ERR_INVALID_ARG, nullptr},
    };
    for (const FailCase &t : cases) {
        SCOPED_TRACE(t.what);
        Ctx ctx(1, 1, 1);
        std::vector<float> in(64);
        ctx.input(0, shape_of(t.dims), in);
        if (t.with_blocksize) ctx.attr_int(0, "blocksize", t.b);
        uint32_t status = 0;
        const std::string err = npucpu_test::mask_error_lines(npucpu_test::capture_stderr(
            [&] { npucpu_test::capture_stdout([&] { status = depth_to_space_infershape(ctx.h); }); }));
        EXPECT_EQ(status, t.status);
        EXPECT_EQ(err, t.err ? std::string("[E] [custom] [depth_to_space_ops_impl:L] ") + t.err : "");
        EXPECT_EQ(ctx.output_shape(0).dim_num, 0u);
    }
}

TEST(DepthToSpace, ComputeFailuresWriteNothing) {
    struct Case {
        const char *what;
        uint32_t out_channels;
        bool with_blocksize;
        const char *err;
    };
    const std::vector<Case> cases = {
        {"output channel 0", 0, true, "invalid output channel: 0 \n"},
        {"no blocksize", 1, false, "blocksize should greater than 1 ! \n"},
    };
    for (const Case &t : cases) {
        SCOPED_TRACE(t.what);
        Ctx ctx(1, 1, 1);
        std::vector<float> in(4, 1.0f), out(4, -1.0f);
        ctx.input(0, shape_of({1, 4, 1, 1}), in);
        const TensorShape out_shape = shape_of({1, t.out_channels, 2, 2});
        qv_kel_custom_set_output_by_index(ctx.h, 0, NPU_DTYPE_FLOAT32, NPU_FORMAT_NCHW, &out_shape,
                                          out.data(), 16);
        if (t.with_blocksize) ctx.attr_int(0, "blocksize", 2);
        uint32_t status = 0;
        const std::string err = npucpu_test::mask_error_lines(npucpu_test::capture_stderr(
            [&] { npucpu_test::capture_stdout([&] { status = depth_to_space_compute(ctx.h); }); }));
        EXPECT_EQ(status, uint32_t{NPU_FAIL});
        EXPECT_EQ(err, std::string("[E] [custom] [depth_to_space_ops_impl:L] ") + t.err);
        EXPECT_EQ(out, std::vector<float>(4, -1.0f));
    }
}

TEST(DepthToSpace, CheckSupported) {
    for (uint32_t dtype : {0u, 4u, 19u}) {
        Ctx ctx(1, 1);
        float x[4] = {};
        ctx.input(0, shape_of({1, 4, 1, 1}), x, sizeof x, dtype);
        uint32_t ok = 2;
        const std::string err = npucpu_test::mask_error_lines(
            npucpu_test::capture_stderr([&] { ok = depth_to_space_check_supported(ctx.h); }));
        EXPECT_EQ(ok, dtype == 0 ? 1u : 0u);
        EXPECT_EQ(err, dtype == 0 ? std::string()
                                  : "[E] [custom] [depth_to_space_ops_impl:L] not support dtype: " +
                                        std::to_string(dtype) + " \n");
    }
}

TEST(DepthToSpace, BuffersShorterThanTheirShapesAreClamped) {
    // Guard: reads stop at the end of the input and writes outside the output
    // are skipped (the sanitizer build catches an overrun).
    for (const char *mode : {"CRD", "DCR"}) {
        SCOPED_TRACE(mode);
        Ctx ctx(1, 1, 2);
        std::vector<float> in = {1, 2, 3, 4, 5};
        ctx.input(0, shape_of({1, 8, 1, 1}), in);
        ctx.attr_int(0, "blocksize", 2);
        ctx.attr_string(1, "mode", mode);
        ASSERT_EQ(depth_to_space_infershape(ctx.h), 0u);
        std::vector<float> out(3, -1.0f);
        qv_kel_custom_set_output_buf_by_index(ctx.h, 0, out.data(), 12);
        EXPECT_EQ(depth_to_space_compute(ctx.h), 0u);
        if (mode[0] == 'C') EXPECT_EQ(out, (std::vector<float>{1, 2, 3}));
        else EXPECT_EQ(out, (std::vector<float>{1, 3, 5}));
    }
}

}  // namespace
