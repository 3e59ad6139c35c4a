// slice operator: normalised parameters, axes, steps, refusals of both stages.
#include <gtest/gtest.h>

#include "test_util.h"

using namespace npucpu_test;

namespace {

constexpr float kSentinel = -777.0f;
constexpr uint32_t kFail = 0xFFFFFFFFu, OK = NPU_OK, ARG = NPU_ERR_INVALID_ARG;
const std::string kAxesErr = "[E] [custom] [slice_ops_impl:L] slice param axes[0]:2 out of range, range:[0-1]  \n";

// Data holds 0, 1, 2, ...; input 3 (axes) has a null buffer when `axes` is
// empty. `cut`: 0 the data buffer 4 bytes short, 1 or 2 the starts or ends
// buffer one entry short, 3 a null output. An empty `expected` means the
// output is untouched; `err` is infershape's, compute prints nothing more.
TEST(SliceOp, Table) {
    const struct { const char *name; std::vector<uint32_t> dims; std::vector<int64_t> starts, ends, axes, steps;
                   uint32_t inputs, infer_status, compute_status; std::vector<uint32_t> out_dims;
                   std::vector<float> expected; std::string err = ""; int cut = -1; } cases[] = {
        {"negative start", {10}, {-3}, {10}, {}, {}, 3, OK, OK, {3}, {7, 8, 9}},
        {"reverse with end below the axis", {5}, {4}, {-6}, {}, {-1}, 5, OK, OK, {5}, {4, 3, 2, 1, 0}},
        {"start past the axis with a negative step", {5}, {10}, {-10}, {}, {-1}, 5, OK, OK, {5}, {4, 3, 2, 1, 0}},
        {"end clamped, step 2", {5}, {1}, {100}, {}, {2}, 5, OK, OK, {2}, {1, 3}},
        {"start clamped to 0 with steps", {5}, {-8}, {2}, {}, {1}, 5, OK, OK, {2}, {0, 1}},
        // Without steps the start keeps its negative value: the shape counts
        // from it, and compute refuses to read before the data.
        {"negative start without steps", {5}, {-8}, {2}, {}, {}, 3, OK, ARG, {5}, {}},
        {"empty selection", {5}, {3}, {3}, {}, {}, 3, OK, OK, {}, {0}},
        {"two axes, one reversed", {4, 6}, {1, 5}, {3, 0}, {}, {1, -2}, 5, OK, OK, {2, 3}, {11, 9, 7, 17, 15, 13}},
        {"axes -1 places on the last axis", {2, 3}, {1}, {3}, {-1}, {}, 4, OK, OK, {2, 2}, {1, 2, 4, 5}},
        {"axes out of order with steps", {2, 4}, {3, 1}, {0, 2}, {1, 0}, {-2, 1}, 5, OK, OK, {1, 2}, {7, 5}},
        {"steps without axes", {2, 4}, {0}, {2}, {}, {1, 2}, 5, OK, OK, {2, 2}, {0, 2, 4, 6}},
        {"axis past the rank", {2, 3}, {0}, {1}, {2}, {}, 4, kFail, kFail, {}, {}, kAxesErr},
        {"zero step", {5}, {0}, {3}, {}, {0}, 5, kFail, kFail, {}, {}, "[E] [custom] [slice_ops_impl:L] slice steps[0]: 0 zero error \n"},
        {"more starts than the rank", {4}, {0, 0}, {1, 1}, {}, {}, 3, kFail, kFail, {}, {}},
        {"fewer axes than starts", {4, 4}, {0, 0}, {1, 1}, {0}, {}, 4, kFail, kFail, {}, {}},
        {"short data", {2, 2}, {0, 0}, {1, 2}, {}, {}, 3, OK, ARG, {1, 2}, {}, "", 0},
        {"short starts", {2, 2}, {0, 0}, {1, 2}, {}, {}, 3, ARG, ARG, {}, {}, "", 1},
        {"short ends", {2, 2}, {0, 0}, {1, 2}, {}, {}, 3, ARG, ARG, {}, {}, "", 2},
        {"null output", {2, 2}, {0, 0}, {1, 2}, {}, {}, 3, OK, ARG, {1, 2}, {}, "", 3},
    };
    for (const auto &k : cases) {
        SCOPED_TRACE(k.name);
        Ctx c(k.inputs, 1);
        const TensorShape ds = shape_of(k.dims);
        std::vector<float> data = iota(GetElemSize(&ds), 0.0f);
        std::vector<int64_t> params[] = {k.starts, k.ends, k.axes, k.steps};
        c.input(0, ds, data.data(), 4 * data.size() - (k.cut == 0 ? 4 : 0));
        for (uint32_t i = 1; i < k.inputs; ++i) {
            std::vector<int64_t> &v = params[i - 1];
            const uint32_t n = static_cast<uint32_t>(v.size());
            c.input(i, shape_of({n}), n > 0 ? v.data() : nullptr, 8 * n - (k.cut == int(i) ? 8 : 0), NPU_DTYPE_INT64);
        }
        uint32_t status = 0;
        std::string err = capture_stderr([&] { status = slice_infershape(c.h); });
        EXPECT_EQ(status, k.infer_status);
        EXPECT_EQ(mask_error_lines(err), k.err);
        EXPECT_EQ(dims_of(c.output_shape(0)), k.out_dims);

        std::vector<float> out(8, kSentinel), want = k.expected;
        qv_kel_custom_set_output_by_index(c.h, 0, 0, 0, status == NPU_OK ? &c.h->outputs[0].shape : &ds,
                                          k.cut == 3 ? nullptr : out.data(), 4 * (want.empty() ? out.size() : want.size()));
        err = capture_stderr([&] { status = slice_compute(c.h); });
        EXPECT_EQ(status, k.compute_status);
        EXPECT_EQ(mask_error_lines(err), k.err == kAxesErr ? kAxesErr : "");
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
        EXPECT_EQ(mask_error_lines(err), "[E] [custom] [slice_ops_impl:L] slice input size " + std::to_string(n) + " error  \n");
    }
}

}  // namespace
