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

/* ---- Resize sampling helpers --------------------------------------------- */

/* ---- Gather, slice and transpose utilities ------------------------------- */

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

/* ---- Operators: convolution, transposed convolution, gemm, matmul -------- */

/* ---- Operators: pooling, LRN, resize, depth to space --------------------- */

/* ---- Operators: concat, gather, pad, range, slice, transpose ------------- */

#ifdef __cplusplus
}
#endif

#endif /* NPUCPU_H */
