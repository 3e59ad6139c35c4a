// conv_transpose: two-dimensional transposed convolution of an NCHW input
// with filters [C, M/group, kH, kW] and an optional bias of M values,
// computed as an ordinary convolution: the input is spread out with zeros
// between its pixels (stride apart), padded, and convolved with each output
// channel's filter slice after the slice has been dilated and rotated by
// 180 degrees.
#include <cstdlib>
#include <cstring>

#include "utils/conv_common.h"
#include "npucpu.h"
#include "utils/op_context.h"
#include "utils/op_log.h"

namespace {

using npucpu::conv::Layout4;
using npucpu::conv::layout_dims;
using npucpu::conv::with_dim;

// Attributes of the operator with their defaults.
struct TransposeAttrs {
    int64_t strides[2] = {1, 1};
    int64_t output_padding[2] = {0, 0};
    int64_t dilations[2] = {1, 1};
    int64_t kernel_shape[2] = {0, 0};
    bool has_kernel_shape = false;
    int64_t pads[4] = {0, 0, 0, 0};
    int64_t group = 1;
    bool has_group = false;
    char auto_pad[11] = {};
    int64_t output_shape[2] = {0, 0};
    bool has_output_shape = false;
};

// strides, output_padding, dilations, kernel_shape, pads and group.
void read_shape_attrs(OperatorContext *handle, TransposeAttrs *a) {
    npucpu::conv::read_ints(handle, "strides", a->strides, 2);
    npucpu::conv::read_ints(handle, "output_padding", a->output_padding, 2);
    npucpu::conv::read_ints(handle, "dilations", a->dilations, 2);
    a->has_kernel_shape = npucpu::has_attr(handle, "kernel_shape");
    npucpu::conv::read_ints(handle, "kernel_shape", a->kernel_shape, 2);
    npucpu::conv::read_ints(handle, "pads", a->pads, 4);
    a->has_group = npucpu::has_attr(handle, "group");
    qv_kel_custom_get_attr_int(qv_kel_custom_get_attr_by_name(handle, "group"), &a->group);
}

// auto_pad, then output_shape.
void read_pad_attrs(OperatorContext *handle, TransposeAttrs *a) {
    npucpu::conv::read_auto_pad(handle, a->auto_pad);
    a->has_output_shape = npucpu::has_attr(handle, "output_shape");
    if (a->has_output_shape) npucpu::conv::read_ints(handle, "output_shape", a->output_shape, 2);
}

// The attributes as the 32-bit values the computation uses.
struct Settings {
    uint32_t strides[2];
    uint32_t output_padding[2];
    uint32_t dilations[2];
    uint32_t pads[4];
};

Settings settings_of(const TransposeAttrs &a) {
    Settings s;
    for (int i = 0; i < 2; ++i) {
        s.strides[i] = static_cast<uint32_t>(a.strides[i]);
        s.output_padding[i] = static_cast<uint32_t>(a.output_padding[i]);
        s.dilations[i] = static_cast<uint32_t>(a.dilations[i]);
    }
    for (int i = 0; i < 4; ++i) s.pads[i] = static_cast<uint32_t>(a.pads[i]);
    return s;
}

// A signed 32-bit value clamped at 0.
uint32_t clamp_at_zero(uint32_t v) { return static_cast<int32_t>(v) < 0 ? 0u : v; }

// Settles the pads (in s.pads) and the output size from the attributes, the
// input's height and width and the filters. The kernel size is kernel_shape
// when given; otherwise the filters' width is taken as the kernel height and
// their height as its width (the axes are crossed on purpose). Without
// output_shape the output height takes output_padding[1] and the width
// output_padding[0], also on purpose. Returns process_auto_pad's status.
uint32_t settle_pads(const TransposeAttrs &a, Settings *s, uint32_t H, uint32_t W,
                     const TensorShape &w_shape, uint32_t w_format, uint32_t *out_h, uint32_t *out_w) {
    uint32_t kh, kw;
    if (a.has_kernel_shape) {
        kh = static_cast<uint32_t>(a.kernel_shape[0]);
        kw = static_cast<uint32_t>(a.kernel_shape[1]);
    } else {
        kh = get_width(&w_shape, w_format);
        kw = get_height(&w_shape, w_format);
    }
    const uint32_t kh_eff = (kh - 1) * s->dilations[0] + 1;
    const uint32_t kw_eff = (kw - 1) * s->dilations[1] + 1;
    const uint32_t *st = s->strides;
    const uint32_t *op = s->output_padding;

    if (a.has_output_shape) {
        *out_h = static_cast<uint32_t>(a.output_shape[0]);
        *out_w = static_cast<uint32_t>(a.output_shape[1]);
        const uint32_t total_h = clamp_at_zero((H - 1) * st[0] + op[0] + kh_eff - *out_h);
        const uint32_t total_w = clamp_at_zero((W - 1) * st[1] + op[1] + kw_eff - *out_w);
        const bool upper = std::strncmp(a.auto_pad, "SAME_UPPER", 10) == 0;
        const uint32_t begin_h = upper ? total_h >> 1 : total_h - (total_h >> 1);
        const uint32_t begin_w = upper ? total_w >> 1 : total_w - (total_w >> 1);
        s->pads[0] = begin_h;
        s->pads[1] = begin_w;
        s->pads[2] = total_h - begin_h;
        s->pads[3] = total_w - begin_w;
        return NPU_OK;
    }
    const uint32_t total_h = clamp_at_zero(op[0] - st[0] + kh_eff);
    const uint32_t total_w = clamp_at_zero(op[1] - st[1] + kw_eff);
    const uint32_t status =
        process_auto_pad(a.auto_pad, total_h, total_w, H, W, st[0], st[1], kh_eff, kw_eff, s->pads);
    if (status != NPU_OK) return status;
    *out_h = (H - 1) * st[0] + op[1] - (s->pads[0] + s->pads[2]) + kh_eff;
    *out_w = (W - 1) * st[1] + op[0] - (s->pads[1] + s->pads[3]) + kw_eff;
    return NPU_OK;
}

// Remainder of x by d where a zero divisor counts the quotient as 0.
uint32_t remainder_or_self(uint32_t x, uint32_t d) { return d != 0 ? x % d : x; }

// Shape of the spread input: each plane's height and width grow by
// (size - 1) * (stride - 1).
TensorShape zero_filled_shape(TensorShape shape, const uint32_t strides[2]) {
    shape.dims[2] = shape.dims[2] + (shape.dims[2] - 1) * (strides[0] - 1);
    shape.dims[3] = shape.dims[3] + (shape.dims[3] - 1) * (strides[1] - 1);
    return shape;
}

// The convolution pads of the spread input for a filter of real size kh x kw.
void convolution_pads(uint32_t kh, uint32_t kw, const Settings &s, uint32_t conv_pads[4]) {
    const uint32_t reach_h = (kh - 1) * s.dilations[0];
    const uint32_t reach_w = (kw - 1) * s.dilations[1];
    conv_pads[0] = reach_h - s.pads[0];
    conv_pads[1] = reach_w - s.pads[1];
    conv_pads[2] = reach_h - s.pads[2] + s.output_padding[0];
    conv_pads[3] = reach_w - s.pads[3] + s.output_padding[1];
}

// Kernel (for img_2_col) and filter-matrix shapes of a dilated slice
// [A, B, kh, kw]: [B, A, kh, kw] and [1, 1, B, A * kh * kw].
TensorShape kernel_shape_of(const TensorShape &slice) {
    TensorShape k{};
    k.dim_num = 4;
    k.dims[0] = slice.dims[1];
    k.dims[1] = slice.dims[0];
    k.dims[2] = slice.dims[2];
    k.dims[3] = slice.dims[3];
    return k;
}

TensorShape matrix_shape_of(const TensorShape &slice) {
    TensorShape m{};
    m.dim_num = 4;
    m.dims[0] = 1;
    m.dims[1] = 1;
    m.dims[2] = slice.dims[1];
    m.dims[3] = slice.dims[0] * slice.dims[2] * slice.dims[3];
    return m;
}

// A value below 1, or one that is 0 once stored in 32 bits.
bool below_one(int64_t v) { return v < 1 || static_cast<uint32_t>(v) == 0; }

// Everything the literal computation of one group will touch, derived before
// anything is written. Returns false when compute must refuse the call.
bool groups_fit(const npucpu::TensorInfo &x, const npucpu::TensorInfo &w, const npucpu::TensorInfo *b,
                const npucpu::TensorInfo &y, const TransposeAttrs &a, const Settings &s,
                uint32_t in_size, uint32_t filter_size, uint32_t out_size) {
    using namespace npucpu::conv;
    const uint64_t g = static_cast<uint64_t>(a.group);
    const uint64_t C = x.shape.dims[1];
    if (below_one(a.strides[0]) || below_one(a.strides[1])) return false;
    if (C % g != 0 || w.shape.dims[0] % g != 0 || y.shape.dims[1] % g != 0) return false;
    if (w.shape.dims[0] != C || static_cast<uint64_t>(w.shape.dims[1]) * g != y.shape.dims[1]) return false;

    const TensorShape in_piece = with_dim(x.shape, 1, in_size);
    const TensorShape filter_piece = with_dim(w.shape, 0, filter_size);
    const TensorShape out_piece = with_dim(y.shape, 1, out_size);
    if (b != nullptr && b->shape.dim_num > out_piece.dim_num) return false;  // no bias expansion
    // Output channels of a group: each gets its own slice; none would divide by zero.
    const uint32_t K = layout_dims(out_piece, x.format).c;
    if (K == 0) return false;
    // The per-channel splits are going to fail with their own messages.
    if (filter_piece.dim_num <= 1 || out_piece.dim_num <= 1) return true;

    const Layout4 f = layout_dims(filter_piece, w.format);
    uint32_t conv_pads[4];
    convolution_pads(f.h, f.w, s, conv_pads);
    const TensorShape padded = padded_shape(zero_filled_shape(in_piece, s.strides), conv_pads);
    const TensorShape slice = with_dim(filter_piece, 1, filter_piece.dims[1] / K);
    const TensorShape out_slice = with_dim(out_piece, 1, out_piece.dims[1] / K);
    const TensorShape dilated = dilated_shape(slice, s.dilations[0], s.dilations[1]);
    const TensorShape kernel = kernel_shape_of(dilated);
    const TensorShape matrix = matrix_shape_of(dilated);
    if (!reshape_fits(dilated, kernel)) return false;  // img_2_col needs the kernel

    const uint32_t out_format = x.format;
    if (out_format != NPU_FORMAT_NCHW && out_format != NPU_FORMAT_MATRIX) return true;
    const uint32_t unit[2] = {1, 1};
    const ColumnPlan cols = plan_columns(padded, x.format, kernel, w.format, unit);
    if (!columns_fit(cols)) return false;
    if (!gemm_fits(cols, matrix, w.format, out_slice, out_format)) return false;
    // The result plane of the real filter may be smaller than the output
    // plane (it then fills the plane's start), never larger.
    if (out_format == NPU_FORMAT_NCHW &&
        cols.positions > static_cast<uint64_t>(y.shape.dims[2]) * y.shape.dims[3]) {
        return false;
    }
    return true;
}

// The kernel dilation of conv, on a copy of the dilations.
Tensor *do_dilation(const Tensor *slice, const uint32_t dilations[2]) {
    uint32_t d[2] = {dilations[0], dilations[1]};
    return do_dilation_conv(slice, d);
}

// Rotates every dims[2] x dims[3] plane by 180 degrees (its values in
// reverse order), in place. Only whole planes inside the data are touched.
void do_reverse(Tensor *t) {
    const uint64_t plane = static_cast<uint64_t>(t->shape.dims[2]) * t->shape.dims[3];
    if (plane == 0) return;
    const uint64_t planes = GetElemSize(&t->shape) / plane;
    for (uint64_t p = 0; p < planes; ++p) {
        float *v = t->data + p * plane;
        for (uint64_t i = 0, j = plane - 1; i < j; ++i, --j) {
            const float tmp = v[i];
            v[i] = v[j];
            v[j] = tmp;
        }
    }
}

// One group: spread and pad the input, then one convolution per output
// channel with its dilated, reversed filter slice, gathered along axis 1,
// plus the bias when given.
uint32_t compute_one_group(const Tensor *input, const Tensor *filter, const Tensor *bias, Tensor *output,
                           const Settings &s) {
    Tensor *spread = do_zero_filling(input, s.strides);
    uint32_t conv_pads[4];
    convolution_pads(get_height(&filter->shape, filter->format), get_width(&filter->shape, filter->format),
                     s, conv_pads);
    Tensor *padded = do_padding(spread, conv_pads, 0.0f);
    free_tensor(spread);

    const uint32_t K = get_channel(&output->shape, output->format);
    // Guard: no output channel to give a slice to (a division by zero).
    if (K == 0) {
        free_tensor(padded);
        return NPU_ERR_INVALID_ARG;
    }
    // Guard: an output that holds no element has nothing to compute; its
    // per-channel arrays could be billions long (a zero dim beside dims that
    // wrapped near 2^32) and would all be empty.
    if (GetElemSize(&output->shape) == 0) {
        free_tensor(padded);
        return NPU_OK;
    }
    uint32_t *filter_sizes = static_cast<uint32_t *>(std::malloc(K * sizeof(uint32_t)));
    uint32_t *out_sizes = static_cast<uint32_t *>(std::malloc(K * sizeof(uint32_t)));
    fill_vec_uint32(filter_sizes, filter->shape.dims[1] / K, K);
    fill_vec_uint32(out_sizes, output->shape.dims[1] / K, K);
    TensorList *slices = npucpu::conv::new_list();
    TensorList *channels = npucpu::conv::new_list();

    uint32_t result = NPU_OK;
    if (split(filter, 1, filter_sizes, K, slices) != NPU_OK) {
        NPU_ERROR("Split weight fail \n");
        result = NPU_FAIL;
    } else if (split(output, 1, out_sizes, K, channels) != NPU_OK) {
        NPU_ERROR("Split output fail \n");
        result = NPU_FAIL;
    }

    const uint32_t unit[2] = {1, 1};
    const TensorList *slice = slices->next;
    const TensorList *channel = channels->next;
    for (uint32_t k = 0; k < K && result == NPU_OK; ++k) {
        Tensor *dilated = do_dilation(slice->tensor, s.dilations);
        do_reverse(dilated);
        const TensorShape kernel_shape = kernel_shape_of(dilated->shape);
        const TensorShape matrix_shape = matrix_shape_of(dilated->shape);
        Tensor *kernel = reshape(dilated, dilated->format, &kernel_shape);
        Tensor *matrix = reshape(dilated, dilated->format, &matrix_shape);
        // Guard: without a kernel there is no column matrix to build.
        Tensor *columns = kernel != nullptr ? img_2_col(padded, kernel, unit) : nullptr;
        const bool reads = channel->tensor->format == NPU_FORMAT_NCHW ||
                           channel->tensor->format == NPU_FORMAT_MATRIX;
        if (kernel == nullptr || (reads && (columns == nullptr || matrix == nullptr))) {
            result = NPU_ERR_INVALID_ARG;  // guard: gemm would read a missing matrix
        } else if (gemm(columns, matrix, nullptr, channel->tensor) != NPU_OK) {
            NPU_ERROR("Split weight fail \n");
            result = NPU_FAIL;
        }
        free_tensor(dilated);
        free_tensor(kernel);
        free_tensor(matrix);
        free_tensor(columns);
        slice = slice->next;
        channel = channel->next;
    }

    Tensor *gathered = nullptr;
    if (result == NPU_OK && bias != nullptr) {
        gathered = static_cast<Tensor *>(std::calloc(1, sizeof(Tensor)));
        gathered->shape = output->shape;
        gathered->dtype = output->dtype;
        gathered->format = output->format;
        const uint32_t count = GetElemSize(&output->shape);
        gathered->data = static_cast<float *>(std::calloc(count > 0 ? count : 1, sizeof(float)));
    }
    if (result == NPU_OK && concat(channels, K, 1, gathered != nullptr ? gathered : output) != NPU_OK) {
        NPU_ERROR("concat output fail \n");
        result = NPU_FAIL;
    }
    if (result == NPU_OK && gathered != nullptr) {
        Tensor *expanded = broadcast_bias(bias, gathered);
        if (expanded == nullptr) {
            result = NPU_ERR_INVALID_ARG;  // guard: a bias of more dims than the output
        } else {
            result = add(gathered, expanded, output);
            if (result != NPU_OK) NPU_ERROR("Add fail \n");
        }
        free_tensor(expanded);
    }

    free_tensor(gathered);
    free_tensor(padded);
    std::free(filter_sizes);
    std::free(out_sizes);
    free_vec(slices);
    free_vec(channels);
    return result;
}

}  // namespace

extern "C" {

NPU_API uint32_t process_auto_pad(const char *auto_pad, uint32_t total_h, uint32_t total_w,
                                  uint32_t in_h, uint32_t in_w, uint32_t stride_h, uint32_t stride_w,
                                  uint32_t kernel_h, uint32_t kernel_w, uint32_t pads[4]) {
    // Guard: no mode text to compare.
    if (auto_pad == nullptr) return NPU_ERR_INVALID_ARG;
    if (std::strncmp(auto_pad, "SAME_UPPER", 10) == 0) {
        pads[0] = total_h >> 1;
        pads[2] = total_h - pads[0];
        pads[1] = total_w >> 1;
        pads[3] = total_w - pads[1];
        return NPU_OK;
    }
    if (std::strncmp(auto_pad, "SAME_LOWER", 10) == 0) {
        pads[2] = total_h >> 1;
        pads[0] = total_h - pads[2];
        pads[3] = total_w >> 1;
        pads[1] = total_w - pads[3];
        return NPU_OK;
    }
    if (std::strncmp(auto_pad, "VALID", 5) == 0) {
        // A zero stride counts the quotient as 0.
        if (remainder_or_self(in_w - kernel_w, stride_w) != 0) {
            NPU_ERROR("Not support drop right data when auto_pad is VALID \n");
            return NPU_ERR_SHAPE;
        }
        if (remainder_or_self(in_h - kernel_h, stride_h) != 0) {
            NPU_ERROR("Not support drop bottom data when auto_pad is VALID \n");
            return NPU_ERR_SHAPE;
        }
        pads[0] = pads[1] = pads[2] = pads[3] = 0;
        return NPU_OK;
    }
    if (std::strncmp(auto_pad, "NOTSET", 6) == 0) {
        if (pads[0] + pads[1] + pads[2] + pads[3] == 0) pads[0] = pads[1] = pads[2] = pads[3] = 0;
        return NPU_OK;
    }
    NPU_ERROR("INVALID auto_pad mode  \n");
    return NPU_ERR_INVALID_ARG;
}

NPU_API Tensor *do_zero_filling(const Tensor *input, const uint32_t strides[2]) {
    Tensor *result = static_cast<Tensor *>(std::calloc(1, sizeof(Tensor)));
    result->shape = zero_filled_shape(input->shape, strides);
    result->dtype = input->dtype;
    result->format = input->format;
    const uint64_t count = GetElemSize(&result->shape);
    result->data = static_cast<float *>(std::calloc(count > 0 ? count : 1, sizeof(float)));

    const uint64_t H = input->shape.dims[2];
    const uint64_t W = input->shape.dims[3];
    const uint64_t planes = static_cast<uint64_t>(input->shape.dims[0]) * input->shape.dims[1];
    const uint64_t Wz = result->shape.dims[3];
    const uint64_t plane_z = static_cast<uint64_t>(result->shape.dims[2]) * Wz;
    const uint64_t src_count = GetElemSize(&input->shape);
    // Guard: reads stop at the input's end and writes past the result are
    // dropped (shapes other than 4-D, or spreads that wrap in 32 bits).
    uint64_t src = 0;
    for (uint64_t p = 0; p < planes; ++p) {
        for (uint64_t r = 0; r < H; ++r) {
            for (uint64_t c = 0; c < W; ++c, ++src) {
                if (src >= src_count) return result;
                const uint64_t dst = p * plane_z + r * strides[0] * Wz + c * strides[1];
                if (dst < count) result->data[dst] = input->data[src];
            }
        }
    }
    return result;
}

NPU_API uint32_t conv_transpose_infershape(OperatorContext *handle) {
    TensorShape x_shape{};
    TensorShape w_shape{};
    uint32_t x_dtype = 0, x_format = 0, w_dtype = 0, w_format = 0;
    qv_kel_custom_get_input_shape_by_index(handle, 0, &x_shape);
    qv_kel_custom_get_input_dtype_by_index(handle, 0, &x_dtype);
    qv_kel_custom_get_input_format_by_index(handle, 0, &x_format);
    qv_kel_custom_get_input_shape_by_index(handle, 1, &w_shape);
    qv_kel_custom_get_input_dtype_by_index(handle, 1, &w_dtype);
    qv_kel_custom_get_input_format_by_index(handle, 1, &w_format);
    const uint32_t W = get_width(&x_shape, x_format);
    const uint32_t H = get_height(&x_shape, x_format);
    const uint32_t C = get_channel(&x_shape, x_format);
    const uint32_t N = get_batch(&x_shape, x_format);
    const uint32_t filter_channels = get_channel(&w_shape, w_format);
    const uint32_t filter_batch = get_batch(&w_shape, w_format);

    TransposeAttrs a;
    read_shape_attrs(handle, &a);
    Settings s = settings_of(a);

    if (a.has_group && a.group < 0) {
        NPU_ERROR("group number should >= 0 \n");
        return NPU_ERR_INVALID_ARG;
    }
    // A zero group counts the quotient as 0, leaving C itself as the remainder.
    if (a.has_group && C == filter_batch && (a.group != 0 ? C % a.group : C) != 0) {
        NPU_ERROR("Input channel is not divisible by group  \n");
        return NPU_ERR_INVALID_ARG;
    }
    if (C != filter_batch) {
        NPU_ERROR("Input batch not equal to filter channel \n");
        return NPU_ERR_INVALID_ARG;
    }
    const uint32_t limit_h = s.dilations[0] != 0 ? s.strides[0] / s.dilations[0] : 0;
    const uint32_t limit_w = s.dilations[1] != 0 ? s.strides[1] / s.dilations[1] : 0;
    if (!(s.output_padding[0] < limit_h && s.output_padding[1] < limit_w)) {
        NPU_ERROR("Each padding value in output_padding  must be less than the corresponding "
                  "stride/dilation  dimension .  \n");
        return NPU_ERR_INVALID_ARG;
    }

    read_pad_attrs(handle, &a);
    uint32_t out_h = 0;
    uint32_t out_w = 0;
    if (settle_pads(a, &s, H, W, w_shape, w_format, &out_h, &out_w) != NPU_OK) {
        NPU_ERROR("Process auto_pad fail \n");
        return NPU_FAIL;
    }

    TensorShape y{};
    y.dim_num = 4;
    y.dims[0] = N;
    y.dims[1] = filter_channels * static_cast<uint32_t>(a.group);
    y.dims[2] = out_h;
    y.dims[3] = out_w;
    npucpu::set_output_desc(handle, 0, y, x_dtype, x_format);
    return NPU_OK;
}

NPU_API uint32_t conv_transpose_check_supported(OperatorContext *handle) {
    uint32_t x_dtype = 0;
    uint32_t w_dtype = 0;
    qv_kel_custom_get_input_dtype_by_index(handle, 0, &x_dtype);
    qv_kel_custom_get_input_dtype_by_index(handle, 1, &w_dtype);
    if (x_dtype == NPU_DTYPE_FLOAT32) return w_dtype == NPU_DTYPE_FLOAT32 ? 1u : 0u;
    if (x_dtype == NPU_DTYPE_INT8 || x_dtype == NPU_DTYPE_UINT8) return w_dtype == NPU_DTYPE_INT32 ? 1u : 0u;
    return 0;
}

NPU_API uint32_t conv_transpose_compute(OperatorContext *handle) {
    const npucpu::TensorInfo x = npucpu::input_info(handle, 0);
    if (x.buf == nullptr) return NPU_ERR_INVALID_ARG;
    const npucpu::TensorInfo w = npucpu::input_info(handle, 1);
    const bool has_bias = npucpu::input_count(handle) > 2;
    npucpu::TensorInfo b;
    if (has_bias) b = npucpu::input_info(handle, 2);

    TransposeAttrs a;
    read_shape_attrs(handle, &a);
    read_pad_attrs(handle, &a);
    Settings s = settings_of(a);

    const npucpu::TensorInfo y = npucpu::output_info(handle, 0);
    if (y.buf == nullptr) return NPU_ERR_INVALID_ARG;

    uint32_t out_h = 0;
    uint32_t out_w = 0;
    if (settle_pads(a, &s, get_height(&x.shape, x.format), get_width(&x.shape, x.format), w.shape,
                    w.format, &out_h, &out_w) != NPU_OK) {
        NPU_ERROR("Process auto_pad fail \n");
        return NPU_FAIL;
    }

    // Guard: a group below 1 (or past 32 bits) gives no usable split count.
    if (a.group < 1 || a.group > static_cast<int64_t>(UINT32_MAX)) return NPU_ERR_INVALID_ARG;
    const uint32_t g = static_cast<uint32_t>(a.group);
    // Guard: more groups than input channels cannot divide them; the three
    // split-size arrays of g entries (and g pieces per split) could run to
    // gigabytes for a group near 2^31.
    if (g > 1 && g > x.shape.dims[1]) return NPU_ERR_INVALID_ARG;
    const uint32_t in_size = static_cast<uint32_t>(static_cast<int32_t>(x.shape.dims[1]) / a.group);
    const uint32_t filter_size = static_cast<uint32_t>(static_cast<int32_t>(w.shape.dims[0]) / a.group);
    const uint32_t out_size = static_cast<uint32_t>(static_cast<int32_t>(y.shape.dims[1]) / a.group);

    // Guards (nothing written, no message): a stride below 1, channel counts
    // not divisible by the group, filters whose dims[0] is not C or whose
    // dims[1] x group is not the output's channel count, a result plane
    // larger than the output plane, and any other configuration that would
    // take a kernel outside its buffers. They are skipped when a split is
    // going to fail with its own message.
    const bool splits_work = x.shape.dim_num > 1 && w.shape.dim_num > 0 &&
                             (!has_bias || b.shape.dim_num > 0) && y.shape.dim_num > 1;
    if (splits_work &&
        !groups_fit(x, w, has_bias ? &b : nullptr, y, a, s, in_size, filter_size, out_size)) {
        return NPU_ERR_INVALID_ARG;
    }

    // Guard: an input, filter, bias or output buffer holding fewer floats
    // than its shape (a data type narrower than float, such as the 8-bit
    // inputs check_supported accepts) would be read or written past its end:
    // nothing is written.
    const auto holds_floats = [](const npucpu::TensorInfo &t) {
        return t.buf_len / sizeof(float) >= npucpu::element_count(t.shape);
    };
    if (!holds_floats(x) || !holds_floats(w) || (has_bias && !holds_floats(b)) ||
        !holds_floats(y)) {
        return NPU_ERR_INVALID_ARG;
    }

    // The channels accumulate into the output, so it starts at zero.
    std::memset(y.buf, 0, y.buf_len);

    Tensor *X = npucpu::conv::wrap(x.shape, x.dtype, x.format, x.buf);
    Tensor *Wt = npucpu::conv::wrap(w.shape, w.dtype, w.format, w.buf);
    Tensor *B = has_bias ? npucpu::conv::wrap(b.shape, b.dtype, b.format, b.buf) : nullptr;
    Tensor *Y = npucpu::conv::wrap(y.shape, x.dtype, x.format, y.buf);

    uint32_t *in_sizes = static_cast<uint32_t *>(std::malloc(g * sizeof(uint32_t)));
    uint32_t *filter_sizes = static_cast<uint32_t *>(std::malloc(g * sizeof(uint32_t)));
    uint32_t *out_sizes = static_cast<uint32_t *>(std::malloc(g * sizeof(uint32_t)));
    fill_vec_uint32(in_sizes, in_size, g);
    fill_vec_uint32(filter_sizes, filter_size, g);
    fill_vec_uint32(out_sizes, out_size, g);

    TensorList *in_list = npucpu::conv::new_list();
    TensorList *filter_list = npucpu::conv::new_list();
    TensorList *bias_list = npucpu::conv::new_list();
    TensorList *out_list = npucpu::conv::new_list();

    uint32_t result = NPU_OK;
    if (split(X, 1, in_sizes, g, in_list) != NPU_OK) {
        NPU_ERROR("Split input fail \n");
        result = NPU_FAIL;
    } else if (split(Wt, 0, filter_sizes, g, filter_list) != NPU_OK) {
        NPU_ERROR("Split weight fail \n");
        result = NPU_FAIL;
    } else if (B != nullptr && split(B, 0, out_sizes, g, bias_list) != NPU_OK) {
        NPU_ERROR("Split weight fail \n");
        result = NPU_FAIL;
    } else if (split(Y, 1, out_sizes, g, out_list) != NPU_OK) {
        NPU_ERROR("Split output fail \n");
        result = NPU_FAIL;
    }

    if (result == NPU_OK) {
        const TensorList *in_node = in_list->next;
        const TensorList *filter_node = filter_list->next;
        const TensorList *bias_node = bias_list->next;
        const TensorList *out_node = out_list->next;
        for (uint32_t i = 0; i < g && result == NPU_OK; ++i) {
            result = compute_one_group(in_node->tensor, filter_node->tensor,
                                       B != nullptr ? bias_node->tensor : nullptr, out_node->tensor, s);
            in_node = in_node->next;
            filter_node = filter_node->next;
            if (B != nullptr) bias_node = bias_node->next;
            out_node = out_node->next;
        }
    }
    if (result == NPU_OK) {
        result = concat(out_list, g, 1, Y);
        if (result != NPU_OK) NPU_ERROR("Concat fail \n");
    }

    std::free(in_sizes);
    std::free(filter_sizes);
    std::free(out_sizes);
    free_tensor_not_in_buf(X);
    free_tensor_not_in_buf(Wt);
    free_tensor_not_in_buf(B);
    free_tensor_not_in_buf(Y);
    free_vec(in_list);
    free_vec(filter_list);
    free_vec(bias_list);
    free_vec(out_list);
    return result;
}

}  // extern "C"
