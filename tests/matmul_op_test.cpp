// matmul operator: the shape rule (vector dims removed, batch dims from the
// longer operand), the wiring of operands into the kernel, and the guards.
// The kernel's arithmetic is covered in matrix_kernels_test.
#include <gtest/gtest.h>

#include "test_util.h"

using namespace npucpu_test;

namespace {

using Dims = std::vector<uint32_t>;
using Floats = std::vector<float>;
constexpr float S = -777.0f;  // sentinel

TEST(MatmulOp, ShapeRule) {
    const std::string mismatch = "[E] [custom] [matmul_ops_impl:L] left shape  not match right shape \n";
    const struct { Dims a, b; uint32_t status; Dims out; std::string err; } cases[] = {
        {{2, 3}, {3, 4}, NPU_OK, {2, 4}, ""},
        {{3}, {3, 4}, NPU_OK, {4}, ""},
        {{2, 3}, {3}, NPU_OK, {2}, ""},
        {{3}, {3}, NPU_OK, {1}, ""},
        {{5, 2, 3}, {3, 4}, NPU_OK, {5, 2, 4}, ""},
        {{2, 3}, {5, 3, 4}, NPU_OK, {5, 2, 4}, ""},
        {{3}, {5, 3, 4}, NPU_OK, {5, 4}, ""},
        {{5, 2, 3}, {3}, NPU_OK, {5, 2}, ""},
        {{6, 1, 2, 3}, {3, 4}, NPU_OK, {6, 1, 2, 4}, ""},
        {{7, 2, 3}, {5, 3, 4}, NPU_OK, {5, 2, 4}, ""},        // equal ranks: B's batch dims
        {{7, 1, 2, 3}, {5, 3, 4}, NPU_OK, {7, 1, 2, 4}, ""},  // longer A: A's
        {{2, 3}, {4, 5}, NPU_ERR_INVALID_ARG, {}, mismatch},
        {{2, 3}, {4}, NPU_ERR_INVALID_ARG, {}, mismatch},
        {{5, 2, 3}, {5, 4, 3}, NPU_ERR_INVALID_ARG, {}, mismatch},
        {{}, {3}, NPU_ERR_INVALID_ARG, {}, ""},  // a rank-0 A has no last dim
    };
    for (const auto &k : cases) {
        SCOPED_TRACE(::testing::PrintToString(k.a) + " x " + ::testing::PrintToString(k.b));
        Ctx c(2, 1);
        float buf[1] = {};
        c.input(0, shape_of(k.a), buf, 4, NPU_DTYPE_INT32, NPU_FORMAT_NHWC);
        c.input(1, shape_of(k.b), buf, 4);
        uint32_t status = 0;
        EXPECT_EQ(mask_error_lines(capture_stderr([&] { status = matmul_infershape(c.h); })), k.err);
        EXPECT_EQ(status, k.status);
        if (k.status != NPU_OK) continue;
        EXPECT_EQ(dims_of(c.output_shape(0)), k.out);
        EXPECT_EQ(c.h->outputs[0].dtype, static_cast<uint32_t>(NPU_DTYPE_INT32));
        EXPECT_EQ(c.h->outputs[0].format, static_cast<uint32_t>(NPU_FORMAT_NHWC));
    }
    for (uint32_t n : {1u, 3u}) {
        Ctx c(n, 1);
        float buf[1] = {};
        for (uint32_t i = 0; i < n; ++i) c.input(i, shape_of({1, 1}), buf, 4);
        uint32_t status = 0;
        EXPECT_EQ(mask_error_lines(capture_stderr([&] { status = matmul_infershape(c.h); })),
                  "[E] [custom] [matmul_ops_impl:L] matmul only support 2 inputs \n");
        EXPECT_EQ(status, NPU_ERR_INPUT_NUM);
    }
}

// B is the identity of each batch where it is 2x2; the output buffer holds 8.
TEST(MatmulOp, Compute) {
    const Floats untouched(8, S);
    // a, b empty: 1, 2, 3, ... and the identities; lengths in bytes, 0: as the shape; want: the output's
    // elements, followed by sentinels up to 8.
    const struct { const char *name; Dims a_dims, b_dims; Floats a, b; bool null_a, null_b, null_out;
                   uint64_t a_len, out_len; uint32_t status; Floats want; } cases[] = {
        {"vector x matrix", {3}, {3, 2}, {1, 2, 3}, iota(6), 0, 0, 0, 0, 0, NPU_OK, {22, 28}},
        {"matrix x vector", {2, 3}, {3}, iota(6), {1, 1, 1}, 0, 0, 0, 0, 0, NPU_OK, {6, 15}},
        {"vector x batched", {2}, {3, 2, 1}, {1, 2}, {1, 1, 2, 2, 3, 3}, 0, 0, 0, 0, 0, NPU_OK, {3, 6, 9}},
        {"batched A, shared B", {2, 1, 2}, {2, 2}, iota(4), {1, 0, 0, 1}, 0, 0, 0, 0, 0, NPU_OK, {1, 2, 3, 4}},
        {"both batched", {2, 1, 2}, {2, 2, 1}, iota(4), {5, 6, 7, 8}, 0, 0, 0, 0, 0, NPU_OK, {17, 53}},
        {"empty K", {2, 0}, {0, 2}, {0}, {0}, 0, 0, 0, 0, 0, NPU_OK, {0, 0, 0, 0}},
        // A of rank 2 is shared by every batch, whatever their number.
        {"shared A, B of rank 4", {2, 2}, {2, 1, 2, 2}, {}, {}, 0, 0, 0, 0, 0, NPU_OK, {1, 2, 3, 4, 1, 2, 3, 4}},
        // Three batches of A against two of B: B would be read past its end.
        {"batch mismatch", {3, 2, 2}, {2, 2, 2}, {}, {}, 0, 0, 0, 0, 0, NPU_ERR_INVALID_ARG, {}},
        {"vector A, empty batch", {2}, {0, 2, 3}, {}, {}, 0, 0, 0, 0, 0, NPU_ERR_INVALID_ARG, {}},
        {"null A", {2, 2}, {2, 2}, {}, {}, 1, 0, 0, 0, 0, NPU_ERR_INVALID_ARG, {}},
        {"null B", {2, 2}, {2, 2}, {}, {}, 0, 1, 0, 0, 0, NPU_ERR_INVALID_ARG, {}},
        {"null output", {2, 2}, {2, 2}, {}, {}, 0, 0, 1, 0, 0, NPU_ERR_INVALID_ARG, {}},
        {"short A", {2, 2}, {2, 2}, {}, {}, 0, 0, 0, 12, 0, NPU_ERR_INVALID_ARG, {}},
        // Only the bytes the buffer declares are cleared and written.
        {"short output", {2, 2}, {2, 2}, {}, {}, 0, 0, 0, 0, 12, NPU_OK, {1, 2, 3}},
    };
    for (const auto &k : cases) {
        SCOPED_TRACE(k.name);
        Floats a = k.a.empty() ? iota(16) : k.a, b = k.b, out(8, S), want = k.want;
        if (b.empty()) {
            b.assign(16, 0.0f);
            for (size_t t = 0; t < 4; ++t) b[4 * t] = b[4 * t + 3] = 1;
        }
        Ctx c(2, 1);
        const TensorShape as = shape_of(k.a_dims), bs = shape_of(k.b_dims);
        c.input(0, as, k.null_a ? nullptr : a.data(), k.a_len ? k.a_len : 4 * GetElemSize(&as));
        c.input(1, bs, k.null_b ? nullptr : b.data(), 4 * GetElemSize(&bs));
        ASSERT_EQ(matmul_infershape(c.h), NPU_OK);
        const TensorShape ys = c.output_shape(0);
        if (k.status == NPU_OK && !k.out_len) {
            ASSERT_EQ(GetElemSize(&ys), k.want.size());
        }
        qv_kel_custom_set_output_buf_by_index(c.h, 0, k.null_out ? nullptr : out.data(),
                                              k.out_len ? k.out_len : 4 * GetElemSize(&ys));
        EXPECT_EQ(matmul_compute(c.h), k.status);
        want.resize(8, S);
        EXPECT_EQ(out, want);
    }
}

}  // namespace
