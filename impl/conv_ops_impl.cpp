// conv: two-dimensional grouped, strided, dilated, padded convolution of an
// NCHW input with OIHW filters and an optional per-output-channel bias.
// Each group is padded, its filters are dilated by spreading them out, the
// padded input becomes a column matrix, and gemm's convolution mode
// multiplies the two into the group's output channels.
#include "utils/conv_common.h"

#include <cstdlib>
#include <cstring>

#include "npucpu.h"
#include "utils/dispatch.h"
#include "utils/fast_compute.h"
#include "utils/op_context.h"
#include "utils/op_log.h"

namespace {

using npucpu::conv::Layout4;

// Attributes of the operator with their defaults.
struct ConvAttrs {
    int64_t strides[2] = {1, 1};
    int64_t dilations[2] = {1, 1};
    int64_t pads[4] = {0, 0, 0, 0};
    int64_t group = 1;
    int64_t kernel_shape[2] = {1, 1};
    char auto_pad[11] = {};
};

void read_group(OperatorContext *handle, int64_t *group) {
    qv_kel_custom_get_attr_int(qv_kel_custom_get_attr_by_name(handle, "group"), group);
}

void to_u32(const int64_t *src, uint32_t *dst, uint32_t n) {
    for (uint32_t i = 0; i < n; ++i) dst[i] = static_cast<uint32_t>(src[i]);
}

// A value below 1, or one that is 0 once stored in 32 bits.
bool below_one(int64_t v) { return v < 1 || static_cast<uint32_t>(v) == 0; }

// Everything the literal computation of one group will touch, derived before
// anything is written. Returns false when compute must refuse the call.
bool groups_fit(const npucpu::TensorInfo &x, const npucpu::TensorInfo &w, const npucpu::TensorInfo *b,
                const npucpu::TensorInfo &y, const ConvAttrs &a, uint32_t in_size, uint32_t filter_size,
                uint32_t out_size, const uint32_t pads[4], const uint32_t dilations[2],
                const uint32_t strides[2]) {
    using namespace npucpu::conv;
    const uint64_t g = static_cast<uint64_t>(a.group);
    const uint64_t C = x.shape.dims[1];
    if (below_one(a.strides[0]) || below_one(a.strides[1])) return false;
    if (C % g != 0 || w.shape.dims[0] % g != 0 || y.shape.dims[1] % g != 0) return false;
    if (static_cast<uint64_t>(w.shape.dims[1]) * g != C) return false;

    // One group's pieces, as split makes them; the output record carries
    // input 0's layout code.
    const TensorShape in_piece = with_dim(x.shape, 1, in_size);
    const TensorShape filter_piece = with_dim(w.shape, 0, filter_size);
    const TensorShape out_piece = with_dim(y.shape, 1, out_size);
    if (b != nullptr && b->shape.dim_num > out_piece.dim_num) return false;  // no bias expansion
    const uint32_t out_format = x.format;
    if (out_format != NPU_FORMAT_NCHW && out_format != NPU_FORMAT_MATRIX) return true;

    const TensorShape padded = padded_shape(in_piece, pads);
    const TensorShape dilated = dilated_shape(filter_piece, dilations[0], dilations[1]);
    const Layout4 k = layout_dims(dilated, w.format);
    TensorShape matrix{};
    matrix.dim_num = 4;
    matrix.dims[0] = 1;
    matrix.dims[1] = 1;
    matrix.dims[2] = k.n;
    matrix.dims[3] = k.w * k.h * k.c;
    if (!reshape_fits(dilated, matrix)) return false;
    const ColumnPlan cols = plan_columns(padded, x.format, dilated, w.format, strides);
    if (!columns_fit(cols)) return false;
    if (!gemm_fits(cols, matrix, w.format, out_piece, out_format)) return false;
    // The result plane of the real filter may be smaller than the output
    // plane (it then fills the plane's start), never larger.
    if (out_format == NPU_FORMAT_NCHW &&
        cols.positions > static_cast<uint64_t>(y.shape.dims[2]) * y.shape.dims[3]) {
        return false;
    }
    return true;
}

// The fast path of compute: a direct convolution per image and group
// computing the same chains as the literal split / pad / dilate / im2col /
// gemm sequence. Taken only where it provably gives the same bits:
// four-dimensional NCHW operands of the usual convolution shapes, a 1-D bias
// of one value per output channel, pads from 0 to 65535, dilations both at
// least 1 (or both 0), a result plane equal to the output plane, buffers
// covering every shape, an output sharing no memory with an input, no NaN
// result (a NaN's payload could depend on operand order; a NaN that enters
// a chain, from an operand or made inside it, stays to the result) and,
// when the filter is dilated, a finite input (a skipped zero tap times an
// infinity would have made a NaN). Every output element is written; the bytes of the
// buffer past them are zero-filled as the literal path does.
// Returns false when the literal path must run.
bool fast_conv(const npucpu::TensorInfo &x, const npucpu::TensorInfo &w, const npucpu::TensorInfo *b,
               const npucpu::TensorInfo &y, const ConvAttrs &a, uint32_t g) {
    using namespace npucpu::fast;
    if (!npucpu::fast_paths_enabled()) return false;
    if (x.format != NPU_FORMAT_NCHW || w.format != NPU_FORMAT_NCHW) return false;
    if (x.shape.dim_num != 4 || w.shape.dim_num != 4 || y.shape.dim_num != 4) return false;
    for (int i = 0; i < 4; ++i)
        if (a.pads[i] < 0 || a.pads[i] > 65535) return false;
    int64_t dh = a.dilations[0], dw = a.dilations[1];
    if (dh == 0 && dw == 0) dh = dw = 1;
    if (dh < 1 || dw < 1 || dh > 65535 || dw > 65535) return false;
    if (a.strides[0] < 1 || a.strides[1] < 1 || a.strides[0] > 65535 || a.strides[1] > 65535) return false;
    const uint64_t N = x.shape.dims[0], C = x.shape.dims[1], H = x.shape.dims[2], W = x.shape.dims[3];
    const uint64_t M = w.shape.dims[0], Cg = w.shape.dims[1], kh = w.shape.dims[2], kw = w.shape.dims[3];
    if (C == 0 || M == 0 || kh == 0 || kw == 0 || N == 0) return false;
    if (Cg * g != C || M % g != 0 || y.shape.dims[0] != N || y.shape.dims[1] != M) return false;
    const uint64_t Hp = H + a.pads[0] + a.pads[2], Wp = W + a.pads[1] + a.pads[3];
    const uint64_t kh_eff = (kh - 1) * dh + 1, kw_eff = (kw - 1) * dw + 1;
    if (Hp < kh_eff || Wp < kw_eff || Hp > 65535 || Wp > 65535 || kh_eff > 65535 || kw_eff > 65535) return false;
    const uint64_t OH = (Hp - kh_eff) / a.strides[0] + 1, OW = (Wp - kw_eff) / a.strides[1] + 1;
    if (y.shape.dims[2] != OH || y.shape.dims[3] != OW) return false;
    const uint64_t limit = uint64_t{1} << 30;
    const uint64_t x_n = N * C * H * W, w_n = M * Cg * kh * kw, y_n = N * M * OH * OW;
    // The scratch copy (and its offsets, 32-bit) of one group's padded input.
    if (x_n > limit || w_n > limit || y_n > limit || Cg * Hp * (Wp + 64 * a.strides[1]) > limit) return false;
    if (x.buf_len / sizeof(float) < x_n || w.buf_len / sizeof(float) < w_n || y.buf_len / sizeof(float) < y_n) {
        return false;
    }
    const float *bias = nullptr;
    if (b != nullptr) {
        if (b->shape.dim_num != 1 || b->shape.dims[0] != M || b->buf == nullptr ||
            b->buf_len / sizeof(float) < M) {
            return false;
        }
        bias = static_cast<const float *>(b->buf);
    }
    if (overlaps(y.buf, y.buf_len, x.buf, x_n * sizeof(float)) ||
        overlaps(y.buf, y.buf_len, w.buf, w_n * sizeof(float)) ||
        (bias != nullptr && overlaps(y.buf, y.buf_len, bias, M * sizeof(float)))) {
        return false;
    }
    const float *X = static_cast<const float *>(x.buf);
    const float *Wt = static_cast<const float *>(w.buf);
    // The kernel checks the input for infinities as it copies it when the
    // filter is dilated, and refuses NaN results.
    const bool dilated = (dh > 1 && kh > 1) || (dw > 1 && kw > 1);

    const uint64_t y_bytes = y_n * sizeof(float);
    if (y.buf_len > y_bytes) std::memset(static_cast<char *>(y.buf) + y_bytes, 0, y.buf_len - y_bytes);
    const uint64_t Mg = M / g;
    for (uint64_t n = 0; n < N; ++n) {
        ConvArgs c;
        c.x = X + n * C * H * W;
        c.C = Cg;
        c.H = H;
        c.W = W;
        c.x_row_stride = W;
        c.x_plane_stride = H * W;
        c.groups = g;
        c.refuse_input = dilated ? 2 : 0;
        c.refuse_nan_result = true;
        c.x_group_stride = Cg * H * W;
        c.y_group_stride = Mg * OH * OW;
        for (int i = 0; i < 4; ++i) c.pads[i] = static_cast<size_t>(a.pads[i]);
        c.w = Wt;
        c.M = Mg;
        c.kh = kh;
        c.kw = kw;
        c.sh = static_cast<size_t>(a.strides[0]);
        c.sw = static_cast<size_t>(a.strides[1]);
        c.dh = static_cast<size_t>(dh);
        c.dw = static_cast<size_t>(dw);
        c.bias = bias;
        c.y = static_cast<float *>(y.buf) + n * M * OH * OW;
        c.OH = OH;
        c.OW = OW;
        if (!conv_f32(c)) return false;
    }
    return true;
}

}  // namespace

extern "C" {

NPU_API Tensor *do_dilation_conv(const Tensor *filter, uint32_t dilations[2]) {
    if (dilations[0] + dilations[1] == 0) {
        dilations[0] = 1;
        dilations[1] = 1;
    }
    const uint32_t dh = dilations[0];
    const uint32_t dw = dilations[1];
    Tensor *result = static_cast<Tensor *>(std::calloc(1, sizeof(Tensor)));
    result->shape = npucpu::conv::dilated_shape(filter->shape, dh, dw);
    result->dtype = filter->dtype;
    result->format = filter->format;
    const uint64_t count = GetElemSize(&result->shape);
    result->data = static_cast<float *>(std::calloc(count > 0 ? count : 1, sizeof(float)));

    const Layout4 f = npucpu::conv::layout_dims(filter->shape, filter->format);
    const Layout4 d = npucpu::conv::layout_dims(result->shape, result->format);
    const uint64_t plane = static_cast<uint64_t>(d.w) * d.h;
    const uint64_t src_count = GetElemSize(&filter->shape);
    // Guard: reads stop at the filter's end and writes that would land past
    // the result are dropped (dims other than NCHW, or dilations whose
    // spread wraps in 32 bits).
    uint64_t src = 0;
    for (uint64_t n = 0; n < f.n; ++n) {
        for (uint64_t c = 0; c < f.c; ++c) {
            for (uint64_t r = 0; r < f.h; ++r) {
                for (uint64_t s = 0; s < f.w; ++s, ++src) {
                    if (src >= src_count) return result;
                    const uint64_t dst = n * d.c * plane + c * plane + r * dh * d.w + s * dw;
                    if (dst < count) result->data[dst] = filter->data[src];
                }
            }
        }
    }
    return result;
}

NPU_API uint32_t compute_one_group_conv(const Tensor *input, const Tensor *filter, const Tensor *bias,
                                        Tensor *output, uint32_t dilations[2], const uint32_t pads[4],
                                        const uint32_t strides[2]) {
    Tensor *padded = do_padding(input, pads, 0.0f);
    Tensor *dilated = do_dilation_conv(filter, dilations);
    const uint32_t kW = get_width(&dilated->shape, dilated->format);
    const uint32_t kH = get_height(&dilated->shape, dilated->format);
    const uint32_t kC = get_channel(&dilated->shape, dilated->format);
    const uint32_t kN = get_batch(&dilated->shape, dilated->format);
    TensorShape rows{};
    rows.dim_num = 4;
    rows.dims[0] = 1;
    rows.dims[1] = 1;
    rows.dims[2] = kN;
    rows.dims[3] = kW * kH * kC;
    Tensor *filters2d = reshape(dilated, dilated->format, &rows);
    Tensor *columns = img_2_col(padded, dilated, strides);
    free_tensor(padded);
    free_tensor(dilated);

    // Guard: gemm's convolution and matrix modes read both matrices; when
    // either could not be made, nothing more is written.
    const bool reads = output->format == NPU_FORMAT_NCHW || output->format == NPU_FORMAT_MATRIX;
    if (reads && (columns == nullptr || filters2d == nullptr)) {
        free_tensor(columns);
        free_tensor(filters2d);
        return NPU_ERR_INVALID_ARG;
    }

    uint32_t result = NPU_OK;
    if (bias == nullptr) {
        (void)gemm(columns, filters2d, nullptr, output);  // the status is deliberately not used
    } else {
        Tensor *temp = static_cast<Tensor *>(std::calloc(1, sizeof(Tensor)));
        temp->shape = output->shape;
        temp->dtype = output->dtype;
        temp->format = output->format;
        const uint32_t count = GetElemSize(&output->shape);
        temp->data = static_cast<float *>(std::calloc(count > 0 ? count : 1, sizeof(float)));
        (void)gemm(columns, filters2d, nullptr, temp);
        Tensor *expanded = broadcast_bias(bias, temp);
        if (expanded == nullptr) {
            // Guard: a bias of more dims than the output cannot be expanded.
            result = NPU_ERR_INVALID_ARG;
        } else {
            result = add(temp, expanded, output);
            if (result != NPU_OK) NPU_ERROR("Add fail \n");
        }
        free_tensor(temp);
        free_tensor(expanded);
    }
    free_tensor(columns);
    free_tensor(filters2d);
    return result;
}

NPU_API uint32_t conv_infershape(OperatorContext *handle) {
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

    ConvAttrs a;
    npucpu::conv::read_ints(handle, "strides", a.strides, 2);
    read_group(handle, &a.group);
    npucpu::conv::read_ints(handle, "dilations", a.dilations, 2);
    npucpu::conv::read_ints(handle, "kernel_shape", a.kernel_shape, 2);
    npucpu::conv::read_auto_pad(handle, a.auto_pad);
    npucpu::conv::read_ints(handle, "pads", a.pads, 4);
    uint32_t strides[2], dilations[2], kernel[2], pads[4];
    to_u32(a.strides, strides, 2);
    to_u32(a.dilations, dilations, 2);
    to_u32(a.kernel_shape, kernel, 2);
    to_u32(a.pads, pads, 4);

    // The kernel size comes from kernel_shape only, never from the filters.
    const uint32_t kh_eff = dilations[0] * (kernel[0] - 1) + 1;
    const uint32_t kw_eff = dilations[1] * (kernel[1] - 1) + 1;
    uint32_t out_h = 0;
    uint32_t out_w = 0;
    if (process_auto_pad_mode(a.auto_pad, H, W, strides[0], strides[1], kh_eff, kw_eff, pads, 0,
                              &out_h, &out_w) != NPU_OK) {
        NPU_ERROR("Process auto_pad fail \n");
        return NPU_FAIL;
    }

    TensorShape y{};
    y.dim_num = x_shape.dim_num;
    y.dims[0] = get_batch(&x_shape, x_format);
    y.dims[1] = get_batch(&w_shape, w_format);
    y.dims[2] = out_h;
    y.dims[3] = out_w;
    for (uint32_t k = 4; k < y.dim_num && k < NPU_MAX_DIMS; ++k) y.dims[k] = 1;
    npucpu::set_output_desc(handle, 0, y, x_dtype, x_format);
    return NPU_OK;
}

NPU_API uint32_t conv_check_supported(OperatorContext *handle) {
    uint32_t x_dtype = 0;
    qv_kel_custom_get_input_dtype_by_index(handle, 0, &x_dtype);
    if (x_dtype != NPU_DTYPE_FLOAT32) return 0;

    ConvAttrs a;
    npucpu::conv::read_ints(handle, "strides", a.strides, 2);
    npucpu::conv::read_ints(handle, "dilations", a.dilations, 2);
    npucpu::conv::read_ints(handle, "pads", a.pads, 4);
    read_group(handle, &a.group);
    uint32_t strides[2], dilations[2], pads[4];
    to_u32(a.strides, strides, 2);
    to_u32(a.dilations, dilations, 2);
    to_u32(a.pads, pads, 4);
    const uint32_t pad_h = pads[0] + pads[2];
    const uint32_t pad_w = pads[1] + pads[3];

    TensorShape x_shape{};
    TensorShape w_shape{};
    qv_kel_custom_get_input_shape_by_index(handle, 0, &x_shape);
    qv_kel_custom_get_input_shape_by_index(handle, 1, &w_shape);
    const uint32_t N = x_shape.dims[0];
    const int32_t C = static_cast<int32_t>(x_shape.dims[1]);
    const uint32_t H = x_shape.dims[2];
    const uint32_t W = x_shape.dims[3];
    const uint32_t kh_eff = (w_shape.dims[2] - 1) * dilations[0] + 1;
    const uint32_t kw_eff = (w_shape.dims[3] - 1) * dilations[1] + 1;
    const uint32_t out_h = (strides[0] != 0 ? (H - kh_eff + pad_h) / strides[0] : 0) + 1;
    const uint32_t out_w = (strides[1] != 0 ? (W - kw_eff + pad_w) / strides[1] : 0) + 1;

    const uint32_t per_group = a.group != 0 ? static_cast<uint32_t>(C / a.group) : 0;
    const uint32_t rows = out_h * out_w * N;
    const uint32_t width = kh_eff * kw_eff * per_group;
    if (static_cast<uint64_t>(rows) * width <= 0xFFFFFFFFull) return 1;
    NPU_ERROR("Not support shape elems multiply size exceeds UINT32_MAX \n");
    return 0;
}

NPU_API uint32_t conv_compute(OperatorContext *handle) {
    const npucpu::TensorInfo x = npucpu::input_info(handle, 0);
    if (x.buf == nullptr) return NPU_ERR_INVALID_ARG;
    const npucpu::TensorInfo w = npucpu::input_info(handle, 1);
    const bool has_bias = npucpu::input_count(handle) > 2;
    npucpu::TensorInfo b;
    if (has_bias) b = npucpu::input_info(handle, 2);

    ConvAttrs a;
    npucpu::conv::read_ints(handle, "strides", a.strides, 2);
    npucpu::conv::read_ints(handle, "dilations", a.dilations, 2);
    npucpu::conv::read_ints(handle, "pads", a.pads, 4);
    read_group(handle, &a.group);
    npucpu::conv::read_auto_pad(handle, a.auto_pad);  // read, and deliberately not applied
    uint32_t strides[2], dilations[2], pads[4];
    to_u32(a.strides, strides, 2);
    to_u32(a.dilations, dilations, 2);
    to_u32(a.pads, pads, 4);

    const npucpu::TensorInfo y = npucpu::output_info(handle, 0);
    if (y.buf == nullptr) return NPU_ERR_INVALID_ARG;

    // Guard: a group below 1 (or past 32 bits) gives no usable split count.
    if (a.group < 1 || a.group > static_cast<int64_t>(UINT32_MAX)) return NPU_ERR_INVALID_ARG;
    const uint32_t g = static_cast<uint32_t>(a.group);
    // Guard: more groups than input channels cannot divide them; the three
    // split-size arrays of g entries (and g pieces per split) could run to
    // gigabytes for a group near 2^31.
    if (g > 1 && g > x.shape.dims[1]) return NPU_ERR_INVALID_ARG;
    // Split sizes: signed quotients.
    const uint32_t in_size = static_cast<uint32_t>(static_cast<int32_t>(x.shape.dims[1]) / a.group);
    const uint32_t filter_size = static_cast<uint32_t>(static_cast<int32_t>(w.shape.dims[0]) / a.group);
    const uint32_t out_size = static_cast<uint32_t>(static_cast<int32_t>(y.shape.dims[1]) / a.group);

    // Guards (nothing written, no message): a stride below 1, channel counts
    // not divisible by the group, filters whose dims[1] x group is not C,
    // a result plane larger than the output plane, and any other
    // configuration that would take a kernel outside its buffers. They are
    // skipped when a split is going to fail with its own message.
    const bool splits_work = x.shape.dim_num > 1 && w.shape.dim_num > 0 &&
                             (!has_bias || b.shape.dim_num > 0) && y.shape.dim_num > 1;
    if (splits_work && !groups_fit(x, w, has_bias ? &b : nullptr, y, a, in_size, filter_size, out_size,
                                   pads, dilations, strides)) {
        return NPU_ERR_INVALID_ARG;
    }

    // Guard: an input, filter, bias or output buffer holding fewer floats
    // than its shape (a data type narrower than float, such as the 8-bit
    // inputs check_supported refuses) would be read or written past its end:
    // nothing is written.
    const auto holds_floats = [](const npucpu::TensorInfo &t) {
        return t.buf_len / sizeof(float) >= npucpu::element_count(t.shape);
    };
    if (!holds_floats(x) || !holds_floats(w) || (has_bias && !holds_floats(b)) ||
        !holds_floats(y)) {
        return NPU_ERR_INVALID_ARG;
    }

    // The groups accumulate into the output, so it starts at zero.
    if (fast_conv(x, w, has_bias ? &b : nullptr, y, a, g)) return NPU_OK;
    std::memset(y.buf, 0, y.buf_len);

    return npucpu::conv::run_groups(
        x, w, has_bias ? &b : nullptr, y, g, in_size, filter_size, out_size, __FILE__,
        [&](const Tensor *in, const Tensor *filter, const Tensor *bias, Tensor *out) {
            return compute_one_group_conv(in, filter, bias, out, dilations, pads, strides);
        });
}

}  // extern "C"
