// concat operator: interleaving by outer index, the rank-1 path, refusals.
#include <gtest/gtest.h>

#include "test_util.h"

using namespace npucpu_test;

namespace {

constexpr float kSentinel = -777.0f;
constexpr int64_t kNoAxis = INT64_MIN;
constexpr uint32_t OK = NPU_OK, ARG = NPU_ERR_INVALID_ARG;

// `out_floats` (when not -1) is the output buffer's length; `null` makes
// input 1's buffer (1) or the output's (2) null. An empty `expected` means
// the output is untouched; compute prints nothing either way.
TEST(ConcatOp, Table) {
    const std::vector<float> k6 = {0, 1, 2, 3, 4, 5}, k6b = {6, 7, 8, 9, 10, 11};
    const struct { const char *name; std::vector<std::pair<std::vector<uint32_t>, std::vector<float>>> inputs;
                   int64_t axis; uint32_t infer_status, compute_status; std::vector<uint32_t> out_dims;
                   std::vector<float> expected; int64_t out_floats = -1; int null = -1; } cases[] = {
        {"axis 0 appends rows", {{{2, 3}, k6}, {{2, 3}, k6b}}, 0, OK, OK, {4, 3}, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}},
        {"default axis interleaves rows", {{{2, 3}, k6}, {{2, 3}, k6b}}, kNoAxis, OK, OK, {2, 6},
         {0, 1, 2, 6, 7, 8, 3, 4, 5, 9, 10, 11}},
        {"axis -1", {{{2, 3}, k6}, {{2, 3}, k6b}}, -1, OK, OK, {2, 6}, {0, 1, 2, 6, 7, 8, 3, 4, 5, 9, 10, 11}},
        {"blocks of different widths", {{{2, 1}, {0, 1}}, {{2, 3}, {2, 3, 4, 5, 6, 7}}}, 1, OK, OK, {2, 4},
         {0, 2, 3, 4, 1, 5, 6, 7}},
        {"middle axis of three inputs",
         {{{2, 1, 2}, {0, 1, 2, 3}}, {{2, 2, 2}, {4, 5, 6, 7, 8, 9, 10, 11}}, {{2, 1, 2}, {12, 13, 14, 15}}}, 1, OK, OK,
         {2, 4, 2}, {0, 1, 4, 5, 6, 7, 12, 13, 2, 3, 8, 9, 10, 11, 14, 15}},
        {"rank 1 joins whole buffers", {{{3}, {0, 1, 2}}, {{5}, {3, 4, 5, 6, 7}}}, 0, OK, OK, {8}, {0, 1, 2, 3, 4, 5, 6, 7}},
        {"single input", {{{2, 2}, {0, 1, 2, 3}}}, 1, OK, OK, {2, 2}, {0, 1, 2, 3}},
        {"rank 1, short output", {{{4}, {0, 1, 2, 3}}, {{4}, {4, 5, 6, 7}}}, kNoAxis, OK, OK, {8}, {0, 1, 2, 3, 4}, 5},
        {"rank 2, short output", {{{2, 2}, {0, 1, 2, 3}}, {{2, 2}, {4, 5, 6, 7}}}, kNoAxis, OK, OK, {2, 4},
         {0, 1, 4, 5, 2}, 5},
        {"null later input", {{{1, 2}, {0, 1}}, {{1, 2}, {2, 3}}}, 1, OK, ARG, {1, 4}, {}, -1, 1},
        {"null output", {{{1, 2}, {0, 1}}, {{1, 2}, {2, 3}}}, 1, OK, ARG, {1, 4}, {}, -1, 2},
        {"rank-0 input 0", {{{}, {1}}, {{}, {2}}}, kNoAxis, ARG, ARG, {}, {}},
        {"axis past the rank", {{{2}, {0, 1}}, {{2}, {2, 3}}}, 1, ARG, ARG, {}, {}},
        {"axis below minus the rank", {{{1, 2}, {0, 1}}, {{1, 2}, {2, 3}}}, -3, ARG, ARG, {}, {}},
        {"input of another rank", {{{1, 2}, {0, 1}}, {{2}, {2, 3}}}, 1, ARG, ARG, {}, {}},
        {"non-axis dim differs", {{{1, 2}, {0, 1}}, {{2, 2}, {2, 3, 4, 5}}}, 1, ARG, ARG, {}, {}},
    };
    for (const auto &k : cases) {
        SCOPED_TRACE(k.name);
        const uint32_t n = static_cast<uint32_t>(k.inputs.size());
        Ctx c(n, 1, k.axis == kNoAxis ? 0 : 1);
        std::vector<std::vector<float>> data;
        for (const auto &in : k.inputs) data.push_back(in.second);
        for (uint32_t i = 0; i < n; ++i) {
            c.input(i, shape_of(k.inputs[i].first), i == 1 && k.null == 1 ? nullptr : data[i].data(), 4 * data[i].size());
        }
        if (k.axis != kNoAxis) c.attr_int(0, "axis", k.axis);
        uint32_t status = 0;
        std::string err = capture_stderr([&] { status = concat_infershape(c.h); });
        EXPECT_EQ(status, k.infer_status);
        EXPECT_EQ(concat_check_supported(c.h), 1u);
        EXPECT_EQ(dims_of(c.output_shape(0)), k.out_dims);
        // A refused shape leaves compute input 0's shape, as a careless host might.
        if (status != NPU_OK) qv_kel_custom_set_output_by_index(c.h, 0, 0, 0, &c.h->inputs[0].shape, nullptr, 0);
        TensorShape os = c.output_shape(0);
        const size_t count = GetElemSize(&os);
        std::vector<float> out(count + 1, kSentinel), want = k.expected;
        qv_kel_custom_set_output_buf_by_index(c.h, 0, k.null == 2 ? nullptr : out.data(),
                                              4 * (k.out_floats < 0 ? count : k.out_floats));
        err += capture_stderr([&] { status = concat_compute(c.h); });
        EXPECT_EQ(status, k.compute_status);
        EXPECT_EQ(err, "");
        want.resize(out.size(), kSentinel);
        EXPECT_EQ(out, want);
    }
}

}  // namespace
