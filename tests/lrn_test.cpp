// Local response normalisation: channel windows, the fused denominator, defaults, refusals.
#include <gtest/gtest.h>

#include <cmath>

#include "npucpu.h"
#include "test_util.h"

namespace {

using namespace npucpu_test;
using Floats = std::vector<std::pair<const char *, float>>;

// Runs both stages with `size` and the given float attributes. Optional
// attributes are looked up before they are read, so nothing is logged.
std::vector<float> run_lrn(const std::vector<uint32_t> &dims, std::vector<float> in, int64_t size,
                           const Floats &attrs) {
    Ctx ctx(1, 1, 1 + static_cast<uint32_t>(attrs.size()));
    ctx.input(0, shape_of(dims), in);
    ctx.attr_int(0, "size", size);
    for (uint32_t i = 0; i < attrs.size(); ++i) ctx.attr_float(i + 1, attrs[i].first, attrs[i].second);
    EXPECT_EQ(lrn_infershape(ctx.h), 0u);
    ctx.alloc_output(0, 42.0f);
    EXPECT_EQ(capture_stdout([&] { EXPECT_EQ(lrn_compute(ctx.h), 0u); }), "");
    return ctx.output(0);
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
        const std::vector<float> out = run_lrn({N, C, S}, in, t.first, {{"alpha", float(t.first)}, {"beta", 1.0f}});
        for (uint32_t i = 0; i < N * C * S; ++i) {
            const uint32_t n = i / (C * S), c = i / S % C, j = i % S;
            double sum = 0;
            for (int k = t.second[c].first; k <= t.second[c].second; ++k)
                sum += double(in[(n * C + k) * S + j]) * in[(n * C + k) * S + j];
            EXPECT_EQ(bits(out[i]), bits(static_cast<float>(in[i] / (1.0 + sum)))) << i;
        }
    }
}

TEST(Lrn, DenominatorAndDefaults) {
    const struct { const char *what; float alpha, beta, bias, x, want; } cases[] = {
        {"beta is a power", 3.0f, 0.5f, 1.0f, 1.0f, 0.5f},
        // alpha * x^2 + bias is one fused operation: with bias equal to minus
        // the rounded product only the rounding error remains (unfused: 0).
        {"fused multiply-add", 0.1f, 1.0f, -0.900000036f, 3.0f, -134217728.0f},
        {"zero denominator", 1.0f, 1.0f, -4.0f, 2.0f, INFINITY},
    };
    for (const auto &t : cases) {
        const Floats attrs = {{"alpha", t.alpha}, {"beta", t.beta}, {"bias", t.bias}};
        EXPECT_EQ(bits(run_lrn({1, 1}, {t.x}, 1, attrs)[0]), bits(t.want)) << t.what;
    }
    // Absent alpha, beta and bias take 0.0001, 0.75 and 1.
    const std::vector<float> in = {0.5f, -3.0f, 7.25f, 100.0f, -0.001f, 12.0f};
    const std::vector<float> absent = run_lrn({1, 3, 2}, in, 3, {});
    expect_bits(run_lrn({1, 3, 2}, in, 3, {{"alpha", 0.0001f}, {"beta", 0.75f}, {"bias", 1.0f}}), absent);
    EXPECT_NE(absent, in);
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
        EXPECT_EQ(mask_error_lines(capture_stderr([&] { status = lrn_compute(ctx.h); })), t.err);
        EXPECT_EQ(status, t.status);
        EXPECT_EQ(out, std::vector<float>(4, 42.0f));
    }
}

}  // namespace
