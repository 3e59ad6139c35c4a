// Per-index getters and setters: range checks, strides, batches, output names.
#include <gtest/gtest.h>

#include "test_util.h"

using namespace npucpu_test;

namespace {

uint64_t widen(uint32_t status) { return status; }
uint64_t widen(const void *p) { return reinterpret_cast<uintptr_t>(p); }

// Every by-index accessor refuses a null handle and an index equal to the
// count, logging in its own name, with 0xa0808003 (or null: `fail` 0).
TEST(Accessors, NullHandleAndIndexOutOfRange) {
    Ctx c(1, 1);
    TensorShape s{};
    uint32_t u32 = 0;
    uint64_t u64 = 0;
    char name[8];
    int d = 0;
    const uint64_t A = NPU_ERR_INVALID_ARG;
    struct Case { const char *func; std::function<uint64_t(OperatorContext *, uint32_t)> call; uint64_t fail; };
#define ACC(fn, args, fail) Case{"qv_kel_custom_" #fn, [&](OperatorContext *h, uint32_t i) { return widen(qv_kel_custom_##fn args); }, fail}
    const Case cases[] = {
        ACC(get_input_shape_by_index, (h, i, &s), A),     ACC(get_output_shape_by_index, (h, i, &s), A),
        ACC(get_input_dtype_by_index, (h, i, &u32), A),   ACC(get_output_dtype_by_index, (h, i, &u32), A),
        ACC(get_input_format_by_index, (h, i, &u32), A),  ACC(get_output_format_by_index, (h, i, &u32), A),
        ACC(get_input_buf_by_index, (h, i), 0),           ACC(get_output_buf_by_index, (h, i), 0),
        ACC(get_input_buf_len_by_index, (h, i, &u64), A), ACC(get_output_buf_len_by_index, (h, i, &u64), A),
        ACC(set_input_buf_by_index, (h, i, &d, 4), A),    ACC(set_output_buf_by_index, (h, i, &d, 4), A),
        ACC(set_input_first_batch_buf_by_index, (h, i, &d, 4), A), ACC(set_output_first_batch_buf_by_index, (h, i, &d, 4), A),
        ACC(get_input_batch_buf_by_index, (h, i, 0), 0),  ACC(get_output_batch_buf_by_index, (h, i, 0), 0),
        ACC(set_input_wstride_by_index, (h, i, 16), A),   ACC(get_input_wstride_by_index, (h, i, &u32), A),
        ACC(set_output_wstride_by_index, (h, i, 16), A),  ACC(get_output_wstride_by_index, (h, i, &u32), A),
        ACC(set_output_shape_by_index, (h, i, &s), A),    ACC(set_output_dtype_by_index, (h, i, 0), A),
        ACC(set_output_format_by_index, (h, i, 0), A),    ACC(set_output_name_by_index, (h, i, "x"), A),
        ACC(get_output_name_by_index, (h, i, name, sizeof name), A),
    };
#undef ACC
    for (const Case &k : cases) {
        SCOPED_TRACE(k.func);
        uint64_t r = 0;
        std::string out = capture_stdout([&] { r = k.call(nullptr, 0); });
        EXPECT_EQ(r, k.fail);
        EXPECT_EQ(mask_log_lines(out), std::string("T Err   ") + k.func + ":L handle is null\n");
        out = capture_stdout([&] { r = k.call(c.h, 1); });
        EXPECT_EQ(r, k.fail);
        EXPECT_EQ(mask_log_lines(out), std::string("T Err   ") + k.func + ":L idx [1] is out of range, total tensor num [1]\n");
    }
    for (auto *fn : {qv_kel_custom_get_input_num, qv_kel_custom_get_output_num}) {
        std::string out = capture_stdout([&] { EXPECT_EQ(fn(nullptr, &u32), NPU_ERR_INVALID_ARG); });
        EXPECT_NE(out.find("handle is null"), std::string::npos);
    }
}

TEST(Accessors, GetShapeCopiesOnlyTheUsedDims) {
    Ctx c(1, 0);
    float buf[6];
    c.input(0, shape_of({2, 3}), buf, sizeof buf);
    TensorShape s = shape_of({9, 9, 9, 9});
    ASSERT_EQ(qv_kel_custom_get_input_shape_by_index(c.h, 0, &s), NPU_OK);
    EXPECT_EQ(dims_of(s), (std::vector<uint32_t>{2, 3}));
    EXPECT_EQ(s.dims[2], 9u);
}

// Output width stride: last dim times the row unit of the data type, 0 from
// code 14 on, recomputed by the shape and dtype setters unless fixed; an
// input stride set by the host is fixed.
TEST(Accessors, WidthStrides) {
    const uint32_t wstride_of_7[] = {28, 56, 7, 14, 28, 56, 7, 14, 28, 56, 0, 0, 0, 7, 0};  // dtypes 0..14
    for (uint32_t dtype : {0u, 1u, 2u, 3u, 4u, 5u, 6u, 7u, 8u, 9u, 10u, 11u, 12u, 13u, 14u, 19u, 1000u}) {
        Ctx c(0, 1);
        TensorShape s = shape_of({3, 7});
        qv_kel_custom_set_output_dtype_by_index(c.h, 0, dtype);
        ASSERT_EQ(qv_kel_custom_set_output_shape_by_index(c.h, 0, &s), NPU_OK);
        uint32_t w = 1234;
        qv_kel_custom_get_output_wstride_by_index(c.h, 0, &w);
        EXPECT_EQ(w, dtype < 15 ? wstride_of_7[dtype] : 0u) << "dtype " << dtype;
    }
    Ctx c(1, 1);
    TensorShape s = shape_of({2, 7}), empty{};
    qv_kel_custom_set_output_shape_by_index(c.h, 0, &s);
    EXPECT_EQ(c.h->outputs[0].wstride, 28u);
    qv_kel_custom_set_output_dtype_by_index(c.h, 0, NPU_DTYPE_INT8);
    EXPECT_EQ(c.h->outputs[0].wstride, 7u);
    qv_kel_custom_set_output_wstride_by_index(c.h, 0, 64);  // a host-set output stride is not protected
    qv_kel_custom_set_output_dtype_by_index(c.h, 0, NPU_DTYPE_FLOAT32);
    EXPECT_EQ(c.h->outputs[0].wstride, 28u);
    qv_kel_custom_set_output_shape_by_index(c.h, 0, &empty);
    EXPECT_EQ(c.h->outputs[0].wstride, 0u);
    uint32_t w = 0;
    ASSERT_EQ(qv_kel_custom_set_input_wstride_by_index(c.h, 0, 48), NPU_OK);
    EXPECT_EQ(c.h->inputs[0].wstride_fixed, 1u);
    qv_kel_custom_get_input_wstride_by_index(c.h, 0, &w);
    EXPECT_EQ(w, 48u);
}

TEST(Accessors, BatchBuffers) {
    Ctx c(2, 1);
    char in[64], out[64];
    TensorShape s = shape_of({4});
    qv_kel_custom_set_input_by_index(c.h, 0, 0, 0, &s, in, 16, 0);
    qv_kel_custom_set_input_by_index(c.h, 1, 0, 0, &s, in, 16, 1);
    EXPECT_EQ(qv_kel_custom_get_input_batch_buf_by_index(c.h, 0, 3), in);
    EXPECT_EQ(qv_kel_custom_get_input_batch_buf_by_index(c.h, 1, 3), in + 48);
    qv_kel_custom_set_output_first_batch_buf_by_index(c.h, 0, out, 16);
    EXPECT_EQ(qv_kel_custom_get_output_batch_buf_by_index(c.h, 0, 2), out + 32);
    EXPECT_EQ(qv_kel_custom_get_output_buf_by_index(c.h, 0), nullptr);  // buf not touched
    qv_kel_custom_set_input_buf_by_index(c.h, 1, out, 8);
    EXPECT_EQ(qv_kel_custom_get_input_batch_buf_by_index(c.h, 1, 1), in + 8);  // first batch kept
}

TEST(Accessors, OutputNames) {
    Ctx c(0, 1);
    ASSERT_EQ(qv_kel_custom_set_output_name_by_index(c.h, 0, "boxes"), NPU_OK);
    char dst[6] = {'?', '?', '?', '?', '?', '?'};
    std::string out = capture_stdout([&] { EXPECT_EQ(qv_kel_custom_get_output_name_by_index(c.h, 0, dst, 5), NPU_FAIL); });
    EXPECT_EQ(mask_log_lines(out), "T Err   qv_kel_custom_get_output_name_by_index:L the length of output_name [6] is bigger than name_len [5]\n");
    EXPECT_EQ(dst[0], '?');
    ASSERT_EQ(qv_kel_custom_get_output_name_by_index(c.h, 0, dst, 6), NPU_OK);
    EXPECT_STREQ(dst, "boxes");
    out = capture_stdout([&] { EXPECT_EQ(qv_kel_custom_set_output_name_by_index(c.h, 0, nullptr), NPU_FAIL); });
    EXPECT_EQ(mask_log_lines(out), "T Err   qv_kel_custom_set_output_name_by_index:L copy name failed\n");
}

}  // namespace
