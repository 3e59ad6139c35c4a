// topk: sorted and unsorted orders, ties, K clamping, integer comparators, guards.
#include <gtest/gtest.h>

#include <cmath>

#include "npucpu.h"
#include "test_util.h"

namespace {

using namespace npucpu_test;
using U = std::vector<uint32_t>;
constexpr uint32_t kS = 0xdeadbeefu;  // sentinel
constexpr int64_t kAbsent = -99;
const std::string kPrefix = "[E] [custom] [topk_ops_impl:L] ";

TEST(Topk, Table) {
    const std::vector<double> x = {5, 1, 4, 2, 3}, ties = {2, 7, 2, 7, 2};
    const double nan = std::nan("");
    const int64_t A = kAbsent;
    struct Case {
        U shape;
        std::vector<double> data;  // float elements, or int32 when `ints` is set
        uint32_t k;
        int64_t axis, largest, sorted;
        U out_shape;
        std::vector<double> values;
        U indices;
        bool ints = false;
    };
    const std::vector<Case> cases = {
        {{3}, {1, 3, 2}, 2, A, A, A, {2}, {3, 2}, {1, 2}},
        {{3}, {1, 3, 2}, 2, A, 0, 1, {2}, {1, 2}, {0, 2}},
        {{3}, {1, 3, 2}, 2, A, 1, 0, {2}, {2, 3}, {2, 1}},  // first two swapped
        {{3}, {1, 3, 2}, 2, A, 0, 0, {2}, {2, 1}, {2, 0}},  // smallest, descending
        {{5}, x, 1, A, 1, 0, {1}, {5}, {0}},
        {{5}, x, 3, A, 1, 0, {3}, {4, 5, 3}, {2, 0, 4}},
        {{5}, x, 4, A, 1, 0, {4}, {3, 5, 4, 2}, {4, 0, 2, 3}},  // order 2, 0, 1, 3
        {{5}, x, 3, A, 0, 0, {3}, {3, 2, 1}, {4, 3, 1}},
        {{3}, {1, 3, 2}, 7, A, 1, 1, {3}, {3, 2, 1}, {1, 2, 0}},  // K clamped
        // Ties keep ascending index order.
        {{5}, ties, 5, A, 1, 1, {5}, {7, 7, 2, 2, 2}, {1, 3, 0, 2, 4}},
        {{5}, ties, 5, A, 0, 1, {5}, {2, 2, 2, 7, 7}, {0, 2, 4, 1, 3}},
        {{5}, ties, 5, A, 0, 0, {5}, {7, 7, 2, 2, 2}, {1, 3, 0, 2, 4}},
        {{5}, ties, 4, A, 1, 0, {4}, {2, 7, 7, 2}, {0, 1, 3, 2}},
        {{3}, {1, nan, 3}, 3, A, 1, 1, {3}, {3, 1, nan}, {2, 0, 1}},
        {{3, 2}, {1, 6, 5, 2, 3, 4}, 2, 0, 1, 1, {2, 2}, {5, 6, 3, 4}, {1, 0, 2, 2}},
        {{2, 2, 2}, {1, 8, 3, 4, 9, 6, 7, 6}, 1, -2, 0, 1, {2, 1, 2}, {1, 4, 7, 6}, {0, 1, 1, 0}},
        {{4}, {4, -1, 4, -1}, 3, A, 0, 0, {3}, {4, -1, -1}, {0, 1, 3}, true},
        // The wrapping difference misorders values more than 2^31 apart.
        {{2}, {2147483647, -2}, 2, A, 1, 1, {2}, {-2, 2147483647}, {1, 0}, true},
        {{3}, {1, 2, 3}, 0, A, A, A, {}, {}, {}},  // K = 0: rank-0 shapes
    };
    for (size_t n = 0; n < cases.size(); ++n) {
        const Case &tc = cases[n];
        SCOPED_TRACE("case " + std::to_string(n));
        const uint32_t dtype = tc.ints ? NPU_DTYPE_INT32 : NPU_DTYPE_FLOAT32;
        auto raw = [&](const std::vector<double> &v) {  // element bits
            U r;
            for (double e : v) r.push_back(tc.ints ? uint32_t(int32_t(e)) : bits(float(e)));
            return r;
        };
        U data = raw(tc.data), values(tc.values.size() + 1, kS), indices(values);
        uint32_t k = tc.k;
        Ctx c(2, 2, 3);
        c.input(0, shape_of(tc.shape), data.data(), data.size() * 4, dtype);
        c.input(1, shape_of({1}), &k, 4, NPU_DTYPE_INT32);
        if (tc.axis != kAbsent) c.attr_int(0, "axis", tc.axis);
        if (tc.largest != kAbsent) c.attr_int(1, "largest", tc.largest);
        if (tc.sorted != kAbsent) c.attr_int(2, "sorted", tc.sorted);
        std::string log = capture_stdout([&] {
            ASSERT_EQ(topk_infershape(c.h), NPU_OK);
            EXPECT_EQ(dims_of(c.output_shape(0)), tc.out_shape);
            EXPECT_EQ(dims_of(c.output_shape(1)), tc.out_shape);
            uint32_t d0 = 9, d1 = 9;
            qv_kel_custom_get_output_dtype_by_index(c.h, 0, &d0);
            qv_kel_custom_get_output_dtype_by_index(c.h, 1, &d1);
            EXPECT_EQ(d0, dtype);
            EXPECT_EQ(d1, NPU_DTYPE_INT32);
            EXPECT_EQ(topk_check_supported(c.h), 1u);
            qv_kel_custom_set_output_buf_by_index(c.h, 0, values.data(), tc.values.size() * 4);
            qv_kel_custom_set_output_buf_by_index(c.h, 1, indices.data(), tc.values.size() * 4);
            EXPECT_EQ(topk_compute(c.h), NPU_OK);
        });
        EXPECT_EQ(log, "");  // absent attributes are not read
        U want_values = raw(tc.values), want_indices = tc.indices;
        want_values.push_back(kS);  // one slot past the output stays untouched
        want_indices.push_back(kS);
        EXPECT_EQ(values, want_values);
        EXPECT_EQ(indices, want_indices);
    }
}

TEST(Topk, RefusalsAndMessages) {
    const struct { int64_t axis, sorted; std::string message; } refusals[] = {
        {2, 1, "topk axis: 2 must be in [-2, 2 - 1] \n"},
        {-3, 1, "topk axis: -3 must be in [-2, 2 - 1] \n"},
        {1, 2, "topk sorted:  must be 0 or 1 but not 2 \n"},
        {-1, -1, "topk sorted:  must be 0 or 1 but not -1 \n"},
    };
    std::vector<float> data = {1, 2, 3, 4}, v(2, -1), i(2, -1);
    for (const auto &r : refusals) {
        uint32_t k = 1;
        Ctx c(2, 2, 2);
        c.input(0, shape_of({2, 2}), data);
        c.input(1, shape_of({1}), &k, 4, NPU_DTYPE_INT32);
        c.attr_int(0, "axis", r.axis);
        c.attr_int(1, "sorted", r.sorted);
        std::string err = capture_stderr([&] { EXPECT_EQ(topk_infershape(c.h), NPU_ERR_INPUT_NUM); });
        EXPECT_EQ(mask_error_lines(err), kPrefix + r.message);
    }
    Ctx three(3, 2);
    std::string err = capture_stderr([&] { EXPECT_EQ(topk_infershape(three.h), NPU_ERR_INPUT_NUM); });
    EXPECT_EQ(mask_error_lines(err), kPrefix + "topk only support 2 inputs \n");

    Ctx c(2, 2);
    c.input(0, shape_of({4}), data);
    c.input(1, shape_of({1}), nullptr, 4, NPU_DTYPE_INT32);
    EXPECT_EQ(topk_infershape(c.h), NPU_ERR_INPUT);
    EXPECT_EQ(topk_compute(c.h), NPU_ERR_INVALID_ARG);
    int64_t k64 = 2;  // K is the first 32 bits, whatever the data type
    c.input(1, shape_of({1}), &k64, 8, NPU_DTYPE_INT64);
    c.input(0, shape_of({4}), data.data(), 16, NPU_DTYPE_FLOAT64);
    ASSERT_EQ(topk_infershape(c.h), NPU_OK);
    EXPECT_EQ(dims_of(c.output_shape(0)), U{2});
    EXPECT_EQ(topk_check_supported(c.h), 0u);
    qv_kel_custom_set_output_buf_by_index(c.h, 0, v.data(), 8);
    qv_kel_custom_set_output_buf_by_index(c.h, 1, i.data(), 8);
    err = capture_stderr([&] { EXPECT_EQ(topk_compute(c.h), NPU_ERR_UNSUPPORTED); });
    EXPECT_EQ(mask_error_lines(err), kPrefix + "Get top index failure \n");
    // Short buffers: two input elements behind [4], outputs of one element.
    c.input(0, shape_of({4}), data.data(), 8);
    qv_kel_custom_set_output_buf_by_index(c.h, 0, v.data(), 4);
    qv_kel_custom_set_output_buf_by_index(c.h, 1, i.data(), 4);
    EXPECT_EQ(topk_compute(c.h), NPU_OK);
    EXPECT_EQ(v, (std::vector<float>{2, -1}));
    EXPECT_EQ(bits(i[0]), 1u);  // index 1, as int32
    qv_kel_custom_set_output_buf_by_index(c.h, 1, nullptr, 0);
    EXPECT_EQ(topk_compute(c.h), NPU_ERR_INVALID_ARG);
}

// K comes from the bytes input 1 has (a 2-byte buffer gives its low half,
// the rest zero) and reads unsigned in the operator, so -3 is clamped to the
// axis length; the kernel's signed K selects nothing when negative; compute
// refuses an axis outside the rank.
TEST(Topk, KBytesNegativeKAndAxis) {
    std::vector<float> data = {1, 5, 3, 4};
    const struct { uint32_t k; uint64_t k_len; std::vector<float> values; } cases[] = {
        {0xffff0002u, 2, {5, 4, -1, -1}},
        {static_cast<uint32_t>(-3), 4, {5, 4, 3, 1}},
    };
    for (const auto &tc : cases) {
        uint32_t k = tc.k;
        std::vector<float> v(4, -1), i(4, -1);
        Ctx c(2, 2);
        c.input(0, shape_of({4}), data);
        c.input(1, shape_of({1}), &k, tc.k_len, NPU_DTYPE_INT32);
        ASSERT_EQ(topk_infershape(c.h), NPU_OK);
        qv_kel_custom_set_output_buf_by_index(c.h, 0, v.data(), 16);
        qv_kel_custom_set_output_buf_by_index(c.h, 1, i.data(), 16);
        EXPECT_EQ(topk_compute(c.h), NPU_OK);
        EXPECT_EQ(v, tc.values);
    }
    std::vector<float> kv(4, -1);
    std::vector<uint32_t> ki(4, 7);
    const TensorShape s = shape_of({4});
    EXPECT_EQ(get_top_fp32(data.data(), kv.data(), ki.data(), &s, -2, 0, 1, 1, 16, 16), NPU_OK);
    EXPECT_EQ(kv, std::vector<float>(4, -1));
    // Infershape refuses axis 1 of a rank-1 input; compute alone refuses it too.
    uint32_t k = 1;
    std::vector<float> v(1, -1), i(1, -1);
    Ctx c(2, 2, 1);
    c.input(0, shape_of({4}), data);
    c.input(1, shape_of({1}), &k, 4, NPU_DTYPE_INT32);
    c.attr_int(0, "axis", 1);
    qv_kel_custom_set_output_buf_by_index(c.h, 0, v.data(), 4);
    qv_kel_custom_set_output_buf_by_index(c.h, 1, i.data(), 4);
    EXPECT_EQ(topk_compute(c.h), NPU_ERR_INVALID_ARG);
    EXPECT_EQ(v[0], -1.0f);
}

}  // namespace
