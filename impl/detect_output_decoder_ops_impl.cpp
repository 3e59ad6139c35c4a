// Decoder of the accelerator's fixed-point detection table: the detection
// count becomes a float, each record's fields are scaled to floats, and the
// table is written with its last two axes exchanged (one row per field).
#include <cstdlib>
#include <cstring>

#include "npucpu.h"
#include "utils/dispatch.h"
#include "utils/op_context.h"
#include "utils/op_log.h"

namespace {

constexpr uint32_t kInputs = 2;
constexpr uint32_t kBoxColumns = 4;      // columns 0..3: 3 fraction bits
constexpr uint32_t kScoreColumn = 4;     // 15 fraction bits
constexpr uint32_t kClassColumn = 5;     // unscaled; later columns stay 0
constexpr float kBoxScale = 0.125f;
constexpr float kScoreScale = 3.0517578e-5f;  // 2^-15
// Exchanges axes 2 and 3. Entries past the fourth keep their axis, so a
// table of higher rank matches the shape infershape gives it and the
// permutation is never read past its end.
constexpr uint32_t kSwapLastTwo[NPU_MAX_DIMS] = {0, 1, 3, 2, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};

// One fixed-point field of column c as a float.
float decode_field(int16_t e, uint32_t c) {
    const float v = static_cast<float>(e);
    if (c < kBoxColumns) return v * kBoxScale;
    if (c == kScoreColumn) return v * kScoreScale;
    if (c == kClassColumn) return v;
    return 0.0f;
}

// Internal Tensor record borrowing `data`.
Tensor *wrap(const TensorShape &shape, float *data) {
    Tensor *t = static_cast<Tensor *>(std::malloc(sizeof(Tensor)));
    t->shape = shape;
    t->dtype = NPU_DTYPE_FLOAT32;
    t->format = NPU_FORMAT_NCHW;
    t->data = data;
    return t;
}

}  // namespace

extern "C" {

NPU_API uint32_t detect_output_decoder_infershape(OperatorContext *handle) {
    if (npucpu::input_count(handle) != kInputs) {
        NPU_ERROR("detect_output_decoder only support 2 inputs \n");
        return NPU_ERR_INPUT_NUM;
    }
    const npucpu::TensorInfo count = npucpu::input_info(handle, 0);
    const npucpu::TensorInfo table = npucpu::input_info(handle, 1);
    npucpu::set_output_desc(handle, 0, count.shape, NPU_DTYPE_FLOAT32, NPU_FORMAT_NCHW);
    TensorShape fields{};
    fields.dim_num = table.shape.dim_num;
    fields.dims[0] = table.shape.dims[0];
    fields.dims[1] = table.shape.dims[1];
    fields.dims[2] = table.shape.dims[3];
    fields.dims[3] = table.shape.dims[2];
    npucpu::set_output_desc(handle, 1, fields, NPU_DTYPE_FLOAT32, NPU_FORMAT_NCHW);
    return NPU_OK;
}

NPU_API uint32_t detect_output_decoder_check_supported(OperatorContext *handle) {
    uint32_t count_dtype = 0;
    uint32_t table_dtype = 0;
    qv_kel_custom_get_input_dtype_by_index(handle, 0, &count_dtype);
    qv_kel_custom_get_input_dtype_by_index(handle, 1, &table_dtype);
    return count_dtype == NPU_DTYPE_UINT32 && table_dtype == NPU_DTYPE_INT16 ? 1u : 0u;
}

NPU_API uint32_t detect_output_decoder_compute(OperatorContext *handle) {
    TensorShape count_shape{};
    uint32_t count_dtype = 0;
    qv_kel_custom_get_input_shape_by_index(handle, 0, &count_shape);
    qv_kel_custom_get_input_dtype_by_index(handle, 0, &count_dtype);
    const uint32_t *count_buf =
        static_cast<const uint32_t *>(qv_kel_custom_get_input_buf_by_index(handle, 0));
    if (count_buf == nullptr) return NPU_ERR_INVALID_ARG;
    uint64_t count_len = 0;
    qv_kel_custom_get_input_buf_len_by_index(handle, 0, &count_len);

    TensorShape table_shape{};
    uint32_t table_dtype = 0;
    qv_kel_custom_get_input_shape_by_index(handle, 1, &table_shape);
    qv_kel_custom_get_input_dtype_by_index(handle, 1, &table_dtype);
    const int16_t *table =
        static_cast<const int16_t *>(qv_kel_custom_get_input_buf_by_index(handle, 1));
    if (table == nullptr) return NPU_ERR_INVALID_ARG;
    uint64_t table_len = 0;
    qv_kel_custom_get_input_buf_len_by_index(handle, 1, &table_len);

    uint64_t out0_len = 0;
    TensorShape out0_shape{};
    qv_kel_custom_get_output_buf_len_by_index(handle, 0, &out0_len);
    qv_kel_custom_get_output_shape_by_index(handle, 0, &out0_shape);
    float *out0 = static_cast<float *>(qv_kel_custom_get_output_buf_by_index(handle, 0));
    if (out0 == nullptr) return NPU_ERR_INVALID_ARG;

    uint64_t out1_len = 0;
    TensorShape out1_shape{};
    qv_kel_custom_get_output_buf_len_by_index(handle, 1, &out1_len);
    qv_kel_custom_get_output_shape_by_index(handle, 1, &out1_shape);
    float *out1 = static_cast<float *>(qv_kel_custom_get_output_buf_by_index(handle, 1));
    if (out1 == nullptr) return NPU_ERR_INVALID_ARG;

    // Fast path: a [1, 1, rows, cols] table that its buffer holds whole and
    // an output 1 of shape [1, 1, cols, rows] that its buffer holds whole:
    // each column is decoded straight into its output row, without the
    // zeroed scratch table (a fresh allocation) and the transposition.
    const uint64_t rows_n = table_shape.dims[2];
    const uint64_t cols_n = table_shape.dims[3];
    const uint64_t whole = rows_n * cols_n;
    if (npucpu::fast_paths_enabled() && table_shape.dim_num == 4 && out1_shape.dim_num == 4 &&
        table_shape.dims[0] == 1 && table_shape.dims[1] == 1 && out1_shape.dims[0] == 1 &&
        out1_shape.dims[1] == 1 && out1_shape.dims[2] == cols_n && out1_shape.dims[3] == rows_n &&
        whole > 0 && whole < (uint64_t{1} << 32) && table_len / sizeof(int16_t) >= whole &&
        out1_len / sizeof(float) >= whole) {
        for (uint64_t c = 0; c < cols_n; ++c) {
            float *row = out1 + c * rows_n;
            const int16_t *field = table + c;
            if (c > kClassColumn) {
                std::memset(row, 0, rows_n * sizeof(float));
            } else if (c == kClassColumn) {
                for (uint64_t r = 0; r < rows_n; ++r) row[r] = static_cast<float>(field[r * cols_n]);
            } else {
                const float scale = c < kBoxColumns ? kBoxScale : kScoreScale;
                for (uint64_t r = 0; r < rows_n; ++r) row[r] = static_cast<float>(field[r * cols_n]) * scale;
            }
        }
        if (count_len >= sizeof(uint32_t) && out0_len >= sizeof(float)) {
            out0[0] = static_cast<float>(count_buf[0]);
        }
        return NPU_OK;
    }

    // The scratch table has output 1's byte length; it is made at least as
    // large as the table's shape so that the transposition never reads past
    // it (the extra elements are zeros and are only read when the shapes are
    // inconsistent).
    const uint64_t table_elems = GetElemSize(&table_shape);
    const uint64_t out1_elems = GetElemSize(&out1_shape);
    const uint64_t scratch_elems = out1_len / sizeof(float);
    const uint64_t scratch_alloc = scratch_elems > table_elems ? scratch_elems : table_elems;
    float *scratch = static_cast<float *>(std::calloc(scratch_alloc > 0 ? scratch_alloc : 1, sizeof(float)));

    // Guard: decoding stops at the end of the input table and of the
    // scratch table (clamped, status unchanged).
    const uint64_t rows = table_shape.dims[2];
    const uint64_t cols = table_shape.dims[3];
    const uint64_t table_capacity = table_len / sizeof(int16_t);
    const uint64_t limit = table_capacity < scratch_alloc ? table_capacity : scratch_alloc;
    for (uint64_t r = 0; r < rows && r * cols < limit; ++r) {
        const uint64_t row_end = cols < limit - r * cols ? cols : limit - r * cols;
        const int16_t *in = table + r * cols;
        float *out = scratch + r * cols;
        for (uint64_t c = 0; c < row_end; ++c) out[c] = decode_field(in[c], static_cast<uint32_t>(c));
    }

    // Guard: an output buffer shorter than its shape receives the leading
    // part of the transposed table (clamped, status unchanged).
    const bool out1_short = out1_elems > scratch_elems;
    float *target = out1_short ? static_cast<float *>(std::calloc(out1_elems, sizeof(float))) : out1;
    Tensor *src = wrap(table_shape, scratch);
    Tensor *dst = wrap(out1_shape, target);
    (void)Transpose(src, kSwapLastTwo, dst);  // the result is deliberately not checked
    if (out1_short) {
        if (scratch_elems > 0) std::memcpy(out1, target, scratch_elems * sizeof(float));
        std::free(target);
    }

    // The count is unsigned: 4294967295 becomes 4294967296.0f. Guard: a
    // buffer too short for one element is neither read nor written.
    if (count_len >= sizeof(uint32_t) && out0_len >= sizeof(float)) {
        out0[0] = static_cast<float>(count_buf[0]);
    }

    free_tensor(src);
    free_tensor_not_in_buf(dst);
    return NPU_OK;
}

}  // extern "C"
