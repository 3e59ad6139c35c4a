// Fast compute kernels against the literal ones, bit for bit: gemm (kernel
// and operator), conv, conv_transpose and matmul, at every dispatch level
// this machine runs, over swept shapes and value mixes (signed zeros,
// subnormals, infinities, NaN; the NaN mixes check the fallback).
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "npucpu.h"
#include "test_util.h"
#include "utils/dispatch.h"

using npucpu::Isa;
using npucpu_test::Ctx;
using npucpu_test::shape_of;

namespace {

using Floats = std::vector<float>;

#ifdef NPUCPU_SANITIZE_BUILD
constexpr bool kSmall = true;
#else
constexpr bool kSmall = false;
#endif

// The fast levels this machine has.
std::vector<Isa> fast_levels() {
    std::vector<Isa> out;
    for (Isa l : {Isa::Portable, Isa::Avx2, Isa::Avx512}) {
        if (static_cast<uint32_t>(l) <= static_cast<uint32_t>(npucpu::cpu_features().best)) out.push_back(l);
    }
    return out;
}

const char *level_name(Isa l) {
    switch (l) {
        case Isa::Literal: return "literal";
        case Isa::Portable: return "portable";
        case Isa::Avx2: return "avx2";
        default: return "avx512";
    }
}

// Runs fn with the level forced, and restores detection afterwards.
template <class F>
auto at_level(Isa level, F fn) -> decltype(fn()) {
    npucpu::testing::force_isa(level);
    auto r = fn();
    npucpu::testing::clear_forced_isa();
    return r;
}

uint32_t bits(float f) {
    uint32_t u;
    std::memcpy(&u, &f, sizeof u);
    return u;
}

// memcmp of the two results; on a difference, the first index and both bit patterns.
::testing::AssertionResult same_bits(const Floats &fast, const Floats &literal) {
    if (fast.size() != literal.size()) {
        return ::testing::AssertionFailure() << "sizes " << fast.size() << " vs " << literal.size();
    }
    if (std::memcmp(fast.data(), literal.data(), fast.size() * sizeof(float)) == 0) {
        return ::testing::AssertionSuccess();
    }
    for (size_t i = 0; i < fast.size(); ++i) {
        if (bits(fast[i]) != bits(literal[i])) {
            char msg[128];
            std::snprintf(msg, sizeof msg, "first difference at %zu: fast 0x%08x, literal 0x%08x", i,
                          bits(fast[i]), bits(literal[i]));
            return ::testing::AssertionFailure() << msg;
        }
    }
    return ::testing::AssertionFailure() << "memcmp differs";
}

// Value mixes: plain values, values with signed zeros / subnormals /
// infinities / huge magnitudes, and the same with NaNs.
enum class Mix { Plain, Special, WithNaN };

Floats values(size_t n, Mix mix, uint32_t seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    std::uniform_int_distribution<int> pick(0, 39);
    Floats v(n);
    for (auto &x : v) {
        x = u(rng);
        if (mix == Mix::Plain) continue;
        switch (pick(rng)) {
            case 0: x = 0.0f; break;
            case 1: x = -0.0f; break;
            case 2: x = 1e-40f; break;
            case 3: x = -3e-39f; break;
            case 4: x = 3e38f; break;
            case 5: x = (mix == Mix::WithNaN) ? std::nanf("") : -0.0f; break;
            default: break;
        }
    }
    // Rare infinities in the special mixes (often enough that products meet them).
    if (mix != Mix::Plain && n > 3) {
        v[seed % n] = INFINITY;
        if (n > 7) v[(seed * 7 + 3) % n] = -INFINITY;
    }
    return v;
}

const Mix kMixes[] = {Mix::Plain, Mix::Special, Mix::WithNaN};

// ------------------------------------------------------------ gemm kernel ----

Tensor view(std::initializer_list<uint32_t> dims, Floats &data, uint32_t format) {
    Tensor t;
    std::memset(&t, 0, sizeof t);
    t.shape = shape_of(dims);
    t.dtype = NPU_DTYPE_FLOAT32;
    t.format = format;
    t.data = data.data();
    return t;
}

Floats gemm_kernel(Isa level, uint32_t M, uint32_t N, uint32_t K, Mix mix, bool with_bias, uint32_t seed) {
    Floats a = values(size_t{M} * K, mix, seed);
    Floats b = values(size_t{K} * N, mix, seed + 1);
    Floats c = values(size_t{M} * N, mix == Mix::WithNaN ? Mix::Special : mix, seed + 2);
    Floats bias = values(size_t{M} * N, Mix::Plain, seed + 3);
    Tensor ta = view({M, K}, a, NPU_FORMAT_MATRIX);
    Tensor tb = view({K, N}, b, NPU_FORMAT_MATRIX);
    Tensor tc = view({M, N}, c, NPU_FORMAT_MATRIX);
    Tensor tbias = view({M, N}, bias, NPU_FORMAT_MATRIX);
    return at_level(level, [&] {
        EXPECT_EQ(gemm(&ta, &tb, with_bias ? &tbias : nullptr, &tc), NPU_OK);
        return c;
    });
}

TEST(FastGemm, KernelMatchesLiteralBitForBit) {
    // Below, at and above the register tiles (4..6 rows, 8..64 columns),
    // primes included; the k blocks are crossed by the next test.
    std::vector<uint32_t> ms = {1, 5, 12, 13, 37};
    std::vector<uint32_t> ns = {1, 7, 16, 33, 65};
    std::vector<uint32_t> ks = {0, 1, 3, 31, 257};
    if (kSmall) ms = {1, 13}, ns = {7, 33}, ks = {0, 31};
    uint32_t seed = 1;
    for (Isa level : fast_levels()) {
        for (uint32_t M : ms)
            for (uint32_t N : ns)
                for (uint32_t K : ks)
                    for (Mix mix : kMixes) {
                        const bool with_bias = (seed & 1) != 0;
                        const Floats lit = gemm_kernel(Isa::Literal, M, N, K, mix, with_bias, seed);
                        const Floats fast = gemm_kernel(level, M, N, K, mix, with_bias, seed);
                        EXPECT_TRUE(same_bits(fast, lit)) << level_name(level) << " M" << M << " N" << N
                                                          << " K" << K << " mix " << static_cast<int>(mix);
                        ++seed;
                    }
    }
}

// Several k blocks (512) and column blocks (1024): the running values are
// stored and reloaded between blocks.
TEST(FastGemm, KernelLargeBlocksMatch) {
    if (kSmall) GTEST_SKIP() << "heavy sweep in the optimised build only";
    for (Isa level : fast_levels()) {
        const Floats lit = gemm_kernel(Isa::Literal, 50, 1030, 1100, Mix::Special, true, 99);
        const Floats fast = gemm_kernel(level, 50, 1030, 1100, Mix::Special, true, 99);
        EXPECT_TRUE(same_bits(fast, lit)) << level_name(level);
    }
}

TEST(FastGemm, OutputOverlappingAnOperandTakesTheLiteralPath) {
    // out is a's storage: the literal loop reads what it wrote.
    for (Isa level : fast_levels()) {
        auto run = [&](Isa l) {
            Floats buf = values(64, Mix::Plain, 5);
            Floats b = values(64, Mix::Plain, 6);
            Tensor ta = view({8, 8}, buf, NPU_FORMAT_MATRIX);
            Tensor tb = view({8, 8}, b, NPU_FORMAT_MATRIX);
            Tensor tc = view({8, 8}, buf, NPU_FORMAT_MATRIX);
            return at_level(l, [&] {
                gemm(&ta, &tb, nullptr, &tc);
                return buf;
            });
        };
        EXPECT_TRUE(same_bits(run(level), run(Isa::Literal))) << level_name(level);
    }
}

// ---------------------------------------------------------- gemm operator ----

struct GemmOpCase {
    uint32_t M, N, K;
    bool ta, tb;
    std::vector<uint32_t> bias_dims;  // empty: no bias
};

Floats gemm_op(Isa level, const GemmOpCase &c, Mix mix, uint32_t seed) {
    const bool has_bias = !c.bias_dims.empty();
    Ctx ctx(has_bias ? 3 : 2, 1, 2);
    Floats a = values(size_t{c.M} * c.K, mix, seed);
    Floats b = values(size_t{c.K} * c.N, mix, seed + 1);
    size_t bias_n = 1;
    for (uint32_t d : c.bias_dims) bias_n *= d;
    Floats bias = values(bias_n, mix == Mix::WithNaN ? Mix::Special : mix, seed + 2);
    ctx.input(0, c.ta ? shape_of({c.K, c.M}) : shape_of({c.M, c.K}), a);
    ctx.input(1, c.tb ? shape_of({c.N, c.K}) : shape_of({c.K, c.N}), b);
    if (has_bias) ctx.input(2, shape_of(c.bias_dims), bias);
    ctx.attr_int(0, "transA", c.ta ? 1 : 0);
    ctx.attr_int(1, "transB", c.tb ? 1 : 0);
    EXPECT_EQ(gemm_infershape(ctx.h), NPU_OK);
    Floats &y = ctx.alloc_output(0, 7.0f);
    EXPECT_EQ(at_level(level, [&] { return gemm_compute(ctx.h); }), NPU_OK);
    return y;
}

TEST(FastGemm, OperatorMatchesLiteralWithTranspositionsAndBiases) {
    std::vector<GemmOpCase> cases = {
        {5, 7, 3, false, false, {}},       {13, 33, 17, true, false, {33}},
        {13, 33, 17, false, true, {13, 1}}, {29, 17, 40, true, true, {29, 17}},
        {1, 1, 1, true, true, {1}},         {64, 48, 260, false, false, {1, 48}},
    };
    uint32_t seed = 100;
    for (Isa level : fast_levels())
        for (const auto &c : cases)
            for (Mix mix : kMixes) {
                EXPECT_TRUE(same_bits(gemm_op(level, c, mix, seed), gemm_op(Isa::Literal, c, mix, seed)))
                    << level_name(level) << " M" << c.M << " N" << c.N << " K" << c.K << " tA" << c.ta << " tB"
                    << c.tb;
                ++seed;
            }
}

}  // namespace

// ------------------------------------------------------------------- conv ----

namespace conv_cases {

struct ConvCfg {
    uint32_t N, C, H, W, M, kh, kw, group;
    int64_t sh, sw, dh, dw;
    int64_t pads[4];
    bool bias;
};

uint32_t out_size(uint32_t in, int64_t p0, int64_t p1, uint32_t k, int64_t d, int64_t s) {
    const int64_t span = static_cast<int64_t>(in) + p0 + p1 - ((static_cast<int64_t>(k) - 1) * d + 1);
    return span < 0 ? 0 : static_cast<uint32_t>(span / s + 1);
}

// conv_compute at `level`; the output buffer starts as a sentinel.
Floats run_conv(Isa level, const ConvCfg &c, Mix mix, uint32_t seed, uint32_t *status) {
    Floats x = values(size_t{c.N} * c.C * c.H * c.W, mix, seed);
    Floats w = values(size_t{c.M} * (c.C / c.group) * c.kh * c.kw, mix, seed + 1);
    Floats b = values(c.M, mix == Mix::WithNaN ? Mix::Special : mix, seed + 2);
    const uint32_t OH = out_size(c.H, c.pads[0], c.pads[2], c.kh, c.dh, c.sh);
    const uint32_t OW = out_size(c.W, c.pads[1], c.pads[3], c.kw, c.dw, c.sw);
    Floats y(size_t{c.N} * c.M * OH * OW, 5.0f);
    Ctx ctx(c.bias ? 3 : 2, 1, 4);
    ctx.input(0, shape_of({c.N, c.C, c.H, c.W}), x);
    ctx.input(1, shape_of({c.M, c.C / c.group, c.kh, c.kw}), w);
    if (c.bias) ctx.input(2, shape_of({c.M}), b);
    ctx.attr_ints(0, "strides", {c.sh, c.sw});
    ctx.attr_ints(1, "dilations", {c.dh, c.dw});
    ctx.attr_ints(2, "pads", {c.pads[0], c.pads[1], c.pads[2], c.pads[3]});
    ctx.attr_int(3, "group", c.group);
    const TensorShape ys = shape_of({c.N, c.M, OH, OW});
    qv_kel_custom_set_output_by_index(ctx.h, 0, NPU_DTYPE_FLOAT32, NPU_FORMAT_NCHW, &ys, y.data(),
                                      y.size() * sizeof(float));
    npucpu_test::capture_stdout([&] { *status = at_level(level, [&] { return conv_compute(ctx.h); }); });
    return y;
}

// Random configurations over every stride / dilation / padding / group
// combination class, sizes below / at / above the vector widths and tiles.
std::vector<ConvCfg> sweep(uint32_t count, uint32_t seed) {
    std::mt19937 rng(seed);
    auto pick = [&](std::initializer_list<uint32_t> l) {
        return *(l.begin() + std::uniform_int_distribution<size_t>(0, l.size() - 1)(rng));
    };
    std::vector<ConvCfg> out;
    while (out.size() < count) {
        ConvCfg c{};
        c.N = pick({1, 1, 2});
        c.group = pick({1, 1, 2, 3, 4});
        c.C = c.group * pick({1, 1, 2, 3, 5});
        c.M = c.group * pick({1, 2, 5, 6, 7, 13});
        c.H = pick({1, 3, 5, 8, 11});
        c.W = pick({1, 4, 7, 16, 17, 33, 67});
        c.kh = pick({1, 2, 3});
        c.kw = pick({1, 3, 5});
        c.sh = pick({1, 1, 2, 3});
        c.sw = pick({1, 1, 2, 3});
        c.dh = pick({1, 1, 2});
        c.dw = pick({1, 1, 3});
        for (auto &p : c.pads) p = pick({0, 0, 1, 2});
        c.bias = pick({0, 1}) != 0;
        if (out_size(c.H, c.pads[0], c.pads[2], c.kh, c.dh, c.sh) == 0 ||
            out_size(c.W, c.pads[1], c.pads[3], c.kw, c.dw, c.sw) == 0) {
            continue;
        }
        out.push_back(c);
    }
    // Depthwise and 1x1 shapes of the usual kind, and an unpadded 0-dilation pair.
    out.push_back({1, 8, 9, 20, 8, 3, 3, 8, 1, 1, 1, 1, {1, 1, 1, 1}, true});
    out.push_back({2, 6, 6, 6, 12, 1, 1, 1, 1, 1, 1, 1, {0, 0, 0, 0}, true});
    out.push_back({1, 3, 19, 21, 7, 7, 7, 1, 2, 2, 1, 1, {3, 3, 3, 3}, false});
    out.push_back({1, 2, 6, 7, 3, 3, 2, 1, 1, 1, 0, 0, {0, 1, 0, 0}, true});
    return out;
}

}  // namespace conv_cases

TEST(FastConv, MatchesLiteralBitForBit) {
    using namespace conv_cases;
    const std::vector<ConvCfg> cfgs = sweep(kSmall ? 12 : 120, 7);
    uint32_t seed = 1000;
    for (Isa level : fast_levels()) {
        for (const ConvCfg &c : cfgs) {
            for (Mix mix : kMixes) {
                uint32_t s_lit = 0, s_fast = 0;
                const Floats lit = run_conv(Isa::Literal, c, mix, seed, &s_lit);
                const Floats fast = run_conv(level, c, mix, seed, &s_fast);
                EXPECT_EQ(s_fast, s_lit);
                EXPECT_TRUE(same_bits(fast, lit))
                    << level_name(level) << " N" << c.N << " C" << c.C << " " << c.H << "x" << c.W << " M" << c.M
                    << " k" << c.kh << "x" << c.kw << " g" << c.group << " s" << c.sh << "," << c.sw << " d" << c.dh
                    << "," << c.dw << " p" << c.pads[0] << c.pads[1] << c.pads[2] << c.pads[3] << " bias" << c.bias
                    << " mix " << static_cast<int>(mix);
                ++seed;
            }
        }
    }
}

// --------------------------------------------------------- conv_transpose ----

namespace convt_cases {

struct ConvTCfg {
    uint32_t N, C, H, W, Mg, kh, kw, group;
    int64_t sh, sw, dh, dw, oph, opw;
    int64_t pads[4];
    bool bias, kernel_shape;
};

struct ConvTResult {
    uint32_t infer = 0, status = 0;
    Floats y;
};

// infershape (as the host runs it), then conv_transpose_compute at `level`.
ConvTResult run_convt(Isa level, const ConvTCfg &c, Mix mix, uint32_t seed) {
    Floats x = values(size_t{c.N} * c.C * c.H * c.W, mix, seed);
    Floats w = values(size_t{c.C} * c.Mg * c.kh * c.kw, mix, seed + 1);
    Floats b = values(size_t{c.Mg} * c.group, mix == Mix::WithNaN ? Mix::Special : mix, seed + 2);
    Ctx ctx(c.bias ? 3 : 2, 1, c.kernel_shape ? 7 : 6);
    ctx.input(0, shape_of({c.N, c.C, c.H, c.W}), x);
    ctx.input(1, shape_of({c.C, c.Mg, c.kh, c.kw}), w);
    if (c.bias) ctx.input(2, shape_of({c.Mg * c.group}), b);
    ctx.attr_ints(0, "strides", {c.sh, c.sw});
    ctx.attr_ints(1, "dilations", {c.dh, c.dw});
    ctx.attr_ints(2, "pads", {c.pads[0], c.pads[1], c.pads[2], c.pads[3]});
    ctx.attr_ints(3, "output_padding", {c.oph, c.opw});
    ctx.attr_int(4, "group", c.group);
    ctx.attr_string(5, "auto_pad", "NOTSET");
    if (c.kernel_shape) ctx.attr_ints(6, "kernel_shape", {c.kh, c.kw});
    ConvTResult r;
    r.infer = conv_transpose_infershape(ctx.h);
    if (r.infer != NPU_OK) return r;
    // Pads beyond the spread input give wrapped (huge) sizes: not swept here.
    const TensorShape ys = ctx.output_shape(0);
    uint64_t count = 1;
    for (uint32_t d = 0; d < ys.dim_num; ++d) count *= ys.dims[d];
    if (count == 0 || count > (1u << 20)) {
        r.infer = NPU_FAIL;
        return r;
    }
    ctx.alloc_output(0, 5.0f);
    r.status = at_level(level, [&] { return conv_transpose_compute(ctx.h); });
    r.y = ctx.output(0);
    return r;
}

std::vector<ConvTCfg> sweep(uint32_t count, uint32_t seed) {
    std::mt19937 rng(seed);
    auto pick = [&](std::initializer_list<uint32_t> l) {
        return *(l.begin() + std::uniform_int_distribution<size_t>(0, l.size() - 1)(rng));
    };
    std::vector<ConvTCfg> out;
    while (out.size() < count) {
        ConvTCfg c{};
        c.N = pick({1, 1, 2});
        c.group = pick({1, 1, 2, 3});
        c.C = c.group * pick({1, 2, 3});
        c.Mg = pick({1, 2, 5, 7});
        c.H = pick({1, 2, 5, 9});
        c.W = pick({1, 3, 8, 17, 20});
        c.kh = pick({1, 2, 3, 4});
        c.kw = pick({1, 2, 3, 5});
        c.sh = pick({1, 2, 3});
        c.sw = pick({1, 2, 3});
        c.dh = pick({1, 1, 2});
        c.dw = pick({1, 1, 2});
        c.oph = pick({0, 0, 1});
        c.opw = pick({0, 0, 1});
        for (auto &p : c.pads) p = pick({0, 0, 1, 2});
        c.bias = pick({0, 1}) != 0;
        c.kernel_shape = pick({0, 1, 1}) != 0;
        out.push_back(c);
    }
    out.push_back({1, 8, 7, 9, 4, 4, 4, 1, 2, 2, 1, 1, 0, 0, {1, 1, 1, 1}, true, true});
    out.push_back({1, 4, 6, 6, 1, 3, 3, 4, 1, 1, 1, 1, 0, 0, {1, 1, 1, 1}, true, true});
    return out;
}

}  // namespace convt_cases

TEST(FastConvTranspose, MatchesLiteralBitForBit) {
    using namespace convt_cases;
    const std::vector<ConvTCfg> cfgs = sweep(kSmall ? 12 : 150, 11);
    uint32_t seed = 5000, compared = 0;
    std::vector<std::string> failures;
    // The operator's messages (absent attributes, refused shapes) are
    // silenced once around the sweep; failures are reported afterwards.
    auto sweep_all = [&] {
        for (Isa level : fast_levels()) {
            for (const ConvTCfg &c : cfgs) {
                for (Mix mix : kMixes) {
                    const ConvTResult lit = run_convt(Isa::Literal, c, mix, seed);
                    if (lit.infer != NPU_OK) continue;
                    const ConvTResult fast = run_convt(level, c, mix, seed);
                    ++compared;
                    const ::testing::AssertionResult same = same_bits(fast.y, lit.y);
                    if (fast.status != lit.status || !same) {
                        char where[256];
                        std::snprintf(where, sizeof where,
                                      "%s N%u C%u %ux%u Mg%u k%ux%u g%u s%lld,%lld d%lld,%lld op%lld%lld "
                                      "p%lld%lld%lld%lld bias%d ks%d mix %d status %u/%u: ",
                                      level_name(level), c.N, c.C, c.H, c.W, c.Mg, c.kh, c.kw, c.group,
                                      (long long)c.sh, (long long)c.sw, (long long)c.dh, (long long)c.dw,
                                      (long long)c.oph, (long long)c.opw, (long long)c.pads[0],
                                      (long long)c.pads[1], (long long)c.pads[2], (long long)c.pads[3], c.bias,
                                      c.kernel_shape, static_cast<int>(mix), fast.status, lit.status);
                        failures.push_back(where + std::string(same.message()));
                    }
                    ++seed;
                }
            }
        }
    };
    npucpu_test::capture_stdout([&] { npucpu_test::capture_stderr(sweep_all); });
    EXPECT_GT(compared, 0u);
    EXPECT_TRUE(failures.empty()) << failures.size() << " differences, first: " << failures.front();
}

// ----------------------------------------------------------------- matmul ----

namespace matmul_cases {

// Operand values: small integers with fractions (the exact float route),
// or magnitudes that overflow 32-bit sums and saturate, with NaN and
// infinities (the wrapping integer route).
Floats operand(size_t n, bool wide, uint32_t seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> small(-9.9f, 9.9f);
    std::uniform_real_distribution<float> big(-3e9f, 3e9f);
    Floats v(n);
    for (size_t i = 0; i < n; ++i) {
        v[i] = wide ? big(rng) : small(rng);
        if (wide && i % 17 == 3) v[i] = std::nanf("");
        if (wide && i % 29 == 5) v[i] = (i & 1) ? INFINITY : -INFINITY;
        if (wide && i % 7 == 1) v[i] = -0.5f;
    }
    return v;
}

Floats run_matmul(Isa level, const std::vector<uint32_t> &ad, const std::vector<uint32_t> &bd, size_t out_n,
                  bool wide, uint32_t seed) {
    size_t an = 1, bn = 1;
    for (uint32_t d : ad) an *= d;
    for (uint32_t d : bd) bn *= d;
    Floats a = operand(an, wide, seed), b = operand(bn, wide, seed + 1), y(out_n, 3.0f);
    Tensor ta{}, tb{}, ty{};
    ta.shape = shape_of(ad);
    tb.shape = shape_of(bd);
    ty.shape = shape_of({static_cast<uint32_t>(out_n)});
    ta.data = a.data();
    tb.data = b.data();
    ty.data = y.data();
    return at_level(level, [&] {
        EXPECT_EQ(matmul(&ta, &tb, &ty), NPU_OK);
        return y;
    });
}

}  // namespace matmul_cases

TEST(FastMatmul, MatchesLiteralOnBothRoutes) {
    using namespace matmul_cases;
    struct Case {
        std::vector<uint32_t> a, b;
    };
    std::vector<Case> cases = {
        {{1, 1}, {1, 1}},       {{5, 3}, {3, 7}},         {{13, 17}, {17, 33}},  {{9, 64}, {64, 65}},
        {{2, 6, 5}, {2, 5, 9}}, {{3, 4, 19}, {19, 20}},   {{7}, {7, 70}},       {{31, 11}, {11}},
        {{4, 3}, {2, 3, 5}},    {{37, 300}, {300, 18}},
    };
    uint32_t seed = 9000;
    for (Isa level : fast_levels())
        for (const Case &c : cases)
            for (bool wide : {false, true}) {
                size_t out_n = 1;
                // Enough room for every batch (and a spare element).
                const size_t M = c.a.size() >= 2 ? c.a[c.a.size() - 2] : 1;
                const size_t N = c.b.size() >= 2 ? c.b.back() : 1;
                size_t batch = 1;
                for (size_t i = 0; i + 2 < c.a.size(); ++i) batch *= c.a[i];
                size_t batch_b = 1;
                for (size_t i = 0; i + 2 < c.b.size(); ++i) batch_b *= c.b[i];
                out_n = std::max(batch, batch_b) * M * N + 1;
                EXPECT_TRUE(same_bits(run_matmul(level, c.a, c.b, out_n, wide, seed),
                                      run_matmul(Isa::Literal, c.a, c.b, out_n, wide, seed)))
                    << level_name(level) << " case " << c.a.size() << "x" << c.b.size() << " M" << M << " N" << N
                    << " wide " << wide;
                ++seed;
            }
}
