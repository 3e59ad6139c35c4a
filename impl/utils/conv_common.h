// Pieces shared by the convolution and transposed-convolution operators:
// attribute reading in the operators' style, and the sizes their kernels
// will work with, derived the way the kernels derive them, so that compute
// can refuse a configuration that would take a kernel outside its buffers
// before anything is written.
#ifndef NPUCPU_IMPL_UTILS_CONV_COMMON_H
#define NPUCPU_IMPL_UTILS_CONV_COMMON_H

#include <cstdint>
#include <functional>

#include "npucpu.h"
#include "op_context.h"

namespace npucpu {
namespace conv {

// Reads the first n values of the ints attribute `name` over the defaults
// already in dst: the element count is fetched but not checked, and each
// value is read by index (an absent or short attribute keeps the defaults).
void read_ints(OperatorContext *handle, const char *name, int64_t *dst, uint32_t n);

// Reads the string attribute `name` into a 10-byte zero-filled buffer (plus
// the terminator); an absent attribute leaves it empty.
void read_auto_pad(OperatorContext *handle, char (&auto_pad)[11]);

// The four sizes of a spatial shape under a layout code, as get_batch,
// get_channel, get_height and get_width give them but without their message
// for an unknown layout (where channel, height and width are 0).
struct Layout4 {
    uint32_t n, c, h, w;
};
Layout4 layout_dims(const TensorShape &shape, uint32_t format);

// shape with dims[axis] replaced, as split shapes its pieces.
TensorShape with_dim(TensorShape shape, uint32_t axis, uint32_t value);

// Spreads dims[2] and dims[3] by the dilations, as the kernel dilation does
// (dilations both 0 count as 1, 1).
TensorShape dilated_shape(TensorShape shape, uint32_t dilation_h, uint32_t dilation_w);

// Grows dims[2] and dims[3] by the pads, as do_padding does.
TensorShape padded_shape(TensorShape shape, const uint32_t pads[4]);

// a * b, or UINT64_MAX when that does not fit.
uint64_t saturating_mul(uint64_t a, uint64_t b);

// The column matrix img_2_col builds for image and kernel at strides.
struct ColumnPlan {
    uint64_t batches;    // image batch count
    uint64_t positions;  // rows per batch: out_h * out_w in 32 bits
    uint64_t row_len;    // values per row: C * kW * kH in 32 bits
    uint64_t count;      // batches * positions * row_len, saturating
};
ColumnPlan plan_columns(const TensorShape &image, uint32_t image_format, const TensorShape &kernel,
                        uint32_t kernel_format, const uint32_t strides[2]);

// True when img_2_col builds that column matrix (its 32-bit element count
// neither wraps nor turns negative).
bool columns_fit(const ColumnPlan &cols);

// True when gemm(columns, b, none, out) stays inside the column matrix, the
// filter matrix b and out, for out's layout code.
bool gemm_fits(const ColumnPlan &cols, const TensorShape &b, uint32_t b_format,
               const TensorShape &out, uint32_t out_format);

// True when reshape from `from` to `to` succeeds (equal 32-bit counts).
bool reshape_fits(const TensorShape &from, const TensorShape &to);

// A borrowing Tensor record (released with free_tensor_not_in_buf).
Tensor *wrap(const TensorShape &shape, uint32_t dtype, uint32_t format, void *data);

// A new list head with no tensors (released with free_vec).
TensorList *new_list();

// The tensor of node k after the head, or null.
Tensor *list_at(const TensorList *list, uint32_t k);

// One group's computation: input piece, filter piece, bias piece (or null),
// output piece.
using GroupFn = std::function<uint32_t(const Tensor *, const Tensor *, const Tensor *, Tensor *)>;

// The group walk both operators share: splits the input (axis 1), the
// filters (axis 0), the bias (axis 0) and the output (axis 1) into g pieces
// of the given sizes, runs one_group on each group in order until one fails,
// then concatenates the output pieces back into the output. Split and concat
// failures print their messages as `unit` and give 0xFFFFFFFF. Everything it
// allocates is released on every path.
uint32_t run_groups(const TensorInfo &x, const TensorInfo &w, const TensorInfo *b,
                    const TensorInfo &y, uint32_t g, uint32_t in_size, uint32_t filter_size,
                    uint32_t out_size, const char *unit, const GroupFn &one_group);

}  // namespace conv
}  // namespace npucpu

#endif
