// gather, slice, slice_one_axis and Transpose on internal Tensor records.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

#include "test_util.h"

namespace {

using namespace npucpu_test;
using Dims = std::vector<uint32_t>;
using Floats = std::vector<float>;

constexpr float S = -777.0f;  // sentinel

// A Tensor record borrowing `data` (raw bytes for index tensors).
Tensor view(const Dims &dims, void *data, uint32_t dtype = NPU_DTYPE_FLOAT32) {
    Tensor t{};
    t.shape = shape_of(dims), t.dtype = dtype, t.data = static_cast<float *>(data);
    return t;
}

TEST(Transpose, Table) {
    const struct { const char *name; Dims in_dims, perm, out_dims; uint32_t status; Floats expected; } cases[] = {
        {"identity copies", {2, 3}, {0, 1}, {2, 3}, NPU_OK, {0, 1, 2, 3, 4, 5}},
        {"matrix", {2, 3}, {1, 0}, {3, 2}, NPU_OK, {0, 3, 1, 4, 2, 5}},
        {"last two axes", {1, 1, 2, 3}, {0, 1, 3, 2}, {1, 1, 3, 2}, NPU_OK, {0, 3, 1, 4, 2, 5}},
        // out(c0, c1, c2) = in[c1][c2][c0] with in dims [2, 3, 2].
        {"rotation", {2, 3, 2}, {2, 0, 1}, {2, 2, 3}, NPU_OK, {0, 2, 4, 6, 8, 10, 1, 3, 5, 7, 9, 11}},
        {"rank 1", {4}, {0}, {4}, NPU_OK, {0, 1, 2, 3}},
        {"repeated axis", {2, 2}, {0, 0}, {2, 2}, NPU_ERR_INVALID_ARG, Floats(4, S)},
        {"axis past rank", {2, 3}, {2, 0}, {3, 2}, NPU_ERR_INVALID_ARG, Floats(6, S)},
        {"output not the permuted shape", {2, 3}, {1, 0}, {2, 3}, NPU_ERR_INVALID_ARG, Floats(6, S)},
        {"ranks differ", {6}, {1, 0}, {3, 2}, NPU_ERR_INVALID_ARG, Floats(6, S)},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        Floats in = iota(count_of(c.in_dims), 0.0f), out(in.size(), S);
        Tensor ti = view(c.in_dims, in.data()), to = view(c.out_dims, out.data());
        EXPECT_EQ(Transpose(&ti, c.perm.data(), &to), c.status);
        EXPECT_EQ(out, c.expected);
    }
    // A null argument is named in the message along with the other two.
    Floats in = iota(6, 0.0f), out(6, S);
    Tensor ti = view({2, 3}, in.data()), to = view({3, 2}, out.data());
    const uint32_t perm[2] = {1, 0};
    struct Args { const Tensor *in; const uint32_t *perm; Tensor *out; };
    for (const Args &c : {Args{&ti, nullptr, &to}, Args{nullptr, perm, &to}, Args{&ti, perm, nullptr}}) {
        char text[256];
        std::snprintf(text, sizeof text,
                      "[E] [custom] [tensor_ops:L] invalid param! input_tensor:%p, perm:%p, output_tensor:%p \n",
                      static_cast<const void *>(c.in), static_cast<const void *>(c.perm), static_cast<void *>(c.out));
        uint32_t status = 0;
        EXPECT_EQ(mask_error_lines(capture_stderr([&] { status = Transpose(c.in, c.perm, c.out); })), text);
        EXPECT_EQ(status, NPU_ERR_INVALID_ARG);
    }
    EXPECT_EQ(out, Floats(6, S));
}

TEST(Gather, Table) {
    const struct { const char *name; Dims data_dims, index_dims; std::vector<int64_t> indices; int64_t axis;
                   uint32_t status; Floats expected; } cases[] = {  // empty expected: output untouched
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
    // Index types other than 32-bit integers are read as 64-bit.
    for (const auto &c : cases) {
        for (const uint32_t dtype : {NPU_DTYPE_INT32, NPU_DTYPE_INT64, NPU_DTYPE_UINT8}) {
            SCOPED_TRACE(std::string(c.name) + " dtype " + std::to_string(dtype));
            Floats data = iota(count_of(c.data_dims), 0.0f);
            std::vector<int32_t> idx32(c.indices.begin(), c.indices.end());
            std::vector<int64_t> idx64 = c.indices;
            void *idx = dtype == NPU_DTYPE_INT32 ? static_cast<void *>(idx32.data()) : idx64.data();
            const size_t out_n = c.expected.empty() ? 4 : c.expected.size();
            Floats out(out_n, S);
            Tensor td = view(c.data_dims, data.data()), ti = view(c.index_dims, idx, dtype);
            Tensor to = view({static_cast<uint32_t>(out_n)}, out.data());
            EXPECT_EQ(gather(&td, &ti, c.axis, &to), c.status);
            EXPECT_EQ(out, c.expected.empty() ? Floats(out_n, S) : c.expected);
        }
    }
}

TEST(Slice, Table) {
    const struct { const char *name; Dims in_dims; std::vector<int32_t> starts, ends, steps;
                   uint32_t out_count; Floats expected; } cases[] = {  // expected: out_count + 1 values
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
        Floats in = iota(count_of(c.in_dims), 0.0f), out(c.out_count + 1, S);
        Tensor ti = view(c.in_dims, in.data()), to = view({c.out_count}, out.data());
        EXPECT_EQ(slice(&ti, c.starts.data(), c.ends.data(), c.steps.data(), &to), NPU_OK);
        EXPECT_EQ(out, c.expected);
    }
}

// On success the data is replaced (and freed), total and the axis's dim
// updated; on refusal null comes back and everything stays as it was.
TEST(SliceOneAxis, Table) {
    const struct { const char *name; uint32_t dims[2]; int32_t axis; std::vector<int32_t> list; Floats expected; }
    cases[] = {
        {"columns 2 then 0", {2, 3}, 1, {2, 0}, {2, 0, 5, 3}},
        {"empty outer dims", {0, 3}, 1, {0}, {}},
        {"empty axis", {2, 0}, 1, {0}, {}},
        {"position past the axis", {2, 3}, 1, {3}, {}},
        {"axis past the dims array", {2, 3}, NPU_MAX_DIMS, {0}, {}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        float *data = static_cast<float *>(std::malloc(6 * sizeof(float)));
        for (int i = 0; i < 6; ++i) data[i] = static_cast<float>(i);
        int32_t total = 6;
        uint32_t dims[NPU_MAX_DIMS] = {c.dims[0], c.dims[1]};
        float *out = slice_one_axis(data, &total, dims, c.axis, c.list.data(), static_cast<int32_t>(c.list.size()));
        if (c.expected.empty()) {
            EXPECT_EQ(out, nullptr);
            EXPECT_EQ(total, 6);
            EXPECT_EQ(Dims(dims, dims + 2), Dims(c.dims, c.dims + 2));
            std::free(data);
            continue;
        }
        ASSERT_NE(out, nullptr);
        EXPECT_EQ(total, static_cast<int32_t>(c.expected.size()));
        EXPECT_EQ(dims[1], c.list.size());
        EXPECT_EQ(Floats(out, out + c.expected.size()), c.expected);
        std::free(out);
    }
}

}  // namespace
