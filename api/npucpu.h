/*
 * npucpu: CPU implementations of neural-network operators for an NPU runtime.
 *
 * This is the library's only public header. It compiles as C11 and as C++17.
 *
 * ABI conventions
 * ---------------
 * - Every routine has C linkage and an unmangled name; exactly the names on
 *   the library's export list are exported from libnpucpu.so.
 * - Statuses are uint32_t (NPU_OK or one of the NPU_ERR_* codes below);
 *   <op>_check_supported returns 1 (supported) or 0 (not). The NpuString
 *   routines return int32_t: 0 on success, -1 on failure.
 * - Where nothing else is stated: indices and counts are uint32_t, buffer
 *   lengths (in bytes) uint64_t, int attributes int64_t, float attributes
 *   float.
 * - The context handle is an OperatorContext*. TensorShape, Tensor,
 *   TensorList, NpuString and AttrRecord are passed by pointer (const where
 *   the routine only reads them).
 * - Memory that crosses the interface comes from malloc/calloc and is
 *   released with free. The host owns every tensor data buffer and every
 *   attribute value; the context owns its record arrays and output names.
 * - Call order for one operator invocation: create the handle, set the
 *   counts, describe inputs and attributes, <op>_infershape, read the output
 *   descriptions back and attach output buffers, <op>_check_supported,
 *   <op>_compute only after infershape returned NPU_OK, destroy the handle.
 */
#ifndef NPUCPU_H
#define NPUCPU_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#if defined(_WIN32)
#define NPU_API
#else
#define NPU_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Status codes ------------------------------------------------------ */
#define NPU_OK 0u
#define NPU_ERR_INVALID_ARG 0xa0808003u /* null handle, bad index/attribute, missing buffer */
#define NPU_ERR_SHAPE 0xa0808008u       /* shape or size inconsistency */
#define NPU_ERR_INPUT_NUM 0xa0808027u   /* wrong number of inputs */
#define NPU_ERR_INPUT 0xa0808028u       /* missing or unusable input */
#define NPU_ERR_UNSUPPORTED 0xa080802cu /* unsupported data type, failed kernel step */
#define NPU_FAIL 0xFFFFFFFFu            /* failure of a routine without a code of its own */

/* ---- Data type codes (TensorDesc.dtype, Tensor.dtype) ------------------ */
#define NPU_DTYPE_FLOAT32 0u
#define NPU_DTYPE_FLOAT64 1u
#define NPU_DTYPE_INT8 2u
#define NPU_DTYPE_INT16 3u
#define NPU_DTYPE_INT32 4u
#define NPU_DTYPE_INT64 5u
#define NPU_DTYPE_UINT8 6u
#define NPU_DTYPE_UINT16 7u
#define NPU_DTYPE_UINT32 8u
#define NPU_DTYPE_UINT64 9u
#define NPU_DTYPE_FLOAT16 10u
#define NPU_DTYPE_COMPLEX128 11u
#define NPU_DTYPE_COMPLEX64 12u
#define NPU_DTYPE_BOOL 19u

/* ---- Layout (format) codes -------------------------------------------- */
#define NPU_FORMAT_NCHW 0u
#define NPU_FORMAT_NHWC 1u
#define NPU_FORMAT_MATRIX 3u

/* ---- Attribute type codes (AttrRecord.dtype) --------------------------- */
#define NPU_ATTR_INT 0u    /* one int64_t */
#define NPU_ATTR_INTS 1u   /* int64_t array, data_len = 8 * n */
#define NPU_ATTR_FLOAT 2u  /* one float */
#define NPU_ATTR_FLOATS 3u /* float array, data_len = 4 * n */
#define NPU_ATTR_STRING 4u /* bytes, not necessarily terminated */

#define NPU_MAX_DIMS 16
#define NPU_ATTR_NAME_LEN 64

/* ---- Records ------------------------------------------------------------ */

/* Up to 16 dims, outermost first; dims at and past dim_num carry no meaning. */
typedef struct TensorShape {
    uint32_t dims[NPU_MAX_DIMS];
    uint8_t dim_num;
} TensorShape;

/* Small string object; external != 0 means data belongs to the caller. */
typedef struct NpuString {
    char *data;
    uint64_t length; /* bytes including the terminator; 0 if never written */
    uint64_t external;
} NpuString;

typedef struct TensorDesc {
    uint32_t dtype;
    TensorShape shape;
    uint32_t format;
    void *first_batch_buf;
    void *buf;
    uint64_t buf_len; /* bytes of one batch; also the distance between batches */
    uint32_t wstride; /* bytes from one innermost row to the next */
    uint32_t batch_mode;
    uint32_t wstride_fixed;
    NpuString name;
} TensorDesc;

typedef struct AttrRecord {
    char name[NPU_ATTR_NAME_LEN];
    uint32_t dtype;
    void *data; /* host-owned */
    uint64_t data_len;
} AttrRecord;

typedef struct OperatorContext {
    TensorDesc *inputs;
    TensorDesc *outputs;
    AttrRecord *attrs;
    uint32_t input_num;
    uint32_t output_num;
    uint32_t attr_num;
} OperatorContext;

/* Internal tensor of the kernel utilities: 32-bit float data, row-major. */
typedef struct Tensor {
    TensorShape shape;
    uint32_t dtype;
    uint32_t format;
    float *data;
} Tensor;

typedef struct TensorList {
    Tensor *tensor;
    struct TensorList *next;
} TensorList;

/* ---- Context lifecycle --------------------------------------------------- */
NPU_API uint32_t qv_kel_custom_create_handle(OperatorContext **handle_out);
NPU_API uint32_t qv_kel_custom_destory_handle(OperatorContext **handle_ptr);
NPU_API uint32_t qv_kel_custom_set_inputs_num(OperatorContext *handle, uint32_t num);
NPU_API uint32_t qv_kel_custom_set_outputs_num(OperatorContext *handle, uint32_t num);
NPU_API uint32_t qv_kel_custom_set_attrs_num(OperatorContext *handle, uint32_t num);
NPU_API uint32_t qv_kel_custom_set_input_by_index(OperatorContext *handle, uint32_t index,
                                                  uint32_t dtype, uint32_t format,
                                                  const TensorShape *shape, void *buf,
                                                  uint64_t buf_len, uint32_t batch_mode);
NPU_API uint32_t qv_kel_custom_set_output_by_index(OperatorContext *handle, uint32_t index,
                                                   uint32_t dtype, uint32_t format,
                                                   const TensorShape *shape, void *buf,
                                                   uint64_t buf_len);
NPU_API uint32_t qv_kel_custom_set_attr_by_index(OperatorContext *handle, uint32_t index,
                                                 const char *name, uint32_t reserved,
                                                 uint32_t dtype, void *data, uint64_t data_len);

/* ---- Tensor accessors ---------------------------------------------------- */
NPU_API uint32_t qv_kel_custom_get_input_num(OperatorContext *handle, uint32_t *num_out);
NPU_API uint32_t qv_kel_custom_get_output_num(OperatorContext *handle, uint32_t *num_out);
NPU_API uint32_t qv_kel_custom_get_input_shape_by_index(OperatorContext *handle, uint32_t index,
                                                        TensorShape *shape_out);
NPU_API uint32_t qv_kel_custom_get_output_shape_by_index(OperatorContext *handle, uint32_t index,
                                                         TensorShape *shape_out);
NPU_API uint32_t qv_kel_custom_get_input_dtype_by_index(OperatorContext *handle, uint32_t index,
                                                        uint32_t *dtype_out);
NPU_API uint32_t qv_kel_custom_get_output_dtype_by_index(OperatorContext *handle, uint32_t index,
                                                         uint32_t *dtype_out);
NPU_API uint32_t qv_kel_custom_get_input_format_by_index(OperatorContext *handle, uint32_t index,
                                                         uint32_t *format_out);
NPU_API uint32_t qv_kel_custom_get_output_format_by_index(OperatorContext *handle, uint32_t index,
                                                          uint32_t *format_out);
NPU_API void *qv_kel_custom_get_input_buf_by_index(OperatorContext *handle, uint32_t index);
NPU_API void *qv_kel_custom_get_output_buf_by_index(OperatorContext *handle, uint32_t index);
NPU_API uint32_t qv_kel_custom_get_input_buf_len_by_index(OperatorContext *handle, uint32_t index,
                                                          uint64_t *len_out);
NPU_API uint32_t qv_kel_custom_get_output_buf_len_by_index(OperatorContext *handle, uint32_t index,
                                                           uint64_t *len_out);
NPU_API uint32_t qv_kel_custom_set_input_buf_by_index(OperatorContext *handle, uint32_t index,
                                                      void *buf, uint64_t buf_len);
NPU_API uint32_t qv_kel_custom_set_output_buf_by_index(OperatorContext *handle, uint32_t index,
                                                       void *buf, uint64_t buf_len);
NPU_API uint32_t qv_kel_custom_set_input_first_batch_buf_by_index(OperatorContext *handle,
                                                                  uint32_t index, void *buf,
                                                                  uint64_t buf_len);
NPU_API uint32_t qv_kel_custom_set_output_first_batch_buf_by_index(OperatorContext *handle,
                                                                   uint32_t index, void *buf,
                                                                   uint64_t buf_len);
NPU_API void *qv_kel_custom_get_input_batch_buf_by_index(OperatorContext *handle, uint32_t index,
                                                         uint32_t batch);
NPU_API void *qv_kel_custom_get_output_batch_buf_by_index(OperatorContext *handle, uint32_t index,
                                                          uint32_t batch);
NPU_API uint32_t qv_kel_custom_set_input_wstride_by_index(OperatorContext *handle, uint32_t index,
                                                          uint32_t wstride);
NPU_API uint32_t qv_kel_custom_get_input_wstride_by_index(OperatorContext *handle, uint32_t index,
                                                          uint32_t *wstride_out);
NPU_API uint32_t qv_kel_custom_set_output_wstride_by_index(OperatorContext *handle, uint32_t index,
                                                           uint32_t wstride);
NPU_API uint32_t qv_kel_custom_get_output_wstride_by_index(OperatorContext *handle, uint32_t index,
                                                           uint32_t *wstride_out);
NPU_API uint32_t qv_kel_custom_set_output_shape_by_index(OperatorContext *handle, uint32_t index,
                                                         const TensorShape *shape);
NPU_API uint32_t qv_kel_custom_set_output_dtype_by_index(OperatorContext *handle, uint32_t index,
                                                         uint32_t dtype);
NPU_API uint32_t qv_kel_custom_set_output_format_by_index(OperatorContext *handle, uint32_t index,
                                                          uint32_t format);
NPU_API uint32_t qv_kel_custom_set_output_name_by_index(OperatorContext *handle, uint32_t index,
                                                        const char *name);
NPU_API uint32_t qv_kel_custom_get_output_name_by_index(OperatorContext *handle, uint32_t index,
                                                        char *dst, uint32_t dst_len);

/* ---- Attribute lookup ---------------------------------------------------- */
/* Every typed getter answers a null record with NPU_ERR_INVALID_ARG and writes
 * nothing, so a default stored in the destination survives an absent attribute. */
NPU_API AttrRecord *qv_kel_custom_get_attr_by_name(OperatorContext *handle, const char *name);
NPU_API uint32_t qv_kel_custom_get_attr_dtype(const AttrRecord *attr, uint32_t *dtype_out);
NPU_API uint32_t qv_kel_custom_get_attr_float(const AttrRecord *attr, float *value_out);
NPU_API uint32_t qv_kel_custom_get_attr_floats_size(const AttrRecord *attr, uint64_t *count_out);
NPU_API uint32_t qv_kel_custom_get_attr_floats_by_index(const AttrRecord *attr, uint64_t index,
                                                        float *value_out);
NPU_API uint32_t qv_kel_custom_get_attr_int(const AttrRecord *attr, int64_t *value_out);
NPU_API uint32_t qv_kel_custom_get_attr_ints_size(const AttrRecord *attr, uint64_t *count_out);
NPU_API uint32_t qv_kel_custom_get_attr_ints_by_index(const AttrRecord *attr, uint64_t index,
                                                      int64_t *value_out);
/* Copies min(data_len, dst_len) bytes and a terminator at dst[that]: dst needs dst_len + 1 bytes. */
NPU_API uint32_t qv_kel_custom_get_attr_string(const AttrRecord *attr, char *dst, uint64_t dst_len);

/* ---- Logging ------------------------------------------------------------- */
/* Levels: 0 Trace, 1 Debug, 2 Info, 3 WARN, 4 Err, 5 Fatal. Initial level 1. */
NPU_API extern const char *LEVEL_STR[6];
NPU_API void set_log_level(uint32_t level);
NPU_API uint32_t get_log_level(void);
NPU_API void print_log(uint32_t level, const char *func, int32_t line, const char *fmt, ...)
    __attribute__((format(printf, 4, 5)));

/* ---- Bounded strings ----------------------------------------------------- */
NPU_API int32_t qv_npu_str_create(NpuString *s, uint64_t external);
NPU_API int32_t qv_npu_str_copy(NpuString *s, const char *text);
NPU_API int32_t qv_npu_str_cat(NpuString *s, const char *text);
NPU_API int32_t qv_npu_str_rpc(NpuString *s, char from, char to);
NPU_API int32_t qv_npu_str_destory(NpuString *s);

/* ---- Internal tensor and common helpers ---------------------------------- */
NPU_API uint32_t accumulate_mul(const uint32_t *dims, int32_t begin, int32_t end);
NPU_API uint32_t GetElemSize(const TensorShape *shape);
NPU_API int64_t get_size_from_dim(const TensorShape *shape, int32_t axis);
NPU_API uint32_t get_dtype_size(uint32_t dtype);
NPU_API void fill_vec_uint32(uint32_t *vec, uint32_t value, uint32_t count);
NPU_API void fill_vec_float(float *vec, float value, uint32_t count);
NPU_API void free_tensor(Tensor *tensor);
NPU_API void free_tensor_not_in_buf(Tensor *tensor);
NPU_API void free_vec(TensorList *list);
NPU_API void print_tensor(const Tensor *tensor);
NPU_API uint32_t get_batch(const TensorShape *shape, uint32_t layout);
NPU_API uint32_t get_channel(const TensorShape *shape, uint32_t layout);
NPU_API uint32_t get_height(const TensorShape *shape, uint32_t layout);
NPU_API uint32_t get_width(const TensorShape *shape, uint32_t layout);
/* New Tensor with target's shape and a copy of src's data; null on failure. */
NPU_API Tensor *reshape(const Tensor *src, uint32_t tag, const TensorShape *target);

/* ---- Broadcasting -------------------------------------------------------- */
/* New calloc'ed array of out_shape's element count; the caller frees it. */
NPU_API float *broadcast(const TensorShape *in_shape, uint32_t dtype, const float *in_data,
                         const TensorShape *out_shape);

/* ---- Matrix and convolution kernels -------------------------------------- */
/* Kernels over float data. Spatial routines address 4-D data as N, C, H, W in
 * memory and read the sizes through get_width/get_height/... with each
 * Tensor's own layout code. pads are top, left, bottom, right; strides,
 * dilations and kernel sizes are height, width. Tensors returned by these
 * routines are fresh heap objects, released with free_tensor. */
/* out[i] = a[i] + b[i] for a's element count; returns 0. */
NPU_API uint32_t add(const Tensor *a, const Tensor *b, Tensor *out);
/* Dot product of the first n elements, fused multiply-adds from element 0. */
NPU_API float mac(const float *x, const float *y, uint32_t n);
/* Layout 3 of out: out(MxN) += a(MxK) * b(KxN) with fused multiply-adds in k
 * order, then + bias (out's shape) or + 0.0f. Layout 0: convolution mode,
 * column matrix a times filter rows b, accumulated filter-major; bias unused.
 * Other layouts: NPU_ERR_SHAPE, nothing written. */
NPU_API uint32_t gemm(const Tensor *a, const Tensor *b, const Tensor *bias, Tensor *out);
/* Column matrix [N, 1, out_h*out_w, C*kH*kW] of image for kernel's size at
 * strides (no padding, no dilation); null after a message when the element
 * count does not fit a signed 32-bit value. */
NPU_API Tensor *img_2_col(const Tensor *image, const Tensor *kernel, const uint32_t strides[2]);
/* Batched matrix product on operands truncated to int32, wrapping int32 sums;
 * rank <= 2 operands are shared by all batches. Always returns 0. */
NPU_API uint32_t matmul(const Tensor *a, const Tensor *b, Tensor *out);
/* New Tensor of target's shape holding bias expanded to it (a 1-D bias of a
 * 4-D or larger target lands on axis 1); null when target has fewer dims. */
NPU_API Tensor *broadcast_bias(const Tensor *bias, const Tensor *target);
/* Cuts input along axis into count pieces of sizes[k] (appended to list when
 * it holds none yet, else filled as they are); NPU_ERR_INVALID_ARG on a bad
 * axis. The caller releases the list's nodes after the head with free_vec. */
NPU_API uint32_t split(const Tensor *input, uint32_t axis, const uint32_t *sizes, uint32_t count,
                       TensorList *list);
/* Joins the first count tensors after list's head along axis into out;
 * returns 0. */
NPU_API uint32_t concat(const TensorList *list, uint32_t count, uint32_t axis, Tensor *out);
/* New Tensor with dims[2] and dims[3] grown by the pads (read as signed 32-bit:
 * negative pads cut), the border filled bytewise with the low byte of
 * value's int32 truncation. */
NPU_API Tensor *do_padding(const Tensor *input, const uint32_t pads[4], float value);
/* Output size and pads of a sliding kernel under auto_pad ("SAME_UPPER",
 * "SAME_LOWER", "VALID", "NOTSET", compared by prefix); pads is read for
 * NOTSET and written for the other modes. Returns 0, NPU_ERR_SHAPE for VALID
 * with data left over, NPU_ERR_INVALID_ARG for another mode or a zero stride
 * that would be divided by. */
NPU_API uint32_t process_auto_pad_mode(const char *auto_pad, uint32_t in_h, uint32_t in_w,
                                       uint32_t stride_h, uint32_t stride_w, uint32_t kernel_h,
                                       uint32_t kernel_w, uint32_t pads[4], uint32_t ceil_mode,
                                       uint32_t *out_h, uint32_t *out_w);

/* ---- Resize sampling helpers --------------------------------------------- */
/* Source coordinate of output index out_index along one axis. Modes:
 * 0 half_pixel, 1 pytorch_half_pixel, 2 align_corners, 3 asymmetric,
 * 4 tf_half_pixel_for_nn, 5 tf_crop_and_resize; any other code prints a notice
 * on stdout and maps as half_pixel. */
NPU_API float CoordinateMapping(uint32_t mode, uint32_t out_index, uint32_t in_size,
                                uint32_t out_size, float scale, float roi_start, float roi_end);
/* Source pixel of output pixel (out_y, out_x) for nearest sampling; rounding
 * modes: 0 round_prefer_floor, 1 round_prefer_ceil, 2 floor, 3 ceil. */
NPU_API void GetNearestPixelCoordinate(uint32_t mode, uint32_t nearest_mode, uint32_t out_y,
                                       uint32_t out_x, uint32_t *in_y, uint32_t *in_x,
                                       uint32_t in_h, uint32_t in_w, uint32_t out_h,
                                       uint32_t out_w, float scale_h, float scale_w,
                                       float roi_start_h, float roi_end_h, float roi_start_w,
                                       float roi_end_w);
/* out_size / in_size; with flag != 0, 0.0 for the modes that use no scale. */
NPU_API float GetAxisScale(uint32_t mode, uint32_t in_size, uint32_t out_size, uint8_t flag);
/* The plane's crop box (last two axes) out of a full-rank list of starts then ends. */
NPU_API void ParseRoiData(const float *roi, uint32_t count, float *start_h, float *end_h,
                          float *start_w, float *end_w);
/* rows: in_h row pointers of in_w floats each. Note the argument orders:
 * column then row here, row then column for the cubic sampler. */
NPU_API float BiLinearInterpolation(float *const *rows, uint32_t in_h, uint32_t in_w, float x,
                                    float y);
NPU_API float CubicInterpolation(float *const *rows, uint32_t in_h, uint32_t in_w, float a,
                                 float y, float x);

/* ---- Gather, slice and transpose utilities ------------------------------- */
/* Each returns 0 (gather also 0xa0808003 for an index outside its axis);
 * slice_one_axis hands back a new array and takes over `data`, or returns
 * null and changes nothing; Transpose: output axis d takes input axis perm[d]. */
NPU_API uint32_t gather(const Tensor *data, const Tensor *indices, int64_t axis, Tensor *output);
NPU_API uint32_t slice(const Tensor *input, const int32_t *starts, const int32_t *ends,
                       const int32_t *steps, Tensor *output);
NPU_API float *slice_one_axis(float *data, int32_t *total, uint32_t *dims, int32_t axis,
                              const int32_t *list, int32_t count);
NPU_API uint32_t Transpose(const Tensor *input, const uint32_t *perm, Tensor *output);

/* ---- Operators: binary arithmetic ---------------------------------------- */
NPU_API uint32_t add_infershape(OperatorContext *handle);
NPU_API uint32_t add_check_supported(OperatorContext *handle);
NPU_API uint32_t add_compute(OperatorContext *handle);
NPU_API uint32_t sub_infershape(OperatorContext *handle);
NPU_API uint32_t sub_check_supported(OperatorContext *handle);
NPU_API uint32_t sub_compute(OperatorContext *handle);
NPU_API uint32_t mul_infershape(OperatorContext *handle);
NPU_API uint32_t mul_check_supported(OperatorContext *handle);
NPU_API uint32_t mul_compute(OperatorContext *handle);
NPU_API uint32_t div_infershape(OperatorContext *handle);
NPU_API uint32_t div_check_supported(OperatorContext *handle);
NPU_API uint32_t div_compute(OperatorContext *handle);

/* ---- Operators: pow, prelu, unary, cast, sum, mean, expand, bubbles ------ */
NPU_API uint32_t pow_infershape(OperatorContext *handle);
NPU_API uint32_t pow_check_supported(OperatorContext *handle);
NPU_API uint32_t pow_compute(OperatorContext *handle);
NPU_API uint32_t prelu_infershape(OperatorContext *handle);
NPU_API uint32_t prelu_check_supported(OperatorContext *handle);
NPU_API uint32_t prelu_compute(OperatorContext *handle);
NPU_API uint32_t ceil_infershape(OperatorContext *handle);
NPU_API uint32_t ceil_check_supported(OperatorContext *handle);
NPU_API uint32_t ceil_compute(OperatorContext *handle);
NPU_API uint32_t floor_infershape(OperatorContext *handle);
NPU_API uint32_t floor_check_supported(OperatorContext *handle);
NPU_API uint32_t floor_compute(OperatorContext *handle);
NPU_API uint32_t relu_infershape(OperatorContext *handle);
NPU_API uint32_t relu_check_supported(OperatorContext *handle);
NPU_API uint32_t relu_compute(OperatorContext *handle);
NPU_API uint32_t sqrt_infershape(OperatorContext *handle);
NPU_API uint32_t sqrt_check_supported(OperatorContext *handle);
NPU_API uint32_t sqrt_compute(OperatorContext *handle);
NPU_API uint32_t cast_infershape(OperatorContext *handle);
NPU_API uint32_t cast_check_supported(OperatorContext *handle);
NPU_API uint32_t cast_compute(OperatorContext *handle);
NPU_API uint32_t sum_infershape(OperatorContext *handle);
NPU_API uint32_t sum_check_supported(OperatorContext *handle);
NPU_API uint32_t sum_compute(OperatorContext *handle);
NPU_API uint32_t mean_infershape(OperatorContext *handle);
NPU_API uint32_t mean_check_supported(OperatorContext *handle);
NPU_API uint32_t mean_compute(OperatorContext *handle);
NPU_API uint32_t expand_infershape(OperatorContext *handle);
NPU_API uint32_t expand_check_supported(OperatorContext *handle);
NPU_API uint32_t expand_compute(OperatorContext *handle);
NPU_API uint32_t add_bubble_infershape(OperatorContext *handle);
NPU_API uint32_t add_bubble_check_supported(OperatorContext *handle);
NPU_API uint32_t add_bubble_compute(OperatorContext *handle);
NPU_API uint32_t remove_bubble_infershape(OperatorContext *handle);
NPU_API uint32_t remove_bubble_check_supported(OperatorContext *handle);
NPU_API uint32_t remove_bubble_compute(OperatorContext *handle);

/* ---- Operators: arg-max/min, reductions, softmax, top-k, non-zero -------- */
NPU_API uint32_t argmax_infershape(OperatorContext *handle);
NPU_API uint32_t argmax_check_supported(OperatorContext *handle);
NPU_API uint32_t argmax_compute(OperatorContext *handle);
NPU_API uint32_t argmin_infershape(OperatorContext *handle);
NPU_API uint32_t argmin_check_supported(OperatorContext *handle);
NPU_API uint32_t argmin_compute(OperatorContext *handle);
/* Index of the largest / smallest of count values: the first occurrence, or
 * the last when select_last_index is non-zero; 0 when count < 1. */
NPU_API uint32_t get_max_index_f32(const float *values, int64_t select_last_index, int32_t count);
NPU_API uint32_t get_max_index_s32(const int32_t *values, int64_t select_last_index, int32_t count);
NPU_API uint32_t get_min_index_f32(const float *values, int64_t select_last_index, int32_t count);
NPU_API uint32_t get_min_index_s32(const int32_t *values, int64_t select_last_index, int32_t count);
/* One index per slice along axis, outer index major, inner index minor. */
NPU_API void get_max_f32(const float *in_data, uint32_t *out_indices, const TensorShape *shape,
                         uint32_t axis, int64_t select_last_index);
NPU_API void get_max_s32(const int32_t *in_data, uint32_t *out_indices, const TensorShape *shape,
                         uint32_t axis, int64_t select_last_index);
NPU_API void get_min_f32(const float *in_data, uint32_t *out_indices, const TensorShape *shape,
                         uint32_t axis, int64_t select_last_index);
NPU_API void get_min_s32(const int32_t *in_data, uint32_t *out_indices, const TensorShape *shape,
                         uint32_t axis, int64_t select_last_index);
NPU_API uint32_t reducemax_infershape(OperatorContext *handle);
NPU_API uint32_t reducemax_check_supported(OperatorContext *handle);
NPU_API uint32_t reducemax_compute(OperatorContext *handle);
NPU_API uint32_t reducemin_infershape(OperatorContext *handle);
NPU_API uint32_t reducemin_check_supported(OperatorContext *handle);
NPU_API uint32_t reducemin_compute(OperatorContext *handle);
NPU_API uint32_t reducemean_infershape(OperatorContext *handle);
NPU_API uint32_t reducemean_check_supported(OperatorContext *handle);
NPU_API uint32_t reducemean_compute(OperatorContext *handle);
NPU_API uint32_t softmax_infershape(OperatorContext *handle);
NPU_API uint32_t softmax_check_supported(OperatorContext *handle);
NPU_API uint32_t softmax_compute(OperatorContext *handle);
/* New malloc'ed array of count elements, exp(x - m) / sum; the caller frees it. */
NPU_API float *basic_softmax(const float *values, uint32_t count);
NPU_API uint32_t topk_infershape(OperatorContext *handle);
NPU_API uint32_t topk_check_supported(OperatorContext *handle);
NPU_API uint32_t topk_compute(OperatorContext *handle);
/* Pair record sorted by top-k: element index, then its 32-bit value. */
typedef struct TopkPair {
    uint32_t index;
    union {
        float f;
        int32_t i;
    } value;
} TopkPair;
/* qsort-style comparators on two TopkPair records. */
NPU_API int cmp_largest_s32(const void *a, const void *b);
NPU_API int cmp_smallest_s32(const void *a, const void *b);
NPU_API int cmp_largest_fp32(const void *a, const void *b);
NPU_API int cmp_smallest_fp32(const void *a, const void *b);
/* K largest (largest != 0) or smallest values of every slice along axis and
 * their indices; 0, or 0xFFFFFFFF when the pair array cannot be allocated. */
NPU_API uint32_t get_top_fp32(const float *in, float *out_values, uint32_t *out_indices,
                              const TensorShape *shape, int32_t k, uint32_t axis, int64_t largest,
                              int64_t sorted, uint64_t in_len, uint64_t out_len);
NPU_API uint32_t get_top_s32(const int32_t *in, int32_t *out_values, uint32_t *out_indices,
                             const TensorShape *shape, int32_t k, uint32_t axis, int64_t largest,
                             int64_t sorted, uint64_t in_len, uint64_t out_len);
NPU_API uint32_t nonzero_infershape(OperatorContext *handle);
NPU_API uint32_t nonzero_check_supported(OperatorContext *handle);
NPU_API uint32_t nonzero_compute(OperatorContext *handle);

/* ---- Operators: non-maximum suppression, detection output decoder -------- */
NPU_API uint32_t detect_output_decoder_infershape(OperatorContext *handle);
NPU_API uint32_t detect_output_decoder_check_supported(OperatorContext *handle);
NPU_API uint32_t detect_output_decoder_compute(OperatorContext *handle);

/* Candidate record of non-maximum suppression: a box's score and index. */
typedef struct BboxInfo {
    float score;
    int64_t index;
} BboxInfo;
/* Orders two BboxInfo records by descending score: 0 when the scores are
 * equal, 1 when a's is smaller, -1 otherwise. */
NPU_API int cmp_bbox_info(const void *a, const void *b);
/* True when boxes i and j (indices into the batch's boxes) overlap with an
 * intersection over union strictly greater than iou_threshold. */
NPU_API bool suppress_by_iou(const float *boxes, int64_t i, int64_t j, int64_t center_point_box,
                             float iou_threshold);
NPU_API uint32_t nms_infershape(OperatorContext *handle);
NPU_API uint32_t nms_check_supported(OperatorContext *handle);
NPU_API uint32_t nms_compute(OperatorContext *handle);

/* ---- Operators: convolution, transposed convolution, gemm, matmul -------- */
/* conv: grouped, strided, dilated, padded 2-D convolution (NCHW input, OIHW
 * filters, optional bias of M values). */
NPU_API uint32_t conv_infershape(OperatorContext *handle);
NPU_API uint32_t conv_check_supported(OperatorContext *handle);
NPU_API uint32_t conv_compute(OperatorContext *handle);
/* One group: pads input, dilates filter, column matrix, gemm into output
 * (accumulated), then + bias when given. dilations both 0 become 1, 1. */
NPU_API uint32_t compute_one_group_conv(const Tensor *input, const Tensor *filter,
                                        const Tensor *bias, Tensor *output, uint32_t dilations[2],
                                        const uint32_t pads[4], const uint32_t strides[2]);
/* New filter Tensor with dims[2], dims[3] spread by the dilations (zeros
 * between taps); dilations both 0 are set to 1, 1 in the caller's array. */
NPU_API Tensor *do_dilation_conv(const Tensor *filter, uint32_t dilations[2]);
/* conv_transpose: 2-D transposed convolution (filters [C, M/group, kH, kW]). */
NPU_API uint32_t conv_transpose_infershape(OperatorContext *handle);
NPU_API uint32_t conv_transpose_check_supported(OperatorContext *handle);
NPU_API uint32_t conv_transpose_compute(OperatorContext *handle);
/* Pads from the total padding per axis under auto_pad ("SAME_UPPER",
 * "SAME_LOWER", "VALID", "NOTSET", compared by prefix); 0, NPU_ERR_SHAPE for
 * VALID with data left over, NPU_ERR_INVALID_ARG for another mode. */
NPU_API uint32_t process_auto_pad(const char *auto_pad, uint32_t total_h, uint32_t total_w,
                                  uint32_t in_h, uint32_t in_w, uint32_t stride_h,
                                  uint32_t stride_w, uint32_t kernel_h, uint32_t kernel_w,
                                  uint32_t pads[4]);
/* New Tensor with input's pixels spread stride apart in each plane, zeros
 * between them. */
NPU_API Tensor *do_zero_filling(const Tensor *input, const uint32_t strides[2]);

NPU_API uint32_t gemm_infershape(OperatorContext *handle);
NPU_API uint32_t gemm_check_supported(OperatorContext *handle);
NPU_API uint32_t gemm_compute(OperatorContext *handle);
NPU_API uint32_t matmul_infershape(OperatorContext *handle);
NPU_API uint32_t matmul_check_supported(OperatorContext *handle);
NPU_API uint32_t matmul_compute(OperatorContext *handle);

/* ---- Operators: pooling, LRN, resize, depth to space --------------------- */
NPU_API uint32_t averagepool_infershape(OperatorContext *handle);
NPU_API uint32_t averagepool_check_supported(OperatorContext *handle);
NPU_API uint32_t averagepool_compute(OperatorContext *handle);
NPU_API uint32_t maxpool_infershape(OperatorContext *handle);
NPU_API uint32_t maxpool_check_supported(OperatorContext *handle);
NPU_API uint32_t maxpool_compute(OperatorContext *handle);

NPU_API uint32_t resize_infershape(OperatorContext *handle);
NPU_API uint32_t resize_check_supported(OperatorContext *handle);
NPU_API uint32_t resize_compute(OperatorContext *handle);

NPU_API uint32_t global_averagepool_infershape(OperatorContext *handle);
NPU_API uint32_t global_averagepool_check_supported(OperatorContext *handle);
NPU_API uint32_t global_averagepool_compute(OperatorContext *handle);
NPU_API uint32_t global_maxpool_infershape(OperatorContext *handle);
NPU_API uint32_t global_maxpool_check_supported(OperatorContext *handle);
NPU_API uint32_t global_maxpool_compute(OperatorContext *handle);
NPU_API uint32_t lrn_infershape(OperatorContext *handle);
NPU_API uint32_t lrn_check_supported(OperatorContext *handle);
NPU_API uint32_t lrn_compute(OperatorContext *handle);
NPU_API uint32_t depth_to_space_infershape(OperatorContext *handle);
NPU_API uint32_t depth_to_space_check_supported(OperatorContext *handle);
NPU_API uint32_t depth_to_space_compute(OperatorContext *handle);

/* ---- Operators: concat, gather, pad, range, slice, transpose ------------- */
/* Copies count elements of elem_size bytes from src[src_index] to dst[dst_index]. */
NPU_API void pad_copy(void *dst, const void *src, uint64_t dst_index, uint64_t src_index,
                      uint8_t elem_size, uint64_t count);
/* Fills the output of out_shape from the input of in_shape: pads holds every
 * axis's begin amount, then every end amount; mode is "constant", "reflect" or
 * "edge"; constant is one element. */
NPU_API uint32_t pad_run(const void *input, void *output, const void *constant, uint8_t elem_size,
                         const TensorShape *in_shape, const TensorShape *out_shape,
                         const int64_t *pads, const char *mode);
NPU_API uint32_t pad_infershape(OperatorContext *handle);
NPU_API uint32_t pad_check_supported(OperatorContext *handle);
NPU_API uint32_t pad_compute(OperatorContext *handle);
NPU_API uint32_t range_infershape(OperatorContext *handle);
NPU_API uint32_t range_check_supported(OperatorContext *handle);
NPU_API uint32_t range_compute(OperatorContext *handle);

NPU_API uint32_t concat_infershape(OperatorContext *handle);
NPU_API uint32_t concat_check_supported(OperatorContext *handle);
NPU_API uint32_t concat_compute(OperatorContext *handle);
NPU_API uint32_t gather_infershape(OperatorContext *handle);
NPU_API uint32_t gather_check_supported(OperatorContext *handle);
NPU_API uint32_t gather_compute(OperatorContext *handle);
NPU_API uint32_t slice_infershape(OperatorContext *handle);
NPU_API uint32_t slice_check_supported(OperatorContext *handle);
NPU_API uint32_t slice_compute(OperatorContext *handle);
NPU_API uint32_t transpose_infershape(OperatorContext *handle);
NPU_API uint32_t transpose_check_supported(OperatorContext *handle);
NPU_API uint32_t transpose_compute(OperatorContext *handle);

#ifdef __cplusplus
}
#endif

#endif /* NPUCPU_H */
