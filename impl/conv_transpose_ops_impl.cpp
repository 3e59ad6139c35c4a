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
#include "utils/dispatch.h"
#include "utils/fast_compute.h"
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
    // A filter plane without taps (height or width 0) makes (size - 1) x
    // dilation wrap below zero: the spread input would be padded to dims
    // near 2^32 (up to 16 GiB, filled) for an output that only receives the
    // bias. Such a filter convolves nothing; it is refused unless the output
    // is empty, where nothing is padded anyway.
    if ((f.h == 0 || f.w == 0) && npucpu::element_count(y.shape) != 0) return false;
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
    const uint32_t K = get_channel(&output->shape, output->format);
    // Guard: no output channel to give a slice to (a division by zero).
    if (K == 0) return NPU_ERR_INVALID_ARG;
    // Guard: an output that holds no element has nothing to compute. Checked
    // before the input is spread and padded: beside a zero dim the other
    // dims may have wrapped near 2^32, and the padded input (like the
    // per-channel arrays) could ask for many gigabytes, all unused.
    if (GetElemSize(&output->shape) == 0) return NPU_OK;

    Tensor *spread = do_zero_filling(input, s.strides);
    uint32_t conv_pads[4];
    convolution_pads(get_height(&filter->shape, filter->format), get_width(&filter->shape, filter->format),
                     s, conv_pads);
    Tensor *padded = do_padding(spread, conv_pads, 0.0f);
    free_tensor(spread);

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

// ---- Fast path ----------------------------------------------------------
//
// Output pixel (oy, ox) of the literal computation is the chain over
// (c, r, s) of the padded spread input at (oy + r, ox + s) times the
// reversed dilated filter at (r, s). Only taps whose row r lands on a real
// input row (oy + r - top a multiple of the stride) and on a real filter row
// ((khd - 1 - r) a multiple of the dilation) can be non-zero, and for all
// outputs of one phase (oy mod stride) they are the same arithmetic run of
// r. Each phase is therefore an ordinary stride-1 convolution of the input
// with a sub-filter, in the literal tap order; the skipped taps multiply an
// exact zero by a finite value, which only changes the sign of a zero chain
// that the final + 0.0f makes +0.0 anyway.

// The taps r in [0, kd) with (r + phase - top) a multiple of stride and
// (kd - 1 - r) a multiple of dilation: count, first, step (in r).
struct TapRun {
    int64_t count = 0, first = 0, step = 1;
};

TapRun tap_run(int64_t kd, int64_t phase, int64_t top, int64_t stride, int64_t dilation) {
    TapRun t;
    int64_t prev = -1;
    for (int64_t r = 0; r < kd; ++r) {
        const int64_t q = r + phase - top;
        if (((q % stride) + stride) % stride != 0 || (kd - 1 - r) % dilation != 0) continue;
        if (t.count == 0) t.first = r;
        if (t.count == 1) t.step = r - prev;
        prev = r;
        ++t.count;
    }
    return t;
}

// Input offset (in the unspread input) of the first tap, for output phase
// index 0: (phase + first - top) / stride, an exact division.
int64_t first_offset(const TapRun &t, int64_t phase, int64_t top, int64_t stride) {
    return (phase + t.first - top) / stride;
}

// The part of the fast path's work that needs scratch: packed weights of
// one phase and, at strides above 1, one phase's output.
struct FastScratch {
    float *w = nullptr;
    float *out = nullptr;
    ~FastScratch() {
        std::free(w);
        std::free(out);
    }
};

// Taken only where it gives the literal bits: NCHW four-dimensional operands
// of the usual shapes, a 1-D bias of one value per output channel, strides,
// dilations, pads and output paddings from 1 (strides, dilations) or 0 up to
// 65535, non-negative padding of the spread input, a result plane equal to
// the output plane, buffers covering the shapes, an output sharing no
// memory with an input, no NaN result, and finite inputs and filters
// whenever a stride or dilation above 1 makes the literal path multiply
// spread zeros.
// Every output element is written; the bytes of the buffer past them are
// zero-filled as the literal path does. Returns false when the literal path
// must run.
bool fast_conv_transpose(const npucpu::TensorInfo &x, const npucpu::TensorInfo &w, const npucpu::TensorInfo *b,
                         const npucpu::TensorInfo &y, const TransposeAttrs &a, const Settings &st, uint32_t g) {
    using namespace npucpu::fast;
    if (!npucpu::fast_paths_enabled()) return false;
    if (x.format != NPU_FORMAT_NCHW || w.format != NPU_FORMAT_NCHW) return false;
    if (x.shape.dim_num != 4 || w.shape.dim_num != 4 || y.shape.dim_num != 4) return false;
    for (int i = 0; i < 2; ++i) {
        if (a.strides[i] < 1 || a.strides[i] > 65535 || a.dilations[i] < 1 || a.dilations[i] > 65535) return false;
        if (a.output_padding[i] < 0 || a.output_padding[i] > 65535) return false;
    }
    for (int i = 0; i < 4; ++i)
        if (st.pads[i] > 65535) return false;
    const int64_t sh = st.strides[0], sw = st.strides[1], dh = st.dilations[0], dw = st.dilations[1];
    const uint64_t N = x.shape.dims[0], C = x.shape.dims[1], H = x.shape.dims[2], W = x.shape.dims[3];
    const uint64_t Mg = w.shape.dims[1], kh = w.shape.dims[2], kw = w.shape.dims[3];
    const uint64_t M = Mg * g;
    if (N == 0 || C == 0 || H == 0 || W == 0 || Mg == 0 || kh == 0 || kw == 0) return false;
    if (w.shape.dims[0] != C || C % g != 0 || y.shape.dims[0] != N || y.shape.dims[1] != M) return false;
    if (H > 65535 || W > 65535 || kh > 65535 || kw > 65535) return false;
    const int64_t khd = (static_cast<int64_t>(kh) - 1) * dh + 1, kwd = (static_cast<int64_t>(kw) - 1) * dw + 1;
    const int64_t top = khd - 1 - st.pads[0], left = kwd - 1 - st.pads[1];
    const int64_t bottom = khd - 1 - st.pads[2] + st.output_padding[0];
    const int64_t right = kwd - 1 - st.pads[3] + st.output_padding[1];
    if (top < 0 || left < 0 || bottom < 0 || right < 0) return false;  // negative internal pads
    const int64_t Hpad = static_cast<int64_t>(H - 1) * sh + 1 + top + bottom;
    const int64_t Wpad = static_cast<int64_t>(W - 1) * sw + 1 + left + right;
    if (Hpad < khd || Wpad < kwd) return false;
    const int64_t OH = Hpad - khd + 1, OW = Wpad - kwd + 1;
    if (static_cast<int64_t>(y.shape.dims[2]) != OH || static_cast<int64_t>(y.shape.dims[3]) != OW) return false;
    const uint64_t limit = uint64_t{1} << 30;
    const uint64_t x_n = N * C * H * W, w_n = C * Mg * kh * kw, y_n = N * M * OH * OW;
    if (x_n > limit || w_n > limit || y_n > limit || OH > 65535 || OW > 65535) return false;
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
    const bool skips = sh > 1 || sw > 1 || dh > 1 || dw > 1;
    // A NaN result makes the kernel refuse (see conv); with skips a pixel
    // or a filter value may be met by zero taps only, so both must be finite.
    if (skips && (any_non_finite(Wt, w_n) || any_non_finite(X, x_n))) return false;

    const uint64_t y_bytes = y_n * sizeof(float);
    if (y.buf_len > y_bytes) std::memset(static_cast<char *>(y.buf) + y_bytes, 0, y.buf_len - y_bytes);
    const uint64_t Cg = C / g;
    const uint64_t OHp_max = (OH + sh - 1) / sh, OWp_max = (OW + sw - 1) / sw;
    FastScratch scratch;
    scratch.w = static_cast<float *>(std::malloc(Mg * Cg * kh * kw * sizeof(float)));
    if (scratch.w == nullptr) return false;
    if (sh > 1 || sw > 1) {
        scratch.out = static_cast<float *>(std::malloc(Mg * OHp_max * OWp_max * sizeof(float)));
        if (scratch.out == nullptr) return false;
    }
    float *Y = static_cast<float *>(y.buf);
    for (int64_t py = 0; py < sh && py < OH; ++py) {
        const TapRun rr = tap_run(khd, py, top, sh, dh);
        const int64_t OHp = (OH - py + sh - 1) / sh;
        for (int64_t px = 0; px < sw && px < OW; ++px) {
            const TapRun rs = tap_run(kwd, px, left, sw, dw);
            const int64_t OWp = (OW - px + sw - 1) / sw;
            for (uint64_t gi = 0; gi < g; ++gi) {
                // Sub-filter of this phase, [Mg][Cg][nR][nS], in tap order.
                const uint64_t nR = rr.count, nS = rs.count;
                for (uint64_t m = 0; m < Mg; ++m)
                    for (uint64_t c = 0; c < Cg; ++c)
                        for (uint64_t i = 0; i < nR; ++i)
                            for (uint64_t j = 0; j < nS; ++j) {
                                const uint64_t kr = (khd - 1 - (rr.first + i * rr.step)) / dh;
                                const uint64_t ks = (kwd - 1 - (rs.first + j * rs.step)) / dw;
                                scratch.w[((m * Cg + c) * nR + i) * nS + j] =
                                    Wt[(((gi * Cg + c) * Mg + m) * kh + kr) * kw + ks];
                            }
                for (uint64_t n = 0; n < N; ++n) {
                    const bool direct = sh == 1 && sw == 1;
                    float *out = direct ? Y + (n * M + gi * Mg) * OH * OW : scratch.out;
                    const float *bias_g = bias != nullptr ? bias + gi * Mg : nullptr;
                    if (nR == 0 || nS == 0) {
                        // No tap reaches the input: (+0.0f + a chain of zeros) [+ bias].
                        for (uint64_t m = 0; m < Mg; ++m)
                            for (int64_t q = 0; q < OHp * OWp; ++q)
                                out[m * OHp * OWp + q] = bias_g != nullptr ? 0.0f + bias_g[m] : 0.0f;
                    } else {
                        const int64_t oy0 = first_offset(rr, py, top, sh), ox0 = first_offset(rs, px, left, sw);
                        // A single tap has no spacing; 1 keeps the kernel's arithmetic plain.
                        const int64_t DH = rr.count > 1 ? rr.step / sh : 1, DW = rs.count > 1 ? rs.step / sw : 1;
                        ConvArgs c;
                        const float *xg = X + (n * C + gi * Cg) * H * W;
                        // Rows from oy0 on (padding above when negative), enough below.
                        const int64_t skip_r = oy0 > 0 ? oy0 : 0, skip_c = ox0 > 0 ? ox0 : 0;
                        const int64_t h_avail = static_cast<int64_t>(H) > skip_r ? H - skip_r : 0;
                        const int64_t w_avail = static_cast<int64_t>(W) > skip_c ? W - skip_c : 0;
                        const int64_t pt = oy0 < 0 ? -oy0 : 0, pl = ox0 < 0 ? -ox0 : 0;
                        const int64_t need_h = OHp + (static_cast<int64_t>(nR) - 1) * DH;
                        const int64_t need_w = OWp + (static_cast<int64_t>(nS) - 1) * DW;
                        c.x = xg + (h_avail > 0 ? skip_r * W : 0) + (w_avail > 0 ? skip_c : 0);
                        c.C = Cg;
                        c.H = static_cast<size_t>(h_avail < need_h ? h_avail : need_h);
                        c.W = static_cast<size_t>(w_avail < need_w ? w_avail : need_w);
                        c.x_row_stride = W;
                        c.x_plane_stride = H * W;
                        c.groups = 1;
                        c.refuse_input = 0;
                        c.refuse_nan_result = true;
                        c.x_group_stride = 0;
                        c.y_group_stride = 0;
                        c.pads[0] = static_cast<size_t>(pt);
                        c.pads[1] = static_cast<size_t>(pl);
                        c.pads[2] = static_cast<size_t>(need_h - pt - static_cast<int64_t>(c.H) > 0
                                                            ? need_h - pt - static_cast<int64_t>(c.H)
                                                            : 0);
                        c.pads[3] = static_cast<size_t>(need_w - pl - static_cast<int64_t>(c.W) > 0
                                                            ? need_w - pl - static_cast<int64_t>(c.W)
                                                            : 0);
                        if (pt > need_h) c.H = 0;
                        if (pl > need_w) c.W = 0;
                        c.w = scratch.w;
                        c.M = Mg;
                        c.kh = nR;
                        c.kw = nS;
                        c.sh = 1;
                        c.sw = 1;
                        c.dh = static_cast<size_t>(DH);
                        c.dw = static_cast<size_t>(DW);
                        c.bias = bias_g;
                        c.y = out;
                        c.OH = static_cast<size_t>(OHp);
                        c.OW = static_cast<size_t>(OWp);
                        if (!conv_f32(c)) return false;
                    }
                    if (!direct) {
                        for (uint64_t m = 0; m < Mg; ++m) {
                            float *plane = Y + (n * M + gi * Mg + m) * OH * OW;
                            const float *src = out + m * OHp * OWp;
                            for (int64_t ty = 0; ty < OHp; ++ty)
                                for (int64_t tx = 0; tx < OWp; ++tx)
                                    plane[(py + ty * sh) * OW + px + tx * sw] = src[ty * OWp + tx];
                        }
                    }
                }
            }
        }
    }
    return true;
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
    if (fast_conv_transpose(x, w, has_bias ? &b : nullptr, y, a, s, g)) return NPU_OK;
    std::memset(y.buf, 0, y.buf_len);

    return npucpu::conv::run_groups(
        x, w, has_bias ? &b : nullptr, y, g, in_size, filter_size, out_size, __FILE__,
        [&](const Tensor *in, const Tensor *filter, const Tensor *bias, Tensor *out) {
            return compute_one_group(in, filter, bias, out, s);
        });
}

}  // extern "C"
