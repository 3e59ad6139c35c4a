// Depth to space: both channel orders, mode selection, failures and guards.
#include <gtest/gtest.h>

#include "npucpu.h"
#include "test_util.h"

namespace {

using namespace npucpu_test;

// Input element (n, c, h, w) lands at (n, c', h*b+dh, w*b+dw), where the
// channel index splits as (c', dh, dw) in CRD and (dh, dw, c') in DCR.
std::vector<float> reference(const std::vector<uint32_t> &d, uint32_t b, bool crd) {
    const uint32_t N = d[0], C = d[1], H = d[2], W = d[3], Co = C / (b * b);
    std::vector<float> out(N * C * H * W);
    for (uint32_t i = 0; i < out.size(); ++i) {
        const uint32_t n = i / (C * H * W), c = i / (H * W) % C, h = i / W % H, w = i % W;
        const uint32_t co = crd ? c / (b * b) : c % Co, blk = crd ? c % (b * b) : c / Co;
        out[((n * Co + co) * H * b + h * b + blk / b) * W * b + w * b + blk % b] = float(i);
    }
    return out;
}

TEST(DepthToSpace, BothOrders) {
    const struct {
        std::vector<uint32_t> dims;
        uint32_t b;
        const char *mode;         // null: no mode attribute
        bool crd;                 // the order the mode selects
        std::vector<float> want;  // empty: the reference
    } cases[] = {
        {{1, 4, 1, 1}, 2, "DCR", false, {0, 1, 2, 3}},
        {{1, 8, 1, 1}, 2, "DCR", false, {0, 2, 4, 6, 1, 3, 5, 7}},
        {{1, 8, 1, 1}, 2, "CRD", true, {0, 1, 2, 3, 4, 5, 6, 7}},
        {{2, 8, 2, 3}, 2, "DCR", false, {}},
        {{2, 8, 2, 3}, 2, "CRD", true, {}},
        {{2, 18, 3, 2}, 3, "CRD", true, {}},
        {{2, 18, 2, 1}, 3, "DCR", false, {}},
        {{1, 8, 2, 2}, 2, nullptr, false, {}},
        {{1, 8, 2, 2}, 2, "crd", false, {}},  // case-sensitive
        {{1, 8, 2, 2}, 2, "CRDX", true, {}},  // the first three characters decide
        {{1, 8, 2, 2}, 2, "CR", false, {}},
    };
    for (const auto &t : cases) {
        SCOPED_TRACE(std::string(t.mode ? t.mode : "no mode") + " C=" + std::to_string(t.dims[1]));
        Ctx ctx(1, 1, 2);
        std::vector<float> in = iota(count_of(t.dims), 0.0f);
        ctx.input(0, shape_of(t.dims), in);
        ctx.attr_int(0, "blocksize", t.b);
        if (t.mode) ctx.attr_string(1, "mode", t.mode);
        ASSERT_EQ(depth_to_space_infershape(ctx.h), 0u);
        EXPECT_EQ(dims_of(ctx.output_shape(0)),
                  (std::vector<uint32_t>{t.dims[0], t.dims[1] / (t.b * t.b), t.dims[2] * t.b, t.dims[3] * t.b}));
        std::vector<float> &out = ctx.alloc_output(0, -1.0f);
        ASSERT_EQ(depth_to_space_compute(ctx.h), 0u);
        EXPECT_EQ(out, t.want.empty() ? reference(t.dims, t.b, t.crd) : t.want);
    }
}

TEST(DepthToSpace, FailuresWriteNothing) {
    const struct {
        bool compute;  // else infershape
        std::vector<uint32_t> dims;
        int64_t b;        // 0: no blocksize attribute
        uint32_t status;
        const char *err;  // null: no message
    } cases[] = {
        {false, {1, 4, 2}, 2, NPU_FAIL, "invalid dim size: 3, DepthToSpace only support 4-D \n"},
        {false, {1, 4, 2, 2}, 0, NPU_FAIL, "blocksize should greater than 1 ! \n"},
        {false, {1, 4, 2, 2}, 1, NPU_FAIL, "blocksize should greater than 1 ! \n"},
        {false, {1, 6, 2, 2}, 2, NPU_FAIL, "invalid blocksize: 2, can not be divided by input channels: 6 \n"},
        {false, {1, 0, 2, 2}, 2, NPU_FAIL, "output channel / (blocksize * blocksize) can not be zero! \n"},
        // Guard: 65536 squared wraps to 0 in 32 bits.
        {false, {1, 4, 2, 2}, 65536, NPU_ERR_INVALID_ARG, nullptr},
        // compute takes the output channel count from the output's shape.
        {true, {1, 0, 2, 2}, 2, NPU_FAIL, "invalid output channel: 0 \n"},
        {true, {1, 1, 2, 2}, 0, NPU_FAIL, "blocksize should greater than 1 ! \n"},
    };
    for (const auto &t : cases) {
        SCOPED_TRACE(std::string(t.compute ? "compute " : "infershape ") + std::to_string(t.b));
        Ctx ctx(1, 1, 1);
        std::vector<float> in(16, 1.0f), out(16, -1.0f);
        const TensorShape s = shape_of(t.dims);
        ctx.input(0, t.compute ? shape_of({1, 4, 2, 2}) : s, in);
        qv_kel_custom_set_output_by_index(ctx.h, 0, 0, 0, &s, out.data(), 64);
        if (t.b != 0) ctx.attr_int(0, "blocksize", t.b);
        uint32_t status = 0;
        const std::string err = capture_stderr([&] {
            capture_stdout([&] { status = (t.compute ? depth_to_space_compute : depth_to_space_infershape)(ctx.h); });
        });
        EXPECT_EQ(status, t.status);
        EXPECT_EQ(mask_error_lines(err), t.err ? std::string("[E] [custom] [depth_to_space_ops_impl:L] ") + t.err : "");
        EXPECT_EQ(out, std::vector<float>(16, -1.0f));
        EXPECT_EQ(dims_of(ctx.output_shape(0)), t.dims);
    }
}

TEST(DepthToSpace, CheckSupportedAndShortBuffers) {
    Ctx ctx(1, 1);
    float x[4] = {};
    ctx.input(0, shape_of({1, 4, 1, 1}), x, sizeof x, NPU_DTYPE_INT32);
    uint32_t ok = 2;
    EXPECT_EQ(mask_error_lines(capture_stderr([&] { ok = depth_to_space_check_supported(ctx.h); })),
              "[E] [custom] [depth_to_space_ops_impl:L] not support dtype: 4 \n");
    EXPECT_EQ(ok, 0u);
    ctx.input(0, shape_of({1, 4, 1, 1}), x, sizeof x, NPU_DTYPE_FLOAT32);
    EXPECT_EQ(depth_to_space_check_supported(ctx.h), 1u);

    // Guard: reads stop at the end of the input, writes outside the output
    // are skipped (the sanitizer build catches an overrun).
    for (bool crd : {true, false}) {
        Ctx c(1, 1, 2);
        std::vector<float> in = {1, 2, 3, 4, 5}, out(3, -1.0f);
        c.input(0, shape_of({1, 8, 1, 1}), in);
        c.attr_int(0, "blocksize", 2);
        c.attr_string(1, "mode", crd ? "CRD" : "DCR");
        ASSERT_EQ(depth_to_space_infershape(c.h), 0u);
        qv_kel_custom_set_output_buf_by_index(c.h, 0, out.data(), 12);
        EXPECT_EQ(depth_to_space_compute(c.h), 0u);
        EXPECT_EQ(out, (crd ? std::vector<float>{1, 2, 3} : std::vector<float>{1, 3, 5}));
    }
}

}  // namespace
