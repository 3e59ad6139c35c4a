// slice operator: parameter normalisation, placement by axes, steps, and the
// refusals of both stages.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "npucpu.h"
#include "test_util.h"

using namespace npucpu_test;

namespace {

constexpr float kSentinel = -777.0f;
constexpr uint32_t kFail = 0xFFFFFFFFu;

struct Case {
    const char *name;
    std::vector<uint32_t> dims;
    std::vector<int64_t> starts, ends, axes, steps;
    uint32_t inputs;  // 3, 4 or 5; input 3 has a null buffer when `axes` is empty
    uint32_t infer_status, compute_status;
    std::vector<uint32_t> out_dims;
    std::vector<float> expected;  // empty: output untouched
    std::string err;              // of infershape; compute prints nothing more
};

const std::string kAxesErr = "[E] [custom] [slice_ops_impl:L] slice param axes[0]:2 out of range, range:[0-1]  \n";

TEST(SliceOp, Table) {
    const std::vector<Case> cases = {
        {"negative start", {10}, {-3}, {10}, {}, {}, 3, NPU_OK, NPU_OK, {3}, {7, 8, 9}, ""},
        {"reverse with end below the axis", {5}, {4}, {-6}, {}, {-1}, 5, NPU_OK, NPU_OK, {5}, {4, 3, 2, 1, 0}, ""},
        {"start past the axis with a negative step", {5}, {10}, {-10}, {}, {-1}, 5, NPU_OK, NPU_OK, {5},
         {4, 3, 2, 1, 0}, ""},
        {"end clamped, step 2", {5}, {1}, {100}, {}, {2}, 5, NPU_OK, NPU_OK, {2}, {1, 3}, ""},
        {"start clamped to 0 with steps", {5}, {-8}, {2}, {}, {1}, 5, NPU_OK, NPU_OK, {2}, {0, 1}, ""},
        // Without steps the start keeps its negative value: the shape counts
        // from it, and compute refuses to read before the data.
        {"negative start without steps", {5}, {-8}, {2}, {}, {}, 3, NPU_OK, NPU_ERR_INVALID_ARG, {5}, {}, ""},
        {"empty selection", {5}, {3}, {3}, {}, {}, 3, NPU_OK, NPU_OK, {}, {0}, ""},
        {"two axes, one reversed", {4, 6}, {1, 5}, {3, 0}, {}, {1, -2}, 5, NPU_OK, NPU_OK, {2, 3},
         {11, 9, 7, 17, 15, 13}, ""},
        {"axes -1 places on the last axis", {2, 3}, {1}, {3}, {-1}, {}, 4, NPU_OK, NPU_OK, {2, 2}, {1, 2, 4, 5}, ""},
        {"axes out of order with steps", {2, 4}, {3, 1}, {0, 2}, {1, 0}, {-2, 1}, 5, NPU_OK, NPU_OK, {1, 2},
         {7, 5}, ""},
        {"steps without axes", {2, 4}, {0}, {2}, {}, {1, 2}, 5, NPU_OK, NPU_OK, {2, 2}, {0, 2, 4, 6}, ""},
        {"axis past the rank", {2, 3}, {0}, {1}, {2}, {}, 4, kFail, kFail, {}, {}, kAxesErr},
        {"zero step", {5}, {0}, {3}, {}, {0}, 5, kFail, kFail, {}, {},
         "[E] [custom] [slice_ops_impl:L] slice steps[0]: 0 zero error \n"},
        {"more starts than the rank", {4}, {0, 0}, {1, 1}, {}, {}, 3, kFail, kFail, {}, {}, ""},
        {"fewer axes than starts", {4, 4}, {0, 0}, {1, 1}, {0}, {}, 4, kFail, kFail, {}, {}, ""},
    };
    for (const Case &k : cases) {
        SCOPED_TRACE(k.name);
        Ctx c(k.inputs, 1);
        const TensorShape ds = shape_of(k.dims);
        std::vector<float> data(GetElemSize(&ds));
        for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<float>(i);
        std::vector<int64_t> starts = k.starts, ends = k.ends, axes = k.axes, steps = k.steps;
        c.input(0, ds, data);
        const auto param = [&](uint32_t i, std::vector<int64_t> &v) {
            const uint32_t n = static_cast<uint32_t>(v.size());
            c.input(i, shape_of({n}), n > 0 ? v.data() : nullptr, n * 8, NPU_DTYPE_INT64);
        };
        param(1, starts);
        param(2, ends);
        if (k.inputs > 3) param(3, axes);
        if (k.inputs > 4) param(4, steps);

        uint32_t status = 0;
        std::string err = capture_stderr([&] { status = slice_infershape(c.h); });
        EXPECT_EQ(status, k.infer_status);
        EXPECT_EQ(mask_error_lines(err), k.err);
        if (status == NPU_OK) {
            EXPECT_EQ(dims_of(c.output_shape(0)), k.out_dims);
        }

        std::vector<float> out(8, kSentinel);
        qv_kel_custom_set_output_by_index(c.h, 0, 0, 0, status == NPU_OK ? &c.h->outputs[0].shape : &ds,
                                          out.data(), k.expected.empty() ? 4 * out.size() : 4 * k.expected.size());
        err = capture_stderr([&] { status = slice_compute(c.h); });
        EXPECT_EQ(status, k.compute_status);
        EXPECT_EQ(mask_error_lines(err), k.err == kAxesErr ? kAxesErr : "");
        std::vector<float> want = k.expected;
        want.resize(out.size(), kSentinel);
        EXPECT_EQ(out, want);
    }
}

TEST(SliceOp, InputCount) {
    for (uint32_t n : {0u, 2u}) {
        Ctx c(n, 1);
        uint32_t status = 0;
        const std::string err = capture_stderr([&] { status = slice_infershape(c.h); });
        EXPECT_EQ(status, kFail);
        EXPECT_EQ(mask_error_lines(err),
                  "[E] [custom] [slice_ops_impl:L] slice input size " + std::to_string(n) + " error  \n");
    }
}

// Parameter buffers shorter than the entries read, and null data or output
// buffers, are refused before anything is written.
TEST(SliceOp, BufferGuards) {
    struct Case {
        uint64_t data_len, starts_len, ends_len;
        bool null_out;
    } cases[] = {{16, 8, 8, true}, {12, 16, 16, false}, {16, 8, 16, false}, {16, 16, 8, false}};
    for (const Case &k : cases) {
        Ctx c(3, 1);
        std::vector<float> data = {0, 1, 2, 3};
        int64_t starts[2] = {0, 0}, ends[2] = {1, 2};
        c.input(0, shape_of({2, 2}), data.data(), k.data_len);
        c.input(1, shape_of({2}), starts, k.starts_len, NPU_DTYPE_INT64);
        c.input(2, shape_of({2}), ends, k.ends_len, NPU_DTYPE_INT64);
        std::vector<float> out(2, kSentinel);
        const TensorShape os = shape_of({1, 2});
        qv_kel_custom_set_output_by_index(c.h, 0, 0, 0, &os, k.null_out ? nullptr : out.data(), 8);
        EXPECT_EQ(slice_compute(c.h), NPU_ERR_INVALID_ARG);
        EXPECT_EQ(out, std::vector<float>(2, kSentinel));
    }
}

}  // namespace
