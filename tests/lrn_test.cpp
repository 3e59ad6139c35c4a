// Local response normalisation: channel windows for odd, even and negative
// sizes, the fused float denominator, attribute defaults and the refusals.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "npucpu.h"
#include "test_util.h"

namespace {

using npucpu_test::Ctx;
using npucpu_test::shape_of;

uint32_t bits(float f) {
    uint32_t b;
    std::memcpy(&b, &f, 4);
    return b;
}

// With alpha = size and beta = 1 the denominator is exactly 1 + the window's
// sum of squares, so each row pins the inclusive window [lo, hi] of each of
// four channels down (lo > hi: empty).
TEST(Lrn, ChannelWindows) {
    const std::vector<std::pair<int64_t, std::vector<std::pair<int, int>>>> cases = {
        {1, {{0, 0}, {1, 1}, {2, 2}, {3, 3}}},
        // Both ends rounded outward: an even size spans size + 1 channels.
        {2, {{0, 1}, {0, 2}, {1, 3}, {2, 3}}},
        {3, {{0, 1}, {0, 2}, {1, 3}, {2, 3}}},
        {4, {{0, 2}, {0, 3}, {0, 3}, {1, 3}}},
        // A negative hi is lowered to C - 1 (an unsigned comparison).
        {-1, {{1, 3}, {2, 0}, {3, 1}, {4, 2}}},
    };
    const uint32_t N = 2, C = 4, S = 3;
    std::vector<float> in(N * C * S);
    for (size_t i = 0; i < in.size(); ++i) in[i] = static_cast<float>(i % 7) - 2.0f;
    for (const auto &t : cases) {
        SCOPED_TRACE("size " + std::to_string(t.first));
        Ctx ctx(1, 1, 3);
        ctx.input(0, shape_of({N, C, S}), in);
        ctx.attr_float(0, "alpha", static_cast<float>(t.first));
        ctx.attr_float(1, "beta", 1.0f);
        ctx.attr_int(2, "size", t.first);
        ASSERT_EQ(lrn_infershape(ctx.h), 0u);
        std::vector<float> &out = ctx.alloc_output(0, 42.0f);
        ASSERT_EQ(lrn_compute(ctx.h), 0u);
        for (uint32_t i = 0; i < N * C * S; ++i) {
            const uint32_t n = i / (C * S), c = i / S % C, j = i % S;
            double sum = 0;
            for (int k = t.second[c].first; k <= t.second[c].second; ++k) {
                sum += double(in[(n * C + k) * S + j]) * in[(n * C + k) * S + j];
            }
            EXPECT_EQ(bits(out[i]), bits(static_cast<float>(in[i] / (1.0 + sum)))) << i;
        }
    }
}

TEST(Lrn, Denominator) {
    const struct {
        const char *what;
        float alpha, beta, bias, x, want;
    } cases[] = {
        {"beta is a power", 3.0f, 0.5f, 1.0f, 1.0f, 0.5f},
        // alpha * x^2 + bias is one fused operation: with bias equal to minus
        // the rounded product only the rounding error remains (unfused: 0).
        {"fused multiply-add", 0.1f, 1.0f, -0.900000036f, 3.0f, -134217728.0f},
        {"zero denominator", 1.0f, 1.0f, -4.0f, 2.0f, INFINITY},
    };
    for (const auto &t : cases) {
        SCOPED_TRACE(t.what);
        Ctx ctx(1, 1, 4);
        std::vector<float> in = {t.x};
        ctx.input(0, shape_of({1, 1}), in);
        ctx.attr_float(0, "alpha", t.alpha);
        ctx.attr_float(1, "beta", t.beta);
        ctx.attr_int(2, "size", 1);
        ctx.attr_float(3, "bias", t.bias);
        ASSERT_EQ(lrn_infershape(ctx.h), 0u);
        std::vector<float> &out = ctx.alloc_output(0);
        ASSERT_EQ(lrn_compute(ctx.h), 0u);
        EXPECT_EQ(bits(out[0]), bits(t.want)) << out[0];
    }
}

TEST(Lrn, AbsentAttributesTakeTheirDefaults) {
    std::vector<float> in = {0.5f, -3.0f, 7.25f, 100.0f, -0.001f, 12.0f};
    std::vector<float> results[2];
    for (int explicit_defaults = 0; explicit_defaults < 2; ++explicit_defaults) {
        Ctx ctx(1, 1, 4);
        ctx.input(0, shape_of({1, 3, 2}), in);
        ctx.attr_int(0, "size", 3);
        ctx.attr_float(1, explicit_defaults ? "alpha" : "-", 0.0001f);
        ctx.attr_float(2, explicit_defaults ? "beta" : "-", 0.75f);
        ctx.attr_float(3, explicit_defaults ? "bias" : "-", 1.0f);
        ASSERT_EQ(lrn_infershape(ctx.h), 0u);
        ctx.alloc_output(0);
        // Optional attributes are looked up before they are read: no messages.
        EXPECT_EQ(npucpu_test::capture_stdout([&] { EXPECT_EQ(lrn_compute(ctx.h), 0u); }), "");
        results[explicit_defaults] = ctx.output(0);
    }
    EXPECT_EQ(0, std::memcmp(results[0].data(), results[1].data(), 4 * in.size()));
    EXPECT_NE(results[0], in);
}

TEST(Lrn, RefusalsWriteNothing) {
    const struct {
        const char *what;
        std::vector<uint32_t> dims;
        bool with_size, null_in, null_out;
        uint64_t out_len;
        uint32_t status;
        std::string err;
    } cases[] = {
        {"size absent", {1, 2, 2}, false, false, false, 16, NPU_ERR_INVALID_ARG,
         "[E] [custom] [lrn_ops_impl:L] get [size] attr failed, [size] in lrn is required \n"},
        {"input absent", {1, 2, 2}, true, true, false, 16, NPU_ERR_INVALID_ARG, ""},
        {"other element count", {1, 2, 2}, true, false, false, 12, NPU_ERR_INVALID_ARG, ""},
        {"output absent", {1, 2, 2}, true, false, true, 16, NPU_ERR_INVALID_ARG, ""},
        {"no batches", {0, 2, 2}, true, false, false, 16, NPU_OK, ""},
        {"rank 1: no channels", {4}, true, false, false, 16, NPU_OK, ""},
    };
    for (const auto &t : cases) {
        SCOPED_TRACE(t.what);
        std::vector<float> in = {1, 2, 3, 4}, out(4, 42.0f);
        Ctx ctx(1, 1, 1);
        ctx.input(0, shape_of(t.dims), t.null_in ? nullptr : in.data(), 16);
        if (t.with_size) ctx.attr_int(0, "size", 1);
        qv_kel_custom_set_output_buf_by_index(ctx.h, 0, t.null_out ? nullptr : out.data(), t.out_len);
        uint32_t status = 0;
        EXPECT_EQ(npucpu_test::mask_error_lines(
                      npucpu_test::capture_stderr([&] { status = lrn_compute(ctx.h); })),
                  t.err);
        EXPECT_EQ(status, t.status);
        EXPECT_EQ(out, std::vector<float>(4, 42.0f));
    }
}

}  // namespace
