// Matrix and convolution kernels: element-wise add, dot product, the two
// gemm modes, the column matrix of a convolution, the integer batched matrix
// product and the output size / padding of sliding-kernel operators.
//
// These are the literal kernels: each follows its algorithm step by step and
// is the reference that any faster variant must reproduce bit for bit.
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "npucpu.h"
#include "convert.h"
#include "dispatch.h"
#include "fast_compute.h"
#include "op_log.h"

namespace {

constexpr uint32_t kLayoutNCHW = 0;
constexpr uint32_t kLayoutMatrix = 3;

// Matrix mode: out(MxN) accumulates a(MxK) * b(KxN), one fused multiply-add
// per k in order, the running value stored back after every step; then the
// bias element (or +0.0f) is added.
// The fast variant is exact when no value is a NaN (a NaN's payload could
// depend on which operand an instruction form favours; NaNs made inside the
// chain are all the same default NaN) and the output shares no memory with
// an operand (the literal loop reads operands it may already have written).
bool gemm_matrix_fast(const Tensor *a, const Tensor *b, const Tensor *bias, Tensor *out, size_t M,
                      size_t N, size_t K) {
    using namespace npucpu::fast;
    if (!npucpu::fast_paths_enabled() || N < 1) return false;
    const size_t mn = M * N * sizeof(float);
    if (overlaps(out->data, mn, a->data, M * K * sizeof(float)) ||
        overlaps(out->data, mn, b->data, K * N * sizeof(float)) ||
        (bias != nullptr && overlaps(out->data, mn, bias->data, mn))) {
        return false;
    }
    if (any_nan(a->data, M * K) || any_nan(b->data, K * N) || any_nan(out->data, M * N) ||
        (bias != nullptr && any_nan(bias->data, M * N))) {
        return false;
    }
    GemmArgs g{M, N, K, a->data, K, 1, b->data, N, 1, bias != nullptr ? bias->data : nullptr, out->data, false};
    return gemm_f32(g);
}

void gemm_matrix(const Tensor *a, const Tensor *b, const Tensor *bias, Tensor *out) {
    const size_t M = out->shape.dims[0];
    const size_t N = out->shape.dims[1];
    const size_t K = a->shape.dims[1];
    if (M < 1) return;
    if (gemm_matrix_fast(a, b, bias, out, M, N, K)) return;
    const float *A = a->data;
    const float *B = b->data;
    float *C = out->data;
    for (size_t i = 0; i < M; ++i) {
        for (size_t j = 0; j < N; ++j) {
            float value = C[i * N + j];
            for (size_t k = 0; k < K; ++k) {
                value = std::fma(A[i * K + k], B[k * N + j], value);
                C[i * N + j] = value;
            }
            C[i * N + j] = value + (bias != nullptr ? bias->data[i * N + j] : 0.0f);
        }
    }
}

// Convolution mode: a holds one row of Wa values per output position (Ha rows
// per batch), b one row per filter; out receives the dot products filter-major.
void gemm_conv(const Tensor *a, const Tensor *b, Tensor *out) {
    const size_t Wa = get_width(&a->shape, a->format);
    const size_t Ha = get_height(&a->shape, a->format);
    const size_t Ca = get_channel(&a->shape, a->format);
    const size_t Na = get_batch(&a->shape, a->format);
    const size_t Wb = get_width(&b->shape, b->format);
    const size_t Hb = get_height(&b->shape, b->format);
    for (size_t n = 0; n < Na; ++n) {
        const float *a_batch = a->data + n * Wa * Ha * Ca;
        float *out_batch = out->data + n * Ha * Hb;
        for (size_t j = 0; j < Hb; ++j) {
            const float *b_row = b->data + j * Wb;
            for (size_t i = 0; i < Ha; ++i) {
                out_batch[j * Ha + i] += mac(a_batch + i * Wa, b_row, static_cast<uint32_t>(Wa));
            }
        }
    }
}

// Fast integer matmul over `batches` batches that all fit in out (the
// literal loop's early stop never triggers). The operands are truncated
// once; when every product and partial sum provably stays within 2^24 the
// float unit computes the exact integer sums (a chain from +0.0 of exact
// products, so a zero sum is +0.0 as the conversion of int 0 is), otherwise
// 32-bit lanes wrap as the literal sum does. Returns false when the literal
// loop must run (overlapping output, no memory).
bool matmul_fast(const float *A, const float *B, float *out, size_t batches, bool a_batched, bool b_batched,
                 size_t M, size_t N, size_t K) {
    using namespace npucpu::fast;
    if (!npucpu::fast_paths_enabled() || M == 0 || N == 0 || batches == 0) return false;
    const size_t a_count = (a_batched ? batches : 1) * M * K;
    const size_t b_count = (b_batched ? batches : 1) * K * N;
    const size_t out_bytes = batches * M * N * sizeof(float);
    if (overlaps(out, out_bytes, A, a_count * sizeof(float)) || overlaps(out, out_bytes, B, b_count * sizeof(float))) {
        return false;
    }
    double max_a = 0.0, max_b = 0.0;
    for (size_t i = 0; i < a_count; ++i) {
        const double v = std::fabs(static_cast<double>(npucpu::saturate_trunc<int32_t>(A[i])));
        if (v > max_a) max_a = v;
    }
    for (size_t i = 0; i < b_count; ++i) {
        const double v = std::fabs(static_cast<double>(npucpu::saturate_trunc<int32_t>(B[i])));
        if (v > max_b) max_b = v;
    }
    constexpr double kExact = 16777216.0;  // 2^24
    const bool exact_float = max_a <= kExact && max_b <= kExact && max_a * max_b * static_cast<double>(K) <= kExact;

    if (exact_float) {
        float *af = static_cast<float *>(std::malloc((M * K > 0 ? M * K : 1) * sizeof(float)));
        float *bf = static_cast<float *>(std::malloc((K * N > 0 ? K * N : 1) * sizeof(float)));
        bool ok = af != nullptr && bf != nullptr;
        for (size_t t = 0; t < batches && ok; ++t) {
            if (t == 0 || a_batched) {
                const float *src = A + (a_batched ? t * M * K : 0);
                for (size_t i = 0; i < M * K; ++i) af[i] = static_cast<float>(npucpu::saturate_trunc<int32_t>(src[i]));
            }
            if (t == 0 || b_batched) {
                const float *src = B + (b_batched ? t * K * N : 0);
                for (size_t i = 0; i < K * N; ++i) bf[i] = static_cast<float>(npucpu::saturate_trunc<int32_t>(src[i]));
            }
            float *c = out + t * M * N;
            std::memset(c, 0, M * N * sizeof(float));
            GemmArgs g{M, N, K, af, K, 1, bf, N, 1, nullptr, c, false};
            ok = gemm_f32(g);
        }
        std::free(af);
        std::free(bf);
        return ok;
    }

    // Integer lanes: A's rows padded to a multiple of 8, B's to 64 columns.
    const size_t m_pad = (M + 7) / 8 * 8;
    const size_t ldb = (N + 63) / 64 * 64;
    int32_t *ai = static_cast<int32_t *>(std::calloc(m_pad * (K > 0 ? K : 1), sizeof(int32_t)));
    int32_t *bi = static_cast<int32_t *>(std::calloc((K > 0 ? K : 1) * ldb, sizeof(int32_t)));
    bool ok = ai != nullptr && bi != nullptr;
    for (size_t t = 0; t < batches && ok; ++t) {
        if (t == 0 || a_batched) {
            const float *src = A + (a_batched ? t * M * K : 0);
            for (size_t i = 0; i < M * K; ++i) ai[i] = npucpu::saturate_trunc<int32_t>(src[i]);
        }
        if (t == 0 || b_batched) {
            const float *src = B + (b_batched ? t * K * N : 0);
            for (size_t k = 0; k < K; ++k)
                for (size_t n = 0; n < N; ++n) bi[k * ldb + n] = npucpu::saturate_trunc<int32_t>(src[k * N + n]);
        }
        MatmulArgs m{M, N, K, ai, bi, ldb, out + t * M * N};
        ok = matmul_i32(m);
    }
    std::free(ai);
    std::free(bi);
    return ok;
}

// The NOTSET output size: numerator / stride in double, truncated or rounded
// up, plus one, converted with saturation. The stride is non-zero.
uint32_t sliding_out_size(uint32_t numerator, uint32_t stride, uint32_t ceil_mode) {
    double q = static_cast<double>(numerator) / static_cast<double>(stride);
    if (ceil_mode != 0) q = std::ceil(q);
    return npucpu::saturate_trunc<uint32_t>(q + 1.0);
}

// Remainder of x by d where a zero divisor counts the quotient as 0.
uint32_t remainder_or_self(uint32_t x, uint32_t d) { return d != 0 ? x % d : x; }

}  // namespace

extern "C" {

NPU_API uint32_t add(const Tensor *a, const Tensor *b, Tensor *out) {
    const uint32_t count = GetElemSize(&a->shape);
    for (uint32_t i = 0; i < count; ++i) out->data[i] = a->data[i] + b->data[i];
    return NPU_OK;
}

NPU_API float mac(const float *x, const float *y, uint32_t n) {
    float sum = 0.0f;
    for (uint32_t i = 0; i < n; ++i) sum = std::fma(x[i], y[i], sum);
    return sum;
}

NPU_API uint32_t gemm(const Tensor *a, const Tensor *b, const Tensor *bias, Tensor *out) {
    if (out->format == kLayoutMatrix) {
        gemm_matrix(a, b, bias, out);
        return NPU_OK;
    }
    if (out->format == kLayoutNCHW) {
        gemm_conv(a, b, out);
        return NPU_OK;
    }
    return NPU_ERR_SHAPE;
}

NPU_API Tensor *img_2_col(const Tensor *image, const Tensor *kernel, const uint32_t strides[2]) {
    const uint32_t W = get_width(&image->shape, image->format);
    const uint32_t H = get_height(&image->shape, image->format);
    const uint32_t C = get_channel(&image->shape, image->format);
    const uint32_t N = get_batch(&image->shape, image->format);
    const uint32_t kW = get_width(&kernel->shape, kernel->format);
    const uint32_t kH = get_height(&kernel->shape, kernel->format);
    const uint32_t kC = get_channel(&kernel->shape, kernel->format);
    const uint32_t s_h = strides[0];
    const uint32_t s_w = strides[1];

    // A zero stride counts the quotient as 0: one patch along that axis.
    const uint32_t out_h = (s_h != 0 ? (H - kH) / s_h : 0) + 1;
    const uint32_t out_w = (s_w != 0 ? (W - kW) / s_w : 0) + 1;
    const uint32_t P = out_h * out_w;
    const uint32_t row_len = C * kW * kH;

    TensorShape shape;
    std::memset(&shape, 0, sizeof shape);
    shape.dim_num = 4;
    shape.dims[0] = N;
    shape.dims[1] = 1;
    shape.dims[2] = P;
    shape.dims[3] = row_len;
    const uint32_t count = GetElemSize(&shape);
    if (static_cast<int32_t>(count) < 0) {
        NPU_ERROR("Shape: size error! Not support shape elems multiply size exceeds UINT32_MAX: \n");
        return nullptr;
    }

    Tensor *cols = static_cast<Tensor *>(std::calloc(1, sizeof(Tensor)));
    cols->shape = shape;
    cols->dtype = image->dtype;
    cols->format = kLayoutNCHW;
    cols->data = static_cast<float *>(std::calloc(count > 0 ? count : 1, sizeof(float)));

    // Guard: the patch loops stop after out_h rows and out_w columns of
    // patches (so a zero stride gives one patch instead of looping without
    // end), and each copied run is clamped to the image and to the result,
    // whose 32-bit element count may have wrapped. They also stop where
    // nothing more can be copied, which an image whose dims wrapped near
    // 2^32 otherwise turned into billions of empty patches: result rows only
    // grow (unless n x row_len x P passes 64 bits), so once a patch's row
    // starts at or past the result's end every later one does too; inside a
    // patch the result position only grows, and so does the image position
    // unless the batch's last channel plane ends past 64 bits.
    if (row_len == 0) return cols;  // patches of no element copy nothing
    const size_t image_count = GetElemSize(&image->shape);
    const size_t plane = static_cast<size_t>(W) * H;
    size_t unused = 0;
    const bool rows_grow = !__builtin_mul_overflow(static_cast<size_t>(N), static_cast<size_t>(row_len) * P, &unused);
    for (size_t n = 0; n < N; ++n) {
        const size_t img = n * C * plane;
        size_t row = n * static_cast<size_t>(row_len) * P;  // next result row
        if (rows_grow && row >= count) break;
        size_t batch_end = 0;
        const bool sources_grow = !__builtin_mul_overflow(n * C + kC, plane, &batch_end);
        uint32_t y = 0;
        for (uint32_t py = 0; py < out_h && static_cast<uint64_t>(y) + kH <= H && !(rows_grow && row >= count);
             ++py, y += s_h) {
            uint32_t x = 0;
            for (uint32_t px = 0; px < out_w && static_cast<uint64_t>(x) + kW <= W && !(rows_grow && row >= count);
                 ++px, x += s_w) {
                size_t dst = row;
                bool done = false;
                for (size_t c = 0; c < kC && !done; ++c) {
                    for (size_t r = 0; r < kH; ++r, dst += kW) {
                        const size_t src = img + c * plane + (y + r) * W + x;
                        if (src >= image_count || dst >= count) {
                            // Every later run of this patch lies past the
                            // same end.
                            done = (dst >= count && rows_grow) || (src >= image_count && sources_grow);
                            if (done) break;
                            continue;
                        }
                        size_t len = kW;
                        if (len > image_count - src) len = image_count - src;
                        if (len > count - dst) len = count - dst;
                        std::memcpy(cols->data + dst, image->data + src, len * sizeof(float));
                    }
                }
                row += row_len;
            }
        }
    }
    return cols;
}

NPU_API uint32_t matmul(const Tensor *a, const Tensor *b, Tensor *out) {
    const int32_t ra = a->shape.dim_num;
    const int32_t rb = b->shape.dim_num;
    // Guard: a rank-0 a has no last dim to take K from; nothing is written.
    if (ra < 1) return NPU_OK;
    const size_t K = a->shape.dims[ra - 1];
    const size_t M = ra >= 2 ? a->shape.dims[ra - 2] : 1;
    const size_t N = rb >= 2 ? b->shape.dims[rb - 1] : 1;

    const int32_t batch_a = static_cast<int32_t>(accumulate_mul(a->shape.dims, 0, ra - 2));
    const int32_t batch_b = static_cast<int32_t>(
        rb >= 2 ? accumulate_mul(b->shape.dims, 0, rb - 2) : accumulate_mul(b->shape.dims, 0, rb - 1));
    int32_t batch;
    if (ra < 2) {
        batch = batch_b > 1 ? batch_b : 1;
    } else {
        batch = batch_a > batch_b ? batch_a : batch_b;
        if (batch <= 0) return NPU_OK;
    }

    // Guard: b's rows must hold K values (a rank-0 b has none); otherwise the
    // product would read past b and nothing is written. Batched operands are
    // read only for the batches they hold, and writes stop at out's end
    // (batch dims are not compared by the operator).
    const size_t b_rows = rb >= 2 ? b->shape.dims[rb - 2] : (rb == 1 ? b->shape.dims[0] : 0);
    if (K > b_rows) return NPU_OK;
    size_t batches = static_cast<size_t>(batch);
    if (ra > 2 && static_cast<size_t>(batch_a) < batches) batches = batch_a;
    if (rb > 2 && static_cast<size_t>(batch_b) < batches) batches = batch_b;
    const size_t out_count = GetElemSize(&out->shape);
    if (batches * M * N <= out_count &&
        matmul_fast(a->data, b->data, out->data, batches, ra > 2, rb > 2, M, N, K)) {
        return NPU_OK;
    }

    for (size_t t = 0; t < batches; ++t) {
        const float *A = a->data + (ra > 2 ? t * M * K : 0);
        const float *B = b->data + (rb > 2 ? t * K * N : 0);
        for (size_t m = 0; m < M; ++m) {
            for (size_t n = 0; n < N; ++n) {
                const size_t o = t * M * N + m * N + n;
                if (o >= out_count) return NPU_OK;
                int32_t sum = 0;
                for (size_t k = 0; k < K; ++k) {
                    const int32_t x = npucpu::saturate_trunc<int32_t>(A[m * K + k]);
                    const int32_t y = npucpu::saturate_trunc<int32_t>(B[k * N + n]);
                    sum = npucpu::wrap_add(sum, npucpu::wrap_mul(x, y));
                }
                out->data[o] = static_cast<float>(sum);
            }
        }
    }
    return NPU_OK;
}

NPU_API uint32_t process_auto_pad_mode(const char *auto_pad, uint32_t in_h, uint32_t in_w,
                                       uint32_t stride_h, uint32_t stride_w, uint32_t kernel_h,
                                       uint32_t kernel_w, uint32_t pads[4], uint32_t ceil_mode,
                                       uint32_t *out_h, uint32_t *out_w) {
    // Guard: no mode text to compare.
    if (auto_pad == nullptr) return NPU_ERR_INVALID_ARG;
    const bool upper = std::strncmp(auto_pad, "SAME_UPPER", 10) == 0;
    const bool lower = !upper && std::strncmp(auto_pad, "SAME_LOWER", 10) == 0;
    if (upper || lower) {
        // Guard: a zero stride would be divided by; nothing is written.
        if (stride_h == 0 || stride_w == 0) return NPU_ERR_INVALID_ARG;
        const uint32_t oh = npucpu::saturate_trunc<uint32_t>(
            std::ceil(static_cast<double>(in_h) / static_cast<double>(stride_h)));
        const uint32_t ow = npucpu::saturate_trunc<uint32_t>(
            std::ceil(static_cast<double>(in_w) / static_cast<double>(stride_w)));
        // Totals in unsigned 32 bits without a clamp at 0: a kernel smaller
        // than the stride wraps the total, as intended.
        const uint32_t pad_h = kernel_h + (oh - 1) * stride_h - in_h;
        const uint32_t pad_w = kernel_w + (ow - 1) * stride_w - in_w;
        const uint32_t hh = pad_h >> 1;
        const uint32_t hw = pad_w >> 1;
        // The odd unit goes to the end under SAME_UPPER, to the beginning
        // under SAME_LOWER.
        pads[0] = lower ? pad_h - hh : hh;
        pads[2] = lower ? hh : pad_h - hh;
        pads[1] = lower ? pad_w - hw : hw;
        pads[3] = lower ? hw : pad_w - hw;
        *out_h = oh;
        *out_w = ow;
        return NPU_OK;
    }
    if (std::strncmp(auto_pad, "VALID", 5) == 0) {
        if (remainder_or_self(in_w - kernel_w, stride_w) != 0) {
            NPU_ERROR("Not support drop right data when auto_pad is VALID \n");
            return NPU_ERR_SHAPE;
        }
        if (remainder_or_self(in_h - kernel_h, stride_h) != 0) {
            NPU_ERROR("Not support drop bottom data when auto_pad is VALID \n");
            return NPU_ERR_SHAPE;
        }
        // Guard: a zero stride would be divided by; nothing is written.
        if (stride_h == 0 || stride_w == 0) return NPU_ERR_INVALID_ARG;
        pads[0] = pads[1] = pads[2] = pads[3] = 0;
        *out_h = sliding_out_size(in_h - kernel_h, stride_h, ceil_mode);
        *out_w = sliding_out_size(in_w - kernel_w, stride_w, ceil_mode);
        return NPU_OK;
    }
    if (std::strncmp(auto_pad, "NOTSET", 6) == 0) {
        // Guard: a zero stride would be divided by; nothing is written.
        if (stride_h == 0 || stride_w == 0) return NPU_ERR_INVALID_ARG;
        if (pads[0] + pads[1] + pads[2] + pads[3] == 0) pads[0] = pads[1] = pads[2] = pads[3] = 0;
        *out_h = sliding_out_size(in_h - kernel_h + pads[0] + pads[2], stride_h, ceil_mode);
        *out_w = sliding_out_size(in_w - kernel_w + pads[1] + pads[3], stride_w, ceil_mode);
        return NPU_OK;
    }
    NPU_ERROR("INVALID auto_pad_ mode %s \n", auto_pad);
    return NPU_ERR_INVALID_ARG;
}

}  // extern "C"
