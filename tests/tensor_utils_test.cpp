// gather, slice, slice_one_axis and Transpose on internal Tensor records.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "npucpu.h"
#include "test_util.h"

namespace {

using npucpu_test::capture_stderr;
using npucpu_test::count_of;
using npucpu_test::mask_error_lines;
using npucpu_test::shape_of;

constexpr float kSentinel = -777.0f;

// A Tensor record borrowing `data` (raw bytes for index tensors).
Tensor view(const std::vector<uint32_t> &dims, void *data, uint32_t dtype = NPU_DTYPE_FLOAT32) {
    Tensor t{};
    t.shape = shape_of(dims);
    t.dtype = dtype;
    t.data = static_cast<float *>(data);
    return t;
}

// 0, 1, 2, ...
std::vector<float> iota(size_t n) { return npucpu_test::iota(n, 0.0f); }

// ---- Transpose -------------------------------------------------------------

TEST(Transpose, Table) {
    const struct {
        const char *name;
        std::vector<uint32_t> in_dims;
        std::vector<uint32_t> perm;
        std::vector<uint32_t> out_dims;
        uint32_t status;
        std::vector<float> expected;  // empty: output untouched
    } cases[] = {
        {"identity copies", {2, 3}, {0, 1}, {2, 3}, NPU_OK, {0, 1, 2, 3, 4, 5}},
        {"matrix", {2, 3}, {1, 0}, {3, 2}, NPU_OK, {0, 3, 1, 4, 2, 5}},
        {"last two axes", {1, 1, 2, 3}, {0, 1, 3, 2}, {1, 1, 3, 2}, NPU_OK, {0, 3, 1, 4, 2, 5}},
        // out(c0, c1, c2) = in[c1][c2][c0] with in dims [2, 3, 2].
        {"rotation", {2, 3, 2}, {2, 0, 1}, {2, 2, 3}, NPU_OK, {0, 2, 4, 6, 8, 10, 1, 3, 5, 7, 9, 11}},
        {"rank 1", {4}, {0}, {4}, NPU_OK, {0, 1, 2, 3}},
        {"repeated axis", {2, 2}, {0, 0}, {2, 2}, NPU_ERR_INVALID_ARG, {}},
        {"axis past rank", {2, 3}, {2, 0}, {3, 2}, NPU_ERR_INVALID_ARG, {}},
        {"output not the permuted shape", {2, 3}, {1, 0}, {2, 3}, NPU_ERR_INVALID_ARG, {}},
        {"ranks differ", {6}, {1, 0}, {3, 2}, NPU_ERR_INVALID_ARG, {}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<float> in = iota(count_of(c.in_dims)), out(in.size(), kSentinel);
        Tensor ti = view(c.in_dims, in.data()), to = view(c.out_dims, out.data());
        EXPECT_EQ(Transpose(&ti, c.perm.data(), &to), c.status);
        EXPECT_EQ(out, c.expected.empty() ? std::vector<float>(in.size(), kSentinel) : c.expected);
    }
}

TEST(Transpose, NullPointersNameAllThree) {
    std::vector<float> in = iota(6), out(6, kSentinel);
    Tensor ti = view({2, 3}, in.data()), to = view({3, 2}, out.data());
    const uint32_t perm[2] = {1, 0};
    struct Case {
        const Tensor *in;
        const uint32_t *perm;
        Tensor *out;
    };
    for (const Case &c : {Case{&ti, nullptr, &to}, Case{nullptr, perm, &to}, Case{&ti, perm, nullptr}}) {
        char text[256];
        std::snprintf(text, sizeof text,
                      "[E] [custom] [tensor_ops:L] invalid param! input_tensor:%p, perm:%p, output_tensor:%p \n",
                      static_cast<const void *>(c.in), static_cast<const void *>(c.perm), static_cast<const void *>(c.out));
        uint32_t status = 0;
        const std::string err = capture_stderr([&] { status = Transpose(c.in, c.perm, c.out); });
        EXPECT_EQ(status, NPU_ERR_INVALID_ARG);
        EXPECT_EQ(mask_error_lines(err), text);
    }
    EXPECT_EQ(out, std::vector<float>(6, kSentinel));
}

// ---- gather ----------------------------------------------------------------

TEST(Gather, Table) {
    const struct {
        const char *name;
        std::vector<uint32_t> data_dims;
        std::vector<uint32_t> index_dims;
        std::vector<int64_t> indices;
        int64_t axis;
        uint32_t status;
        std::vector<float> expected;  // empty: output untouched
    } cases[] = {
        // data [[0, 1], [2, 3]]
        {"negative index, axis 0", {2, 2}, {2}, {-1, 0}, 0, NPU_OK, {2, 3, 0, 1}},
        // data [[0, 1, 2], [3, 4, 5]]
        {"axis -1", {2, 3}, {2}, {2, -3}, -1, NPU_OK, {2, 0, 5, 3}},
        {"middle axis", {2, 3, 2}, {1}, {1}, 1, NPU_OK, {2, 3, 8, 9}},
        {"two-dimensional indices", {3, 2}, {2, 2}, {0, 2, 1, -1}, 0, NPU_OK, {0, 1, 4, 5, 2, 3, 4, 5}},
        {"index past the axis", {2, 2}, {2}, {0, 2}, 0, NPU_ERR_INVALID_ARG, {}},
        {"index before the axis", {2, 2}, {1}, {-3}, 1, NPU_ERR_INVALID_ARG, {}},
        {"axis past rank", {2, 2}, {1}, {0}, 2, NPU_OK, {}},
        {"axis before rank", {2, 2}, {1}, {0}, -3, NPU_OK, {}},
    };
    for (const auto &c : cases) {
        for (const uint32_t dtype : {NPU_DTYPE_INT32, NPU_DTYPE_INT64}) {
            SCOPED_TRACE(std::string(c.name) + (dtype == NPU_DTYPE_INT32 ? " (32-bit)" : " (64-bit)"));
            std::vector<float> data = iota(count_of(c.data_dims));
            std::vector<int32_t> idx32(c.indices.begin(), c.indices.end());
            std::vector<int64_t> idx64 = c.indices;
            void *idx = dtype == NPU_DTYPE_INT32 ? static_cast<void *>(idx32.data()) : static_cast<void *>(idx64.data());
            const size_t out_n = c.expected.empty() ? 4 : c.expected.size();
            std::vector<float> out(out_n, kSentinel);
            Tensor td = view(c.data_dims, data.data()), ti = view(c.index_dims, idx, dtype);
            Tensor to = view({static_cast<uint32_t>(out_n)}, out.data());
            EXPECT_EQ(gather(&td, &ti, c.axis, &to), c.status);
            EXPECT_EQ(out, c.expected.empty() ? std::vector<float>(out_n, kSentinel) : c.expected);
        }
    }
}

TEST(Gather, OtherIndexTypesAreReadAs64Bit) {
    std::vector<float> data = {10, 20, 30}, out(2, kSentinel);
    std::vector<int64_t> idx = {2, -3};
    Tensor td = view({3}, data.data()), ti = view({2}, idx.data(), NPU_DTYPE_UINT8), to = view({2}, out.data());
    EXPECT_EQ(gather(&td, &ti, 0, &to), NPU_OK);
    EXPECT_EQ(out, (std::vector<float>{30, 10}));
}

// ---- slice -----------------------------------------------------------------

TEST(Slice, Table) {
    const float S = kSentinel;
    const struct {
        const char *name;
        std::vector<uint32_t> in_dims;
        std::vector<int32_t> starts, ends, steps;
        uint32_t out_count;           // elements the output shape holds
        std::vector<float> expected;  // the whole output buffer of out_count + 1
    } cases[] = {
        {"negative step", {5}, {4}, {-1}, {-2}, 3, {4, 2, 0, S}},
        {"reverse whole axis", {5}, {4}, {-1}, {-1}, 5, {4, 3, 2, 1, 0, S}},
        // data [[0, 1, 2, 3], [4, 5, 6, 7], [8, 9, 10, 11]]
        {"two axes with steps", {3, 4}, {1, 1}, {3, 4}, {1, 2}, 4, {5, 7, 9, 11, S}},
        {"rows kept, columns reversed", {2, 3}, {0, 2}, {2, -1}, {1, -1}, 6, {2, 1, 0, 5, 4, 3, S}},
        {"empty first axis copies nothing", {2, 3}, {1, 0}, {1, 3}, {1, 1}, 1, {S, S}},
        {"empty last axis copies nothing", {2, 3}, {0, 2}, {2, 2}, {1, 1}, 1, {S, S}},
        {"step 0 selects nothing", {2, 3}, {0, 0}, {2, 3}, {1, 0}, 1, {S, S}},
        {"step 0 with start above end", {4}, {3}, {0}, {0}, 1, {S, S}},
        {"output shorter than the selection", {5}, {0}, {5}, {1}, 2, {0, 1, S}},
        {"position past the axis writes nothing", {4}, {2}, {6}, {1}, 4, {S, S, S, S, S}},
        {"negative position writes nothing", {4}, {-1}, {2}, {1}, 3, {S, S, S, S}},
        {"reverse from past the axis writes nothing", {4}, {4}, {-1}, {-1}, 4, {S, S, S, S, S}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<float> in = iota(count_of(c.in_dims)), out(c.out_count + 1, kSentinel);
        Tensor ti = view(c.in_dims, in.data()), to = view({c.out_count}, out.data());
        EXPECT_EQ(slice(&ti, c.starts.data(), c.ends.data(), c.steps.data(), &to), NPU_OK);
        EXPECT_EQ(out, c.expected);
    }
}

TEST(SliceOneAxis, SelectsAlongAxisAndUpdatesTotalAndDims) {
    // [[0, 1, 2], [3, 4, 5]], columns 2 then 0.
    float *data = static_cast<float *>(std::malloc(6 * sizeof(float)));
    for (int i = 0; i < 6; ++i) data[i] = static_cast<float>(i);
    int32_t total = 6;
    uint32_t dims[NPU_MAX_DIMS] = {2, 3};
    const int32_t list[2] = {2, 0};
    float *out = slice_one_axis(data, &total, dims, 1, list, 2);
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(total, 4);
    EXPECT_EQ(dims[1], 2u);
    EXPECT_EQ(std::vector<float>(out, out + 4), (std::vector<float>{2, 0, 5, 3}));
    std::free(out);
}

TEST(SliceOneAxis, NullLeavesEverythingAsItWas) {
    struct Case {
        const char *name;
        uint32_t dims[2];
        int32_t axis;
        int32_t position;
    };
    for (const Case &c : {Case{"empty outer dims", {0, 3}, 1, 0}, Case{"empty axis", {2, 0}, 1, 0},
                          Case{"position past the axis", {2, 3}, 1, 3},
                          Case{"axis past the dims array", {2, 3}, NPU_MAX_DIMS, 0}}) {
        SCOPED_TRACE(c.name);
        float data[6] = {0, 1, 2, 3, 4, 5};
        int32_t total = 6;
        uint32_t dims[NPU_MAX_DIMS] = {c.dims[0], c.dims[1]};
        EXPECT_EQ(slice_one_axis(data, &total, dims, c.axis, &c.position, 1), nullptr);
        EXPECT_EQ(total, 6);
        EXPECT_EQ(std::vector<uint32_t>(dims, dims + 2), std::vector<uint32_t>(c.dims, c.dims + 2));
    }
}

}  // namespace
