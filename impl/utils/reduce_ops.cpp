#include "reduce_ops.h"

#include <algorithm>
#include <cstring>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "dispatch.h"
#include "op_context.h"
#include "op_log.h"

namespace npucpu {

namespace {

// Only keepdims == 1 keeps reduced axes as size-1 dims.
constexpr int64_t kKeepDims = 1;

bool contains(const std::vector<int64_t> &list, int64_t d) {
    return std::find(list.begin(), list.end(), d) != list.end();
}

}  // namespace

uint32_t reduce_infershape(OperatorContext *handle, const char *unit) {
    const TensorInfo in = input_info(handle, 0);
    const int64_t keepdims = attr_int(handle, "keepdims", 0);
    const AttrRecord *axes = qv_kel_custom_get_attr_by_name(handle, "axes");
    const int64_t r = in.shape.dim_num;

    // The axes to reduce, normalised; absent means every axis.
    std::vector<int64_t> list;
    uint64_t n = 0;
    if (axes != nullptr) {
        qv_kel_custom_get_attr_ints_size(axes, &n);
        for (uint64_t i = 0; i < n; ++i) {
            // Guard: the axis list has room for one entry per input dim only;
            // a longer list is refused when its first surplus entry is reached.
            if (i >= static_cast<uint64_t>(r)) return NPU_ERR_INPUT_NUM;
            int64_t a = 0;
            qv_kel_custom_get_attr_ints_by_index(axes, i, &a);
            if (a < -r || a >= r) {
                NPU_ERROR_AS(unit, "Reduce Op axis: %lld must be in [-%lld, %lld] \n",
                             static_cast<long long>(a), static_cast<long long>(r),
                             static_cast<long long>(r - 1));
                return NPU_ERR_INPUT_NUM;
            }
            list.push_back(a < 0 ? a + r : a);
        }
    } else {
        for (int64_t d = 0; d < r; ++d) list.push_back(d);
        n = static_cast<uint64_t>(r);
    }

    TensorShape out{};
    if (keepdims != kKeepDims) {
        uint8_t m = 0;
        for (int64_t d = 0; d < r; ++d) {
            // The test is on the count alone: r entries with repeats ([0, 0])
            // also collapse the output to [1].
            if (n == static_cast<uint64_t>(r)) {
                m = 0;
                out.dims[m++] = 1;
                break;
            }
            if (!contains(list, d)) out.dims[m++] = in.shape.dims[d];
        }
        out.dim_num = m;
    } else {
        for (int64_t d = 0; d < r; ++d) out.dims[d] = contains(list, d) ? 1 : in.shape.dims[d];
        out.dim_num = static_cast<uint8_t>(r);
    }
    set_output_desc(handle, 0, out, in.dtype, in.format);
    return NPU_OK;
}

uint32_t reduce_check_supported(OperatorContext *handle) {
    return input_info(handle, 0).dtype == NPU_DTYPE_FLOAT32 ? 1u : 0u;
}

uint32_t reduce_compute(OperatorContext *handle, ReducePassFn pass, ReduceFastFn fast) {
    const TensorInfo in = input_info(handle, 0);
    if (in.dtype != NPU_DTYPE_FLOAT32) return NPU_ERR_INVALID_ARG;
    if (in.buf == nullptr) return NPU_ERR_INVALID_ARG;
    attr_int(handle, "keepdims", 0);  // read as infershape does; the layout ignores it
    const AttrRecord *axes = qv_kel_custom_get_attr_by_name(handle, "axes");
    const int32_t r = in.shape.dim_num;

    std::vector<int64_t> raw;
    uint64_t n = 0;
    if (axes != nullptr) {
        qv_kel_custom_get_attr_ints_size(axes, &n);
        for (uint64_t i = 0; i < n; ++i) {
            // Guard: a list longer than the rank, as in infershape.
            if (i >= static_cast<uint64_t>(r)) return NPU_ERR_INPUT_NUM;
            int64_t a = 0;
            qv_kel_custom_get_attr_ints_by_index(axes, i, &a);
            raw.push_back(a);
        }
    }
    const TensorInfo out = output_info(handle, 0);
    if (out.buf == nullptr) return NPU_ERR_INVALID_ARG;

    std::vector<int64_t> list;
    if (axes != nullptr) {
        for (int64_t v : raw) {
            const int64_t axis = v < 0 ? v + r : v;
            // Guard: an axis outside the rank (infershape refuses it) would
            // name a dim the input does not have.
            if (axis < 0 || axis >= r) return NPU_ERR_INVALID_ARG;
            list.push_back(axis);
        }
    } else {
        for (int32_t d = 0; d < r; ++d) list.push_back(d);
    }

    // The fast form runs before the work buffers exist (none of the checks
    // above depends on them). An output length that is not whole floats
    // would also take bytes past the results from the work buffer: it keeps
    // the passes.
    if (fast != nullptr && list.size() == 1 && fast_paths_enabled() && out.buf_len % sizeof(float) == 0 &&
        fast(static_cast<const float *>(in.buf), in.buf_len / sizeof(float),
             static_cast<float *>(out.buf), out.buf_len / sizeof(float), in.shape.dims, r,
             static_cast<uint32_t>(list[0]))) {
        return NPU_OK;
    }

    // Work buffers A and B start as copies of the whole input buffer; they
    // hold at least the shape's element count.
    const uint64_t count = element_count(in.shape);
    const uint64_t work_len = std::max<uint64_t>((in.buf_len + 3) / 4, count);
    std::vector<float> a(work_len), b(work_len);
    if (in.buf_len > 0) {
        std::memcpy(a.data(), in.buf, in.buf_len);
        std::memcpy(b.data(), in.buf, in.buf_len);
    }
    const uint64_t out_bytes = std::min<uint64_t>(out.buf_len, work_len * sizeof(float));

    uint32_t work_dims[NPU_MAX_DIMS];
    std::memcpy(work_dims, in.shape.dims, sizeof(work_dims));
    // Guard: with a zero dim the input holds no element, yet a pass after
    // the zero-length axis was marked 1 would read one: no pass runs.
    for (int64_t axis : count > 0 ? list : std::vector<int64_t>{}) {
        pass(ReducePass{a.data(), b.data(), work_dims, in.shape.dims, r,
                        static_cast<uint32_t>(axis)});
        b = a;
    }
    if (out_bytes > 0) std::memcpy(out.buf, a.data(), out_bytes);
    return NPU_OK;
}

namespace {

// The single-axis maximum (Max) or minimum straight from the input into the
// output, under the same conditions as the mean's fast form: the output holds
// exactly the results and the input the whole shape. Each slice starts from
// its first element and replaces the running value only on a strictly
// greater (smaller) one, in index order, as the passes do; where slices are
// strided, a row of running values is updated one input row at a time.
template <bool Max>
float slice_extreme_in_order(const float *x, uint64_t len) {
    float v = x[0];
    for (uint64_t k = 1; k < len; ++k) {
        if (Max ? x[k] > v : x[k] < v) v = x[k];
    }
    return v;
}

// A contiguous slice's extreme. The running value starts from the first
// element: a NaN there is never replaced, otherwise NaN never wins. Values
// that compare equal have equal bits except +0 and -0, so unless the result
// is a zero the order of the comparisons does not matter: sixteen running
// values, four vectors of maxps(x, m) = x > m ? x : m (minps likewise).
// A zero result is recomputed in index order (the first zero wins).
template <bool Max>
float slice_extreme(const float *x, uint64_t len) {
    const float first = x[0];
    if (first != first || len < 17) return slice_extreme_in_order<Max>(x, len);
    uint64_t k = 1;
#if defined(__SSE2__)
    const auto pick = [](__m128 a, __m128 b) { return Max ? _mm_max_ps(a, b) : _mm_min_ps(a, b); };
    __m128 a0 = _mm_set1_ps(first), a1 = a0, a2 = a0, a3 = a0;
    for (; k + 16 <= len; k += 16) {
        a0 = pick(_mm_loadu_ps(x + k), a0);
        a1 = pick(_mm_loadu_ps(x + k + 4), a1);
        a2 = pick(_mm_loadu_ps(x + k + 8), a2);
        a3 = pick(_mm_loadu_ps(x + k + 12), a3);
    }
    float lanes[4];
    _mm_storeu_ps(lanes, pick(pick(a0, a1), pick(a2, a3)));
    float v = lanes[0];
    for (int i = 1; i < 4; ++i) {
        if (Max ? lanes[i] > v : lanes[i] < v) v = lanes[i];
    }
#else
    float v = first;
#endif
    for (; k < len; ++k) {
        if (Max ? x[k] > v : x[k] < v) v = x[k];
    }
    return v == 0.0f ? slice_extreme_in_order<Max>(x, len) : v;
}

template <bool Max>
bool fast_extreme(const float *in, uint64_t in_cap, float *out, uint64_t out_cap, const uint32_t *in_dims,
                  int32_t rank, uint32_t axis) {
    const uint64_t outer = accumulate_mul(in_dims, 0, static_cast<int32_t>(axis));
    const uint64_t len = in_dims[axis];
    const uint64_t inner = accumulate_mul(in_dims, static_cast<int32_t>(axis) + 1, rank);
    if (len == 0 || outer * inner != out_cap || outer * len * inner > in_cap) return false;
    for (uint64_t o = 0; o < outer; ++o) {
        const float *block = in + o * len * inner;
        float *m = out + o * inner;
        if (inner == 1) {
            m[0] = slice_extreme<Max>(block, len);
            continue;
        }
        std::memcpy(m, block, inner * sizeof(float));
        for (uint64_t k = 1; k < len; ++k) {
            const float *row = block + k * inner;
            uint64_t i = 0;
#if defined(__SSE2__)
            // maxps(x, m) is x > m ? x : m and minps(x, m) is x < m ? x : m,
            // NaN and signed zeros included: the scalar step, four at a time.
            for (; i + 4 <= inner; i += 4) {
                const __m128 x = _mm_loadu_ps(row + i);
                const __m128 cur = _mm_loadu_ps(m + i);
                _mm_storeu_ps(m + i, Max ? _mm_max_ps(x, cur) : _mm_min_ps(x, cur));
            }
#endif
            for (; i < inner; ++i) {
                const float x = row[i];
                m[i] = (Max ? x > m[i] : x < m[i]) ? x : m[i];
            }
        }
    }
    return true;
}

}  // namespace

bool reduce_fast_max(const float *in, uint64_t in_cap, float *out, uint64_t out_cap, const uint32_t *in_dims,
                     int32_t rank, uint32_t axis) {
    return fast_extreme<true>(in, in_cap, out, out_cap, in_dims, rank, axis);
}

bool reduce_fast_min(const float *in, uint64_t in_cap, float *out, uint64_t out_cap, const uint32_t *in_dims,
                     int32_t rank, uint32_t axis) {
    return fast_extreme<false>(in, in_cap, out, out_cap, in_dims, rank, axis);
}

}  // namespace npucpu
