// argmax / argmin: shape rule, tie rule, NaN, data types, guards, messages.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "npucpu.h"
#include "test_util.h"

using npucpu_test::Ctx;
using npucpu_test::shape_of;

namespace {

constexpr uint32_t kSentinel = 0xdeadbeefu;
const float kNaN = std::nanf("");

struct ArgOp {
    const char *name;
    uint32_t (*infershape)(OperatorContext *);
    uint32_t (*check_supported)(OperatorContext *);
    uint32_t (*compute)(OperatorContext *);
};
const ArgOp kMax{"argmax", argmax_infershape, argmax_check_supported, argmax_compute};
const ArgOp kMin{"argmin", argmin_infershape, argmin_check_supported, argmin_compute};

struct Attrs {
    bool has_keepdims = false;
    int64_t keepdims = 0;
    bool has_axis = false;
    int64_t axis = 0;
    bool has_select_last = false;
    int64_t select_last = 0;
};
Attrs axis_keep(int64_t axis, int64_t keepdims) { return {true, keepdims, true, axis}; }
Attrs axis_last(int64_t axis, int64_t last) { return {false, 0, true, axis, true, last}; }

struct Result {
    uint32_t infer = 0;
    uint32_t compute = 0;
    std::vector<uint32_t> shape;
    uint32_t out_dtype = 0;
    std::vector<uint32_t> out;  // the output buffer, sentinel-filled before compute
    std::string err;
};

// Runs infershape, then compute on an output buffer of `out_elems` indices
// (the inferred element count when 0) with `extra` sentinel slots behind it.
Result run(const ArgOp &op, const TensorShape &shape, void *data, uint64_t len, uint32_t dtype,
           const Attrs &at, size_t out_elems = 0, size_t extra = 2) {
    Ctx c(1, 1, 3);
    c.input(0, shape, data, len, dtype);
    uint32_t slot = 0;
    if (at.has_keepdims) c.attr_int(slot++, "keepdims", at.keepdims);
    if (at.has_axis) c.attr_int(slot++, "axis", at.axis);
    if (at.has_select_last) c.attr_int(slot++, "select_last_index", at.select_last);
    Result r;
    r.err = npucpu_test::capture_stderr([&] {
        r.infer = op.infershape(c.h);
        TensorShape s = c.output_shape(0);
        r.shape = npucpu_test::dims_of(s);
        qv_kel_custom_get_output_dtype_by_index(c.h, 0, &r.out_dtype);
        const size_t n = out_elems ? out_elems : GetElemSize(&s);
        r.out.assign(n + extra, kSentinel);
        qv_kel_custom_set_output_buf_by_index(c.h, 0, r.out.data(), n * sizeof(uint32_t));
        r.compute = op.compute(c.h);
    });
    return r;
}

Result run_f32(const ArgOp &op, const TensorShape &shape, std::vector<float> data,
               const Attrs &at, size_t out_elems = 0) {
    return run(op, shape, data.data(), data.size() * 4, NPU_DTYPE_FLOAT32, at, out_elems);
}

std::vector<uint32_t> head(const std::vector<uint32_t> &v, size_t n) {
    return std::vector<uint32_t>(v.begin(), v.begin() + n);
}

struct Case {
    const char *what;
    const ArgOp *op;
    std::vector<uint32_t> shape;
    std::vector<float> data;
    Attrs attrs;
    std::vector<uint32_t> out_shape;
    std::vector<uint32_t> want;
};

TEST(ArgMinMax, TableOfValidInputs) {
    const std::vector<float> x234 = {3, 1, 4, 1, 5, 9, 2, 6, 5, 3, 5, 8,
                                     9, 7, 9, 3, 2, 3, 8, 4, 6, 2, 6, 4};
    const std::vector<Case> cases = {
        {"first of tied maxima", &kMax, {1, 3}, {1, 5, 5}, axis_keep(1, 0), {1}, {1}},
        {"last of tied maxima", &kMax, {1, 3}, {1, 5, 5}, axis_last(1, 1), {1}, {2}},
        {"select_last_index 0 keeps the first", &kMax, {1, 3}, {1, 5, 5}, axis_last(1, 0), {1},
         {1}},
        {"first of tied minima", &kMin, {4}, {2, 0, 7, 0}, axis_keep(0, 0), {1}, {1}},
        {"last of tied minima", &kMin, {4}, {2, 0, 7, 0}, axis_last(0, 2), {1}, {3}},
        {"signed zeros tie", &kMax, {3}, {-0.0f, 0.0f, -1}, axis_last(0, 1), {1}, {1}},
        {"NaN first stays the answer", &kMax, {3}, {kNaN, 5, 7}, axis_keep(0, 0), {1}, {0}},
        {"NaN first for argmin", &kMin, {3}, {kNaN, -5, -7}, axis_keep(0, 0), {1}, {0}},
        {"NaN later is skipped", &kMax, {3}, {1, kNaN, 0}, axis_keep(0, 0), {1}, {0}},
        {"axis 0 of [2,3]: one index per column", &kMax, {2, 3}, {1, 9, 3, 4, 5, 6},
         axis_keep(0, 0), {3}, {1, 0, 1}},
        {"axis -1 keepdims 1", &kMax, {2, 3, 4}, x234, axis_keep(-1, 1), {2, 3, 1},
         {2, 1, 3, 0, 2, 0}},
        {"axis -1 keepdims 0", &kMax, {2, 3, 4}, x234, axis_keep(-1, 0), {2, 3},
         {2, 1, 3, 0, 2, 0}},
        {"keepdims 2 removes the axis", &kMin, {2, 3, 4}, x234, axis_keep(2, 2), {2, 3},
         {1, 2, 1, 3, 0, 1}},
        {"middle axis, outer major and inner minor", &kMin, {2, 3, 4}, x234, axis_keep(1, 1),
         {2, 1, 4}, {0, 0, 1, 0, 1, 2, 2, 0}},
        {"missing keepdims and axis: axis 0 removed", &kMax, {2, 2}, {1, 4, 3, 2}, Attrs{}, {2},
         {1, 0}},
        {"rank 0 with keepdims 1 gives [1]", &kMax, {}, {42}, axis_keep(0, 1), {1}, {0}},
    };
    for (const Case &tc : cases) {
        SCOPED_TRACE(tc.what);
        Result r = run_f32(*tc.op, shape_of(tc.shape), tc.data, tc.attrs);
        EXPECT_EQ(r.infer, NPU_OK);
        EXPECT_EQ(r.shape, tc.out_shape);
        EXPECT_EQ(r.out_dtype, NPU_DTYPE_INT32);
        EXPECT_EQ(r.compute, NPU_OK);
        EXPECT_EQ(r.out, [&] {
            std::vector<uint32_t> w = tc.want;
            w.push_back(kSentinel);
            w.push_back(kSentinel);
            return w;
        }());
        EXPECT_EQ(r.err, "");
    }
}

TEST(ArgMinMax, IntegerInputIsRefusedByCheckButComputed) {
    std::vector<int32_t> data = {5, -7, 2147483647, -2147483647 - 1, 3, 2147483647};
    for (const ArgOp *op : {&kMax, &kMin}) {
        SCOPED_TRACE(op->name);
        Ctx c(1, 1);
        c.input(0, shape_of({6}), data.data(), data.size() * 4, NPU_DTYPE_INT32);
        EXPECT_EQ(op->check_supported(c.h), 0u);
        Result r = run(*op, shape_of({6}), data.data(), data.size() * 4, NPU_DTYPE_INT32,
                       axis_last(0, 1));
        EXPECT_EQ(r.compute, NPU_OK);
        EXPECT_EQ(r.out[0], op == &kMax ? 5u : 3u);
    }
    std::vector<float> f = {1};
    Ctx c(1, 1);
    c.input(0, shape_of({1}), f);
    EXPECT_EQ(argmax_check_supported(c.h), 1u);
    EXPECT_EQ(argmin_check_supported(c.h), 1u);
}

TEST(ArgMinMax, AxisOutsideTheRankStaysInsideTheBuffers) {
    std::vector<float> data = {1, 2, 3, 4, 5, 6};
    // Axis == rank: every element is its own empty slice; the six indices are
    // cut to the two the output [2] holds.
    Result r = run_f32(kMax, shape_of({2, 3}), data, axis_keep(2, 0));
    EXPECT_EQ(r.infer, NPU_OK);
    EXPECT_EQ(r.shape, (std::vector<uint32_t>{2}));
    EXPECT_EQ(r.compute, NPU_OK);
    EXPECT_EQ(r.out, (std::vector<uint32_t>{0, 0, kSentinel, kSentinel}));
    // With keepdims the shape stays [2, 3] and all six are written.
    r = run_f32(kMin, shape_of({2, 3}), data, axis_keep(2, 1));
    EXPECT_EQ(r.shape, (std::vector<uint32_t>{2, 3}));
    EXPECT_EQ(head(r.out, 7), (std::vector<uint32_t>{0, 0, 0, 0, 0, 0, kSentinel}));
    // Past the rank inside the shape record: the product of dims is 0.
    r = run_f32(kMax, shape_of({2, 3}), data, axis_keep(5, 1));
    EXPECT_EQ(r.compute, NPU_OK);
    EXPECT_EQ(r.out[0], kSentinel);
    // Below -rank the axis wraps to 16 or more: nothing written, status 0.
    r = run_f32(kMax, shape_of({2, 3}), data, axis_keep(-3, 0));
    EXPECT_EQ(r.infer, NPU_OK);
    EXPECT_EQ(r.compute, NPU_OK);
    EXPECT_EQ(r.out, (std::vector<uint32_t>{kSentinel, kSentinel, kSentinel, kSentinel}));
    r = run_f32(kMin, shape_of({2, 3}), data, axis_keep(16, 0));
    EXPECT_EQ(r.compute, NPU_OK);
    EXPECT_EQ(r.out[0], kSentinel);
    // An input buffer shorter than its shape is read only as far as it goes.
    r = run(kMax, shape_of({2, 3}), data.data(), 4 * 4, NPU_DTYPE_FLOAT32, axis_keep(1, 0));
    EXPECT_EQ(r.compute, NPU_OK);
    EXPECT_EQ(head(r.out, 2), (std::vector<uint32_t>{2, 0}));
}

TEST(ArgMinMax, RefusalsAndMessages) {
    std::vector<float> data = {1, 2};
    for (const ArgOp *op : {&kMax, &kMin}) {
        SCOPED_TRACE(op->name);
        const std::string name = op->name;
        {
            Ctx c(2, 1);
            c.input(0, shape_of({2}), data);
            c.input(1, shape_of({2}), data);
            std::string err = npucpu_test::capture_stderr(
                [&] { EXPECT_EQ(op->infershape(c.h), NPU_ERR_INPUT_NUM); });
            EXPECT_EQ(npucpu_test::mask_error_lines(err),
                      "[E] [custom] [" + name + "_ops_impl:L] " + name + " only support 1 inputs \n");
        }
        // Rank 0 without keepdims 1: refused in both stages, silently.
        for (int64_t keepdims : {0, 2}) {
            Result r = run_f32(*op, shape_of({}), {7}, axis_keep(0, keepdims), 1);
            EXPECT_EQ(r.infer, NPU_ERR_INPUT_NUM);
            EXPECT_EQ(r.compute, NPU_ERR_INPUT_NUM);
            EXPECT_EQ(r.out[0], kSentinel);
            EXPECT_EQ(r.err, "");
        }
        // Data types other than float and int32, and null buffers.
        Result r = run(*op, shape_of({2}), data.data(), 8, NPU_DTYPE_UINT32, axis_keep(0, 0));
        EXPECT_EQ(r.compute, NPU_ERR_INVALID_ARG);
        EXPECT_EQ(r.out[0], kSentinel);
        r = run(*op, shape_of({2}), nullptr, 8, NPU_DTYPE_FLOAT32, axis_keep(0, 0));
        EXPECT_EQ(r.compute, NPU_ERR_INVALID_ARG);
        Ctx c(1, 1);
        c.input(0, shape_of({2}), data);
        EXPECT_EQ(op->compute(c.h), NPU_ERR_INVALID_ARG);
    }
}

TEST(ArgMinMax, OnlySelectLastIndexIsReadWhenPresentOnly) {
    // keepdims and axis are read through the getter even when absent (one log
    // line each); select_last_index is looked up first and never logs.
    std::vector<float> data = {1, 2};
    Ctx c(1, 1);
    c.input(0, shape_of({2}), data);
    std::string out = npucpu_test::capture_stdout([&] { EXPECT_EQ(argmax_infershape(c.h), 0u); });
    auto count = [](const std::string &s) {
        size_t n = 0;
        for (size_t p = s.find("attr is null"); p != std::string::npos;
             p = s.find("attr is null", p + 1))
            ++n;
        return n;
    };
    EXPECT_EQ(count(out), 2u);
    std::vector<uint32_t> idx(1, kSentinel);
    qv_kel_custom_set_output_buf_by_index(c.h, 0, idx.data(), 4);
    out = npucpu_test::capture_stdout([&] { EXPECT_EQ(argmax_compute(c.h), 0u); });
    EXPECT_EQ(count(out), 2u);
    EXPECT_EQ(idx[0], 1u);
}

TEST(ArgMinMax, ExportedKernels) {
    const float f[] = {2, 7, 7, -1, 7};
    const int32_t s[] = {2, -7, -7, 9, -7};
    EXPECT_EQ(get_max_index_f32(f, 0, 5), 1u);
    EXPECT_EQ(get_max_index_f32(f, 1, 5), 4u);
    EXPECT_EQ(get_min_index_f32(f, 1, 5), 3u);
    EXPECT_EQ(get_max_index_s32(s, 1, 5), 3u);
    EXPECT_EQ(get_min_index_s32(s, 0, 5), 1u);
    EXPECT_EQ(get_min_index_s32(s, -1, 5), 4u);
    EXPECT_EQ(get_max_index_f32(f, 0, 0), 0u);
    EXPECT_EQ(get_min_index_s32(s, 1, -3), 0u);
    // Slice walk over [2, 2, 2] along axis 1.
    const TensorShape shape = shape_of({2, 2, 2});
    const float in[] = {1, 8, 3, 4, 9, 6, 7, 6};
    const int32_t ins[] = {1, 8, 3, 4, 9, 6, 7, 6};
    uint32_t out[4] = {};
    get_max_f32(in, out, &shape, 1, 0);
    EXPECT_EQ(std::vector<uint32_t>(out, out + 4), (std::vector<uint32_t>{1, 0, 0, 0}));
    get_min_s32(ins, out, &shape, 1, 1);
    EXPECT_EQ(std::vector<uint32_t>(out, out + 4), (std::vector<uint32_t>{0, 1, 1, 1}));
    get_min_f32(in, out, &shape, 2, 0);
    EXPECT_EQ(std::vector<uint32_t>(out, out + 4), (std::vector<uint32_t>{0, 0, 1, 1}));
    get_max_s32(ins, out, &shape, 0, 0);
    EXPECT_EQ(std::vector<uint32_t>(out, out + 4), (std::vector<uint32_t>{1, 0, 1, 1}));
}

}  // namespace
