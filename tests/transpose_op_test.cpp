// transpose operator: default and given permutations against a reference
// permute, the permutation checks, and the buffer length check.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "npucpu.h"
#include "test_util.h"

using namespace npucpu_test;

namespace {

constexpr float kSentinel = -777.0f;

// Output element with coordinates c is the input element whose coordinate
// perm[i] is c[i]; the input holds 0, 1, 2, ...
std::vector<float> permuted_iota(const std::vector<uint32_t> &in, const std::vector<uint32_t> &perm) {
    const size_t r = in.size();
    std::vector<uint32_t> out(r), c(r, 0);
    size_t total = 1;
    for (size_t i = 0; i < r; ++i) {
        out[i] = in[perm[i]];
        total *= in[i];
    }
    std::vector<float> result;
    for (size_t n = 0; n < total; ++n) {
        std::vector<uint32_t> x(r);
        for (size_t i = 0; i < r; ++i) x[perm[i]] = c[i];
        size_t pos = 0;
        for (size_t i = 0; i < r; ++i) pos = pos * in[i] + x[i];
        result.push_back(static_cast<float>(pos));
        for (size_t i = r; i-- > 0;) {  // next output coordinate, row-major
            if (++c[i] < out[i]) break;
            c[i] = 0;
        }
    }
    return result;
}

TEST(TransposeOp, Table) {
    struct Case {
        std::vector<uint32_t> dims;
        bool has_perm;
        std::vector<int64_t> perm;
        uint32_t status;                  // of both stages
        std::vector<uint32_t> effective;  // the permutation applied
    };
    const std::vector<Case> cases = {
        {{2, 3, 4}, false, {}, NPU_OK, {2, 1, 0}},
        {{1, 2, 3}, true, {0, 2, 1}, NPU_OK, {0, 2, 1}},
        {{2, 3}, true, {1, 0}, NPU_OK, {1, 0}},
        {{5}, false, {}, NPU_OK, {0}},
        {{2, 3, 4, 5}, true, {0, 2, 3, 1}, NPU_OK, {0, 2, 3, 1}},
        {{3, 1, 2, 2}, false, {}, NPU_OK, {3, 2, 1, 0}},
        {{2, 3, 4}, true, {2}, NPU_OK, {2, 1, 0}},  // entries it lacks stay reversed
        {{2, 3}, true, {1, 0, 2}, NPU_ERR_INVALID_ARG, {}},
        {{2, 3}, true, {0, 0}, NPU_ERR_INVALID_ARG, {}},
        {{2, 3}, true, {0, 2}, NPU_ERR_INVALID_ARG, {}},
        {{2, 3}, true, {-1, 0}, NPU_ERR_INVALID_ARG, {}},
        {{2, 3, 4}, true, {1}, NPU_ERR_INVALID_ARG, {}},  // becomes 1, 1, 0
    };
    for (const Case &k : cases) {
        SCOPED_TRACE(::testing::PrintToString(k.dims) + " perm " + ::testing::PrintToString(k.perm));
        Ctx c(1, 1, k.has_perm ? 1 : 0);
        const TensorShape s = shape_of(k.dims);
        std::vector<float> data(GetElemSize(&s));
        for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<float>(i);
        c.input(0, s, data.data(), 4 * data.size(), NPU_DTYPE_FLOAT32, NPU_FORMAT_NHWC);
        if (k.has_perm) c.attr_ints(0, "perm", k.perm);

        uint32_t status = 0;
        capture_stdout([&] { status = transpose_infershape(c.h); });
        EXPECT_EQ(status, k.status);
        std::vector<float> out(data.size(), kSentinel);
        if (status != NPU_OK) {
            qv_kel_custom_set_output_by_index(c.h, 0, 0, 0, &s, out.data(), 4 * out.size());
            EXPECT_EQ(transpose_compute(c.h), k.status);
            EXPECT_EQ(out, std::vector<float>(data.size(), kSentinel));
            continue;
        }
        std::vector<uint32_t> want_dims;
        for (uint32_t p : k.effective) want_dims.push_back(k.dims[p]);
        EXPECT_EQ(dims_of(c.output_shape(0)), want_dims);
        EXPECT_EQ(c.h->outputs[0].format, static_cast<uint32_t>(NPU_FORMAT_NHWC));
        qv_kel_custom_set_output_buf_by_index(c.h, 0, out.data(), 4 * out.size());
        EXPECT_EQ(transpose_compute(c.h), NPU_OK);
        EXPECT_EQ(out, permuted_iota(k.dims, k.effective));
    }
}

// Buffers whose element counts differ, and null buffers, are refused before
// anything is written; trailing bytes do not count.
TEST(TransposeOp, LengthCheck) {
    struct Case {
        uint64_t in_len, out_len;
        bool null_in, null_out;
        uint32_t status;
    } cases[] = {
        {24, 20, false, false, NPU_ERR_INVALID_ARG}, {24, 27, false, false, NPU_OK},
        {24, 24, true, false, NPU_ERR_INVALID_ARG},  {24, 24, false, true, NPU_ERR_INVALID_ARG},
    };
    for (const Case &k : cases) {
        Ctx c(1, 1);
        std::vector<float> data = {0, 1, 2, 3, 4, 5};
        c.input(0, shape_of({2, 3}), k.null_in ? nullptr : data.data(), k.in_len);
        ASSERT_EQ(transpose_infershape(c.h), NPU_OK);
        std::vector<float> out(7, kSentinel);
        qv_kel_custom_set_output_buf_by_index(c.h, 0, k.null_out ? nullptr : out.data(), k.out_len);
        EXPECT_EQ(transpose_compute(c.h), k.status);
        std::vector<float> want(7, kSentinel);
        if (k.status == NPU_OK) want = {0, 3, 1, 4, 2, 5, kSentinel};
        EXPECT_EQ(out, want);
    }
}

}  // namespace
