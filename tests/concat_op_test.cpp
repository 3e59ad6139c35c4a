// concat operator: interleaving by outer index, the rank-1 path, refusals.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "npucpu.h"
#include "test_util.h"

using namespace npucpu_test;

namespace {

constexpr float kSentinel = -777.0f;
constexpr int64_t kNoAxis = INT64_MIN;

struct Input {
    std::vector<uint32_t> dims;
    std::vector<float> data;
};

struct Case {
    const char *name;
    std::vector<Input> inputs;
    int64_t axis;
    uint32_t status;  // of both stages
    std::vector<uint32_t> out_dims;
    std::vector<float> expected;
};

TEST(ConcatOp, Table) {
    const std::vector<Case> cases = {
        {"axis 0 appends rows", {{{2, 3}, {0, 1, 2, 3, 4, 5}}, {{2, 3}, {6, 7, 8, 9, 10, 11}}}, 0, NPU_OK,
         {4, 3}, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}},
        {"default axis interleaves rows", {{{2, 3}, {0, 1, 2, 3, 4, 5}}, {{2, 3}, {6, 7, 8, 9, 10, 11}}},
         kNoAxis, NPU_OK, {2, 6}, {0, 1, 2, 6, 7, 8, 3, 4, 5, 9, 10, 11}},
        {"axis -1", {{{2, 3}, {0, 1, 2, 3, 4, 5}}, {{2, 3}, {6, 7, 8, 9, 10, 11}}}, -1, NPU_OK, {2, 6},
         {0, 1, 2, 6, 7, 8, 3, 4, 5, 9, 10, 11}},
        {"blocks of different widths", {{{2, 1}, {0, 1}}, {{2, 3}, {2, 3, 4, 5, 6, 7}}}, 1, NPU_OK, {2, 4},
         {0, 2, 3, 4, 1, 5, 6, 7}},
        {"middle axis of three inputs",
         {{{2, 1, 2}, {0, 1, 2, 3}}, {{2, 2, 2}, {4, 5, 6, 7, 8, 9, 10, 11}}, {{2, 1, 2}, {12, 13, 14, 15}}},
         1, NPU_OK, {2, 4, 2}, {0, 1, 4, 5, 6, 7, 12, 13, 2, 3, 8, 9, 10, 11, 14, 15}},
        {"rank 1 joins whole buffers", {{{3}, {0, 1, 2}}, {{5}, {3, 4, 5, 6, 7}}}, 0, NPU_OK, {8},
         {0, 1, 2, 3, 4, 5, 6, 7}},
        {"single input", {{{2, 2}, {0, 1, 2, 3}}}, 1, NPU_OK, {2, 2}, {0, 1, 2, 3}},
        {"rank-0 input 0", {{{}, {1}}, {{}, {2}}}, kNoAxis, NPU_ERR_INVALID_ARG, {}, {}},
        {"axis past the rank", {{{2}, {0, 1}}, {{2}, {2, 3}}}, 1, NPU_ERR_INVALID_ARG, {}, {}},
        {"axis below minus the rank", {{{1, 2}, {0, 1}}, {{1, 2}, {2, 3}}}, -3, NPU_ERR_INVALID_ARG, {}, {}},
        {"input of another rank", {{{1, 2}, {0, 1}}, {{2}, {2, 3}}}, 1, NPU_ERR_INVALID_ARG, {}, {}},
        {"non-axis dim differs", {{{1, 2}, {0, 1}}, {{2, 2}, {2, 3, 4, 5}}}, 1, NPU_ERR_INVALID_ARG, {}, {}},
    };
    for (const Case &k : cases) {
        SCOPED_TRACE(k.name);
        const uint32_t n = static_cast<uint32_t>(k.inputs.size());
        Ctx c(n, 1, k.axis == kNoAxis ? 0 : 1);
        std::vector<std::vector<float>> data;
        for (const Input &in : k.inputs) data.push_back(in.data);
        for (uint32_t i = 0; i < n; ++i) c.input(i, shape_of(k.inputs[i].dims), data[i]);
        if (k.axis != kNoAxis) c.attr_int(0, "axis", k.axis);

        uint32_t status = 0;
        std::string err = capture_stderr([&] { status = concat_infershape(c.h); });
        EXPECT_EQ(status, k.status);
        EXPECT_EQ(err, "");
        EXPECT_EQ(concat_check_supported(c.h), 1u);
        if (k.status != NPU_OK) {
            // Compute refuses the same inputs before writing.
            std::vector<float> out(4, kSentinel);
            qv_kel_custom_set_output_by_index(c.h, 0, 0, 0, &c.h->inputs[0].shape, out.data(), 16);
            err = capture_stderr([&] { status = concat_compute(c.h); });
            EXPECT_EQ(status, k.status);
            EXPECT_EQ(err, "");
            EXPECT_EQ(out, std::vector<float>(4, kSentinel));
            continue;
        }
        EXPECT_EQ(dims_of(c.output_shape(0)), k.out_dims);
        std::vector<float> &out = c.alloc_output(0, kSentinel);
        EXPECT_EQ(concat_compute(c.h), NPU_OK);
        EXPECT_EQ(out, k.expected);
    }
}

// Writes stop at the end of a short output buffer, in both paths.
TEST(ConcatOp, ShortOutputBufferIsNotOverrun) {
    for (const std::vector<uint32_t> &dims : {std::vector<uint32_t>{4}, std::vector<uint32_t>{2, 2}}) {
        Ctx c(2, 1);
        std::vector<float> a = {0, 1, 2, 3}, b = {4, 5, 6, 7};
        c.input(0, shape_of(dims), a);
        c.input(1, shape_of(dims), b);
        ASSERT_EQ(concat_infershape(c.h), NPU_OK);
        std::vector<float> out(8, kSentinel);
        qv_kel_custom_set_output_buf_by_index(c.h, 0, out.data(), 5 * sizeof(float));
        EXPECT_EQ(concat_compute(c.h), NPU_OK);
        const std::vector<float> head(out.begin(), out.begin() + 5);
        EXPECT_EQ(head, dims.size() == 1 ? std::vector<float>({0, 1, 2, 3, 4})
                                         : std::vector<float>({0, 1, 4, 5, 2}));
        EXPECT_EQ(out[5], kSentinel);
    }
}

TEST(ConcatOp, NullBuffersAreRefused) {
    Ctx c(2, 1);
    std::vector<float> a = {0, 1}, b = {2, 3};
    c.input(0, shape_of({1, 2}), a);
    c.input(1, shape_of({1, 2}), nullptr, 8);
    ASSERT_EQ(concat_infershape(c.h), NPU_OK);
    std::vector<float> &out = c.alloc_output(0, kSentinel);
    EXPECT_EQ(concat_compute(c.h), NPU_ERR_INVALID_ARG);
    EXPECT_EQ(out, std::vector<float>(4, kSentinel));
    c.input(1, shape_of({1, 2}), b);
    qv_kel_custom_set_output_buf_by_index(c.h, 0, nullptr, 16);
    EXPECT_EQ(concat_compute(c.h), NPU_ERR_INVALID_ARG);
}

}  // namespace
