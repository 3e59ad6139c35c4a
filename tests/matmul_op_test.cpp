// matmul operator: the shape rule with vector dims removed and batch dims
// taken from the longer operand, the integer-truncating product, and the
// refusal of batches that do not match the kernel's.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "npucpu.h"
#include "test_util.h"

using namespace npucpu_test;

namespace {

constexpr float kSentinel = -777.0f;

TEST(MatmulOp, ShapeRule) {
    const std::string mismatch = "[E] [custom] [matmul_ops_impl:L] left shape  not match right shape \n";
    const struct {
        std::vector<uint32_t> a, b;
        uint32_t status;
        std::vector<uint32_t> out;
        std::string err;
    } cases[] = {
        {{2, 3}, {3, 4}, NPU_OK, {2, 4}, ""},
        {{3}, {3, 4}, NPU_OK, {4}, ""},
        {{2, 3}, {3}, NPU_OK, {2}, ""},
        {{3}, {3}, NPU_OK, {1}, ""},
        {{5, 2, 3}, {3, 4}, NPU_OK, {5, 2, 4}, ""},
        {{2, 3}, {5, 3, 4}, NPU_OK, {5, 2, 4}, ""},
        {{3}, {5, 3, 4}, NPU_OK, {5, 4}, ""},
        {{5, 2, 3}, {3}, NPU_OK, {5, 2}, ""},
        {{6, 1, 2, 3}, {3, 4}, NPU_OK, {6, 1, 2, 4}, ""},
        {{7, 2, 3}, {5, 3, 4}, NPU_OK, {5, 2, 4}, ""},     // equal ranks: B's batch dims
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
        const std::string err = capture_stderr([&] { status = matmul_infershape(c.h); });
        EXPECT_EQ(status, k.status);
        EXPECT_EQ(mask_error_lines(err), k.err);
        if (k.status != NPU_OK) continue;
        EXPECT_EQ(dims_of(c.output_shape(0)), k.out);
        EXPECT_EQ(c.h->outputs[0].dtype, static_cast<uint32_t>(NPU_DTYPE_INT32));
        EXPECT_EQ(c.h->outputs[0].format, static_cast<uint32_t>(NPU_FORMAT_NHWC));
    }
}

TEST(MatmulOp, InputCount) {
    for (uint32_t n : {1u, 3u}) {
        Ctx c(n, 1);
        float buf[1] = {};
        for (uint32_t i = 0; i < n; ++i) c.input(i, shape_of({1, 1}), buf, 4);
        uint32_t status = 0;
        const std::string err = capture_stderr([&] { status = matmul_infershape(c.h); });
        EXPECT_EQ(status, NPU_ERR_INPUT_NUM);
        EXPECT_EQ(mask_error_lines(err), "[E] [custom] [matmul_ops_impl:L] matmul only support 2 inputs \n");
    }
}

TEST(MatmulOp, Product) {
    const struct {
        const char *name;
        std::vector<uint32_t> a_dims;
        std::vector<float> a;
        std::vector<uint32_t> b_dims;
        std::vector<float> b;
        std::vector<float> want;
    } cases[] = {
        {"truncated", {1, 2}, {1.5f, 2.5f}, {2, 1}, {2.0f, 2.0f}, {6.0f}},  // not 8
        {"toward zero", {1, 2}, {-1.9f, 3.7f}, {2, 1}, {2.9f, 1.0f}, {1.0f}},  // -1*2 + 3*1
        {"vector x matrix", {3}, {1, 2, 3}, {3, 2}, {1, 2, 3, 4, 5, 6}, {22, 28}},
        {"matrix x vector", {2, 3}, {1, 2, 3, 4, 5, 6}, {3}, {1, 1, 1}, {6, 15}},
        {"batched A, shared B", {2, 1, 2}, {1, 2, 3, 4}, {2, 2}, {1, 0, 0, 1}, {1, 2, 3, 4}},
        {"shared A, batched B", {1, 2}, {1, 2}, {2, 2, 1}, {1, 1, 2, 3}, {3, 8}},
        {"both batched", {2, 1, 2}, {1, 2, 3, 4}, {2, 2, 1}, {5, 6, 7, 8}, {17, 53}},
        {"vector x batched", {2}, {1, 2}, {3, 2, 1}, {1, 1, 2, 2, 3, 3}, {3, 6, 9}},
        {"wraps", {1, 2}, {65536, 1}, {2, 1}, {65536, 5}, {5}},  // 2^32 wraps to 0
        {"saturates", {1, 1}, {3e9f}, {1, 1}, {1}, {2147483648.0f}},
        {"empty K", {2, 0}, {0}, {0, 2}, {0}, {0, 0, 0, 0}},
    };
    for (const auto &k : cases) {
        SCOPED_TRACE(k.name);
        Ctx c(2, 1);
        std::vector<float> a = k.a, b = k.b;
        c.input(0, shape_of(k.a_dims), a);
        c.input(1, shape_of(k.b_dims), b);
        ASSERT_EQ(matmul_infershape(c.h), NPU_OK);
        std::vector<float> &out = c.alloc_output(0, kSentinel);
        EXPECT_EQ(matmul_compute(c.h), NPU_OK);
        EXPECT_EQ(out, k.want);
    }
}

// Compute on what a host following the protocol never passes.
TEST(MatmulOp, ComputeOutsideTheProtocol) {
    const std::vector<float> untouched(8, kSentinel);
    const struct {
        const char *name;
        std::vector<uint32_t> a_dims, b_dims;
        bool null_a, null_b, null_out;
        uint64_t a_len, out_len;  // bytes; 0: as the data
        uint32_t status;
        std::vector<float> want;  // the whole 8-element output buffer
    } cases[] = {
        // Three batches of A against two of B: B would be read past its end.
        {"batch mismatch", {3, 2, 2}, {2, 2, 2}, false, false, false, 0, 0, NPU_ERR_INVALID_ARG, untouched},
        // A of rank 2 is shared by every batch, whatever their number.
        {"shared A, B of rank 4", {2, 2}, {2, 1, 2, 2}, false, false, false, 0, 0, NPU_OK, {1, 2, 3, 4, 1, 2, 3, 4}},
        {"vector A, empty batch", {2}, {0, 2, 3}, false, false, false, 0, 0, NPU_ERR_INVALID_ARG, untouched},
        {"null A", {2, 2}, {2, 2}, true, false, false, 0, 0, NPU_ERR_INVALID_ARG, untouched},
        {"null B", {2, 2}, {2, 2}, false, true, false, 0, 0, NPU_ERR_INVALID_ARG, untouched},
        {"null output", {2, 2}, {2, 2}, false, false, true, 0, 0, NPU_ERR_INVALID_ARG, untouched},
        {"short A", {2, 2}, {2, 2}, false, false, false, 12, 0, NPU_ERR_INVALID_ARG, untouched},
        // Only the bytes the buffer declares are cleared and written.
        {"short output", {2, 2}, {2, 2}, false, false, false, 0, 12, NPU_OK,
         {1, 2, 3, kSentinel, kSentinel, kSentinel, kSentinel, kSentinel}},
    };
    for (const auto &k : cases) {
        SCOPED_TRACE(k.name);
        Ctx c(2, 1);
        std::vector<float> a(16), b(16);
        for (size_t i = 0; i < a.size(); ++i) a[i] = static_cast<float>(i + 1);
        // B is the identity matrix of each batch where it is 2x2.
        for (size_t t = 0; t < 4; ++t) b[4 * t] = b[4 * t + 3] = 1;
        const TensorShape as = shape_of(k.a_dims), bs = shape_of(k.b_dims);
        c.input(0, as, k.null_a ? nullptr : a.data(), k.a_len ? k.a_len : 4 * GetElemSize(&as));
        c.input(1, bs, k.null_b ? nullptr : b.data(), 4 * GetElemSize(&bs));
        ASSERT_EQ(matmul_infershape(c.h), NPU_OK);
        std::vector<float> out(8, kSentinel);
        const TensorShape ys = c.output_shape(0);
        qv_kel_custom_set_output_buf_by_index(c.h, 0, k.null_out ? nullptr : out.data(),
                                              k.out_len ? k.out_len : 4 * GetElemSize(&ys));
        EXPECT_EQ(matmul_compute(c.h), k.status);
        EXPECT_EQ(out, k.want);
    }
}

}  // namespace
