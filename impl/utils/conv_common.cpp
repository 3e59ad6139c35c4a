#include "conv_common.h"

#include <cstdlib>
#include <cstring>

#include "op_context.h"
#include "op_log.h"

namespace npucpu {
namespace conv {

void read_ints(OperatorContext *handle, const char *name, int64_t *dst, uint32_t n) {
    const AttrRecord *attr = qv_kel_custom_get_attr_by_name(handle, name);
    uint64_t size = 0;
    qv_kel_custom_get_attr_ints_size(attr, &size);
    for (uint32_t i = 0; i < n; ++i) qv_kel_custom_get_attr_ints_by_index(attr, i, &dst[i]);
}

void read_auto_pad(OperatorContext *handle, char (&auto_pad)[11]) {
    std::memset(auto_pad, 0, sizeof auto_pad);
    qv_kel_custom_get_attr_string(qv_kel_custom_get_attr_by_name(handle, "auto_pad"), auto_pad, 10);
}

Layout4 layout_dims(const TensorShape &shape, uint32_t format) {
    if (format == NPU_FORMAT_NCHW) return {shape.dims[0], shape.dims[1], shape.dims[2], shape.dims[3]};
    if (format == NPU_FORMAT_NHWC) return {shape.dims[0], shape.dims[3], shape.dims[1], shape.dims[2]};
    return {shape.dims[0], 0, 0, 0};
}

TensorShape with_dim(TensorShape shape, uint32_t axis, uint32_t value) {
    shape.dims[axis] = value;
    return shape;
}

TensorShape dilated_shape(TensorShape shape, uint32_t dilation_h, uint32_t dilation_w) {
    if (dilation_h + dilation_w == 0) dilation_h = dilation_w = 1;
    shape.dims[2] = (shape.dims[2] - 1) * dilation_h + 1;
    shape.dims[3] = (shape.dims[3] - 1) * dilation_w + 1;
    return shape;
}

TensorShape padded_shape(TensorShape shape, const uint32_t pads[4]) {
    shape.dims[2] += pads[0] + pads[2];
    shape.dims[3] += pads[1] + pads[3];
    return shape;
}

ColumnPlan plan_columns(const TensorShape &image, uint32_t image_format, const TensorShape &kernel,
                        uint32_t kernel_format, const uint32_t strides[2]) {
    const Layout4 im = layout_dims(image, image_format);
    const Layout4 k = layout_dims(kernel, kernel_format);
    const uint32_t out_h = (strides[0] != 0 ? (im.h - k.h) / strides[0] : 0) + 1;
    const uint32_t out_w = (strides[1] != 0 ? (im.w - k.w) / strides[1] : 0) + 1;
    ColumnPlan p;
    p.batches = im.n;
    p.positions = static_cast<uint32_t>(out_h * out_w);
    p.row_len = static_cast<uint32_t>(im.c * k.w * k.h);
    p.count = saturating_mul(saturating_mul(p.batches, p.positions), p.row_len);
    return p;
}

uint64_t saturating_mul(uint64_t a, uint64_t b) {
    if (a != 0 && b > UINT64_MAX / a) return UINT64_MAX;
    return a * b;
}

bool columns_fit(const ColumnPlan &cols) { return cols.count <= static_cast<uint64_t>(INT32_MAX); }

bool gemm_fits(const ColumnPlan &cols, const TensorShape &b, uint32_t b_format,
               const TensorShape &out, uint32_t out_format) {
    const uint64_t b_count = GetElemSize(&b);
    const uint64_t out_count = GetElemSize(&out);
    if (out_format == NPU_FORMAT_NCHW) {
        // Convolution mode: row i of batch n times filter row j, into
        // out[n * rows * filters + j * rows + i].
        const Layout4 f = layout_dims(b, b_format);
        if (cols.batches == 0 || cols.positions == 0 || f.h == 0) return true;
        if (static_cast<uint64_t>(f.h - 1) * f.w + cols.row_len > b_count) return false;
        return saturating_mul(saturating_mul(cols.batches, cols.positions), f.h) <= out_count;
    }
    if (out_format == NPU_FORMAT_MATRIX) {
        // Matrix mode: out (M x N) from a (M x K) and b (K x N), K = a's dims[1] = 1.
        const uint64_t M = out.dims[0];
        const uint64_t N = out.dims[1];
        if (M == 0 || N == 0) return true;
        const uint64_t a_alloc = cols.count > 0 ? cols.count : 1;
        return M <= a_alloc && N <= b_count && M * N <= out_count;
    }
    return true;  // gemm refuses every other layout before touching a buffer
}

bool reshape_fits(const TensorShape &from, const TensorShape &to) {
    return to.dim_num != 0 && GetElemSize(&from) == GetElemSize(&to);
}

Tensor *wrap(const TensorShape &shape, uint32_t dtype, uint32_t format, void *data) {
    Tensor *t = static_cast<Tensor *>(std::calloc(1, sizeof(Tensor)));
    t->shape = shape;
    t->dtype = dtype;
    t->format = format;
    t->data = static_cast<float *>(data);
    return t;
}

TensorList *new_list() { return static_cast<TensorList *>(std::calloc(1, sizeof(TensorList))); }

Tensor *list_at(const TensorList *list, uint32_t k) {
    const TensorList *node = list != nullptr ? list->next : nullptr;
    for (uint32_t i = 0; i < k && node != nullptr; ++i) node = node->next;
    return node != nullptr ? node->tensor : nullptr;
}

uint32_t run_groups(const TensorInfo &x, const TensorInfo &w, const TensorInfo *b,
                    const TensorInfo &y, uint32_t g, uint32_t in_size, uint32_t filter_size,
                    uint32_t out_size, const char *unit, const GroupFn &one_group) {
    Tensor *X = wrap(x.shape, x.dtype, x.format, x.buf);
    Tensor *Wt = wrap(w.shape, w.dtype, w.format, w.buf);
    Tensor *B = b != nullptr ? wrap(b->shape, b->dtype, b->format, b->buf) : nullptr;
    Tensor *Y = wrap(y.shape, x.dtype, x.format, y.buf);

    uint32_t *in_sizes = static_cast<uint32_t *>(std::malloc(g * sizeof(uint32_t)));
    uint32_t *filter_sizes = static_cast<uint32_t *>(std::malloc(g * sizeof(uint32_t)));
    uint32_t *out_sizes = static_cast<uint32_t *>(std::malloc(g * sizeof(uint32_t)));
    fill_vec_uint32(in_sizes, in_size, g);
    fill_vec_uint32(filter_sizes, filter_size, g);
    fill_vec_uint32(out_sizes, out_size, g);

    TensorList *in_list = new_list();
    TensorList *filter_list = new_list();
    TensorList *bias_list = new_list();
    TensorList *out_list = new_list();

    uint32_t result = NPU_OK;
    if (split(X, 1, in_sizes, g, in_list) != NPU_OK) {
        NPU_ERROR_AS(unit, "Split input fail \n");
        result = NPU_FAIL;
    } else if (split(Wt, 0, filter_sizes, g, filter_list) != NPU_OK) {
        NPU_ERROR_AS(unit, "Split weight fail \n");
        result = NPU_FAIL;
    } else if (B != nullptr && split(B, 0, out_sizes, g, bias_list) != NPU_OK) {
        NPU_ERROR_AS(unit, "Split weight fail \n");
        result = NPU_FAIL;
    } else if (split(Y, 1, out_sizes, g, out_list) != NPU_OK) {
        NPU_ERROR_AS(unit, "Split output fail \n");
        result = NPU_FAIL;
    }

    if (result == NPU_OK) {
        const TensorList *in_node = in_list->next;
        const TensorList *filter_node = filter_list->next;
        const TensorList *bias_node = bias_list->next;
        const TensorList *out_node = out_list->next;
        for (uint32_t i = 0; i < g && result == NPU_OK; ++i) {
            result = one_group(in_node->tensor, filter_node->tensor,
                               B != nullptr ? bias_node->tensor : nullptr, out_node->tensor);
            in_node = in_node->next;
            filter_node = filter_node->next;
            if (B != nullptr) bias_node = bias_node->next;
            out_node = out_node->next;
        }
    }
    if (result == NPU_OK) {
        result = concat(out_list, g, 1, Y);
        if (result != NPU_OK) NPU_ERROR_AS(unit, "Concat fail \n");
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

}  // namespace conv
}  // namespace npucpu
