// transpose operator: permutations against a reference permute, and refusals.
#include <gtest/gtest.h>

#include "test_util.h"

using namespace npucpu_test;

namespace {

constexpr float kSentinel = -777.0f;
constexpr uint32_t OK = NPU_OK, ARG = NPU_ERR_INVALID_ARG;

// Input element p (holding p) moves to the output coordinates c with
// c[i] = x[perm[i]], x being p's input coordinates.
std::vector<float> permuted_iota(const std::vector<uint32_t> &in, const std::vector<uint32_t> &perm) {
    const size_t r = in.size(), n = count_of(in);
    std::vector<float> out(n);
    for (size_t p = 0; p < n; ++p) {
        std::vector<size_t> x(r);
        for (size_t i = r, q = p; i-- > 0; q /= in[i]) x[i] = q % in[i];
        size_t pos = 0;
        for (size_t i = 0; i < r; ++i) pos = pos * in[perm[i]] + x[perm[i]];
        out[pos] = static_cast<float>(p);
    }
    return out;
}

// `effective` is the permutation applied. `out_delta` changes the output
// buffer's length in bytes; `null` 0 or 1 makes the input or output null.
TEST(TransposeOp, Table) {
    const struct { std::vector<uint32_t> dims; bool has_perm; std::vector<int64_t> perm;
                   uint32_t infer_status, compute_status; std::vector<uint32_t> effective; int64_t out_delta = 0;
                   int null = -1; } cases[] = {
        {{2, 3, 4}, false, {}, OK, OK, {2, 1, 0}},        {{1, 2, 3}, true, {0, 2, 1}, OK, OK, {0, 2, 1}},
        {{2, 3}, true, {1, 0}, OK, OK, {1, 0}},            {{5}, false, {}, OK, OK, {0}},
        {{2, 3, 4, 5}, true, {0, 2, 3, 1}, OK, OK, {0, 2, 3, 1}}, {{3, 1, 2, 2}, false, {}, OK, OK, {3, 2, 1, 0}},
        {{2, 3, 4}, true, {2}, OK, OK, {2, 1, 0}},  // entries it lacks stay reversed
        {{2, 3}, true, {1, 0, 2}, ARG, ARG, {}},  {{2, 3}, true, {0, 0}, ARG, ARG, {}},
        {{2, 3}, true, {0, 2}, ARG, ARG, {}},     {{2, 3}, true, {-1, 0}, ARG, ARG, {}},
        {{2, 3, 4}, true, {1}, ARG, ARG, {}},  // becomes 1, 1, 0
        // Whole elements count: 3 trailing bytes do not, 4 missing ones do.
        {{2, 3}, false, {}, OK, OK, {1, 0}, 3},  {{2, 3}, false, {}, OK, ARG, {1, 0}, -4},
        {{2, 3}, false, {}, OK, ARG, {1, 0}, 0, 0}, {{2, 3}, false, {}, OK, ARG, {1, 0}, 0, 1},
    };
    for (const auto &k : cases) {
        SCOPED_TRACE("case " + std::to_string(&k - cases));
        Ctx c(1, 1, k.has_perm ? 1 : 0);
        const TensorShape s = shape_of(k.dims);
        std::vector<float> data = iota(GetElemSize(&s), 0.0f), out(data.size() + 1, kSentinel);
        c.input(0, s, k.null == 0 ? nullptr : data.data(), 4 * data.size(), NPU_DTYPE_FLOAT32, NPU_FORMAT_NHWC);
        if (k.has_perm) c.attr_ints(0, "perm", k.perm);
        uint32_t status = 0;
        capture_stdout([&] { status = transpose_infershape(c.h); });
        EXPECT_EQ(status, k.infer_status);
        std::vector<float> want(out.size(), kSentinel);
        if (status == NPU_OK) {
            std::vector<uint32_t> want_dims;
            for (uint32_t p : k.effective) want_dims.push_back(k.dims[p]);
            EXPECT_EQ(dims_of(c.output_shape(0)), want_dims);
            EXPECT_EQ(c.h->outputs[0].format, static_cast<uint32_t>(NPU_FORMAT_NHWC));
            if (k.compute_status == NPU_OK) {
                want = permuted_iota(k.dims, k.effective);
                want.push_back(kSentinel);
            }
        } else {
            qv_kel_custom_set_output_by_index(c.h, 0, 0, 0, &s, nullptr, 0);
        }
        qv_kel_custom_set_output_buf_by_index(c.h, 0, k.null == 1 ? nullptr : out.data(), 4 * data.size() + k.out_delta);
        EXPECT_EQ(transpose_compute(c.h), k.compute_status);
        EXPECT_EQ(out, want);
    }
}

}  // namespace
