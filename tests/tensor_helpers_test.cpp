// Element counts, dtype sizes, layout lookups, fills, reshape, printing and
// broadcast.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>

#include "test_util.h"

using namespace npucpu_test;

namespace {

Tensor *make_tensor(const TensorShape &s, std::vector<float> values) {
    Tensor *t = static_cast<Tensor *>(std::calloc(1, sizeof(Tensor)));
    t->shape = s;
    t->data = static_cast<float *>(std::malloc(values.size() * sizeof(float) + 1));
    std::memcpy(t->data, values.data(), values.size() * sizeof(float));
    return t;
}

TEST(TensorHelpers, CountsAndSizes) {
    // accumulate_mul is left to the kernels built on it (slice_one_axis, split).
    const TensorShape rank0{}, wrap = shape_of({65536, 65536, 3}), s = shape_of({2, 3, 4});
    const TensorShape neg = shape_of({0xFFFFFFFFu, 2});  // dims read as -1
    EXPECT_EQ(GetElemSize(&rank0), 1u);
    EXPECT_EQ(GetElemSize(&wrap), 0u);  // unsigned 32-bit wrap
    EXPECT_EQ(get_size_from_dim(&s, 1), 12);
    EXPECT_EQ(get_size_from_dim(&s, 3), 1);
    EXPECT_EQ(get_size_from_dim(&neg, 0), -2);
    const uint32_t sizes[] = {4, 8, 1, 2, 4, 8, 1, 2, 4, 8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0};
    for (uint32_t code = 0; code <= 20; ++code) EXPECT_EQ(get_dtype_size(code), sizes[code]) << code;
    EXPECT_EQ(get_dtype_size(0xFFFFFFFFu), 0u);
}

TEST(TensorHelpers, LayoutLookups) {
    TensorShape s = shape_of({1, 3, 5, 7});
    const struct { uint32_t (*fn)(const TensorShape *, uint32_t); uint32_t layout0, layout1; } cases[] = {
        {get_batch, 1, 1}, {get_channel, 3, 7}, {get_height, 5, 3}, {get_width, 7, 5}};
    for (const auto &k : cases) {
        EXPECT_EQ(k.fn(&s, 0), k.layout0);
        EXPECT_EQ(k.fn(&s, 1), k.layout1);
        uint32_t r = 1;
        const std::string err = mask_error_lines(capture_stderr([&] { r = k.fn(&s, k.fn == get_batch ? 7 : 2); }));
        // The batch is dims[0] in every layout; the others know only 0 and 1.
        EXPECT_EQ(r, k.fn == get_batch ? 1u : 0u);
        EXPECT_EQ(err, k.fn == get_batch ? "" : "[E] [custom] [common_ops:L] UnknowLayout! \n");
    }
}

TEST(TensorHelpers, FillStopsAtTheCount) {
    std::vector<uint32_t> u(5, 9);
    fill_vec_uint32(u.data(), 3, 4);
    EXPECT_EQ(u, (std::vector<uint32_t>{3, 3, 3, 3, 9}));
    std::vector<float> f(3, 9.0f);
    fill_vec_float(f.data(), -0.0f, 2);
    EXPECT_TRUE(std::signbit(f[1]));
    EXPECT_EQ(f[2], 9.0f);
}

TEST(TensorHelpers, ReshapeCopiesOrFailsAndPrint) {
    Tensor *t = make_tensor(shape_of({2, 3}), {1, 2, 3, 4, 5, 6});
    t->dtype = 4;
    const TensorShape to = shape_of({3, 2}), bad = shape_of({4, 2}), empty{};
    Tensor *r = reshape(t, 3, &to);
    ASSERT_NE(r, nullptr);
    EXPECT_NE(r->data, t->data);
    EXPECT_EQ(dims_of(r->shape), (std::vector<uint32_t>{3, 2}));
    EXPECT_EQ(r->dtype, 4u);
    EXPECT_EQ(r->format, 3u);
    EXPECT_EQ(std::vector<float>(r->data, r->data + 6), (std::vector<float>{1, 2, 3, 4, 5, 6}));
    const struct { const TensorShape *shape; const char *err; } refused[] = {
        {&bad, "Reshape to  failed! input elems:, output elems: \n"}, {&empty, "Given target shape info is empty! \n"}};
    for (const auto &c : refused) {
        Tensor *fail = r;
        EXPECT_EQ(mask_error_lines(capture_stderr([&] { fail = reshape(t, 0, c.shape); })),
                  std::string("[E] [custom] [tensor_ops:L] ") + c.err);
        EXPECT_EQ(fail, nullptr);
    }
    free_tensor(r);

    t->data[1] = -2.5f, t->data[2] = 0.125f, t->shape = shape_of({2, 2});
    EXPECT_EQ(capture_stdout([&] { print_tensor(t); }), "tensor shape: 2x2x, buf: 1.000, -2.500, 0.125, 4.000, \n");
    EXPECT_EQ(mask_error_lines(capture_stderr([] { print_tensor(nullptr); })),
              "[E] [custom] [common_ops:L] invalid param! tensor:(nil) \n");
    t->shape = shape_of({0});
    EXPECT_EQ(capture_stdout([&] { print_tensor(t); }), "tensor shape: 0x, buf: \n");

    // Freeing a list frees each node's tensor and data; null tensors are skipped.
    TensorList *tail = static_cast<TensorList *>(std::calloc(1, sizeof(TensorList)));
    TensorList *head = static_cast<TensorList *>(std::calloc(1, sizeof(TensorList)));
    head->tensor = t, head->next = tail;
    free_vec(head);
    free_vec(nullptr);
}

TEST(Broadcast, Table) {
    const struct { const char *name; std::vector<uint32_t> in_dims; std::vector<float> in; std::vector<uint32_t> out_dims;
                   std::vector<float> expect; } cases[] = {
        {"row to matrix", {3}, {1, 2, 3}, {2, 3}, {1, 2, 3, 1, 2, 3}},
        {"column to matrix", {2, 1}, {7, 8}, {2, 3}, {7, 7, 7, 8, 8, 8}},
        {"rank 0 to 2x2", {}, {5}, {2, 2}, {5, 5, 5, 5}},
        {"wrap 3 to 4", {3}, {1, 2, 3}, {4}, {1, 2, 3, 1}},
        {"rank 0 output", {3}, {9, 8, 7}, {}, {9}},
        {"identity", {2, 2}, {1, 2, 3, 4}, {2, 2}, {1, 2, 3, 4}},
        {"middle axis", {2, 1, 2}, {1, 2, 3, 4}, {2, 3, 2}, {1, 2, 1, 2, 1, 2, 3, 4, 3, 4, 3, 4}},
        // (2,3) into (2,4): the inner axis wraps modulo 3 and the row index
        // advances only when it wraps.
        {"mismatched inner dim", {2, 3}, {0, 1, 2, 3, 4, 5}, {2, 4}, {0, 1, 2, 0, 1, 2, 3, 4}},
        {"higher input rank uses last dims", {4, 1, 2}, {1, 2, 3, 4, 5, 6, 7, 8}, {3, 2}, {1, 2, 1, 2, 1, 2}},
        {"empty input reads nothing", {0}, {}, {3}, {0, 0, 0}},
    };
    for (const auto &k : cases) {
        SCOPED_TRACE(k.name);
        const TensorShape in = shape_of(k.in_dims), out = shape_of(k.out_dims);
        std::vector<float> src = k.in;
        src.push_back(-1);  // keeps data() valid for empty inputs
        float *r = broadcast(&in, 0, src.data(), &out);
        EXPECT_EQ(std::vector<float>(r, r + k.expect.size()), k.expect);
        std::free(r);
    }
}

}  // namespace
