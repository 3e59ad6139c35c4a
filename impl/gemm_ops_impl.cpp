// Gemm: Y = A' * B' + C for two-dimensional float matrices, where A' and B'
// are A and B transposed when transA / transB are set and C is an optional
// bias broadcast to Y's shape. alpha and beta are not read: the result is
// always 1 * A' * B' + 1 * C. The product is the `gemm` kernel in its matrix
// mode, so the output is declared in the matrix layout.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "npucpu.h"
#include "utils/dispatch.h"
#include "utils/fast_compute.h"
#include "utils/op_context.h"
#include "utils/op_log.h"

namespace {

constexpr uint32_t kMatrixRank = 2;
constexpr uint32_t kBiasInput = 2;
// Swaps the first two axes. The entries past the second keep their axis, so
// an operand of another rank never makes Transpose read past the array (a
// rank-1 operand is refused by Transpose, which then fails as it should).
constexpr uint32_t kSwapFirstTwo[NPU_MAX_DIMS] = {1, 0, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};

// Product that sticks at UINT64_MAX instead of wrapping (buffer extents).
uint64_t mul_sat(uint64_t a, uint64_t b) {
    if (a != 0 && b > UINT64_MAX / a) return UINT64_MAX;
    return a * b;
}

uint64_t add_sat(uint64_t a, uint64_t b) { return a > UINT64_MAX - b ? UINT64_MAX : a + b; }

// Number of elements a shape describes, without 32-bit wrapping.
uint64_t shape_elems(const TensorShape &s) {
    uint64_t n = 1;
    for (uint32_t d = 0; d < s.dim_num; ++d) n = mul_sat(n, s.dims[d]);
    return n;
}

// Width, height and channel count as the kernel's layout accessors give them
// (0 for a layout other than N,C,H,W or N,H,W,C), read without their message.
struct Spatial {
    uint64_t w = 0, h = 0, c = 0, n = 0;
};

Spatial spatial_of(const Tensor *t) {
    Spatial s;
    const uint32_t *d = t->shape.dims;
    s.n = d[0];
    if (t->format == NPU_FORMAT_NCHW) {
        s.c = d[1];
        s.h = d[2];
        s.w = d[3];
    } else if (t->format == NPU_FORMAT_NHWC) {
        s.h = d[1];
        s.w = d[2];
        s.c = d[3];
    }
    return s;
}

// How many elements of a, b and out the `gemm` kernel touches (one past the
// highest index it reads or writes; 0 when it touches none) for out's layout.
struct Extent {
    uint64_t a = 0, b = 0, out = 0;
};

Extent kernel_extent(const Tensor *a, const Tensor *b, const Tensor *out) {
    Extent e;
    if (out->format == NPU_FORMAT_MATRIX) {
        const uint64_t M = out->shape.dims[0];
        const uint64_t N = out->shape.dims[1];
        const uint64_t K = a->shape.dims[1];
        if (M < 1 || N < 1) return e;
        e.out = mul_sat(M, N);  // the bias array is read as far
        if (K >= 1) {
            e.a = mul_sat(M, K);
            e.b = mul_sat(K, N);
        }
    } else if (out->format == NPU_FORMAT_NCHW) {
        const Spatial sa = spatial_of(a);
        const Spatial sb = spatial_of(b);
        if (sa.n < 1 || sa.h < 1 || sb.h < 1) return e;
        e.out = mul_sat(mul_sat(sa.n, sa.h), sb.h);
        if (sa.w >= 1) {
            // Last row of the last batch: (n - 1) * w * h * c + (h - 1) * w, w long.
            e.a = add_sat(mul_sat(mul_sat(mul_sat(sa.n - 1, sa.w), sa.h), sa.c), mul_sat(sa.h, sa.w));
            e.b = add_sat(mul_sat(sb.h - 1, sb.w), sa.w);
        }
    }
    return e;
}

// Internal Tensor record over `data` (borrowed or owned, as the caller frees it).
Tensor *wrap(const TensorShape &shape, uint32_t dtype, uint32_t format, void *data) {
    Tensor *t = static_cast<Tensor *>(std::malloc(sizeof(Tensor)));
    t->shape = shape;
    t->dtype = dtype;
    t->format = format;
    t->data = static_cast<float *>(data);
    return t;
}

// The transposed operand, or the operand itself when it is not transposed.
// `len` receives the number of elements the record's data holds.
struct Operand {
    Tensor *t = nullptr;
    bool owned = false;
    uint64_t len = 0;
};

void release(Operand &op) {
    if (op.owned) {
        free_tensor(op.t);
    } else if (op.t != nullptr) {
        free_tensor_not_in_buf(op.t);
    }
    op.t = nullptr;
}

// Everything a compute call allocates, released on every path.
struct Temporaries {
    Tensor *bias = nullptr;
    Operand a, b;
    Tensor *out = nullptr;
    float *scratch = nullptr;

    ~Temporaries() {
        free_tensor(bias);
        release(a);
        release(b);
        free_tensor_not_in_buf(out);
        std::free(scratch);
    }
};

// Operand `in` as the kernel sees it: a fresh transposed copy when `trans`
// is set, else a record borrowing the context buffer.
uint32_t make_operand(const npucpu::TensorInfo &in, bool trans, Operand *op) {
    if (!trans) {
        op->t = wrap(in.shape, in.dtype, in.format, in.buf);
        op->len = in.buf_len / sizeof(float);
        return NPU_OK;
    }
    // Guard: Transpose reads every element of the operand's shape; a buffer
    // shorter than that is refused before anything is written.
    if (in.buf_len / sizeof(float) < shape_elems(in.shape)) return NPU_ERR_INVALID_ARG;
    TensorShape swapped = in.shape;
    swapped.dims[0] = in.shape.dims[1];
    swapped.dims[1] = in.shape.dims[0];
    const uint32_t count = GetElemSize(&swapped);
    float *data = static_cast<float *>(std::calloc(count > 0 ? count : 1, sizeof(float)));
    op->t = wrap(swapped, in.dtype, in.format, data);
    op->owned = true;
    op->len = count;
    Tensor *src = wrap(in.shape, in.dtype, in.format, in.buf);
    const uint32_t status = Transpose(src, kSwapFirstTwo, op->t);
    free_tensor_not_in_buf(src);
    return status == NPU_OK ? NPU_OK : NPU_ERR_UNSUPPORTED;
}

// The zero fill of the output's element count, clamped to the buffer.
void zero_output(const npucpu::TensorInfo &y) {
    uint64_t n = GetElemSize(&y.shape);
    if (n > y.buf_len / sizeof(float)) n = y.buf_len / sizeof(float);
    std::memset(y.buf, 0, n * sizeof(float));
}

// The fast path of compute, with the transpositions folded into the
// kernel's packing instead of copied: taken only for two-dimensional
// operands whose shapes agree with the output, buffers that cover them, an
// output sharing no memory with an operand, and no NaN result (a NaN's
// payload could depend on the operand order of an instruction; without NaN
// results no NaN ever entered a chain). The output starts at zero, as in
// the literal path. Returns false when the literal path must run.
bool fast_compute(const npucpu::TensorInfo &a, const npucpu::TensorInfo &b, const npucpu::TensorInfo &y,
                  bool trans_a, bool trans_b, const float *bias) {
    using namespace npucpu::fast;
    if (!npucpu::fast_paths_enabled()) return false;
    if (a.shape.dim_num != kMatrixRank || b.shape.dim_num != kMatrixRank || y.shape.dim_num != kMatrixRank ||
        y.format != NPU_FORMAT_MATRIX) {
        return false;
    }
    const size_t M = trans_a ? a.shape.dims[1] : a.shape.dims[0];
    const size_t K = trans_a ? a.shape.dims[0] : a.shape.dims[1];
    const size_t Kb = trans_b ? b.shape.dims[1] : b.shape.dims[0];
    const size_t N = trans_b ? b.shape.dims[0] : b.shape.dims[1];
    if (Kb != K || y.shape.dims[0] != M || y.shape.dims[1] != N || M == 0 || N == 0) return false;
    if (a.buf_len / sizeof(float) < M * K || b.buf_len / sizeof(float) < K * N ||
        y.buf_len / sizeof(float) < M * N) {
        return false;
    }
    const size_t mn = M * N * sizeof(float);
    if (overlaps(y.buf, mn, a.buf, M * K * sizeof(float)) || overlaps(y.buf, mn, b.buf, K * N * sizeof(float))) {
        return false;
    }
    const float *A = static_cast<const float *>(a.buf);
    const float *B = static_cast<const float *>(b.buf);
    std::memset(y.buf, 0, mn);
    // A NaN anywhere (operand, bias, or made inside a chain) leaves some
    // result NaN; the kernel then reports it and the literal path reruns.
    GemmArgs g{M, N, K, A, trans_a ? 1 : K, trans_a ? M : 1, B, trans_b ? 1 : N, trans_b ? K : 1, bias,
               static_cast<float *>(y.buf), true};
    return gemm_f32(g);
}

}  // namespace

extern "C" {

NPU_API uint32_t gemm_infershape(OperatorContext *handle) {
    TensorShape a{};
    TensorShape b{};
    uint32_t dtype = 0;
    qv_kel_custom_get_input_shape_by_index(handle, 0, &a);
    qv_kel_custom_get_input_shape_by_index(handle, 1, &b);
    qv_kel_custom_get_input_dtype_by_index(handle, 0, &dtype);
    if (a.dim_num != b.dim_num || a.dim_num != kMatrixRank) {
        NPU_ERROR("invalid Gemm shapeA dims:%d, shapeB dims:%d \n", static_cast<int>(a.dim_num),
                  static_cast<int>(b.dim_num));
        return NPU_ERR_INPUT_NUM;
    }
    const int64_t trans_a = npucpu::attr_int(handle, "transA", 0);
    const int64_t trans_b = npucpu::attr_int(handle, "transB", 0);
    if (trans_a != 0) std::swap(a.dims[0], a.dims[1]);
    if (trans_b != 0) std::swap(b.dims[0], b.dims[1]);
    if (a.dims[1] != b.dims[0]) {
        NPU_ERROR("calc matrix not match! A:[%dx%d], B:[%dx%d] \n", static_cast<int32_t>(a.dims[0]),
                  static_cast<int32_t>(a.dims[1]), static_cast<int32_t>(b.dims[0]),
                  static_cast<int32_t>(b.dims[1]));
        return NPU_ERR_INPUT_NUM;
    }
    TensorShape y{};
    y.dim_num = kMatrixRank;
    y.dims[0] = a.dims[0];
    y.dims[1] = b.dims[1];
    npucpu::set_output_desc(handle, 0, y, dtype, NPU_FORMAT_MATRIX);
    return NPU_OK;
}

NPU_API uint32_t gemm_check_supported(OperatorContext *handle) {
    uint32_t a = 0;
    uint32_t b = 0;
    qv_kel_custom_get_input_dtype_by_index(handle, 0, &a);
    qv_kel_custom_get_input_dtype_by_index(handle, 1, &b);
    return a == NPU_DTYPE_FLOAT32 && b == NPU_DTYPE_FLOAT32 ? 1u : 0u;
}

NPU_API uint32_t gemm_compute(OperatorContext *handle) {
    const uint32_t inputs = npucpu::input_count(handle);
    const npucpu::TensorInfo a = npucpu::input_info(handle, 0);
    const npucpu::TensorInfo b = npucpu::input_info(handle, 1);
    const npucpu::TensorInfo y = npucpu::output_info(handle, 0);
    // Guard: absent operand or output buffers are reported, nothing written.
    if (a.buf == nullptr || b.buf == nullptr || y.buf == nullptr) return NPU_ERR_INVALID_ARG;

    // The output is zero-filled before the product (the kernel accumulates
    // into it); the fill is done once no guard can refuse any more, which
    // only differs from filling first in what a refused call leaves behind.
    Temporaries tmp;
    if (inputs > kBiasInput) {
        const npucpu::TensorInfo c = npucpu::input_info(handle, kBiasInput);
        // Guard: broadcast reads the bias's whole shape; an absent or short
        // bias buffer is refused before anything is written.
        if (c.buf == nullptr || c.buf_len / sizeof(float) < shape_elems(c.shape)) {
            return NPU_ERR_INVALID_ARG;
        }
        float *expanded = broadcast(&c.shape, c.dtype, static_cast<const float *>(c.buf), &y.shape);
        tmp.bias = wrap(y.shape, c.dtype, c.format, expanded);
    }

    const bool trans_a = npucpu::attr_int(handle, "transA", 0) != 0;
    const bool trans_b = npucpu::attr_int(handle, "transB", 0) != 0;
    if ((tmp.bias == nullptr || tmp.bias->data != nullptr) &&
        fast_compute(a, b, y, trans_a, trans_b, tmp.bias != nullptr ? tmp.bias->data : nullptr)) {
        return NPU_OK;
    }
    uint32_t status = make_operand(a, trans_a, &tmp.a);
    if (status == NPU_OK) status = make_operand(b, trans_b, &tmp.b);
    if (status == NPU_ERR_UNSUPPORTED) {
        zero_output(y);
        NPU_ERROR("Transpose failed! \n");
        return NPU_ERR_UNSUPPORTED;
    }
    if (status != NPU_OK) return status;

    // Guard: the kernel must read inside A' and B' and write inside the
    // output's element count (its layout may not be the matrix one, or its
    // dims may not be the product's); otherwise nothing is written.
    const uint64_t y_elems = GetElemSize(&y.shape);
    Tensor probe{y.shape, y.dtype, y.format, nullptr};
    const Extent need = kernel_extent(tmp.a.t, tmp.b.t, &probe);
    if (need.a > tmp.a.len || need.b > tmp.b.len || need.out > y_elems) return NPU_ERR_INVALID_ARG;

    // Guard: an output buffer shorter than its shape receives the leading
    // part of the result (the product is made in a scratch of the shape's
    // size and copied as far as the buffer goes).
    const uint64_t capacity = y.buf_len / sizeof(float);
    float *target = static_cast<float *>(y.buf);
    if (capacity < y_elems) {
        tmp.scratch = static_cast<float *>(std::calloc(y_elems, sizeof(float)));
        target = tmp.scratch;
    } else {
        std::memset(target, 0, y_elems * sizeof(float));
    }
    tmp.out = wrap(y.shape, y.dtype, y.format, target);
    status = gemm(tmp.a.t, tmp.b.t, tmp.bias, tmp.out);
    if (tmp.scratch != nullptr) std::memcpy(y.buf, tmp.scratch, capacity * sizeof(float));
    if (status != NPU_OK) {
        NPU_ERROR("Gemm CPU calc error! \n");
        return NPU_ERR_UNSUPPORTED;
    }
    return NPU_OK;
}

}  // extern "C"
