// topk: sorted and unsorted orders, ties, K clamping, integer comparators,
// guards and messages.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "npucpu.h"
#include "test_util.h"

using npucpu_test::Ctx;
using npucpu_test::shape_of;

namespace {

constexpr uint32_t kSentinel = 0xdeadbeefu;
const float kNaN = std::nanf("");

template <typename T>
uint32_t bits(T v) {
    uint32_t u;
    std::memcpy(&u, &v, 4);
    return u;
}

struct Opts {
    std::optional<int64_t> axis, largest, sorted;
};
Opts ls(int64_t largest, int64_t sorted) { return {std::nullopt, largest, sorted}; }

struct TopkRun {
    uint32_t infer = 0, compute = 0;
    std::vector<uint32_t> shape0, shape1;
    uint32_t dtype0 = 0, dtype1 = 0;
    std::vector<uint32_t> values, indices;  // raw 32-bit outputs
    std::string err, log;
};

TopkRun run(const TensorShape &shape, const void *data, uint64_t len, uint32_t dtype, uint32_t k,
        const Opts &o) {
    Ctx c(2, 2, 3);
    c.input(0, shape, const_cast<void *>(data), len, dtype);
    uint32_t kbuf = k;
    c.input(1, shape_of({1}), &kbuf, 4, NPU_DTYPE_INT32);
    uint32_t slot = 0;
    if (o.axis) c.attr_int(slot++, "axis", *o.axis);
    if (o.largest) c.attr_int(slot++, "largest", *o.largest);
    if (o.sorted) c.attr_int(slot++, "sorted", *o.sorted);
    TopkRun r;
    r.log = npucpu_test::capture_stdout([&] {
        r.err = npucpu_test::capture_stderr([&] {
            r.infer = topk_infershape(c.h);
            TensorShape s0 = c.output_shape(0), s1 = c.output_shape(1);
            r.shape0 = npucpu_test::dims_of(s0);
            r.shape1 = npucpu_test::dims_of(s1);
            qv_kel_custom_get_output_dtype_by_index(c.h, 0, &r.dtype0);
            qv_kel_custom_get_output_dtype_by_index(c.h, 1, &r.dtype1);
            const size_t n = s0.dim_num ? GetElemSize(&s0) : 0;
            r.values.assign(n + 1, kSentinel);
            r.indices.assign(n + 1, kSentinel);
            qv_kel_custom_set_output_buf_by_index(c.h, 0, r.values.data(), n * 4);
            qv_kel_custom_set_output_buf_by_index(c.h, 1, r.indices.data(), n * 4);
            r.compute = topk_compute(c.h);
        });
    });
    r.err = npucpu_test::mask_error_lines(r.err);
    return r;
}

struct Case {
    const char *what;
    std::vector<uint32_t> shape;
    std::vector<float> data;
    uint32_t k;
    Opts opts;
    std::vector<uint32_t> out_shape;
    std::vector<float> values;
    std::vector<uint32_t> indices;
};

TEST(Topk, FloatTable) {
    const std::vector<float> x5 = {5, 1, 4, 2, 3};
    const std::vector<float> ties = {2, 7, 2, 7, 2};
    const std::vector<Case> cases = {
        {"largest, sorted", {3}, {1, 3, 2}, 2, ls(1, 1), {2}, {3, 2}, {1, 2}},
        {"defaults are largest and sorted", {3}, {1, 3, 2}, 2, Opts{}, {2}, {3, 2}, {1, 2}},
        {"smallest, sorted", {3}, {1, 3, 2}, 2, ls(0, 1), {2}, {1, 2}, {0, 2}},
        {"largest, unsorted K=2 swaps the first two", {3}, {1, 3, 2}, 2, ls(1, 0), {2}, {2, 3},
         {2, 1}},
        {"smallest, unsorted comes out descending", {3}, {1, 3, 2}, 2, ls(0, 0), {2}, {2, 1},
         {2, 0}},
        {"largest, unsorted K=1 unchanged", {5}, x5, 1, ls(1, 0), {1}, {5}, {0}},
        {"largest, unsorted K=3", {5}, x5, 3, ls(1, 0), {3}, {4, 5, 3}, {2, 0, 4}},
        {"largest, unsorted K=4 is order 2, 0, 1, 3", {5}, x5, 4, ls(1, 0), {4}, {3, 5, 4, 2},
         {4, 0, 2, 3}},
        {"smallest, unsorted K=3", {5}, x5, 3, ls(0, 0), {3}, {3, 2, 1}, {4, 3, 1}},
        {"K above the axis length is clamped", {3}, {1, 3, 2}, 7, ls(1, 1), {3}, {3, 2, 1},
         {1, 2, 0}},
        {"ties keep index order, largest", {5}, ties, 5, ls(1, 1), {5}, {7, 7, 2, 2, 2},
         {1, 3, 0, 2, 4}},
        {"ties keep index order, smallest", {5}, ties, 5, ls(0, 1), {5}, {2, 2, 2, 7, 7},
         {0, 2, 4, 1, 3}},
        {"ties, smallest unsorted", {5}, ties, 5, ls(0, 0), {5}, {7, 7, 2, 2, 2},
         {1, 3, 0, 2, 4}},
        {"ties, largest unsorted K=4", {5}, ties, 4, ls(1, 0), {4}, {2, 7, 7, 2},
         {0, 1, 3, 2}},
        {"signed zeros tie", {2}, {0.0f, -0.0f}, 2, ls(1, 1), {2}, {0.0f, -0.0f}, {0, 1}},
        {"NaN never compares", {3}, {1, kNaN, 3}, 3, ls(1, 1), {3}, {3, 1, kNaN}, {2, 0, 1}},
        {"axis 0 of [3, 2]", {3, 2}, {1, 6, 5, 2, 3, 4}, 2, Opts{0, 1, 1}, {2, 2},
         {5, 6, 3, 4}, {1, 0, 2, 2}},
        {"default axis -1 of [2, 3]", {2, 3}, {1, 3, 2, 6, 5, 4}, 1, Opts{}, {2, 1}, {3, 6},
         {1, 0}},
        {"middle axis of [2, 2, 2]", {2, 2, 2}, {1, 8, 3, 4, 9, 6, 7, 6}, 1, Opts{-2, 0, 1},
         {2, 1, 2}, {1, 4, 7, 6}, {0, 1, 1, 0}},
    };
    for (const Case &tc : cases) {
        SCOPED_TRACE(tc.what);
        TopkRun r = run(shape_of(tc.shape), tc.data.data(), tc.data.size() * 4, NPU_DTYPE_FLOAT32,
                    tc.k, tc.opts);
        EXPECT_EQ(r.infer, NPU_OK);
        EXPECT_EQ(r.compute, NPU_OK);
        EXPECT_EQ(r.shape0, tc.out_shape);
        EXPECT_EQ(r.shape1, tc.out_shape);
        EXPECT_EQ(r.dtype0, NPU_DTYPE_FLOAT32);
        EXPECT_EQ(r.dtype1, NPU_DTYPE_INT32);
        std::vector<uint32_t> want_values, want_indices = tc.indices;
        for (float v : tc.values) want_values.push_back(bits(v));
        want_values.push_back(kSentinel);
        want_indices.push_back(kSentinel);
        EXPECT_EQ(r.values, want_values);
        EXPECT_EQ(r.indices, want_indices);
        EXPECT_EQ(r.err, "");
        EXPECT_EQ(r.log, "") << "absent attributes are not read";
    }
}

TEST(Topk, IntegerInput) {
    struct IntCase {
        const char *what;
        std::vector<int32_t> data;
        uint32_t k;
        Opts opts;
        std::vector<int32_t> values;
        std::vector<uint32_t> indices;
    };
    const std::vector<IntCase> cases = {
        {"largest", {3, -1, 2}, 2, ls(1, 1), {3, 2}, {0, 2}},
        {"smallest with ties", {4, -1, 4, -1}, 3, ls(0, 1), {-1, -1, 4}, {1, 3, 0}},
        {"smallest unsorted", {4, -1, 4, -1}, 3, ls(0, 0), {4, -1, -1}, {0, 1, 3}},
        // The wrapping difference misorders values more than 2^31 apart.
        {"wrapping comparator", {2147483647, -2}, 2, ls(1, 1), {-2, 2147483647}, {1, 0}},
    };
    for (const IntCase &tc : cases) {
        SCOPED_TRACE(tc.what);
        const TensorShape s = shape_of({static_cast<uint32_t>(tc.data.size())});
        TopkRun r = run(s, tc.data.data(), tc.data.size() * 4, NPU_DTYPE_INT32, tc.k, tc.opts);
        EXPECT_EQ(r.compute, NPU_OK);
        EXPECT_EQ(r.dtype0, NPU_DTYPE_INT32);
        std::vector<uint32_t> want_values, want_indices = tc.indices;
        for (int32_t v : tc.values) want_values.push_back(bits(v));
        want_values.push_back(kSentinel);
        want_indices.push_back(kSentinel);
        EXPECT_EQ(r.values, want_values);
        EXPECT_EQ(r.indices, want_indices);
    }
}

TEST(Topk, Comparators) {
    auto pf = [](float v) { return TopkPair{0, {v}}; };
    auto pi = [](int32_t v) {
        TopkPair p{};
        p.value.i = v;
        return p;
    };
    const TopkPair f1 = pf(1), f2 = pf(2), fn = pf(kNaN);
    EXPECT_EQ(cmp_largest_fp32(&f1, &f2), 1);
    EXPECT_EQ(cmp_largest_fp32(&f2, &f1), -1);
    EXPECT_EQ(cmp_largest_fp32(&f1, &f1), -1);
    EXPECT_EQ(cmp_smallest_fp32(&f2, &f1), 1);
    EXPECT_EQ(cmp_smallest_fp32(&f1, &f1), -1);
    EXPECT_EQ(cmp_smallest_fp32(&fn, &f1), -1);
    const TopkPair i3 = pi(3), i5 = pi(5), imax = pi(2147483647), im1 = pi(-1);
    EXPECT_EQ(cmp_largest_s32(&i3, &i5), 2);
    EXPECT_EQ(cmp_smallest_s32(&i3, &i5), -2);
    EXPECT_EQ(cmp_smallest_s32(&i5, &i5), 0);
    EXPECT_EQ(cmp_smallest_s32(&imax, &im1), -2147483647 - 1);
}

TEST(Topk, ZeroK) {
    std::vector<float> data = {1, 2, 3};
    TopkRun r = run(shape_of({3}), data.data(), 12, NPU_DTYPE_FLOAT32, 0, Opts{});
    EXPECT_EQ(r.infer, NPU_OK);
    EXPECT_TRUE(r.shape0.empty());
    EXPECT_TRUE(r.shape1.empty());
    EXPECT_EQ(r.compute, NPU_OK);
    EXPECT_EQ(r.values, std::vector<uint32_t>{kSentinel});
}

TEST(Topk, RefusalsAndMessages) {
    std::vector<float> data = {1, 2, 3, 4};
    const std::string prefix = "[E] [custom] [topk_ops_impl:L] ";
    struct InferCase {
        const char *what;
        Opts opts;
        uint32_t status;
        std::string message;
    };
    const std::vector<InferCase> cases = {
        {"axis equal to the rank", Opts{2, 1, 1}, NPU_ERR_INPUT_NUM,
         "topk axis: 2 must be in [-2, 2 - 1] \n"},
        {"axis below -rank", Opts{-3, 1, 1}, NPU_ERR_INPUT_NUM,
         "topk axis: -3 must be in [-2, 2 - 1] \n"},
        {"sorted 2", Opts{1, 1, 2}, NPU_ERR_INPUT_NUM,
         "topk sorted:  must be 0 or 1 but not 2 \n"},
        {"sorted -1", Opts{std::nullopt, 0, -1}, NPU_ERR_INPUT_NUM,
         "topk sorted:  must be 0 or 1 but not -1 \n"},
        {"largest is not validated", Opts{std::nullopt, 5, 0}, NPU_OK, ""},
    };
    for (const InferCase &tc : cases) {
        SCOPED_TRACE(tc.what);
        TopkRun r = run(shape_of({2, 2}), data.data(), 16, NPU_DTYPE_FLOAT32, 1, tc.opts);
        EXPECT_EQ(r.infer, tc.status);
        EXPECT_EQ(r.err, tc.message.empty() ? "" : prefix + tc.message);
    }
    {
        Ctx c(3, 2);
        std::string err =
            npucpu_test::capture_stderr([&] { EXPECT_EQ(topk_infershape(c.h), NPU_ERR_INPUT_NUM); });
        EXPECT_EQ(npucpu_test::mask_error_lines(err), prefix + "topk only support 2 inputs \n");
    }
    // Input 1 missing: refused by infershape, and compute reads no K.
    {
        Ctx c(2, 2);
        c.input(0, shape_of({4}), data);
        c.input(1, shape_of({1}), nullptr, 4, NPU_DTYPE_INT32);
        std::string err = npucpu_test::capture_stderr([&] {
            EXPECT_EQ(topk_infershape(c.h), NPU_ERR_INPUT);
            EXPECT_EQ(topk_compute(c.h), NPU_ERR_INVALID_ARG);
        });
        EXPECT_EQ(err, "");
    }
    // K from the first 32 bits of an int64 input; then a data type compute
    // cannot handle, and missing output buffers.
    {
        Ctx c(2, 2);
        int64_t k64 = 2;
        c.input(1, shape_of({1}), &k64, 8, NPU_DTYPE_INT64);
        c.input(0, shape_of({4}), data.data(), 16, NPU_DTYPE_FLOAT64);
        ASSERT_EQ(topk_infershape(c.h), NPU_OK);
        EXPECT_EQ(npucpu_test::dims_of(c.output_shape(0)), std::vector<uint32_t>{2});
        EXPECT_EQ(topk_check_supported(c.h), 0u);
        std::vector<float> v(2), i(2);
        qv_kel_custom_set_output_buf_by_index(c.h, 0, v.data(), 8);
        qv_kel_custom_set_output_buf_by_index(c.h, 1, i.data(), 8);
        std::string err = npucpu_test::capture_stderr(
            [&] { EXPECT_EQ(topk_compute(c.h), NPU_ERR_UNSUPPORTED); });
        EXPECT_EQ(npucpu_test::mask_error_lines(err), prefix + "Get top index failure \n");
        c.input(0, shape_of({4}), data);
        EXPECT_EQ(topk_check_supported(c.h), 1u);
        qv_kel_custom_set_output_buf_by_index(c.h, 1, nullptr, 0);
        EXPECT_EQ(topk_compute(c.h), NPU_ERR_INVALID_ARG);
    }
}

TEST(Topk, ShortBuffersAreNotOverrun) {
    // Two input elements behind a shape of four, outputs of one element.
    std::vector<float> data = {1, 4, 2, 3};
    uint32_t k = 2;
    Ctx c(2, 2);
    c.input(0, shape_of({4}), data.data(), 8);
    c.input(1, shape_of({1}), &k, 4, NPU_DTYPE_INT32);
    std::vector<float> values(2, -1.0f);
    std::vector<uint32_t> indices(2, kSentinel);
    qv_kel_custom_set_output_buf_by_index(c.h, 0, values.data(), 4);
    qv_kel_custom_set_output_buf_by_index(c.h, 1, indices.data(), 4);
    EXPECT_EQ(topk_compute(c.h), NPU_OK);
    EXPECT_EQ(values, (std::vector<float>{4, -1}));
    EXPECT_EQ(indices, (std::vector<uint32_t>{1, kSentinel}));
}

}  // namespace
