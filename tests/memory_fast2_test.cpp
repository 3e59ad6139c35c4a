// Fast paths of the second batch of memory-bound kernels against their
// literal paths: every output byte equal over swept shapes, with inputs full
// of special values (NaN payloads, infinities, signed zeros, subnormals).
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "npucpu.h"
#include "test_util.h"
#include "utils/dispatch.h"

namespace {

#if defined(NPUCPU_SANITIZE_BUILD)
constexpr int kTrials = 300;  // sweeps shrink under the sanitizers
#else
constexpr int kTrials = 3000;
#endif

// Distinct bit patterns, a share of them special, so a misplaced element shows.
std::vector<uint32_t> pattern_bits(size_t n, uint32_t seed) {
    static const uint32_t kSpecial[] = {0x00000000u, 0x80000000u, 0x7fc00001u, 0xffc12345u,
                                        0x7f800001u, 0x7f800000u, 0xff800000u, 0x00000001u,
                                        0x80000001u, 0x7f7fffffu};
    std::mt19937 rng(seed);
    std::vector<uint32_t> v(n);
    for (size_t i = 0; i < n; ++i) {
        v[i] = (rng() % 5 == 0) ? kSpecial[rng() % (sizeof kSpecial / sizeof kSpecial[0])]
                                : 0x3f800000u + static_cast<uint32_t>(i) * 7u;
    }
    return v;
}

std::string shape_text(const TensorShape &s) {
    std::ostringstream o;
    o << "[";
    for (uint32_t k = 0; k < s.dim_num; ++k) o << (k ? "," : "") << s.dims[k];
    o << "]";
    return o.str();
}

// broadcast() on the literal path and on every fast level: same bytes.
void expect_broadcast_same(const TensorShape &in, const TensorShape &out, uint32_t seed) {
    const uint32_t in_count = GetElemSize(&in);
    const uint32_t out_count = GetElemSize(&out);
    const std::vector<uint32_t> bits = pattern_bits(in_count > 0 ? in_count : 1, seed);
    const float *data = reinterpret_cast<const float *>(bits.data());
    const size_t bytes = static_cast<size_t>(out_count > 0 ? out_count : 1) * sizeof(float);
    const std::string what = shape_text(in) + " -> " + shape_text(out);

    npucpu::testing::force_isa(npucpu::Isa::Literal);
    float *literal = broadcast(&in, NPU_DTYPE_FLOAT32, data, &out);
    npucpu::testing::clear_forced_isa();
    const uint32_t best = static_cast<uint32_t>(npucpu::cpu_features().best);
    for (uint32_t level = 1; level <= best; ++level) {
        npucpu::testing::force_isa(static_cast<npucpu::Isa>(level));
        float *fast = broadcast(&in, NPU_DTYPE_FLOAT32, data, &out);
        npucpu::testing::clear_forced_isa();
        if (std::memcmp(literal, fast, bytes) != 0) {
            size_t i = 0;
            while (std::memcmp(&literal[i], &fast[i], 4) == 0) ++i;
            uint32_t x, y;
            std::memcpy(&x, &literal[i], 4);
            std::memcpy(&y, &fast[i], 4);
            ADD_FAILURE() << what << " level " << level << ": differs at element " << i << ": literal 0x"
                          << std::hex << x << ", fast 0x" << y;
        }
        std::free(fast);
    }
    std::free(literal);
}

TensorShape make_shape(const std::vector<uint32_t> &dims) {
    TensorShape s;
    std::memset(&s, 0, sizeof s);
    s.dim_num = static_cast<uint8_t>(dims.size());
    for (size_t k = 0; k < dims.size(); ++k) s.dims[k] = dims[k];
    return s;
}

// Random output shapes of rank 0-5; the input takes, per aligned axis, 1 or
// the output dim (or, with `mismatch`, sometimes another size, which keeps
// the wrapping walk), and may have fewer or more leading axes.
TEST(MemoryFast2, BroadcastSweep) {
    std::mt19937 rng(13);
    static const uint32_t kDims[] = {1, 1, 2, 3, 4, 5, 7, 16};
    for (int t = 0; t < kTrials; ++t) {
        const bool mismatch = t % 4 == 3;
        const uint32_t R = rng() % 6;
        std::vector<uint32_t> out(R);
        for (auto &d : out) d = kDims[rng() % 8];
        const uint32_t in_rank = rng() % (R + 2);
        std::vector<uint32_t> in(in_rank);
        for (uint32_t k = 0; k < in_rank; ++k) {
            const int32_t ok = static_cast<int32_t>(k) - static_cast<int32_t>(in_rank) + static_cast<int32_t>(R);
            if (ok < 0) {
                in[k] = 1 + rng() % 3;  // leading axes beyond the output's rank
            } else if (mismatch && rng() % 3 == 0) {
                in[k] = 1 + rng() % 6;
            } else {
                in[k] = (rng() % 2) ? out[ok] : 1;
            }
        }
        expect_broadcast_same(make_shape(in), make_shape(out), static_cast<uint32_t>(t));
    }
}

// Hand-picked shapes: the channel bias of expand, rows and columns, size-1
// output axes, empty tensors and mismatched dims (which wrap).
TEST(MemoryFast2, BroadcastTable) {
    struct Case {
        std::vector<uint32_t> in, out;
    };
    const Case cases[] = {
        {{64, 1, 1}, {1, 64, 28, 28}},
        {{1, 64, 1, 1}, {2, 64, 9, 9}},
        {{5}, {3, 4, 5}},
        {{3, 1}, {3, 4}},
        {{1, 4}, {3, 4}},
        {{}, {2, 3}},
        {{7}, {}},
        {{2, 3}, {2, 3}},
        {{2, 1, 3}, {2, 1, 3}},
        {{1, 1}, {1, 1, 1}},
        {{4, 2, 3}, {2, 3}},
        {{0, 3}, {2, 3}},
        {{3}, {2, 0, 3}},
        {{2}, {3, 4}},
        {{3, 2}, {3, 4}},
        {{4, 3}, {2, 3}},
        {{2, 5, 1}, {3, 4, 5, 6}},
    };
    uint32_t seed = 1;
    for (const Case &c : cases) expect_broadcast_same(make_shape(c.in), make_shape(c.out), seed++);
}

// ---- Reduce max / min -----------------------------------------------------------

// Runs one reduction with a fresh context; the output buffer holds the
// results plus `extra_bytes` (each filled with 0x5a before the call).
std::vector<char> run_reduce(bool max, const std::vector<uint32_t> &dims, const std::vector<float> &x,
                             int64_t axis, int64_t keepdims, uint32_t extra_bytes, uint32_t *status) {
    std::vector<char> bytes;
    npucpu_test::capture_stdout([&] {
        npucpu_test::Ctx c(1, 1, 2);
        std::vector<float> data = x;
        c.input(0, npucpu_test::shape_of(dims), data);
        c.attr_int(0, "keepdims", keepdims);
        c.attr_ints(1, "axes", {axis});
        *status = max ? reducemax_infershape(c.h) : reducemin_infershape(c.h);
        if (*status != NPU_OK) return;
        TensorShape s{};
        qv_kel_custom_get_output_shape_by_index(c.h, 0, &s);
        bytes.assign(static_cast<size_t>(GetElemSize(&s)) * 4 + extra_bytes, '\x5a');
        qv_kel_custom_set_output_buf_by_index(c.h, 0, bytes.data(), bytes.size());
        *status = max ? reducemax_compute(c.h) : reducemin_compute(c.h);
    });
    return bytes;
}

// Shapes of rank 1-4 over every axis, with NaN payloads, signed zeros and
// ties (the first of equal values wins); some outputs carry extra bytes,
// whole floats or not, which the work buffer's tail fills.
TEST(MemoryFast2, ReduceMaxMinMatchLiteral) {
    std::mt19937 rng(21);
    const int trials = kTrials / 10;
    for (int t = 0; t < trials; ++t) {
        const uint32_t rank = 1 + rng() % 4;
        std::vector<uint32_t> dims(rank);
        size_t count = 1;
        for (auto &v : dims) v = 1 + rng() % 12;
        if (t % 4 == 1) dims.back() = 17 + rng() % 50;  // long contiguous slices
        for (auto v : dims) count *= v;
        const std::vector<uint32_t> bits = pattern_bits(count, 500 + t);
        std::vector<float> x(count);
        std::memcpy(x.data(), bits.data(), count * 4);
        if (t % 3 == 0) {
            // Zero extremes with both signs (the first zero wins): -1 or +1
            // beside +-0, so one of the two reductions ends on a zero.
            const float other = t % 2 ? 1.0f : -1.0f;
            for (auto &v : x) {
                const uint32_t r = rng() % 3;
                v = r == 0 ? other : (r == 1 ? 0.0f : -0.0f);
            }
        }
        const int64_t axis = static_cast<int64_t>(rng() % rank) - (t % 2 ? static_cast<int64_t>(rank) : 0);
        const int64_t keepdims = rng() % 2;
        const uint32_t extra = (t % 5 == 0) ? 1 + rng() % 8 : 0;
        for (bool max : {true, false}) {
            uint32_t st_lit = 0;
            npucpu::testing::force_isa(npucpu::Isa::Literal);
            const std::vector<char> literal = run_reduce(max, dims, x, axis, keepdims, extra, &st_lit);
            npucpu::testing::clear_forced_isa();
            uint32_t st_fast = 0;
            const std::vector<char> fast = run_reduce(max, dims, x, axis, keepdims, extra, &st_fast);
            ASSERT_EQ(st_lit, st_fast) << "case " << t;
            ASSERT_EQ(literal.size(), fast.size());
            for (size_t i = 0; i < literal.size(); ++i) {
                ASSERT_EQ(literal[i], fast[i]) << (max ? "reducemax" : "reducemin") << " case " << t
                                               << " differs at byte " << i;
            }
        }
    }
}

// ---- Global max pooling -----------------------------------------------------------

std::vector<char> run_global_max(const std::vector<uint32_t> &dims, std::vector<float> &x, uint64_t in_len,
                                 uint32_t *status) {
    npucpu_test::Ctx c(1, 1, 0);
    c.input(0, npucpu_test::shape_of(dims), x.data(), in_len);
    *status = global_maxpool_infershape(c.h);
    if (*status != NPU_OK) return {};
    TensorShape s{};
    qv_kel_custom_get_output_shape_by_index(c.h, 0, &s);
    std::vector<char> bytes(static_cast<size_t>(GetElemSize(&s)) * 4, '\x5a');
    qv_kel_custom_set_output_buf_by_index(c.h, 0, bytes.data(), bytes.size());
    *status = global_maxpool_compute(c.h);
    return bytes;
}

// Planes of 0-40 elements (below, at and past the eight lanes) holding NaN
// payloads, negatives, zeros, values at the start value and repeated maxima;
// some inputs are shorter than their shape.
TEST(MemoryFast2, GlobalMaxPoolMatchesLiteral) {
    std::mt19937 rng(31);
    for (int t = 0; t < kTrials / 10; ++t) {
        const std::vector<uint32_t> dims = {static_cast<uint32_t>(1 + rng() % 3), static_cast<uint32_t>(1 + rng() % 4),
                                            static_cast<uint32_t>(rng() % 6), static_cast<uint32_t>(1 + rng() % 7)};
        const size_t count = static_cast<size_t>(dims[0]) * dims[1] * dims[2] * dims[3];
        const std::vector<uint32_t> bits = pattern_bits(count + 1, 700 + t);
        std::vector<float> x(count + 1);
        std::memcpy(x.data(), bits.data(), x.size() * 4);
        if (t % 3 == 0) {
            for (auto &v : x) v = static_cast<float>(static_cast<int>(rng() % 5) - 3);  // ties and negatives
        }
        if (t % 5 == 0 && !x.empty()) x[rng() % x.size()] = std::numeric_limits<float>::min();
        const uint64_t in_len = (t % 4 == 1 ? count / 2 : count) * 4;
        uint32_t st_lit = 0, st_fast = 0;
        npucpu::testing::force_isa(npucpu::Isa::Literal);
        const std::vector<char> literal = run_global_max(dims, x, in_len, &st_lit);
        npucpu::testing::clear_forced_isa();
        const std::vector<char> fast = run_global_max(dims, x, in_len, &st_fast);
        ASSERT_EQ(st_lit, st_fast) << "case " << t;
        ASSERT_EQ(literal, fast) << "global_maxpool case " << t;
    }
}

// ---- Expand (broadcast into the output) -------------------------------------------

std::vector<char> run_expand(const std::vector<uint32_t> &in_dims, std::vector<float> &x,
                             std::vector<int64_t> target, int64_t extra_floats, uint32_t *status) {
    npucpu_test::Ctx c(2, 1, 0);
    c.input(0, npucpu_test::shape_of(in_dims), x.data(), x.size() * 4);
    c.input(1, npucpu_test::shape_of({static_cast<uint32_t>(target.size())}), target.data(), target.size() * 8,
            NPU_DTYPE_INT64);
    *status = expand_infershape(c.h);
    if (*status != NPU_OK) return {};
    TensorShape s{};
    qv_kel_custom_get_output_shape_by_index(c.h, 0, &s);
    const int64_t floats = static_cast<int64_t>(GetElemSize(&s)) + extra_floats;
    std::vector<char> bytes(static_cast<size_t>(floats > 0 ? floats : 0) * 4 + 2, '\x5a');
    qv_kel_custom_set_output_buf_by_index(c.h, 0, bytes.data(), bytes.size());
    *status = expand_compute(c.h);
    return bytes;
}

// Compatible, mismatched and empty targets, with output buffers exact,
// longer and shorter than the shape.
TEST(MemoryFast2, ExpandMatchesLiteral) {
    struct Case {
        std::vector<uint32_t> in;
        std::vector<int64_t> target;
    };
    const Case cases[] = {
        {{64, 1, 1}, {1, 64, 12, 12}}, {{3, 1}, {2, 3, 4}}, {{1, 4}, {3, 4}},   {{5}, {5}},
        {{2, 3}, {4, 3}},              {{3, 2}, {3, 4}},    {{2, 1}, {2, 0}},   {{1}, {1, 1, 1}},
        {{4, 1, 3}, {2, 4, 5, 3}},     {{2, 2}, {3, 2}},
    };
    uint32_t seed = 900;
    for (const Case &c : cases) {
        size_t count = 1;
        for (uint32_t d : c.in) count *= d;
        const std::vector<uint32_t> bits = pattern_bits(count, seed++);
        std::vector<float> x(count);
        std::memcpy(x.data(), bits.data(), count * 4);
        for (int64_t extra : {0, 3, -2}) {
            uint32_t st_lit = 0, st_fast = 0;
            npucpu::testing::force_isa(npucpu::Isa::Literal);
            const std::vector<char> literal = run_expand(c.in, x, c.target, extra, &st_lit);
            npucpu::testing::clear_forced_isa();
            const std::vector<char> fast = run_expand(c.in, x, c.target, extra, &st_fast);
            ASSERT_EQ(st_lit, st_fast) << "expand case " << seed;
            ASSERT_EQ(literal, fast) << "expand case " << seed << " extra " << extra;
        }
    }
}

// ---- Depth to space ---------------------------------------------------------------

std::vector<char> run_depth_to_space(const std::vector<uint32_t> &dims, std::vector<float> &x, uint64_t in_len,
                                     int64_t block, const std::string &mode, int64_t out_delta, uint32_t *status) {
    std::vector<char> bytes;
    npucpu_test::capture_stdout([&] {
        npucpu_test::Ctx c(1, 1, 2);
        c.input(0, npucpu_test::shape_of(dims), x.data(), in_len);
        c.attr_int(0, "blocksize", block);
        c.attr_string(1, "mode", mode);
        *status = depth_to_space_infershape(c.h);
        if (*status != NPU_OK) return;
        TensorShape s{};
        qv_kel_custom_get_output_shape_by_index(c.h, 0, &s);
        const int64_t floats = static_cast<int64_t>(GetElemSize(&s)) + out_delta;
        bytes.assign(static_cast<size_t>(floats > 0 ? floats : 0) * 4 + 1, '\x5a');
        qv_kel_custom_set_output_buf_by_index(c.h, 0, bytes.data(), bytes.size());
        *status = depth_to_space_compute(c.h);
    });
    return bytes;
}

// Both modes, block sizes 2-4, with whole, short input and short output buffers.
TEST(MemoryFast2, DepthToSpaceMatchesLiteral) {
    std::mt19937 rng(41);
    for (int t = 0; t < kTrials / 20; ++t) {
        const int64_t block = 2 + static_cast<int64_t>(rng() % 3);
        const uint32_t bb = static_cast<uint32_t>(block * block);
        const std::vector<uint32_t> dims = {static_cast<uint32_t>(1 + rng() % 2), static_cast<uint32_t>(bb * (1 + rng() % 3)),
                                            static_cast<uint32_t>(1 + rng() % 5), static_cast<uint32_t>(1 + rng() % 9)};
        const size_t count = static_cast<size_t>(dims[0]) * dims[1] * dims[2] * dims[3];
        const std::vector<uint32_t> bits = pattern_bits(count, 1100 + t);
        std::vector<float> x(count);
        std::memcpy(x.data(), bits.data(), count * 4);
        const uint64_t in_len = (t % 5 == 1 ? count * 2 / 3 : count) * 4;
        const int64_t out_delta = t % 5 == 2 ? -static_cast<int64_t>(count / 3) : 0;
        const std::string mode = t % 2 ? "CRD" : "DCR";
        uint32_t st_lit = 0, st_fast = 0;
        npucpu::testing::force_isa(npucpu::Isa::Literal);
        const std::vector<char> literal = run_depth_to_space(dims, x, in_len, block, mode, out_delta, &st_lit);
        npucpu::testing::clear_forced_isa();
        const std::vector<char> fast = run_depth_to_space(dims, x, in_len, block, mode, out_delta, &st_fast);
        ASSERT_EQ(st_lit, st_fast) << "depth_to_space case " << t;
        ASSERT_EQ(literal, fast) << "depth_to_space case " << t;
    }
}

// ---- Nonzero ---------------------------------------------------------------------

std::vector<char> run_nonzero(const std::vector<uint32_t> &dims, std::vector<uint32_t> &x, uint32_t dtype,
                              uint64_t out_len, uint32_t *status) {
    npucpu_test::Ctx c(1, 1, 0);
    c.input(0, npucpu_test::shape_of(dims), x.data(), x.size() * 4, dtype);
    *status = nonzero_infershape(c.h);
    if (*status != NPU_OK) return {};
    std::vector<char> bytes(out_len, '\x5a');
    qv_kel_custom_set_output_buf_by_index(c.h, 0, bytes.data(), bytes.size());
    *status = nonzero_compute(c.h);
    return bytes;
}

// Float (NaN, signed zeros, subnormals) and int32 inputs of rank 1-4, some
// with a zero dim, input buffers longer or shorter than the shape (the
// coordinates wrap round) and output buffers shorter than the coordinates.
TEST(MemoryFast2, NonzeroMatchesLiteral) {
    std::mt19937 rng(51);
    for (int t = 0; t < kTrials / 10; ++t) {
        const uint32_t rank = 1 + rng() % 4;
        std::vector<uint32_t> dims(rank);
        size_t count = 1;
        for (auto &v : dims) {
            v = (t % 17 == 0 && rng() % 2) ? 0 : static_cast<uint32_t>(1 + rng() % 6);
            count *= v;
        }
        const size_t slots = t % 3 == 1 ? count + 1 + rng() % 9 : (t % 3 == 2 ? count / 2 : count);
        std::vector<uint32_t> x = pattern_bits(slots, 1300 + t);
        for (auto &v : x) {
            if (rng() % 2) v = rng() % 2 ? 0x80000000u : 0u;  // plenty of +-0 (and int 0 / INT_MIN)
        }
        const uint32_t dtype = t % 2 ? NPU_DTYPE_INT32 : NPU_DTYPE_FLOAT32;
        const uint64_t full = static_cast<uint64_t>(rank) * slots * 8;
        const uint64_t out_len = t % 4 == 3 ? full / 3 + 5 : full;
        uint32_t st_lit = 0, st_fast = 0;
        npucpu::testing::force_isa(npucpu::Isa::Literal);
        const std::vector<char> literal = run_nonzero(dims, x, dtype, out_len, &st_lit);
        npucpu::testing::clear_forced_isa();
        const std::vector<char> fast = run_nonzero(dims, x, dtype, out_len, &st_fast);
        ASSERT_EQ(st_lit, st_fast) << "nonzero case " << t;
        ASSERT_EQ(literal, fast) << "nonzero case " << t;
    }
}

}  // namespace
