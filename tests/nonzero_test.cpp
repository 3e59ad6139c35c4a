// nonzero: declared shape [r, N], coordinates packed dimension-major with
// stride c, the rest of the buffer untouched.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "npucpu.h"
#include "test_util.h"

using npucpu_test::Ctx;
using npucpu_test::shape_of;

namespace {

constexpr int64_t kSentinel = -77;

struct Case {
    const char *what;
    std::vector<uint32_t> shape;
    std::vector<float> data;  // also given as int32 when exact
    std::vector<int64_t> want;  // packed coordinates at the front
};

struct Result {
    std::vector<uint32_t> shape;
    uint32_t dtype = 0, format = 0;
    uint32_t compute = 0;
    std::vector<int64_t> out;
};

Result run(const TensorShape &shape, void *data, uint64_t len, uint32_t dtype) {
    Ctx c(1, 1);
    c.input(0, shape, data, len, dtype);
    Result r;
    EXPECT_EQ(nonzero_infershape(c.h), NPU_OK);
    TensorShape s = c.output_shape(0);
    r.shape = npucpu_test::dims_of(s);
    qv_kel_custom_get_output_dtype_by_index(c.h, 0, &r.dtype);
    qv_kel_custom_get_output_format_by_index(c.h, 0, &r.format);
    r.out.assign(GetElemSize(&s), kSentinel);
    qv_kel_custom_set_output_buf_by_index(c.h, 0, r.out.data(), r.out.size() * 8);
    r.compute = nonzero_compute(c.h);
    return r;
}

TEST(Nonzero, FloatAndIntegerInputs) {
    const float nan = std::nanf("");
    const std::vector<Case> cases = {
        {"2x2 diagonal", {2, 2}, {1, 0, 0, 2}, {0, 1, 0, 1}},
        {"all zeros", {2, 3}, {0, 0, 0, 0, 0, 0}, {}},
        {"rank 1", {4}, {0, 3, 0, -4}, {1, 3}},
        {"rank 3, row-major order", {2, 2, 2}, {0, 5, 0, 0, 6, 0, 0, 7},
         {0, 1, 1, 0, 0, 1, 1, 0, 1}},
        {"negative zero is zero, NaN is not", {3}, {-0.0f, nan, 0.0f}, {1}},
        {"rank 0", {}, {9}, {}},
    };
    for (const Case &tc : cases) {
        SCOPED_TRACE(tc.what);
        const uint32_t r = static_cast<uint32_t>(tc.shape.size());
        const uint32_t n = static_cast<uint32_t>(tc.data.size());
        std::vector<int64_t> want = tc.want;
        want.resize(static_cast<size_t>(r) * n, kSentinel);

        std::vector<float> f = tc.data;
        Result got = run(shape_of(tc.shape), f.data(), n * 4, NPU_DTYPE_FLOAT32);
        EXPECT_EQ(got.shape, (std::vector<uint32_t>{r, n}));
        EXPECT_EQ(got.dtype, NPU_DTYPE_INT64);
        EXPECT_EQ(got.format, NPU_FORMAT_MATRIX);
        EXPECT_EQ(got.compute, NPU_OK);
        EXPECT_EQ(got.out, want);

        bool integral = true;
        std::vector<int32_t> s;
        for (float v : tc.data) {
            integral = integral && v == std::trunc(v);
            s.push_back(integral ? static_cast<int32_t>(v) : 0);
        }
        if (!integral) continue;
        SCOPED_TRACE("as int32");
        got = run(shape_of(tc.shape), s.data(), n * 4, NPU_DTYPE_INT32);
        EXPECT_EQ(got.compute, NPU_OK);
        EXPECT_EQ(got.out, want);
    }
}

TEST(Nonzero, ElementCountComesFromTheBufferLength) {
    // Four elements behind a shape of two: the coordinate counter wraps round.
    std::vector<float> data = {1, 2, 3, 4};
    Result got = run(shape_of({2}), data.data(), 16, NPU_DTYPE_FLOAT32);
    EXPECT_EQ(got.shape, (std::vector<uint32_t>{1, 4}));
    EXPECT_EQ(got.out, (std::vector<int64_t>{0, 1, 0, 1}));
    // A trailing partial element is not counted.
    got = run(shape_of({2}), data.data(), 7, NPU_DTYPE_FLOAT32);
    EXPECT_EQ(got.shape, (std::vector<uint32_t>{1, 1}));
    EXPECT_EQ(got.out, (std::vector<int64_t>{0}));
}

TEST(Nonzero, OtherDataTypesAndMessages) {
    std::vector<float> data = {1, 2};
    {
        Ctx c(1, 1);
        c.input(0, shape_of({2}), data.data(), 8, NPU_DTYPE_UINT32);
        EXPECT_EQ(nonzero_check_supported(c.h), 0u);
        EXPECT_EQ(nonzero_infershape(c.h), NPU_OK);
        EXPECT_EQ(npucpu_test::dims_of(c.output_shape(0)), (std::vector<uint32_t>{1, 0}));
        std::vector<int64_t> out(2, kSentinel);
        qv_kel_custom_set_output_buf_by_index(c.h, 0, out.data(), 16);
        EXPECT_EQ(nonzero_compute(c.h), NPU_OK);
        EXPECT_EQ(out, (std::vector<int64_t>{kSentinel, kSentinel}));
    }
    {
        Ctx c(1, 1);
        c.input(0, shape_of({2}), data.data(), 8, NPU_DTYPE_INT32);
        EXPECT_EQ(nonzero_check_supported(c.h), 1u);
        // No output buffer: nothing is written, the status stays 0.
        EXPECT_EQ(nonzero_compute(c.h), NPU_OK);
    }
    {
        Ctx c(2, 1);
        std::string err = npucpu_test::capture_stderr(
            [&] { EXPECT_EQ(nonzero_infershape(c.h), NPU_ERR_INPUT_NUM); });
        EXPECT_EQ(npucpu_test::mask_error_lines(err),
                  "[E] [custom] [nonzero_ops_impl:L] nonzero only support 1 inputs \n");
    }
}

}  // namespace
